// The block formats of 32 elements.
#include "quant/blocks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "quant/block_testing.h"
#include "quant/quant_type.h"

namespace kiv::quant {
namespace {

using orbtest::halfAt;
using orbtest::hostileRows;
using orbtest::kNan;
using orbtest::kUntouched;
using orbtest::kUntouchedFloat;
using orbtest::normalRow;
using orbtest::randomBytes;
using orbtest::setHalf;

// A guard byte behind the row shows an overrun.
std::vector<uint8_t> encodeQ40(const std::vector<float>& row) {
  std::vector<uint8_t> bytes(quantizedBytes(QuantType::Q4_0, row.size()) + 1, kUntouched);
  quantQ40(row.data(), bytes.data(), row.size());
  EXPECT_EQ(bytes.back(), kUntouched);
  bytes.pop_back();
  return bytes;
}

std::vector<uint8_t> encodeQ80(const std::vector<float>& row) {
  std::vector<uint8_t> bytes(quantizedBytes(QuantType::Q8_0, row.size()) + 1, kUntouched);
  quantQ80(row.data(), bytes.data(), row.size());
  EXPECT_EQ(bytes.back(), kUntouched);
  bytes.pop_back();
  return bytes;
}

int code80(const std::vector<uint8_t>& bytes, size_t i) {
  return static_cast<int8_t>(bytes[i / 32 * 34 + 2 + i % 32]);
}

int code40(const std::vector<uint8_t>& bytes, size_t i) {
  const uint8_t byte = bytes[i / 32 * 18 + 2 + i % 32 / 2];
  return i % 2 == 0 ? byte & 15 : byte >> 4;
}

TEST(Q40Test, TheExtremeElementGetsCodeZeroAndANegativeScale) {
  std::vector<float> row(32);
  for (int i = 0; i < 32; ++i) row[i] = static_cast<float>(i);
  const auto bytes = encodeQ40(row);
  EXPECT_EQ(bytes[0], 0xC0);
  EXPECT_EQ(bytes[1], 0xC3);
  EXPECT_EQ(halfAt(bytes, 0), -3.875f);
  EXPECT_EQ(bytes[2] & 15, 8) << "element 0";
  EXPECT_EQ(bytes[17] >> 4, 0) << "element 31";
}

TEST(Q40Test, OfEqualMagnitudesTheFirstSetsTheScale) {
  std::vector<float> row(32, 0.0f);
  row[4] = -8;
  row[9] = 8;
  EXPECT_EQ(halfAt(encodeQ40(row), 0), 1.0f);
  std::swap(row[4], row[9]);
  EXPECT_EQ(halfAt(encodeQ40(row), 0), -1.0f);
}

TEST(Q40Test, NeighboursShareAByteWithTheEvenOneInTheLowNibble) {
  std::vector<float> row(32, 0.0f);
  row[0] = -8;  // scale 1
  row[6] = 3;
  row[7] = -2;
  const auto bytes = encodeQ40(row);
  EXPECT_EQ(halfAt(bytes, 0), 1.0f);
  EXPECT_EQ(bytes[2], 0x80);
  EXPECT_EQ(bytes[5], 11 | 6 << 4);
}

TEST(Q40Test, TheOppositeExtremeIsClampedToCode15) {
  std::vector<float> row(32, 0.0f);
  row[0] = -8;
  row[1] = 8;
  EXPECT_EQ(code40(encodeQ40(row), 1), 15);
}

TEST(Q40Test, ZerosGetScaleZeroAndCodeEight) {
  const auto bytes = encodeQ40(std::vector<float>(32, 0.0f));
  EXPECT_EQ(halfAt(bytes, 0), 0.0f);
  for (size_t i = 2; i < 18; ++i) EXPECT_EQ(bytes[i], 0x88);
}

TEST(Q40Test, CodesComeFromTheUnroundedScale) {
  const auto row = normalRow(32 * 2000, 11, 1.0f);
  const auto bytes = encodeQ40(row);
  int roundingMatters = 0;
  for (size_t i = 0; i < row.size(); ++i) {
    float extreme = 0;
    for (size_t k = i / 32 * 32; k < i / 32 * 32 + 32; ++k) {
      if (std::fabs(row[k]) > std::fabs(extreme)) extreme = row[k];
    }
    const auto code = [&](float d) {
      return std::min(static_cast<int>(std::fma(row[i], 1.0f / d, 8.5f)), 15);
    };
    ASSERT_EQ(code40(bytes, i), code(extreme * -0.125f)) << i;
    roundingMatters += code(halfAt(bytes, i / 32 * 18)) != code40(bytes, i);
  }
  EXPECT_GT(roundingMatters, 0);
}

TEST(Q40Test, ProductAndSumAreRoundedOnce) {
  // Products a little below 1/2 - 2^-21: with 8.5 they make less than the tie below 9, but not any
  // more once they are rounded themselves.
  int fusedMatters = 0;
  for (int k = 0; k < 4000; ++k) {
    const float extreme = -8.0f - static_cast<float>(k) / 512;
    const float inverse = 1.0f / (extreme * -0.125f);
    const float x = (0.5f - std::ldexp(1.0f, -21)) / inverse;
    std::vector<float> row(32, 0.0f);
    row[0] = extreme;
    row[1] = row[2] = x;
    const int fused = static_cast<int>(std::fma(x, inverse, 8.5f));
    const volatile float product = x * inverse;
    fusedMatters += static_cast<int>(product + 8.5f) != fused;
    const auto bytes = encodeQ40(row);
    ASSERT_EQ(code40(bytes, 1), fused) << k;
    ASSERT_EQ(code40(bytes, 2), fused) << k;
  }
  EXPECT_GT(fusedMatters, 0);
}

TEST(Q40Test, EveryCodeDecodesToItsDistanceFromEightTimesTheScale) {
  for (const float d : {1.0f, -0.375f, 6.1e-5f, 65504.0f, 0.0f}) {
    auto bytes = randomBytes(18, 5);
    for (int k = 0; k < 16; ++k) bytes[2 + k] = static_cast<uint8_t>(k | (15 - k) << 4);
    setHalf(bytes, 0, d);
    float out[32];
    dequantQ40(bytes.data(), out, 32);
    for (int k = 0; k < 16; ++k) {
      EXPECT_EQ(out[2 * k], static_cast<float>(k - 8) * halfAt(bytes, 0));
      EXPECT_EQ(out[2 * k + 1], static_cast<float>(7 - k) * halfAt(bytes, 0));
    }
  }
}

TEST(Q40Test, RoundTripStaysWithinOneStep) {
  const auto row = normalRow(32 * 100, 6, 0.1f);
  const auto bytes = encodeQ40(row);
  std::vector<float> back(row.size());
  dequantQ40(bytes.data(), back.data(), back.size());
  for (size_t i = 0; i < row.size(); ++i) {
    // Half a step; a whole one near the extreme of the other sign, whose code 16 does not exist.
    // The scale's own rounding counts up to eight times.
    const float d = std::fabs(halfAt(bytes, i / 32 * 18));
    const float step = code40(bytes, i) == 15 ? d : 0.5f * d;
    ASSERT_NEAR(back[i], row[i], step + d * 8 / 2048) << i;
  }
}

TEST(Q80Test, TheLargestMagnitudeGetsCode127) {
  std::vector<float> row(32, 0.0f);
  row[0] = 127;
  row[1] = 2.5f;
  row[2] = -2.5f;
  row[3] = 2.4f;
  row[4] = -126.6f;
  const auto bytes = encodeQ80(row);
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[1], 0x3C);
  const int expected[] = {127, 3, -3, 2, -127, 0};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(code80(bytes, i), expected[i]) << i;
}

TEST(Q80Test, RoundingAddsOneHalfInSinglePrecisionAndTruncates) {
  std::vector<float> row(32, 0.0f);
  row[0] = 127;
  row[1] = std::nextafter(0.5f, 0.0f);  // plus 0.5 rounds to 1
  row[2] = -std::nextafter(0.5f, 0.0f);
  row[3] = 0.49f;
  const auto bytes = encodeQ80(row);
  EXPECT_EQ(code80(bytes, 1), 1);
  EXPECT_EQ(code80(bytes, 2), -1);
  EXPECT_EQ(code80(bytes, 3), 0);
}

TEST(Q80Test, ZerosGetScaleZeroAndZeroCodes) {
  for (const uint8_t byte : encodeQ80(std::vector<float>(32, 0.0f))) EXPECT_EQ(byte, 0);
}

TEST(Q80Test, AScaleThatUnderflowsGivesZeroCodes) {
  std::vector<float> row(32, 0.0f);
  row[3] = std::numeric_limits<float>::denorm_min();  // / 127 is 0
  for (const uint8_t byte : encodeQ80(row)) EXPECT_EQ(byte, 0);
}

TEST(Q80Test, CodesComeFromATrueDivisionByTheUnroundedScale) {
  const auto row = normalRow(32 * 4000, 12, 1.0f);
  const auto bytes = encodeQ80(row);
  int roundingMatters = 0;
  for (size_t i = 0; i < row.size(); ++i) {
    float amax = 0;
    for (size_t k = i / 32 * 32; k < i / 32 * 32 + 32; ++k)
      amax = std::max(amax, std::fabs(row[k]));
    const auto code = [&](float y) { return static_cast<int>(y < 0 ? y - 0.5f : y + 0.5f); };
    ASSERT_EQ(code80(bytes, i), code(row[i] / (amax / 127))) << i;
    roundingMatters += code(row[i] / halfAt(bytes, i / 32 * 34)) != code80(bytes, i);
  }
  EXPECT_GT(roundingMatters, 0);
}

TEST(Q80Test, ADivisionIsNotAProductWithTheReciprocal) {
  // 73.5 scales: the quotient is a tie exactly, the product with the rounded reciprocal misses it.
  int reciprocalDiffers = 0;
  for (int k = 1; k < 2000; ++k) {
    const float d = static_cast<float>(k);
    std::vector<float> row(32, 0.0f);
    row[0] = 127 * d;
    row[1] = 73.5f * d;
    reciprocalDiffers += static_cast<int>(row[1] * (1.0f / d) + 0.5f) != 74;
    ASSERT_EQ(code80(encodeQ80(row), 1), 74) << k;
  }
  EXPECT_GT(reciprocalDiffers, 0);
}

TEST(Q80Test, EveryCodeDecodesToItsMultipleOfTheScale) {
  std::vector<uint8_t> bytes(8 * 34);
  for (int i = 0; i < 256; ++i) bytes[i / 32 * 34 + 2 + i % 32] = static_cast<uint8_t>(i);
  for (int b = 0; b < 8; ++b) setHalf(bytes, b * 34, 0.1f * static_cast<float>(b - 3));
  float out[256];
  dequantQ80(bytes.data(), out, 256);
  for (int i = 0; i < 256; ++i) {
    EXPECT_EQ(out[i], static_cast<float>(static_cast<int8_t>(i)) * halfAt(bytes, i / 32 * 34)) << i;
  }
}

TEST(Q80Test, RoundTripStaysWithinHalfAStep) {
  const auto row = normalRow(32 * 100, 7, 0.1f);
  const auto bytes = encodeQ80(row);
  std::vector<float> back(row.size());
  dequantQ80(bytes.data(), back.data(), back.size());
  for (size_t i = 0; i < row.size(); ++i) {
    // The scale's own rounding counts up to 127 times.
    ASSERT_NEAR(back[i], row[i], halfAt(bytes, i / 32 * 34) * (0.5f + 127.0f / 2048)) << i;
  }
}

TEST(BlocksTest, AnEmptyRowWritesNothing) {
  const float x = 1;
  uint8_t byte = kUntouched;
  float out = kUntouchedFloat;
  quantQ40(&x, &byte, 0);
  quantQ80(&x, &byte, 0);
  dequantQ40(&byte, &out, 0);
  dequantQ80(&byte, &out, 0);
  EXPECT_EQ(byte, kUntouched);
  EXPECT_EQ(out, kUntouchedFloat);
}

TEST(BlocksTest, APartialLastBlockIsPaddedWithZerosAndNotReadBack) {
  const auto row = normalRow(33, 1, 1.0f);
  auto padded = row;
  padded.resize(64, 0.0f);
  for (const bool q8 : {false, true}) {
    const auto bytes = q8 ? encodeQ80(row) : encodeQ40(row);
    EXPECT_EQ(bytes.size(), q8 ? 68u : 36u);
    EXPECT_EQ(bytes, q8 ? encodeQ80(padded) : encodeQ40(padded));

    std::vector<float> whole(64);
    std::vector<float> part(34, kUntouchedFloat);
    (q8 ? dequantQ80 : dequantQ40)(bytes.data(), whole.data(), 64);
    (q8 ? dequantQ80 : dequantQ40)(bytes.data(), part.data(), 33);
    EXPECT_TRUE(std::equal(part.begin(), part.end() - 1, whole.begin()));
    EXPECT_EQ(part[33], kUntouchedFloat);
  }
}

TEST(BlocksTest, TheEncodedSideMayStandAtAnyByte) {
  const auto row = normalRow(64, 2, 1.0f);
  for (const bool q8 : {false, true}) {
    const auto bytes = q8 ? encodeQ80(row) : encodeQ40(row);
    std::vector<uint8_t> shifted(bytes.size() + 1);
    (q8 ? quantQ80 : quantQ40)(row.data(), shifted.data() + 1, 64);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), shifted.begin() + 1));
    float straight[64];
    float fromShifted[64];
    (q8 ? dequantQ80 : dequantQ40)(bytes.data(), straight, 64);
    (q8 ? dequantQ80 : dequantQ40)(shifted.data() + 1, fromShifted, 64);
    EXPECT_TRUE(std::equal(straight, straight + 64, fromShifted));
  }
}

