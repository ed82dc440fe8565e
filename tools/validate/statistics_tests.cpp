// Statistics and the measurement slot.
#include <chrono>
#include <cmath>

#include "validate/handle.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

constexpr int64_t kDefaultGenTokens = 64;

void expectEmpty(Test& test, Handle& handle, const char* when, bool lastToo) {
  const ORBRuntimeStats stats = handle.stats();
  test.expect(stats.contextTokens == 0, "context %s: expected 0, found %llu", when,
              static_cast<unsigned long long>(stats.contextTokens));
  test.expect(stats.totalForwardMs == 0, "total time %s: expected 0, found %g ms", when,
              stats.totalForwardMs);
  if (lastToo) {
    test.expect(stats.lastForwardMs == 0, "last time %s: expected 0, found %g ms", when,
                stats.lastForwardMs);
  }
}

void countersFollowTheCalls(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  expectEmpty(test, handle, "of a fresh handle", true);
  handle.chat("Hello");
  const ORBRuntimeStats first = handle.stats();
  test.expect(first.contextTokens > 0, "context after a turn: expected tokens, found none");
  test.expect(first.totalForwardMs >= first.lastForwardMs,
              "total time %g ms is less than the last pass' %g ms", first.totalForwardMs,
              first.lastForwardMs);
  const ORBRuntimeStats again = handle.stats();
  test.expect(again.totalForwardMs == first.totalForwardMs, "reading the statistics changed them");
  handle.chat("Hello");
  test.expect(handle.stats().totalForwardMs >= first.totalForwardMs,
              "total time went back from one turn to the next");
  handle.reset();
  expectEmpty(test, handle, "after reset", true);
  handle.generate("Hello");
  test.expect(handle.contextTokens() > 0, "context after generate: expected tokens, found none");
}

void benchLeavesAnEmptyContext(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  handle.chat("Hello");
  handle.bench(2, 1);
  expectEmpty(test, handle, "after bench", false);
}

void benchKeepsTheSettings(Test& test) {
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  first.configure(sampling(1.2f, 13));
  second.configure(sampling(1.2f, 13));
  first.bench(2, 1);
  test.expectText("sampled text after bench", first.generate("Hello").text,
                  second.generate("Hello").text);
}

void expectConsistent(Test& test, const ORBBenchResult& result, int64_t genTokens) {
  test.expectEqual("tokens of bench", result.tokens, genTokens);
  test.expect(result.msPerToken > 0 && std::isfinite(result.msPerToken),
              "bench: expected a time above 0, found %g ms", result.msPerToken);
  const double expected = 1000 / result.msPerToken;
  test.expect(std::fabs(result.tokensPerSecond - expected) <= expected * 1e-9,
              "bench: expected %g tokens a second at %g ms each, found %g", expected,
              result.msPerToken, result.tokensPerSecond);
}

void benchTellsWhatItMeasured(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  expectConsistent(test, handle.bench(1, 1), 1);
  expectConsistent(test, handle.bench(5, 2), 5);
  expectConsistent(test, handle.bench(0, 0), kDefaultGenTokens);
  expectConsistent(test, handle.bench(-3, -1), kDefaultGenTokens);
  ORBBenchResult result{};
  test.expectEqual("result of bench without parameters",
                   test.plugin.runtime->bench(handle.raw(), nullptr, &result), ORB_OK);
  expectConsistent(test, result, kDefaultGenTokens);
}

}  // namespace

std::vector<TestCase> statisticsTests() {
  return {{"statistics.counters_follow_the_calls", Need::Model, countersFollowTheCalls},
          {"statistics.bench_leaves_an_empty_context", Need::Model, benchLeavesAnEmptyContext},
          {"statistics.bench_keeps_the_settings", Need::Model, benchKeepsTheSettings},
          {"statistics.bench_tells_what_it_measured", Need::Model, benchTellsWhatItMeasured}};
}

}  // namespace orb::validate
