// The metadata section: values, getters, enumeration. Its malformed forms are in
// malformed_test.cpp.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "format/container_builder.h"
#include "format/orb2_reader.h"

namespace kiv {
namespace {

using orb2::MetaType;
using orb2::SectionType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::TempFile;

class MetaTest : public testing::Test {
 protected:
  void openSection(const Bytes& section) {
    const TempFile file(ContainerBuilder().section(SectionType::Meta, section).build());
    const Status status = reader_.open(file.path());
    ASSERT_TRUE(status.ok()) << status.message;
  }

  ORB2Reader reader_;
};

Bytes everyType() {
  return Bytes()
      .u32(6)
      .metaKey("u32", MetaType::U32)
      .u32(0xFFFFFFFE)
      .metaKey("i32", MetaType::I32)
      .i32(-7)
      .metaKey("f32", MetaType::F32)
      .f32(-0.5f)
      .metaKey("u64", MetaType::U64)
      .u64(0x123456789ABCDEF0)
      .metaKey("str", MetaType::String)
      .text(std::string_view("a\0b", 3))
      .metaKey("array", MetaType::U32Array)
      .u32(3)
      .u32(1)
      .u32(2)
      .u32(0xFFFFFFFF);
}

TEST_F(MetaTest, EveryTypeIsReadByItsGetter) {
  openSection(everyType());
  uint32_t u32 = 0;
  int32_t i32 = 0;
  float f32 = 0;
  uint64_t u64 = 0;
  std::string str;
  const uint32_t* array = nullptr;
  uint64_t count = 0;
  EXPECT_TRUE(reader_.getMetaU32("u32", u32));
  EXPECT_TRUE(reader_.getMetaI32("i32", i32));
  EXPECT_TRUE(reader_.getMetaF32("f32", f32));
  EXPECT_TRUE(reader_.getMetaU64("u64", u64));
  EXPECT_TRUE(reader_.getMetaStr("str", str));
  EXPECT_TRUE(reader_.getMetaU32Array("array", array, count));
  EXPECT_EQ(u32, 0xFFFFFFFEu);
  EXPECT_EQ(i32, -7);
  EXPECT_EQ(f32, -0.5f);
  EXPECT_EQ(u64, 0x123456789ABCDEF0u);
  EXPECT_EQ(str, std::string("a\0b", 3));
  ASSERT_EQ(count, 3u);
  EXPECT_EQ(array[0], 1u);
  EXPECT_EQ(array[2], 0xFFFFFFFFu);
}

TEST_F(MetaTest, NoGetterConverts) {
  openSection(everyType());
  for (const char* key : {"u32", "i32", "f32", "u64", "str", "array"}) {
    uint32_t u32 = 99;
    int32_t i32 = 99;
    float f32 = 99;
    uint64_t u64 = 99;
    std::string str = "99";
    const uint32_t* array = &u32;
    uint64_t count = 99;
    int found = 0;
    found += reader_.getMetaU32(key, u32);
    found += reader_.getMetaI32(key, i32);
    found += reader_.getMetaF32(key, f32);
    found += reader_.getMetaU64(key, u64);
    found += reader_.getMetaStr(key, str);
    found += reader_.getMetaU32Array(key, array, count);
    EXPECT_EQ(found, 1) << key;
    const int untouched = (u32 == 99) + (i32 == 99) + (f32 == 99) + (u64 == 99) + (str == "99") +
                          (count == 99 && array == &u32);
    EXPECT_EQ(untouched, 5) << key;
  }
}

TEST_F(MetaTest, AWrongTypeIsSkippedAndALaterRightOneFound) {
  openSection(Bytes()
                  .u32(3)
                  .metaKey("k", MetaType::I32)
                  .i32(-1)
                  .metaKey("k", MetaType::U32)
                  .u32(2)
                  .metaKey("k", MetaType::U32)
                  .u32(3));
  uint32_t u32 = 0;
  int32_t i32 = 0;
  EXPECT_TRUE(reader_.getMetaU32("k", u32));
  EXPECT_EQ(u32, 2u) << "the first of its type";
  EXPECT_TRUE(reader_.getMetaI32("k", i32));
  EXPECT_EQ(i32, -1);
}

TEST_F(MetaTest, AKeyMatchesOnlyWhole) {
  openSection(Bytes()
                  .u32(2)
                  .metaKey("key", MetaType::U32)
                  .u32(1)
                  .metaKey(std::string_view("nul\0tail", 8), MetaType::U32)
                  .u32(2));
  uint32_t value = 77;
  for (const char* absent : {"ke", "keys", "KEY", "", "nul"}) {
    EXPECT_FALSE(reader_.getMetaU32(absent, value)) << absent;
  }
  EXPECT_FALSE(reader_.getMetaU32(nullptr, value));
  EXPECT_EQ(value, 77u);
}

TEST_F(MetaTest, AnEmptyKeyIsAKey) {
  openSection(Bytes().u32(1).metaKey("", MetaType::U32).u32(5));
  uint32_t value = 0;
  EXPECT_TRUE(reader_.getMetaU32("", value));
  EXPECT_EQ(value, 5u);
}

TEST_F(MetaTest, AnEmptyArrayIsFoundWithCountZero) {
  openSection(Bytes().u32(1).metaKey("k", MetaType::U32Array).u32(0));
  const uint32_t* array = nullptr;
  uint64_t count = 99;
  EXPECT_TRUE(reader_.getMetaU32Array("k", array, count));
  EXPECT_EQ(count, 0u);
}

TEST_F(MetaTest, AnEmptyStringIsFound) {
  openSection(Bytes().u32(1).metaKey("k", MetaType::String).text(""));
  std::string value = "old";
  EXPECT_TRUE(reader_.getMetaStr("k", value));
  EXPECT_EQ(value, "");
}

TEST_F(MetaTest, FourBytesOfZeroAreAnEmptySection) {
  openSection(Bytes().u32(0));
  ORB2Reader::MetaEntryView entry;
  EXPECT_FALSE(reader_.metaAt(0, entry));
}

TEST_F(MetaTest, TrailingBytesAreIgnored) {
  openSection(Bytes().u32(1).metaKey("k", MetaType::U32).u32(5).raw("trailing"));
  uint32_t value = 0;
  EXPECT_TRUE(reader_.getMetaU32("k", value));
}

TEST_F(MetaTest, EntriesAreEnumeratedInFileOrder) {
  openSection(everyType());
  const char* const keys[] = {"u32", "i32", "f32", "u64", "str", "array"};
  ORB2Reader::MetaEntryView entry;
  for (uint64_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(reader_.metaAt(i, entry));
    EXPECT_EQ(entry.key, keys[i]);
    EXPECT_EQ(entry.type, i);
    EXPECT_EQ(entry.u32, i == 0 ? 0xFFFFFFFE : 0u);
    EXPECT_EQ(entry.i32, i == 1 ? -7 : 0);
    EXPECT_EQ(entry.f32, i == 2 ? -0.5f : 0.0f);
    EXPECT_EQ(entry.u64, i == 3 ? 0x123456789ABCDEF0 : 0u);
    EXPECT_EQ(entry.str.size(), i == 4 ? 3u : 0u);
    EXPECT_EQ(entry.u32Array.size(), i == 5 ? 3u : 0u);
  }
  EXPECT_FALSE(reader_.metaAt(6, entry));
  EXPECT_FALSE(reader_.metaAt(~uint64_t{0}, entry));
  EXPECT_EQ(entry.key, "array") << "untouched";
}

TEST_F(MetaTest, ParsingAgainGivesTheSameEntries) {
  openSection(everyType());
  EXPECT_TRUE(reader_.parseMeta().ok());
  ORB2Reader::MetaEntryView entry;
  EXPECT_TRUE(reader_.metaAt(5, entry));
  EXPECT_FALSE(reader_.metaAt(6, entry));
}

TEST_F(MetaTest, ThousandsOfEntriesAreKept) {
  Bytes section;
  section.u32(5000);
  for (uint32_t i = 0; i < 5000; ++i) section.metaKey(std::to_string(i), MetaType::U32).u32(i);
  openSection(section);
  uint32_t value = 0;
  EXPECT_TRUE(reader_.getMetaU32("4999", value));
  EXPECT_EQ(value, 4999u);
}

}  // namespace
}  // namespace kiv
