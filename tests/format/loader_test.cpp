// The loader facade: records, life cycle.
#include "format/loader.h"

#include <gtest/gtest.h>

#include <string>

#include "format/container_builder.h"

namespace kiv {
namespace {

using orb2::SectionType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::indexEntry;
using orbtest::poke;
using orbtest::TempFile;

TokenizerData threeTokens() {
  TokenizerData tokenizer;
  tokenizer.model = "bpe";
  tokenizer.tokens = {"a", "b", "ab"};
  tokenizer.merges = {"a b"};
  return tokenizer;
}

ContainerBuilder twoTensors() {
  ContainerBuilder builder;
  builder.header.wordA = 1;
  builder.header.wordB = 2;
  builder.header.wordC = 3;
  builder.meta("general.architecture", "qwen35")
      .tensor("blk.1.b", QuantType::F32, {2, 1}, Bytes().f32(1).f32(2))
      .tensor("blk.0.a", QuantType::F32, {1}, Bytes().f32(3))
      .tokenizer(threeTokens())
      .text("free text");
  return builder;
}

void expectEmpty(const ORBLoader& loader) {
  EXPECT_FALSE(loader.opened);
  EXPECT_FALSE(loader.reader.opened());
  EXPECT_EQ(loader.headerWordA, 0u);
  EXPECT_EQ(loader.headerWordB, 0u);
  EXPECT_EQ(loader.headerWordC, 0u);
  EXPECT_EQ(loader.tensorCount, 0u);
  EXPECT_TRUE(loader.tensors.empty());
  EXPECT_TRUE(loader.tokenizer.tokens.empty());
  EXPECT_TRUE(loader.tokenizer.model.empty());
  EXPECT_TRUE(loader.tokenizerModel.empty());
  EXPECT_TRUE(loader.text.empty());
  EXPECT_EQ(loader.findTensor("blk.0.a"), nullptr);
}

TEST(LoaderTest, AWellFormedFileIsReadWhole) {
  const TempFile file(twoTensors().build());
  ORBLoader loader;
  const Status status = loader.open(file.path());
  ASSERT_TRUE(status.ok()) << status.message;
  EXPECT_EQ(status.message, "");
  EXPECT_TRUE(loader.opened);
  EXPECT_EQ(loader.headerWordA, 1u);
  EXPECT_EQ(loader.headerWordB, 2u);
  EXPECT_EQ(loader.headerWordC, 3u);
  EXPECT_EQ(loader.tensorCount, 2u);
  EXPECT_EQ(loader.text, "free text");
  EXPECT_EQ(loader.tokenizerModel, "bpe");
  EXPECT_EQ(loader.tokenizer.tokens, threeTokens().tokens);
  EXPECT_EQ(loader.tokenizer.merges, threeTokens().merges);
  std::string architecture;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ(architecture, "qwen35");
}

TEST(LoaderTest, RecordsStandInIndexOrderAndPointIntoTheFile) {
  const TempFile file(twoTensors().build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  ASSERT_EQ(loader.tensors.size(), 2u);
  EXPECT_EQ(loader.tensors[0].name, "blk.0.a");
  const TensorView& b = loader.tensors[1];
  EXPECT_EQ(b.name, "blk.1.b");
  EXPECT_EQ(b.size, 8u);
  EXPECT_EQ(b.type, 0);
  EXPECT_EQ(b.ndims, 2);
  EXPECT_EQ(b.dims[0], 2u);
  EXPECT_EQ(b.dims[1], 1u);
  EXPECT_EQ(b.dims[2], 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b.data) % 64, 0u);
  float values[2];
  std::memcpy(values, b.data, sizeof values);
  EXPECT_EQ(values[1], 2.0f);
}

TEST(LoaderTest, TensorsAreFoundByTheirWholeNameOnly) {
  const TempFile file(twoTensors().build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  EXPECT_EQ(loader.findTensor("blk.0.a"), &loader.tensors[0]);
  EXPECT_EQ(loader.findTensor("blk.1.b"), &loader.tensors[1]);
  for (const char* absent : {"", "blk.0", "blk.0.", "blk.0.aa", "blk.0.b", "zzz"}) {
    EXPECT_EQ(loader.findTensor(absent), nullptr) << absent;
  }
  EXPECT_EQ(loader.findTensor(std::string("blk.0.a\0", 8)), nullptr);
}

TEST(LoaderTest, TypesOf11AndMoreReadAsIq4Xs) {
  ContainerBuilder builder;
  builder.tokenizer(threeTokens());
  const uint16_t stored[] = {8, 9, 10, 11, 12, 0x0100, 0xFFFF};
  const uint16_t shown[] = {8, 9, 10, 8, 8, 8, 8};
  for (int i = 0; i < 7; ++i) {
    builder.rawTensor(indexEntry(std::string(1, static_cast<char>('a' + i)), stored[i], {}, 0, 0));
  }
  const TempFile file(builder.build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(loader.tensors[i].type, shown[i]) << stored[i];
    EXPECT_EQ(loader.tensors[i].quant.type, shown[i]) << stored[i];
    EXPECT_EQ(loader.reader.tensorView(static_cast<uint64_t>(i)).type, stored[i]);
  }
}

TEST(LoaderTest, ANameLengthBeyondTheFieldIsCut) {
  const std::string longName(70, 'n');
  const TempFile file(ContainerBuilder()
                          .tokenizer(threeTokens())
                          .rawTensor(indexEntry(longName, 0, {}, 0, 0))
                          .build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  EXPECT_EQ(loader.tensors[0].name, std::string(64, 'n'));
}

TEST(LoaderTest, TheStoredNameLengthCountsNotThePadding) {
  auto entry = indexEntry("abc", 0, {}, 0, 0).get();
  poke(entry, 64, uint16_t{2});
  const TempFile file(ContainerBuilder().tokenizer(threeTokens()).rawTensor(Bytes(entry)).build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  EXPECT_EQ(loader.tensors[0].name, "ab");
}

TEST(LoaderTest, QuantizationInfoIsCarried) {
  const Bytes records = Bytes().zeros(32).u16(77).u16(0xA).u32(0xB).u32(0xC).u32(0xD).u32(0xE);
  const TempFile file(
      twoTensors().section(SectionType::QuantInfo, Bytes(records).zeros(12)).build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  const QuantParams& quant = loader.tensors[1].quant;
  EXPECT_EQ(quant.type, 0) << "the index entry's";
  EXPECT_EQ(quant.a, 0xA);
  EXPECT_EQ(quant.b, 0xBu);
  EXPECT_EQ(quant.c, 0xCu);
  EXPECT_EQ(quant.d, 0xDu);
  EXPECT_EQ(quant.e, 0xEu);
  EXPECT_EQ(loader.tensors[0].quant.a, 0);
}

TEST(LoaderTest, WithoutQuantizationInfoTheParametersAreZero) {
  const TempFile file(twoTensors().build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  const QuantParams& quant = loader.tensors[1].quant;
  EXPECT_TRUE(quant.a == 0 && quant.b == 0 && quant.c == 0 && quant.d == 0 && quant.e == 0);
}

TEST(LoaderTest, AReadersFailureIsPassedOnAndLeavesTheLoaderClosed) {
  const TempFile good(twoTensors().build());
  auto bytes = twoTensors().build();
  bytes[0] = 'X';
  const TempFile bad(bytes);
  ORBLoader loader;
  ASSERT_TRUE(loader.open(good.path()).ok());
  const Status status = loader.open(bad.path());
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message, "ORB2: bad magic");
  expectEmpty(loader);
}

TEST(LoaderTest, WithoutATokenizerTheMetadataStaysReadable) {
  const TempFile file(ContainerBuilder()
                          .meta("general.architecture", "qwen35")
                          .tensor("a", QuantType::F32, {1}, Bytes().f32(1))
                          .text("unread")
                          .build());
  ORBLoader loader;
  const Status status = loader.open(file.path());
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message, "ORBLoader: no tokenizer section");
  EXPECT_FALSE(loader.opened);
  EXPECT_EQ(loader.findTensor("a"), nullptr);
  EXPECT_EQ(loader.tensors.size(), 1u);
  EXPECT_TRUE(loader.reader.opened());
  std::string architecture;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ(architecture, "qwen35");
  loader.close();
  expectEmpty(loader);
}

TEST(LoaderTest, TextIsOptionalAndMayBeEmpty) {
  for (const bool empty : {false, true}) {
    ContainerBuilder builder;
    builder.tokenizer(threeTokens());
    if (empty) builder.text("");
    const TempFile file(builder.build());
    ORBLoader loader;
    ASSERT_TRUE(loader.open(file.path()).ok());
    EXPECT_EQ(loader.text, "");
  }
}

TEST(LoaderTest, CloseEmptiesAndMayBeRepeated) {
  const TempFile file(twoTensors().build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  loader.close();
  expectEmpty(loader);
  loader.close();
  expectEmpty(loader);
  EXPECT_TRUE(loader.open(file.path()).ok());
}

TEST(LoaderTest, LargeFilesNeedTheirSwitch) {
  const TempFile file(twoTensors().build());
  file.resize(uint64_t{1} << 31);
  ORBLoader loader;
  EXPECT_EQ(loader.open(file.path()).message, "ORB2: cannot stat file");
  EXPECT_TRUE(loader.open(file.path(), true).ok());
}

}  // namespace
}  // namespace kiv
