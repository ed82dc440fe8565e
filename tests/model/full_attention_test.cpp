// The mixer of the full blocks against plain loops in double, and its edges one by one.
#include "model/full_attention.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "model/environment.h"
#include "model/kernel_tiers.h"
#include "model/numeric_kernels.h"
#include "model/reference_mixers.h"
#include "model/small_model.h"
#include "model/threads.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

using orbtest::EnvironmentVariable;
using orbtest::fillCaches;
using orbtest::FullReference;
using orbtest::kSmallHidden;
using orbtest::normalVector;
using orbtest::OwnTensor;
using orbtest::relativeDistance;
using orbtest::SmallModel;
using orbtest::smallOptions;

constexpr size_t kBlock = 3;  // the first full block

orb::SynthOptions optionsWithBiases() {
  orb::SynthOptions options = smallOptions();
  options.biases = true;
  return options;
}

class FullAttentionTest : public orbtest::TierTest {
 protected:
  std::vector<float> step(SmallModel& small, const std::vector<float>& x, size_t pos) const {
    std::vector<float> out(kSmallHidden, 0.0f);
    fullAttnStep(small.model, small.model.layers[kBlock], x.data(), out.data(), pos, kBlock);
    return out;
  }

  // Feeds `tokens` tokens from the layer's position on and compares every output.
  void compare(SmallModel& small, size_t tokens) const {
    const Layer& layer = small.model.layers[kBlock];
    FullReference reference(layer);
    reference.takeCaches(small.model.maxContext);
    for (size_t i = 0; i < tokens; ++i) {
      const size_t pos = layer.position;
      const std::vector<float> x = normalVector(kSmallHidden, static_cast<unsigned>(100 + pos));
      const FullReference::Result expected = reference.step(x, pos);
      ASSERT_LT(relativeDistance(step(small, x, pos), expected.out), orbtest::kMixerTolerance)
          << "token " << pos;
    }
  }
};
ORB_INSTANTIATE_TIERS(FullAttentionTest);

TEST_P(FullAttentionTest, FollowsTheFormula) {
  SmallModel small(smallOptions(), &kernels());
  compare(small, 20);
}

TEST_P(FullAttentionTest, FollowsTheFormulaWithBiases) {
  SmallModel small(optionsWithBiases(), &kernels());
  compare(small, 12);
}

TEST_P(FullAttentionTest, FollowsTheFormulaOverLongContexts) {
  // Contexts are worked off in runs of 256 positions.
  SmallModel small(smallOptions(), &kernels(), 1100);
  for (const size_t cached : {254, 511, 767, 1030}) {
    resetModel(small.model);
    fillCaches(small.model, cached);
    compare(small, cached == 254 ? 3 : 2);
  }
}

TEST_P(FullAttentionTest, FewerHeadsFollowTheFormula) {
  for (const uint32_t heads : {1, 4, 6, 8}) {
    orb::SynthOptions options = smallOptions();
    options.queryHeads = heads;
    SmallModel small(options, &kernels());
    compare(small, 5);
  }
}

TEST_P(FullAttentionTest, AtPositionZeroEachHeadIsItsValueTimesTheSigmoidOfItsGate) {
  SmallModel small(optionsWithBiases(), &kernels());
  step(small, normalVector(kSmallHidden, 1), 0);
  const Workspace& w = small.model.work;
  for (size_t h = 0; h < 16; ++h) {
    for (size_t d = 0; d < 256; ++d) {
      const float gate = w.qkv[512 * h + 256 + d];
      const float value = w.value[h / 4 * 256 + d];
      ASSERT_FLOAT_EQ(w.gated[h * 256 + d], value / (std::exp(-gate) + 1.0f)) << h << " " << d;
    }
  }
}

TEST_P(FullAttentionTest, AGateOfZeroHalvesTheHeadOutput) {
  SmallModel small(smallOptions(), &kernels());
  OwnTensor q(*small.model.layers[kBlock].attnQ);
  for (size_t h = 0; h < 16; ++h) std::fill_n(q.row(512 * h + 256), 256 * kSmallHidden, 0.0f);
  small.model.layers[kBlock].attnQ = &q.view;
  step(small, normalVector(kSmallHidden, 1), 0);
  const Workspace& w = small.model.work;
  for (size_t i = 0; i < 4096; ++i) {
    ASSERT_EQ(w.gated[i], 0.5f * w.value[i / 1024 * 256 + i % 256]) << i;
  }
}

