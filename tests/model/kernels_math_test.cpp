// The element-wise functions, the attention run and the delta step of every kernel tier against
// double precision.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "model/guarded_buffer.h"
#include "model/kernel_tiers.h"

namespace {

using orbtest::GuardedBuffer;
using orbtest::Side;
using qwen35::AttentionPart;
using qwen35::AttentionRun;
using qwen35::kAttentionRun;
using qwen35::kGroupHeads;
using qwen35::kHeadSize;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kLargest = std::numeric_limits<float>::max();

std::vector<float> normals(size_t n, std::mt19937& random, float deviation = 1) {
  std::normal_distribution<float> normal(0, deviation);
  std::vector<float> values(n);
  for (float& value : values) value = normal(random);
  return values;
}

// ------------------------------------------------------------------------------------ activations

class ActivationTest : public orbtest::TierTest {
 protected:
  float silu(float x) const { return one(kernels().silu, x); }
  float sigmoid(float x) const { return one(kernels().sigmoid, x); }

 private:
  static float one(void (*function)(const float*, float*, size_t), float x) {
    float out = 0;
    function(&x, &out, 1);
    return out;
  }
};
ORB_INSTANTIATE_TIERS(ActivationTest);

// Finite arguments: a dense sweep where the functions bend, and patterns from the whole range.
std::vector<float> sweep() {
  std::vector<float> x;
  for (int i = -110000; i <= 110000; i += 7) x.push_back(static_cast<float>(i) / 1000.0f);
  for (uint64_t bits = 0; bits <= 0xFFFFFFFFu; bits += 65521) {
    const float value = std::bit_cast<float>(static_cast<uint32_t>(bits));
    if (std::isfinite(value)) x.push_back(value);
  }
  return x;
}

// Largest error relative to the result; below `floor` the absolute error counts, since a result
// there has lost digits or may flush to zero.
double worstError(const std::vector<float>& x, const std::vector<float>& y,
                  double (*function)(double), double floor) {
  double worst = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const double expected = function(static_cast<double>(x[i]));
    const double error = std::fabs(static_cast<double>(y[i]) - expected);
    const double relative = error / std::max(std::fabs(expected), floor);
    if (!(relative <= worst)) worst = relative;
  }
  return worst;
}

TEST_P(ActivationTest, SigmoidIsAccurateOverTheWholeRange) {
  const std::vector<float> x = sweep();
  std::vector<float> y(x.size());
  kernels().sigmoid(x.data(), y.data(), x.size());
  const double worst = worstError(
      x, y, [](double v) { return 1 / (std::exp(-v) + 1); }, 1e-31);
  RecordProperty("worstRelativeError", std::to_string(worst * 1e9) + "e-9");
  EXPECT_LT(worst, 4e-7);
}

TEST_P(ActivationTest, SiluIsAccurateOverTheWholeRange) {
  const std::vector<float> x = sweep();
  std::vector<float> y(x.size());
  kernels().silu(x.data(), y.data(), x.size());
  const double worst = worstError(
      x, y, [](double v) { return v / (std::exp(-v) + 1); }, 1e-29);
  RecordProperty("worstRelativeError", std::to_string(worst * 1e9) + "e-9");
  EXPECT_LT(worst, 4e-7);
}

TEST_P(ActivationTest, LimitsAreReachedAtHugeArguments) {
  EXPECT_EQ(silu(0), 0);
  EXPECT_EQ(sigmoid(0), 0.5f);
  EXPECT_EQ(sigmoid(-0.0f), 0.5f);
  for (const float huge : {1e4f, 1e30f, kLargest, kInfinity}) {
    EXPECT_EQ(sigmoid(huge), 1) << huge;
    EXPECT_EQ(sigmoid(-huge), 0) << huge;
    EXPECT_EQ(silu(huge), huge);
  }
  for (const float huge : {1e4f, 1e30f, kLargest}) EXPECT_EQ(silu(-huge), 0) << huge;
  EXPECT_TRUE(std::isnan(silu(-kInfinity))) << "infinity over infinity";
}

