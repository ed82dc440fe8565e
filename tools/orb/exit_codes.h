// What every subcommand returns, and how it reports failures.
#pragma once

#include <string>

namespace orb {

enum ExitCode : int { kOk = 0, kFailure = 1, kUsage = 2 };

// Prints "orb: SUBJECT: MESSAGE" (or "orb: MESSAGE" without a subject) on the standard error
// stream, fit for a terminal; a message says what was expected, what was found and what to do.
void printError(const std::string& subject, const std::string& message);

// The same, and the code to return.
int fail(const std::string& subject, const std::string& message, ExitCode code = kFailure);

}  // namespace orb
