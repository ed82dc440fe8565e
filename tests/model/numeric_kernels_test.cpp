// Norms, activations, conversions and the plain products of the numeric kernels.
#include "model/numeric_kernels.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "model/small_model.h"
#include "model/threads.h"

namespace qwen35 {
namespace {

using orbtest::normalVector;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(RmsNormTest, ZerosStayZeros) {
  const std::vector<float> x(100, 0.0f);
  const std::vector<float> weight(100, 3.0f);
  std::vector<float> out(100, 7.0f);
  rmsNorm(x.data(), weight.data(), out.data(), 100, 1e-6f);
  for (const float value : out) EXPECT_EQ(value, 0.0f);
}

TEST(RmsNormTest, FollowsTheStatedOrderOfSteps) {
  const std::vector<float> x = normalVector(2560, 1);
  const std::vector<float> weight = normalVector(2560, 2);
  double sum = 0;
  for (const float value : x) sum += static_cast<double>(value) * static_cast<double>(value);
  const float mean = static_cast<float>(sum / 2560.0);
  const float inverse = 1.0f / std::sqrt(mean + 1e-6f);
  std::vector<float> out(2560);
  rmsNorm(x.data(), weight.data(), out.data(), 2560, 1e-6f);
  for (size_t i = 0; i < 2560; ++i) EXPECT_EQ(out[i], (inverse * x[i]) * weight[i]);
}

TEST(RmsNormTest, EpsilonIsAddedToTheMean) {
  const float x[] = {3, 4};  // mean square 12.5
  const float weight[] = {2, 1};
  float out[2];
  rmsNorm(x, weight, out, 2, 3.5f);
  EXPECT_FLOAT_EQ(out[0], 1.5f);
  EXPECT_FLOAT_EQ(out[1], 1.0f);
}

TEST(RmsNormTest, TheSumIsKeptInDouble) {
  // In float a sum of 2^24 stops growing; in double the small elements count.
  std::vector<float> x(4096, 1.0f);
  x[0] = 8192;
  const std::vector<float> weight(4096, 1.0f);
  std::vector<float> out(4096);
  rmsNorm(x.data(), weight.data(), out.data(), 4096, 0);
  const double expected = 1 / std::sqrt((8192.0 * 8192.0 + 4095) / 4096);
  EXPECT_NEAR(out[1], expected, 1e-7 * expected);
}

TEST(RmsNormTest, OutputMayBeTheInputAndNoElementsWriteNothing) {
  std::vector<float> x = normalVector(33, 3);
  const std::vector<float> weight = normalVector(33, 4);
  std::vector<float> expected(33);
  rmsNorm(x.data(), weight.data(), expected.data(), 33, 1e-6f);
  rmsNorm(x.data(), weight.data(), x.data(), 33, 1e-6f);
  EXPECT_EQ(x, expected);
  float untouched = 7;
  rmsNorm(x.data(), weight.data(), &untouched, 0, 1e-6f);
  EXPECT_EQ(untouched, 7);
}

TEST(L2NormBlocksTest, EpsilonIsAddedToTheSumOfEachBlock) {
  const float x[] = {3, 4, 0, 0, 1, 0};
  float out[6];
  l2NormBlocks(x, out, 3, 2, 1e-6f);
  EXPECT_FLOAT_EQ(out[0], 3 / std::sqrt(25.0f + 1e-6f));
  EXPECT_FLOAT_EQ(out[1], 4 / std::sqrt(25.0f + 1e-6f));
  EXPECT_EQ(out[2], 0);
  EXPECT_EQ(out[3], 0);
  EXPECT_FLOAT_EQ(out[4], 1 / std::sqrt(1.0f + 1e-6f));
  l2NormBlocks(x, out, 1, 2, 11);
  EXPECT_FLOAT_EQ(out[0], 0.5f);
}

TEST(L2NormBlocksTest, FollowsTheStatedOrderOfStepsInPlace) {
  std::vector<float> x = normalVector(16 * 128, 5);
  const std::vector<float> before = x;
  l2NormBlocks(x.data(), x.data(), 16, 128, 1e-6f);
  for (size_t b = 0; b < 16; ++b) {
    double sum = 0;
    for (size_t i = 0; i < 128; ++i) {
      const double value = before[b * 128 + i];
      sum += value * value;
    }
    const float inverse = 1.0f / std::sqrt(static_cast<float>(sum) + 1e-6f);
    for (size_t i = 0; i < 128; ++i) EXPECT_EQ(x[b * 128 + i], before[b * 128 + i] * inverse);
  }
}

TEST(L2NormBlocksTest, BlocksOfSizeZeroAndNoBlocksWriteNothing) {
  const float x = 1;
  float out = 7;
  l2NormBlocks(&x, &out, 5, 0, 1e-6f);
  l2NormBlocks(&x, &out, 0, 1, 1e-6f);
  EXPECT_EQ(out, 7);
}

TEST(SoftplusTest, TwentyItselfTakesTheLogarithmAndTheNextFloatDoesNot) {
  const float above = std::nextafter(20.0f, 21.0f);  // 20.000002
  const float x[] = {20.0f, above, 19.0f, 0.0f, -5.0f, -200.0f, 1e30f, kNan};
  float out[8];
  softplus(x, out, 8);
  EXPECT_EQ(out[0], std::log1p(std::exp(20.0f)));
  EXPECT_EQ(out[1], above);
  EXPECT_EQ(out[2], std::log1p(std::exp(19.0f)));
  EXPECT_EQ(out[3], std::log1p(1.0f));
  EXPECT_EQ(out[4], std::log1p(std::exp(-5.0f)));
  EXPECT_EQ(out[5], 0);
  EXPECT_EQ(out[6], 1e30f);
  EXPECT_TRUE(std::isnan(out[7]));
  softplus(x, out, 0);
}

TEST(ActivationsTest, SiluAndSigmoidAreTheFormulae) {
  const std::vector<float> x = normalVector(50, 6);
  std::vector<float> s(50), g(50);
  silu(x.data(), s.data(), 50);
  sigmoid(x.data(), g.data(), 50);
  for (size_t i = 0; i < 50; ++i) {
    EXPECT_FLOAT_EQ(s[i], x[i] / (std::exp(-x[i]) + 1.0f));
    EXPECT_FLOAT_EQ(g[i], 1.0f / (std::exp(-x[i]) + 1.0f));
  }
}

TEST(DotF32Test, SumsProductsOfAnyLength) {
  for (const size_t n : {0, 1, 5, 16, 23, 24, 1000}) {
    const std::vector<float> a = normalVector(n, 7);
    const std::vector<float> b = normalVector(n, 8);
    double expected = 0;
    for (size_t i = 0; i < n; ++i) expected += static_cast<double>(a[i]) * b[i];
    EXPECT_NEAR(dotF32(a.data(), b.data(), n), expected, 1e-4) << n;
  }
}

TEST(Bf16Test, RoundsEveryKindOfPatternByTheFormula) {
  // Every upper half with lower halves at and around the tie: all cases of the rounding.
  for (uint32_t high = 0; high <= 0xFFFF; ++high) {
    for (const uint32_t low : {0u, 1u, 0x7FFEu, 0x7FFFu, 0x8000u, 0x8001u, 0xFFFFu}) {
      const uint32_t bits = high << 16 | low;
      const auto expected = static_cast<uint16_t>((bits + 0x7FFFu + ((bits >> 16) & 1u)) >> 16);
      ASSERT_EQ(f32ToBf16(std::bit_cast<float>(bits)), expected) << std::hex << bits;
    }
  }
}

TEST(Bf16Test, KnownValues) {
  EXPECT_EQ(f32ToBf16(1.0f), 0x3F80);
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F808000u)), 0x3F80) << "tie to the even neighbour";
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x3F818000u)), 0x3F82) << "tie to the even neighbour";
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x7F7FFFFFu)), 0x7F80) << "overflow to infinity";
  EXPECT_EQ(f32ToBf16(std::bit_cast<float>(0x7F800001u)), 0x7F80) << "NaN of a low payload";
}

