#include "plugin/sampler.h"

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "compat/cpu_features.h"

namespace qwen35 {

namespace {

// Ascending from the best score to the worst, which is NaN.
uint32_t rankOf(float score) {
  if (std::isnan(score)) return UINT32_MAX;
  const auto bits = std::bit_cast<uint32_t>(score + 0.0f);  // one zero only
  return (bits >> 31) != 0 ? bits : INT32_MAX - bits;
}

int32_t indexOf(uint64_t candidate) { return static_cast<int32_t>(candidate & UINT32_MAX); }

}  // namespace

struct Sampler::Scores {
  const float* logits;
  size_t count;
  float factor;

  float at(size_t i) const { return factor * logits[i]; }
  float of(Candidate candidate) const { return at(static_cast<size_t>(indexOf(candidate))); }

  Candidate candidate(size_t i) const { return Candidate{rankOf(at(i))} << 32 | i; }
};

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Bins of scores, the best first: by the distance d from the best score, 128 to each octave from
// 2^-23 to 2^9. The last bin takes what is further away, and NaN; its weights are nothing.
constexpr int32_t kBins = 4096;
constexpr int32_t kFirstBin = (127 - 23) << 7;

constexpr size_t kBlock = 512;  // scores that are turned into bins and weights together

// Bounds the error of a sum of approximate weights, as a share of the sum, and the rounding of as
// many additions in any order on top.
double doubtfulShare(size_t count) { return 0x1p-34 + static_cast<double>(count) * 0x1p-51; }

// Uniform in [0, 1) from two generator outputs, the second one the high half.
double drawUniform(std::mt19937& generator) {
  const double low = generator();
  const double high = generator();
  const double u = (low + high * 4294967296.0) * 0x1p-64;
  return u >= 1.0 ? 0.9999999999999999 : u;
}

// Weight relative to the best candidate, which has exactly 1.
double weightOf(float score, float best) {
  if (score == best) return 1.0;
  const double weight = std::exp(static_cast<double>(score) - static_cast<double>(best));
  return std::isnan(weight) ? 0.0 : weight;
}

// The best of factor * logit, negative infinity when there is no number.
float bestScore(const float* logits, size_t count, float factor) {
  __m128 best[4];
  for (__m128& part : best) part = _mm_set1_ps(-kInfinity);
  const __m128 factors = _mm_set1_ps(factor);
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    for (size_t part = 0; part < 4; ++part) {
      // Of a NaN and a number it takes the second operand.
      const __m128 scores = _mm_mul_ps(_mm_loadu_ps(logits + i + 4 * part), factors);
      best[part] = _mm_max_ps(scores, best[part]);
    }
  }
  float lanes[16];
  for (size_t part = 0; part < 4; ++part) _mm_storeu_ps(lanes + 4 * part, best[part]);
  float result = -kInfinity;
  for (const float lane : lanes) result = std::max(result, lane);
  for (; i < count; ++i) result = std::max(result, factor * logits[i]);
  return result;
}

// The first index of that score, 0 when there is none.
int32_t firstOf(const float* logits, size_t count, float factor, float score) {
  const float* end = logits + count;
  const float* found =
      std::find_if(logits, end, [&](float logit) { return factor * logit == score; });
  return found == end ? 0 : static_cast<int32_t>(found - logits);
}

// The scores of a block; beyond the last logit infinitely bad ones, which go to the last bin.
void scoreBlock(const float* logits, size_t count, float factor, float* scores) {
  const size_t size = std::min(kBlock, count);
  for (size_t j = 0; j < size; ++j) scores[j] = factor * logits[j];
  std::fill(scores + size, scores + kBlock, -kInfinity);
}

// Bins and, unless there is no place for them, weights of the scores to about 1e-11 of each; what
// the weights of the last bin are is undefined. Plain loops of constant length, which the compiler
// turns into vectors.
[[gnu::always_inline]] inline void weighBlock(const float* scores, float best, int16_t* bins,
                                              double* weights) {
  for (size_t j = 0; j < kBlock; ++j) {
    const auto bits = std::bit_cast<int32_t>(best - scores[j]) & INT32_MAX;
    const int32_t bin = std::max((bits >> 16) - kFirstBin, 0);
    bins[j] = static_cast<int16_t>(std::min(bin, kBins - 1));
  }
  if (weights == nullptr) return;
  constexpr double kLog2E = 1.4426950408889634;
  constexpr double kLn2 = 0.6931471805599453;
  constexpr double kRounder = 0x1.8p52;  // leaves the nearest integer in the low bits
  for (size_t j = 0; j < kBlock; ++j) {
    const double power = (static_cast<double>(scores[j]) - static_cast<double>(best)) * kLog2E;
    const double rounded = power + kRounder;
    const double x = (power - (rounded - kRounder)) * kLn2;
    // The series of exp(x) for |x| < 0.35.
    double sum = 1.0 / 362880;
    sum = sum * x + 1.0 / 40320;
    sum = sum * x + 1.0 / 5040;
    sum = sum * x + 1.0 / 720;
    sum = sum * x + 1.0 / 120;
    sum = sum * x + 1.0 / 24;
    sum = sum * x + 1.0 / 6;
    sum = sum * x + 0.5;
    sum = sum * x + 1.0;
    sum = sum * x + 1.0;
    const uint64_t exponent = std::bit_cast<uint64_t>(rounded) << 52;
    weights[j] = std::bit_cast<double>(std::bit_cast<uint64_t>(sum) + exponent);
  }
}

