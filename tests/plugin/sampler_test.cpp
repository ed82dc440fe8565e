#include "plugin/sampler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace qwen35 {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

int32_t sample(const std::vector<float>& logits, const SamplingSettings& settings,
               std::mt19937& generator) {
  Sampler sampler;
  return sampler.sampleNext(logits.data(), logits.size(), settings, generator);
}

// The definition, step by step: everything is scored and sorted, and every candidate is weighed.
int32_t sampleByDefinition(const std::vector<float>& logits, const SamplingSettings& settings,
                           std::mt19937& generator) {
  if (settings.temperature <= 0.0f || settings.topK == 1) {
    size_t best = 0;
    for (size_t i = 1; i < logits.size(); ++i) {
      if (logits[i] > logits[best]) best = i;
    }
    return static_cast<int32_t>(best);
  }
  const float inverse = 1.0f / settings.temperature;
  std::vector<std::pair<float, int32_t>> candidates;
  for (size_t i = 0; i < logits.size(); ++i) {
    candidates.emplace_back(inverse * logits[i], static_cast<int32_t>(i));
  }
  std::stable_sort(candidates.begin(), candidates.end(), [](const auto& a, const auto& b) {
    return a.first > b.first || (std::isnan(b.first) && !std::isnan(a.first));
  });
  if (settings.topK >= 1 && static_cast<size_t>(settings.topK) <= candidates.size()) {
    candidates.resize(static_cast<size_t>(settings.topK));
  }
  const auto weight = [&](size_t i) {
    if (candidates[i].first == candidates[0].first) return 1.0;
    const double value = std::exp(static_cast<double>(candidates[i].first) -
                                  static_cast<double>(candidates[0].first));
    return std::isnan(value) ? 0.0 : value;
  };
  if (settings.topP > 0.0f && settings.topP < 1.0f) {
    double sum = 0;
    for (size_t i = 0; i < candidates.size(); ++i) {
      sum += weight(i);
      if (sum >= static_cast<double>(settings.topP)) {
        candidates.resize(i + 1);
        break;
      }
    }
  }
  double mass = 0;
  for (size_t i = 0; i < candidates.size(); ++i) mass += weight(i);
  const double a = generator();
  const double b = generator();
  double u = (a + b * 4294967296.0) * 0x1p-64;
  if (u >= 1.0) u = 0.9999999999999999;
  double r = u * mass;
  for (size_t i = 0; i < candidates.size(); ++i) {
    r -= weight(i);
    if (r <= 0.0) return candidates[i].second;
  }
  return candidates.back().second;
}

std::vector<float> randomLogits(size_t count, float deviation, std::mt19937& generator) {
  std::normal_distribution<float> normal(0, deviation);
  std::vector<float> logits(count);
  for (float& logit : logits) logit = normal(generator);
  return logits;
}

// Whether the choice took exactly `outputs` numbers from the generator.
testing::AssertionResult draws(const std::vector<float>& logits, const SamplingSettings& settings,
                               int outputs) {
  std::mt19937 used(7), expected(7);
  sample(logits, settings, used);
  expected.discard(static_cast<unsigned long long>(outputs));
  if (used == expected) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "not " << outputs << " numbers drawn";
}

const std::vector<float> kLogits = {0.5f, 2.0f, -1.0f, 2.0f, 1.0f};

TEST(Sampler, TemperatureZeroIsGreedyWithAnyTopKAndLeavesTheGenerator) {
  for (const int32_t topK : {0, 1, 2, 40}) {
    std::mt19937 generator(1);
    EXPECT_EQ(sample(kLogits, {0.0f, topK, 0.9f}, generator), 1) << topK;
    EXPECT_TRUE(draws(kLogits, {0.0f, topK, 0.9f}, 0)) << topK;
  }
}

TEST(Sampler, NegativeTemperatureIsGreedy) {
  std::mt19937 generator(1);
  EXPECT_EQ(sample(kLogits, {-1.0f, 0, 0}, generator), 1);
  EXPECT_TRUE(draws(kLogits, {-1.0f, 0, 0}, 0));
}

