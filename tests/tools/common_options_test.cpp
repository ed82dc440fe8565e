#include "orb/common_options.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "model/kernels/kernel_table.h"
#include "plugin/limits.h"

namespace orb {
namespace {

// A command with every shared option, as the subcommands put it together.
class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"QWEN35_MAX_TOKENS", "QWEN35_MAX_CONTEXT", "QWEN35_ISA"}) {
      unsetenv(name);
    }
    addModelOptions(app_, model_);
    addLengthOptions(app_, model_);
    addSamplingOptions(app_, sampling_);
  }

  // Empty when the arguments are accepted, else the message.
  std::string parse(std::initializer_list<std::string> arguments) {
    std::vector<std::string> reversed(std::rbegin(arguments), std::rend(arguments));
    try {
      app_.parse(reversed);
    } catch (const CLI::ParseError& error) {
      return error.what();
    }
    return "";
  }

  CLI::App app_;
  ModelOptions model_;
  SamplingOptions sampling_;
};

TEST_F(OptionsTest, NothingGivenChangesNothing) {
  ASSERT_EQ(parse({"m.orb"}), "");
  EXPECT_EQ(model_.model, "m.orb");
  EXPECT_FALSE(model_.threads || model_.isa || model_.maxTokens || model_.context);
  const ORBSessionOptions record = toSessionOptions(sampling_);
  EXPECT_EQ(record.structSize, sizeof record);
  EXPECT_LT(record.temperature, 0);  // a negative one keeps the setting
  EXPECT_EQ(record.topK, 0);
  EXPECT_EQ(record.topP, 0);
  EXPECT_EQ(record.seed, 0u);
}

TEST_F(OptionsTest, EverythingGivenIsTaken) {
  ASSERT_EQ(parse({"m.orb", "--threads", "3", "--isa", "scalar", "--max-tokens", "500", "--context",
                   "100000", "--temperature", "0.7", "--top-k", "20", "--top-p", "1", "--seed", "9",
                   "--plugin", "p.so"}),
            "");
  EXPECT_EQ(model_.threads, 3);
  EXPECT_EQ(model_.isa, "scalar");
  EXPECT_EQ(model_.plugin, "p.so");
  EXPECT_EQ(maxTokensInUse(model_), 500u);
  EXPECT_EQ(contextInUse(model_), 100000u);
  EXPECT_EQ(threadsInUse(model_), 3);
  EXPECT_EQ(tierInUse(model_), "scalar");
  const ORBSessionOptions record = toSessionOptions(sampling_);
  EXPECT_EQ(record.temperature, 0.7f);
  EXPECT_EQ(record.topK, 20);
  EXPECT_EQ(record.topP, 1.0f);
  EXPECT_EQ(record.seed, 9u);
}

TEST_F(OptionsTest, TemperatureZeroIsASettingOfItsOwn) {
  ASSERT_EQ(parse({"m.orb", "--temperature", "0"}), "");
  EXPECT_EQ(toSessionOptions(sampling_).temperature, 0);
}

TEST_F(OptionsTest, NumbersOutOfRangeAreRefused) {
  EXPECT_NE(parse({"m.orb", "--threads", "0"}), "");
  EXPECT_NE(parse({"m.orb", "--max-tokens", "0"}), "");
  EXPECT_NE(parse({"m.orb", "--max-tokens", "1000001"}), "");
  EXPECT_NE(parse({"m.orb", "--context", "-5"}), "");
  EXPECT_NE(parse({"m.orb", "--context", "2000000"}), "");
  EXPECT_NE(parse({"m.orb", "--temperature", "-1"}), "");
  EXPECT_NE(parse({"m.orb", "--top-k", "0"}), "");
  EXPECT_NE(parse({"m.orb", "--top-p", "1.5"}), "");
  EXPECT_NE(parse({"m.orb", "--seed", "0"}), "");
  EXPECT_NE(parse({}), "");
}

TEST_F(OptionsTest, AnUnknownTierIsRefusedWithTheOnesThatRun) {
  const std::string message = parse({"m.orb", "--isa", "mmx"});
  EXPECT_NE(message.find("there is no tier mmx"), std::string::npos) << message;
  EXPECT_NE(message.find(runnableTiers()), std::string::npos) << message;
}

TEST_F(OptionsTest, ATierIsTakenExactlyWhenThisMachineRunsIt) {
  for (const qwen35::KernelTable* tier : qwen35::allKernels()) {
    EXPECT_EQ(parse({"m.orb", "--isa", tier->name}).empty(), qwen35::canRun(*tier)) << tier->name;
    app_.clear();
  }
}

TEST_F(OptionsTest, WithoutOptionsTheEnvironmentCounts) {
  setenv("QWEN35_MAX_TOKENS", "200", 1);
  setenv("QWEN35_MAX_CONTEXT", "300", 1);
  setenv("QWEN35_ISA", "scalar", 1);
  EXPECT_EQ(maxTokensInUse(model_), 200u);
  EXPECT_EQ(contextInUse(model_), 300u);
  EXPECT_EQ(tierInUse(model_), "scalar");
}

TEST_F(OptionsTest, TheEnvironmentIsReadAsThePluginReadsIt) {
  for (const char* value : {"", "0", "1", "007", "-1", "+5", " 5", "5 ", "5x", "abc", "1000000",
                            "1000001", "1048576", "1048577", "99999999999999999999"}) {
    setenv("QWEN35_MAX_TOKENS", value, 1);
    setenv("QWEN35_MAX_CONTEXT", value, 1);
    const qwen35::Limits limits = qwen35::limitsFromEnvironment();
    EXPECT_EQ(maxTokensInUse(model_), limits.maxNewTokens) << value;
    EXPECT_EQ(contextInUse(model_), limits.maxContext) << value;
  }
}

TEST_F(OptionsTest, WhatAnOptionMayBeThePluginTakes) {
  setenv("QWEN35_MAX_TOKENS", std::to_string(kHighestMaxTokens).c_str(), 1);
  setenv("QWEN35_MAX_CONTEXT", std::to_string(kHighestContext).c_str(), 1);
  const qwen35::Limits limits = qwen35::limitsFromEnvironment();
  EXPECT_EQ(limits.maxNewTokens, kHighestMaxTokens);
  EXPECT_EQ(limits.maxContext, kHighestContext);
}

}  // namespace
}  // namespace orb