TEST_P(FullAttentionTest, WithoutBiasesQueryKeyAndValueAreTheBareProjections) {
  SmallModel small(smallOptions(), &kernels());
  Model& model = small.model;
  const Layer& layer = model.layers[kBlock];
  const std::vector<float> x = normalVector(kSmallHidden, 2);
  step(small, x, 0);
  std::vector<float> normed(kSmallHidden);
  rmsNorm(x.data(), reinterpret_cast<const float*>(layer.attnNorm->data), normed.data(),
          kSmallHidden, 1e-6f);
  std::vector<float> q(8192, 0.0f), k(1024, 0.0f), v(1024, 0.0f);
  gemvRow(model, layer.attnQ, normed.data(), q.data());
  gemvRow(model, layer.attnK, normed.data(), k.data());
  gemvRow(model, layer.attnV, normed.data(), v.data());
  EXPECT_EQ(std::memcmp(model.work.qkv.data(), q.data(), 8192 * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(model.work.key.data(), k.data(), 1024 * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(model.work.value.data(), v.data(), 1024 * sizeof(float)), 0);
}

TEST_P(FullAttentionTest, EachBiasIsAddedElementByElementAsFarAsItReaches) {
  SmallModel plain(smallOptions(), &kernels());
  SmallModel biased(smallOptions(), &kernels());
  Layer& layer = biased.model.layers[kBlock];
  // Longer than the projection, shorter, and of a block type.
  std::vector<float> long_ = normalVector(9000, 3), short_ = normalVector(100, 4);
  std::vector<uint8_t> blocks(34 * 32);
  for (size_t i = 0; i < blocks.size(); ++i) blocks[i] = i % 34 == 0 ? 0 : i % 34 == 1 ? 0x34 : 8;
  const auto view = [](const void* data, kiv::QuantType type, uint64_t n) {
    kiv::TensorView tensor;
    tensor.data = static_cast<const uint8_t*>(data);
    tensor.type = static_cast<uint16_t>(type);
    tensor.ndims = 1;
    tensor.dims[0] = n;
    return tensor;
  };
  const kiv::TensorView q = view(long_.data(), kiv::QuantType::F32, 9000);
  const kiv::TensorView k = view(short_.data(), kiv::QuantType::F32, 100);
  const kiv::TensorView v = view(blocks.data(), kiv::QuantType::Q8_0, 1024);  // 2.0 everywhere
  layer.attnQBias = &q;
  layer.attnKBias = &k;
  layer.attnVBias = &v;
  const std::vector<float> x = normalVector(kSmallHidden, 5);
  step(plain, x, 0);
  step(biased, x, 0);
  const Workspace& a = plain.model.work;
  const Workspace& b = biased.model.work;
  for (size_t i = 0; i < 8192; ++i) ASSERT_EQ(b.qkv[i], a.qkv[i] + long_[i]) << i;
  for (size_t i = 0; i < 1024; ++i) {
    ASSERT_EQ(b.key[i], i < 100 ? a.key[i] + short_[i] : a.key[i]) << i;
    ASSERT_EQ(b.value[i], a.value[i] + 2.0f) << i;
  }
}

TEST_P(FullAttentionTest, OnlyTheFirst64ElementsAreRotated) {
  SmallModel small(smallOptions(), &kernels());
  Model& model = small.model;
  const std::vector<float> x = normalVector(kSmallHidden, 6);
  step(small, x, 0);
  const std::vector<float> queries(model.work.heads.begin(), model.work.heads.begin() + 4096);
  const std::vector<float> key(model.layers[kBlock].keyCache.begin(),
                               model.layers[kBlock].keyCache.begin() + 256);
  for (const size_t pos : {1, 777, 8191}) {
    resetModel(model);
    step(small, x, pos);
    for (size_t h = 0; h < 16; ++h) {
      const float* before = queries.data() + h * 256;
      const float* after = model.work.heads.data() + h * 256;
      EXPECT_EQ(std::memcmp(before + 64, after + 64, 192 * sizeof(float)), 0) << h;
    }
    const float* rotated = model.layers[kBlock].keyCache.data();
    EXPECT_EQ(std::memcmp(key.data() + 64, rotated + 64, 192 * sizeof(float)), 0);
    for (size_t j = 0; j < 32; ++j) {
      const double angle = static_cast<double>(pos) * std::pow(1e7, -2.0 * j / 64);
      const double a = key[j];
      const double b = key[j + 32];
      EXPECT_NEAR(rotated[j], a * std::cos(angle) - b * std::sin(angle), 1e-6) << pos;
      EXPECT_NEAR(rotated[j + 32], a * std::sin(angle) + b * std::cos(angle), 1e-6) << pos;
    }
  }
}

TEST_P(FullAttentionTest, TheSlotIsTheBlocksOwnCounterAndTheAngleTheCallersPosition) {
  SmallModel small(smallOptions(), &kernels());
  Model& model = small.model;
  Layer& layer = model.layers[kBlock];
  const std::vector<float> x = normalVector(kSmallHidden, 7);
  for (const size_t pos : {10, 20, 30}) step(small, x, pos);
  EXPECT_EQ(layer.position, 3u);
  const size_t groupStride = model.maxContext * 256;
  for (size_t g = 0; g < 4; ++g) {
    for (size_t slot = 0; slot < 4; ++slot) {
      const float* key = layer.keyCache.data() + g * groupStride + slot * 256;
      const float* value = layer.valueCache.data() + g * groupStride + slot * 256;
      EXPECT_EQ(orbtest::norm(key, 256) != 0, slot < 3);
      if (slot < 3) {
        EXPECT_EQ(std::memcmp(value, model.work.value.data() + g * 256, 1024), 0);
      }
    }
    const float* keys = layer.keyCache.data() + g * groupStride;
    EXPECT_NE(std::memcmp(keys, keys + 256, 64 * sizeof(float)), 0) << "different angles";
  }
}

TEST_P(FullAttentionTest, AddsToTheOutput) {
  SmallModel small(smallOptions(), &kernels());
  const std::vector<float> x = normalVector(kSmallHidden, 8);
  const std::vector<float> bare = step(small, x, 0);
  resetModel(small.model);
  std::vector<float> out(kSmallHidden, 1.0f);
  fullAttnStep(small.model, small.model.layers[kBlock], x.data(), out.data(), 0, kBlock);
  for (size_t i = 0; i < kSmallHidden; ++i) EXPECT_FLOAT_EQ(out[i], 1 + bare[i]);
}

TEST_P(FullAttentionTest, AFullCacheMakesItANoOp) {
  SmallModel small(smallOptions(), &kernels(), 3);
  const std::vector<float> x = normalVector(kSmallHidden, 9);
  for (size_t t = 0; t < 3; ++t) step(small, x, t);
  const Layer& layer = small.model.layers[kBlock];
  const std::vector<float> keys(layer.keyCache.begin(), layer.keyCache.end());
  EXPECT_EQ(step(small, x, 3), std::vector<float>(kSmallHidden, 0.0f));
  EXPECT_EQ(layer.position, 3u);
  EXPECT_EQ(std::vector<float>(layer.keyCache.begin(), layer.keyCache.end()), keys);
}

TEST_P(FullAttentionTest, GivesTheSameBitsForEveryNumberOfThreadsAndAfterAReset) {
  SmallModel small(optionsWithBiases(), &kernels(), 800);
  std::vector<std::vector<float>> first;
  for (const int threads : {1, 2, 3, 7, 1}) {
    const orbtest::ThreadCount scope(threads);
    resetModel(small.model);
    std::vector<std::vector<float>> outputs;
    for (size_t pos = 0; pos < 6; ++pos) {
      if (pos == 3) fillCaches(small.model, 765);
      outputs.push_back(step(small, normalVector(kSmallHidden, static_cast<unsigned>(pos)), pos));
    }
    if (first.empty()) first = outputs;
    EXPECT_EQ(outputs, first) << threads << " threads";
  }
}

// ------------------------------------------------------------------------------------ diagnostics

class FullDiagnosticsTest : public testing::Test {
 protected:
  std::string run(size_t blockIndex, size_t pos, const std::vector<float>& x) {
    std::vector<float> out(kSmallHidden, 0.0f);
    testing::internal::CaptureStderr();
    fullAttnStep(small_.model, small_.model.layers[kBlock], x.data(), out.data(), pos, blockIndex);
    return testing::internal::GetCapturedStderr();
  }

  SmallModel small_;
};

TEST_F(FullDiagnosticsTest, TellsTheSoftmaxOfHead0OfBlock3AtEveryEighthPosition) {
  for (const char* value : {"1", ""}) {
    const EnvironmentVariable variable("QWEN35_DBG3", value);
    resetModel(small_.model);
    FullReference reference(small_.model.layers[kBlock]);
    for (size_t t = 0; t < 17; ++t) {
      const std::vector<float> x = normalVector(kSmallHidden, static_cast<unsigned>(t));
      const FullReference::Result expected = reference.step(x, t);
      const std::string printed = run(kBlock, t, x);
      if (t % 8 != 0) {
        EXPECT_EQ(printed, "") << t;
        continue;
      }
      size_t cached = 0, tokens = 0;
      double maximum = 0, logSum = 0;
      char end = 0;
      ASSERT_EQ(std::sscanf(printed.c_str(), "FULL kvLen=%zu qh0: max %lf ent %lf nTok %zu%c",
                            &cached, &maximum, &logSum, &tokens, &end),
                5)
          << printed;
      EXPECT_EQ(cached, t);
      EXPECT_EQ(tokens, t + 1);
      EXPECT_EQ(end, '\n');
      EXPECT_NEAR(maximum, expected.maximum, 6e-4);
      EXPECT_NEAR(logSum, expected.logSum, 6e-5);
      char again[200];
      std::snprintf(again, sizeof again, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", cached,
                    maximum, logSum, tokens);
      EXPECT_EQ(printed, again) << "number formats";
    }
  }
}

TEST_F(FullDiagnosticsTest, OtherBlocksAndAnUnsetVariableAreSilent) {
  const std::vector<float> x = normalVector(kSmallHidden, 1);
  {
    const EnvironmentVariable variable("QWEN35_DBG3", "1");
    EXPECT_EQ(run(7, 0, x), "");
    EXPECT_EQ(run(0, 8, x), "");
    EXPECT_EQ(run(3, 9, x), "");
  }
  const EnvironmentVariable variable("QWEN35_DBG3", nullptr);
  EXPECT_EQ(run(3, 0, x), "");
}

}  // namespace
}  // namespace qwen35
