// The products of every kernel tier against sums in double of the dequantized weights, for random
// and adversarial rows, and the choice of a tier.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <set>
#include <string>
#include <tuple>

#include "compat/cpu_features.h"
#include "model/guarded_buffer.h"
#include "model/kernel_tiers.h"
#include "model/weight_patterns.h"
#include "quant/k_blocks.h"

namespace {

using kiv::QuantType;
using orbtest::decodeRow;
using orbtest::GuardedBuffer;
using orbtest::kAllPatterns;
using orbtest::Kernels;
using orbtest::makeRow;
using orbtest::Pattern;
using orbtest::Side;
using qwen35::KernelTable;

constexpr double kBound = 1.0 / 16384;  // of sum |w_i x_i|

enum class Input {
  Normal,      // standard normal
  Wide,        // magnitudes from 1e-4 to 1e4
  Huge,        // magnitudes about 1e25
  Constant,    // all 1
  Cancelling,  // makes the products of the row plus and minus one in turn
  Spotlight,   // enormous where the row's weight is zero, small elsewhere
  Brim,        // the last numbers before a power of two, where the highest bits of a number carry
};
constexpr Input kAllInputs[] = {Input::Normal,     Input::Wide,      Input::Huge, Input::Constant,
                                Input::Cancelling, Input::Spotlight, Input::Brim};

std::vector<float> makeInput(Input kind, const std::vector<float>& weights, std::mt19937& random) {
  std::normal_distribution<float> normal;
  std::uniform_real_distribution<float> exponent(-4, 4);
  std::vector<float> x(weights.size());
  for (size_t i = 0; i < x.size(); ++i) {
    const float w = weights[i];
    switch (kind) {
      case Input::Normal:
        x[i] = normal(random);
        break;
      case Input::Wide:
        x[i] = std::copysign(std::pow(10.0f, exponent(random)), normal(random));
        break;
      case Input::Huge:
        x[i] = 1e25f * normal(random);
        break;
      case Input::Constant:
        x[i] = 1;
        break;
      case Input::Cancelling:
        x[i] = w == 0 ? 1e6f : (i % 2 == 0 ? 1.0f : -1.0f) / w;
        break;
      case Input::Spotlight:
        x[i] = w == 0 ? 1e9f + static_cast<float>(i) : 1e-3f * normal(random);
        break;
      case Input::Brim:
        x[i] =
            std::copysign(std::ldexp(1 - std::ldexp(1.0f, -2 - static_cast<int>(i / 32 % 23)), 3),
                          normal(random));
        break;
    }
  }
  return x;
}

// What a row's product is and may be off by.
struct Expected {
  double value = 0;
  double magnitude = 0;  // sum |w_i x_i|, or of the parts that a weight is the difference of

  Expected(const std::vector<float>& weights, const std::vector<float>& parts,
           const std::vector<float>& x) {
    for (size_t i = 0; i < weights.size(); ++i) {
      const auto input = static_cast<double>(x[i]);
      value += static_cast<double>(weights[i]) * input;
      magnitude += std::fabs(static_cast<double>(parts[i]) * input);
    }
  }
  // Share of the bound that y uses; 0 for an exact result.
  double share(float y) const {
    const double error = std::fabs(static_cast<double>(y) - value);
    if (error == 0) return 0;
    return error / (kBound * magnitude);
  }
};

// |d * sc * code| + |dmin * m| of each weight of a Q4_K or Q5_K row, the parts that a vector tier
// sums by themselves; of other types the weight's magnitude.
std::vector<float> partsOf(QuantType type, std::vector<uint8_t> row, size_t cols) {
  std::vector<float> parts = decodeRow(type, row.data(), cols);
  std::vector<float> opposite = parts;
  if (type == QuantType::Q4_K || type == QuantType::Q5_K) {
    const size_t block = kiv::quant::quantizedBytes(type, 256);
    for (size_t at = 0; at < row.size(); at += block) row[at + 3] ^= 0x80;  // the sign of dmin
    opposite = decodeRow(type, row.data(), cols);
  }
  for (size_t i = 0; i < cols; ++i) {
    parts[i] = std::max(std::fabs(parts[i]), std::fabs(opposite[i]));
  }
  return parts;
}

// Rows of one type and what belongs to them.
struct Matrix {
  QuantType type;
  size_t cols;
  size_t rowBytes;
  std::vector<uint8_t> bytes;
  std::vector<std::vector<float>> weights;
  std::vector<std::vector<float>> parts;

