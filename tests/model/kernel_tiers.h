// Tests that run once per kernel tier.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "model/kernels/kernel_table.h"

namespace orbtest {

// The parameter is the tier; one that this machine can't run is skipped.
class TierTest : public testing::TestWithParam<const qwen35::KernelTable*> {
 protected:
  void SetUp() override {
    if (!qwen35::canRun(kernels())) GTEST_SKIP() << "this machine can't run " << kernels().name;
  }
  const qwen35::KernelTable& kernels() const { return *GetParam(); }
};

inline std::string tierName(const testing::TestParamInfo<const qwen35::KernelTable*>& info) {
  return info.param->name;
}

}  // namespace orbtest

#define ORB_INSTANTIATE_TIERS(suite) \
  INSTANTIATE_TEST_SUITE_P(Tiers, suite, testing::ValuesIn(qwen35::allKernels()), orbtest::tierName)
