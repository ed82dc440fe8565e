// The wrapper over the C ABI, against the real plug-in and against libraries that are none.
#include "host/plugin_host.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "format/container_builder.h"
#include "synth/synth.h"

namespace orb {
namespace {

std::string loadError(const char* path) {
  PluginHost host;
  std::string error;
  EXPECT_FALSE(host.load(path, error));
  return error;
}

TEST(PluginHostTest, AMissingFileIsExplained) {
  const std::string error = loadError("/nowhere/plugin.so");
  EXPECT_NE(error.find("expected the runtime plug-in, found none that loads"), std::string::npos);
  EXPECT_NE(error.find("/nowhere/plugin.so"), std::string::npos);
}

TEST(PluginHostTest, ALibraryWithoutTheEntryPointsIsRefused) {
  EXPECT_EQ(loadError(NO_FUNCTIONS),
            "expected the plug-in function orb_plugin_init, found none; this library is no runtime "
            "plug-in");
}

TEST(PluginHostTest, TablesOfAnotherVersionAreRefused) {
  EXPECT_EQ(loadError(OLD_DESCRIPTOR),
            "expected a plug-in descriptor of version 1, found version 7; use a plug-in of the "
            "same release as this program");
  EXPECT_EQ(loadError(OLD_TABLE),
            "expected a runtime table of version 3, found version 2; use a plug-in of the same "
            "release as this program");
}

TEST(PluginHostTest, AStreamingTableOfAnotherRuntimeIsNotUsed) {
  PluginHost host;
  std::string error;
  ASSERT_TRUE(host.load(NO_STREAMING, error)) << error;
  EXPECT_EQ(host.streamingTable(), nullptr);
  const std::unique_ptr<Runtime> runtime = host.open("any", error);
  ASSERT_NE(runtime, nullptr);
  EXPECT_EQ(runtime->chatTurnStream("Hi", {}, nullptr), ORB_INVALID);
}

TEST(SessionOptionsTest, AFreshRecordAsksForNothing) {
  const ORBSessionOptions options = makeSessionOptions();
  EXPECT_EQ(options.structSize, 56u);
  EXPECT_LT(options.temperature, 0);
  EXPECT_EQ(options.topK, 0);
  EXPECT_EQ(options.topP, 0);
  EXPECT_EQ(options.seed, 0u);
}

// A tiny model in the real plug-in.
class RuntimeTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Short answers, and no waiting for a second thread on a busy machine.
    setenv("QWEN35_MAX_TOKENS", "20", 1);
    setenv("OMP_NUM_THREADS", "1", 1);
    SynthOptions options;
    options.hidden = options.ffn = 32;
    options.vocabulary = 160;
    options.queryHeads = options.valueHeads = 1;
    options.overwrite = true;
    model_ = new orbtest::TempFile({});
    ASSERT_TRUE(writeSynthModel(model_->path(), options).ok());
  }
  static void TearDownTestSuite() { delete model_; }

  void SetUp() override {
    std::string error;
    ASSERT_TRUE(host_.load(ORB_PLUGIN, error)) << error;
    runtime_ = host_.open(model_->path(), error);
    ASSERT_NE(runtime_, nullptr) << error;
  }

  uint64_t contextTokens() {
    ORBRuntimeStats stats{};
    EXPECT_EQ(runtime_->stats(stats), ORB_OK);
    return stats.contextTokens;
  }

  static orbtest::TempFile* model_;
  PluginHost host_;
  std::unique_ptr<Runtime> runtime_;
};

orbtest::TempFile* RuntimeTest::model_ = nullptr;

TEST_F(RuntimeTest, TablesAreThoseOfThePlugin) {
  EXPECT_STREQ(host_.descriptor().id, "runtime-qwen35");
  EXPECT_STREQ(host_.runtimeTable().id, "qwen35-cpu");
  ASSERT_NE(host_.streamingTable(), nullptr);
}

TEST_F(RuntimeTest, ProbeGivesTheVerdict) {
  EXPECT_EQ(host_.probe(model_->path()).score, 92u);
  EXPECT_STREQ(host_.probe(model_->path()).arch, "qwen35");
  EXPECT_EQ(host_.probe("/nowhere.orb").score, 0u);
}