void weighBaseline(const float* scores, float best, int16_t* bins, double* weights) {
  weighBlock(scores, best, bins, weights);
}

[[gnu::target("avx2")]] void weighAvx2(const float* scores, float best, int16_t* bins,
                                       double* weights) {
  weighBlock(scores, best, bins, weights);
}

[[gnu::target("avx512f,avx512bw,avx512vl,avx512dq")]] void weighAvx512(const float* scores,
                                                                       float best, int16_t* bins,
                                                                       double* weights) {
  weighBlock(scores, best, bins, weights);
}

using WeighFunction = void (*)(const float* scores, float best, int16_t* bins, double* weights);

WeighFunction widestWeigh() {
  const uint32_t features = compat::cpuFeatures();
  if ((features & compat::kCpuAvx512) != 0) return weighAvx512;
  if ((features & compat::kCpuAvx2) != 0) return weighAvx2;
  return weighBaseline;
}

// Whether one of a block's bins is not after the last one.
bool anyUpTo(const int16_t* bins, int16_t last) {
  const __m128i limit = _mm_set1_epi16(last);
  __m128i after = _mm_set1_epi16(-1);
  for (size_t j = 0; j < kBlock; j += 8) {
    __m128i part;
    std::memcpy(&part, bins + j, sizeof part);
    after = _mm_and_si128(after, _mm_cmpgt_epi16(part, limit));
  }
  return _mm_movemask_epi8(after) != 0xffff;
}

// Whether all of a block's bins are the same. Sums of such a block need not go through the bins,
// where each would wait for the one before.
bool allEqual(const int16_t* bins) {
  return std::memcmp(bins, bins + 1, (kBlock - 1) * sizeof *bins) == 0;
}

double sumOf(const double* weights) {
  double sums[8] = {};
  for (size_t j = 0; j < kBlock; j += 8) {
    for (size_t lane = 0; lane < 8; ++lane) sums[lane] += weights[j + lane];
  }
  double sum = 0;
  for (const double lane : sums) sum += lane;
  return sum;
}

}  // namespace

int32_t greedyChoice(const float* logits, size_t count) {
  if (count == 0 || std::isnan(logits[0])) return 0;
  return firstOf(logits, count, 1.0f, bestScore(logits, count, 1.0f));
}

int32_t Sampler::sampleNext(const float* logits, size_t count, const SamplingSettings& settings,
                            std::mt19937& generator) {
  if (settings.temperature <= 0.0f || settings.topK == 1) return greedyChoice(logits, count);

  const Scores scores = {logits, count, 1.0f / settings.temperature};
  const double draw = drawUniform(generator);
  const float best = bestScore(logits, count, scores.factor);
  // The weights are relative to the best candidate's 1, so that any such bound is met by it alone.
  if (settings.topP > 0.0f && settings.topP < 1.0f) {
    return firstOf(logits, count, scores.factor, best);
  }
  size_t kept = count;
  if (settings.topK >= 1) kept = std::min(kept, static_cast<size_t>(settings.topK));
  const int32_t choice = std::isfinite(best) ? chooseByBins(scores, best, kept, draw) : -1;
  return choice >= 0 ? choice : chooseBySorting(scores, kept, draw);
}

// The definition of the choice.
int32_t Sampler::chooseBySorting(const Scores& scores, size_t kept, double draw) {
  candidates_.resize(scores.count);
  for (size_t i = 0; i < scores.count; ++i) candidates_[i] = scores.candidate(i);
  const auto end = candidates_.begin() + static_cast<std::ptrdiff_t>(kept);
  std::partial_sort(candidates_.begin(), end, candidates_.end());

  double mass = 0;
  for (auto it = candidates_.begin(); it != end; ++it) {
    mass += weightOf(scores.of(*it), scores.of(candidates_.front()));
  }
  double rest = draw * mass;
  for (auto it = candidates_.begin(); it != end; ++it) {
    rest -= weightOf(scores.of(*it), scores.of(candidates_.front()));
    if (rest <= 0.0) return indexOf(*it);
  }
  return kept == 0 ? 0 : indexOf(candidates_[kept - 1]);
}

