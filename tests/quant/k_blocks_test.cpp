// The super-block formats of 256 elements.
#include "quant/k_blocks.h"

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
using orbtest::kUntouched;
using orbtest::kUntouchedFloat;
using orbtest::normalRow;
using orbtest::randomBytes;
using orbtest::setHalf;

using Row = std::vector<float>;
using Encoded = std::vector<uint8_t>;

struct Format {
  QuantType type;
  void (*quantize)(const float*, uint8_t*, uint64_t);
  void (*dequantize)(const uint8_t*, float*, uint64_t);
};

const Format kQ4K = {QuantType::Q4_K, quantQ4K, dequantQ4K};
const Format kQ5K = {QuantType::Q5_K, quantQ5K, dequantQ5K};
const Format kQ6K = {QuantType::Q6_K, quantQ6K, dequantQ6K};
const Format kFormats[] = {kQ4K, kQ5K, kQ6K};

// A guard byte behind the row shows an overrun.
Encoded encode(const Format& format, const Row& row) {
  Encoded bytes(quantizedBytes(format.type, row.size()) + 1, kUntouched);
  format.quantize(row.data(), bytes.data(), row.size());
  EXPECT_EQ(bytes.back(), kUntouched);
  bytes.pop_back();
  return bytes;
}

Row decode(const Format& format, const Encoded& bytes, size_t n) {
  Row row(n + 1, kUntouchedFloat);
  format.dequantize(bytes.data(), row.data(), n);
  EXPECT_EQ(row.back(), kUntouchedFloat);
  row.pop_back();
  return row;
}

struct ScaleMin {
  int scale;
  int minimum;
};

ScaleMin scaleMin(const Encoded& bytes, int j) {
  uint8_t scale = 0;
  uint8_t minimum = 0;
  getScaleMinK4(j, bytes.data() + 4, scale, minimum);
  return {scale, minimum};
}

// The code of element e, read off the layout's description one element at a time.
int codeQ4K(const uint8_t* block, int e) {
  const uint8_t byte = block[16 + 32 * (e / 64) + e % 32];
  return e % 64 < 32 ? byte & 15 : byte >> 4;
}

int codeQ5K(const uint8_t* block, int e) {
  const uint8_t byte = block[48 + 32 * (e / 64) + e % 32];
  const int low = e % 64 < 32 ? byte & 15 : byte >> 4;
  return low + ((block[16 + e % 32] >> (e / 32)) & 1) * 16;
}

int codeQ6K(const uint8_t* block, int e) {
  const int half = e / 128, quarter = e % 128 / 32, l = e % 32;
  const uint8_t low = block[64 * half + 32 * (quarter % 2) + l];
  const uint8_t high = block[128 + 32 * half + l];
  return (quarter < 2 ? low & 15 : low >> 4) | ((high >> (2 * quarter)) & 3) << 4;
}

// Random blocks with finite super-scales.
Encoded randomBlocks(const Format& format, size_t count, uint32_t seed) {
  const size_t size = quantizedBytes(format.type, 256);
  Encoded bytes = randomBytes(size * count, seed);
  const Row scales = normalRow(2 * count, seed, 0.01f);
  for (size_t b = 0; b < count; ++b) {
    if (format.type == QuantType::Q6_K) {
      setHalf(bytes, b * size + 208, scales[2 * b]);
    } else {
      setHalf(bytes, b * size, scales[2 * b]);
      setHalf(bytes, b * size + 2, scales[2 * b + 1]);
    }
  }
  return bytes;
}

TEST(PackedScalesTest, OneByteOfEachPlaceIsReadAsDescribed) {
  // scales[0..3], minimums[0..3] with the upper bits of the second half above, nibbles of it.
  const uint8_t packed[12] = {63, 1 | 2 << 6, 2, 3 | 3 << 6, 4 | 1 << 6, 5,
                              6,  7,          8, 9 << 4 | 5, 0xA7,       0xFF};
  const int scales[8] = {63, 1, 2, 3, 8, 5 | 2 << 4, 7, 15 | 3 << 4};
  const int mins[8] = {4, 5, 6, 7, 1 << 4, 9, 10, 15};
  for (int j = 0; j < 8; ++j) {
    uint8_t scale = 0;
    uint8_t minimum = 0;
    getScaleMinK4(j, packed, scale, minimum);
    EXPECT_EQ(scale, scales[j]) << j;
    EXPECT_EQ(minimum, mins[j]) << j;
  }
}

