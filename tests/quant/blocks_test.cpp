// The block formats of 32 elements.
#include "quant/blocks.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quant/half.h"
#include "quant/quant_type.h"

namespace kiv::quant {
namespace {

constexpr uint8_t kUntouched = 0xA5;

uint16_t halfAt(const std::vector<uint8_t>& bytes, size_t offset) {
  uint16_t bits = 0;
  std::memcpy(&bits, bytes.data() + offset, sizeof bits);
  return bits;
}

std::vector<uint8_t> encodeQ40(const std::vector<float>& row) {
  std::vector<uint8_t> bytes(quantizedBytes(QuantType::Q4_0, row.size()), kUntouched);
  quantQ40(row.data(), bytes.data(), row.size());
  return bytes;
}

std::vector<uint8_t> encodeQ80(const std::vector<float>& row) {
  std::vector<uint8_t> bytes(quantizedBytes(QuantType::Q8_0, row.size()), kUntouched);
  quantQ80(row.data(), bytes.data(), row.size());
  return bytes;
}

std::vector<float> randomRow(size_t n, uint32_t seed, float scale) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal(0, scale);
  std::vector<float> row(n);
  for (float& x : row) x = normal(random);
  return row;
}

TEST(Q40Test, TheExtremeElementGetsCodeZeroAndANegativeScale) {
  std::vector<float> row(32);
  for (int i = 0; i < 32; ++i) row[i] = static_cast<float>(i);
  const auto bytes = encodeQ40(row);
  EXPECT_EQ(halfAt(bytes, 0), 0xC3C0);
  EXPECT_EQ(f16ToF32(halfAt(bytes, 0)), -3.875f);
  EXPECT_EQ(bytes[2] & 15, 8) << "element 0";
  EXPECT_EQ(bytes[17] >> 4, 0) << "element 31";
}

TEST(Q40Test, NeighboursShareAByteWithTheEvenOneInTheLowNibble) {
  std::vector<float> row(32, 0.0f);
  row[0] = -8;  // scale 1
  row[6] = 3;
  row[7] = -2;
  const auto bytes = encodeQ40(row);
  EXPECT_EQ(halfAt(bytes, 0), 0x3C00);
  EXPECT_EQ(bytes[2], 0x80);
  EXPECT_EQ(bytes[5], 11 | 6 << 4);
}

TEST(Q40Test, ZerosGetScaleZeroAndCodeEight) {
  const auto bytes = encodeQ40(std::vector<float>(32, 0.0f));
  EXPECT_EQ(f16ToF32(halfAt(bytes, 0)), 0.0f);
  for (size_t i = 2; i < 18; ++i) EXPECT_EQ(bytes[i], 0x88);
}

TEST(Q80Test, TheLargestMagnitudeGetsCode127) {
  std::vector<float> row(32, 0.0f);
  row[0] = 127;
  row[1] = 2.5f;
  row[2] = -2.5f;
  row[3] = 2.4f;
  row[4] = -126.6f;
  const auto bytes = encodeQ80(row);
  EXPECT_EQ(halfAt(bytes, 0), 0x3C00);
  const int8_t expected[] = {127, 3, -3, 2, -127, 0};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(static_cast<int8_t>(bytes[2 + i]), expected[i]) << i;
}

TEST(Q80Test, ZerosGetScaleZeroAndZeroCodes) {
  for (const uint8_t byte : encodeQ80(std::vector<float>(32, 0.0f))) EXPECT_EQ(byte, 0);
}

TEST(Q80Test, RoundTripStaysWithinHalfAStep) {
  const auto row = randomRow(32 * 50, 7, 0.1f);
  const auto bytes = encodeQ80(row);
  std::vector<float> back(row.size());
  dequantQ80(bytes.data(), back.data(), back.size());
  for (size_t i = 0; i < row.size(); ++i) {
    const float d = f16ToF32(halfAt(bytes, i / 32 * 34));
    // Half a step, and the rounding of the scale itself times the largest code.
    ASSERT_NEAR(back[i], row[i], d * (0.5f + 127.0f / 2048)) << i;
  }
}

}  // namespace
}  // namespace kiv::quant
