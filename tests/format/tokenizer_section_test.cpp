// The tokenizer section.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "format/container_builder.h"
#include "format/loader.h"

namespace kiv {
namespace {

using orb2::SectionType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::peek;
using orbtest::poke;
using orbtest::reseal;
using orbtest::tableField;
using orbtest::TempFile;
using orbtest::tokenizerSection;

// Decodes the section through reader and loader, which must agree.
bool decode(const Bytes& section, TokenizerData& out) {
  const TempFile file(ContainerBuilder().section(SectionType::Tokenizer, section).build());
  ORB2Reader reader;
  EXPECT_TRUE(reader.open(file.path()).ok()) << "the reader does not look at the tokenizer";
  const bool decoded = reader.readTokenizer(out);

  ORBLoader loader;
  const Status status = loader.open(file.path());
  EXPECT_EQ(status.message, decoded ? "" : "ORBLoader: no tokenizer section");
  EXPECT_EQ(status.code, decoded ? StatusCode::Ok : StatusCode::InvalidFormat);
  return decoded;
}

bool decodes(const Bytes& section) {
  TokenizerData data;
  return decode(section, data);
}

TokenizerData sample() {
  TokenizerData data;
  data.model = "model name";
  data.tokens = {"", "a", std::string("b\0c", 3), "\xFF\xFE"};
  data.scores = {0, 0x3F800000, 0xFFFFFFFF};
  data.types = {1, 2, 3, -1, 6};
  data.merges = {"a b", ""};
  data.specialIds = {1, -2, 2147483647, -2147483647 - 1};
  data.flag = true;
  return data;
}

// The section up to a list count: 0 tokens, 1 scores, 2 types, 3 merges.
Bytes upToCount(int list) {
  Bytes section("TKNZ");
  section.text("");
  for (int i = 0; i < list; ++i) section.u32(0);
  return section;
}

TEST(TokenizerSectionTest, EveryFieldIsRead) {
  const TokenizerData written = sample();
  TokenizerData read;
  read.tokens = {"old"};
  read.merges = {"old", "old", "old"};
  read.scores = {9, 9, 9, 9};
  ASSERT_TRUE(decode(tokenizerSection(written), read));
  EXPECT_EQ(read.model, written.model);
  EXPECT_EQ(read.tokens, written.tokens);
  EXPECT_EQ(read.scores, written.scores);
  EXPECT_EQ(read.types, written.types);
  EXPECT_EQ(read.merges, written.merges);
  EXPECT_EQ(read.specialIds, written.specialIds);
  EXPECT_TRUE(read.flag);
}

TEST(TokenizerSectionTest, TheSmallestSectionHas41Bytes) {
  const Bytes section = tokenizerSection(TokenizerData());
  EXPECT_EQ(section.size(), 41u);
  TokenizerData data;
  ASSERT_TRUE(decode(section, data));
  EXPECT_TRUE(data.tokens.empty() && data.scores.empty() && data.types.empty());
  EXPECT_FALSE(data.flag);

  std::vector<uint8_t> withoutFlag = section.get();
  withoutFlag.pop_back();
  EXPECT_FALSE(decodes(Bytes(withoutFlag)));
}

TEST(TokenizerSectionTest, AnyFlagButZeroIsTrue) {
  for (const uint8_t flag : {uint8_t{1}, uint8_t{2}, uint8_t{0x80}}) {
    std::vector<uint8_t> section = tokenizerSection(TokenizerData()).get();
    section.back() = flag;
    TokenizerData data;
    ASSERT_TRUE(decode(Bytes(section), data));
    EXPECT_TRUE(data.flag);
  }
}

TEST(TokenizerSectionTest, BytesBehindTheFlagAreIgnored) {
  EXPECT_TRUE(decodes(tokenizerSection(sample()).raw("trailing")));
}

TEST(TokenizerSectionTest, EveryByteOfTheMagicCounts) {
  for (size_t i = 0; i < 4; ++i) {
    std::vector<uint8_t> section = tokenizerSection(TokenizerData()).get();
    section[i] ^= 0x20;
    EXPECT_FALSE(decodes(Bytes(section))) << i;
  }
}

TEST(TokenizerSectionTest, EveryShorterSectionIsRefused) {
  const Bytes section = tokenizerSection(sample());
  const std::vector<uint8_t> good =
      ContainerBuilder().section(SectionType::Tokenizer, section).build();
  for (uint64_t size = 0; size < section.size(); ++size) {
    std::vector<uint8_t> bytes = good;
    poke(bytes, tableField(0, 16), size);
    reseal(bytes);
    const TempFile file(bytes);
    ORBLoader loader;
    ASSERT_EQ(loader.open(file.path()).message, "ORBLoader: no tokenizer section") << size;
  }
}

TEST(TokenizerSectionTest, ATokenThatRunsPastTheEndIsRefused) {
  EXPECT_FALSE(decodes(upToCount(0).u32(1).u32(0xFFFFFFFF).zeros(64)));
  EXPECT_FALSE(decodes(Bytes("TKNZ").u32(61).zeros(60)));
}

TEST(TokenizerSectionTest, CountsNeedTheirBytes) {
  for (int list = 0; list < 4; ++list) {
    EXPECT_FALSE(decodes(upToCount(list).u32(67108864).zeros(64))) << list;
    EXPECT_FALSE(decodes(upToCount(list).u32(0xFFFFFFFF).zeros(64))) << list;
    EXPECT_FALSE(decodes(upToCount(list).u32(0x40000000).zeros(64))) << "4 * count wraps";
  }
}

TEST(TokenizerSectionTest, NoMoreIsReservedThanTheBytesCouldHold) {
  TokenizerData data;
  EXPECT_FALSE(decode(upToCount(0).u32(67108864).zeros(64), data));
  EXPECT_LE(data.tokens.capacity(), 32u) << "16, doubled by the one that is not there";
  EXPECT_FALSE(decode(upToCount(3).u32(67108864).zeros(64), data));
  EXPECT_LE(data.merges.capacity(), 32u);
  EXPECT_FALSE(decode(upToCount(1).u32(67108864).zeros(64), data));
  EXPECT_LE(data.scores.capacity(), 16u);
}

// The bytes of the list are a hole in the file, so that the count alone decides.
TEST(TokenizerSectionTest, TheLimitIsCheckedBeforeTheBytes) {
  for (const uint32_t count : {67108864u, 67108865u}) {
    for (int list = 0; list < 4; ++list) {
      // Once is enough: 256 MiB here, strings for gigabytes in the other lists.
      if (count == 67108864 && list != 1) continue;
      const Bytes head = upToCount(list).u32(count);
      std::vector<uint8_t> bytes = ContainerBuilder().section(SectionType::Tokenizer, head).build();
      const uint64_t offset = (bytes.size() + 63) / 64 * 64;
      const uint64_t size = head.size() + uint64_t{4} * count + 64;
      poke(bytes, tableField(0, 8), offset);
      poke(bytes, tableField(0, 16), size);
      reseal(bytes);
      bytes.resize(offset);
      bytes.insert(bytes.end(), head.get().begin(), head.get().end());
      const TempFile file(bytes);
      file.resize(offset + size);
      ORB2Reader reader;
      ASSERT_TRUE(reader.open(file.path()).ok());
      TokenizerData data;
      EXPECT_EQ(reader.readTokenizer(data), count == 67108864) << list;
    }
  }
}

TEST(TokenizerSectionTest, AFileWithoutOneHasNone) {
  const TempFile file(ContainerBuilder().build());
  ORB2Reader reader;
  TokenizerData data;
  EXPECT_FALSE(reader.readTokenizer(data)) << "closed";
  ASSERT_TRUE(reader.open(file.path()).ok());
  EXPECT_FALSE(reader.readTokenizer(data));
}

TEST(TokenizerSectionTest, OfTwoTheFirstCounts) {
  TokenizerData first = sample();
  first.model = "first";
  const TempFile file(ContainerBuilder().tokenizer(first).tokenizer(sample()).build());
  ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  EXPECT_EQ(loader.tokenizerModel, "first");
}

}  // namespace
}  // namespace kiv