TEST(PackedScalesTest, EveryScaleAndMinimumThatIsPackedIsReadBack) {
  // Sub-block j spans -lm[j] .. -lm[j] + most * ls[j]: its scale is ls[j], its minimum lm[j], and
  // with 63 as the largest of each nothing is scaled.
  for (const auto& [format, most] : {std::pair(kQ4K, 15), std::pair(kQ5K, 31)}) {
    for (int round = 0; round < 64; ++round) {
      int ls[8], lm[8];
      for (int j = 0; j < 8; ++j) {
        ls[j] = (round + 11 * j) % 64;
        lm[j] = (3 * round + 29 * j + 7) % 64;
      }
      ls[round % 8] = 63;
      lm[(round + 3) % 8] = 63;
      Row row(256);
      for (int i = 0; i < 256; ++i) {
        const int j = i / 32;
        row[i] = static_cast<float>(-lm[j] + ls[j] * (i % (most + 1)));
      }
      const Encoded bytes = encode(format, row);
      ASSERT_EQ(halfAt(bytes, 0), 1.0f);
      ASSERT_EQ(halfAt(bytes, 2), 1.0f);
      for (int j = 0; j < 8; ++j) {
        ASSERT_EQ(scaleMin(bytes, j).scale, ls[j]) << round << " " << j;
        ASSERT_EQ(scaleMin(bytes, j).minimum, lm[j]) << round << " " << j;
      }
      ASSERT_EQ(decode(format, bytes, 256), row) << "such a row is exact";
    }
  }
}

TEST(KBlocksTest, RandomQ4KBlocksDecodeByTheLayout) {
  const Encoded bytes = randomBlocks(kQ4K, 20, 1);
  const Row row = decode(kQ4K, bytes, 20 * 256);
  for (int i = 0; i < 20 * 256; ++i) {
    const uint8_t* block = bytes.data() + i / 256 * 144;
    const Encoded copy(block, block + 144);
    const ScaleMin s = scaleMin(copy, i % 256 / 32);
    const float factor = halfAt(copy, 0) * static_cast<float>(s.scale);
    const float minimum = halfAt(copy, 2) * static_cast<float>(s.minimum);
    ASSERT_EQ(row[i], std::fma(static_cast<float>(codeQ4K(block, i % 256)), factor, -minimum)) << i;
  }
}

TEST(KBlocksTest, RandomQ5KBlocksDecodeByTheLayout) {
  const Encoded bytes = randomBlocks(kQ5K, 20, 2);
  const Row row = decode(kQ5K, bytes, 20 * 256);
  for (int i = 0; i < 20 * 256; ++i) {
    const uint8_t* block = bytes.data() + i / 256 * 176;
    const Encoded copy(block, block + 176);
    const ScaleMin s = scaleMin(copy, i % 256 / 32);
    const float factor = halfAt(copy, 0) * static_cast<float>(s.scale);
    const float minimum = halfAt(copy, 2) * static_cast<float>(s.minimum);
    ASSERT_EQ(row[i], std::fma(static_cast<float>(codeQ5K(block, i % 256)), factor, -minimum)) << i;
  }
}

TEST(KBlocksTest, RandomQ6KBlocksDecodeByTheLayout) {
  const Encoded bytes = randomBlocks(kQ6K, 20, 3);
  const Row row = decode(kQ6K, bytes, 20 * 256);
  for (int i = 0; i < 20 * 256; ++i) {
    const uint8_t* block = bytes.data() + i / 256 * 210;
    const int scale = static_cast<int8_t>(block[192 + i % 256 / 16]);
    const int product = (codeQ6K(block, i % 256) - 32) * scale;
    ASSERT_EQ(row[i], halfAt(bytes, i / 256 * 210 + 208) * static_cast<float>(product)) << i;
  }
}

