#include "model/numeric_kernels.h"

#include <bit>
#include <cmath>

#include "model/kernels/kernel_table.h"
#include "model/weight_rows.h"
#include "quant/quant_type.h"

namespace qwen35 {
namespace {

double square(float x) { return static_cast<double>(x) * static_cast<double>(x); }

// Eight sums side by side: one would wait for each of its additions.
double sumOfSquares(const float* x, size_t n) {
  constexpr size_t kLanes = 8;
  double lanes[kLanes] = {};
  size_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    for (size_t lane = 0; lane < kLanes; ++lane) lanes[lane] += square(x[i + lane]);
  }
  double sum = 0;
  for (; i < n; ++i) sum += square(x[i]);
  for (const double lane : lanes) sum += lane;
  return sum;
}

}  // namespace

void rmsNorm(const float* x, const float* weight, float* out, size_t n, float eps) {
  if (n == 0) return;
  const auto mean = static_cast<float>(sumOfSquares(x, n) / static_cast<double>(n));
  const float inverse = 1.0f / std::sqrt(mean + eps);
  for (size_t i = 0; i < n; ++i) out[i] = (inverse * x[i]) * weight[i];
}

void l2NormBlocks(const float* x, float* out, size_t blocks, size_t blockSize, float eps) {
  for (size_t b = 0; b < blocks; ++b, x += blockSize, out += blockSize) {
    const float inverse = 1.0f / std::sqrt(static_cast<float>(sumOfSquares(x, blockSize)) + eps);
    for (size_t i = 0; i < blockSize; ++i) out[i] = x[i] * inverse;
  }
}

void silu(const float* x, float* out, size_t n) { kScalarKernels.silu(x, out, n); }

void sigmoid(const float* x, float* out, size_t n) { kScalarKernels.sigmoid(x, out, n); }

void softplus(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = x[i] > 20.0f ? x[i] : std::log1p(std::exp(x[i]));
}

float dotF32(const float* a, const float* b, size_t n) {
  return selectKernels(nullptr).dot(a, b, n);
}

void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(selectKernels(nullptr), kiv::QuantType::F32, W, rows, cols, x, y);
}

void matvecBf16Add(const uint16_t* W, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(selectKernels(nullptr), kiv::QuantType::BF16, W, rows, cols, x, y);
}

uint16_t f32ToBf16(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  return static_cast<uint16_t>((bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16);
}

float bf16ToF32(uint16_t bits) { return std::bit_cast<float>(uint32_t{bits} << 16); }

}  // namespace qwen35