TEST_P(ActivationTest, NanStaysNanInEveryLaneAndDisturbsNoOther) {
  for (size_t at = 0; at < 37; ++at) {
    std::vector<float> x(37, 2.0f);
    x[at] = kNan;
    std::vector<float> s(37), g(37);
    kernels().silu(x.data(), s.data(), 37);
    kernels().sigmoid(x.data(), g.data(), 37);
    for (size_t i = 0; i < 37; ++i) {
      EXPECT_EQ(std::isnan(s[i]), i == at) << i;
      EXPECT_EQ(std::isnan(g[i]), i == at) << i;
    }
  }
}

TEST_P(ActivationTest, AnyLengthInPlaceAndNothingBeyond) {
  std::mt19937 random(1);
  for (const size_t n : {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 100, 129}) {
    const std::vector<float> input = normals(n, random, 4);
    for (const auto function : {kernels().silu, kernels().sigmoid}) {
      std::vector<float> expected(n);
      for (size_t i = 0; i < n; ++i) function(&input[i], &expected[i], 1);
      for (const Side side : {Side::Begin, Side::End}) {
        GuardedBuffer x(input, side);
        function(x.floats(), x.floats(), n);
        EXPECT_EQ(std::vector<float>(x.floats(), x.floats() + n), expected) << n;
      }
    }
  }
}

// -------------------------------------------------------------------------------------------- dot

class DotTest : public orbtest::TierTest {};
ORB_INSTANTIATE_TIERS(DotTest);

TEST_P(DotTest, MatchesDoubleForEveryLengthAndReadsNothingElse) {
  std::mt19937 random(2);
  std::vector<size_t> lengths = {128, 256, 1000, 4096};
  for (size_t n = 0; n < 130; ++n) lengths.push_back(n);
  for (const size_t n : lengths) {
    const std::vector<float> a = normals(n, random);
    const std::vector<float> b = normals(n, random);
    double expected = 0;
    double magnitude = 0;
    for (size_t i = 0; i < n; ++i) {
      expected += static_cast<double>(a[i]) * static_cast<double>(b[i]);
      magnitude += std::fabs(static_cast<double>(a[i]) * static_cast<double>(b[i]));
    }
    for (const Side side : {Side::Begin, Side::End}) {
      GuardedBuffer x(a, side);
      GuardedBuffer y(b, side);
      EXPECT_NEAR(kernels().dot(x.floats(), y.floats(), n), expected, magnitude / 16384) << n;
    }
  }
}

// ----------------------------------------------------------------------------------------- attend

struct AttentionCase {
  std::vector<float> queries, keys, values;
  size_t count;
  float scale = 0.0625f;

  AttentionCase(size_t n, std::mt19937& random)
      : queries(normals(kGroupHeads * kHeadSize, random)),
        keys(normals(n * kHeadSize, random)),
        values(normals(n * kHeadSize, random)),
        count(n) {}
  AttentionRun run() const { return {queries.data(), keys.data(), values.data(), count, scale}; }

  double score(size_t head, size_t t) const {
    double sum = 0;
    for (size_t d = 0; d < kHeadSize; ++d) {
      sum += static_cast<double>(queries[head * kHeadSize + d]) *
             static_cast<double>(keys[t * kHeadSize + d]);
    }
    return static_cast<double>(scale) * sum;
  }
};

class AttendTest : public orbtest::TierTest {
 protected:
  AttentionPart attend(const AttentionCase& c) const {
    auto part = std::make_unique<AttentionPart>();
    std::memset(part.get(), 0x7F, sizeof *part);  // what a call finds there must not matter
    kernels().attend(c.run(), *part);
    return *part;
  }