TEST(KBlocksTest, RoundTripStaysWithinTheStepsOfBothScales) {
  for (const Format& format : kFormats) {
    const Row row = normalRow(256 * 40, 8, 0.05f);
    const Encoded bytes = encode(format, row);
    const Row back = decode(format, bytes, row.size());
    const size_t size = quantizedBytes(format.type, 256);
    for (size_t i = 0; i < row.size(); ++i) {
      const Encoded block(bytes.begin() + i / 256 * size, bytes.begin() + (i / 256 + 1) * size);
      float bound = 0;
      if (format.type == QuantType::Q6_K) {
        const float d = halfAt(block, 208);
        const float step = d * static_cast<float>(block[192 + i % 256 / 16]);
        bound = step / 2 + 32 * d / 2 + 32 * step / 1024;
      } else {
        const float most = format.type == QuantType::Q4_K ? 15 : 31;
        const ScaleMin s = scaleMin(block, i % 256 / 32);
        const float d = halfAt(block, 0), dmin = halfAt(block, 2);
        const float step = d * static_cast<float>(s.scale);
        // Half a step; at the ends of the range also what rounding moved them by.
        bound = step / 2 + most * d / 2 + dmin / 2 + most * step / 1024 +
                dmin * static_cast<float>(s.minimum) / 1024;
      }
      ASSERT_NEAR(back[i], row[i], bound) << quantTypeName(format.type) << " " << i;
    }
  }
}

TEST(KBlocksTest, MoreBitsAreMoreExact) {
  const Row row = normalRow(256 * 100, 21, 1.0f);
  double errors[3] = {};
  for (int f = 0; f < 3; ++f) {
    const Row back = decode(kFormats[f], encode(kFormats[f], row), row.size());
    for (size_t i = 0; i < row.size(); ++i) errors[f] += std::pow(back[i] - row[i], 2.0);
    errors[f] = std::sqrt(errors[f] / static_cast<double>(row.size()));
  }
  EXPECT_LT(errors[0], 0.09);
  EXPECT_LT(errors[1], 0.045);
  EXPECT_LT(errors[2], 0.025);
}

TEST(KBlocksTest, ZerosGetZeroScalesAndZeroCodes) {
  for (const Format& format : kFormats) {
    const Encoded bytes = encode(format, Row(256, 0.0f));
    const bool q6 = format.type == QuantType::Q6_K;
    EXPECT_EQ(halfAt(bytes, q6 ? 208 : 0), 0.0f);
    EXPECT_EQ(q6 ? 0.0f : halfAt(bytes, 2), 0.0f);
    for (int e = 0; e < 256; ++e) {
      if (q6) {
        ASSERT_EQ(codeQ6K(bytes.data(), e), 32) << "stored with 32 added";
      } else {
        ASSERT_EQ(
            format.type == QuantType::Q4_K ? codeQ4K(bytes.data(), e) : codeQ5K(bytes.data(), e),
            0);
      }
    }
    EXPECT_EQ(decode(format, bytes, 256), Row(256, 0.0f));
  }
}

TEST(KBlocksTest, EqualElementsOfASubBlockBecomeItsMinimum) {
  for (const Format& format : {kQ4K, kQ5K}) {
    Row row = normalRow(256, 13, 0.1f);
    std::fill(row.begin() + 32, row.begin() + 64, -0.25f);
    const Encoded bytes = encode(format, row);
    const ScaleMin s = scaleMin(bytes, 1);
    EXPECT_EQ(s.scale, 0);
    const Row back = decode(format, bytes, 256);
    for (int e = 32; e < 64; ++e) {
      EXPECT_EQ(
          format.type == QuantType::Q4_K ? codeQ4K(bytes.data(), e) : codeQ5K(bytes.data(), e), 0);
      EXPECT_EQ(back[e], -(halfAt(bytes, 2) * static_cast<float>(s.minimum)));
      EXPECT_NEAR(back[e], -0.25f, halfAt(bytes, 2));
    }
  }
}

