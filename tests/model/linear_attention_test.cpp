// The mixer of the linear blocks against plain loops in double, and its edges one by one.
#include "model/linear_attention.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstring>

#include "model/environment.h"
#include "model/kernel_tiers.h"
#include "model/reference_mixers.h"
#include "model/small_model.h"
#include "model/threads.h"

namespace qwen35 {
namespace {

using orbtest::EnvironmentVariable;
using orbtest::kSmallHidden;
using orbtest::LinearReference;
using orbtest::normalVector;
using orbtest::OwnTensor;
using orbtest::relativeDistance;
using orbtest::SmallModel;
using orbtest::smallOptions;

constexpr size_t kState = 128 * 128;

std::vector<float> copyOf(const ZeroedArray& array, size_t count) {
  return {array.begin(), array.begin() + count};
}

class LinearAttentionTest : public orbtest::TierTest {
 protected:
  static std::vector<float> step(SmallModel& small, const std::vector<float>& x, size_t pos = 0) {
    std::vector<float> out(kSmallHidden, 0.0f);
    linearAttnStep(small.model, small.model.layers[0], x.data(), out.data(), 0, pos);
    return out;
  }

  static void compare(SmallModel& small, size_t tokens) {
    const Layer& layer = small.model.layers[0];
    LinearReference reference(layer);
    for (size_t t = 0; t < tokens; ++t) {
      const std::vector<float> x = normalVector(kSmallHidden, static_cast<unsigned>(50 + t));
      const LinearReference::Result expected = reference.step(x);
      ASSERT_LT(relativeDistance(step(small, x, t), expected.out), orbtest::kMixerTolerance)
          << "token " << t;
      ASSERT_LT(relativeDistance(copyOf(layer.recurrentState, 32 * kState), reference.state()),
                orbtest::kMixerTolerance)
          << "token " << t;
    }
    EXPECT_EQ(layer.position, tokens);
  }

  // Makes beta exactly 0 for inputs of ones: exp of the negated projection overflows.
  struct WithoutBeta {
    explicit WithoutBeta(SmallModel& small) : beta(*small.model.layers[0].ssmBeta) {
      std::fill(beta.values.begin(), beta.values.end(), -1e6f);
      small.model.layers[0].ssmBeta = &beta.view;
    }
    OwnTensor beta;
  };