  Matrix(QuantType t, Pattern pattern, size_t rows, size_t columns, std::mt19937& random)
      : type(t), cols(columns) {
    for (size_t r = 0; r < rows; ++r) {
      const std::vector<uint8_t> row = makeRow(type, pattern, cols, random);
      bytes.insert(bytes.end(), row.begin(), row.end());
      weights.push_back(decodeRow(type, row.data(), cols));
      parts.push_back(partsOf(type, row, cols));
    }
    rowBytes = bytes.size() / rows;
  }
  // K-quants of these rows.
  Matrix(QuantType t, const std::vector<std::vector<float>>& rows)
      : type(t), cols(rows[0].size()), rowBytes(kiv::quant::quantizedBytes(t, cols)) {
    const auto quantize = type == QuantType::Q4_K   ? kiv::quant::quantQ4K
                          : type == QuantType::Q5_K ? kiv::quant::quantQ5K
                                                    : kiv::quant::quantQ6K;
    bytes.resize(rows.size() * rowBytes);
    for (size_t r = 0; r < rows.size(); ++r) {
      quantize(rows[r].data(), bytes.data() + r * rowBytes, cols);
      weights.push_back(decodeRow(type, bytes.data() + r * rowBytes, cols));
    }
    parts = weights;
  }
  size_t rows() const { return weights.size(); }
};

using Case = std::tuple<const KernelTable*, QuantType, Kernels>;

// The parameters are the tier, the type of the weights, and whether its kernels of one token or of
// batches, with one token, are meant.
class GemvTest : public testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    const KernelTable& tier = *std::get<0>(GetParam());
    if (!qwen35::canRun(tier)) GTEST_SKIP() << "this machine can't run " << tier.name;
    tier_ = &tier;
    ASSERT_NE(tier.gemv[static_cast<size_t>(type())], nullptr);
  }
  QuantType type() const { return std::get<1>(GetParam()); }
  Kernels which() const { return std::get<2>(GetParam()); }

  std::vector<size_t> rowLengths() const {
    std::vector<size_t> lengths = {256, 512, 2560, 9216};
    if (type() == QuantType::Q8_0) {
      for (const size_t n : {32, 64, 96, 160, 224, 2592}) lengths.push_back(n);
    }
    if (type() == QuantType::F32 || type() == QuantType::BF16) {
      for (const size_t n : {1, 2, 3, 7, 8, 9, 15, 16, 17, 31, 33, 63, 65, 100, 257, 1023}) {
        lengths.push_back(n);
      }
    }
    return lengths;
  }

  std::vector<float> product(const uint8_t* rows, size_t rowBytes, size_t count, size_t cols,
                             const float* x) const {
    std::vector<float> y(count, 0.0f);
    addProduct(rows, rowBytes, count, cols, x, y.data());
    return y;
  }

  // Checks all rows; returns the largest share of the bound.
  double checkRows(const Matrix& m, const std::vector<float>& x, const std::string& what) const {
    const std::vector<float> y = product(m.bytes.data(), m.rowBytes, m.rows(), m.cols, x.data());
    double worst = 0;
    for (size_t r = 0; r < m.rows(); ++r) {
      const bool exact = tier_ == &qwen35::kScalarKernels;
      const Expected expected(m.weights[r], exact ? m.weights[r] : m.parts[r], x);
      const double share = expected.share(y[r]);
      EXPECT_LE(share, 1.0) << what << ", row " << r << " of " << m.cols << ": " << y[r]
                            << " instead of " << expected.value << ", sum of magnitudes "
                            << expected.magnitude;
      worst = std::max(worst, share);
    }
    return worst;
  }

  void addProduct(const uint8_t* rows, size_t rowBytes, size_t count, size_t cols, const float* x,
                  float* y) const {
    orbtest::addProduct(*tier_, type(), rows, rowBytes, count, cols, x, y, which());
  }

  const KernelTable* tier_ = nullptr;
};

