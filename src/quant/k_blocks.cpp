// Values that are not finite, or whose scales do not fit a half, are not represented: such a block
// decodes to infinities, NaNs or zeros, but never disturbs its neighbours.
#include "quant/k_blocks.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "quant/block_codec.h"

namespace kiv::quant {
namespace {

constexpr int kElements = 256;
constexpr int kSubBlocks = 8;  // of Q4_K and Q5_K
constexpr int kSubElements = 32;

// Byte offsets inside the blocks.
constexpr int kScalesAt = 4;
constexpr int kScaleBytes = 12;
constexpr int kQ4CodesAt = 16, kQ4Bytes = 144;
constexpr int kQ5HighAt = 16, kQ5CodesAt = 48, kQ5Bytes = 176;
constexpr int kQ6HighAt = 128, kQ6ScalesAt = 192, kQ6ScaleAt = 208, kQ6Bytes = 210;
constexpr int kQ8CodesAt = 2, kQ8ScalesAt = 258, kQ8Bytes = 290;

using Codes = std::array<uint8_t, kElements>;

struct SuperScales {
  float d;
  float dmin;
};

// Quantizes eight scales and minimums to six bits each against the largest of them; negative ones
// become 0. The exact inverse of getScaleMinK4().
SuperScales packScalesK(uint8_t* out, const float* scales, const float* mins) {
  float maxScale = 0;
  float maxMin = 0;
  for (int j = 0; j < kSubBlocks; ++j) {
    maxScale = std::max(maxScale, scales[j]);
    maxMin = std::max(maxMin, mins[j]);
  }
  const float inverseScale = maxScale > 0 ? 63.0f / maxScale : 0.0f;
  const float inverseMin = maxMin > 0 ? 63.0f / maxMin : 0.0f;

  std::memset(out, 0, kScaleBytes);
  for (int j = 0; j < kSubBlocks; ++j) {
    const int scale = roundTo(inverseScale * scales[j], 0, 63);
    const int minimum = roundTo(inverseMin * mins[j], 0, 63);
    if (j < 4) {
      out[j] = static_cast<uint8_t>(scale);
      out[j + 4] = static_cast<uint8_t>(minimum);
    } else {
      out[j + 4] = static_cast<uint8_t>((scale & 15) | (minimum & 15) << 4);
      out[j - 4] = static_cast<uint8_t>(out[j - 4] | (scale >> 4) << 6);
      out[j] = static_cast<uint8_t>(out[j] | (minimum >> 4) << 6);
    }
  }
  return {maxScale / 63.0f, maxMin / 63.0f};
}

// Recomputes the codes against the scales as a reader will see them. A sub-block whose scale came
// out as 0 keeps its codes.
void requantK(const float* x, Codes& codes, int maxCode, const uint8_t* packed, SuperScales super) {
  for (int j = 0; j < kSubBlocks; ++j) {
    uint8_t scale = 0;
    uint8_t minimum = 0;
    getScaleMinK4(j, packed, scale, minimum);
    const float ds = static_cast<float>(scale) * super.d;
    if (ds == 0) continue;
    const float dm = static_cast<float>(minimum) * super.dmin;
    for (int i = j * kSubElements; i < (j + 1) * kSubElements; ++i) {
      codes[i] = static_cast<uint8_t>(roundTo((x[i] + dm) / ds, 0, maxCode));
    }
  }
}

// The common part of Q4_K and Q5_K: writes d, dmin and the packed scales, returns the codes.
Codes quantScaledK(const float* x, uint8_t* block, int maxCode) {
  Codes codes{};
  float scales[kSubBlocks];
  float mins[kSubBlocks];
  for (int j = 0; j < kSubBlocks; ++j) {
    const int first = j * kSubElements;
    float low = x[first];
    float high = x[first];
    for (int i = first + 1; i < first + kSubElements; ++i) {
      low = std::min(low, x[i]);
      high = std::max(high, x[i]);
    }
    scales[j] = (high - low) / static_cast<float>(maxCode);
    mins[j] = -low;
    if (!(scales[j] > 0)) continue;
    for (int i = first; i < first + kSubElements; ++i) {
      codes[i] = static_cast<uint8_t>(roundTo((x[i] - low) / scales[j], 0, maxCode));
    }
  }
  const SuperScales exact = packScalesK(block + kScalesAt, scales, mins);
  const SuperScales stored = {storeHalf(block, exact.d), storeHalf(block + 2, exact.dmin)};
  requantK(x, codes, maxCode, block + kScalesAt, stored);
  return codes;
}

void quantBlockQ4K(const float* x, uint8_t* block) {
  const Codes codes = quantScaledK(x, block, 15);
  uint8_t* packed = block + kQ4CodesAt;
  for (int c = 0; c < 4; ++c) {
    for (int l = 0; l < 32; ++l) {
      packed[32 * c + l] = static_cast<uint8_t>(codes[64 * c + l] | codes[64 * c + 32 + l] << 4);
    }
  }
}

void quantBlockQ5K(const float* x, uint8_t* block) {
  const Codes codes = quantScaledK(x, block, 31);
  uint8_t* high = block + kQ5HighAt;
  uint8_t* packed = block + kQ5CodesAt;
  std::memset(high, 0, 32);
  for (int c = 0; c < 4; ++c) {
    for (int l = 0; l < 32; ++l) {
      const int first = codes[64 * c + l];
      const int second = codes[64 * c + 32 + l];
      packed[32 * c + l] = static_cast<uint8_t>((first & 15) | (second & 15) << 4);
      high[l] =
          static_cast<uint8_t>(high[l] | (first >> 4) << (2 * c) | (second >> 4) << (2 * c + 1));
    }
  }
}

// The six-bit codes (value + 32) of one Q6_K block; also writes its scales and d.
Codes quantCodesQ6K(const float* x, uint8_t* block) {
  constexpr int kSubs = 16;
  float scales[kSubs];
  float maxScale = 0;
  for (int j = 0; j < kSubs; ++j) {
    float amax = 0;
    for (int i = 16 * j; i < 16 * j + 16; ++i) amax = std::max(amax, std::fabs(x[i]));
    scales[j] = amax / 31.0f;
    maxScale = std::max(maxScale, scales[j]);
  }
  const float d = storeHalf(block + kQ6ScaleAt, maxScale / 127.0f);

  Codes codes{};
  for (int j = 0; j < kSubs; ++j) {
    // A d that rounded to 0 makes this a division by zero; every code is then 32, the value 0.
    const int scale = roundTo(scales[j] / d, 0, 127);
    block[kQ6ScalesAt + j] = static_cast<uint8_t>(scale);
    const float ds = d * static_cast<float>(scale);
    for (int i = 16 * j; i < 16 * j + 16; ++i) {
      codes[i] = static_cast<uint8_t>(ds != 0 ? roundTo(x[i] / ds, -32, 31) + 32 : 32);
    }
  }
  return codes;
}

void quantBlockQ6K(const float* x, uint8_t* block) {
  const Codes codes = quantCodesQ6K(x, block);
  for (int h = 0; h < 2; ++h) {
    uint8_t* low = block + 64 * h;
    uint8_t* high = block + kQ6HighAt + 32 * h;
    const uint8_t* half = codes.data() + 128 * h;
    for (int l = 0; l < 32; ++l) {
      const int q0 = half[l], q1 = half[l + 32], q2 = half[l + 64], q3 = half[l + 96];
      low[l] = static_cast<uint8_t>((q0 & 15) | (q2 & 15) << 4);
      low[l + 32] = static_cast<uint8_t>((q1 & 15) | (q3 & 15) << 4);
      high[l] = static_cast<uint8_t>(q0 >> 4 | (q1 >> 4) << 2 | (q2 >> 4) << 4 | (q3 >> 4) << 6);
    }
  }
}

// Factor and addend of sub-block j.
struct SubScale {
  float factor;
  float addend;

