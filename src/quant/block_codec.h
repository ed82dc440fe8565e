// What the block formats share: halves at any byte, turning floats into codes without leaving the
// defined range of the conversion, and walking a row whose last block may be partial.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "quant/half.h"

namespace kiv::quant {

inline float loadHalf(const uint8_t* source) {
  uint16_t bits = 0;
  std::memcpy(&bits, source, sizeof bits);
  return f16ToF32(bits);
}

// Stores the nearest half and returns what a reader will find.
inline float storeHalf(uint8_t* destination, float value) {
  const uint16_t bits = f32ToF16(value);
  std::memcpy(destination, &bits, sizeof bits);
  return f16ToF32(bits);
}

// Truncates toward zero into low..high. The range is applied before the conversion, which a float
// outside of the int range must not reach; the result is the same. A NaN gives `low`.
inline int truncateTo(float value, int low, int high) {
  if (!(value > static_cast<float>(low))) return low;
  if (value >= static_cast<float>(high)) return high;
  return static_cast<int>(value);
}

// Rounds half away from zero into low..high; a NaN gives `low`.
inline int roundTo(float value, int low, int high) {
  return truncateTo(value >= 0.0f ? value + 0.5f : value - 0.5f, low, high);
}

// Encodes ceil(n / kElements) blocks; elements beyond n count as 0.
template <uint64_t kElements, uint64_t kBytes>
void encodeRow(const float* source, uint8_t* destination, uint64_t n,
               void (*encodeBlock)(const float*, uint8_t*)) {
  for (; n >= kElements; n -= kElements) {
    encodeBlock(source, destination);
    source += kElements;
    destination += kBytes;
  }
  if (n == 0) return;
  float padded[kElements] = {};
  std::copy_n(source, n, padded);
  encodeBlock(padded, destination);
}

// Decodes exactly n elements of ceil(n / kElements) blocks.
template <uint64_t kElements, uint64_t kBytes>
void decodeRow(const uint8_t* source, float* destination, uint64_t n,
               void (*decodeBlock)(const uint8_t*, float*)) {
  for (; n >= kElements; n -= kElements) {
    decodeBlock(source, destination);
    source += kBytes;
    destination += kElements;
  }
  if (n == 0) return;
  float whole[kElements];
  decodeBlock(source, whole);
  std::copy_n(whole, n, destination);
}

}  // namespace kiv::quant
