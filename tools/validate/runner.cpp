#include "validate/runner.h"

#include <sstream>
#include <string_view>

#include "validate/platform.h"

namespace orb::validate {
namespace {

// Takes the rest of a line that begins with the kind.
bool takeKind(std::string_view line, std::string_view kind, std::string& rest) {
  if (line.substr(0, kind.size()) != kind) return false;
  rest = line.substr(kind.size());
  return true;
}

// Sorts what the process printed; true when it told its verdict as the very last thing.
bool readOutput(const std::string& output, Outcome& outcome) {
  std::istringstream lines(output);
  std::string line, rest, result;
  while (std::getline(lines, line)) {
    if (takeKind(line, "result: ", rest)) {
      result = rest;
    } else if (takeKind(line, "failed: ", rest) || takeKind(line, "skipped: ", rest)) {
      outcome.messages.push_back(rest);
    } else if (takeKind(line, "note: ", rest)) {
      outcome.notes.push_back(rest);
    } else {
      outcome.printed += line + '\n';
    }
  }
  if (result == "passed") outcome.verdict = Verdict::Passed;
  if (result == "skipped") outcome.verdict = Verdict::Skipped;
  return !result.empty();
}

}  // namespace

Outcome runApart(const TestCase& test, const Subject& subject, double timeoutSeconds) {
  std::vector<std::string> words = commandLine(test, subject);
  words.insert(words.begin(), executablePath());
  const ProcessResult process = runProcess(words, timeoutSeconds);
  Outcome outcome;
  outcome.name = test.name;
  outcome.seconds = process.seconds;
  const bool ended = readOutput(process.output, outcome);
  const bool clean = process.exitCode == 0 || process.exitCode == 1;
  if (process.started && ended && clean) {
    if (process.exitCode != 0) outcome.verdict = Verdict::Failed;
    return outcome;
  }
  outcome.verdict = Verdict::Failed;
  std::string how = "exit code " + std::to_string(process.exitCode);
  if (!process.endedBy.empty()) how = process.endedBy;
  if (process.timedOut)
    how = "it took longer than " + std::to_string(static_cast<int>(timeoutSeconds)) + " s";
  if (!process.started) how = "it could not be started";
  outcome.messages.push_back(std::string("the process ended ") +
                             (ended ? "badly after the test: " : "in the middle of the test: ") +
                             how);
  return outcome;
}

std::vector<std::string> commandLine(const TestCase& test, const Subject& subject) {
  std::vector<std::string> words{"validate", subject.plugin};
  if (!subject.model.empty()) words.push_back(subject.model);
  words.insert(words.end(), {"--test", test.name, "--seed", std::to_string(subject.seed)});
  return words;
}

std::string shellText(const std::vector<std::string>& words) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=.,:/@%";
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += ' ';
    if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) {
      text += word;
      continue;
    }
    text += '\'';
    for (const char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    text += '\'';
  }
  return text;
}

}  // namespace orb::validate