std::string caseName(const testing::TestParamInfo<Case>& info) {
  const char* batch = std::get<2>(info.param) == Kernels::Batch ? "_batch" : "";
  return orbtest::kernelsName(*std::get<0>(info.param)) + "_" +
         kiv::quantTypeName(std::get<1>(info.param)) + batch;
}

INSTANTIATE_TEST_SUITE_P(Tiers, GemvTest,
                         testing::Combine(testing::ValuesIn(orbtest::testedKernels()),
                                          testing::ValuesIn(orbtest::kMatrixTypes),
                                          testing::Values(Kernels::OneToken)),
                         caseName);

// Where batches have the bits of single products, tests of those speak for both.
std::vector<Case> casesOfOwnBatches() {
  std::vector<Case> cases;
  for (const KernelTable* tier : qwen35::allKernels()) {
    for (const QuantType type : orbtest::kMatrixTypes) {
      if (orbtest::batchReference(*tier, type) == Kernels::Batch) {
        cases.emplace_back(tier, type, Kernels::Batch);
      }
    }
  }
  return cases;
}
INSTANTIATE_TEST_SUITE_P(Batches, GemvTest, testing::ValuesIn(casesOfOwnBatches()), caseName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(GemvTest);

TEST_P(GemvTest, StaysWithinTheBoundForAllPatternsInputsAndLengths) {
  std::mt19937 random(1);
  double worst = 0;
  for (const size_t cols : rowLengths()) {
    for (const Pattern pattern : kAllPatterns) {
      const Matrix m(type(), pattern, 3, cols, random);
      for (const Input input : kAllInputs) {
        const std::vector<float> x = makeInput(input, m.weights[0], random);
        const std::string what = std::string(patternName(pattern)) + ", input " +
                                 std::to_string(static_cast<int>(input));
        worst = std::max(worst, checkRows(m, x, what));
      }
    }
  }
  RecordProperty("worstShareOfBound", std::to_string(worst));
}

TEST_P(GemvTest, StaysWithinTheBoundForManyRandomRows) {
  std::mt19937 random(2);
  double worst = 0;
  for (int round = 0; round < 40; ++round) {
    const Matrix m(type(), Pattern::Random, 5, 2560, random);
    for (const Input input : {Input::Normal, Input::Wide}) {
      const std::vector<float> x = makeInput(input, m.weights[0], random);
      worst = std::max(worst, checkRows(m, x, "random"));
    }
  }
  RecordProperty("worstShareOfBound", std::to_string(worst));
}

TEST_P(GemvTest, PicksOutEveryWeightOfARow) {
  std::mt19937 random(3);
  for (const Pattern pattern : kAllPatterns) {
    const Matrix m(type(), pattern, 1, 256, random);
    std::vector<float> x(256, 0.0f);
    for (size_t i = 0; i < 256; ++i) {
      x[i] = 1;
      const float y = product(m.bytes.data(), m.rowBytes, 1, 256, x.data())[0];
      const float weight = m.weights[0][i];
      ASSERT_NEAR(y, weight, kBound * m.parts[0][i]) << patternName(pattern) << ", element " << i;
      x[i] = 0;
    }
  }
}

TEST_P(GemvTest, AddsToTheOutput) {
  std::mt19937 random(4);
  const Matrix m(type(), Pattern::Random, 3, 512, random);
  const std::vector<float> x = makeInput(Input::Normal, m.weights[0], random);
  const std::vector<float> bare = product(m.bytes.data(), m.rowBytes, 3, 512, x.data());
  std::vector<float> y = {1000, -3, 0.5f};
  const std::vector<float> before = y;
  addProduct(m.bytes.data(), m.rowBytes, 3, 512, x.data(), y.data());
  for (size_t r = 0; r < 3; ++r) {
    const float magnitude = std::fabs(before[r]) + std::fabs(bare[r]);
    EXPECT_NEAR(y[r], before[r] + bare[r], 1e-6f * magnitude) << r;
  }
}

TEST_P(GemvTest, AnInputThatIsNoFiniteNumberIsNotHidden) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  std::mt19937 random(7);
  const Matrix m(type(), Pattern::Random, 5, 512, random);
  for (const float value : {kInfinity, -kInfinity, std::nanf("")}) {
    for (const size_t at : {size_t{0}, size_t{37}, size_t{255}, size_t{511}}) {
      std::vector<float> x = makeInput(Input::Normal, m.weights[0], random);
      x[at] = value;
      const std::vector<float> y = product(m.bytes.data(), m.rowBytes, m.rows(), m.cols, x.data());
      for (const float sum : y) EXPECT_FALSE(std::isfinite(sum)) << value << " at " << at;
    }
  }
}

