// Chooses the next token from the logits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
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
  int32_t sampleNext(const float* logits, size_t count, const SamplingSettings& settings,
                     std::mt19937& generator);

 private:
  struct Candidate {
    float score;  // logit / temperature
    int32_t index;
  };

  std::vector<Candidate> candidates_;  // kept between calls for its storage
};

}  // namespace qwen35
