// orb validate: runs the validator's tests against a plug-in library.
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/exit_codes.h"
#include "orb/json_output.h"
#include "orb/platform.h"
#include "orb/text.h"
#include "validate/runner.h"
#include "validate/test.h"

namespace orb {
namespace {

using validate::Outcome;
using validate::TestCase;
using validate::Verdict;

struct ValidateOptions {
  validate::Subject subject;
  std::string filter;
  std::string test;  // only this one, in this process
  bool list = false;
  bool json = false;
  double timeout = 120;
};

constexpr std::array<const char*, 3> kVerdictNames{"passed", "FAILED", "skipped"};

const char* nameOf(Verdict verdict) { return kVerdictNames[static_cast<size_t>(verdict)]; }

// The tests whose names hold one of the words of a filter like "chat.,tables.".
std::vector<TestCase> chosenTests(const std::string& filter) {
  std::vector<TestCase> chosen;
  for (const TestCase& test : validate::allTests()) {
    size_t start = 0;
    bool wanted = filter.empty();
    while (!wanted && start <= filter.size()) {
      const size_t end = std::min(filter.find(',', start), filter.size());
      const std::string word = filter.substr(start, end - start);
      wanted = !word.empty() && std::string(test.name).find(word) != std::string::npos;
      start = end + 1;
    }
    if (wanted) chosen.push_back(test);
  }
  return chosen;
}

std::string again(const Outcome& outcome, const ValidateOptions& options) {
  const TestCase test{outcome.name.c_str(), validate::Need::File, nullptr};
  return "orb " + validate::shellText(validate::commandLine(test, options.subject));
}

void printLines(const char* indent, const std::string& text) {
  constexpr size_t kMostBytes = 400;
  std::printf("%s%s\n", indent, printable(text, kMostBytes).c_str());
}

void printOutcome(const Outcome& outcome, const ValidateOptions& options) {
  std::printf("%-8s %-52s %9s\n", nameOf(outcome.verdict), outcome.name.c_str(),
              formatDuration(outcome.seconds).c_str());
  if (outcome.verdict == Verdict::Failed) {
    for (const std::string& message : outcome.messages) printLines("         ", message);
    if (!outcome.printed.empty()) printLines("         it printed: ", outcome.printed);
    std::printf("         again: %s\n", again(outcome, options).c_str());
  } else if (outcome.verdict == Verdict::Skipped && !outcome.messages.empty()) {
    printLines("         ", outcome.messages.front());
  }
  for (const std::string& note : outcome.notes) printLines("         ", note);
  std::fflush(stdout);
}

Json toJson(const Outcome& outcome, const ValidateOptions& options) {
  Json json{{"name", outcome.name},
            {"result", outcome.verdict == Verdict::Failed ? "failed" : nameOf(outcome.verdict)},
            {"milliseconds", outcome.seconds * 1000},
            {"messages", outcome.messages},
            {"notes", outcome.notes}};
  if (outcome.verdict != Verdict::Failed) return json;
  json["printed"] = outcome.printed;
  json["again"] = again(outcome, options);
  return json;
}

int runAll(const std::vector<TestCase>& tests, const ValidateOptions& options) {
  std::array<int, 3> counts{};
  Json list = Json::array();
  InterruptFlag interrupted(InterruptFlag::Scope::Conversation);
  for (const TestCase& test : tests) {
    if (interrupted.isSet()) return fail("", "interrupted");
    const Outcome outcome = validate::runApart(test, options.subject, options.timeout);
    counts[static_cast<size_t>(outcome.verdict)] += 1;
    if (options.json) {
      list.push_back(toJson(outcome, options));
    } else {
      printOutcome(outcome, options);
    }
  }
  if (options.json) {
    printJson({{"plugin", options.subject.plugin},
               {"model", options.subject.model},
               {"seed", options.subject.seed},
               {"passed", counts[0]},
               {"failed", counts[1]},
               {"skipped", counts[2]},
               {"tests", list}});
  } else {
    std::printf("%d passed, %d failed, %d skipped; seed %llu\n", counts[0], counts[1], counts[2],
                static_cast<unsigned long long>(options.subject.seed));
  }
  return counts[1] == 0 ? kOk : kFailure;
}

int runOne(const ValidateOptions& options) {
  for (const TestCase& test : validate::allTests()) {
    if (options.test != test.name) continue;
    return validate::runHere(test, options.subject) == Verdict::Failed ? kFailure : kOk;
  }
  return fail(options.test, "expected the name of a test, found none like it; --list shows them",
              kUsage);
}

int runValidate(const ValidateOptions& options) {
  const std::vector<TestCase> tests = chosenTests(options.filter);
  if (options.list) {
    for (const TestCase& test : tests) {
      std::printf("%s%s\n", test.name, test.need == validate::Need::Model ? " (needs MODEL)" : "");
    }
    return kOk;
  }
  uint64_t size = 0;
  if (!fileSize(options.subject.plugin, size)) {
    return fail(options.subject.plugin, "expected a plug-in library, found no file; check the path",
                kUsage);
  }
  if (!options.subject.model.empty() && !fileSize(options.subject.model, size)) {
    return fail(options.subject.model, "expected a model file, found no file; check the path",
                kUsage);
  }
  if (!options.test.empty()) return runOne(options);
  if (tests.empty()) {
    return fail(options.filter, "expected a part of a test's name; --list shows them all", kUsage);
  }
  return runAll(tests, options);
}

}  // namespace

void addValidateCommand(CLI::App& app, int& exitCode) {
  CLI::App* command =
      app.add_subcommand("validate", "Test a runtime plug-in against the C interface");
  auto options = std::make_shared<ValidateOptions>();
  CLI::Option* plugin =
      command->add_option("PLUGIN", options->subject.plugin, "Plug-in library")->type_name("");
  command
      ->add_option("MODEL", options->subject.model,
                   "Model that it serves; without, half of the tests are skipped")
      ->type_name("");
  command->add_option("--filter", options->filter, "Only tests whose names hold one of the words")
      ->type_name("WORD,...");
  command->add_option("--seed", options->subject.seed, "Seed of what is random [1]")
      ->type_name("N");
  command->add_option("--timeout", options->timeout, "Seconds that one test may take [120]")
      ->check(CLI::Range(1.0, 86400.0))
      ->type_name("S");
  CLI::Option* list = command->add_flag("--list", options->list, "List the tests and end");
  command->add_option("--test", options->test, "Run this one in this process, for a debugger")
      ->type_name("NAME");
  command->add_flag("--json", options->json, "JSON instead of lines");
  addExamples(
      *command,
      "  orb validate ./liborb_runtime_qwen35.so models/demo.orb\n"
      "  orb validate ./mine.so --filter load.,tables.\n"
      "Each test runs in a process of its own; \"again:\" is the command that repeats a failure.\n"
      "Exit code 0 when no test failed, 1 otherwise.");
  command->callback([options, plugin, list, &exitCode] {
    if (plugin->count() == 0 && list->count() == 0) throw CLI::RequiredError("PLUGIN");
    exitCode = runValidate(*options);
  });
}

}  // namespace orb