TEST(KBlocksTest, APositiveSubBlockGetsMinimumZero) {
  for (const Format& format : {kQ4K, kQ5K}) {
    Row row = normalRow(256, 14, 0.1f);
    for (int i = 0; i < 32; ++i) row[i] = 1.0f + static_cast<float>(i) / 100;
    EXPECT_EQ(scaleMin(encode(format, row), 0).minimum, 0);
  }
}

TEST(KBlocksTest, ASubBlockWhoseScaleRoundsToZeroKeepsItsFirstCodes) {
  // Beside a range of 15 * 63 a range of 15 / 4 has scale 0 of 63; its codes still count upwards.
  Row row(256, 0.0f);
  row[0] = 15.0f * 63;
  for (int i = 0; i < 32; ++i) row[32 + i] = static_cast<float>(i % 16) / 4;
  const Encoded bytes = encode(kQ4K, row);
  EXPECT_EQ(scaleMin(bytes, 1).scale, 0);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(codeQ4K(bytes.data(), 32 + i), i % 16);
}

TEST(KBlocksTest, CodesComeFromATrueDivision) {
  // d is 1; a sub-block of scale s holds 10.5 s, a tie that a product with 1 / s may miss.
  int reciprocalDiffers = 0;
  for (int s = 1; s < 63; ++s) {
    const float tie = 10.5f * static_cast<float>(s);
    reciprocalDiffers += static_cast<int>(tie * (1.0f / static_cast<float>(s)) + 0.5f) != 11;
    for (const Format& format : kFormats) {
      const float most = format.type == QuantType::Q4_K ? 15 : 31;
      const float largest = format.type == QuantType::Q6_K ? 127 : 63;
      Row row(256, 0.0f);
      row[0] = most * largest;
      row[32] = most * static_cast<float>(s);
      row[33] = tie;
      const Encoded bytes = encode(format, row);
      const Row back = decode(format, bytes, 256);
      ASSERT_EQ(back[32], row[32]) << quantTypeName(format.type) << s;
      ASSERT_EQ(back[33], static_cast<float>(11 * s)) << quantTypeName(format.type) << s;
    }
  }
  EXPECT_GT(reciprocalDiffers, 0);
}

TEST(KBlocksTest, CodesOfQ6KAreClampedToSixBits) {
  Row row(256, 0.0f);
  row[0] = 31 * 127;    // d is 1
  row[16] = 31 * 1.4f;  // scale 1
  row[17] = -31 * 1.4f;
  const Encoded bytes = encode(kQ6K, row);
  EXPECT_EQ(bytes[193], 1);
  EXPECT_EQ(codeQ6K(bytes.data(), 16), 63);
  EXPECT_EQ(codeQ6K(bytes.data(), 17), 0);
}

TEST(KBlocksTest, ASmallSubBlockOfQ6KBecomesZero) {
  Row row(256, 0.0f);
  row[0] = 1;
  row[16] = 0.003f;  // less than half of 1 / 127
  const Encoded bytes = encode(kQ6K, row);
  EXPECT_EQ(bytes[192], 127);
  EXPECT_EQ(bytes[193], 0);
  EXPECT_EQ(codeQ6K(bytes.data(), 16), 32);
  const Row back = decode(kQ6K, bytes, 256);
  EXPECT_NEAR(back[0], 1.0f, 0.001f);
  EXPECT_EQ(back[16], 0.0f);
}

TEST(KBlocksTest, AScaleOfQ6KThatUnderflowsGivesZeros) {
  const Encoded bytes = encode(kQ6K, Row(256, 1e-5f));  // / 31 / 127 is no half
  EXPECT_EQ(halfAt(bytes, 208), 0.0f);
  for (int e = 0; e < 256; ++e) ASSERT_EQ(codeQ6K(bytes.data(), e), 32);
  EXPECT_EQ(decode(kQ6K, bytes, 256), Row(256, 0.0f));
}

