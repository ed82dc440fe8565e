// Chooses the next token from the logits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace qwen35 {

// temperature <= 0 or topK 1 chooses greedily; topK 0 or above the count means no limit; a topP
// between 0 and 1 keeps the best candidate only.
struct SamplingSettings {
  float temperature = 0.0f;
  int32_t topK = 0;
  float topP = 0.0f;
};

// Index of the largest logit, the lowest among equals; 0 for fewer than two logits.
int32_t greedyChoice(const float* logits, size_t count);

class Sampler {
 public:
  // Index of the chosen logit. Greedy choices leave the generator alone, every other choice draws
  // exactly two outputs. NaN scores count as the worst, with no weight.
  //
  // The choice is the one that a full sort gives, best score first, the lowest index among equals:
  // the kept candidates have the weight exp(score - best), and the first one is taken at which the
  // sum of weights reaches the drawn share of their total.
  int32_t sampleNext(const float* logits, size_t count, const SamplingSettings& settings,
                     std::mt19937& generator);

 private:
  // A rank of the score in the high half, the index in the low half: in order, best first.
  using Candidate = uint64_t;
  struct Scores;

  int32_t chooseBySorting(const Scores& scores, size_t kept, double draw);
  int32_t chooseByBins(const Scores& scores, float best, size_t kept, double draw);
  void countBins(const Scores& scores, float best);
  void addWeights(const Scores& scores, float best, int16_t last);
  std::span<const Candidate> ranked(const Scores& scores, int16_t bin);

  // Kept between calls for their storage.
  std::vector<Candidate> candidates_;
  std::vector<int16_t> bins_;     // bin of every logit
  std::vector<double> masses_;    // sums of weights by bin
  std::vector<uint32_t> counts_;  // logits by bin
};

}  // namespace qwen35