TEST(Sampler, TopKOfOneIsGreedyAtAnyTemperatureAndLeavesTheGenerator) {
  std::mt19937 generator(1);
  EXPECT_EQ(sample(kLogits, {5.0f, 1, 0}, generator), 1);
  EXPECT_TRUE(draws(kLogits, {5.0f, 1, 0}, 0));
  EXPECT_TRUE(draws(kLogits, {kNan, 1, 0}, 0));
}

TEST(Sampler, GreedyTakesTheLowestIndexAmongEqualMaxima) {
  const std::vector<float> equal(100, 3.0f);
  EXPECT_EQ(greedyChoice(equal.data(), equal.size()), 0);
  EXPECT_EQ(greedyChoice(kLogits.data(), kLogits.size()), 1);
  const float zeros[] = {-0.0f, 0.0f};
  EXPECT_EQ(greedyChoice(zeros, 2), 0);
}

TEST(Sampler, GreedyNeedsAStrictlyGreaterLogitSoANanIsNeverTakenForOne) {
  const float inside[] = {1.0f, kNan, 2.0f, kNan};
  EXPECT_EQ(greedyChoice(inside, 4), 2);
  const float first[] = {kNan, 1.0f};
  EXPECT_EQ(greedyChoice(first, 2), 0);
}

TEST(Sampler, FewerThanTwoLogitsGiveZero) {
  for (const float temperature : {0.0f, 1.0f}) {
    std::mt19937 generator(1);
    EXPECT_EQ(sample({}, {temperature, 0, 0}, generator), 0);
    EXPECT_EQ(sample({-3.0f}, {temperature, 0, 0}, generator), 0);
  }
}

TEST(Sampler, SamplingDrawsTwoNumbersHoweverFewTheCandidates) {
  for (const SamplingSettings& settings :
       {SamplingSettings{0.8f, 0, 0}, {0.8f, 2, 0}, {0.8f, 40, 0.9f}, {0.8f, 0, 1.0f}}) {
    EXPECT_TRUE(draws(kLogits, settings, 2));
    EXPECT_TRUE(draws({1.0f}, settings, 2));
    EXPECT_TRUE(draws({}, settings, 2));
  }
}

TEST(Sampler, NanTemperatureDoesNotTakeTheGreedyPath) {
  EXPECT_TRUE(draws(kLogits, {kNan, 0, 0}, 2));
  std::mt19937 generator(1);
  const int32_t choice = sample(kLogits, {kNan, 0, 0}, generator);
  EXPECT_GE(choice, 0);
  EXPECT_LT(choice, 5);
}

TEST(Sampler, TopKOfZeroOrAboveTheCountIsNoLimit) {
  std::mt19937 random(3);
  const std::vector<float> logits = randomLogits(50, 2, random);
  for (uint32_t seed = 1; seed <= 200; ++seed) {
    std::mt19937 a(seed), b(seed), c(seed), d(seed), reference(seed);
    const int32_t expected = sampleByDefinition(logits, {1.3f, 0, 0}, reference);
    EXPECT_EQ(sample(logits, {1.3f, 0, 0}, a), expected);
    EXPECT_EQ(sample(logits, {1.3f, 50, 0}, b), expected);
    EXPECT_EQ(sample(logits, {1.3f, 51, 0}, c), expected);
    EXPECT_EQ(sample(logits, {1.3f, std::numeric_limits<int32_t>::max(), 0}, d), expected);
  }
}

TEST(Sampler, TopKKeepsTheBestAndOnlyThem) {
  const std::vector<float> logits = {0.0f, 0.1f, 0.4f, 0.2f, 0.3f};
  std::array<int, 5> seen{};
  for (uint32_t seed = 1; seed <= 500; ++seed) {
    std::mt19937 generator(seed);
    ++seen.at(static_cast<size_t>(sample(logits, {1.0f, 3, 0}, generator)));
  }
  EXPECT_EQ(seen[0], 0);
  EXPECT_EQ(seen[1], 0);
  EXPECT_GT(seen[2], 0);
  EXPECT_GT(seen[3], 0);
  EXPECT_GT(seen[4], 0);
}

