// One test of the validator: what it is given, and how it tells what it finds.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "orb_plugin.h"
#include "synth/random.h"
#include "validate/plugin.h"

// The directives of the standard, also where the C library of the system has others.
#if defined(__MINGW32__)
#define ORB_VALIDATE_PRINTF gnu_printf
#else
#define ORB_VALIDATE_PRINTF printf
#endif

namespace orb::validate {

// What is validated. The library is not trusted: it is loaded in the process of a test only.
struct Subject {
  std::string plugin;
  std::string model;  // empty: tests that need one are skipped
  uint64_t seed = 1;
};

enum class Verdict { Passed, Failed, Skipped };

// Given to each test. Failed expectations are printed at once, so that they are not lost in a
// crash; the test goes on unless it returns. Expectations may come from several threads.
class Test {
 public:
  Test(const Subject& of, std::string_view name) : subject(of), random(of.seed, name) {}

  // Records a failure unless `holds`, with a message that says what was expected and what was
  // found. Returns `holds`.
  [[gnu::format(ORB_VALIDATE_PRINTF, 3, 4)]] bool expect(bool holds, const char* pattern, ...);
  bool expectEqual(const char* what, int64_t found, int64_t expected);
  bool expectText(const char* what, std::string_view found, std::string_view expected);

  // A finding that is no failure, such as a measured time.
  [[gnu::format(ORB_VALIDATE_PRINTF, 2, 3)]] void note(const char* pattern, ...);
  void skip(const char* reason);

  // At least 0, below `limit`.
  int below(int limit) { return static_cast<int>(random.next() % static_cast<uint64_t>(limit)); }

  Verdict verdict() const;

  const Subject& subject;
  Plugin plugin;  // with its tables, unless the test needs the file only
  Random random;

 private:
  std::atomic<int> failures_ = 0;
  bool skipped_ = false;
};

enum class Need { File, Tables, Model };

struct TestCase {
  const char* name;  // "group.rule"
  Need need;
  void (*run)(Test&);
};

// All tests in the order in which they run; the groups are their sources.
std::vector<TestCase> allTests();

std::vector<TestCase> loadTests();
std::vector<TestCase> tableTests();
std::vector<TestCase> argumentTests();
std::vector<TestCase> lifecycleTests();
std::vector<TestCase> generationTests();
std::vector<TestCase> chatTests();
std::vector<TestCase> statisticsTests();
std::vector<TestCase> hygieneTests();
std::vector<TestCase> speedTests();

// Runs one test in this process, printing as it goes: "failed: ...", "note: ...", "skipped: ...",
// and at the very end "result: passed" (failed, skipped).
Verdict runHere(const TestCase& test, const Subject& subject);

}  // namespace orb::validate
