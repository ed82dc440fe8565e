// What the plug-in does to the process around it while it is used.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

void useEverySlot(Test& test, Handle& handle) {
  ORBRuntimeProbe probe;
  test.plugin.runtime->probe(test.subject.model.c_str(), &probe);
  handle.configure(sampling(0.8f, 3));
  handle.generate("Hello");
  handle.chat("Hello");
  handle.stream("Hello", {3});
  handle.bench(2, 1);
  handle.stats();
  handle.reset();
}

void expectSame(Test& test, const char* when,
                const std::vector<std::pair<std::string, std::string>>& before) {
  const auto after = surroundings();
  for (size_t i = 0; i < before.size(); ++i) {
    test.expectText((before[i].first + " " + when).c_str(), after[i].second, before[i].second);
  }
}

void theProcessIsLeftAlone(Test& test) {
  setUnusualFloatingPointMode();
  const auto before = surroundings();
  auto handle = std::make_unique<Handle>(test);
  if (!handle->ok()) return;
  expectSame(test, "after create", before);
  useEverySlot(test, *handle);
  expectSame(test, "after use", before);
  handle.reset();
  expectSame(test, "after destroy", before);
  ORBRuntimeHandle* none = nullptr;
  test.plugin.runtime->create("no/such/file.orb", nullptr, &none, nullptr, 0);
  expectSame(test, "after a failed create", before);
}

void nothingIsWritten(Test& test) {
  const int64_t before = bytesWritten();
  if (before < 0) return test.skip("needs a system that counts what a process writes");
  {
    Handle handle(test);
    if (!handle.ok()) return;
    useEverySlot(test, handle);
  }
  std::fflush(nullptr);
  test.expectEqual("bytes written to files, streams or sockets", bytesWritten(), before);
}

void noFileOrSocketIsLeftOpen(Test& test) {
  const std::vector<std::string> before = openFiles();
  {
    Handle handle(test);
    if (!handle.ok()) return;
    useEverySlot(test, handle);
    for (const std::string& file : openFiles()) {
      test.expect(file.find("socket:") == std::string::npos, "a socket is open: %s", file.c_str());
    }
  }
  const std::vector<std::string> after = openFiles();
  for (const std::string& file : after) {
    if (std::find(before.begin(), before.end(), file) != before.end()) continue;
    test.expect(false, "still open after destroy: %s", file.c_str());
  }
}

void noTimeIsTakenBetweenCalls(Test& test) {
  constexpr int kAsleepMs = 200;
  constexpr double kMost = 0.010;
  Handle handle(test);
  if (!handle.ok()) return;
  useEverySlot(test, handle);
  handle.chat("Hello");
  const double before = processorSeconds();
  sleepMilliseconds(kAsleepMs);
  const double taken = processorSeconds() - before;
  test.expect(taken < kMost,
              "%.1f ms of processor time in %d ms between two calls, expected less than %.0f",
              taken * 1000, kAsleepMs, kMost * 1000);
}

void noThreadBeforeTheFirstProduct(Test& test) {
  const int before = threadCount();
  Handle handle(test);
  if (!handle.ok()) return;
  test.expectEqual("threads after create", threadCount(), before);
}

// An allocator may keep what was freed, and comes to that late: only memory that grows again and
// again is lost.
void memoryIsGivenBack(Test& test) {
  constexpr int kWindows = 3, kRounds = 8;
  constexpr int64_t kSlack = 4 << 20;
  std::vector<int64_t> resident;
  for (int round = 1; round <= kWindows * kRounds; ++round) {
    {
      Handle handle(test);
      if (!handle.ok()) return;
      handle.stream("Hello", {2});
    }
    if (round % kRounds == 0) resident.push_back(residentBytes());
  }
  if (resident.front() < 0) return test.skip("needs a system that tells the memory of a process");
  const int64_t growth = std::min(resident[1] - resident[0], resident[2] - resident[1]);
  test.expect(growth < kSlack, "resident memory grows by %lld bytes in every %d rounds",
              static_cast<long long>(growth), kRounds);
}

}  // namespace

std::vector<TestCase> hygieneTests() {
  return {
      {"hygiene.the_process_is_left_alone", Need::Model, theProcessIsLeftAlone},
      {"hygiene.nothing_is_written", Need::Model, nothingIsWritten},
      {"hygiene.no_file_or_socket_is_left_open", Need::Model, noFileOrSocketIsLeftOpen},
      {"hygiene.no_time_is_taken_between_calls", Need::Model, noTimeIsTakenBetweenCalls},
      {"hygiene.no_thread_before_the_first_product", Need::Model, noThreadBeforeTheFirstProduct},
      {"hygiene.memory_is_given_back", Need::Model, memoryIsGivenBack}};
}

}  // namespace orb::validate
