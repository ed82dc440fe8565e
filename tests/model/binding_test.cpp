// Binding of weights by name, the check that comes before the first of them is read, and the state
// that belongs to the blocks.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "model/kernels/kernel_table.h"
#include "model/model.h"
#include "model/model_file.h"
#include "model/validation.h"
#include "system/system.h"

namespace qwen35 {
namespace {

using kiv::QuantType;
using orbtest::ModelFile;
using orbtest::TensorSpec;

constexpr size_t kContext = 16;

// What became of a file.
struct Bound {
  orbtest::TempFile file;
  kiv::ORBLoader loader;
  Model model;
  bool layers = false;
  bool global = false;
  std::vector<BindingDefect> defects;  // of all blocks, then of the global tensors

  explicit Bound(const ModelFile& content, size_t maxContext = kContext) : file(content.build()) {
    const kiv::Status status = loader.open(file.path());
    EXPECT_TRUE(status.ok()) << status.message;
    layers = initLayers(loader, model, maxContext);
    global = layers && bindModel(loader, model, maxContext);
    for (size_t i = 0; i < kLayerCount; ++i) append(findBlockDefects(loader, i));
    append(findGlobalDefects(loader));
  }
  bool usable() const { return layers && global; }

 private:
  void append(const std::vector<BindingDefect>& more) {
    defects.insert(defects.end(), more.begin(), more.end());
  }
};

// ------------------------------------------------------------------------------- what is refused

enum class Step { Layers, Model };

struct Defect {
  std::string what;
  std::string tensor;
  std::function<void(TensorSpec&)> spoil;
  std::string expected;
  std::string found;
};

Step stepOf(const std::string& tensor) {
  return tensor.rfind("blk.", 0) == 0 ? Step::Layers : Step::Model;
}

void expectRefused(const Defect& defect) {
  SCOPED_TRACE(defect.tensor + ": " + defect.what);
  ModelFile file;
  defect.spoil(file[defect.tensor]);
  const Bound bound(file);
  EXPECT_EQ(bound.layers, stepOf(defect.tensor) == Step::Model);
  EXPECT_FALSE(bound.usable());
  ASSERT_EQ(bound.defects.size(), 1u);
  EXPECT_EQ(bound.defects[0].tensor, defect.tensor);
  EXPECT_EQ(bound.defects[0].expected, defect.expected);
  EXPECT_EQ(bound.defects[0].found, defect.found);
}

void expectAccepted(const std::string& tensor, const std::string& what, const TensorSpec& spec) {
  SCOPED_TRACE(tensor + ": " + what);
  ModelFile file;
  file[tensor] = spec;
  const Bound bound(file);
  EXPECT_TRUE(bound.usable());
  for (const BindingDefect& defect : bound.defects) {
    ADD_FAILURE() << defect.tensor << ": " << defect.expected << ", found " << defect.found;
  }
}

std::function<void(TensorSpec&)> become(TensorSpec spec) {
  return [spec](TensorSpec& tensor) { tensor = spec; };
}

// A projection and the most rows and elements of a row that it may have.
struct MatrixRole {
  const char* tensor;
  uint64_t maxRows;
  uint64_t maxCols;
};
constexpr MatrixRole kMatrices[] = {
    {"blk.0.ffn_up.weight", ModelFile::kFfn, ModelFile::kHidden},
    {"blk.31.ffn_down.weight", ModelFile::kHidden, ModelFile::kFfn},
    {"blk.0.attn_qkv.weight", 8192, ModelFile::kHidden},
    {"blk.1.attn_gate.weight", 4096, ModelFile::kHidden},
    {"blk.2.ssm_beta.weight", 32, ModelFile::kHidden},
    {"blk.4.ssm_alpha.weight", 32, ModelFile::kHidden},
    {"blk.30.ssm_out.weight", ModelFile::kHidden, 4096},
    {"blk.3.attn_q.weight", 8192, ModelFile::kHidden},
    {"blk.3.attn_k.weight", 1024, ModelFile::kHidden},
    {"blk.7.attn_v.weight", 1024, ModelFile::kHidden},
    {"blk.31.attn_output.weight", ModelFile::kHidden, 4096},
};

// A vector that is read in place, and how many elements of it are read.
struct VectorRole {
  const char* tensor;
  uint64_t elements;
};
constexpr VectorRole kVectors[] = {
    {"blk.0.attn_norm.weight", ModelFile::kHidden},
    {"blk.3.post_attention_norm.weight", ModelFile::kHidden},
    {"blk.1.ssm_dt.bias", 32},
    {"blk.2.ssm_a", 32},
    {"blk.0.ssm_norm.weight", 128},
    {"blk.7.attn_q_norm.weight", 256},
    {"blk.31.attn_k_norm.weight", 256},
    {"output_norm.weight", ModelFile::kHidden},
};

std::string elements(uint64_t n) { return std::to_string(n) + " elements"; }
std::string rows(uint64_t n) { return std::to_string(n) + " rows"; }

TEST(ValidationTest, AModelWithoutDefectsBinds) {
  const Bound bound{ModelFile()};
  EXPECT_TRUE(bound.usable());
  EXPECT_TRUE(bound.defects.empty());
}

TEST(ValidationTest, AMatrixMayHaveTheSixConvertibleTypesOnly) {
  constexpr const char* kWords = "type F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K";
  const auto spoil = [](uint16_t type) {
    return [type](TensorSpec& tensor) { tensor.type = type; };
  };
  std::vector<const char*> names = {"blk.0.ffn_gate.weight", "token_embd.weight"};
  for (const MatrixRole& role : kMatrices) names.push_back(role.tensor);
  for (const char* name : names) {
    expectRefused({"F16", name, spoil(1), kWords, "type F16 (1)"});
    expectRefused({"Q4_0", name, spoil(3), kWords, "type Q4_0 (3)"});
    expectRefused({"IQ4_XS", name, spoil(8), kWords, "type IQ4_XS (8)"});
  }
  expectRefused({"9", names[0], spoil(9), kWords, "type ? (9)"});
  expectRefused({"10", names[0], spoil(10), kWords, "type ? (10)"});
  expectRefused({"11", names[0], spoil(11), kWords, "type IQ4_XS (11)"});
  expectRefused({"256 + 0", names[0], spoil(256), kWords, "type IQ4_XS (256)"});
  expectRefused({"65535", names[0], spoil(65535), kWords, "type IQ4_XS (65535)"});
}

TEST(ValidationTest, EveryMatrixIsAcceptedInEveryConvertibleType) {
  for (const MatrixRole& role : kMatrices) {
    for (const QuantType type : {QuantType::F32, QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K,
                                 QuantType::Q5_K, QuantType::Q6_K}) {
      const uint64_t cols = role.maxCols / 256 * 256;
      if (cols == 0) continue;  // ffn_down of this file is too narrow for K-quants
      expectAccepted(role.tensor, kiv::quantTypeName(type), TensorSpec::zeros(type, {cols, 2}));
    }
  }
  expectAccepted("blk.0.ffn_down.weight", "Q8_0", TensorSpec::zeros(QuantType::Q8_0, {64, 2}));
}

TEST(ValidationTest, AVectorMustBeF32) {
  const auto spoil = [](uint16_t type) {
    return [type](TensorSpec& tensor) { tensor.type = type; };
  };
  for (const VectorRole& role : kVectors) {
    expectRefused({"BF16", role.tensor, spoil(2), "type F32", "type BF16 (2)"});
    expectRefused({"Q8_0", role.tensor, spoil(4), "type F32", "type Q8_0 (4)"});
  }
  expectRefused({"F16", "blk.0.ssm_conv1d.weight", spoil(1), "type F32", "type F16 (1)"});
}

TEST(ValidationTest, MoreRowsThanTheWorkArraysHoldAreRefused) {
  for (const MatrixRole& role : kMatrices) {
    expectAccepted(role.tensor, "most rows", TensorSpec::floats({1, role.maxRows}));
    const std::string expected = "at most " + rows(role.maxRows);
    expectRefused({"one more row", role.tensor, become(TensorSpec::floats({1, role.maxRows + 1})),
                   expected, rows(role.maxRows + 1)});
    expectRefused({"as a product", role.tensor, become(TensorSpec::floats({1, 3, role.maxRows})),
                   expected, rows(3 * role.maxRows)});
  }
}

TEST(ValidationTest, FewerRowsAreAccepted) {
  for (const MatrixRole& role : kMatrices) {
    expectAccepted(role.tensor, "one row", TensorSpec::floats({role.maxCols, 1}));
    expectAccepted(role.tensor, "one dimension", TensorSpec::floats({role.maxCols}));
  }
}

TEST(ValidationTest, LongerRowsThanTheInputAreRefused) {
  for (const MatrixRole& role : kMatrices) {
    expectAccepted(role.tensor, "longest rows", TensorSpec::floats({role.maxCols, 1}));
    expectRefused({"one element more", role.tensor,
                   become(TensorSpec::floats({role.maxCols + 1, 1})),
                   "rows of at most " + elements(role.maxCols), elements(role.maxCols + 1)});
  }
  expectRefused({"one element more", "blk.0.ffn_gate.weight",
                 become(TensorSpec::floats({ModelFile::kHidden + 1, ModelFile::kFfn})),
                 "rows of at most 256 elements", "257 elements"});
}

TEST(ValidationTest, ShorterRowsAreAccepted) {
  for (const MatrixRole& role : kMatrices) {
    expectAccepted(role.tensor, "one element", TensorSpec::floats({1, 2}));
  }
}

TEST(ValidationTest, TheGateDecidesHowWideTheFeedForwardStepIs) {
  ModelFile file;
  file["blk.0.ffn_gate.weight"] = TensorSpec::floats({256, 63});
  const Bound bound(file);
  EXPECT_FALSE(bound.layers);
  ASSERT_EQ(bound.defects.size(), 2u);
  EXPECT_EQ(bound.defects[0].tensor, "blk.0.ffn_up.weight");
  EXPECT_EQ(bound.defects[0].expected, "at most 63 rows");
  EXPECT_EQ(bound.defects[1].tensor, "blk.0.ffn_down.weight");
  EXPECT_EQ(bound.defects[1].expected, "rows of at most 63 elements");
  expectAccepted("blk.0.ffn_gate.weight", "wider", TensorSpec::floats({256, 1000}));
}

TEST(ValidationTest, RowsMustBeWholeBlocks) {
  const struct {
    QuantType type;
    uint64_t cols;
    const char* block;
  } cases[] = {{QuantType::Q8_0, 40, "32"},
               {QuantType::Q8_0, 31, "32"},
               {QuantType::Q4_K, 128, "256"},
               {QuantType::Q5_K, 255, "256"},
               {QuantType::Q6_K, 1, "256"}};
  for (const char* tensor : {"blk.0.attn_qkv.weight", "blk.3.attn_q.bias"}) {
    for (const auto& c : cases) {
      expectRefused({kiv::quantTypeName(c.type), tensor,
                     become(TensorSpec::zeros(c.type, {c.cols})),
                     std::string("rows of whole blocks of ") + c.block + " elements",
                     std::to_string(c.cols) + (c.cols == 1 ? " element" : " elements")});
    }
  }
}

TEST(ValidationTest, DimensionsOfZeroAreRefused) {
  const auto spoil = [](std::vector<uint64_t> dims) {
    return [dims](TensorSpec& tensor) { tensor.dims = dims; };
  };
  for (const char* name :
       {"blk.0.attn_qkv.weight", "blk.0.ssm_conv1d.weight", "blk.3.attn_q_norm.weight"}) {
    expectRefused(
        {"rows of 0", name, spoil({0, 2}), "dimensions of at least 1", "a dimension of 0"});
    expectRefused(
        {"0 rows", name, spoil({256, 0}), "dimensions of at least 1", "a dimension of 0"});
    expectRefused({"0 at the end", name, spoil({4, 1, 1, 0}), "dimensions of at least 1",
                   "a dimension of 0"});
  }
}

TEST(ValidationTest, OneToFourDimensionsAreAccepted) {
  for (const uint16_t ndims : {0, 5, 6, 65535}) {
    const auto spoil = [ndims](TensorSpec& tensor) {
      tensor.dims = {1, 1, 1, 1};
      tensor.ndims = ndims;
    };
    for (const char* name :
         {"blk.0.ssm_beta.weight", "blk.3.attn_v.bias", "blk.3.attn_q_norm.weight"}) {
      expectRefused({std::to_string(ndims), name, spoil, "1 to 4 dimensions",
                     std::to_string(ndims) + " dimensions"});
    }
  }
  expectAccepted("blk.0.ssm_beta.weight", "four", TensorSpec::floats({16, 2, 4, 4}));
  expectAccepted("blk.3.attn_q_norm.weight", "four", TensorSpec::floats({16, 2, 4, 2}));
}

TEST(ValidationTest, ProductsThatWrapAreRefused) {
  constexpr uint64_t k32 = uint64_t{1} << 32;
  constexpr uint64_t k62 = uint64_t{1} << 62;
  const auto spoil = [](std::vector<uint64_t> dims) {
    return [dims](TensorSpec& tensor) { tensor.dims = dims; };
  };
  for (const char* name : {"blk.0.attn_qkv.weight", "blk.3.attn_q_norm.weight"}) {
    expectRefused({"row count of 2^64", name, spoil({1, k32, k32}), "a row count of 64 bits",
                   "dimensions whose product is larger"});
    expectRefused({"row count of 3 x 2^94", name, spoil({1, 3 * k32, k62}),
                   "a row count of 64 bits", "dimensions whose product is larger"});
  }
  const std::string bytes = std::to_string(ModelFile::kHidden * 2 * 4) + " bytes";
  for (const std::vector<uint64_t>& dims : {std::vector<uint64_t>{k62, 1},
                                            {k62 + 1, 1},
                                            {1, k62},
                                            {4, k62},
                                            {k32, k32},
                                            {8, k62 - 1}}) {
    expectRefused({"bytes", "blk.0.attn_qkv.weight", spoil(dims), "data for its shape", bytes});
  }
}

TEST(ValidationTest, DataMustLieInsideTheWeightSection) {
  const uint64_t section = [] {
    const Bound bound{ModelFile()};
    return bound.loader.reader.sectionSize(kiv::orb2::SectionType::WeightData);
  }();
  const std::string expected =
      "data within the weight section of " + std::to_string(section) + " bytes";
  for (const char* name : {"blk.0.attn_qkv.weight", "blk.3.attn_q_norm.weight", "token_embd.weight",
                           "output_norm.weight"}) {
    const Bound good{ModelFile()};
    const kiv::TensorView& view = *good.loader.findTensor(name);
    const auto weights = good.loader.reader.sectionData(kiv::orb2::SectionType::WeightData);
    const auto offset = static_cast<uint64_t>(view.data - weights);
    const auto text = [](uint64_t size, uint64_t at) {
      return std::to_string(size) + " bytes at offset " + std::to_string(at);
    };
    const auto toEnd = static_cast<int64_t>(section - offset - view.size);
    const auto grow = [](int64_t by) {
      return [by](TensorSpec& tensor) { tensor.sizeChange = by; };
    };
    const auto move = [](int64_t by) {
      return [by](TensorSpec& tensor) { tensor.offsetChange = by; };
    };
    expectRefused(
        {"one byte too long", name, grow(toEnd + 1), expected, text(section - offset + 1, offset)});
    expectRefused({"one byte too far", name, move(toEnd + 1), expected,
                   text(view.size, section - view.size + 1)});
    expectRefused({"all beyond", name, move(toEnd + 4 + static_cast<int64_t>(view.size)), expected,
                   text(view.size, section + 4)});
    const uint64_t wrapping = uint64_t{0} - 64;
    expectRefused({"offset that wraps", name, move(static_cast<int64_t>(wrapping - offset)),
                   expected, text(view.size, wrapping)});
    const uint64_t huge = ~uint64_t{0};
    expectRefused({"size that wraps", name, grow(static_cast<int64_t>(huge - view.size)), expected,
                   text(huge, offset)});
  }
  TensorSpec last = TensorSpec::floats({256, 2});
  last.sizeChange = -8;
  last.dims = {127, 4};
  expectAccepted("blk.0.attn_qkv.weight", "smaller than its place", last);
}

TEST(ValidationTest, DataMustHoldWhatTheShapeNeeds) {
  const auto shorten = [](TensorSpec& tensor) { tensor.sizeChange = -1; };
  const auto lacks = [](uint64_t bytes) { return std::to_string(bytes - 1) + " bytes"; };
  expectRefused({"F32", "blk.0.attn_qkv.weight", shorten, "data for its shape", lacks(2048)});
  expectRefused({"F32", "blk.7.attn_q_norm.weight", shorten, "data for its shape", lacks(1024)});
  expectRefused({"F32", "token_embd.weight", shorten, "data for its shape", lacks(10240)});
  for (const QuantType type :
       {QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K}) {
    TensorSpec spec = TensorSpec::zeros(type, {256, 2});
    const uint64_t needed = spec.data->size();
    expectAccepted("blk.0.attn_qkv.weight", kiv::quantTypeName(type), spec);
    spec.sizeChange = -1;
    expectRefused({kiv::quantTypeName(type), "blk.0.attn_qkv.weight", become(spec),
                   "data for its shape", lacks(needed)});
  }
  TensorSpec larger = TensorSpec::floats({256, 3});
  larger.dims = {256, 2};
  expectAccepted("blk.0.attn_qkv.weight", "more data than needed", larger);
}

TEST(ValidationTest, FloatVectorsMustBeAlignedAndMatricesNeedNotBe) {
  for (const VectorRole& role : kVectors) {
    for (const int64_t shift : {1, 2, 3}) {
      // A longer tensor, so that the shifted data still lie inside.
      TensorSpec spec = TensorSpec::floats({role.elements + 1});
      spec.dims = {role.elements};
      spec.sizeChange = -4;
      spec.offsetChange = shift;
      ModelFile file;
      file[role.tensor] = spec;
      const Bound bound(file);
      EXPECT_FALSE(bound.usable());
      ASSERT_EQ(bound.defects.size(), 1u) << role.tensor;
      EXPECT_EQ(bound.defects[0].tensor, role.tensor);
      EXPECT_EQ(bound.defects[0].expected, "data at a multiple of 4 bytes");
      EXPECT_EQ(bound.defects[0].found.rfind("offset ", 0), 0u) << bound.defects[0].found;
      EXPECT_EQ(std::stoull(bound.defects[0].found.substr(7)) % 4, static_cast<uint64_t>(shift));
    }
  }
  for (const MatrixRole& role : kMatrices) {
    TensorSpec spec = TensorSpec::floats({1, 3});
    spec.dims = {1, 2};
    spec.sizeChange = -4;
    spec.offsetChange = 1;
    expectAccepted(role.tensor, "at an odd byte", spec);
  }
}

TEST(ValidationTest, VectorsThatAreTooShortAreRefusedAndLongerOnesAccepted) {
  for (const VectorRole& role : kVectors) {
    expectRefused({"one element less", role.tensor, become(TensorSpec::floats({role.elements - 1})),
                   "at least " + elements(role.elements), elements(role.elements - 1)});
    expectAccepted(role.tensor, "one element more", TensorSpec::floats({role.elements + 1}));
    expectAccepted(role.tensor, "as a matrix", TensorSpec::floats({2, role.elements / 2}));
  }
}

TEST(ValidationTest, TheConvolutionHasFourTapsForEveryChannel) {
  const std::string tensor = "blk.0.ssm_conv1d.weight";
  expectRefused({"three taps", tensor, become(TensorSpec::floats({3, 12000})), "rows of 4 elements",
                 "3 elements"});
  expectRefused({"eight taps", tensor, become(TensorSpec::floats({8, 8192})), "rows of 4 elements",
                 "8 elements"});
  expectRefused({"one dimension", tensor, become(TensorSpec::floats({32768})), "rows of 4 elements",
                 "32768 elements"});
  expectRefused({"a channel less", tensor, become(TensorSpec::floats({4, 8191})),
                 "at least 32768 elements", "32764 elements"});
  expectRefused({"one channel", tensor, become(TensorSpec::floats({4})), "at least 32768 elements",
                 "4 elements"});
  expectAccepted(tensor, "three dimensions", TensorSpec::floats({4, 1, 8192}));
  expectAccepted(tensor, "more channels", TensorSpec::floats({4, 8200}));
}

TEST(ValidationTest, BiasesMayHaveAnyConvertibleTypeAndLength) {
  for (const char* tensor : {"blk.3.attn_q.bias", "blk.3.attn_k.bias", "blk.31.attn_v.bias"}) {
    for (const QuantType type : {QuantType::F32, QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K,
                                 QuantType::Q5_K, QuantType::Q6_K}) {
      for (const uint64_t length : {256, 1024, 8192, 16384}) {
        expectAccepted(tensor, kiv::quantTypeName(type), TensorSpec::zeros(type, {length}));
      }
    }
    expectAccepted(tensor, "one element", TensorSpec::floats({1}));
    for (const QuantType type : {QuantType::F16, QuantType::Q4_0, QuantType::IQ4_XS}) {
      expectRefused({"type", tensor, become(TensorSpec::zeros(type, {256})),
                     "type F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K",
                     std::string("type ") + kiv::quantTypeName(type) + " (" +
                         std::to_string(static_cast<int>(type)) + ")"});
    }
    TensorSpec lacking = TensorSpec::floats({1024});
    lacking.sizeChange = -1;
    expectRefused({"data", tensor, become(lacking), "data for its shape", "4095 bytes"});
  }
}

TEST(ValidationTest, AnEmbeddingOfMoreRowsThanATokenIdCanNameIsRefused) {
  // One element of two bytes a row, in a file that is a hole for the most part.
  constexpr uint64_t kRows = uint64_t{1} << 31;
  ModelFile content;
  content["token_embd.weight"].type = static_cast<uint16_t>(QuantType::BF16);
  content["token_embd.weight"].dims = {1, kRows};
  std::vector<uint8_t> bytes = content.build();
  kiv::ORBLoader loader;
  for (const uint64_t rows : {kRows, kRows - 1}) {
    auto spoiled = bytes;
    const uint64_t start = (spoiled.size() + 63) / 64 * 64;
    const uint32_t sections = orbtest::peek<uint32_t>(spoiled, 12);
    for (size_t i = 0; i < sections; ++i) {
      const auto type = orbtest::peek<uint32_t>(spoiled, orbtest::tableField(i, 0));
      const auto offset = orbtest::peek<uint64_t>(spoiled, orbtest::tableField(i, 8));
      if (type == static_cast<uint32_t>(kiv::orb2::SectionType::TensorIndex)) {
        // The index is sorted: the embedding comes last, after the output norm.
        const uint64_t entry = offset + 128 * (orbtest::peek<uint64_t>(spoiled, 40) - 1);
        orbtest::poke(spoiled, entry + 80, rows);
        orbtest::poke(spoiled, entry + 104, uint64_t{0});
        orbtest::poke(spoiled, entry + 112, 2 * rows);
      }
      if (type == static_cast<uint32_t>(kiv::orb2::SectionType::WeightData)) {
        orbtest::poke(spoiled, orbtest::tableField(i, 8), start);
        orbtest::poke(spoiled, orbtest::tableField(i, 16), 2 * kRows);
      }
    }
    orbtest::reseal(spoiled);
    const orbtest::TempFile file(spoiled);
    file.resize(start + 2 * kRows);
    const kiv::Status status = loader.open(file.path(), /*largeFiles=*/true);
    ASSERT_TRUE(status.ok()) << status.message;
    const std::vector<BindingDefect> defects = findGlobalDefects(loader);
    if (rows < kRows) {
      EXPECT_TRUE(defects.empty());
      continue;
    }
    ASSERT_EQ(defects.size(), 1u);
    EXPECT_EQ(defects[0].tensor, "token_embd.weight");
    EXPECT_EQ(defects[0].expected, "at most 2147483647 rows");
    EXPECT_EQ(defects[0].found, "2147483648 rows");
  }
}

TEST(ValidationTest, WithoutAnEmbeddingOnlyWhatDoesNotDependOnItIsChecked) {
  ModelFile file;
  file.erase("token_embd.weight");
  file["blk.0.attn_qkv.weight"] = TensorSpec::floats({300, 2});
  file["blk.2.attn_norm.weight"] = TensorSpec::floats({1});
  file["blk.3.attn_q_norm.weight"] = TensorSpec::floats({255});
  const Bound bound(file);
  EXPECT_FALSE(bound.usable());
  ASSERT_EQ(bound.defects.size(), 2u);
  EXPECT_EQ(bound.defects[0].tensor, "blk.3.attn_q_norm.weight");
  EXPECT_EQ(bound.defects[1].tensor, "token_embd.weight");
}

TEST(ValidationTest, AllDefectsOfABlockAreReported) {
  ModelFile file;
  file["blk.5.attn_norm.weight"].type = 2;
  file["blk.5.ssm_a"] = TensorSpec::floats({3});
  file.erase("blk.5.ssm_norm.weight");
  const Bound bound(file);
  EXPECT_FALSE(bound.layers);
  ASSERT_EQ(bound.defects.size(), 3u);
  EXPECT_EQ(bound.defects[0].tensor, "blk.5.attn_norm.weight");
  EXPECT_EQ(bound.defects[1].tensor, "blk.5.ssm_a");
  EXPECT_EQ(bound.defects[2].tensor, "blk.5.ssm_norm.weight");
}

// --------------------------------------------------------------------------------- what is bound

TEST(BindingTest, EveryRequiredTensorThatIsMissingIsNoticed) {
  const std::vector<std::string> common = {"attn_norm.weight", "post_attention_norm.weight",
                                           "ffn_gate.weight", "ffn_up.weight", "ffn_down.weight"};
  const std::vector<std::string> linear = {
      "attn_qkv.weight", "attn_gate.weight",  "ssm_beta.weight", "ssm_alpha.weight", "ssm_dt.bias",
      "ssm_a",           "ssm_conv1d.weight", "ssm_norm.weight"};
  const std::vector<std::string> full = {"attn_q.weight",      "attn_k.weight",
                                         "attn_v.weight",      "attn_output.weight",
                                         "attn_q_norm.weight", "attn_k_norm.weight"};
  std::vector<std::string> names = {"token_embd.weight", "output_norm.weight"};
  for (const auto& suffix : common) names.push_back("blk.0." + suffix);
  for (const auto& suffix : common) names.push_back("blk.31." + suffix);
  for (const auto& suffix : linear) names.push_back("blk.1." + suffix);
  for (const auto& suffix : full) names.push_back("blk.3." + suffix);
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    ModelFile file;
    file.erase(name);
    const Bound bound(file);
    EXPECT_EQ(bound.layers, stepOf(name) == Step::Model);
    EXPECT_FALSE(bound.usable());
    ASSERT_EQ(bound.defects.size(), 1u);
    EXPECT_EQ(bound.defects[0].tensor, name);
    EXPECT_EQ(bound.defects[0].expected, "the tensor to be present");
    EXPECT_EQ(bound.defects[0].found, "none of that name");
  }
}

TEST(BindingTest, TheOutputProjectionOfTheLinearMixerDecidesTheKindOfABlock) {
  ModelFile file;
  file.addBlock(3, true);  // beside the tensors of a full block
  {
    const Bound bound(file);
    ASSERT_TRUE(bound.usable());
    const Layer& layer = bound.model.layers[3];
    EXPECT_TRUE(layer.isLinear);
    EXPECT_EQ(layer.attnQ, nullptr);
    EXPECT_EQ(layer.attnQNorm, nullptr);
    EXPECT_NE(layer.ssmOut, nullptr);
  }
  file.erase("blk.3.ssm_out.weight");
  {
    const Bound bound(file);
    ASSERT_TRUE(bound.usable());
    const Layer& layer = bound.model.layers[3];
    EXPECT_FALSE(layer.isLinear);
    EXPECT_EQ(layer.attnQkv, nullptr);
    EXPECT_EQ(layer.ssmA, nullptr);
    EXPECT_NE(layer.attnQ, nullptr);
  }
  file.erase("blk.3.attn_k_norm.weight");
  EXPECT_FALSE(Bound(file).layers);
}

TEST(BindingTest, ALinearBlockWithoutItsOutputProjectionLacksTheTensorsOfAFullOne) {
  ModelFile file;
  file.erase("blk.0.ssm_out.weight");
  const Bound bound(file);
  EXPECT_FALSE(bound.layers);
  ASSERT_EQ(bound.defects.size(), 6u);
  EXPECT_EQ(bound.defects[0].tensor, "blk.0.attn_q.weight");
  EXPECT_EQ(bound.defects[5].tensor, "blk.0.attn_k_norm.weight");
}

TEST(BindingTest, BiasesAreOptionalOneByOne) {
  ModelFile file;
  file["blk.3.attn_k.bias"] = TensorSpec::floats({1024});
  const Bound bound(file);
  ASSERT_TRUE(bound.usable());
  EXPECT_EQ(bound.model.layers[3].attnQBias, nullptr);
  EXPECT_NE(bound.model.layers[3].attnKBias, nullptr);
  EXPECT_EQ(bound.model.layers[3].attnVBias, nullptr);
  EXPECT_EQ(bound.model.layers[7].attnKBias, nullptr);
}

TEST(BindingTest, OnlyBlocks0To31AreBound) {
  ModelFile file;
  file["blk.32.attn_norm.weight"] = TensorSpec::zeros(QuantType::F16, {1});
  file["blk.00.attn_norm.weight"] = TensorSpec::zeros(QuantType::F16, {1});
  const Bound bound(file);
  EXPECT_TRUE(bound.usable());
  EXPECT_EQ(bound.model.layers.size(), 32u);
  EXPECT_EQ(bound.model.layerCount, 32u);
}

TEST(BindingTest, FewerBlocksFailAtTheFirstMissingOne) {
  const Bound bound{ModelFile(31)};
  EXPECT_FALSE(bound.layers);
  ASSERT_FALSE(bound.defects.empty());
  EXPECT_EQ(bound.defects[0].tensor, "blk.31.attn_norm.weight");
  EXPECT_NE(bound.model.layers[30].attnNorm, nullptr) << "what came before stays bound";
  EXPECT_EQ(bound.model.layers[31].attnNorm, nullptr);
}

TEST(BindingTest, SizesComeFromTheEmbeddingAndTheConstants) {
  const Bound bound{ModelFile()};
  const Model& model = bound.model;
  EXPECT_EQ(model.hiddenSize, ModelFile::kHidden);
  EXPECT_EQ(model.vocabularySize, ModelFile::kVocabulary);
  EXPECT_EQ(model.maxContext, kContext);
  EXPECT_EQ(model.attentionHeads, 16u);
  EXPECT_EQ(model.keyValueHeads, 4u);
  EXPECT_EQ(model.attentionHeadSize, 256u);
  EXPECT_EQ(model.rotaryDims, 64u);
  EXPECT_EQ(model.linearHeadSize, 128u);
  EXPECT_EQ(model.linearKeyHeads, 16u);
  EXPECT_EQ(model.linearValueHeads, 32u);
  EXPECT_EQ(model.linearValueWidth, 4096u);
  EXPECT_EQ(model.convKernel, 4u);
  EXPECT_EQ(model.linearKeyWidth(), 2048u);
  EXPECT_EQ(model.convChannels(), 8192u);
  EXPECT_EQ(model.tokenEmbedding, bound.loader.findTensor("token_embd.weight"));
  EXPECT_EQ(model.outputNorm, bound.loader.findTensor("output_norm.weight"));
}

TEST(BindingTest, TensorsAreBoundByTheirNames) {
  ModelFile file;
  for (const char* part : {"q", "k", "v"}) {
    file[std::string("blk.3.attn_") + part + ".bias"] = TensorSpec::floats({8});
  }
  const Bound bound(file);
  const auto expectName = [](const kiv::TensorView* view, const std::string& name) {
    ASSERT_NE(view, nullptr) << name;
    EXPECT_EQ(view->name, name);
  };
  const Layer& linear = bound.model.layers[10];
  expectName(linear.attnNorm, "blk.10.attn_norm.weight");
  expectName(linear.postAttentionNorm, "blk.10.post_attention_norm.weight");
  expectName(linear.ffnGate, "blk.10.ffn_gate.weight");
  expectName(linear.ffnUp, "blk.10.ffn_up.weight");
  expectName(linear.ffnDown, "blk.10.ffn_down.weight");
  expectName(linear.attnQkv, "blk.10.attn_qkv.weight");
  expectName(linear.attnGate, "blk.10.attn_gate.weight");
  expectName(linear.ssmBeta, "blk.10.ssm_beta.weight");
  expectName(linear.ssmAlpha, "blk.10.ssm_alpha.weight");
  expectName(linear.ssmDt, "blk.10.ssm_dt.bias");
  expectName(linear.ssmA, "blk.10.ssm_a");
  expectName(linear.ssmConv1d, "blk.10.ssm_conv1d.weight");
  expectName(linear.ssmNorm, "blk.10.ssm_norm.weight");
  expectName(linear.ssmOut, "blk.10.ssm_out.weight");
  const Layer& full = bound.model.layers[3];
  expectName(full.attnQ, "blk.3.attn_q.weight");
  expectName(full.attnK, "blk.3.attn_k.weight");
  expectName(full.attnV, "blk.3.attn_v.weight");
  expectName(full.attnOutput, "blk.3.attn_output.weight");
  expectName(full.attnQNorm, "blk.3.attn_q_norm.weight");
  expectName(full.attnKNorm, "blk.3.attn_k_norm.weight");
  expectName(full.attnQBias, "blk.3.attn_q.bias");
  expectName(full.attnKBias, "blk.3.attn_k.bias");
  expectName(full.attnVBias, "blk.3.attn_v.bias");
}

TEST(BindingTest, BindingPicksTheBestTierUnlessOneWasSet) {
  const Bound bound{ModelFile()};
  EXPECT_EQ(bound.model.kernels, &selectKernels(nullptr));

  const orbtest::TempFile file(ModelFile().build());
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  Model model;
  model.kernels = &kScalarKernels;
  ASSERT_TRUE(initLayers(loader, model, kContext) && bindModel(loader, model, kContext));
  EXPECT_EQ(model.kernels, &kScalarKernels);
}

// --------------------------------------------------------------------------------------- state

bool allZero(const ZeroedArray& array) {
  return std::all_of(array.begin(), array.end(), [](float value) { return value == 0; });
}

TEST(StateTest, EachKindOfBlockHasItsOwnStateAndItIsZero) {
  const Bound bound{ModelFile()};
  ASSERT_TRUE(bound.usable());
  for (const Layer& layer : bound.model.layers) {
    EXPECT_EQ(layer.position, 0u);
    EXPECT_EQ(layer.recurrentState.size(), layer.isLinear ? 32u * 128 * 128 : 0u);
    EXPECT_EQ(layer.convState.size(), layer.isLinear ? 3u * 8192 : 0u);
    EXPECT_EQ(layer.keyCache.size(), layer.isLinear ? 0u : 4u * 256 * kContext);
    EXPECT_EQ(layer.valueCache.size(), layer.isLinear ? 0u : 4u * 256 * kContext);
    EXPECT_TRUE(allZero(layer.recurrentState) && allZero(layer.convState));
    EXPECT_TRUE(allZero(layer.keyCache) && allZero(layer.valueCache));
  }
}

TEST(StateTest, InitialisingAgainForgetsEverything) {
  Bound bound{ModelFile()};
  Model& model = bound.model;
  model.layers[0].recurrentState[5] = 1;
  model.layers[3].keyCache[5] = 1;
  model.layers[3].position = 3;
  ASSERT_TRUE(initLayers(bound.loader, model, 2 * kContext));
  EXPECT_TRUE(allZero(model.layers[0].recurrentState));
  EXPECT_TRUE(allZero(model.layers[3].keyCache));
  EXPECT_EQ(model.layers[3].keyCache.size(), 4u * 256 * 2 * kContext);
  EXPECT_EQ(model.layers[3].position, 0u);
  EXPECT_EQ(model.maxContext, 2 * kContext);
}

TEST(StateTest, ResetZeroesWhatWasUsedAndKeepsTheSizes) {
  Bound bound{ModelFile()};
  Model& model = bound.model;
  for (const size_t used : {size_t{1}, size_t{5}, kContext}) {
    for (Layer& layer : model.layers) {
      layer.position = used;
      for (size_t i = 0; i < layer.recurrentState.size(); ++i) layer.recurrentState[i] = 2;
      for (size_t i = 0; i < layer.convState.size(); ++i) layer.convState[i] = 2;
      for (size_t g = 0; g < 4 && !layer.isLinear; ++g) {
        for (size_t i = 0; i < 256 * used; ++i) {
          layer.keyCache[g * kContext * 256 + i] = 2;
          layer.valueCache[g * kContext * 256 + i] = 2;
        }
      }
    }
    const float* cache = model.layers[3].keyCache.data();
    resetModel(model);
    EXPECT_EQ(model.layers[3].keyCache.data(), cache) << "nothing is freed";
    for (const Layer& layer : model.layers) {
      EXPECT_EQ(layer.position, 0u);
      EXPECT_EQ(layer.recurrentState.size(), layer.isLinear ? 32u * 128 * 128 : 0u);
      EXPECT_EQ(layer.keyCache.size(), layer.isLinear ? 0u : 4u * 256 * kContext);
      EXPECT_TRUE(allZero(layer.recurrentState) && allZero(layer.convState));
      EXPECT_TRUE(allZero(layer.keyCache) && allZero(layer.valueCache)) << used;
    }
  }
}

#ifdef __has_feature
#define ORB_SANITIZED_THREAD __has_feature(thread_sanitizer)
#else
#define ORB_SANITIZED_THREAD 0
#endif

size_t residentBytes() { return static_cast<size_t>(residentKiB()) * 1024; }

TEST(StateTest, EmptyCachesOfALongContextCostNoMemory) {
  if (ORB_SANITIZED_THREAD) GTEST_SKIP() << "the thread sanitizer takes memory of its own";
  const orbtest::TempFile file(ModelFile().build());
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  Model model;
  const size_t before = residentBytes();
  ASSERT_NE(before, 0u);
  ASSERT_TRUE(initLayers(loader, model) && bindModel(loader, model));
  size_t cacheBytes = 0;
  for (const Layer& layer : model.layers) {
    cacheBytes += 4 * (layer.keyCache.size() + layer.valueCache.size());
  }
  EXPECT_EQ(cacheBytes, size_t{512} << 20);
  resetModel(model);
  const size_t grown = residentBytes() - before;
  EXPECT_LT(grown, size_t{128} << 20);
}

TEST(EmbedRowTest, ConvertsTheRowOfTheToken) {
  ModelFile file;
  std::vector<uint8_t> bytes(34 * ModelFile::kHidden / 32 * 3);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(i % 34 < 2 ? (i % 2 == 0 ? 0x00 : 0x3C) : i / 34);
  }
  file["token_embd.weight"] = TensorSpec::of(QuantType::Q8_0, {ModelFile::kHidden, 3}, bytes);
  Bound bound(file);
  ASSERT_TRUE(bound.usable());
  std::vector<float> out(ModelFile::kHidden + 1, -1.0f);
  embedRow(bound.model, 2, out.data());
  for (size_t i = 0; i < ModelFile::kHidden; ++i) {
    EXPECT_EQ(out[i], static_cast<float>(16 + i / 32)) << i;
  }
  EXPECT_EQ(out[ModelFile::kHidden], -1) << "beyond the hidden size";
}

TEST(EmbedRowTest, TheScratchGrowsWithTheHiddenSize) {
  Bound narrow{ModelFile()};
  std::vector<float> out(1024, -1.0f);
  embedRow(narrow.model, 0, out.data());
  EXPECT_EQ(out[255], 1);
  EXPECT_EQ(out[256], -1);

  ModelFile file;
  file["token_embd.weight"] = TensorSpec::floats({1024, 2}, 3);
  Bound wide(file);  // its norms are too short for a forward pass, but the embedding serves
  narrow.model.tokenEmbedding = wide.loader.findTensor("token_embd.weight");
  narrow.model.hiddenSize = 1024;
  embedRow(narrow.model, 1, out.data());
  EXPECT_EQ(out, std::vector<float>(1024, 3.0f));
}

}  // namespace
}  // namespace qwen35
