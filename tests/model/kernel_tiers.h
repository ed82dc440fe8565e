// Tests that run once per kernel tier.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "model/kernels/kernel_table.h"
#include "model/zeroed_array.h"
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

// The kernels of one token and those of batches, whose inputs may have forms of their own.
enum class Kernels { OneToken, Batch };

inline qwen35::ArrangeKernel arrangeKernel(const qwen35::KernelTable& tier, kiv::QuantType type,
                                           Kernels kernels) {
  const auto index = static_cast<size_t>(type);
  return kernels == Kernels::Batch ? tier.arrangeBatch[index] : tier.arrange[index];
}

// The kernels that products of a batch must have the bits of.
inline Kernels batchReference(const qwen35::KernelTable& tier, kiv::QuantType type) {
  const bool same =
      arrangeKernel(tier, type, Kernels::Batch) == arrangeKernel(tier, type, Kernels::OneToken);
  return same ? Kernels::OneToken : Kernels::Batch;
}

// The input of a type's product kernels: in arranged form where the tier has one, else as it comes.
inline size_t arrangedWidth(const qwen35::KernelTable& tier, kiv::QuantType type, size_t cols,
                            Kernels kernels = Kernels::OneToken) {
  const bool arranges = arrangeKernel(tier, type, kernels) != nullptr;
  return arranges ? (cols + 255) / 256 * qwen35::kArrangedBlock : cols;
}

inline void arrange(const qwen35::KernelTable& tier, kiv::QuantType type, const float* x,
                    size_t cols, float* out, Kernels kernels = Kernels::OneToken) {
  if (const auto kernel = arrangeKernel(tier, type, kernels)) {
    kernel(x, cols, out);
  } else {
    std::copy_n(x, cols, out);
  }
}

// y[r] += (row r) . x on this thread.
inline void addProduct(const qwen35::KernelTable& tier, kiv::QuantType type, const uint8_t* rows,
                       size_t rowBytes, size_t rowCount, size_t cols, const float* x, float* y,
                       Kernels kernels = Kernels::OneToken) {
  std::vector<float> input(arrangedWidth(tier, type, cols, kernels));
  arrange(tier, type, x, cols, input.data(), kernels);
  const auto index = static_cast<size_t>(type);
  if (kernels == Kernels::OneToken) {
    tier.gemv[index](rows, rowBytes, rowCount, cols, input.data(), y);
    return;
  }
  qwen35::ZeroedArray scratch;
  scratch.resize(qwen35::kBatchScratch);
  tier.gemm[index](rows, rowBytes, rowCount, cols,
                   {input.data(), input.size(), y, rowCount, 1, scratch.data()});
}

}  // namespace orbtest

#define ORB_INSTANTIATE_TIERS(suite) \
  INSTANTIATE_TEST_SUITE_P(Tiers, suite, testing::ValuesIn(qwen35::allKernels()), orbtest::tierName)