  const std::vector<float> ones_ = std::vector<float>(kSmallHidden, 1.0f);
};
ORB_INSTANTIATE_TIERS(LinearAttentionTest);

TEST_P(LinearAttentionTest, FollowsTheFormulaOverManyTokens) {
  SmallModel small(smallOptions(), &kernels());
  compare(small, 12);
}

TEST_P(LinearAttentionTest, FewerValueHeadsFollowTheFormula) {
  for (const uint32_t heads : {1, 16, 17}) {
    orb::SynthOptions options = smallOptions();
    options.valueHeads = heads;
    SmallModel small(options, &kernels());
    compare(small, 4);
    const Layer& layer = small.model.layers[0];
    for (size_t h = heads; h < 32; ++h) {
      EXPECT_EQ(orbtest::norm(layer.recurrentState.data() + h * kState, kState), 0) << h;
      EXPECT_EQ(orbtest::norm(small.model.work.gated.data() + 128 * h, 128), 0) << h;
    }
  }
}

TEST_P(LinearAttentionTest, TheFirstTokenSeesTheLastTapOfTheConvolutionOnly) {
  SmallModel small(smallOptions(), &kernels());
  const Layer& layer = small.model.layers[0];
  for (int round = 0; round < 2; ++round) {
    step(small, normalVector(kSmallHidden, 1));
    const Workspace& w = small.model.work;
    const auto* taps = reinterpret_cast<const float*>(layer.ssmConv1d->data);
    for (size_t c = 0; c < 8192; ++c) {
      const float y = taps[4 * c + 3] * w.qkv[c];
      ASSERT_FLOAT_EQ(w.conv[c], y / (std::exp(-y) + 1.0f)) << c;
      ASSERT_EQ(layer.convState[3 * c], 0);
      ASSERT_EQ(layer.convState[3 * c + 1], 0);
      ASSERT_EQ(layer.convState[3 * c + 2], w.qkv[c]);
    }
    step(small, normalVector(kSmallHidden, 2));
    resetModel(small.model);
  }
}

TEST_P(LinearAttentionTest, TheConvolutionRemembersTheLastThreeInputsOldestFirst) {
  SmallModel small(smallOptions(), &kernels());
  const Layer& layer = small.model.layers[0];
  std::vector<std::vector<float>> inputs;
  for (unsigned t = 0; t < 4; ++t) {
    step(small, normalVector(kSmallHidden, t));
    inputs.push_back(copyOf(small.model.work.qkv, 8192));
  }
  for (size_t c = 0; c < 8192; ++c) {
    for (size_t i = 0; i < 3; ++i) ASSERT_EQ(layer.convState[3 * c + i], inputs[1 + i][c]);
  }
}

TEST_P(LinearAttentionTest, WithBetaZeroTheStateOnlyDecaysAndIsReadAfterwards) {
  SmallModel small(smallOptions(), &kernels());
  const Layer& layer = small.model.layers[0];
  for (unsigned t = 0; t < 3; ++t) step(small, normalVector(kSmallHidden, t));
  const std::vector<float> before = copyOf(layer.recurrentState, 32 * kState);
  LinearReference reference(layer);
  const WithoutBeta changed(small);
  step(small, ones_);
  const LinearReference::Result expected = reference.step(ones_);  // for the decay alone
  const float decay = static_cast<float>(std::exp(expected.g0));
  const Workspace& w = small.model.work;
  double query[128];
  double size = 0;
  for (size_t i = 0; i < 128; ++i) size += static_cast<double>(w.conv[i]) * w.conv[i];
  for (size_t i = 0; i < 128; ++i) query[i] = w.conv[i] / std::sqrt(size + 1e-6);
  for (size_t j = 0; j < 128; ++j) {
    double read = 0;
    for (size_t i = 0; i < 128; ++i) {
      const float state = layer.recurrentState[128 * i + j];
      ASSERT_NEAR(state, decay * before[128 * i + j], 1e-6 * std::fabs(before[128 * i + j]));
      read += query[i] * static_cast<double>(state);
    }
    ASSERT_NEAR(w.heads[j], read / std::sqrt(128.0), 1e-6);
  }
  EXPECT_LT(decay, 1);
}

TEST_P(LinearAttentionTest, NoDecayKeepsTheStateExactly) {
  for (const char* value : {"1", "0", ""}) {
    const EnvironmentVariable variable("QWEN35_NODECAY", value);
    SmallModel small(smallOptions(), &kernels());
    const Layer& layer = small.model.layers[0];
    for (unsigned t = 0; t < 3; ++t) step(small, normalVector(kSmallHidden, t));
    const std::vector<float> before = copyOf(layer.recurrentState, 32 * kState);
    const WithoutBeta changed(small);
    step(small, ones_);
    EXPECT_EQ(copyOf(layer.recurrentState, 32 * kState), before) << "\"" << value << "\"";
    EXPECT_NE(orbtest::norm(before.data(), before.size()), 0);
  }
}

TEST_P(LinearAttentionTest, TheVariableIsReadAtEveryStep) {
  SmallModel small(smallOptions(), &kernels());
  const WithoutBeta changed(small);
  Layer& layer = small.model.layers[0];
  const std::vector<float> start = normalVector(32 * kState, 3);
  std::copy(start.begin(), start.end(), layer.recurrentState.data());
  {
    const EnvironmentVariable variable("QWEN35_NODECAY", "1");
    step(small, ones_);
  }
  EXPECT_EQ(copyOf(layer.recurrentState, 32 * kState), start);
  step(small, ones_);
  EXPECT_NE(copyOf(layer.recurrentState, 32 * kState), start);
}

TEST_P(LinearAttentionTest, TheDecayParameterIsTakenAsStored) {
  // Positive values make the state grow.
  SmallModel small(smallOptions(), &kernels());
  OwnTensor a(*small.model.layers[0].ssmA);
  for (size_t h = 0; h < 32; ++h) a.values[h] = h % 2 == 0 ? 0.5f : -0.5f;
  small.model.layers[0].ssmA = &a.view;
  const WithoutBeta changed(small);
  Layer& layer = small.model.layers[0];
  std::fill_n(layer.recurrentState.data(), 32 * kState, 1.0f);
  step(small, ones_);
  const auto* dt = reinterpret_cast<const float*>(layer.ssmDt->data);
  for (size_t h = 0; h < 32; ++h) {
    const float softplus = std::log1p(std::exp(small.model.work.alpha[h] + dt[h]));
    EXPECT_FLOAT_EQ(layer.recurrentState[h * kState], std::exp(softplus * a.values[h])) << h;
  }
}

TEST_P(LinearAttentionTest, ValueHeads16ApartShareTheirQueryAndKeyHead) {
  // Value head 16 gets all that head 0 has of its own; heads 1 and 17 stay different.
  SmallModel small(smallOptions(), &kernels());
  Layer& layer = small.model.layers[0];
  OwnTensor qkv(*layer.attnQkv), gate(*layer.attnGate), alpha(*layer.ssmAlpha),
      beta(*layer.ssmBeta), dt(*layer.ssmDt), a(*layer.ssmA), conv(*layer.ssmConv1d);
  std::copy_n(qkv.row(4096), 128 * kSmallHidden, qkv.row(4096 + 16 * 128));
  std::copy_n(gate.row(0), 128 * kSmallHidden, gate.row(16 * 128));
  std::copy_n(conv.row(4096), 128 * 4, conv.row(4096 + 16 * 128));
  std::copy_n(alpha.row(0), kSmallHidden, alpha.row(16));
  std::copy_n(beta.row(0), kSmallHidden, beta.row(16));
  dt.values[16] = dt.values[0];
  a.values[16] = a.values[0];
  layer.attnQkv = &qkv.view;
  layer.attnGate = &gate.view;
  layer.ssmConv1d = &conv.view;
  layer.ssmAlpha = &alpha.view;
  layer.ssmBeta = &beta.view;
  layer.ssmDt = &dt.view;
  layer.ssmA = &a.view;
  for (unsigned t = 0; t < 3; ++t) step(small, normalVector(kSmallHidden, t));
  const float* state = layer.recurrentState.data();
  const float* out = small.model.work.gated.data();
  EXPECT_EQ(std::memcmp(state, state + 16 * kState, kState * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(out, out + 16 * 128, 128 * sizeof(float)), 0);
  EXPECT_NE(std::memcmp(state + kState, state + 17 * kState, kState * sizeof(float)), 0);
  EXPECT_NE(std::memcmp(out, out + 128, 128 * sizeof(float)), 0);
}

TEST_P(LinearAttentionTest, AddsToTheOutput) {
  SmallModel small(smallOptions(), &kernels());
  const std::vector<float> x = normalVector(kSmallHidden, 8);
  const std::vector<float> bare = step(small, x);
  resetModel(small.model);
  std::vector<float> out(kSmallHidden, 1.0f);
  linearAttnStep(small.model, small.model.layers[0], x.data(), out.data(), 0, 0);
  for (size_t i = 0; i < kSmallHidden; ++i) EXPECT_FLOAT_EQ(out[i], 1 + bare[i]);
}

TEST_P(LinearAttentionTest, GivesTheSameBitsForEveryNumberOfThreadsAndAfterAReset) {
  SmallModel small(smallOptions(), &kernels());
  std::vector<std::vector<float>> first;
  for (const int threads : {1, 2, 3, 7, 1}) {
    const orbtest::ThreadCount scope(threads);
    resetModel(small.model);
    std::vector<std::vector<float>> outputs;
    for (unsigned t = 0; t < 3; ++t)
      outputs.push_back(step(small, normalVector(kSmallHidden, t), t));
    if (first.empty()) first = outputs;
    EXPECT_EQ(outputs, first) << threads << " threads";
  }
}

// -------------------------------------------------------------------------------------- delta rule

TEST(GdnStepTest, FollowsTheFormulaForEveryHeadWidth) {
  for (const size_t d : {1, 2, 5, 16, 24, 100, 128, 144, 256}) {
    std::vector<float> state(d * d, 0.0f);
    std::vector<double> expectedState(d * d);
    for (unsigned step = 0; step < 4; ++step) {
      std::vector<float> q = normalVector(d, 10 * step + 1);
      std::vector<float> k = normalVector(d, 10 * step + 2);
      for (std::vector<float>* head : {&q, &k}) {
        const double size = orbtest::norm(head->data(), d);
        for (float& value : *head) value = static_cast<float>(value / size);
      }
      std::vector<float> v = normalVector(d, 10 * step + 3);
      std::vector<double> expected(v.begin(), v.end());
      const std::vector<double> wideQ(q.begin(), q.end()), wideK(k.begin(), k.end());
      const double g = -0.25 * step;
      gdnStep(state.data(), q.data(), k.data(), v.data(), 0.75f, d, static_cast<float>(g), 0.5f);
      orbtest::deltaReference(expectedState.data(), wideQ.data(), wideK.data(), expected.data(),
                              0.75, d, std::exp(g), 0.5);
      for (size_t j = 0; j < d; ++j) ASSERT_NEAR(v[j], expected[j], 1e-6) << d;
      for (size_t i = 0; i < d * d; ++i) ASSERT_NEAR(state[i], expectedState[i], 2e-6) << d;
    }
  }
}

TEST(GdnStepTest, WithBetaZeroTheStateOnlyDecays) {
  constexpr size_t d = 32;
  std::vector<float> state = normalVector(d * d, 1);
  const std::vector<float> before = state;
  const std::vector<float> q = normalVector(d, 2), k = normalVector(d, 3);
  std::vector<float> v = normalVector(d, 4);
  gdnStep(state.data(), q.data(), k.data(), v.data(), 0, d, -1.5f, 2);
  for (size_t j = 0; j < d; ++j) {
    double read = 0;
    for (size_t i = 0; i < d; ++i) {
      EXPECT_EQ(state[i * d + j], before[i * d + j] * std::exp(-1.5f));
      read += static_cast<double>(q[i]) * state[i * d + j];
    }
    EXPECT_NEAR(v[j], 2 * read, 1e-5);
  }
}

// ------------------------------------------------------------------------------------ diagnostics

class LinearDiagnosticsTest : public testing::Test {
 protected:
  std::string run(size_t blockIndex, size_t pos, const std::vector<float>& x) {
    out_.assign(kSmallHidden, 0.0f);
    testing::internal::CaptureStderr();
    linearAttnStep(small_.model, small_.model.layers[0], x.data(), out_.data(), blockIndex, pos);
    return testing::internal::GetCapturedStderr();
  }

  static double size(const std::vector<double>& x) {
    double sum = 0;
    for (const double value : x) sum += value * value;
    return std::sqrt(sum);
  }

  SmallModel small_;
  std::vector<float> out_;
};

std::string format(const char* pattern, ...) {
  char text[600];
  va_list arguments;
  va_start(arguments, pattern);
  std::vsnprintf(text, sizeof text, pattern, arguments);
  va_end(arguments);
  return text;
}

constexpr const char* kStages =
    "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e |oT|=%.3e |out|=%.3e "
    "conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n";

TEST_F(LinearDiagnosticsTest, TellsTheStagesOfBlock0AtEveryPosition) {
  for (const char* value : {"1", ""}) {
    const EnvironmentVariable variable("QWEN35_DBG2", value);
    resetModel(small_.model);
    LinearReference reference(small_.model.layers[0]);
    for (size_t t = 0; t < 3; ++t) {
      const std::vector<float> x = normalVector(kSmallHidden, static_cast<unsigned>(t));
      const LinearReference::Result r = reference.step(x);
      const std::string printed = run(0, t, x);
      double v[8];
      unsigned type = 9, ndim = 9;
      size_t channels = 0, taps = 0;
      ASSERT_EQ(std::sscanf(printed.c_str(),
                            "    lin: |qkv|=%le |z|=%le |conv|=%le bv0=%lf av0=%lf |oTpre|=%le "
                            "|oT|=%le |out|=%le conv1d dtype=%u ndim=%u cc=%zu kk=%zu",
                            &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &type, &ndim,
                            &channels, &taps),
                12)
          << printed;
      const double norms[] = {size(r.qkv), size(r.gate),  size(r.conv),  r.beta0,
                              r.g0,        size(r.heads), size(r.gated), size(r.out)};
      for (size_t i = 0; i < 8; ++i) {
        const double tolerance = i == 3 || i == 4 ? 6e-5 : 6e-4 * norms[i];
        EXPECT_NEAR(v[i], norms[i], tolerance) << "value " << i << " of " << printed;
      }
      std::string expected = format(kStages, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], 0u, 2u,
                                    size_t{8192}, size_t{4});
      const auto* conv = reinterpret_cast<const float*>(small_.model.layers[0].ssmConv1d->data);
      for (size_t row = 0; row < 4; ++row) {
        expected += format("      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", row, conv[4 * row],
                           conv[4 * row + 1], conv[4 * row + 2], conv[4 * row + 3]);
      }
      EXPECT_EQ(printed, expected);
    }
  }
}

TEST_F(LinearDiagnosticsTest, TellsTheStateOfBlock0AtEveryEighthPosition) {
  for (const char* value : {"1", ""}) {
    const EnvironmentVariable variable("QWEN35_DBG4", value);
    resetModel(small_.model);
    LinearReference reference(small_.model.layers[0]);
    for (size_t t = 0; t < 10; ++t) {
      const std::vector<float> x = normalVector(kSmallHidden, static_cast<unsigned>(t));
      const LinearReference::Result r = reference.step(x);
      const std::string printed = run(0, t, x);
      if (t % 8 != 0) {
        EXPECT_EQ(printed, "") << t;
        continue;
      }
      size_t pos = 99;
      double v[5];
      ASSERT_EQ(std::sscanf(printed.c_str(),
                            "LIN S-pos=%zu |S|tot %le head0 %le |oT| %le av0 %lf bv0 %lf", &pos,
                            &v[0], &v[1], &v[2], &v[3], &v[4]),
                6)
          << printed;
      const std::vector<double>& state = reference.state();
      const double head0 = size({state.begin(), state.begin() + kState});
      EXPECT_NEAR(v[0], size(state), 6e-5 * size(state));
      EXPECT_NEAR(v[1], head0, 6e-5 * head0);
      EXPECT_NEAR(v[2], size(r.gated), 6e-4 * size(r.gated));
      EXPECT_NEAR(v[3], r.g0, 6e-5);
      EXPECT_NEAR(v[4], r.beta0, 6e-5);
      EXPECT_EQ(printed,
                format("LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", t,
                       v[0], v[1], v[2], v[3], v[4]));
    }
  }
}

TEST_F(LinearDiagnosticsTest, ThePrintedDecayIsThatOfTheModelEvenWhenDecayIsOff) {
  const EnvironmentVariable print("QWEN35_DBG4", "1");
  const EnvironmentVariable noDecay("QWEN35_NODECAY", "1");
  const std::vector<float> x = normalVector(kSmallHidden, 1);
  const double g = LinearReference(small_.model.layers[0]).step(x).g0;
  EXPECT_NE(run(0, 0, x).find(format(" av0 %.4f ", g)), std::string::npos);
  EXPECT_NE(format("%.4f", g), "0.0000");
}

TEST_F(LinearDiagnosticsTest, OtherBlocksAndUnsetVariablesAreSilent) {
  const std::vector<float> x = normalVector(kSmallHidden, 1);
  {
    const EnvironmentVariable stages("QWEN35_DBG2", "1");
    const EnvironmentVariable state("QWEN35_DBG4", "1");
    EXPECT_EQ(run(1, 0, x), "");
    EXPECT_EQ(run(3, 8, x), "");
    EXPECT_NE(run(0, 9, x).find("lin:"), std::string::npos);
    EXPECT_EQ(run(0, 9, x).find("LIN"), std::string::npos);
  }
  const EnvironmentVariable stages("QWEN35_DBG2", nullptr);
  const EnvironmentVariable state("QWEN35_DBG4", nullptr);
  EXPECT_EQ(run(0, 0, x), "");
}

}  // namespace
}  // namespace qwen35
