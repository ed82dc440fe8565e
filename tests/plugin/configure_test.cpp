// Settings, statistics and reset.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "plugin/opened_model.h"

namespace orbtest {
namespace {

struct Small : ScriptedModel {
  int32_t a = token("a"), b = token("b"), newline = token("\n");
  Small() { chain({a, b, a}); }
};

class Configure : public testing::Test {
 protected:
  int configure(const ORBSessionOptions& record) { return runtime().configure(&handle_, &record); }
  const qwen35::SamplingSettings& settings() const { return handle_.session.sampling; }
  const std::mt19937& generator() const { return handle_.session.rng; }

  ORBRuntimeHandle handle_;  // without a model: none is needed
};

TEST_F(Configure, TakesTemperatureTopKAndTopP) {
  EXPECT_EQ(configure(options(0.75f, 40, 0.5f)), ORB_OK);
  EXPECT_EQ(settings().temperature, 0.75f);
  EXPECT_EQ(settings().topK, 40);
  EXPECT_EQ(settings().topP, 0.5f);
  EXPECT_TRUE(generator() == std::mt19937(42));
}

TEST_F(Configure, NullArgumentsAreInvalid) {
  const ORBSessionOptions record = options(1.0f);
  EXPECT_EQ(runtime().configure(nullptr, &record), ORB_INVALID);
  EXPECT_EQ(runtime().configure(&handle_, nullptr), ORB_INVALID);
  EXPECT_EQ(runtime().configure(nullptr, nullptr), ORB_INVALID);
  EXPECT_EQ(settings().temperature, 0.0f);
}

TEST_F(Configure, RecordOf55BytesIsInvalidAndOf56Valid) {
  ORBSessionOptions record = options(0.5f, 3, 0.5f, 9);
  for (const uint32_t size : {0u, 24u, 55u}) {
    record.structSize = size;
    EXPECT_EQ(configure(record), ORB_INVALID) << size;
    EXPECT_EQ(settings().temperature, 0.0f);
    EXPECT_TRUE(generator() == std::mt19937(42));
  }
  for (const uint32_t size : {56u, 57u, 4096u, 0xFFFFFFFFu}) {
    record.structSize = size;
    EXPECT_EQ(configure(record), ORB_OK) << size;
    EXPECT_EQ(settings().temperature, 0.5f);
  }
}

TEST_F(Configure, NegativeTemperatureIsNotTakenAndZeroIs) {
  EXPECT_EQ(configure(options(0.75f)), ORB_OK);
  for (const float negative : {-0.5f, -std::numeric_limits<float>::denorm_min(),
                               -std::numeric_limits<float>::infinity()}) {
    EXPECT_EQ(configure(options(negative)), ORB_OK);
    EXPECT_EQ(settings().temperature, 0.75f);
  }
  EXPECT_EQ(configure(options(0.0f)), ORB_OK);
  EXPECT_EQ(settings().temperature, 0.0f);
}

TEST_F(Configure, ZeroTopKAndTopPChangeNeither) {
  EXPECT_EQ(configure(options(0.75f, 40, 0.5f)), ORB_OK);
  EXPECT_EQ(configure(options(0.0f, 0, 0.0f)), ORB_OK);
  EXPECT_EQ(settings().topK, 40);
  EXPECT_EQ(settings().topP, 0.5f);
  EXPECT_EQ(configure(options(0.0f, -7, -0.5f)), ORB_OK);
  EXPECT_EQ(settings().topK, 40);
  EXPECT_EQ(settings().topP, 0.5f);
}

TEST_F(Configure, NanIsNotTaken) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(configure(options(0.75f, 0, 0.5f)), ORB_OK);
  EXPECT_EQ(configure(options(nan, 0, nan)), ORB_OK);
  EXPECT_EQ(settings().temperature, 0.75f);
  EXPECT_EQ(settings().topP, 0.5f);
}

TEST_F(Configure, ZeroSeedKeepsTheState) {
  handle_.session.rng.discard(5);
  const std::mt19937 before = generator();
  EXPECT_EQ(configure(options(1.0f, 0, 0, 0)), ORB_OK);
  EXPECT_TRUE(generator() == before);
}

TEST_F(Configure, SeedIsTakenByItsLow32Bits) {
  EXPECT_EQ(configure(options(1.0f, 0, 0, (uint64_t{1} << 32) + 5)), ORB_OK);
  EXPECT_TRUE(generator() == std::mt19937(5));
  EXPECT_EQ(configure(options(1.0f, 0, 0, uint64_t{7} << 32)), ORB_OK);
  EXPECT_TRUE(generator() == std::mt19937(0)) << "not zero as a whole, so it counts";
}

TEST_F(Configure, SeedIsTakenWhateverElseIsNot) {
  EXPECT_EQ(configure(options(-1.0f, 0, 0, 5)), ORB_OK);
  EXPECT_TRUE(generator() == std::mt19937(5));
}

TEST_F(Configure, HostDefinedBytesAreNotRead) {
  // A record that ends where this runtime stops reading it.
  ORBSessionOptions record = options(0.5f);
  std::memset(record.hostDefined, 0xFF, sizeof record.hostDefined);
  EXPECT_EQ(configure(record), ORB_OK);
  EXPECT_EQ(settings().temperature, 0.5f);
  EXPECT_EQ(settings().topK, 0);
}

TEST_F(Configure, SettingsPersistAcrossCallsAndReset) {
  const WithoutMixers quick;
  OpenedModel model{Small()};
  const ORBSessionOptions record = options(0.75f, 40, 0.5f, 9);
  ASSERT_EQ(runtime().configure(model.handle(), &record), ORB_OK);
  model.generate("a");
  model.chat("a");
  const std::mt19937 before = model.session().rng;
  EXPECT_EQ(runtime().reset(model.handle()), ORB_OK);
  EXPECT_EQ(model.session().sampling.temperature, 0.75f);
  EXPECT_EQ(model.session().sampling.topK, 40);
  EXPECT_EQ(model.session().sampling.topP, 0.5f);
  EXPECT_TRUE(model.session().rng == before);
}

TEST(Stats, FreshHandleReportsNoTokensAndNoTime) {
  OpenedModel model{Small()};
  ORBRuntimeStats stats;
  std::memset(&stats, 0xFF, sizeof stats);
  EXPECT_EQ(runtime().stats(model.handle(), &stats), ORB_OK);
  EXPECT_EQ(stats.structSize, 32u);
  EXPECT_EQ(stats.contextTokens, 0u);
  EXPECT_EQ(stats.totalForwardMs, 0.0);
  EXPECT_EQ(stats.lastForwardMs, 0.0);
}

TEST(Stats, NullArgumentsAreInvalid) {
  OpenedModel model{Small()};
  ORBRuntimeStats stats;
  std::memset(&stats, 0xFF, sizeof stats);
  EXPECT_EQ(runtime().stats(nullptr, &stats), ORB_INVALID);
  EXPECT_EQ(stats.structSize, 0xFFFFFFFFu);
  EXPECT_EQ(runtime().stats(model.handle(), nullptr), ORB_INVALID);
  EXPECT_EQ(runtime().stats(nullptr, nullptr), ORB_INVALID);
}

TEST(Stats, NeedNoModel) {
  ORBRuntimeHandle handle;
  handle.session.position = 7;
  handle.session.totalForwardMs = 1.5;
  handle.session.lastForwardMs = 0.5;
  ORBRuntimeStats stats{};
  EXPECT_EQ(runtime().stats(&handle, &stats), ORB_OK);
  EXPECT_EQ(stats.contextTokens, 7u);
  EXPECT_EQ(stats.totalForwardMs, 1.5);
  EXPECT_EQ(stats.lastForwardMs, 0.5);
}

TEST(Reset, EmptiesTheContextAndClearsTheCounters) {
  OpenedModel model{Small()};
  model.chat("a");
  EXPECT_GT(model.session().model.layers[31].position, 0u);
  EXPECT_EQ(runtime().reset(model.handle()), ORB_OK);
  const ORBRuntimeStats stats = model.stats();
  EXPECT_EQ(stats.contextTokens, 0u);
  EXPECT_EQ(stats.totalForwardMs, 0.0);
  EXPECT_EQ(stats.lastForwardMs, 0.0);
  EXPECT_EQ(model.session().generatedTokens, 0u);
  EXPECT_FALSE(model.session().chatActive);
  for (const qwen35::Layer& layer : model.session().model.layers) EXPECT_EQ(layer.position, 0u);
}

TEST(Reset, NullHandleIsInvalid) { EXPECT_EQ(runtime().reset(nullptr), ORB_INVALID); }

TEST(Reset, NeedsNoModel) {
  ORBRuntimeHandle handle;
  handle.session.position = 7;
  handle.session.lastForwardMs = 0.5;
  handle.session.chatActive = true;
  EXPECT_EQ(runtime().reset(&handle), ORB_OK);
  EXPECT_EQ(handle.session.position, 0u);
  EXPECT_EQ(handle.session.lastForwardMs, 0.0);
  EXPECT_FALSE(handle.session.chatActive);
}

}  // namespace
}  // namespace orbtest
