// Tokens through all blocks: the order of the steps, the variables that change or show it, and the
// feed-forward step by itself.
#include "model/forward.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "model/environment.h"
#include "model/feed_forward.h"
#include "model/full_attention.h"
#include "model/kernel_tiers.h"
#include "model/linear_attention.h"
#include "model/numeric_kernels.h"
#include "model/reference_mixers.h"
#include "model/small_model.h"
#include "model/threads.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

using orbtest::EnvironmentVariable;
using orbtest::kSmallHidden;
using orbtest::normalVector;
using orbtest::OwnTensor;
using orbtest::relativeDistance;
using orbtest::SmallModel;
using orbtest::smallOptions;

std::vector<float> hiddenOf(SmallModel& small, size_t token, size_t pos) {
  std::vector<float> embedding(small.model.hiddenSize), out(small.model.hiddenSize);
  embedRow(small.model, token, embedding.data());
  forwardTokenHidden(small.model, embedding.data(), pos, out.data());
  return out;
}

std::vector<float> logitsOf(SmallModel& small, size_t token, size_t pos) {
  std::vector<float> embedding(small.model.hiddenSize);
  std::vector<float> logits(small.model.vocabularySize, 99.0f);
  embedRow(small.model, token, embedding.data());
  forwardToken(small.model, embedding.data(), pos, logits.data());
  return logits;
}

// A pass as its description reads: mixer, residual, norm, feed-forward, residual, final norm. The
// mixers of one kind can be left out.
std::vector<float> passByHand(SmallModel& small, size_t token, size_t pos, bool linear = true,
                              bool full = true) {
  const orbtest::ThreadCount one(1);  // steps by themselves start and end their threads each time
  Model& model = small.model;
  const size_t n = model.hiddenSize;
  const auto floats = [](const kiv::TensorView* tensor) {
    return reinterpret_cast<const float*>(tensor->data);
  };
  std::vector<float> x(n), normed(n), fed(n);
  embedRow(model, token, x.data());
  for (size_t i = 0; i < model.layers.size(); ++i) {
    Layer& layer = model.layers[i];
    std::vector<float> mixed(n, 0.0f);
    if (layer.isLinear && linear) linearAttnStep(model, layer, x.data(), mixed.data(), i, pos);
    if (!layer.isLinear && full) fullAttnStep(model, layer, x.data(), mixed.data(), pos, i);
    for (size_t j = 0; j < n; ++j) x[j] += mixed[j];
    rmsNorm(x.data(), floats(layer.postAttentionNorm), normed.data(), n, 1e-6f);
    ffnStep(model, layer, normed.data(), fed.data());
    for (size_t j = 0; j < n; ++j) x[j] += fed[j];
  }
  rmsNorm(x.data(), floats(model.outputNorm), x.data(), n, 1e-6f);
  return x;
}

class ForwardTest : public orbtest::TierTest {};
ORB_INSTANTIATE_TIERS(ForwardTest);

TEST_P(ForwardTest, RunsTheStepsInTheirOrder) {
  SmallModel small(smallOptions(), &kernels()), other(smallOptions(), &kernels());
  for (size_t pos = 0; pos < 3; ++pos) {
    EXPECT_EQ(hiddenOf(small, 7 * pos, pos), passByHand(other, 7 * pos, pos)) << pos;
  }
  for (const Layer& layer : small.model.layers) EXPECT_EQ(layer.position, 3u);
}

TEST_P(ForwardTest, LogitsAreTheProductsOfTheHiddenStateWithTheEmbedding) {
  SmallModel small(smallOptions(), &kernels()), other(smallOptions(), &kernels());
  for (size_t pos = 0; pos < 2; ++pos) {
    const std::vector<float> hidden = hiddenOf(small, pos, pos);
    const std::vector<float> logits = logitsOf(other, pos, pos);
    std::vector<float> row(kSmallHidden);
    for (size_t token = 0; token < logits.size(); ++token) {
      embedRow(small.model, token, row.data());
      double expected = 0;
      for (size_t i = 0; i < kSmallHidden; ++i) expected += static_cast<double>(row[i]) * hidden[i];
      ASSERT_NEAR(logits[token], expected, 1e-5) << "token " << token << " at " << pos;
    }
  }
}

