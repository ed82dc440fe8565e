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

// Every tier, and AVX2 and AVX-512 as they are on CPUs without integer products of bytes.
inline std::vector<const qwen35::KernelTable*> testedKernels() {
  const auto tiers = qwen35::allKernels();
  std::vector<const qwen35::KernelTable*> kernels(tiers.begin(), tiers.end());
  kernels.push_back(&qwen35::kAvx2Kernels);
  kernels.push_back(&qwen35::kAvx512Kernels);
  return kernels;
}

inline std::string kernelsName(const qwen35::KernelTable& kernels) {
  const bool isPlain = &kernels == &qwen35::kAvx2Kernels || &kernels == &qwen35::kAvx512Kernels;
  return std::string(kernels.name) + (isPlain ? "_plain" : "");
}

inline std::string tierName(const testing::TestParamInfo<const qwen35::KernelTable*>& info) {
  return kernelsName(*info.param);
}

// The kernels of one token and those of batches, whose inputs may have forms of their own.
enum class Kernels { OneToken, Batch };

inline bool arrangesInputs(const qwen35::KernelTable& tier, kiv::QuantType type) {
  const auto index = static_cast<size_t>(type);
  return tier.arrange[index] != nullptr || tier.arrangeBatch[index] != nullptr;
}

// The kernels that products of a batch must have the bits of.
inline Kernels batchReference(const qwen35::KernelTable& tier, kiv::QuantType type) {
  return arrangesInputs(tier, type) ? Kernels::Batch : Kernels::OneToken;
}

// Floats of one token's inputs: in arranged form where the tier has one, else as they come.
inline size_t arrangedWidth(const qwen35::KernelTable& tier, kiv::QuantType type, size_t cols) {
  return arrangesInputs(tier, type) ? (cols + 255) / 256 * qwen35::kArrangedBlock : cols;
}

// Puts the inputs of tokens, token t at x + t * xStride, where gemm, or those of the only one where
// gemv reads them; they have `stride` floats each there.
inline void arrange(const qwen35::KernelTable& tier, kiv::QuantType type, Kernels kernels,
                    const float* x, size_t xStride, size_t cols, size_t tokens, float* out,
                    size_t stride) {
  const auto index = static_cast<size_t>(type);
  const qwen35::ArrangeBatchKernel arrangeBatch = tier.arrangeBatch[index];
  const bool isGroup = kernels == Kernels::Batch && arrangeBatch != nullptr;
  const size_t step = isGroup ? qwen35::kTokenGroup : 1;
  for (size_t t = 0; t < tokens; t += step, x += step * xStride, out += step * stride) {
    if (isGroup) {
      arrangeBatch(x, xStride, std::min(tokens - t, step), cols, out);
    } else if (kernels == Kernels::OneToken && tier.arrange[index] != nullptr) {
      tier.arrange[index](x, cols, out);
    } else {
      std::copy_n(x, cols, out);
    }
  }
}

// Zeros for the inputs of so many tokens, and not a float more than the kernels may read.
inline std::vector<float> roomForInputs(const qwen35::KernelTable& tier, kiv::QuantType type,
                                        Kernels kernels, size_t cols, size_t tokens,
                                        size_t stride) {
  const size_t group = qwen35::kTokenGroup;
  const bool mingles =
      kernels == Kernels::Batch && tier.arrangeBatch[static_cast<size_t>(type)] != nullptr;
  const size_t width = arrangedWidth(tier, type, cols);
  return std::vector<float>(mingles ? (tokens + group - 1) / group * group * stride
                                    : (tokens - 1) * stride + width);
}

inline std::vector<float> arranged(const qwen35::KernelTable& tier, kiv::QuantType type,
                                   Kernels kernels, const float* x, size_t cols, size_t tokens,
                                   size_t stride) {
  std::vector<float> out = roomForInputs(tier, type, kernels, cols, tokens, stride);
  arrange(tier, type, kernels, x, cols, cols, tokens, out.data(), stride);
  return out;
}

// y[r] += (row r) . x on this thread.
inline void addProduct(const qwen35::KernelTable& tier, kiv::QuantType type, const uint8_t* rows,
                       size_t rowBytes, size_t rowCount, size_t cols, const float* x, float* y,
                       Kernels kernels = Kernels::OneToken) {
  const auto index = static_cast<size_t>(type);
  const size_t width = arrangedWidth(tier, type, cols);
  const std::vector<float> input = arranged(tier, type, kernels, x, cols, 1, width);
  if (kernels == Kernels::OneToken) {
    tier.gemv[index](rows, rowBytes, rowCount, cols, input.data(), y);
    return;
  }
  qwen35::ZeroedArray scratch;
  scratch.resize(qwen35::kBatchScratch);
  tier.gemm[index](rows, rowBytes, rowCount, cols,
                   {input.data(), width, y, rowCount, 1, scratch.data()});
}

// The delta rule for one token.
inline void deltaStep(const qwen35::KernelTable& tier, const float* from, float* to, const float* q,
                      const float* k, float* v, float beta, size_t d, float decay, float scale) {
  tier.deltaRule(from, to, {q, k, v, 0, &beta, &decay, 1, nullptr}, d, scale);
}

}  // namespace orbtest

#define ORB_INSTANTIATE_TIERS(suite)                                                  \
  INSTANTIATE_TEST_SUITE_P(Tiers, suite, testing::ValuesIn(orbtest::testedKernels()), \
                           orbtest::tierName)