// Sorts only the bin that the choice falls into, and the one in which the kept candidates end. -1
// when the draw comes so close to the border of two candidates that rounding decides.
int32_t Sampler::chooseByBins(const Scores& scores, float best, size_t kept, double draw) {
  const bool limited = kept < scores.count;
  bins_.resize((scores.count + kBlock - 1) / kBlock * kBlock);
  int16_t last = kBins - 1;
  size_t better = 0;  // candidates in the bins before the last
  if (limited) {
    countBins(scores, best);
    for (last = 0; better + counts_[last] < kept; ++last) better += counts_[last];
  }
  addWeights(scores, best, last);
  std::span<const Candidate> end;  // those of the last bin that are kept
  if (limited) {
    end = ranked(scores, last).first(kept - better);
    masses_[last] = 0;
    for (const Candidate candidate : end) masses_[last] += weightOf(scores.of(candidate), best);
  }
  double mass = 0;
  for (int16_t bin = 0; bin <= last; ++bin) mass += masses_[bin];
  const double target = draw * mass;
  const double doubt = doubtfulShare(scores.count) * mass;

  double before = 0;
  int16_t bin = 0;
  for (; bin < last && before + masses_[bin] < target; ++bin) before += masses_[bin];
  for (const Candidate candidate : limited&& bin == last ? end : ranked(scores, bin)) {
    const double after = before + weightOf(scores.of(candidate), best);
    if (target <= after) {
      return target - before > doubt && after - target > doubt ? indexOf(candidate) : -1;
    }
    before = after;
  }
  return -1;
}

void Sampler::countBins(const Scores& scores, float best) {
  const WeighFunction weigh = widestWeigh();
  counts_.assign(2 * kBins, 0);
  // Two counts a bin, as addWeights has two sums.
  uint32_t* const even = counts_.data();
  uint32_t* const odd = even + kBins;
  float block[kBlock];
  for (size_t first = 0; first < scores.count; first += kBlock) {
    scoreBlock(scores.logits + first, scores.count - first, scores.factor, block);
    int16_t* const bins = bins_.data() + first;
    weigh(block, best, bins, nullptr);
    if (allEqual(bins)) {
      even[bins[0]] += kBlock;
      continue;
    }
    for (size_t j = 0; j < kBlock; j += 2) {
      ++even[bins[j]];
      ++odd[bins[j + 1]];
    }
  }
  for (size_t bin = 0; bin < kBins; ++bin) even[bin] += odd[bin];
}

// Sums up the weights of the bins up to the last one that counts. Where that is not the last of
// all, the scores have their bins already, and blocks without one that counts are passed over.
void Sampler::addWeights(const Scores& scores, float best, int16_t last) {
  const WeighFunction weigh = widestWeigh();
  masses_.assign(2 * kBins, 0.0);
  // Two sums a bin: additions to the same one wait for each other.
  double* const even = masses_.data();
  double* const odd = even + kBins;
  float block[kBlock];
  double weights[kBlock];
  for (size_t first = 0; first < scores.count; first += kBlock) {
    int16_t* const bins = bins_.data() + first;
    if (last < kBins - 1 && !anyUpTo(bins, last)) continue;
    scoreBlock(scores.logits + first, scores.count - first, scores.factor, block);
    weigh(block, best, bins, weights);
    if (allEqual(bins)) {
      even[bins[0]] += sumOf(weights);
      continue;
    }
    for (size_t j = 0; j < kBlock; j += 2) {
      even[bins[j]] += weights[j];
      odd[bins[j + 1]] += weights[j + 1];
    }
  }
  for (size_t bin = 0; bin < kBins; ++bin) even[bin] += odd[bin];
  masses_[kBins - 1] = 0;
}

// The candidates of a bin, best first.
std::span<const Sampler::Candidate> Sampler::ranked(const Scores& scores, int16_t bin) {
  candidates_.resize(scores.count);  // the one allocation, whatever the later calls need
  Candidate* end = candidates_.data();
  const __m128i wanted = _mm_set1_epi16(bin);
  for (size_t first = 0; first < scores.count; first += 8) {
    __m128i bins;
    std::memcpy(&bins, bins_.data() + first, sizeof bins);
    int hits = _mm_movemask_epi8(_mm_cmpeq_epi16(bins, wanted)) & 0x5555;
    for (; hits != 0; hits &= hits - 1) {
      const size_t i =
          first + static_cast<size_t>(std::countr_zero(static_cast<unsigned>(hits))) / 2;
      if (i < scores.count) *end++ = scores.candidate(i);
    }
  }
  // Equal scores are in order already.
  if (!std::is_sorted(candidates_.data(), end)) std::sort(candidates_.data(), end);
  return {candidates_.data(), end};
}

}  // namespace qwen35
