// The plug-in's own measurement of decode speed.
#include "plugin/bench.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "plugin/head_counter.h"
#include "plugin/opened_model.h"

namespace orbtest {
namespace {

// The bench's prompt is "Hi"; i repeats itself.
struct Bench : ScriptedModel {
  int32_t big = token("H"), small = token("i"), a = token("a");
  int32_t end = special("<|endoftext|>");

  Bench() { tokenizer.specialIds[1] = end; }
};

struct Outcome {
  int result;
  ORBBenchResult record;
};

Outcome bench(OpenedModel& model, int32_t genTokens, int32_t extraTokens) {
  const ORBBenchParams params = {
      .structSize = 0, .genTokens = genTokens, .extraTokens = extraTokens};
  Outcome outcome{};
  std::memset(&outcome.record, 0xFF, sizeof outcome.record);
  outcome.result = runtime().bench(model.handle(), &params, &outcome.record);
  return outcome;
}

// Passes with logits: one of the prompt, then one for every step but the last.
int passes(OpenedModel& model, int32_t genTokens, int32_t extraTokens) {
  const HeadCounter head(model.session().model);
  EXPECT_EQ(bench(model, genTokens, extraTokens).result, ORB_OK);
  return head.runs();
}

TEST(BenchCall, ReportsTimePerTokenAndTheTokensAsUsed) {
  OpenedModel model{Bench()};
  const Outcome outcome = bench(model, 5, 3);
  EXPECT_EQ(outcome.result, ORB_OK);
  EXPECT_EQ(outcome.record.structSize, 32u);
  EXPECT_GT(outcome.record.msPerToken, 0.0);
  EXPECT_EQ(outcome.record.tokensPerSecond, 1000.0 / outcome.record.msPerToken);
  EXPECT_EQ(outcome.record.tokens, 5);
}

TEST(BenchCall, LoopIsBoundedByGenPlusExtraTokens) {
  OpenedModel model{Bench()};
  EXPECT_EQ(passes(model, 5, 3), 1 + 7);
  EXPECT_EQ(passes(model, 1, 1), 1 + 1);
}

TEST(BenchCall, ValuesBelowOneMean64And8) {
  const WithoutMixers quick;
  OpenedModel model{Bench()};
  for (const int32_t none : {0, -1, std::numeric_limits<int32_t>::min()}) {
    EXPECT_EQ(passes(model, none, none), 64 + 8);
    EXPECT_EQ(bench(model, none, none).record.tokens, 64);
    EXPECT_EQ(passes(model, 3, none), 3 + 8);
    EXPECT_EQ(passes(model, none, 2), 64 + 2);
  }
}

TEST(BenchCall, NullParametersMean64And8) {
  const WithoutMixers quick;
  OpenedModel model{Bench()};
  const HeadCounter head(model.session().model);
  ORBBenchResult record{};
  EXPECT_EQ(runtime().bench(model.handle(), nullptr, &record), ORB_OK);
  EXPECT_EQ(record.tokens, 64);
  EXPECT_EQ(head.runs(), 64 + 8);
}

TEST(BenchCall, LargestValuesDoNotOverflowAndTheLoopEndsAt4096) {
  const DefaultContext context;
  const WithoutMixers quick;
  OpenedModel model{Bench()};
  constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
  EXPECT_EQ(passes(model, kMost, kMost), 4096);
  EXPECT_EQ(bench(model, kMost, kMost).record.tokens, kMost);
}

TEST(BenchCall, StructSizeIsNotChecked) {
  OpenedModel model{Bench()};
  for (const uint32_t size : {0u, 12u, 0xFFFFFFFFu}) {
    const ORBBenchParams params = {.structSize = size, .genTokens = 2, .extraTokens = 1};
    ORBBenchResult record{};
    EXPECT_EQ(runtime().bench(model.handle(), &params, &record), ORB_OK);
    EXPECT_EQ(record.tokens, 2);
  }
}

TEST(BenchCall, DivisorIsGenTokensThoughTheEndOfSequenceStopsAtOnce) {
  Bench script;
  script.follow(script.small, script.end);
  OpenedModel model(script);
  EXPECT_EQ(passes(model, 7, 3), 1);
  const Outcome outcome = bench(model, 1000000, 1);
  EXPECT_EQ(outcome.result, ORB_OK);
  EXPECT_EQ(outcome.record.tokens, 1000000);
  EXPECT_LT(outcome.record.msPerToken, 1e-3);  // one comparison of logits over a million tokens
  EXPECT_EQ(outcome.record.tokensPerSecond, 1000.0 / outcome.record.msPerToken);
}

TEST(BenchCall, StopsAtTheContextLength) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "6");
  OpenedModel model{Bench()};
  EXPECT_EQ(passes(model, 64, 8), 1 + 4);  // after H and i
}

