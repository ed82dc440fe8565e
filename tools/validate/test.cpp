#include "validate/test.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace orb::validate {
namespace {

constexpr int kMostMessages = 20;

void print(const char* kind, const char* pattern, va_list arguments) {
  std::printf("%s: ", kind);
  std::vprintf(pattern, arguments);
  std::printf("\n");
  std::fflush(stdout);
}

// Loads what the test needs; false when it cannot run.
bool prepare(const TestCase& test, const Subject& subject, Test& run) {
  if (test.need == Need::File) return true;
  if (test.need == Need::Model && subject.model.empty()) {
    run.skip("needs a MODEL");
    return false;
  }
  std::string error;
  if (run.plugin.load(subject.plugin, error) && run.plugin.findTables(error)) return true;
  run.skip(("needs what the first groups look for: " + error).c_str());
  return false;
}

}  // namespace

bool Test::expect(bool holds, const char* pattern, ...) {
  if (holds) return true;
  if (failures_.fetch_add(1) >= kMostMessages) return false;
  va_list arguments;
  va_start(arguments, pattern);
  print("failed", pattern, arguments);
  va_end(arguments);
  return false;
}

bool Test::expectEqual(const char* what, int64_t found, int64_t expected) {
  return expect(found == expected, "%s: expected %lld, found %lld", what,
                static_cast<long long>(expected), static_cast<long long>(found));
}

bool Test::expectText(const char* what, std::string_view found, std::string_view expected) {
  static constexpr size_t kShown = 60;
  const auto shown = [](std::string_view text) {
    return static_cast<int>(std::min(text.size(), kShown));
  };
  return expect(found == expected, "%s: expected \"%.*s\" (%zu bytes), found \"%.*s\" (%zu bytes)",
                what, shown(expected), expected.data(), expected.size(), shown(found), found.data(),
                found.size());
}

void Test::note(const char* pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  print("note", pattern, arguments);
  va_end(arguments);
}

void Test::skip(const char* reason) {
  skipped_ = true;
  std::printf("skipped: %s\n", reason);
}

Verdict Test::verdict() const {
  if (failures_ > 0) return Verdict::Failed;
  return skipped_ ? Verdict::Skipped : Verdict::Passed;
}

std::vector<TestCase> allTests() {
  std::vector<TestCase> all;
  for (const auto group : {loadTests, tableTests, argumentTests, lifecycleTests, generationTests,
                           chatTests, statisticsTests, hygieneTests, speedTests}) {
    const std::vector<TestCase> tests = group();
    all.insert(all.end(), tests.begin(), tests.end());
  }
  return all;
}

Verdict runHere(const TestCase& test, const Subject& subject) {
  Test run(subject, test.name);
  if (prepare(test, subject, run)) test.run(run);
  const Verdict verdict = run.verdict();
  run.plugin.unload();
  std::printf("result: %s\n", verdict == Verdict::Passed   ? "passed"
                              : verdict == Verdict::Failed ? "failed"
                                                           : "skipped");
  std::fflush(stdout);
  return verdict;
}

}  // namespace orb::validate
