// Half precision: every pattern, every rounding border, and many random floats against a definition
// that does not look at bits.
#include "quant/half.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

namespace kiv::quant {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

float power(int exponent) { return std::ldexp(1.0f, exponent); }

// The value of a pattern, by arithmetic.
double valueOf(uint16_t bits) {
  const int exponent = (bits >> 10) & 31;
  const int mantissa = bits & 1023;
  const double magnitude =
      exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25);
  return (bits & 0x8000) != 0 ? -magnitude : magnitude;
}

// The nearest half of a finite float, ties to even: scaled to units of the result's last place, a
// double is exact and nearbyint rounds it as wanted.
uint16_t nearestHalf(float value) {
  const double magnitude = std::fabs(static_cast<double>(value));
  const uint16_t sign = std::signbit(value) ? 0x8000 : 0;
  const int exponent = magnitude == 0 ? -14 : std::max(std::ilogb(magnitude), -14);
  if (exponent > 15) return sign | 0x7C00;
  const auto units = static_cast<uint32_t>(std::nearbyint(std::ldexp(magnitude, 10 - exponent)));
  const uint32_t bits = static_cast<uint32_t>(exponent + 14) * 1024 + units;
  return static_cast<uint16_t>(sign | std::min(bits, 0x7C00u));
}

TEST(HalfTest, OverflowGivesInfinityFromTheTieAboveTheLargestHalf) {
  EXPECT_EQ(f32ToF16(65504.0f), 0x7BFF);
  EXPECT_EQ(f32ToF16(std::nextafter(65520.0f, 0.0f)), 0x7BFF);
  EXPECT_EQ(f32ToF16(65520.0f), 0x7C00);
  EXPECT_EQ(f32ToF16(1e9f), 0x7C00);
  EXPECT_EQ(f32ToF16(-65520.0f), 0xFC00);
  EXPECT_EQ(f32ToF16(std::numeric_limits<float>::max()), 0x7C00);
}

TEST(HalfTest, InfinitiesKeepTheirSign) {
  EXPECT_EQ(f32ToF16(kInfinity), 0x7C00);
  EXPECT_EQ(f32ToF16(-kInfinity), 0xFC00);
}

TEST(HalfTest, EveryNanBecomesTheQuietNanOfItsSign) {
  for (const uint32_t payload : {0x000001u, 0x001FFFu, 0x400000u, 0x7FFFFFu}) {
    EXPECT_EQ(f32ToF16(std::bit_cast<float>(0x7F800000u | payload)), 0x7E00);
    EXPECT_EQ(f32ToF16(std::bit_cast<float>(0xFF800000u | payload)), 0xFE00);
  }
}

TEST(HalfTest, TiesGoToTheEvenMantissa) {
  EXPECT_EQ(f32ToF16(1.0f), 0x3C00);
  EXPECT_EQ(f32ToF16(1.0f + power(-11)), 0x3C00);
  EXPECT_EQ(f32ToF16(1.0f + 3 * power(-11)), 0x3C02);
  EXPECT_EQ(f32ToF16(std::nextafter(1.0f + power(-11), 2.0f)), 0x3C01);
}

TEST(HalfTest, AFullMantissaCarriesIntoTheExponent) {
  EXPECT_EQ(f32ToF16(2.0f - power(-11)), 0x4000);
  EXPECT_EQ(f32ToF16(std::nextafter(2.0f - power(-11), 0.0f)), 0x3FFF);
}

TEST(HalfTest, SmallValuesRoundToSubnormalsAndSignedZeros) {
  EXPECT_EQ(f32ToF16(power(-24)), 0x0001);
  EXPECT_EQ(f32ToF16(power(-25)), 0x0000);
  EXPECT_EQ(f32ToF16(std::nextafter(power(-25), 1.0f)), 0x0001);
  EXPECT_EQ(f32ToF16(1.5f * power(-25)), 0x0001);
  EXPECT_EQ(f32ToF16(power(-26)), 0x0000);
  EXPECT_EQ(f32ToF16(-power(-30)), 0x8000);
  EXPECT_EQ(f32ToF16(std::numeric_limits<float>::denorm_min()), 0x0000);
  EXPECT_EQ(f32ToF16(-0.0f), 0x8000);
  EXPECT_EQ(f32ToF16(1023.5f * power(-24)), 0x0400) << "a carry into the smallest normal half";
}

TEST(HalfTest, NamedPatternsHaveTheirValues) {
  EXPECT_EQ(f16ToF32(0x0001), power(-24));
  EXPECT_EQ(f16ToF32(0x03FF), 1023 * power(-24));
  EXPECT_EQ(std::bit_cast<uint32_t>(f16ToF32(0x7E00)), 0x7FC00000u);
  EXPECT_EQ(std::bit_cast<uint32_t>(f16ToF32(0x8000)), 0x80000000u);
  EXPECT_EQ(f16ToF32(0x7C00), kInfinity);
  EXPECT_EQ(f16ToF32(0xFC00), -kInfinity);
}

TEST(HalfTest, ANanKeepsItsPayload) {
  EXPECT_EQ(std::bit_cast<uint32_t>(f16ToF32(0x7C01)), 0x7F802000u);
  EXPECT_EQ(std::bit_cast<uint32_t>(f16ToF32(0xFFFF)), 0xFFFFE000u);
}

TEST(HalfTest, EveryFinitePatternHasItsValueAndComesBack) {
  for (uint32_t pattern = 0; pattern < 0x10000; ++pattern) {
    const auto bits = static_cast<uint16_t>(pattern);
    const float value = f16ToF32(bits);
    if ((bits & 0x7C00) == 0x7C00) {
      const bool nan = (bits & 0x3FF) != 0;
      ASSERT_EQ(std::isnan(value), nan) << pattern;
      ASSERT_EQ(f32ToF16(value), nan ? ((bits & 0x8000) | 0x7E00) : bits) << pattern;
      continue;
    }
    ASSERT_EQ(static_cast<double>(value), valueOf(bits)) << pattern;
    ASSERT_EQ(f32ToF16(value), bits) << pattern;
  }
}

TEST(HalfTest, RandomFloatsRoundToTheNearestHalf) {
  std::mt19937 random(1);
  for (int i = 0; i < 2'000'000; ++i) {
    // Half of them in the exponents where something happens.
    uint32_t bits = random();
    if (i % 2 == 0) bits = (bits & 0x807FFFFF) | (100 + bits % 46) << 23;
    const float value = std::bit_cast<float>(bits);
    if (!std::isfinite(value)) continue;
    ASSERT_EQ(f32ToF16(value), nearestHalf(value)) << std::hexfloat << value;
  }
}

TEST(HalfTest, EveryBorderBetweenTwoHalvesRoundsAsDefined) {
  for (uint16_t bits = 0; bits < 0x7BFF; ++bits) {
    const float low = f16ToF32(bits);
    const float border = low + (f16ToF32(bits + 1) - low) / 2;
    ASSERT_EQ(f32ToF16(border), (bits & 1) != 0 ? bits + 1 : bits) << bits;
    ASSERT_EQ(f32ToF16(std::nextafter(border, 0.0f)), bits) << bits;
    ASSERT_EQ(f32ToF16(std::nextafter(border, 1e9f)), bits + 1) << bits;
  }
}

}  // namespace
}  // namespace kiv::quant