TEST(BenchCall, LogitsThatAreNotFiniteEndTheLoopAndStillCount) {
  Bench script;
  script.follow(script.small, script.a);
  script.spoil(script.a);
  OpenedModel model(script);
  EXPECT_EQ(passes(model, 9, 3), 1 + 1);
  EXPECT_EQ(bench(model, 9, 3).record.tokens, 9);
}

TEST(BenchCall, DecodesGreedilyWhateverTheSettingsAndRestoresThem) {
  Bench script;
  script.mayFollow(script.small, script.small);
  script.mayFollow(script.small, script.end);
  OpenedModel model(script);
  const ORBSessionOptions hot = options(0.75f, 5, 0.5f);
  ASSERT_EQ(runtime().configure(model.handle(), &hot), ORB_OK);
  EXPECT_EQ(passes(model, 30, 1), 31);
  EXPECT_EQ(model.session().sampling.temperature, 0.75f);
  EXPECT_EQ(model.session().sampling.topK, 5);
  EXPECT_EQ(model.session().sampling.topP, 0.5f);
  EXPECT_TRUE(model.session().rng == std::mt19937(42)) << "nothing is sampled";
}

TEST(BenchCall, LeavesTheSessionAsAfterAResetButForTheLastTime) {
  OpenedModel model{Bench()};
  model.generate("aaa");
  model.chat("a");
  ASSERT_EQ(bench(model, 3, 1).result, ORB_OK);
  const ORBRuntimeStats stats = model.stats();
  EXPECT_EQ(stats.contextTokens, 0u);
  EXPECT_EQ(stats.totalForwardMs, 0.0);
  EXPECT_GT(stats.lastForwardMs, 0.0);
  EXPECT_EQ(model.session().generatedTokens, 0u);
  EXPECT_FALSE(model.session().chatActive);
  for (const qwen35::Layer& layer : model.session().model.layers) EXPECT_EQ(layer.position, 0u);
}

TEST(BenchCall, AnEmptyPromptKeepsTheLastTimeOfBefore) {
  ScriptedModel script;  // neither H nor i: the zero logits choose id 0, which ends it
  script.tokenizer.specialIds[1] = script.token("a");
  OpenedModel model(script);
  model.session().lastForwardMs = 3.5;
  EXPECT_EQ(bench(model, 3, 1).result, ORB_OK);
  EXPECT_EQ(model.stats().lastForwardMs, 3.5);
}

TEST(BenchCall, AFailedPromptPassLeavesGreedySettingsAndCountersInForce) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "1");
  OpenedModel model{Bench()};
  const ORBSessionOptions hot = options(0.75f, 5, 0.5f);
  ASSERT_EQ(runtime().configure(model.handle(), &hot), ORB_OK);
  model.session().chatActive = true;
  const Outcome outcome = bench(model, 3, 1);
  EXPECT_EQ(outcome.result, ORB_FAILED);
  EXPECT_EQ(outcome.record.structSize, 0xFFFFFFFFu) << "no result is written";
  EXPECT_EQ(model.session().sampling.temperature, 0.0f);
  EXPECT_EQ(model.session().sampling.topK, 1);
  EXPECT_EQ(model.session().sampling.topP, 0.5f);
  EXPECT_EQ(model.stats().contextTokens, 1u);
  EXPECT_GT(model.stats().totalForwardMs, 0.0);
  EXPECT_FALSE(model.session().chatActive);
}

TEST(BenchCall, EncodingFailureChangesNothing) {
  OpenedModel model{Bench()};
  const ORBSessionOptions hot = options(0.75f, 5, 0.5f);
  ASSERT_EQ(runtime().configure(model.handle(), &hot), ORB_OK);
  model.chat("a");
  const uint64_t position = model.stats().contextTokens;
  model.session().tokenizer = std::make_unique<kiv::Tokenizer>();
  EXPECT_EQ(bench(model, 3, 1).result, ORB_FAILED);
  EXPECT_EQ(model.session().sampling.temperature, 0.75f);
  EXPECT_EQ(model.session().sampling.topK, 5);
  EXPECT_EQ(model.stats().contextTokens, position);
  EXPECT_TRUE(model.session().chatActive);
}

TEST(BenchCall, ArgumentErrorsTouchNothing) {
  OpenedModel model{Bench()};
  model.generate("aa");
  const uint64_t position = model.stats().contextTokens;
  ORBBenchResult record;
  std::memset(&record, 0xFF, sizeof record);
  EXPECT_EQ(runtime().bench(nullptr, nullptr, &record), ORB_INVALID);
  EXPECT_EQ(runtime().bench(model.handle(), nullptr, nullptr), ORB_INVALID);
  model.session().modelLoaded = false;
  EXPECT_EQ(runtime().bench(model.handle(), nullptr, &record), ORB_INVALID);
  EXPECT_EQ(record.structSize, 0xFFFFFFFFu);
  EXPECT_EQ(model.stats().contextTokens, position);
}

}  // namespace
}  // namespace orbtest