// Every row has weights at two small inputs, none at the large ones.
void checkSmallInputs(const KernelTable& tier, QuantType type, size_t rows) {
  std::mt19937 random(12);
  std::normal_distribution<float> normal;
  std::uniform_real_distribution<float> weight(0.1f, 1.0f);
  std::vector<size_t> places(256);
  std::iota(places.begin(), places.end(), size_t{0});
  std::shuffle(places.begin(), places.end(), random);
  std::vector<float> x(512, 1e9f);
  std::vector<std::vector<float>> values(rows, std::vector<float>(x.size()));
  for (size_t r = 0; r < rows; ++r) {
    for (const size_t i : {places[2 * r], places[2 * r + 1]}) {
      x[256 + i] = 1000 * normal(random);
      values[r][256 + i] = weight(random);
    }
  }
  const Matrix m(type, values);
  std::vector<float> y(rows, 0.0f);
  orbtest::addProduct(tier, type, m.bytes.data(), m.rowBytes, rows, m.cols, x.data(), y.data(),
                      Kernels::OneToken);
  for (size_t r = 0; r < rows; ++r) {
    EXPECT_LE(Expected(m.weights[r], m.parts[r], x).share(y[r]), 1.0)
        << orbtest::kernelsName(tier) << " " << kiv::quantTypeName(type) << ", row " << r << " of "
        << rows << ": " << y[r];
  }
}

TEST(SmallInputsTest, KeepTheirBitsBesideLargeOnesHoweverManyThereAre) {
  for (const KernelTable* tier : orbtest::testedKernels()) {
    for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K}) {
      for (const size_t rows : {1, 5, 6, 7, 64}) checkSmallInputs(*tier, type, rows);
    }
  }
}

TEST_P(GemvTest, NoRowsLeaveTheOutputAlone) {
  std::mt19937 random(5);
  const Matrix m(type(), Pattern::Random, 1, 256, random);
  const std::vector<float> x(256, 1.0f);
  float y = 7;
  addProduct(m.bytes.data(), m.rowBytes, 0, 256, x.data(), &y);
  EXPECT_EQ(y, 7);
}

