// What `orb info` gathers and finds, on good files and on files spoiled in one place.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "format/container_builder.h"
#include "orb/info_report.h"
#include "synth/synth.h"

namespace orb {
namespace {

using kiv::orb2::SectionType;
using orbtest::ContainerBuilder;
using orbtest::poke;

// A small model as bytes, written once.
const std::vector<uint8_t>& modelFile() {
  static const std::vector<uint8_t> file = [] {
    SynthOptions options;
    options.hidden = options.ffn = 32;
    options.vocabulary = 160;
    options.queryHeads = options.valueHeads = 1;
    options.overwrite = true;
    const orbtest::TempFile place({});
    const kiv::Status status = writeSynthModel(place.path(), options);
    EXPECT_TRUE(status.ok()) << status.message;
    std::ifstream stream(place.path(), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(stream), {});
  }();
  return file;
}

InfoReport examine(const std::vector<uint8_t>& file, const char* message = "") {
  const orbtest::TempFile onDisk(file);
  kiv::ORBLoader loader;
  EXPECT_EQ(loader.open(onDisk.path()).message, message);
  EXPECT_TRUE(loader.reader.opened());
  InfoReport report;
  report.file = "model.orb";
  report.fileBytes = file.size();
  report.context = 8192;
  collectInfo(loader, report);
  checkModel(loader, report);
  // Both forms can be made of whatever was found.
  EXPECT_FALSE(infoText(report).empty());
  const std::string json = infoJson(report).dump(2, ' ', false, Json::error_handler_t::replace);
  EXPECT_TRUE(Json::accept(json));
  return report;
}

// Where the index entry of a tensor lies in the model file.
uint64_t entryOffset(const std::string& name) {
  const auto& file = modelFile();
  std::string padded = name;
  padded.resize(64, '\0');
  const auto found = std::search(file.begin(), file.end(), padded.begin(), padded.end());
  EXPECT_NE(found, file.end()) << name;
  return static_cast<uint64_t>(found - file.begin());
}

template <typename Value>
std::vector<uint8_t> spoiled(const std::string& tensor, size_t field, Value value) {
  std::vector<uint8_t> file = modelFile();
  poke(file, entryOffset(tensor) + field, value);
  return file;
}

bool finds(const InfoReport& report, bool failure, const std::string& subject) {
  return std::any_of(report.findings.begin(), report.findings.end(), [&](const auto& finding) {
    return finding.failure == failure && finding.subject == subject;
  });
}

constexpr size_t kTypeField = 66;
constexpr size_t kDimsField = 72;
constexpr size_t kOffsetField = 104;
constexpr size_t kSizeField = 112;

TEST(InfoTest, AGoodModelPassesAndIsDescribed) {
  const InfoReport report = examine(modelFile());
  EXPECT_TRUE(report.findings.empty());
  EXPECT_FALSE(report.failed());
  EXPECT_EQ(report.header.tensorCount, 426u);
  EXPECT_EQ(report.model.tensors.size(), 426u);
  EXPECT_EQ(report.model.blocks, "lllflllflllflllflllflllflllflllf");
  EXPECT_EQ(report.model.linearBlocks, 24u);
  EXPECT_EQ(report.model.fullBlocks, 8u);
  EXPECT_EQ(report.model.hidden, 32u);
  EXPECT_EQ(report.model.vocabulary, 160u);
  EXPECT_TRUE(report.tokenizer.readable);
  EXPECT_EQ(report.tokenizer.tokens, 160u);
  EXPECT_EQ(report.tokenizer.special, 3u);
  EXPECT_FALSE(report.tokenizer.byteLevel);
}

TEST(InfoTest, MemoryIsReckonedFromTheKindsOfBlocks) {
  const MemoryFacts memory = examine(modelFile()).model.memory;
  EXPECT_EQ(memory.mapping, modelFile().size());
  EXPECT_EQ(memory.cachePerPosition, 8u * 2 * 4 * 256 * 4);
  EXPECT_EQ(memory.states, 2u * 24 * (128 * 128 * 32 + 3 * 8192) * 4);
}

TEST(InfoTest, BytesPerTokenCountSharedWeightsEveryTime) {
  const InfoReport report = examine(modelFile());
  uint64_t all = 0;
  uint64_t stored = 0;
  for (const TensorFacts& tensor : report.model.tensors) {
    all += tensor.size;
    if (tensor.sharedWith.empty()) stored += tensor.size;
  }
  EXPECT_EQ(report.model.readPerToken, all);
  EXPECT_LT(stored, all / 8);
  const auto shared =
      std::find_if(report.model.tensors.begin(), report.model.tensors.end(),
                   [](const TensorFacts& tensor) { return tensor.name == "blk.1.ssm_out.weight"; });
  EXPECT_EQ(shared->sharedWith, "blk.0.ssm_out.weight");
}

TEST(InfoTest, AWrongTypeIsNamed) {
  const InfoReport report = examine(spoiled("blk.3.attn_q.weight", kTypeField, uint16_t{3}));
  EXPECT_TRUE(report.failed());
  EXPECT_TRUE(finds(report, true, "blk.3.attn_q.weight"));
  EXPECT_NE(infoText(report).find("FAILED  blk.3.attn_q.weight: expected type "),
            std::string::npos);
}

TEST(InfoTest, TooManyRowsAreNamed) {
  const InfoReport report =
      examine(spoiled("blk.0.attn_qkv.weight", kDimsField + 8, uint64_t{8193}));
  EXPECT_TRUE(finds(report, true, "blk.0.attn_qkv.weight"));
}

TEST(InfoTest, BytesOutsideTheFileAreNamed) {
  for (const uint64_t offset : {uint64_t{1} << 40, UINT64_MAX, UINT64_MAX - 63}) {
    const InfoReport report = examine(spoiled("output_norm.weight", kOffsetField, offset));
    EXPECT_TRUE(finds(report, true, "output_norm.weight")) << offset;
  }
}

TEST(InfoTest, AbsurdSizesAreReportedAsTheyStand) {
  const InfoReport report = examine(spoiled("token_embd.weight", kSizeField, UINT64_MAX));
  EXPECT_TRUE(finds(report, true, "token_embd.weight"));
  EXPECT_EQ(report.model.readPerToken, UINT64_MAX);
  // 2^63 elements in each of 160 rows: the product wraps to 0.
  const InfoReport wide = examine(spoiled("token_embd.weight", kDimsField, uint64_t{1} << 63));
  EXPECT_TRUE(wide.failed());
  EXPECT_EQ(wide.model.parameters, UINT64_MAX);
}

TEST(InfoTest, AnIndexOutOfOrderIsNamed) {
  const InfoReport report = examine(spoiled("blk.0.attn_gate.weight", 0, 'x'));
  EXPECT_TRUE(finds(report, true, "tensor index"));
}

TEST(InfoTest, AnotherArchitectureIsRefused) {
  std::vector<uint8_t> file = modelFile();
  const std::string name = "qwen35";
  const auto at = std::search(file.begin(), file.end(), name.begin(), name.end());
  ASSERT_NE(at, file.end());
  *at = 'Q';
  EXPECT_TRUE(finds(examine(file), true, "general.architecture"));
}

TEST(InfoTest, AFileWithoutTokenizerIsStillDescribed) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35");
  builder.tensor("token_embd.weight", kiv::QuantType::F32, {2, 3}, orbtest::Bytes().zeros(24));
  const InfoReport report = examine(builder.build(), "ORBLoader: no tokenizer section");
  EXPECT_EQ(report.model.hidden, 2u);
  EXPECT_FALSE(report.tokenizer.readable);
  EXPECT_TRUE(finds(report, true, "tokenizer"));
}

TEST(InfoTest, WithoutAnyTensorEveryBlockIsMissing) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35").tokenizer(makeSynthTokenizer(128, {}));
  const InfoReport report = examine(builder.build());
  EXPECT_EQ(report.model.blocks, std::string(32, '-'));
  EXPECT_TRUE(finds(report, true, "token_embd.weight"));
  EXPECT_TRUE(finds(report, true, "blk.31.attn_norm.weight"));
  EXPECT_EQ(report.model.memory.cachePerPosition, 0u);
}