TEST(Sampler, TopPBelowOneAlwaysTakesTheBestCandidateYetAdvancesTheGenerator) {
  std::mt19937 random(4);
  const std::vector<float> logits = randomLogits(300, 0.1f, random);
  const auto best =
      static_cast<int32_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
  for (const float topP : {0.9f, 1e-40f, std::nextafter(1.0f, 0.0f)}) {
    for (const int32_t topK : {40, 0}) {
      std::mt19937 generator(9);
      for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(sample(logits, {0.8f, topK, topP}, generator), best);
      }
      EXPECT_TRUE(draws(logits, {0.8f, topK, topP}, 2));
    }
  }
}

TEST(Sampler, TopPOfOneOrMoreSamplesByTheSoftmaxOfTheKeptCandidates) {
  const std::vector<float> logits = {1.0f, 3.0f, 2.0f, -9.0f};
  for (const float topP : {1.0f, 7.0f, 0.0f}) {
    std::mt19937 generator(5);
    std::array<int, 4> seen{};
    constexpr int kDraws = 30000;
    for (int i = 0; i < kDraws; ++i) {
      ++seen.at(static_cast<size_t>(sample(logits, {2.0f, 3, topP}, generator)));
    }
    const double weights[] = {std::exp(-1.0), 1.0, std::exp(-0.5)};
    const double mass = weights[0] + weights[1] + weights[2];
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_NEAR(seen.at(i) / double{kDraws}, weights[i] / mass, 0.015) << i;
    }
    EXPECT_EQ(seen[3], 0);
  }
}

TEST(Sampler, SameSeedAndSettingsGiveTheSameSequence) {
  std::mt19937 random(6);
  std::vector<std::vector<float>> steps;
  for (int i = 0; i < 40; ++i) steps.push_back(randomLogits(200, 1, random));
  std::mt19937 a(11), b(11), other(12);
  std::vector<int32_t> first, second, third;
  for (const auto& logits : steps) {
    first.push_back(sample(logits, {0.9f, 50, 0}, a));
    second.push_back(sample(logits, {0.9f, 50, 0}, b));
    third.push_back(sample(logits, {0.9f, 50, 0}, other));
  }
  EXPECT_EQ(first, second);
  EXPECT_NE(first, third);
}

TEST(Sampler, AgreesWithTheDefinitionOnRandomLogitsSettingsAndSeeds) {
  std::mt19937 random(2024);
  const auto pick = [&](const auto& list) {
    return list[std::uniform_int_distribution<size_t>(0, std::size(list) - 1)(random)];
  };
  constexpr size_t kCounts[] = {1, 2, 3, 7, 16, 17, 100, 513};
  constexpr float kDeviations[] = {0.01f, 1.0f, 8.0f, 200.0f};
  constexpr float kTemperatures[] = {0.0f, 0.05f, 0.5f, 0.8f, 1.0f, 3.0f, 1e6f, -2.0f};
  constexpr int32_t kTopKs[] = {0, 1, 2, 5, 40, 512, 513, 1000};
  constexpr float kTopPs[] = {0.0f, 0.1f, 0.9f, 1.0f, 2.0f, -1.0f};
  Sampler sampler;  // one for all, so that nothing of a call may leak into the next
  for (int round = 0; round < 20000; ++round) {
    const auto logits = randomLogits(pick(kCounts), pick(kDeviations), random);
    const SamplingSettings settings = {pick(kTemperatures), pick(kTopKs), pick(kTopPs)};
    const uint32_t seed = random();
    std::mt19937 a(seed), b(seed);
    ASSERT_EQ(sampler.sampleNext(logits.data(), logits.size(), settings, a),
              sampleByDefinition(logits, settings, b))
        << "count " << logits.size() << " temperature " << settings.temperature << " topK "
        << settings.topK << " topP " << settings.topP << " seed " << seed;
    ASSERT_EQ(a, b);
  }
}

