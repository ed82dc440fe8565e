#include "quant/half.h"

#include <bit>

namespace kiv::quant {

uint16_t f32ToF16(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  const uint32_t sign = (bits >> 16) & 0x8000;
  const uint32_t exponent = (bits >> 23) & 0xFF;
  const uint32_t mantissa = bits & 0x7FFFFF;
  const int halfExponent = static_cast<int>(exponent) - 112;  // re-biased from 127 to 15

  uint32_t magnitude = 0;
  if (exponent == 255) {
    magnitude = mantissa != 0 ? 0x7E00 : 0x7C00;
  } else if (halfExponent > 30) {
    magnitude = 0x7C00;
  } else if (halfExponent >= 1) {
    magnitude = static_cast<uint32_t>(halfExponent) << 10 | mantissa >> 13;
    const uint32_t rest = mantissa & 0x1FFF;
    // The carry of a full mantissa runs into the exponent, and from 30 on to infinity, by itself.
    if (rest > 0x1000 || (rest == 0x1000 && (magnitude & 1) != 0)) ++magnitude;
  } else if (halfExponent >= -10) {
    const uint32_t full = mantissa | 0x800000;
    const uint32_t shift = 126 - exponent;  // 14 to 24
    const uint32_t rest = full & ((1u << shift) - 1);
    const uint32_t tie = 1u << (shift - 1);
    magnitude = full >> shift;
    // A carry to 0x400 is the smallest normal half.
    if (rest > tie || (rest == tie && (magnitude & 1) != 0)) ++magnitude;
  }
  return static_cast<uint16_t>(sign | magnitude);
}

float f16ToF32(uint16_t bits) {
  const uint32_t sign = static_cast<uint32_t>(bits & 0x8000) << 16;
  const uint32_t exponent = (bits >> 10) & 0x1F;
  uint32_t mantissa = bits & 0x3FF;

  uint32_t magnitude = 0;
  if (exponent == 31) {
    magnitude = 0x7F800000 | mantissa << 13;
  } else if (exponent != 0) {
    magnitude = (exponent + 112) << 23 | mantissa << 13;
  } else if (mantissa != 0) {
    uint32_t normalised = 113;  // float exponent of the half subnormals' leading bit 0x400
    while ((mantissa & 0x400) == 0) {
      mantissa <<= 1;
      --normalised;
    }
    magnitude = normalised << 23 | (mantissa & 0x3FF) << 13;
  }
  return std::bit_cast<float>(sign | magnitude);
}

}  // namespace kiv::quant
