#include "orb/exit_codes.h"

#include <cstdio>

#include "orb/text.h"

namespace orb {

void printError(const std::string& subject, const std::string& message) {
  std::fflush(stdout);  // keep the order of the two streams
  const std::string line = (subject.empty() ? "" : printable(subject) + ": ") + printable(message);
  std::fprintf(stderr, "orb: %s\n", line.c_str());
}

int fail(const std::string& subject, const std::string& message, ExitCode code) {
  printError(subject, message);
  return code;
}

}  // namespace orb
