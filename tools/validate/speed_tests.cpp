// Times, with bounds only where the interface promises something.
#include <chrono>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void openingAModel(Test& test) {
  const Clock::time_point start = Clock::now();
  ORBRuntimeProbe probe;
  test.plugin.runtime->probe(test.subject.model.c_str(), &probe);
  const double probed = millisecondsSince(start);
  const Clock::time_point created = Clock::now();
  Handle handle(test);
  test.note("probe %.1f ms, create %.1f ms", probed, millisecondsSince(created));
}

// A plug-in that claims more speed than the clock allows miscounts.
void benchAgreesWithTheClock(Test& test) {
  constexpr double kSlack = 1.05;
  Handle handle(test);
  if (!handle.ok()) return;
  handle.bench(1, 1);  // pages and caches
  const Clock::time_point start = Clock::now();
  const ORBBenchResult result = handle.bench(8, 1);
  const double taken = millisecondsSince(start);
  const double claimed = result.msPerToken * static_cast<double>(result.tokens);
  test.expect(claimed <= taken * kSlack, "bench: %g ms measured inside a call of %g ms", claimed,
              taken);
  test.note("bench: %.3g ms a token, %.4g tokens a second", result.msPerToken,
            result.tokensPerSecond);
}

void statisticsAgreeWithTheClock(Test& test) {
  constexpr double kSlack = 1.05;
  Handle handle(test);
  if (!handle.ok()) return;
  const Clock::time_point start = Clock::now();
  handle.chat("Hello, what can you do?");
  const double taken = millisecondsSince(start);
  const ORBRuntimeStats stats = handle.stats();
  test.expect(stats.totalForwardMs <= taken * kSlack,
              "statistics: %g ms of forward passes in a call of %g ms", stats.totalForwardMs,
              taken);
  test.note("a turn of %llu tokens took %.1f ms",
            static_cast<unsigned long long>(stats.contextTokens), taken);
}

}  // namespace

std::vector<TestCase> speedTests() {
  return {{"speed.opening_a_model", Need::Model, openingAModel},
          {"speed.bench_agrees_with_the_clock", Need::Model, benchAgreesWithTheClock},
          {"speed.statistics_agree_with_the_clock", Need::Model, statisticsAgreeWithTheClock}};
}

}  // namespace orb::validate
