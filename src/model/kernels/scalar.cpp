// The definition of the arithmetic: dequantize by the block's formula in single precision,
// multiply-add in float over 16 lanes, lane sums added at the end.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/kernels/kernels.h"
#include "quant/blocks.h"
#include "quant/k_blocks.h"

namespace qwen35 {
namespace {

constexpr size_t kLanes = 16;

// Lanes keep the rounding error of a sum of n terms near that of n / 16.
struct LaneSum {
  float lane[kLanes] = {};

  void add(const float* a, const float* b, size_t n) {
    size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
      for (size_t l = 0; l < kLanes; ++l) lane[l] += a[i + l] * b[i + l];
    }
    for (size_t l = 0; l < n - i; ++l) lane[l % kLanes] += a[i + l] * b[i + l];
  }
  float total() const {
    float sum = 0;
    for (float value : lane) sum += value;
    return sum;
  }
};

float dot(const float* a, const float* b, size_t n) {
  LaneSum sum;
  sum.add(a, b, n);
  return sum.total();
}

void f32FromBytes(const uint8_t* source, float* out, uint64_t n) {
  std::memcpy(out, source, n * 4);
}

void bf16FromBytes(const uint8_t* source, float* out, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) {
    uint16_t half = 0;
    std::memcpy(&half, source + 2 * i, sizeof half);
    const uint32_t bits = uint32_t{half} << 16;
    std::memcpy(out + i, &bits, sizeof bits);
  }
}

// The product of any type, a chunk of 256 elements (chunkBytes bytes) at a time.
template <void (*kDequantize)(const uint8_t*, float*, uint64_t), size_t kChunkBytes>
void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const float* x,
          float* y) {
  constexpr size_t kChunk = 256;
  float weights[kChunk];
  for (size_t r = 0; r < rowCount; ++r) {
    const uint8_t* chunk = rows + r * rowBytes;
    LaneSum sum;
    for (size_t at = 0; at < cols; at += kChunk, chunk += kChunkBytes) {
      const size_t n = std::min(kChunk, cols - at);
      kDequantize(chunk, weights, n);
      sum.add(weights, x + at, n);
    }
    y[r] += sum.total();
  }
}

constexpr size_t kTokens = 64;  // whose sums and inputs a near cache holds

// Each chunk is dequantized once for all tokens, kTokens at most.
template <void (*kDequantize)(const uint8_t*, float*, uint64_t), size_t kChunkBytes>
void multiplyTokens(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                    const Batch& batch) {
  constexpr size_t kChunk = 256;
  float weights[kChunk];
  for (size_t r = 0; r < rowCount; ++r) {
    const uint8_t* chunk = rows + r * rowBytes;
    LaneSum sums[kTokens];
    for (size_t at = 0; at < cols; at += kChunk, chunk += kChunkBytes) {
      const size_t n = std::min(kChunk, cols - at);
      kDequantize(chunk, weights, n);
      for (size_t t = 0; t < batch.tokens; ++t) {
        sums[t].add(weights, batch.x + t * batch.xStride + at, n);
      }
    }
    for (size_t t = 0; t < batch.tokens; ++t) {
      float& y = batch.y[t * batch.yStride + r];
      y = (batch.adds ? y : 0) + sums[t].total();
    }
  }
}

template <void (*kDequantize)(const uint8_t*, float*, uint64_t), size_t kChunkBytes>
void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const Batch& batch) {
  Batch part = batch;
  for (size_t t = 0; t < batch.tokens; t += kTokens) {
    part.x = batch.x + t * batch.xStride;
    part.y = batch.y + t * batch.yStride;
    part.tokens = std::min(kTokens, batch.tokens - t);
    multiplyTokens<kDequantize, kChunkBytes>(rows, rowBytes, rowCount, cols, part);
  }
}

void silu(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = x[i] / (std::exp(-x[i]) + 1.0f);
}

void sigmoid(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) out[i] = 1.0f / (std::exp(-x[i]) + 1.0f);
}

void attend(const AttentionRun& run, AttentionPart& part) {
  float weights[kAttentionRun];
  for (size_t h = 0; h < kGroupHeads; ++h) {
    const float* query = run.queries + h * kHeadSize;
    float maximum = -1e30f;
    for (size_t t = 0; t < run.count; ++t) {
      weights[t] = run.scale * dot(query, run.keys + t * kHeadSize, kHeadSize);
      maximum = std::max(maximum, weights[t]);
    }
    float sum = 0;
    std::fill_n(part.weighted[h], kHeadSize, 0.0f);
    for (size_t t = 0; t < run.count; ++t) {
      const float weight = std::exp(weights[t] - maximum);
      sum += weight;
      const float* value = run.values + t * kHeadSize;
      for (size_t d = 0; d < kHeadSize; ++d) part.weighted[h][d] += weight * value[d];
    }
    part.maximum[h] = maximum;
    part.sum[h] = sum;
  }
}

void deltaStep(const float* from, float* to, const float* q, const float* k, float* v, float beta,
               size_t d, float decay, float scale) {
  for (size_t j = 0; j < d; ++j) {
    float retrieved = 0;
    for (size_t i = 0; i < d; ++i) {
      to[i * d + j] = from[i * d + j] * decay;
      retrieved += k[i] * to[i * d + j];
    }
    const float delta = (v[j] - retrieved) * beta;
    float out = 0;
    for (size_t i = 0; i < d; ++i) {
      to[i * d + j] += k[i] * delta;
      out += q[i] * to[i * d + j];
    }
    v[j] = scale * out;
  }
}

void deltaRule(const float* from, float* to, const DeltaTokens& tokens, size_t d, float scale) {
  for (size_t t = 0; t < tokens.count; ++t, from = to) {
    deltaStep(from, to, tokens.q + t * d, tokens.k + t * d, tokens.v + t * tokens.vStride,
              tokens.beta[t], d, tokens.decay[t], scale);
  }
}

}  // namespace

const KernelTable kScalarKernels = {
    .name = "scalar",
    .requiredFeatures = 0,
    .gemv =
        {
            gemv<f32FromBytes, 1024>,
            nullptr,
            gemv<bf16FromBytes, 512>,
            nullptr,
            gemv<kiv::quant::dequantQ80, 272>,
            gemv<kiv::quant::dequantQ4K, 144>,
            gemv<kiv::quant::dequantQ5K, 176>,
            gemv<kiv::quant::dequantQ6K, 210>,
            nullptr,
        },
    .gemm =
        {
            gemm<f32FromBytes, 1024>,
            nullptr,
            gemm<bf16FromBytes, 512>,
            nullptr,
            gemm<kiv::quant::dequantQ80, 272>,
            gemm<kiv::quant::dequantQ4K, 144>,
            gemm<kiv::quant::dequantQ5K, 176>,
            gemm<kiv::quant::dequantQ6K, 210>,
            nullptr,
        },
    .dot = dot,
    .silu = silu,
    .sigmoid = sigmoid,
    .attend = attend,
    .deltaRule = deltaRule,
};

}  // namespace qwen35
