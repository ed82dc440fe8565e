#include "plugin/sampler.h"

#include <algorithm>
#include <cmath>

namespace qwen35 {
namespace {

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

}  // namespace

int32_t greedyChoice(const float* logits, size_t count) {
  size_t best = 0;
  for (size_t i = 1; i < count; ++i) {
    if (logits[i] > logits[best]) best = i;
  }
  return static_cast<int32_t>(best);
}

int32_t Sampler::sampleNext(const float* logits, size_t count, const SamplingSettings& settings,
                            std::mt19937& generator) {
  if (settings.temperature <= 0.0f || settings.topK == 1) return greedyChoice(logits, count);

  const float inverse = 1.0f / settings.temperature;
  candidates_.resize(count);
  for (size_t i = 0; i < count; ++i) {
    candidates_[i] = {inverse * logits[i], static_cast<int32_t>(i)};
  }
  const auto better = [](const Candidate& a, const Candidate& b) {
    return a.score > b.score || (std::isnan(b.score) && !std::isnan(a.score));
  };
  size_t kept = count;
  if (settings.topK >= 1) kept = std::min(kept, static_cast<size_t>(settings.topK));
  // The weights are relative to the best candidate's 1, so that any such bound is met by it alone.
  if (settings.topP > 0.0f && settings.topP < 1.0f) kept = std::min<size_t>(kept, 1);
  const auto end = candidates_.begin() + static_cast<std::ptrdiff_t>(kept);
  std::partial_sort(candidates_.begin(), end, candidates_.end(), better);

  double mass = 0;
  for (auto it = candidates_.begin(); it != end; ++it) {
    mass += weightOf(it->score, candidates_.front().score);
  }
  double rest = drawUniform(generator) * mass;
  for (auto it = candidates_.begin(); it != end; ++it) {
    rest -= weightOf(it->score, candidates_.front().score);
    if (rest <= 0.0) return it->index;
  }
  return kept == 0 ? 0 : candidates_[kept - 1].index;
}

}  // namespace qwen35
