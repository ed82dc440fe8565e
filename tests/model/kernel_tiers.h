// Tests that run once per kernel tier.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "model/kernels/kernel_table.h"
#include "quant/quant_type.h"

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

// The input of a type's product kernels: in arranged form where the tier has one, else as it comes.
inline size_t arrangedWidth(const qwen35::KernelTable& tier, kiv::QuantType type, size_t cols) {
  const bool arranges = tier.arrange[static_cast<size_t>(type)] != nullptr;
  return arranges ? (cols + 255) / 256 * qwen35::kArrangedBlock : cols;
}

inline void arrange(const qwen35::KernelTable& tier, kiv::QuantType type, const float* x,
                    size_t cols, float* out) {
  if (const auto kernel = tier.arrange[static_cast<size_t>(type)]) {
    kernel(x, cols, out);
  } else {
    std::copy_n(x, cols, out);
  }
}

// y[r] += (row r) . x on this thread.
inline void addProduct(const qwen35::KernelTable& tier, kiv::QuantType type, const uint8_t* rows,
                       size_t rowBytes, size_t rowCount, size_t cols, const float* x, float* y) {
  std::vector<float> input(arrangedWidth(tier, type, cols));
  arrange(tier, type, x, cols, input.data());
  tier.gemv[static_cast<size_t>(type)](rows, rowBytes, rowCount, cols, input.data(), y);
}

}  // namespace orbtest

#define ORB_INSTANTIATE_TIERS(suite) \
  INSTANTIATE_TEST_SUITE_P(Tiers, suite, testing::ValuesIn(qwen35::allKernels()), orbtest::tierName)