TEST(KBlocksTest, APartialLastBlockIsPaddedWithZerosAndNotReadBack) {
  for (const Format& format : kFormats) {
    for (const size_t n : {size_t{1}, size_t{255}, size_t{257}, size_t{300}}) {
      const Row row = normalRow(n, 17, 1.0f);
      Row padded = row;
      padded.resize((n + 255) / 256 * 256, 0.0f);
      const Encoded bytes = encode(format, row);
      EXPECT_EQ(bytes, encode(format, padded));
      Row whole = decode(format, bytes, padded.size());
      whole.resize(n);
      EXPECT_EQ(decode(format, bytes, n), whole);
    }
  }
}

TEST(KBlocksTest, AnEmptyRowWritesNothing) {
  for (const Format& format : kFormats) {
    uint8_t byte = kUntouched;
    float x = kUntouchedFloat;
    format.quantize(&x, &byte, 0);
    format.dequantize(&byte, &x, 0);
    EXPECT_EQ(byte, kUntouched);
    EXPECT_EQ(x, kUntouchedFloat);
  }
}

TEST(KBlocksTest, TheEncodedSideMayStandAtAnyByte) {
  const Row row = normalRow(512, 18, 1.0f);
  for (const Format& format : kFormats) {
    const Encoded bytes = encode(format, row);
    Encoded shifted(bytes.size() + 1);
    format.quantize(row.data(), shifted.data() + 1, row.size());
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), shifted.begin() + 1));
    Row back(512);
    format.dequantize(shifted.data() + 1, back.data(), 512);
    EXPECT_EQ(back, decode(format, bytes, 512));
  }
}

TEST(KBlocksTest, HostileValuesStayInTheirBlock) {
  const Row quiet = normalRow(256, 4, 1.0f);
  for (const Format& format : kFormats) {
    const Encoded expected = encode(format, quiet);
    for (Row row : hostileRows(256)) {
      row.insert(row.end(), quiet.begin(), quiet.end());
      const Encoded bytes = encode(format, row);
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), bytes.begin() + expected.size()));
      decode(format, bytes, row.size());
    }
  }
}

TEST(KBlocksTest, AnyBytesDecode) {
  for (const Format& format : kFormats) {
    const Encoded bytes = randomBytes(quantizedBytes(format.type, 256 * 200), 30);
    decode(format, bytes, 256 * 200);
  }
}

// Two Q8_K blocks with random codes and sub-scales and the given super-scales.
Encoded blocksQ8K(float first, float second) {
  Encoded bytes = randomBytes(2 * 290, 40);
  const Row scales = normalRow(32, 41, 1.0f);
  for (int s = 0; s < 32; ++s) setHalf(bytes, s / 16 * 290 + 258 + 2 * (s % 16), scales[s]);
  setHalf(bytes, 0, first);
  setHalf(bytes, 290, second);
  return bytes;
}

TEST(Q8KTest, OnlyWholeBlocksAreWritten) {
  const Encoded bytes = blocksQ8K(1, 1);
  Row row(512, kUntouchedFloat);
  dequantQ8K(bytes.data(), row.data(), 255);
  EXPECT_EQ(row, Row(512, kUntouchedFloat));
  dequantQ8K(bytes.data(), row.data(), 300);
  EXPECT_EQ(std::count(row.begin(), row.end(), kUntouchedFloat), 256);
  EXPECT_EQ(row[256], kUntouchedFloat);
}

TEST(Q8KTest, TheFirstBlocksScaleServesTheWholeRow) {
  const Encoded bytes = blocksQ8K(0.5f, 3.0f);
  Row row(512);
  dequantQ8K(bytes.data(), row.data(), 512);
  for (int i = 0; i < 512; ++i) {
    const size_t block = i / 256 * 290;
    const auto code = static_cast<float>(static_cast<int8_t>(bytes[block + 2 + i % 256]));
    ASSERT_EQ(row[i], code * 0.5f * halfAt(bytes, block + 258 + 2 * (i % 256 / 16))) << i;
  }
}

}  // namespace
}  // namespace kiv::quant