TEST_P(ForwardTest, BothEntryPointsAdvanceTheStateAlike) {
  SmallModel small(smallOptions(), &kernels()), other(smallOptions(), &kernels());
  for (size_t pos = 0; pos < 2; ++pos) {
    hiddenOf(small, pos, pos);
    logitsOf(other, pos, pos);
  }
  EXPECT_EQ(logitsOf(small, 9, 2), logitsOf(other, 9, 2));
}

TEST_P(ForwardTest, GivesTheSameBitsForEveryNumberOfThreadsAndAfterAReset) {
  SmallModel small(smallOptions(), &kernels());
  std::vector<std::vector<float>> first;
  for (const int threads : {1, 2, 3, 1}) {
    const orbtest::ThreadCount scope(threads);
    resetModel(small.model);
    std::vector<std::vector<float>> outputs;
    for (size_t pos = 0; pos < 2; ++pos) outputs.push_back(logitsOf(small, 5 * pos, pos));
    if (first.empty()) first = outputs;
    EXPECT_EQ(outputs, first) << threads << " threads";
  }
}

TEST_P(ForwardTest, AgreesWithTheScalarTierForEveryTypeOfWeights) {
  if (&kernels() == &kScalarKernels) GTEST_SKIP() << "nothing to compare";
  using kiv::QuantType;
  orb::SynthOptions options;
  options.hidden = options.ffn = 256;
  options.vocabulary = orb::kSynthMinVocabulary;
  options.queryHeads = 2;
  options.valueHeads = 2;
  options.biases = true;
  const QuantType types[] = {QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K, QuantType::Q5_K,
                             QuantType::Q6_K};
  for (size_t i = 0; i < std::size(types); ++i) {
    const auto type = [&](size_t shift) { return types[(i + shift) % std::size(types)]; };
    options.embeddingType = type(0);
    options.attentionType = type(1);
    options.linearType = type(2);
    options.smallType = QuantType::Q8_0;
    options.ffnType = type(3);
    SmallModel small(options, &kernels()), scalar(options, &kScalarKernels);
    for (size_t pos = 0; pos < 2; ++pos) {
      const std::vector<float> logits = logitsOf(small, pos + 3, pos);
      EXPECT_LT(relativeDistance(logits, logitsOf(scalar, pos + 3, pos)), 5e-5);
    }
  }
}

// --------------------------------------------------------------------------------- feed-forward

class FeedForwardTest : public orbtest::TierTest {
 protected:
  static void check(SmallModel& small) {
    Layer& layer = small.model.layers[0];
    const std::vector<float> x = normalVector(kSmallHidden, 1);
    std::vector<float> out(kSmallHidden, 99.0f);
    ffnStep(small.model, layer, x.data(), out.data());
    EXPECT_LT(relativeDistance(out, orbtest::feedForwardReference(layer, x)), 1e-5);
  }
};
ORB_INSTANTIATE_TIERS(FeedForwardTest);

TEST_P(FeedForwardTest, FollowsTheFormulaAndOverwritesTheOutput) {
  for (const uint64_t ffn : {1, 15, 16, 40, 1000}) {
    orb::SynthOptions options = smallOptions();
    options.ffn = ffn;
    SmallModel small(options, &kernels());
    check(small);
    check(small);  // what the first call left behind does not matter
  }
}

TEST_P(FeedForwardTest, FewerRowsOfUpAndShorterRowsOfDownCountAsZeros) {
  SmallModel small(smallOptions(), &kernels());
  Layer& layer = small.model.layers[0];
  OwnTensor up(*layer.ffnUp), down(*layer.ffnDown);
  up.view.dims[1] = 11;
  down.view.dims[0] = 7;
  layer.ffnUp = &up.view;
  check(small);
  layer.ffnDown = &down.view;
  check(small);
}