TEST_F(RuntimeTest, OpenPassesThePluginsMessageOn) {
  std::string error;
  EXPECT_EQ(host_.open("/nowhere.orb", error), nullptr);
  EXPECT_EQ(error, "orb open failed");
}

TEST_F(RuntimeTest, GenerateCutsAtTheCapacity) {
  std::string text;
  ASSERT_EQ(runtime_->generate("the", text), ORB_OK);
  ASSERT_GT(text.size(), 10u);
  std::string cut;
  ASSERT_EQ(runtime_->generate("the", cut, 10), ORB_OK);
  EXPECT_EQ(cut, text.substr(0, 10));
  ASSERT_EQ(runtime_->generate("the", cut, 0), ORB_OK);
  EXPECT_EQ(cut, "");
}

TEST_F(RuntimeTest, SettingsOfOneCallDoNotStay) {
  std::string greedy;
  ASSERT_EQ(runtime_->generate("the", greedy), ORB_OK);
  ORBSessionOptions options = makeSessionOptions();
  options.temperature = 5;
  options.seed = 7;
  std::string sampled;
  ASSERT_EQ(runtime_->generateEx("the", options, sampled), ORB_OK);
  EXPECT_NE(sampled, greedy);
  std::string again;
  ASSERT_EQ(runtime_->generate("the", again), ORB_OK);
  EXPECT_EQ(again, greedy);
  ASSERT_EQ(runtime_->configure(options), ORB_OK);
  ASSERT_EQ(runtime_->generate("the", again), ORB_OK);
  EXPECT_EQ(again, sampled);
}

TEST_F(RuntimeTest, StreamingGivesTheSameAnswerInPieces) {
  std::string whole;
  ASSERT_EQ(runtime_->chatTurn("Hi", whole), ORB_OK);
  ASSERT_EQ(runtime_->reset(), ORB_OK);
  EXPECT_EQ(contextTokens(), 0u);
  std::string streamed;
  int pieces = 0;
  ASSERT_EQ(runtime_->chatTurnStream(
                "Hi",
                [&](std::string_view bytes) {
                  streamed += bytes;
                  ++pieces;
                },
                nullptr),
            ORB_OK);
  EXPECT_EQ(streamed, whole);
  EXPECT_GT(pieces, 10);
}

TEST_F(RuntimeTest, AFlagSetDuringAnAnswerEndsIt) {
  volatile int cancel = 0;
  int pieces = 0;
  ASSERT_EQ(runtime_->chatTurnStream(
                "Hi", [&](std::string_view) { cancel = ++pieces == 3 ? 1 : 0; }, &cancel),
            ORB_OK);
  EXPECT_EQ(pieces, 3);
}

TEST_F(RuntimeTest, AFlagSetBeforeOnlyTakesTheQuestionIn) {
  const volatile int cancel = 1;
  ASSERT_EQ(runtime_->chatTurnStream(
                "Hi", [](std::string_view) { ADD_FAILURE() << "no piece expected"; }, &cancel),
            ORB_OK);
  EXPECT_GT(contextTokens(), 0u);
}

TEST_F(RuntimeTest, BenchReportsTheStepsThatItDividedBy) {
  ORBBenchParams params{};
  params.structSize = sizeof params;
  params.genTokens = 3;
  params.extraTokens = 1;
  ORBBenchResult result{};
  ASSERT_EQ(runtime_->bench(params, result), ORB_OK);
  EXPECT_EQ(result.tokens, 3);
  EXPECT_GT(result.msPerToken, 0);
}

TEST_F(RuntimeTest, TwoModelsOfOneHostAreIndependent) {
  std::string error;
  const std::unique_ptr<Runtime> other = host_.open(model_->path(), error);
  ASSERT_NE(other, nullptr) << error;
  std::string answer;
  ASSERT_EQ(runtime_->chatTurn("Hi", answer), ORB_OK);
  ORBRuntimeStats stats{};
  ASSERT_EQ(other->stats(stats), ORB_OK);
  EXPECT_EQ(stats.contextTokens, 0u);
}

}  // namespace
}  // namespace orb
