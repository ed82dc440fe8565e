#include "synth/random_blocks.h"

#include <cstring>

#include "quant/half.h"

namespace orb {
namespace {

using kiv::QuantType;
using kiv::quant::f16ToF32;
using kiv::quant::f32ToF16;

constexpr uint64_t kQ80Bytes = 34;
constexpr uint64_t kQ4KBytes = 144;
constexpr uint64_t kQ5KBytes = 176;
constexpr uint64_t kQ6KBytes = 210;

// Standard deviations of uniform codes: sqrt((n * n - 1) / 12) for n equally likely values.
constexpr float kDeviation255 = 73.61f;
constexpr float kDeviation16 = 4.610f;
constexpr float kDeviation32 = 9.233f;
constexpr float kDeviation64 = 18.47f;
constexpr float kScaleRms = 48.4f;  // root mean square of the sub-block scales 32..63

void putHalf(uint8_t* out, uint16_t bits) { std::memcpy(out, &bits, sizeof bits); }

void putRandomBytes(Random& random, uint8_t* out, uint64_t size) {
  while (size > 0) {
    const uint64_t bits = random.next();
    const uint64_t part = size < sizeof bits ? size : sizeof bits;
    std::memcpy(out, &bits, part);
    out += part;
    size -= part;
  }
}

void fillF32(Random& random, float mean, float deviation, uint8_t* out, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    const float value = mean + deviation * random.normal();
    std::memcpy(out + 4 * i, &value, sizeof value);
  }
}

void fillBf16(Random& random, float mean, float deviation, uint8_t* out, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    const float value = mean + deviation * random.normal();
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    putHalf(out + 2 * i, static_cast<uint16_t>(bits >> 16));
  }
}

void fillQ80(Random& random, float deviation, uint8_t* out) {
  putHalf(out, f32ToF16(deviation / kDeviation255));
  putRandomBytes(random, out + 2, 32);
  for (int i = 2; i < 34; ++i) {
    if (out[i] == 0x80) out[i] = 0;  // -128 is never written by a quantizer
  }
}

// Packs eight 6-bit scales and minimums; the inverse of kiv::quant::getScaleMinK4().
void packScales(const uint8_t scales[8], const uint8_t minimums[8], uint8_t* out) {
  for (int j = 0; j < 4; ++j) {
    out[j] = static_cast<uint8_t>(scales[j] | (scales[j + 4] >> 4) << 6);
    out[j + 4] = static_cast<uint8_t>(minimums[j] | (minimums[j + 4] >> 4) << 6);
    out[j + 8] = static_cast<uint8_t>((scales[j + 4] & 15) | (minimums[j + 4] & 15) << 4);
  }
}

// d, dmin and the packed scales of Q4_K and Q5_K, 16 bytes. A sub-block's mean, scale x (levels -
// 1) / 2, is cancelled by its minimum but for a rounding and one step of noise either way.
void fillScalesK(Random& random, float deviation, float codeDeviation, int levels, uint8_t* out) {
  const uint16_t d = f32ToF16(deviation / (codeDeviation * kScaleRms));
  putHalf(out, d);
  const int middle = levels / 2;
  putHalf(out + 2, f32ToF16(f16ToF32(d) * static_cast<float>(middle)));  // exact
  uint8_t scales[8];
  uint8_t minimums[8];
  uint64_t bits = random.next();
  for (int j = 0; j < 8; ++j, bits >>= 8) {
    const int scale = 32 + static_cast<int>(bits & 31);
    const int noise = static_cast<int>(bits >> 5 & 1) - static_cast<int>(bits >> 6 & 1);
    const int mean = (scale * (levels - 1) + middle) / levels;
    scales[j] = static_cast<uint8_t>(scale);
    minimums[j] = static_cast<uint8_t>(mean + noise > 63 ? 63 : mean + noise);
  }
  packScales(scales, minimums, out + 4);
}

void fillQ4K(Random& random, float deviation, uint8_t* out) {
  fillScalesK(random, deviation, kDeviation16, 16, out);
  putRandomBytes(random, out + 16, 128);
}

void fillQ5K(Random& random, float deviation, uint8_t* out) {
  fillScalesK(random, deviation, kDeviation32, 32, out);
  putRandomBytes(random, out + 16, 32 + 128);
}

void fillQ6K(Random& random, float deviation, uint8_t* out) {
  putRandomBytes(random, out, 128 + 64);
  uint8_t* scales = out + 192;
  putRandomBytes(random, scales, 16);
  for (int i = 0; i < 16; ++i) {
    const int magnitude = 32 + (scales[i] & 31);
    scales[i] = static_cast<uint8_t>((scales[i] & 0x80) != 0 ? -magnitude : magnitude);
  }
  putHalf(out + 208, f32ToF16(deviation / (kDeviation64 * kScaleRms)));
}

}  // namespace

uint64_t randomBlockBytes(QuantType type) {
  switch (type) {
    case QuantType::F32:
      return 4;
    case QuantType::BF16:
      return 2;
    case QuantType::Q8_0:
      return kQ80Bytes;
    case QuantType::Q4_K:
      return kQ4KBytes;
    case QuantType::Q5_K:
      return kQ5KBytes;
    case QuantType::Q6_K:
      return kQ6KBytes;
    default:
      return 0;
  }
}

void fillRandomBlocks(QuantType type, Random& random, float mean, float deviation, uint8_t* out,
                      uint64_t count) {
  if (type == QuantType::F32) {
    fillF32(random, mean, deviation, out, count);
    return;
  }
  if (type == QuantType::BF16) {
    fillBf16(random, mean, deviation, out, count);
    return;
  }
  const uint64_t bytes = randomBlockBytes(type);
  for (uint64_t i = 0; i < count; ++i, out += bytes) {
    switch (type) {
      case QuantType::Q8_0:
        fillQ80(random, deviation, out);
        break;
      case QuantType::Q4_K:
        fillQ4K(random, deviation, out);
        break;
      case QuantType::Q5_K:
        fillQ5K(random, deviation, out);
        break;
      case QuantType::Q6_K:
        fillQ6K(random, deviation, out);
        break;
      default:
        return;
    }
  }
}

}  // namespace orb