TEST_P(FeedForwardTest, BlocksMayHaveDifferentWidths) {
  orb::SynthOptions wide = smallOptions();
  wide.ffn = 100;
  SmallModel small(wide, &kernels());
  Layer& layer = small.model.layers[0];
  check(small);
  OwnTensor gate(*layer.ffnGate), up(*layer.ffnUp), down(*layer.ffnDown);
  gate.view.dims[1] = up.view.dims[1] = down.view.dims[0] = 30;
  layer.ffnGate = &gate.view;
  layer.ffnUp = &up.view;
  layer.ffnDown = &down.view;
  check(small);
}

// -------------------------------------------------------------------------------------- the hook

struct CountingHook {
  Model* model = nullptr;
  bool answer = true;
  std::vector<const kiv::TensorView*> seen;

  // Adds the product by the scalar tier.
  static bool run(void* context, const kiv::TensorView* weights, const float* input,
                  float* output) {
    auto& hook = *static_cast<CountingHook*>(context);
    hook.seen.push_back(weights);
    if (!hook.answer) return false;
    const auto type = static_cast<kiv::QuantType>(weights->type);
    kScalarKernels.gemv[weights->type](weights->data, rowStride(type, weights->dims[0]),
                                       rowCount(*weights), weights->dims[0], input, output);
    return true;
  }
};

TEST(ForwardHookTest, EveryKQuantProductOfAPassIsOfferedToTheHook) {
  orb::SynthOptions options;
  options.hidden = options.ffn = 256;
  options.vocabulary = orb::kSynthMinVocabulary;
  options.queryHeads = options.valueHeads = 2;
  options.embeddingType = kiv::QuantType::Q6_K;
  options.attentionType = kiv::QuantType::Q5_K;
  options.linearType = kiv::QuantType::Q4_K;
  options.ffnType = kiv::QuantType::Q4_K;
  SmallModel plain(options), hooked(options);
  CountingHook hook;
  hooked.model.matVecHook = CountingHook::run;
  hooked.model.matVecContext = &hook;
  for (const bool answer : {true, false}) {
    hook.answer = answer;
    hook.seen.clear();
    resetModel(plain.model);
    resetModel(hooked.model);
    const std::vector<float> logits = logitsOf(hooked, 3, 0);
    EXPECT_LT(relativeDistance(logits, logitsOf(plain, 3, 0)), answer ? 2e-5 : 1e-30);
    // 24 linear blocks with 6 such products (alpha and beta are F32), 8 full ones with 7, the
    // output matrix.
    EXPECT_EQ(hook.seen.size(), 24u * 6 + 8 * 7 + 1);
    EXPECT_EQ(hook.seen.back(), hooked.model.tokenEmbedding);
  }
}

// --------------------------------------------------------------------------------------- ablation

// Zero norms for one block of the model, bound anew.
class ZeroNorms {
 public:
  ZeroNorms(SmallModel& small, size_t block) : zeros_(*small.model.outputNorm) {
    std::fill(zeros_.values.begin(), zeros_.values.end(), 0.0f);
    small.model.layers[block].attnNorm = &zeros_.view;
    small.model.layers[block].postAttentionNorm = &zeros_.view;
    EXPECT_TRUE(bindModel(small.loader, small.model, small.model.maxContext));
  }

 private:
  OwnTensor zeros_;
};

TEST(IdentityBlockTest, ABlockWhoseNormsAreZeroIsPassedOverWithTheSameResult) {
  for (const size_t block : {size_t{2}, size_t{3}}) {  // a linear and a full one
    SmallModel passed, run;
    const ZeroNorms inPassed(passed, block), inRun(run, block);
    ASSERT_TRUE(passed.model.layers[block].isIdentity);
    run.model.layers[block].isIdentity = false;
    for (size_t pos = 0; pos < 3; ++pos) {
      EXPECT_EQ(logitsOf(passed, 5 + pos, pos), logitsOf(run, 5 + pos, pos));
    }
    EXPECT_EQ(passed.model.layers[block].position, 3u);
  }
}