  // Compares with softmax in double; scores of order one to a few tens.
  void check(const AttentionCase& c) const {
    const AttentionPart part = attend(c);
    for (size_t h = 0; h < kGroupHeads; ++h) {
      double maximum = -1e30;
      for (size_t t = 0; t < c.count; ++t) maximum = std::max(maximum, c.score(h, t));
      ASSERT_NEAR(part.maximum[h], maximum, 1e-5 * (1 + std::fabs(maximum)));
      // The weights refer to the maximum that was returned, whatever its own rounding.
      double sum = 0;
      std::vector<double> weighted(kHeadSize), magnitude(kHeadSize);
      for (size_t t = 0; t < c.count; ++t) {
        const double weight = std::exp(c.score(h, t) - static_cast<double>(part.maximum[h]));
        sum += weight;
        for (size_t d = 0; d < kHeadSize; ++d) {
          const double value = c.values[t * kHeadSize + d];
          weighted[d] += weight * value;
          magnitude[d] += weight * std::fabs(value);
        }
      }
      ASSERT_NEAR(part.sum[h], sum, 3e-5 * sum) << "head " << h << " of " << c.count;
      for (size_t d = 0; d < kHeadSize; ++d) {
        ASSERT_NEAR(part.weighted[h][d], weighted[d], 3e-5 * magnitude[d])
            << "head " << h << " element " << d << " of " << c.count;
      }
    }
  }
};
ORB_INSTANTIATE_TIERS(AttendTest);

TEST_P(AttendTest, MatchesDoubleForAllKindsOfCounts) {
  std::mt19937 random(3);
  for (const size_t count : {1, 2, 3, 7, 8, 9, 15, 16, 17, 31, 100, 255, 256}) {
    check(AttentionCase(count, random));
  }
}

TEST_P(AttendTest, MatchesDoubleWithSpreadScores) {
  std::mt19937 random(4);
  AttentionCase c(256, random);
  c.scale = 1;  // scores of deviation 16: most weights vanish
  check(c);
}

TEST_P(AttendTest, ASinglePositionHasTheWeightOne) {
  std::mt19937 random(5);
  const AttentionCase c(1, random);
  const AttentionPart part = attend(c);
  for (size_t h = 0; h < kGroupHeads; ++h) {
    EXPECT_EQ(part.sum[h], 1);
    EXPECT_EQ(std::memcmp(part.weighted[h], c.values.data(), sizeof part.weighted[h]), 0);
  }
}

TEST_P(AttendTest, HugeScoresLeaveTheLargestOnly) {
  for (const float size : {1e4f, 1e12f, 1e25f}) {
    for (const float sign : {1.0f, -1.0f}) {
      std::mt19937 random(6);
      AttentionCase c(100, random);
      std::fill(c.queries.begin(), c.queries.end(), 1.0f);
      // Position 63 has the largest score: 1 or -1 times size, the others 2 or -2 less.
      for (size_t t = 0; t < c.count; ++t) {
        const float key = t == 63 ? sign : sign - 2;
        std::fill_n(c.keys.begin() + static_cast<ptrdiff_t>(t * kHeadSize), kHeadSize, key * size);
      }
      const AttentionPart part = attend(c);
      for (size_t h = 0; h < kGroupHeads; ++h) {
        EXPECT_NEAR(part.maximum[h] / (16 * size), sign, 1e-5);
        EXPECT_EQ(part.sum[h], 1) << size;
        for (size_t d = 0; d < kHeadSize; ++d) {
          ASSERT_EQ(part.weighted[h][d], c.values[63 * kHeadSize + d]) << size;
        }
      }
    }
  }
}

TEST_P(AttendTest, EqualScoresOfAnySizeShareTheWeight) {
  for (const float key : {0.0f, 1e20f, -1e20f}) {
    std::mt19937 random(7);
    AttentionCase c(17, random);
    std::fill(c.queries.begin(), c.queries.end(), 1.0f);
    std::fill(c.keys.begin(), c.keys.end(), key);
    const AttentionPart part = attend(c);
    for (size_t h = 0; h < kGroupHeads; ++h) EXPECT_EQ(part.sum[h], 17) << key;
  }
}

