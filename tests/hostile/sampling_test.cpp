// Choosing a token allocates nothing once the first one is chosen.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "hostile/counted_new.h"
#include "plugin/sampler.h"

namespace orbtest {
namespace {

TEST(Sampling, AllocatesForTheFirstTokenOnly) {
  std::mt19937 random(1);
  std::normal_distribution<float> normal(0, 1);
  std::vector<float> logits(20000);
  qwen35::Sampler sampler;
  std::mt19937 generator(42);
  for (int token = 0; token < 50; ++token) {
    // Wider and wider, so that every call looks at other candidates than the one before.
    for (float& logit : logits) logit = normal(random) * static_cast<float>(token);
    for (const qwen35::SamplingSettings& settings : {qwen35::SamplingSettings{0.8f, 0, 0},
                                                     {0.8f, 40, 0},
                                                     {0.8f, 5000, 0},
                                                     {50.0f, 0, 0},
                                                     {0.8f, 0, 0.95f},
                                                     {0, 0, 0}}) {
      resetAllocationCounts();
      sampler.sampleNext(logits.data(), logits.size(), settings, generator);
      if (token > 0) {
        ASSERT_EQ(allocationCounts().calls, 0u) << token;
      }
    }
  }
}

}  // namespace
}  // namespace orbtest