TEST(Bf16Test, WideningIsExactAndRoundsBackToItself) {
  for (uint32_t bits = 0; bits <= 0xFFFF; ++bits) {
    const float wide = bf16ToF32(static_cast<uint16_t>(bits));
    ASSERT_EQ(std::bit_cast<uint32_t>(wide), bits << 16);
    ASSERT_EQ(f32ToBf16(wide), bits);
  }
}

// Both plain products on the same matrix, whose weights bfloat16 holds exactly.
class MatvecTest : public testing::Test {
 protected:
  void fill(size_t rows, size_t cols) {
    weights_ = normalVector(rows * cols, 9);
    halves_.resize(weights_.size());
    for (size_t i = 0; i < weights_.size(); ++i) {
      halves_[i] = f32ToBf16(weights_[i]);
      weights_[i] = bf16ToF32(halves_[i]);
    }
    x_ = normalVector(cols, 10);
    rows_ = rows;
    cols_ = cols;
  }
  void expectProduct(const std::vector<float>& y, double factor) const {
    for (size_t r = 0; r < rows_; ++r) {
      double expected = 0;
      double magnitude = 0;
      for (size_t c = 0; c < cols_; ++c) {
        const double product = static_cast<double>(weights_[r * cols_ + c]) * x_[c];
        expected += product;
        magnitude += std::fabs(product);
      }
      ASSERT_NEAR(y[r], factor * expected, factor * magnitude / 16384) << r;
    }
  }