TEST(BlocksTest, HostileValuesStayInTheirBlock) {
  const auto quiet = normalRow(32, 4, 1.0f);
  for (const auto& hostile : hostileRows(32)) {
    auto row = hostile;
    row.insert(row.end(), quiet.begin(), quiet.end());
    const auto q4 = encodeQ40(row);
    const auto q8 = encodeQ80(row);
    EXPECT_TRUE(std::equal(q4.begin() + 18, q4.end(), encodeQ40(quiet).begin()));
    EXPECT_TRUE(std::equal(q8.begin() + 34, q8.end(), encodeQ80(quiet).begin()));
    for (size_t i = 0; i < 32; ++i) EXPECT_GE(code80(q8, i), -127);
  }
}

TEST(BlocksTest, ANanGetsTheLowestCodeAndLeavesTheOthersAlone) {
  auto row = normalRow(32, 9, 1.0f);
  row[5] = 0;
  const auto q4 = encodeQ40(row);
  const auto q8 = encodeQ80(row);
  row[5] = kNan;
  const auto q4Nan = encodeQ40(row);
  const auto q8Nan = encodeQ80(row);
  for (size_t i = 0; i < 32; ++i) {
    EXPECT_EQ(code40(q4Nan, i), i == 5 ? 0 : code40(q4, i));
    EXPECT_EQ(code80(q8Nan, i), i == 5 ? -127 : code80(q8, i));
  }
}

}  // namespace
}  // namespace kiv::quant