TEST_P(GemvTest, ARowHasTheSameBitsWhateverTheSplitIntoCalls) {
  std::mt19937 random(6);
  constexpr size_t kRows = 37;
  for (const size_t cols : {size_t{256}, size_t{2560}}) {
    const Matrix m(type(), Pattern::Random, kRows, cols, random);
    const std::vector<float> x = makeInput(Input::Wide, m.weights[0], random);
    const std::vector<float> whole = product(m.bytes.data(), m.rowBytes, kRows, cols, x.data());
    for (const size_t step : {1, 2, 3, 5, 8, 16, 36}) {
      std::vector<float> y(kRows, 0.0f);
      for (size_t r = 0; r < kRows; r += step) {
        addProduct(m.bytes.data() + r * m.rowBytes, m.rowBytes, std::min(step, kRows - r), cols,
                   x.data(), y.data() + r);
      }
      EXPECT_EQ(std::memcmp(y.data(), whole.data(), kRows * sizeof(float)), 0)
          << cols << " columns in steps of " << step;
    }
  }
}

TEST_P(GemvTest, RowsMayStartAtAnyByteAndHaveAnyDistance) {
  std::mt19937 random(7);
  constexpr size_t kRows = 5;
  const Matrix m(type(), Pattern::Random, kRows, 512, random);
  const std::vector<float> x = makeInput(Input::Normal, m.weights[0], random);
  const std::vector<float> expected = product(m.bytes.data(), m.rowBytes, kRows, 512, x.data());
  for (const size_t start : {1, 2, 3, 5, 31, 63}) {
    for (const size_t gap : {0, 1, 7}) {
      const size_t distance = m.rowBytes + gap;
      std::vector<uint8_t> moved(start + kRows * distance, 0xA5);
      for (size_t r = 0; r < kRows; ++r) {
        std::memcpy(moved.data() + start + r * distance, m.bytes.data() + r * m.rowBytes,
                    m.rowBytes);
      }
      EXPECT_EQ(product(moved.data() + start, distance, kRows, 512, x.data()), expected)
          << "from byte " << start << ", gap " << gap;
    }
  }
}

TEST_P(GemvTest, TouchesNothingOutsideOfRowsInputAndOutput) {
  if (which() == Kernels::Batch) return;  // see the guarded batches among the hostile tests
  std::mt19937 random(8);
  for (const size_t cols : rowLengths()) {
    const Matrix m(type(), Pattern::Random, 3, cols, random);
    const std::vector<float> input = makeInput(Input::Normal, m.weights[0], random);
    const std::vector<float> expected = product(m.bytes.data(), m.rowBytes, 3, cols, input.data());
    for (const Side side : {Side::Begin, Side::End}) {
      GuardedBuffer rows(m.bytes, side);
      GuardedBuffer plain(input, side);
      const size_t width = orbtest::arrangedWidth(*tier_, type(), cols);
      GuardedBuffer x(
          orbtest::arranged(*tier_, type(), Kernels::OneToken, plain.floats(), cols, 1, width),
          side);
      GuardedBuffer y(std::vector<float>(3, 0.0f), side);
      const auto index = static_cast<size_t>(type());
      tier_->gemv[index](rows.bytes(), m.rowBytes, 3, cols, x.floats(), y.floats());
      EXPECT_EQ(std::vector<float>(y.floats(), y.floats() + 3), expected) << cols << " columns";
    }
  }
}

// The parameter is the tier.
class KQuantTest : public orbtest::TierTest {};
ORB_INSTANTIATE_TIERS(KQuantTest);

// One block, every sub-block with its own pair of six-bit scale and minimum, read code by code.
TEST_P(KQuantTest, ScalesAndMinimumsAreUnpackedInEverySubBlock) {
  constexpr uint8_t kSteps[] = {0, 1, 2, 15, 16, 17, 31, 32, 33, 47, 48, 62, 63};
  constexpr uint16_t kOne = 0x3C00;
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    std::vector<uint8_t> codes(256);
    for (size_t i = 0; i < 256; ++i) codes[i] = type == QuantType::Q4_K ? i % 16 : i % 32;
    for (size_t a = 0; a < std::size(kSteps); ++a) {
      for (size_t b = 0; b < std::size(kSteps); ++b) {
        uint8_t scales[8];
        uint8_t minimums[8];
        for (size_t j = 0; j < 8; ++j) {
          scales[j] = kSteps[(a + j) % std::size(kSteps)];
          minimums[j] = kSteps[(b + 3 * j) % std::size(kSteps)];
        }
        const auto block = orbtest::makeScaledBlock(type, kOne, kOne, scales, minimums, codes);
        for (size_t i = 0; i < 256; i += 5) {
          std::vector<float> x(256, 0.0f);
          x[i] = 1;
          float y = 0;
          orbtest::addProduct(kernels(), type, block.data(), block.size(), 1, 256, x.data(), &y,
                              orbtest::batchReference(kernels(), type));
          ASSERT_EQ(y, codes[i] * scales[i / 32] - minimums[i / 32])
              << kiv::quantTypeName(type) << " element " << i;
        }
      }
    }
  }
}