TEST(InfoTest, AWeakTokenizerIsRemarkedNotRefused) {
  kiv::TokenizerData data = makeSynthTokenizer(128, TokenizerForm::SpaceMarker);
  data.types[1] = 1;             // <|im_start|> is ordinary text
  data.tokens[2] = "<|end|>";    // <|im_end|> is missing
  data.specialIds[3] = 128;      // beyond the tokens
  data.merges.push_back("q q");  // makes no token
  data.merges.push_back("nospace");
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35").tokenizer(data);
  builder.tensor("token_embd.weight", kiv::QuantType::F32, {1, 100}, orbtest::Bytes().zeros(400));
  const InfoReport report = examine(builder.build());
  EXPECT_TRUE(finds(report, false, "<|im_start|>"));
  EXPECT_TRUE(finds(report, false, "<|im_end|>"));
  EXPECT_TRUE(finds(report, false, "id of padding"));
  EXPECT_TRUE(finds(report, false, "merge rules"));
  EXPECT_TRUE(finds(report, false, "tokens"));

  data.types.pop_back();
  ContainerBuilder fewTypes;
  fewTypes.tokenizer(data);
  EXPECT_TRUE(finds(examine(fewTypes.build()), false, "token types"));
}

TEST(InfoTest, MetadataOfEveryTypeIsShown) {
  using kiv::orb2::MetaType;
  using orbtest::Bytes;
  ContainerBuilder builder;
  builder.meta("text", "line\nbreak").meta("number", 7);
  builder.metaEntry(Bytes().metaKey("i", MetaType::I32).i32(-3));
  builder.metaEntry(Bytes().metaKey("f", MetaType::F32).f32(0.5f));
  builder.metaEntry(Bytes().metaKey("u", MetaType::U64).u64(UINT64_MAX));
  builder.metaEntry(Bytes().metaKey("a", MetaType::U32Array).u32(2).u32(4).u32(5));
  builder.tokenizer(makeSynthTokenizer(128, {}));
  const InfoReport report = examine(builder.build());
  const Json json = infoJson(report)["metadata"];
  EXPECT_EQ(json[0]["value"], "line\nbreak");
  EXPECT_EQ(json[1]["value"], 7);
  EXPECT_EQ(json[2]["value"], -3);
  EXPECT_EQ(json[3]["value"], 0.5);
  EXPECT_EQ(json[4]["value"], UINT64_MAX);
  EXPECT_EQ(json[5]["value"], Json({4, 5}));
  const std::string text = infoText(report);
  for (const char* shown : {"line\\nbreak", "-3", "0.5", "18446744073709551615", "4, 5"}) {
    EXPECT_NE(text.find(shown), std::string::npos) << shown;
  }
}

TEST(InfoTest, NamesFromTheFileCannotSteerTheTerminal) {
  ContainerBuilder builder;
  builder.meta("\x1b[2Jkey", "\x1b[31mvalue").tokenizer(makeSynthTokenizer(128, {}));
  builder.tensor("\x1b[1mname", kiv::QuantType::F32, {1}, orbtest::Bytes().f32(1));
  EXPECT_EQ(infoText(examine(builder.build())).find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace orb
