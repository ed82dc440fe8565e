// What the tests of the block formats share.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quant/half.h"

namespace orbtest {

constexpr uint8_t kUntouched = 0xA5;
constexpr float kUntouchedFloat = -12345.0f;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

inline float halfAt(const std::vector<uint8_t>& bytes, size_t offset) {
  uint16_t bits = 0;
  std::memcpy(&bits, bytes.data() + offset, sizeof bits);
  return kiv::quant::f16ToF32(bits);
}

inline void setHalf(std::vector<uint8_t>& bytes, size_t offset, float value) {
  const uint16_t bits = kiv::quant::f32ToF16(value);
  std::memcpy(bytes.data() + offset, &bits, sizeof bits);
}

inline std::vector<float> normalRow(size_t n, uint32_t seed, float scale) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal(0, scale);
  std::vector<float> row(n);
  for (float& x : row) x = normal(random);
  return row;
}

inline std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
  return bytes;
}

// Rows that no well-behaved model holds: the quantizers must get through them unharmed.
inline std::vector<std::vector<float>> hostileRows(size_t n) {
  constexpr float kMax = std::numeric_limits<float>::max();
  constexpr float kTiny = std::numeric_limits<float>::denorm_min();
  std::vector<std::vector<float>> rows;
  for (const float value :
       {kNan, kInfinity, -kInfinity, kMax, -kMax, kTiny, -kTiny, 1e30f, -0.0f}) {
    rows.emplace_back(n, value);
    rows.push_back(normalRow(n, 3, 1.0f));
    for (size_t i = 0; i < n; i += 7) rows.back()[i] = value;
    rows.push_back(std::vector<float>(n, 0.0f));
    rows.back()[n / 2] = value;
    rows.push_back(std::vector<float>(n, kMax));
    rows.back()[0] = value;
  }
  rows.emplace_back(n, 0.0f);
  for (size_t i = 0; i < n; ++i) rows.back()[i] = i % 2 == 0 ? kMax : -kMax;
  return rows;
}

}  // namespace orbtest