  // A fused multiply-add without asking for one: code, scale and d have 5, 6 and 11 bits, so that
  // their product is exact in a float and only the sum is rounded.
  float valueOf(int code) const { return static_cast<float>(code) * factor + addend; }
};

SubScale subScaleK(const uint8_t* block, int j, float d, float dmin) {
  uint8_t scale = 0;
  uint8_t minimum = 0;
  getScaleMinK4(j, block + kScalesAt, scale, minimum);
  return {d * static_cast<float>(scale), -(dmin * static_cast<float>(minimum))};
}

void dequantBlockQ4K(const uint8_t* block, float* y) {
  const float d = loadHalf(block);
  const float dmin = loadHalf(block + 2);
  for (int c = 0; c < 4; ++c) {
    const SubScale first = subScaleK(block, 2 * c, d, dmin);
    const SubScale second = subScaleK(block, 2 * c + 1, d, dmin);
    const uint8_t* codes = block + kQ4CodesAt + 32 * c;
    for (int l = 0; l < 32; ++l) {
      y[64 * c + l] = first.valueOf(codes[l] & 15);
      y[64 * c + 32 + l] = second.valueOf(codes[l] >> 4);
    }
  }
}

void dequantBlockQ5K(const uint8_t* block, float* y) {
  const float d = loadHalf(block);
  const float dmin = loadHalf(block + 2);
  const uint8_t* high = block + kQ5HighAt;
  for (int c = 0; c < 4; ++c) {
    const SubScale first = subScaleK(block, 2 * c, d, dmin);
    const SubScale second = subScaleK(block, 2 * c + 1, d, dmin);
    const uint8_t* codes = block + kQ5CodesAt + 32 * c;
    for (int l = 0; l < 32; ++l) {
      const int low = (codes[l] & 15) | ((high[l] >> (2 * c)) & 1) << 4;
      const int upper = (codes[l] >> 4) | ((high[l] >> (2 * c + 1)) & 1) << 4;
      y[64 * c + l] = first.valueOf(low);
      y[64 * c + 32 + l] = second.valueOf(upper);
    }
  }
}

void dequantBlockQ6K(const uint8_t* block, float* y) {
  const float d = loadHalf(block + kQ6ScaleAt);
  for (int h = 0; h < 2; ++h) {
    const uint8_t* low = block + 64 * h;
    const uint8_t* high = block + kQ6HighAt + 32 * h;
    const uint8_t* scales = block + kQ6ScalesAt + 8 * h;
    const auto value = [&](int nibble, int twoBits, int sub) {
      const int code = (nibble | twoBits << 4) - 32;
      return d * static_cast<float>(code * static_cast<int8_t>(scales[sub]));
    };
    float* half = y + 128 * h;
    for (int l = 0; l < 32; ++l) {
      const int s = l / 16;
      half[l] = value(low[l] & 15, high[l] & 3, s);
      half[l + 32] = value(low[l + 32] & 15, (high[l] >> 2) & 3, s + 2);
      half[l + 64] = value(low[l] >> 4, (high[l] >> 4) & 3, s + 4);
      half[l + 96] = value(low[l + 32] >> 4, high[l] >> 6, s + 6);
    }
  }
}

}  // namespace

void getScaleMinK4(int j, const uint8_t* packed, uint8_t& scale, uint8_t& minimum) {
  if (j < 4) {
    scale = packed[j] & 63;
    minimum = packed[j + 4] & 63;
  } else {
    scale = static_cast<uint8_t>((packed[j + 4] & 15) | (packed[j - 4] >> 6) << 4);
    minimum = static_cast<uint8_t>((packed[j + 4] >> 4) | (packed[j] >> 6) << 4);
  }
}

void quantQ4K(const float* source, uint8_t* destination, uint64_t n) {
  encodeRow<kElements, kQ4Bytes>(source, destination, n, quantBlockQ4K);
}

void quantQ5K(const float* source, uint8_t* destination, uint64_t n) {
  encodeRow<kElements, kQ5Bytes>(source, destination, n, quantBlockQ5K);
}

void quantQ6K(const float* source, uint8_t* destination, uint64_t n) {
  encodeRow<kElements, kQ6Bytes>(source, destination, n, quantBlockQ6K);
}

void dequantQ4K(const uint8_t* source, float* destination, uint64_t n) {
  decodeRow<kElements, kQ4Bytes>(source, destination, n, dequantBlockQ4K);
}

void dequantQ5K(const uint8_t* source, float* destination, uint64_t n) {
  decodeRow<kElements, kQ5Bytes>(source, destination, n, dequantBlockQ5K);
}

void dequantQ6K(const uint8_t* source, float* destination, uint64_t n) {
  decodeRow<kElements, kQ6Bytes>(source, destination, n, dequantBlockQ6K);
}

void dequantQ8K(const uint8_t* source, float* destination, uint64_t n) {
  const uint64_t blocks = n / kElements;
  if (blocks == 0) return;
  const float d = loadHalf(source);  // of the first block, for the whole row
  for (uint64_t b = 0; b < blocks; ++b) {
    const uint8_t* block = source + b * kQ8Bytes;
    float* y = destination + b * kElements;
    for (int i = 0; i < kElements; ++i) {
      const auto code = static_cast<float>(static_cast<int8_t>(block[kQ8CodesAt + i]));
      y[i] = code * d * loadHalf(block + kQ8ScalesAt + 2 * (i / 16));
    }
  }
}

}  // namespace kiv::quant