TEST(IdentityBlockTest, OneZeroNormOrABiasMakesNoIdentity) {
  SmallModel small;
  OwnTensor zeros(*small.model.outputNorm);
  std::fill(zeros.values.begin(), zeros.values.end(), 0.0f);
  small.model.layers[0].attnNorm = &zeros.view;
  ASSERT_TRUE(bindModel(small.loader, small.model, 64));
  EXPECT_FALSE(small.model.layers[0].isIdentity);

  orb::SynthOptions options = smallOptions();
  options.biases = true;
  SmallModel biased(options);
  const ZeroNorms zeroNorms(biased, 3);
  EXPECT_FALSE(biased.model.layers[3].isIdentity);
}

TEST(AblationTest, FullKeepsTheFullMixersOnlyAndLinTheLinearOnes) {
  for (const char* kept : {"full", "lin"}) {
    const bool linear = std::strcmp(kept, "lin") == 0;
    SmallModel small, other;
    for (size_t pos = 0; pos < 3; ++pos) {
      std::vector<float> hidden;
      {
        const EnvironmentVariable variable("QWEN35_ABLATE", kept);
        hidden = hiddenOf(small, pos, pos);
      }
      EXPECT_EQ(hidden, passByHand(other, pos, pos, linear, !linear)) << kept;
    }
    for (const Layer& layer : small.model.layers) {
      EXPECT_EQ(layer.position, layer.isLinear == linear ? 3u : 0u) << kept;
    }
  }
}

TEST(AblationTest, AnyOtherValueChangesNothing) {
  SmallModel plain, small;
  const std::vector<float> expected = hiddenOf(plain, 3, 0);
  for (const char* value : {"", "1", "Full", "full ", "linear", "both"}) {
    const EnvironmentVariable variable("QWEN35_ABLATE", value);
    resetModel(small.model);
    EXPECT_EQ(hiddenOf(small, 3, 0), expected) << "\"" << value << "\"";
  }
}

// ------------------------------------------------------------------------------------ diagnostics

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