TEST_P(AttendTest, TheMaximumStartsAtMinusTenToTheThirty) {
  std::mt19937 random(8);
  AttentionCase c(20, random);
  std::fill(c.queries.begin(), c.queries.end(), 1.0f);
  std::fill(c.keys.begin(), c.keys.end(), -1e30f);  // scores of -1.6e31
  const AttentionPart part = attend(c);
  for (size_t h = 0; h < kGroupHeads; ++h) {
    EXPECT_EQ(part.maximum[h], -1e30f);
    EXPECT_EQ(part.sum[h], 0);
    EXPECT_EQ(part.weighted[h][0], 0);
  }
}

TEST_P(AttendTest, ANanScoreIsNotHidden) {
  for (const size_t at : {0, 5, 19}) {
    std::mt19937 random(9);
    AttentionCase c(20, random);
    c.keys[at * kHeadSize + 3] = kNan;
    const AttentionPart part = attend(c);
    for (size_t h = 0; h < kGroupHeads; ++h) {
      EXPECT_TRUE(std::isnan(part.sum[h])) << at;
      EXPECT_TRUE(std::isnan(part.weighted[h][100])) << at;
    }
  }
}

TEST_P(AttendTest, ReadsTheCountedPositionsOnly) {
  std::mt19937 random(10);
  for (const size_t count : {1, 3, 17, 256}) {
    const AttentionCase c(count, random);
    const AttentionPart expected = attend(c);
    for (const Side side : {Side::Begin, Side::End}) {
      GuardedBuffer queries(c.queries, side), keys(c.keys, side), values(c.values, side);
      auto part = std::make_unique<AttentionPart>();
      kernels().attend({queries.floats(), keys.floats(), values.floats(), count, c.scale}, *part);
      EXPECT_EQ(std::memcmp(part.get(), &expected, sizeof expected), 0) << count;
    }
  }
}

// ------------------------------------------------------------------------------------- delta step

// The step as its formula stands, in double.
struct DeltaReference {
  size_t d;
  std::vector<double> state;

  std::vector<double> step(const std::vector<float>& q, const std::vector<float>& k,
                           const std::vector<float>& v, double beta, double decay, double scale) {
    std::vector<double> out(d);
    for (double& s : state) s *= decay;
    for (size_t j = 0; j < d; ++j) {
      double retrieved = 0;
      for (size_t i = 0; i < d; ++i) retrieved += k[i] * state[i * d + j];
      const double delta = (v[j] - retrieved) * beta;
      for (size_t i = 0; i < d; ++i) {
        state[i * d + j] += k[i] * delta;
        out[j] += q[i] * state[i * d + j];
      }
      out[j] *= scale;
    }
    return out;
  }
};

void normalise(std::vector<float>& x) {
  double sum = 0;
  for (const float value : x) sum += static_cast<double>(value) * static_cast<double>(value);
  for (float& value : x) value = static_cast<float>(value / std::sqrt(sum));
}

class DeltaStepTest : public orbtest::TierTest {};
ORB_INSTANTIATE_TIERS(DeltaStepTest);

TEST_P(DeltaStepTest, FollowsTheFormulaOverManySteps) {
  const float scale = 1.0f / std::sqrt(128.0f);
  for (const size_t d : {16, 32, 48, 64, 80, 96, 112, 128}) {
    std::mt19937 random(static_cast<unsigned>(d));
    std::uniform_real_distribution<float> unit(0.01f, 1);
    GuardedBuffer state(d * d * sizeof(float), d % 32 == 0 ? Side::End : Side::Begin);
    std::memset(state.bytes(), 0, d * d * sizeof(float));
    DeltaReference reference{d, std::vector<double>(d * d)};
    for (int step = 0; step < 24; ++step) {
      std::vector<float> q = normals(d, random), k = normals(d, random);
      normalise(q);
      normalise(k);
      const std::vector<float> v = normals(d, random, 3);
      const float beta = unit(random);
      const float decay = step % 5 == 0 ? 1.0f : unit(random);
      GuardedBuffer out(v, Side::End), query(q, Side::End), key(k, Side::End);
      orbtest::deltaStep(kernels(), state.floats(), state.floats(), query.floats(), key.floats(),
                         out.floats(), beta, d, decay, scale);
      const std::vector<double> expected = reference.step(q, k, v, beta, decay, scale);
      for (size_t j = 0; j < d; ++j) {
        ASSERT_NEAR(out.floats()[j], expected[j], 1e-6) << "d " << d << ", step " << step;
      }
      for (size_t i = 0; i < d * d; ++i) {
        ASSERT_NEAR(state.floats()[i], reference.state[i], 1e-5) << "d " << d << ", step " << step;
      }
    }
  }
}