  std::vector<float> weights_, x_;
  std::vector<uint16_t> halves_;
  size_t rows_ = 0;
  size_t cols_ = 0;
};

TEST_F(MatvecTest, AddsToTheOutputSoThatTwoCallsDoubleIt) {
  fill(50, 300);
  std::vector<float> y(50, 0.0f), z(50, 0.0f);
  for (const double factor : {1.0, 2.0}) {
    matvecF32Add(weights_.data(), x_.data(), y.data(), 50, 300);
    matvecBf16Add(halves_.data(), x_.data(), z.data(), 50, 300);
    expectProduct(y, factor);
    expectProduct(z, factor);
  }
}

TEST_F(MatvecTest, GivesTheSameBitsForEveryNumberOfThreads) {
  for (const size_t rows : {1, 2, 6, 500}) {
    fill(rows, 200);
    std::vector<float> first, firstBf16;
    for (const int threads : {1, 2, 3, 7, 64}) {
      const orbtest::ThreadCount scope(threads);
      std::vector<float> y(rows, 0.0f), z(rows, 0.0f);
      matvecF32Add(weights_.data(), x_.data(), y.data(), rows, 200);
      matvecBf16Add(halves_.data(), x_.data(), z.data(), rows, 200);
      expectProduct(y, 1);
      expectProduct(z, 1);
      if (threads == 1) {
        first = y;
        firstBf16 = z;
      }
      EXPECT_EQ(y, first) << rows << " rows, " << threads << " threads";
      EXPECT_EQ(z, firstBf16) << rows << " rows, " << threads << " threads";
    }
  }
}

TEST_F(MatvecTest, NoRowsAndNoColumnsChangeNothing) {
  fill(4, 8);
  float y[4] = {1, 2, 3, 4};
  matvecF32Add(weights_.data(), x_.data(), y, 0, 8);
  matvecBf16Add(halves_.data(), x_.data(), y, 0, 8);
  matvecF32Add(weights_.data(), x_.data(), y, 4, 0);
  matvecBf16Add(halves_.data(), x_.data(), y, 4, 0);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{1, 2, 3, 4}));
}

}  // namespace
}  // namespace qwen35
