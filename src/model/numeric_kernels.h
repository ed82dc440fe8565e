// Element-wise and reduction kernels on contiguous float arrays. They allocate nothing and keep no
// state; where an output element depends only on the same input element, `out` may be `x`.
// Normalisation sums are accumulated in double, in index order; everything else in float.
#pragma once

#include <cstddef>
#include <cstdint>

#include "compat/export.h"

namespace qwen35 {

// out[i] = (x[i] / sqrt(mean(x^2) + eps)) * weight[i]
ORB_API void rmsNorm(const float* x, const float* weight, float* out, size_t n, float eps);

// Every run of blockSize floats divided by sqrt(sum of its squares + eps).
ORB_API void l2NormBlocks(const float* x, float* out, size_t blocks, size_t blockSize, float eps);

ORB_API void silu(const float* x, float* out, size_t n);      // x / (exp(-x) + 1)
ORB_API void sigmoid(const float* x, float* out, size_t n);   // 1 / (exp(-x) + 1)
ORB_API void softplus(const float* x, float* out, size_t n);  // x above 20, else log1p(exp(x))

// Sum of a[i] * b[i] in float, over parallel lanes.
ORB_API float dotF32(const float* a, const float* b, size_t n);

// y[r] += (row r of W) . x for the row-major rows x cols matrix W, rows spread over threads.
ORB_API void matvecF32Add(const float* W, const float* x, float* y, size_t rows, size_t cols);
ORB_API void matvecBf16Add(const uint16_t* W, const float* x, float* y, size_t rows, size_t cols);

// Rounds to nearest, ties to even, with no special case for NaN or infinity.
ORB_API uint16_t f32ToBf16(float value);
ORB_API float bf16ToF32(uint16_t bits);

}  // namespace qwen35