TEST_P(DeltaStepTest, WithBetaZeroTheStateOnlyDecaysAndIsRead) {
  constexpr size_t d = 128;
  std::mt19937 random(11);
  for (const float decay : {1.0f, 0.5f, 0.3f}) {
    std::vector<float> state = normals(d * d, random);
    const std::vector<float> before = state;
    const std::vector<float> q = normals(d, random), k = normals(d, random);
    std::vector<float> v = normals(d, random);
    orbtest::deltaStep(kernels(), state.data(), state.data(), q.data(), k.data(), v.data(), 0, d,
                       decay, 0.25f);
    for (size_t j = 0; j < d; ++j) {
      double read = 0;
      for (size_t i = 0; i < d; ++i) {
        ASSERT_EQ(state[i * d + j], decay * before[i * d + j]) << decay;
        read += static_cast<double>(q[i]) * static_cast<double>(state[i * d + j]);
      }
      ASSERT_NEAR(v[j], 0.25 * read, 1e-5);
    }
  }
}

TEST_P(DeltaStepTest, TokensTogetherHaveTheBitsOfOneAfterTheOther) {
  std::mt19937 random(12);
  std::uniform_real_distribution<float> unit(0.01f, 1);
  alignas(64) static float scratch[qwen35::kDeltaScratch];
  for (const size_t d : {16, 48, 64, 80, 128}) {
    for (const size_t count : {size_t{1}, size_t{2}, size_t{3}, qwen35::kDeltaRun}) {
      SCOPED_TRACE(std::to_string(count) + " tokens, d " + std::to_string(d));
      const size_t stride = d + 5;
      const std::vector<float> start = normals(d * d, random);
      const std::vector<float> v = normals(count * stride, random);
      std::vector<float> q = normals(count * d, random), k = normals(count * d, random);
      for (float& value : k) value /= std::sqrt(static_cast<float>(d));
      std::vector<float> beta(count), decay(count);
      for (size_t t = 0; t < count; ++t) {
        beta[t] = unit(random);
        decay[t] = unit(random);
      }
      std::vector<float> expectedState = start, expected = v;
      for (size_t t = 0; t < count; ++t) {
        orbtest::deltaStep(kernels(), expectedState.data(), expectedState.data(), &q[t * d],
                           &k[t * d], &expected[t * stride], beta[t], d, decay[t], 0.125f);
      }
      std::vector<float> state = start, apart(d * d);
      for (float* to : {apart.data(), state.data()}) {
        std::vector<float> out = v;
        kernels().deltaRule(
            state.data(), to,
            {q.data(), k.data(), out.data(), stride, beta.data(), decay.data(), count, scratch}, d,
            0.125f);
        EXPECT_EQ(out, expected);
        EXPECT_EQ(std::vector<float>(to, to + d * d), expectedState);
      }
    }
  }
}

TEST_P(DeltaStepTest, TheDecayComesBeforeTheRetrievalAndTheOutputAfterTheUpdate) {
  constexpr size_t d = 16;
  std::vector<float> state(d * d, 0.0f), q(d, 0.0f), k(d, 0.0f), v(d, 0.0f);
  state[0] = 8;
  q[0] = k[0] = 1;
  v[0] = 10;
  // Decayed 4; retrieved 4; delta (10 - 4) / 2 = 3; state 7; output 7 / 4.
  orbtest::deltaStep(kernels(), state.data(), state.data(), q.data(), k.data(), v.data(), 0.5f, d,
                     0.5f, 0.25f);
  EXPECT_EQ(state[0], 7);
  EXPECT_EQ(v[0], 1.75f);
}

}  // namespace