TEST_P(KQuantTest, WeightsThatCancelLeaveNoMoreThanTheRoundingOfTheirParts) {
  constexpr uint16_t kLarge = 0x7800;  // 32768
  uint8_t scales[8];
  uint8_t minimums[8];
  for (size_t j = 0; j < 8; ++j) {
    scales[j] = static_cast<uint8_t>(j + 1);
    minimums[j] = static_cast<uint8_t>(7 * (j + 1));
  }
  const std::vector<uint8_t> codes(256, 7);
  std::vector<float> x(256);
  for (size_t i = 0; i < 256; ++i) x[i] = 1.0f / static_cast<float>(i + 1) + static_cast<float>(i);
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    const auto block = orbtest::makeScaledBlock(type, kLarge, kLarge, scales, minimums, codes);
    float y = 0;
    orbtest::addProduct(kernels(), type, block.data(), block.size(), 1, 256, x.data(), &y);
    const std::vector<float> weights(256, 0.0f);
    const Expected expected(weights, partsOf(type, block, 256), x);
    EXPECT_LE(expected.share(y), 1.0 / 64) << kiv::quantTypeName(type);
    if (&kernels() == &qwen35::kScalarKernels) {
      EXPECT_EQ(y, 0) << kiv::quantTypeName(type);
    }
  }
}

TEST_P(KQuantTest, OneDifferentSixBitCodeAmongZerosGivesItsOwnProductOnly) {
  int8_t scales[16];
  for (size_t j = 0; j < 16; ++j) scales[j] = static_cast<int8_t>(8 * static_cast<int>(j) - 61);
  std::vector<float> x(256);
  for (size_t i = 0; i < 256; ++i) x[i] = 1e6f + static_cast<float>(i);
  for (const uint8_t code : {0, 31, 33, 63}) {
    for (size_t i = 0; i < 256; ++i) {
      std::vector<uint8_t> codes(256, 32);
      codes[i] = code;
      const auto block = orbtest::makeQ6Block(0x3C00, scales, codes);
      float y = 0;
      orbtest::addProduct(kernels(), QuantType::Q6_K, block.data(), block.size(), 1, 256, x.data(),
                          &y);
      const double exact =
          static_cast<double>((code - 32) * scales[i / 16]) * static_cast<double>(x[i]);
      ASSERT_NEAR(y, exact, kBound * std::fabs(exact)) << "code " << int{code} << " at " << i;
    }
  }
}

TEST_P(KQuantTest, AnInfiniteScaleIsNotHidden) {
  for (const QuantType type : orbtest::kMatrixTypes) {
    std::mt19937 random(9);
    std::vector<uint8_t> row = makeRow(type, Pattern::Random, 256, random);
    const size_t scaleAt = type == QuantType::Q6_K ? 208 : 0;
    if (type == QuantType::F32) {
      const float infinity = INFINITY;
      std::memcpy(row.data(), &infinity, 4);
    } else {
      const uint16_t infinity = type == QuantType::BF16 ? 0x7F80 : 0x7C00;
      std::memcpy(row.data() + scaleAt, &infinity, 2);
    }
    const std::vector<float> x(256, 1.0f);
    float y = 0;
    orbtest::addProduct(kernels(), type, row.data(), row.size(), 1, 256, x.data(), &y);
    EXPECT_FALSE(std::isfinite(y)) << kiv::quantTypeName(type);
  }
}

