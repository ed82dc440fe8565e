// Values that are not finite, or whose scale does not fit a half, are not represented: such a block
// decodes to infinities, NaNs or zeros, but never disturbs its neighbours.
#include "quant/blocks.h"

#include <algorithm>
#include <cmath>

#include "quant/block_codec.h"

namespace kiv::quant {
namespace {

constexpr uint64_t kBlockElements = 32;
constexpr uint64_t kHalfBytes = 2;
constexpr uint64_t kQ40Bytes = kHalfBytes + 16;
constexpr uint64_t kQ80Bytes = kHalfBytes + 32;

void quantBlockQ40(const float* x, uint8_t* block) {
  float extreme = 0;
  for (uint64_t i = 0; i < kBlockElements; ++i) {
    if (std::fabs(x[i]) > std::fabs(extreme)) extreme = x[i];
  }
  const float d = extreme * -0.125f;  // so that the extreme element gets code 0
  const float inverse = d != 0 ? 1.0f / d : 0.0f;
  storeHalf(block, d);
  uint8_t* codes = block + kHalfBytes;
  for (uint64_t k = 0; k < kBlockElements / 2; ++k) {
    const int low = truncateTo(std::fma(x[2 * k], inverse, 8.5f), 0, 15);
    const int high = truncateTo(std::fma(x[2 * k + 1], inverse, 8.5f), 0, 15);
    codes[k] = static_cast<uint8_t>(low | high << 4);
  }
}

void dequantBlockQ40(const uint8_t* block, float* y) {
  const float d = loadHalf(block);
  const uint8_t* codes = block + kHalfBytes;
  for (uint64_t k = 0; k < kBlockElements / 2; ++k) {
    y[2 * k] = static_cast<float>((codes[k] & 15) - 8) * d;
    y[2 * k + 1] = static_cast<float>((codes[k] >> 4) - 8) * d;
  }
}

void quantBlockQ80(const float* x, uint8_t* block) {
  float amax = 0;
  for (uint64_t i = 0; i < kBlockElements; ++i) amax = std::max(amax, std::fabs(x[i]));
  const float d = amax / 127.0f;
  storeHalf(block, d);
  uint8_t* codes = block + kHalfBytes;
  for (uint64_t i = 0; i < kBlockElements; ++i) {
    codes[i] = d != 0 ? static_cast<uint8_t>(roundTo(x[i] / d, -127, 127)) : uint8_t{0};
  }
}

void dequantBlockQ80(const uint8_t* block, float* y) {
  const float d = loadHalf(block);
  for (uint64_t i = 0; i < kBlockElements; ++i) {
    y[i] = static_cast<float>(static_cast<int8_t>(block[kHalfBytes + i])) * d;
  }
}

}  // namespace

void quantQ40(const float* source, uint8_t* destination, uint64_t n) {
  encodeRow<kBlockElements, kQ40Bytes>(source, destination, n, quantBlockQ40);
}

void dequantQ40(const uint8_t* source, float* destination, uint64_t n) {
  decodeRow<kBlockElements, kQ40Bytes>(source, destination, n, dequantBlockQ40);
}

void quantQ80(const float* source, uint8_t* destination, uint64_t n) {
  encodeRow<kBlockElements, kQ80Bytes>(source, destination, n, quantBlockQ80);
}

void dequantQ80(const uint8_t* source, float* destination, uint64_t n) {
  decodeRow<kBlockElements, kQ80Bytes>(source, destination, n, dequantBlockQ80);
}

}  // namespace kiv::quant
