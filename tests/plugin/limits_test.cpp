#include "plugin/limits.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "model/kernels/kernel_table.h"
#include "plugin/opened_model.h"

namespace orbtest {
namespace {

using qwen35::limitsFromEnvironment;

class Limits : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name :
         {"QWEN35_MAX_TOKENS", "QWEN35_MAX_CONTEXT", "QWEN35_LARGE_FILES", "QWEN35_ISA"}) {
      unsetenv(name);
    }
  }
};

size_t maxTokensWith(const char* value) {
  const ScopedEnv env("QWEN35_MAX_TOKENS", value);
  return limitsFromEnvironment().maxNewTokens;
}

size_t maxContextWith(const char* value) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", value);
  return limitsFromEnvironment().maxContext;
}

TEST_F(Limits, DefaultsAreTheFixedBehaviour) {
  const qwen35::Limits limits = limitsFromEnvironment();
  EXPECT_EQ(limits.maxNewTokens, 96u);
  EXPECT_EQ(limits.maxContext, 8192u);
  EXPECT_FALSE(limits.largeFiles);
  EXPECT_EQ(limits.kernels, &qwen35::selectKernels(nullptr));
}

TEST_F(Limits, SaneNumbersAreTaken) {
  EXPECT_EQ(maxTokensWith("1"), 1u);
  EXPECT_EQ(maxTokensWith("500"), 500u);
  EXPECT_EQ(maxTokensWith("0007"), 7u);
  EXPECT_EQ(maxContextWith("1"), 1u);
  EXPECT_EQ(maxContextWith("32768"), 32768u);
}

TEST_F(Limits, BoundsAreTheLargestSaneNumbers) {
  EXPECT_EQ(maxTokensWith("1000000"), 1000000u);
  EXPECT_EQ(maxTokensWith("1000001"), 96u);
  EXPECT_EQ(maxContextWith("1048576"), 1048576u);
  EXPECT_EQ(maxContextWith("1048577"), 8192u);
}

TEST_F(Limits, WhatIsNotASaneNumberIsIgnored) {
  for (const char* value : {"", "0", "-1", "+5", " 5", "5 ", "5x", "x", "0x10", "1e3", "5.0",
                            "1,000", "18446744073709551616", "99999999999999999999999999", "nan"}) {
    EXPECT_EQ(maxTokensWith(value), 96u) << '"' << value << '"';
    EXPECT_EQ(maxContextWith(value), 8192u) << '"' << value << '"';
  }
}

TEST_F(Limits, LargeFilesAreAskedForByTheDigitOneOnly) {
  for (const char* value : {"", "0", "2", "11", " 1", "1 ", "true", "yes"}) {
    const ScopedEnv env("QWEN35_LARGE_FILES", value);
    EXPECT_FALSE(limitsFromEnvironment().largeFiles) << '"' << value << '"';
  }
  const ScopedEnv env("QWEN35_LARGE_FILES", "1");
  EXPECT_TRUE(limitsFromEnvironment().largeFiles);
}

TEST_F(Limits, TierIsTakenByNameWhenThisMachineCanRunIt) {
  for (const qwen35::KernelTable* tier : qwen35::allKernels()) {
    const ScopedEnv env("QWEN35_ISA", tier->name);
    const qwen35::KernelTable* expected =
        qwen35::canRun(*tier) ? tier : &qwen35::selectKernels(nullptr);
    EXPECT_EQ(limitsFromEnvironment().kernels, expected) << tier->name;
  }
}

TEST_F(Limits, UnknownTierMeansTheBestOne) {
  for (const char* value : {"", "SCALAR", "scalar ", "avx", "avx1024"}) {
    const ScopedEnv env("QWEN35_ISA", value);
    EXPECT_EQ(limitsFromEnvironment().kernels, &qwen35::selectKernels(nullptr)) << value;
  }
}

TEST_F(Limits, AHandleKeepsTheLimitsItWasCreatedWith) {
  ScriptedModel script;
  script.token("x");
  const ScopedEnv tokens("QWEN35_MAX_TOKENS", "3");
  const ScopedEnv context("QWEN35_MAX_CONTEXT", "10");
  const ScopedEnv tier("QWEN35_ISA", "scalar");
  OpenedModel first(script);
  const ScopedEnv moreTokens("QWEN35_MAX_TOKENS", "4");
  const ScopedEnv moreContext("QWEN35_MAX_CONTEXT", "11");
  OpenedModel second(script);
  EXPECT_EQ(first.generate("x").text, "xxx");
  EXPECT_EQ(second.generate("x").text, "xxxx");
  EXPECT_EQ(first.session().model.maxContext, 10u);
  EXPECT_EQ(second.session().model.maxContext, 11u);
  EXPECT_STREQ(first.session().model.kernels->name, "scalar");
}

TEST_F(Limits, EveryTierGivesTheSameText) {
  const ScopedEnv tokens("QWEN35_MAX_TOKENS", "6");
  ScriptedModel script;
  const int32_t a = script.token("a"), b = script.token("b"), c = script.token("c");
  script.chain({a, b, c, a});
  for (const qwen35::KernelTable* tier : qwen35::allKernels()) {
    const ScopedEnv env("QWEN35_ISA", tier->name);
    OpenedModel model(script);
    EXPECT_EQ(model.generate("a").text, "bcabca") << tier->name;
  }
}

}  // namespace
}  // namespace orbtest
