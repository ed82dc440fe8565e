// Synthetic models open, bind, and have the values they promise.
#include "synth/synth.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unordered_set>

#include "format/container_builder.h"
#include "format/loader.h"
#include "model/validation.h"
#include "model/weight_rows.h"
#include "synth/random_blocks.h"
#include "tokenizer/tokenizer.h"

namespace orb {
namespace {

using kiv::QuantType;

// A path for a model, free at first, empty again at the end.
class Place {
 public:
  Place() { std::filesystem::remove(file_.path()); }
  const char* path() const { return file_.path(); }
  std::string part() const { return std::string(path()) + ".part"; }

 private:
  orbtest::TempFile file_{{}};
};

// Small enough for a test: few heads, one of them in the last group.
SynthOptions smallOptions() {
  SynthOptions options;
  options.hidden = 64;
  options.ffn = 96;
  options.vocabulary = 200;
  options.queryHeads = 2;
  options.valueHeads = 2;
  return options;
}

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void expectBinds(const kiv::ORBLoader& loader) {
  for (const auto& defect : qwen35::findGlobalDefects(loader)) {
    ADD_FAILURE() << defect.tensor << ": " << defect.expected << ", " << defect.found;
  }
  for (size_t block = 0; block < 32; ++block) {
    for (const auto& defect : qwen35::findBlockDefects(loader, block)) {
      ADD_FAILURE() << defect.tensor << ": " << defect.expected << ", " << defect.found;
    }
  }
}

// Writes, opens and checks the model; `look` then examines it.
template <typename Look>
void withModel(const SynthOptions& options, const Look& look) {
  const Place place;
  const kiv::Status status = writeSynthModel(place.path(), options);
  ASSERT_TRUE(status.ok()) << status.message;
  kiv::ORBLoader loader;
  const kiv::Status opened = loader.open(place.path());
  ASSERT_TRUE(opened.ok()) << opened.message;
  expectBinds(loader);
  look(loader);
}

std::vector<uint64_t> shapeOf(const kiv::ORBLoader& loader, const std::string& name) {
  const kiv::TensorView* view = loader.findTensor(name);
  if (view == nullptr) return {};
  return {view->dims, view->dims + view->ndims};
}

using Shape = std::vector<uint64_t>;

TEST(SynthModelTest, TheDefaultsMakeAModelThatBinds) {
  withModel(SynthOptions(), [](const kiv::ORBLoader& loader) {
    std::string architecture;
    EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
    EXPECT_EQ(architecture, "qwen35");
    EXPECT_EQ(shapeOf(loader, "token_embd.weight"), (Shape{256, 512}));
    EXPECT_EQ(shapeOf(loader, "blk.0.attn_qkv.weight"), (Shape{256, 8192}));
    EXPECT_EQ(shapeOf(loader, "blk.0.ssm_out.weight"), (Shape{4096, 256}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_q.weight"), (Shape{256, 8192}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_k.weight"), (Shape{256, 1024}));
    EXPECT_EQ(shapeOf(loader, "blk.31.attn_output.weight"), (Shape{4096, 256}));
    EXPECT_EQ(loader.findTensor("blk.3.attn_q.bias"), nullptr);
    EXPECT_EQ(loader.findTensor("blk.32.attn_norm.weight"), nullptr);
  });
}

TEST(SynthModelTest, FewerHeadsMeanFewerRows) {
  SynthOptions options = smallOptions();
  options.valueHeads = 16;
  options.queryHeads = 8;
  withModel(options, [](const kiv::ORBLoader& loader) {
    EXPECT_EQ(shapeOf(loader, "blk.0.attn_qkv.weight"), (Shape{64, 6144}));
    EXPECT_EQ(shapeOf(loader, "blk.0.attn_gate.weight"), (Shape{64, 2048}));
    EXPECT_EQ(shapeOf(loader, "blk.0.ssm_out.weight"), (Shape{2048, 64}));
    EXPECT_EQ(shapeOf(loader, "blk.0.ssm_alpha.weight"), (Shape{64, 16}));
    EXPECT_EQ(shapeOf(loader, "blk.0.ssm_a"), (Shape{32}));
    EXPECT_EQ(shapeOf(loader, "blk.0.ssm_conv1d.weight"), (Shape{4, 8192}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_q.weight"), (Shape{64, 4096}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_output.weight"), (Shape{2048, 64}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_k.weight"), (Shape{64, 512}));
    EXPECT_EQ(shapeOf(loader, "blk.3.attn_v.weight"), (Shape{64, 512}));
  });
}

TEST(SynthModelTest, FamiliesHaveTypesOfTheirOwn) {
  SynthOptions options = smallOptions();
  options.hidden = options.ffn = 256;
  options.embeddingType = QuantType::Q6_K;
  options.attentionType = QuantType::Q5_K;
  options.linearType = QuantType::Q4_K;
  options.smallType = QuantType::Q8_0;
  options.ffnType = QuantType::BF16;
  options.biases = true;
  withModel(options, [](const kiv::ORBLoader& loader) {
    const auto type = [&](const char* name) {
      return static_cast<QuantType>(loader.findTensor(name)->type);
    };
    EXPECT_EQ(type("token_embd.weight"), QuantType::Q6_K);
    for (const char* name : {"blk.3.attn_q.weight", "blk.3.attn_output.weight"}) {
      EXPECT_EQ(type(name), QuantType::Q5_K) << name;
    }
    for (const char* name :
         {"blk.0.attn_qkv.weight", "blk.0.attn_gate.weight", "blk.0.ssm_out.weight"}) {
      EXPECT_EQ(type(name), QuantType::Q4_K) << name;
    }
    for (const char* name : {"blk.0.ssm_alpha.weight", "blk.0.ssm_beta.weight", "blk.3.attn_q.bias",
                             "blk.3.attn_k.bias", "blk.3.attn_v.bias"}) {
      EXPECT_EQ(type(name), QuantType::Q8_0) << name;
    }
    for (const char* name : {"blk.0.ffn_gate.weight", "blk.3.ffn_down.weight"}) {
      EXPECT_EQ(type(name), QuantType::BF16) << name;
    }
    for (const char* name : {"output_norm.weight", "blk.0.ssm_conv1d.weight", "blk.0.ssm_a",
                             "blk.3.attn_q_norm.weight"}) {
      EXPECT_EQ(type(name), QuantType::F32) << name;
    }
  });
}

TEST(SynthModelTest, ThePatternDecidesTheKindOfEveryBlock) {
  SynthOptions options = smallOptions();
  for (const std::string pattern : {"l", "f", "fl", "llllf"}) {
    options.pattern = pattern;
    withModel(options, [&](const kiv::ORBLoader& loader) {
      for (size_t block = 0; block < 32; ++block) {
        const std::string prefix = "blk." + std::to_string(block);
        const bool linear = pattern[block % pattern.size()] == 'l';
        EXPECT_EQ(loader.findTensor(prefix + ".ssm_out.weight") != nullptr, linear) << prefix;
        EXPECT_EQ(loader.findTensor(prefix + ".attn_q.weight") != nullptr, !linear) << prefix;
      }
    });
  }
}

TEST(SynthModelTest, SharedBlocksPointToTheSameBytesOthersDoNot) {
  SynthOptions options = smallOptions();
  for (const bool shared : {true, false}) {
    options.shared = shared;
    withModel(options, [&](const kiv::ORBLoader& loader) {
      const auto same = [&](const char* a, const char* b) {
        return loader.findTensor(a)->data == loader.findTensor(b)->data;
      };
      EXPECT_EQ(same("blk.0.ssm_out.weight", "blk.30.ssm_out.weight"), shared);
      EXPECT_EQ(same("blk.0.attn_norm.weight", "blk.1.attn_norm.weight"), shared);
      EXPECT_EQ(same("blk.3.attn_q.weight", "blk.31.attn_q.weight"), shared);
      EXPECT_FALSE(same("blk.0.ffn_up.weight", "blk.3.ffn_up.weight"));
    });
  }
}

TEST(SynthModelTest, ValuesHaveThePromisedSpread) {
  SynthOptions options;
  options.ffn = 256;
  options.pattern = "ff";
  const QuantType types[] = {QuantType::F32,  QuantType::BF16, QuantType::Q8_0,
                             QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K};
  for (const QuantType type : types) {
    options.embeddingType = options.ffnType = type;
    withModel(options, [&](const kiv::ORBLoader& loader) {
      const auto spread = [&](const char* name, double expected) {
        const kiv::TensorView* view = loader.findTensor(name);
        std::vector<float> row(view->dims[0]);
        double sum = 0;
        double squares = 0;
        for (size_t r = 0; r < view->dims[1]; ++r) {
          qwen35::rowToF32(view, r, row.size(), row.data());
          for (const float value : row) {
            sum += value;
            squares += static_cast<double>(value) * value;
          }
        }
        const double count = static_cast<double>(view->dims[0] * view->dims[1]);
        EXPECT_NEAR(sum / count, 0, 0.02 * expected) << kiv::quantTypeName(type) << name;
        EXPECT_NEAR(std::sqrt(squares / count), expected, 0.05 * expected)
            << kiv::quantTypeName(type) << name;
      };
      spread("token_embd.weight", 1.0 / 16);
      spread("blk.0.ffn_down.weight", 0.2 / 16);
    });
  }
}

TEST(SynthModelTest, DecayIsNegativeAndTimeStepsAreSmall) {
  withModel(smallOptions(), [](const kiv::ORBLoader& loader) {
    for (size_t i = 0; i < 32; ++i) {
      float a = 0;
      float dt = 0;
      std::memcpy(&a, loader.findTensor("blk.0.ssm_a")->data + 4 * i, sizeof a);
      std::memcpy(&dt, loader.findTensor("blk.0.ssm_dt.bias")->data + 4 * i, sizeof dt);
      EXPECT_LT(a, -0.4f);
      EXPECT_LT(dt, -1.5f);
      EXPECT_GT(dt, -6.5f);
    }
  });
}

TEST(SynthModelTest, OneSeedGivesTheSameBytesOnEveryMachine) {
  SynthOptions options = smallOptions();
  options.hidden = options.ffn = 256;
  options.seed = 42;
  options.embeddingType = QuantType::Q6_K;
  options.attentionType = QuantType::Q5_K;
  options.linearType = QuantType::Q4_K;
  options.smallType = QuantType::Q8_0;
  options.ffnType = QuantType::BF16;
  const Place place;
  ASSERT_TRUE(writeSynthModel(place.path(), options).ok());
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(place.path()).ok());
  EXPECT_EQ(kiv::orb2::crc64(loader.reader.sectionData(kiv::orb2::SectionType::WeightData),
                             loader.reader.sectionSize(kiv::orb2::SectionType::WeightData)),
            0x09EC2917E2294EC6u);
}

TEST(SynthModelTest, AnotherSeedGivesOtherWeights) {
  const Place first;
  const Place second;
  SynthOptions options = smallOptions();
  ASSERT_TRUE(writeSynthModel(first.path(), options).ok());
  options.seed = 2;
  ASSERT_TRUE(writeSynthModel(second.path(), options).ok());
  const auto a = readFile(first.path());
  const auto b = readFile(second.path());
  ASSERT_EQ(a.size(), b.size());
  EXPECT_NE(a, b);
}

TEST(SynthModelTest, AnExistingFileIsKeptUnlessItMayBeReplaced) {
  const Place place;
  SynthOptions options = smallOptions();
  ASSERT_TRUE(writeSynthModel(place.path(), options).ok());
  const auto before = readFile(place.path());
  options.seed = 3;
  EXPECT_FALSE(writeSynthModel(place.path(), options).ok());
  EXPECT_EQ(readFile(place.path()), before);
  options.overwrite = true;
  EXPECT_TRUE(writeSynthModel(place.path(), options).ok());
  EXPECT_NE(readFile(place.path()), before);
}

TEST(SynthModelTest, ProgressRunsToTheEndAndStoppingLeavesNothing) {
  const Place place;
  uint64_t last = 0;
  uint64_t total = 0;
  ASSERT_TRUE(writeSynthModel(place.path(), smallOptions(), [&](uint64_t done, uint64_t all) {
                EXPECT_GT(done, last);
                last = done;
                total = all;
                return true;
              }).ok());
  EXPECT_EQ(last, total);

  const Place stopped;
  int calls = 0;
  const kiv::Status status = writeSynthModel(stopped.path(), smallOptions(),
                                             [&](uint64_t, uint64_t) { return ++calls < 3; });
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(calls, 3);
  EXPECT_FALSE(std::filesystem::exists(stopped.path()));
  EXPECT_FALSE(std::filesystem::exists(stopped.part()));
}

TEST(SynthOptionsTest, WhatCannotBeWrittenIsRefusedInWords) {
  const auto message = [](auto change) {
    SynthOptions options = smallOptions();
    change(options);
    const kiv::Status status = checkSynthOptions(options);
    const Place place;
    EXPECT_EQ(writeSynthModel(place.path(), options).message, status.message);
    EXPECT_FALSE(std::filesystem::exists(place.path()));
    return status.message;
  };
  using O = SynthOptions;
  EXPECT_EQ(message([](O& o) { o.hidden = 0; }),
            "synth: hidden size: expected 1 to 65536, found 0");
  EXPECT_EQ(message([](O& o) { o.ffn = 0; }), "synth: ffn size: expected 1 to 1048576, found 0");
  EXPECT_EQ(message([](O& o) { o.vocabulary = 127; }),
            "synth: vocabulary: expected 128 to 4194304, found 127");
  EXPECT_EQ(message([](O& o) { o.queryHeads = 17; }),
            "synth: query heads: expected 1 to 16, found 17");
  EXPECT_EQ(message([](O& o) { o.valueHeads = 0; }),
            "synth: value heads: expected 1 to 32, found 0");
  EXPECT_EQ(message([](O& o) { o.pattern = "lx"; }),
            "synth: block pattern: expected 1 to 32 letters 'l' (linear) and 'f' (full), found "
            "\"lx\"");
  EXPECT_NE(message([](O& o) { o.pattern = ""; }), "");
  EXPECT_EQ(message([](O& o) { o.linearType = QuantType::Q4_K; }),
            "synth: row length of blk.0.attn_qkv.weight: expected a multiple of 256 for Q4_K, "
            "found 64");
  EXPECT_EQ(message([](O& o) { o.embeddingType = QuantType::Q4_0; }),
            "synth: type of token_embd.weight: expected F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K, "
            "found Q4_0");
}

TEST(SynthTokenizerTest, EveryTokenIsDistinct) {
  for (const TokenizerForm form : {TokenizerForm::SpaceMarker, TokenizerForm::ByteLevel}) {
    const kiv::TokenizerData data = makeSynthTokenizer(100000, form);
    EXPECT_EQ(data.tokens.size(), 100000u);
    EXPECT_EQ(data.types.size(), 100000u);
    const std::unordered_set<std::string> distinct(data.tokens.begin(), data.tokens.end());
    EXPECT_EQ(distinct.size(), data.tokens.size());
  }
}

TEST(SynthTokenizerTest, TheSmallestVocabularyHoldsEveryMerge) {
  for (const TokenizerForm form : {TokenizerForm::SpaceMarker, TokenizerForm::ByteLevel}) {
    kiv::Tokenizer tokenizer;
    ASSERT_TRUE(tokenizer.load(makeSynthTokenizer(kSynthMinVocabulary, form)).ok());
    EXPECT_EQ(tokenizer.tokenCount(), kSynthMinVocabulary);
    EXPECT_EQ(tokenizer.byteLevel(), form == TokenizerForm::ByteLevel);
    EXPECT_EQ(tokenizer.specialCount(), 3u);
    EXPECT_EQ(tokenizer.bosId(), -1);
    EXPECT_EQ(tokenizer.eosId(), tokenizer.tokenToId("<|im_end|>"));
    EXPECT_GT(tokenizer.tokenToId("<|im_start|>"), 0);
    EXPECT_GE(tokenizer.tokenToId("<|endoftext|>"), 0);
    EXPECT_EQ(tokenizer.unknownId(), tokenizer.tokenToId("\uFFFD"));
  }
}

TEST(SynthTokenizerTest, PrintableTextComesThroughAndMergesShortenIt) {
  kiv::Tokenizer tokenizer;
  ASSERT_TRUE(tokenizer.load(makeSynthTokenizer(512, TokenizerForm::SpaceMarker)).ok());
  std::string text;
  for (char c = ' '; c <= '~'; ++c) text += c;
  text += "\nthe singer and you\n";
  std::vector<int32_t> ids;
  ASSERT_TRUE(tokenizer.encode(text, ids, true).ok());
  std::string back;
  ASSERT_TRUE(tokenizer.decode(ids, back).ok());
  EXPECT_EQ(back, text);
  ASSERT_TRUE(tokenizer.encode(" the and you", ids, true).ok());
  EXPECT_EQ(ids.size(), 3u);
}

}  // namespace
}  // namespace orb