template <typename Body>
std::string printedBy(const Body& body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

struct Record {
  uint32_t position;
  std::string name;
  std::vector<float> values;
};

// The records of a dump file; fails at anything that is not a whole record.
std::vector<Record> readDump(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<Record> records;
  Record record;
  while (file.read(reinterpret_cast<char*>(&record.position), 4)) {
    uint32_t length = 0;
    uint64_t count = 0;
    file.read(reinterpret_cast<char*>(&length), 4);
    record.name.resize(std::min<uint32_t>(length, 100));
    file.read(record.name.data(), static_cast<std::streamsize>(record.name.size()));
    file.read(reinterpret_cast<char*>(&count), 8);
    record.values.resize(std::min<uint64_t>(count, 100000));
    file.read(reinterpret_cast<char*>(record.values.data()),
              static_cast<std::streamsize>(4 * record.values.size()));
    if (!file) {
      ADD_FAILURE() << "half a record after " << records.size();
      break;
    }
    records.push_back(record);
  }
  return records;
}

class ForwardDiagnosticsTest : public testing::Test {
 protected:
  ForwardDiagnosticsTest() { std::filesystem::remove(path_); }
  ~ForwardDiagnosticsTest() override { std::filesystem::remove(path_); }

  SmallModel small_;
  const std::string path_ = testing::TempDir() + "orb_dump_" + std::to_string(getpid()) + ".bin";
};

TEST_F(ForwardDiagnosticsTest, NothingIsPrintedUnlessAskedFor) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(printedBy([&] {
              logitsOf(small_, 1, 0);
              hiddenOf(small_, 2, 1);
            }),
            "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(ForwardDiagnosticsTest, PrintsTwoLinesABlockAndAComparisonAtPosition0) {
  SmallModel dumped;
  {
    const EnvironmentVariable dump("QWEN35_HID_DUMP", path_.c_str());
    logitsOf(dumped, 3, 0);
  }
  const std::vector<Record> records = readDump(path_);
  ASSERT_EQ(records.size(), 161u);
  std::vector<float> embedding(kSmallHidden);
  embedRow(small_.model, 3, embedding.data());
  const auto norm = [](const std::vector<float>& v) { return orbtest::norm(v.data(), v.size()); };

  for (const char* value : {"1", ""}) {
    const EnvironmentVariable variable("QWEN35_DBG", value);
    resetModel(small_.model);
    const std::vector<std::string> lines = linesOf(printedBy([&] { logitsOf(small_, 3, 0); }));
    ASSERT_EQ(lines.size(), 65u);
    for (size_t i = 0; i < 32; ++i) {
      const std::vector<float>& x = i == 0 ? embedding : records[5 * i - 1].values;
      char expected[200];
      std::snprintf(expected, sizeof expected, "  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f", i,
                    small_.model.layers[i].isLinear ? "lin" : "ful", norm(x),
                    norm(records[5 * i].values), 0.0);
      EXPECT_EQ(lines[2 * i], expected);
      EXPECT_EQ(lines[2 * i].substr(lines[2 * i].size() - 15), "|xnorm|=  0.000");
      std::snprintf(expected, sizeof expected, "        |ffn|=%.3e",
                    norm(records[5 * i + 3].values));
      EXPECT_EQ(lines[2 * i + 1], expected);
    }
    const std::vector<float>& last = records[160].values;
    double dot = 0;
    for (size_t i = 0; i < kSmallHidden; ++i) dot += static_cast<double>(embedding[i]) * last[i];
    char expected[200];
    std::snprintf(expected, sizeof expected, "  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f",
                  norm(embedding), norm(last), dot / (norm(embedding) * norm(last)));
    EXPECT_EQ(lines[64], expected);
  }
}

TEST_F(ForwardDiagnosticsTest, PrintsNothingAtLaterPositionsNorForHiddenStates) {
  const EnvironmentVariable variable("QWEN35_DBG", "1");
  EXPECT_EQ(printedBy([&] { hiddenOf(small_, 1, 0); }), "");
  EXPECT_EQ(printedBy([&] { logitsOf(small_, 2, 1); }), "");
  EXPECT_EQ(printedBy([&] { logitsOf(small_, 2, 2); }), "");
}

TEST_F(ForwardDiagnosticsTest, EachPassWithLogitsAppends161Records) {
  const EnvironmentVariable variable("QWEN35_HID_DUMP", path_.c_str());
  std::vector<float> embedding(kSmallHidden);
  for (size_t pos = 0; pos < 3; ++pos) {
    embedRow(small_.model, pos + 1, embedding.data());
    EXPECT_EQ(printedBy([&] { logitsOf(small_, pos + 1, pos); }), "");
    const std::vector<Record> all = readDump(path_);
    ASSERT_EQ(all.size(), 161 * (pos + 1));
    const Record* r = all.data() + 161 * pos;
    std::vector<float> x = embedding;
    for (size_t i = 0; i < 32; ++i, r += 5) {
      const char* stages[] = {"attn_mm", "attn_res", "post_norm", "ffn_mm", "layer_out"};
      for (size_t s = 0; s < 5; ++s) {
        EXPECT_EQ(r[s].name, "S" + std::to_string(i) + "." + stages[s]);
        EXPECT_EQ(r[s].position, pos);
        ASSERT_EQ(r[s].values.size(), kSmallHidden);
      }
      std::vector<float> normed(kSmallHidden);
      const Layer& layer = small_.model.layers[i];
      rmsNorm(r[1].values.data(), reinterpret_cast<const float*>(layer.postAttentionNorm->data),
              normed.data(), kSmallHidden, 1e-6f);
      EXPECT_EQ(r[2].values, normed);
      for (size_t j = 0; j < kSmallHidden; ++j) {
        EXPECT_EQ(r[1].values[j], x[j] + r[0].values[j]);
        EXPECT_EQ(r[4].values[j], r[1].values[j] + r[3].values[j]);
      }
      x = r[4].values;
    }
    EXPECT_EQ(r->name, "result_norm");
    EXPECT_EQ(r->position, pos);
    EXPECT_EQ(r->values, x) << "before the final norm";
  }
}

TEST_F(ForwardDiagnosticsTest, TheDumpHolds32BitsOfThePosition) {
  const EnvironmentVariable variable("QWEN35_HID_DUMP", path_.c_str());
  logitsOf(small_, 1, (size_t{1} << 32) + 5);
  const std::vector<Record> records = readDump(path_);
  ASSERT_EQ(records.size(), 161u);
  EXPECT_EQ(records[0].position, 5u);
}

TEST_F(ForwardDiagnosticsTest, HiddenStatesAloneAreNotDumped) {
  const EnvironmentVariable variable("QWEN35_HID_DUMP", path_.c_str());
  hiddenOf(small_, 1, 0);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ForwardDiagnosticsTest, ADumpThatCantBeOpenedIsLeftOut) {
  SmallModel plain;
  const std::vector<float> expected = logitsOf(plain, 1, 0);
  for (const char* path : {"", "/nonexistent/directory/dump.bin"}) {
    const EnvironmentVariable variable("QWEN35_HID_DUMP", path);
    resetModel(small_.model);
    std::vector<float> logits;
    EXPECT_EQ(printedBy([&] { logits = logitsOf(small_, 1, 0); }), "");
    EXPECT_EQ(logits, expected);
  }
}

TEST_F(ForwardDiagnosticsTest, TimingPrintsOneLineForHiddenStatesOnly) {
  const std::regex line(
      "\\[timing\\] hidden fwd pos=([0-9]+) ([0-9]+) ms \\(lin ([0-9]+) full ([0-9]+) norm "
      "([0-9]+) ffn ([0-9]+)\\)\n");
  for (const char* value : {"1", ""}) {
    const EnvironmentVariable variable("QWEN35_TIMING", value);
    resetModel(small_.model);
    EXPECT_EQ(printedBy([&] { logitsOf(small_, 1, 0); }), "");
    for (const size_t pos : {1, 2, 3}) {
      const std::string printed = printedBy([&] { hiddenOf(small_, 1, pos); });
      std::smatch match;
      ASSERT_TRUE(std::regex_match(printed, match, line)) << printed;
      EXPECT_EQ(match[1], std::to_string(pos));
      const auto milliseconds = [&](size_t i) { return std::stod(match[i]); };
      // Five rounded numbers: the parts may exceed the whole by their rounding only.
      EXPECT_LE(milliseconds(3) + milliseconds(4) + milliseconds(5) + milliseconds(6),
                milliseconds(2) + 2.5);
    }
  }
}

TEST_F(ForwardDiagnosticsTest, DiagnosticsDoNotChangeTheResult) {
  SmallModel plain;
  const EnvironmentVariable a("QWEN35_DBG", "1"), b("QWEN35_DBG2", "1"), c("QWEN35_DBG3", "1"),
      d("QWEN35_DBG4", "1"), e("QWEN35_TIMING", "1"), f("QWEN35_HID_DUMP", path_.c_str());
  std::vector<float> logits, hidden;
  (void)printedBy([&] {
    logits = logitsOf(small_, 1, 0);
    hidden = hiddenOf(small_, 2, 1);
  });
  unsetenv("QWEN35_DBG");
  unsetenv("QWEN35_DBG2");
  unsetenv("QWEN35_DBG3");
  unsetenv("QWEN35_DBG4");
  unsetenv("QWEN35_TIMING");
  unsetenv("QWEN35_HID_DUMP");
  EXPECT_EQ(logitsOf(plain, 1, 0), logits);
  EXPECT_EQ(hiddenOf(plain, 2, 1), hidden);
}

}  // namespace
}  // namespace qwen35