// Logits with what is hard about them: many equal ones, both zeros, infinities, NaN.
std::vector<float> hardLogits(size_t count, std::mt19937& random) {
  const float deviation = std::pow(10.0f, static_cast<float>(random() % 6) - 3.0f);
  std::vector<float> logits = randomLogits(count, deviation, random);
  if (random() % 2 == 0) {
    for (float& logit : logits) logit = std::round(logit * 8) / 8;  // negative zeros too
  }
  const float rare[] = {kNan, -kInfinity, -1e30f, 0.0f, -0.0f, 1e-40f};
  for (size_t i = random() % 3 == 0 ? count : 0; i < count; i += 1 + random() % 50) {
    logits[i] = rare[random() % std::size(rare)];
  }
  if (random() % 8 == 0) logits[random() % count] = kInfinity;
  return logits;
}

TEST(Sampler, AgreesWithTheDefinitionOnTiesInfinitiesAndNan) {
  std::mt19937 random(99);
  Sampler sampler;
  constexpr size_t kCounts[] = {1, 7, 511, 512, 513, 3001};
  constexpr float kTemperatures[] = {1e-40f, 0.01f, 0.8f, 1.0f, 30.0f, 1e9f, kInfinity};
  for (int round = 0; round < 1500; ++round) {
    const size_t count = kCounts[random() % std::size(kCounts)];
    const auto logits = hardLogits(count, random);
    const auto topK = static_cast<int32_t>(random() % 3 == 0 ? 0 : random() % (count + 2));
    const float topP = random() % 4 == 0 ? 0.9f : 0.0f;
    const SamplingSettings settings = {kTemperatures[random() % std::size(kTemperatures)], topK,
                                       topP};
    const uint32_t seed = random();
    std::mt19937 a(seed), b(seed);
    ASSERT_EQ(sampler.sampleNext(logits.data(), count, settings, a),
              sampleByDefinition(logits, settings, b))
        << "round " << round << " count " << count << " temperature " << settings.temperature
        << " topK " << topK << " topP " << topP;
    ASSERT_EQ(a, b);
  }
}

TEST(Sampler, AgreesWithTheDefinitionOnALargeVocabulary) {
  std::mt19937 random(77);
  std::vector<float> logits(248320);
  std::iota(logits.begin(), logits.end(), -200000.0f);  // all distinct
  for (float& logit : logits) logit *= 1e-4f;
  std::shuffle(logits.begin(), logits.end(), random);
  std::mt19937 a(1), b(1);
  for (const SamplingSettings& settings :
       {SamplingSettings{1.0f, 0, 0}, {1.0f, 40, 0}, {0.7f, 100000, 1.0f}, {0.7f, 40, 0.95f}}) {
    EXPECT_EQ(sample(logits, settings, a), sampleByDefinition(logits, settings, b));
  }
  EXPECT_EQ(a, b);
}

TEST(Sampler, EqualScoresAreChosenAmongFreely) {
  const std::vector<float> logits = {-50.0f, 1.0f, 1.0f, -50.0f, 1.0f};
  std::array<int, 5> seen{};
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    std::mt19937 generator(seed);
    ++seen.at(static_cast<size_t>(sample(logits, {1.0f, 0, 0}, generator)));
  }
  for (const size_t i : {1, 2, 4}) EXPECT_GT(seen.at(i), 50) << i;
  for (const size_t i : {0, 3}) EXPECT_EQ(seen.at(i), 0) << i;
}

TEST(Sampler, NanLogitsAreNeverChosenBesideOthers) {
  const std::vector<float> logits = {kNan, -3.0f, kNan, -3.5f, kNan, kNan};
  std::array<int, 6> seen{};
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    for (const int32_t topK : {0, 2, 4}) {
      std::mt19937 generator(seed);
      ++seen.at(static_cast<size_t>(sample(logits, {1.0f, topK, 0}, generator)));
    }
  }
  EXPECT_GT(seen[1], 0);
  EXPECT_GT(seen[3], 0);
  EXPECT_EQ(seen[1] + seen[3], 900);
}

