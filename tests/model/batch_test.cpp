// Batches of tokens: the same bits on every tier however a prompt is cut, and on all tiers but the
// one with tiles those of one token at a time.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <tuple>

#include "model/forward.h"
#include "model/guarded_buffer.h"
#include "model/kernel_tiers.h"
#include "model/small_model.h"
#include "model/threads.h"
#include "model/weight_patterns.h"

namespace {

using kiv::QuantType;
using orbtest::GuardedBuffer;
using orbtest::Kernels;
using orbtest::Side;
using orbtest::SmallModel;
using qwen35::Batch;
using qwen35::KernelTable;
using qwen35::Model;

class BatchedProductTest
    : public testing::TestWithParam<std::tuple<const KernelTable*, QuantType>> {
 protected:
  void SetUp() override {
    if (!qwen35::canRun(tier())) GTEST_SKIP() << "this machine can't run " << tier().name;
  }
  const KernelTable& tier() const { return *std::get<0>(GetParam()); }
  QuantType type() const { return std::get<1>(GetParam()); }

  std::vector<uint8_t> makeRows(size_t rows, size_t cols) {
    std::vector<uint8_t> all;
    for (size_t r = 0; r < rows; ++r) {
      const auto row = orbtest::makeRow(type(), orbtest::Pattern::Random, cols, random_);
      all.insert(all.end(), row.begin(), row.end());
    }
    return all;
  }

  // Checks `rows` rows of `cols` elements over `tokens` tokens against single products.
  void check(size_t rows, size_t cols, size_t tokens) {
    SCOPED_TRACE(std::to_string(rows) + " rows of " + std::to_string(cols) + ", " +
                 std::to_string(tokens) + " tokens");
    const std::vector<uint8_t> weights = makeRows(rows, cols);
    const size_t rowBytes = weights.size() / rows;
    GuardedBuffer guarded(weights, Side::End);
    GuardedBuffer x(orbtest::normalVector(tokens * cols, 7), Side::End);
    const std::vector<float> start = orbtest::normalVector(tokens * rows, 8);
    GuardedBuffer y(start, Side::End);
    std::vector<float> expected = start;
    const auto index = static_cast<size_t>(type());
    const Kernels reference = orbtest::batchReference(tier(), type());
    const size_t width = orbtest::arrangedWidth(tier(), type(), cols);
    for (size_t t = 0; t < tokens; ++t) {
      orbtest::addProduct(tier(), type(), guarded.bytes(), rowBytes, rows, cols,
                          x.floats() + t * cols, expected.data() + t * rows, reference);
    }
    GuardedBuffer guardedInputs(
        orbtest::arranged(tier(), type(), Kernels::Batch, x.floats(), cols, tokens, width),
        Side::End);
    alignas(64) static float scratch[qwen35::kBatchScratch];
    const Batch batch = {guardedInputs.floats(), width, y.floats(), rows, tokens, scratch};
    tier().gemm[index](guarded.bytes(), rowBytes, rows, cols, batch);
    EXPECT_EQ(std::memcmp(y.floats(), expected.data(), expected.size() * sizeof(float)), 0);
    checkSetting(guarded.bytes(), rowBytes, rows, cols, batch);
  }

 private:
  // A product that sets has the bits of one that adds to zeros, whatever was there.
  void checkSetting(const uint8_t* weights, size_t rowBytes, size_t rows, size_t cols,
                    Batch batch) {
    const size_t count = rows * batch.tokens;
    std::vector<float> expected(count, 0.0f);
    GuardedBuffer y(std::vector<float>(count, std::numeric_limits<float>::quiet_NaN()), Side::End);
    for (const bool adds : {true, false}) {
      batch.adds = adds;
      batch.y = adds ? expected.data() : y.floats();
      tier().gemm[static_cast<size_t>(type())](weights, rowBytes, rows, cols, batch);
    }
    EXPECT_EQ(std::memcmp(y.floats(), expected.data(), count * sizeof(float)), 0);
  }

  std::mt19937 random_{5};
};

TEST_P(BatchedProductTest, HasTheBitsOfSingleProductsForEveryNumberOfTokens) {
  for (size_t tokens : {1, 2, 3, 4, 5, 16, 17, 33, 48, 63, 64, 100, 255, 256}) {
    check(8, 512, tokens);
  }
}

TEST_P(BatchedProductTest, TakesAnyNumberOfRows) {
  for (size_t rows : {1, 7, 9, 16, 21, 32, 49}) check(rows, 256, 5);
}

TEST_P(BatchedProductTest, TakesRowsThatEndInsideAChunkOfElements) {
  check(9, 768, 4);
  check(8, 2560, 3);
}

TEST_P(BatchedProductTest, TakesRowsThatEndInsideARegister) {
  if (type() != QuantType::F32 && type() != QuantType::BF16) return;
  for (size_t cols : {1, 15, 40, 56, 531}) check(9, cols, 4);
}

INSTANTIATE_TEST_SUITE_P(Tiers, BatchedProductTest,
                         testing::Combine(testing::ValuesIn(qwen35::allKernels()),
                                          testing::ValuesIn(orbtest::kMatrixTypes)),
                         [](const auto& test) {
                           return std::string(std::get<0>(test.param)->name) + "_" +
                                  kiv::quantTypeName(std::get<1>(test.param));
                         });

// The state and the logits after a prompt that was fed in batches of the given size.
struct Outcome {
  std::vector<float> logits;
  std::vector<float> states;
};

void append(std::vector<float>& out, const qwen35::ZeroedArray& values) {
  out.insert(out.end(), values.begin(), values.end());
}

std::vector<float> statesOf(const Model& model) {
  std::vector<float> states;
  for (const qwen35::Layer& layer : model.layers) {
    append(states, layer.recurrentState);
    append(states, layer.convState);
    append(states, layer.keyCache);
    append(states, layer.valueCache);
    states.push_back(static_cast<float>(layer.position));
  }
  return states;
}

std::vector<int32_t> somePrompt(const Model& model, size_t length) {
  std::vector<int32_t> prompt(length);
  for (size_t i = 0; i < length; ++i) {
    prompt[i] = static_cast<int32_t>((i * 37 + 11) % model.vocabularySize);
  }
  return prompt;
}

Outcome outcomeOf(const Model& model, std::vector<float> logits) {
  return {std::move(logits), statesOf(model)};
}

// The first token has position `start`.
Outcome feed(Model& model, const std::vector<int32_t>& prompt, size_t batchSize, size_t start = 0) {
  std::vector<float> logits(model.vocabularySize);
  for (size_t at = 0; at < prompt.size(); at += batchSize) {
    const size_t count = std::min(batchSize, prompt.size() - at);
    float* wanted = at + count == prompt.size() ? logits.data() : nullptr;
    EXPECT_TRUE(qwen35::forwardBatch(model, prompt.data() + at, count, start + at, wanted));
  }
  return outcomeOf(model, std::move(logits));
}

// Token by token, as generation does.
Outcome feedSingly(Model& model, const std::vector<int32_t>& prompt, size_t start = 0) {
  std::vector<float> logits(model.vocabularySize);
  std::vector<float> embedding(model.hiddenSize);
  for (size_t at = 0; at < prompt.size(); ++at) {
    qwen35::embedRow(model, static_cast<size_t>(prompt[at]), embedding.data());
    qwen35::forwardToken(model, embedding.data(), start + at, logits.data());
  }
  return outcomeOf(model, std::move(logits));
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

class ForwardBatchTest : public orbtest::TierTest {};

// Every type that a matrix may have.
orb::SynthOptions mixedOptions() {
  orb::SynthOptions options;
  options.hidden = options.ffn = 256;
  options.vocabulary = orb::kSynthMinVocabulary;
  options.queryHeads = 2;
  options.valueHeads = 2;
  options.attentionType = QuantType::Q6_K;
  options.linearType = QuantType::Q4_K;
  options.smallType = QuantType::Q8_0;
  options.ffnType = QuantType::Q5_K;
  options.embeddingType = QuantType::BF16;
  return options;
}

void expectSame(const Outcome& outcome, const Outcome& expected) {
  EXPECT_TRUE(sameBits(outcome.logits, expected.logits));
  EXPECT_TRUE(sameBits(outcome.states, expected.states));
}

TEST_P(ForwardBatchTest, EverySplitOfAPromptGivesTheSameBits) {
  for (const orb::SynthOptions& options : {orbtest::smallOptions(), mixedOptions()}) {
    SmallModel small(options, &kernels());
    const std::vector<int32_t> prompt = somePrompt(small.model, 11);
    const Outcome expected = feed(small.model, prompt, prompt.size());
    for (size_t batchSize : {1, 2, 4}) {
      SCOPED_TRACE(batchSize);
      resetModel(small.model);
      expectSame(feed(small.model, prompt, batchSize), expected);
    }
  }
}

TEST_P(ForwardBatchTest, EverySplitOfALongPromptGivesTheSameBits) {
  // Takes long; BatchedProductTest goes beyond the groups of its products.
  if (&kernels() == &qwen35::kScalarKernels) GTEST_SKIP();
  SmallModel small(mixedOptions(), &kernels(), 256);
  const std::vector<int32_t> prompt = somePrompt(small.model, 200);
  const Outcome expected = feed(small.model, prompt, prompt.size());
  for (size_t batchSize : {33, 64, 150}) {
    SCOPED_TRACE(batchSize);
    resetModel(small.model);
    expectSame(feed(small.model, prompt, batchSize), expected);
  }
}

TEST_P(ForwardBatchTest, ABatchHasTheBitsOfSingleTokensOrIsCloseToThem) {
  SmallModel small(mixedOptions(), &kernels());
  const std::vector<int32_t> prompt = somePrompt(small.model, 5);
  const Outcome expected = feedSingly(small.model, prompt);
  resetModel(small.model);
  const Outcome outcome = feed(small.model, prompt, prompt.size());
  if (orbtest::batchReference(kernels(), QuantType::Q4_K) == Kernels::OneToken) {
    return expectSame(outcome, expected);
  }
  EXPECT_LT(orbtest::relativeDistance(outcome.logits, expected.logits), 1e-4);
  EXPECT_LT(orbtest::relativeDistance(outcome.states, expected.states), 1e-4);
}

TEST_P(ForwardBatchTest, EveryNumberOfThreadsGivesTheSameBits) {
  SmallModel small(mixedOptions(), &kernels());
  const std::vector<int32_t> prompt = somePrompt(small.model, 6);
  Outcome expected;
  for (int threads : {1, 2, 3}) {
    SCOPED_TRACE(threads);
    const orbtest::ThreadCount count(threads);
    resetModel(small.model);
    const Outcome outcome = feed(small.model, prompt, 6);
    if (threads == 1) expected = outcome;
    expectSame(outcome, expected);
  }
}

ORB_INSTANTIATE_TIERS(ForwardBatchTest);

TEST(ForwardBatchLongTest, ABatchThatCrossesRunsOfPositionsGivesTheSameBits) {
  SmallModel small(orbtest::smallOptions(), nullptr, 600);
  const std::vector<int32_t> prompt = somePrompt(small.model, 20);
  for (const size_t cached : {size_t{250}, size_t{500}}) {
    resetModel(small.model);
    orbtest::fillCaches(small.model, cached);
    const Outcome expected = feed(small.model, prompt, 1, cached);
    resetModel(small.model);
    orbtest::fillCaches(small.model, cached);
    SCOPED_TRACE(cached);
    expectSame(feed(small.model, prompt, prompt.size(), cached), expected);
  }
}

TEST(ForwardBatchFailureTest, ABatchWithAnInfiniteOutputLeavesTheModelAsItWas) {
  SmallModel small;
  orbtest::OwnTensor embedding(*small.model.tokenEmbedding);
  embedding.row(3)[0] = std::numeric_limits<float>::infinity();
  small.model.tokenEmbedding = &embedding.view;
  feed(small.model, {1, 2, 4, 5}, 4);
  const std::vector<float> before = statesOf(small.model);

  const std::vector<int32_t> poisoned = {6, 3, 7};
  std::vector<float> logits(small.model.vocabularySize);
  EXPECT_FALSE(
      qwen35::forwardBatch(small.model, poisoned.data(), poisoned.size(), 4, logits.data()));
  EXPECT_TRUE(sameBits(statesOf(small.model), before));
}

}  // namespace
