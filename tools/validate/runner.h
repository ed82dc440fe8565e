// Runs tests, each in a process of its own, so that a crash or a hang ends that test only.
#pragma once

#include <string>
#include <vector>

#include "validate/test.h"

namespace orb::validate {

struct Outcome {
  std::string name;
  Verdict verdict = Verdict::Failed;
  double seconds = 0;
  std::vector<std::string> messages;  // why it failed or was skipped
  std::vector<std::string> notes;
  std::string printed;  // what the plug-in printed, if anything
};

// The process is this program once more, with commandLine() after its name.
Outcome runApart(const TestCase& test, const Subject& subject, double timeoutSeconds);

// "validate PLUGIN MODEL --test NAME --seed N": the words after the program's name that run the
// test in this process, for a debugger too.
std::vector<std::string> commandLine(const TestCase& test, const Subject& subject);

// The words as a shell takes them.
std::string shellText(const std::vector<std::string>& words);

}  // namespace orb::validate