TEST(Sampler, NothingButNanStillGivesAnIndexAndDrawsTwoNumbers) {
  const std::vector<float> logits(9, kNan);
  for (const int32_t topK : {0, 4}) {
    std::mt19937 generator(1);
    const int32_t choice = sample(logits, {1.0f, topK, 0.5f}, generator);
    EXPECT_GE(choice, 0);
    EXPECT_LT(choice, 9);
    EXPECT_TRUE(draws(logits, {1.0f, topK, 0.5f}, 2));
  }
}

TEST(Sampler, PositiveInfinityIsAlwaysChosenAndNegativeNever) {
  const std::vector<float> one = {9.0f, kInfinity, kNan, 100.0f};
  const std::vector<float> two = {kInfinity, 1.0f, kInfinity, -kInfinity};
  const std::vector<float> low = {-kInfinity, 1.0f, -kInfinity, 0.5f};
  for (uint32_t seed = 1; seed <= 200; ++seed) {
    std::mt19937 generator(seed);
    EXPECT_EQ(sample(one, {1.0f, 0, 0}, generator), 1);
    const int32_t among = sample(two, {1.0f, 0, 0}, generator);
    EXPECT_TRUE(among == 0 || among == 2) << among;
    const int32_t finite = sample(low, {1.0f, 0, 0}, generator);
    EXPECT_TRUE(finite == 1 || finite == 3) << finite;
  }
}

TEST(Sampler, NothingButNegativeInfinityStillGivesAnIndex) {
  const std::vector<float> logits(5, -kInfinity);
  std::mt19937 generator(1);
  const int32_t choice = sample(logits, {1.0f, 0, 0}, generator);
  EXPECT_GE(choice, 0);
  EXPECT_LT(choice, 5);
}

TEST(Sampler, TheSecondNumberIsTheHighHalfOfTheDraw) {
  // Two candidates of weights 1 and 1/2: the first one up to two thirds of the draw.
  const std::vector<float> logits = {-std::log(2.0f), 0.0f};
  int differing = 0;
  for (uint32_t seed = 1; seed <= 500; ++seed) {
    std::mt19937 generator(seed), copy(seed);
    const double first = copy();
    const double second = copy();
    const auto expected = [](double high) { return high * 0x1p-32 <= 2.0 / 3.0 ? 1 : 0; };
    EXPECT_EQ(sample(logits, {1.0f, 0, 0}, generator), expected(second)) << seed;
    differing += expected(first) != expected(second);
  }
  EXPECT_GT(differing, 100);
}

// A generator whose next two outputs have all bits set.
std::mt19937 generatorOfOnes() {
  uint32_t word = 0xFFFFFFFF;  // tempering undone, last step first
  word ^= word >> 18;
  word ^= (word << 15) & 0xEFC60000;
  uint32_t untwisted = word;
  for (int i = 0; i < 5; ++i) untwisted = word ^ ((untwisted << 7) & 0x9D2C5680);
  word = untwisted;
  for (int i = 0; i < 3; ++i) untwisted = word ^ (untwisted >> 11);
  // The library's textual form: the state words, then the index of the next one.
  std::ostringstream text;
  for (int i = 0; i < 624; ++i) text << untwisted << ' ';
  text << 0;
  std::mt19937 generator;
  std::istringstream(text.str()) >> generator;
  return generator;
}

TEST(Sampler, ADrawThatRoundsToOneIsHeldBelowIt) {
  std::mt19937 check = generatorOfOnes();
  ASSERT_EQ(check(), 0xFFFFFFFFu);
  ASSERT_EQ(check(), 0xFFFFFFFFu);
  // The second weight is 0.75 * 2^-52, so the mass is 1 + 2^-52: a draw of 1 would leave more than
  // the first weight, the largest draw below 1 does not.
  std::mt19937 generator = generatorOfOnes();
  const auto tiny = static_cast<float>(std::log(0.75 * 0x1p-52));
  EXPECT_EQ(sample({0.0f, tiny}, {1.0f, 0, 0}, generator), 0);
}

}  // namespace
}  // namespace qwen35