TEST(KernelTableTest, EveryTierHasItsOwnNameAndServesExactlyTheMatrixTypes) {
  std::set<std::string> names;
  for (const KernelTable* tier : qwen35::allKernels()) {
    EXPECT_TRUE(names.insert(tier->name).second) << tier->name;
    for (const QuantType type : orbtest::kMatrixTypes) {
      EXPECT_NE(tier->gemv[static_cast<size_t>(type)], nullptr)
          << tier->name << " " << kiv::quantTypeName(type);
    }
    for (const QuantType type : {QuantType::F16, QuantType::Q4_0, QuantType::IQ4_XS}) {
      EXPECT_EQ(tier->gemv[static_cast<size_t>(type)], nullptr)
          << tier->name << " " << kiv::quantTypeName(type);
    }
  }
}

TEST(KernelTableTest, TheScalarTierRunsEverywhereAndTheOthersNeedWhatTheyUse) {
  EXPECT_EQ(qwen35::kScalarKernels.requiredFeatures, 0u);
  EXPECT_EQ(qwen35::kAvx2Kernels.requiredFeatures, uint32_t{compat::kCpuAvx2});
  EXPECT_EQ(qwen35::kAvx512Kernels.requiredFeatures,
            uint32_t{compat::kCpuAvx2} | uint32_t{compat::kCpuAvx512});
  for (const KernelTable* tier : qwen35::allKernels()) {
    const bool hasFeatures = (tier->requiredFeatures & ~compat::cpuFeatures()) == 0;
    const bool needsTiles = (tier->requiredFeatures & compat::kCpuAmx) != 0;
    EXPECT_EQ(qwen35::canRun(*tier), hasFeatures && (!needsTiles || compat::requestTiles()));
  }
}

TEST(KernelTableTest, KQuantsAreMultipliedInIntegersWhereTheProcessorCan) {
  for (const KernelTable* tier : qwen35::allKernels()) {
    if (tier == &qwen35::kScalarKernels) continue;
    const bool isWide = (tier->requiredFeatures & compat::kCpuAvx512) != 0;
    const uint32_t needs = isWide ? compat::kCpuAvx512Limbs : compat::kCpuAvx2Limbs;
    const KernelTable& plain = isWide ? qwen35::kAvx512Kernels : qwen35::kAvx2Kernels;
    const bool has = (compat::cpuFeatures() & needs) != 0;
    for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K}) {
      const auto index = static_cast<size_t>(type);
      EXPECT_EQ(tier->gemv[index] != plain.gemv[index], has) << tier->name;
      EXPECT_EQ(tier->arrange[index] != plain.arrange[index], has) << tier->name;
    }
  }
}

TEST(SelectKernelsTest, WithoutANameTheLastRunnableTierIsTaken) {
  const KernelTable* best = nullptr;
  for (const KernelTable* tier : qwen35::allKernels()) {
    if (qwen35::canRun(*tier)) best = tier;
  }
  EXPECT_EQ(&qwen35::selectKernels(nullptr), best);
}

TEST(SelectKernelsTest, ANameForcesItsTierWhenTheMachineCanRunIt) {
  for (const KernelTable* tier : qwen35::allKernels()) {
    const KernelTable& chosen = qwen35::selectKernels(tier->name);
    EXPECT_EQ(&chosen, qwen35::canRun(*tier) ? tier : &qwen35::selectKernels(nullptr));
  }
}

TEST(SelectKernelsTest, AnUnknownNameGivesTheBestTier) {
  for (const char* name : {"", "AVX2", "avx", "avx2 ", "neon"}) {
    EXPECT_EQ(&qwen35::selectKernels(name), &qwen35::selectKernels(nullptr)) << name;
  }
}

}  // namespace
