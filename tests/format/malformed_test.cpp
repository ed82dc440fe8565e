// Every message of the container's checks, each from a file that is right but for one thing, and
// the order of the checks.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "format/container_builder.h"
#include "format/loader.h"
#include "system/system.h"

namespace kiv {
namespace {

using orb2::MetaType;
using orb2::SectionType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::peek;
using orbtest::poke;
using orbtest::reseal;
using orbtest::tableField;
using orbtest::TempFile;

using File = std::vector<uint8_t>;

TokenizerData smallTokenizer() {
  TokenizerData data;
  data.model = "bpe";
  data.tokens = {"a", "b", "ab"};
  data.scores = {1, 2, 3};
  data.types = {1, 1, 3};
  data.merges = {"a b"};
  data.specialIds = {2, 2, -1, -1};
  return data;
}

// Table entries: 0 tokenizer, 1 quantization info, 2 metadata, 3 tensor index, 4 weights.
constexpr size_t kQuantInfo = 1, kIndex = 3, kWeights = 4;

ContainerBuilder smallBuilder() {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35")
      .tensor("a", QuantType::F32, {2}, Bytes().f32(1).f32(2))
      .tensor("b", QuantType::F32, {1}, Bytes().f32(3))
      .tokenizer(smallTokenizer())
      .section(SectionType::QuantInfo, Bytes().zeros(64));
  return builder;
}

File smallFile() { return smallBuilder().build(); }

// The small file with one field spoiled and the checksum right.
template <typename T>
File spoiled(uint64_t offset, T value) {
  File file = smallFile();
  poke(file, offset, value);
  reseal(file);
  return file;
}

File withMeta(const Bytes& section) {
  return ContainerBuilder().section(SectionType::Meta, section).build();
}

// One entry of key "k" and the type, with these value bytes.
File withValue(MetaType type, const Bytes& value) {
  return withMeta(Bytes().u32(1).metaKey("k", type).raw(value));
}

File cutTo(File file, size_t size) {
  file.resize(size);
  return file;
}

struct Case {
  const char* name;
  const char* message;
  std::function<File()> file;
};

void PrintTo(const Case& test, std::ostream* out) { *out << test.name; }

std::vector<Case> headerCases() {
  return {
      {"OneByte", "ORB2: file too small", [] { return File{'O'}; }},
      {"SixtyThreeBytes", "ORB2: file too small", [] { return cutTo(smallFile(), 63); }},
      {"SixtyFourBytesWithoutSections", "ORB2: missing tensor index",
       [] {
         File file = cutTo(smallFile(), 64);
         poke(file, 12, uint32_t{0});
         reseal(file);
         return file;
       }},
      {"WrongFirstByteOfMagic", "ORB2: bad magic", [] { return spoiled(0, 'o'); }},
      {"WrongLastByteOfMagic", "ORB2: bad magic", [] { return spoiled(3, '1'); }},
      {"VersionOne", "ORB2: unsupported version", [] { return spoiled(4, uint32_t{1}); }},
      {"VersionThree", "ORB2: unsupported version", [] { return spoiled(4, uint32_t{3}); }},
      {"ByteSwappedHeader", "ORB2: unsupported version",
       [] {
         File file = smallFile();
         poke(file, 4, uint32_t{0x02000000});
         poke(file, 8, uint32_t{0x04030201});
         return file;
       }},
      {"ByteSwappedMarker", "ORB2: big-endian files unsupported",
       [] { return spoiled(8, uint32_t{0x04030201}); }},
      {"WrongMarker", "ORB2: big-endian files unsupported",
       [] { return spoiled(8, uint32_t{0x01020305}); }},
      {"TableOneByteTooLong", "ORB2: truncated section table",
       [] { return cutTo(smallFile(), 64 + 5 * 24 - 1); }},
      {"SeventeenSectionsInAShortFile", "ORB2: truncated section table",
       [] {
         File file = cutTo(smallFile(), 64 + 17 * 24 - 1);
         poke(file, 12, uint32_t{17});
         reseal(file);
         return file;
       }},
      {"SeventeenSectionsInALongFile", "ORB2: too many sections",
       [] {
         File file = smallFile();
         file.resize(64 + 17 * 24);
         poke(file, 12, uint32_t{17});
         reseal(file);
         return file;
       }},
      {"LargestSectionCount", "ORB2: truncated section table",
       [] { return spoiled(12, uint32_t{0xFFFFFFFF}); }},
      {"SectionCountWhoseProductWrapsIn32Bits", "ORB2: truncated section table",
       [] { return spoiled(12, uint32_t{0x0AAAAAAB}); }},
      {"WrongChecksum", "ORB2: CRC mismatch",
       [] {
         File file = smallFile();
         poke(file, 56, peek<uint64_t>(file, 56) + 1);
         return file;
       }},
      {"NoSectionsInALongFile", "ORB2: missing tensor index",
       [] { return spoiled(12, uint32_t{0}); }},
  };
}

std::vector<Case> sectionCases() {
  const uint64_t end = smallFile().size();
  const uint64_t start = peek<uint64_t>(smallFile(), tableField(kWeights, 8));
  return {
      {"OffsetOf32", "ORB2: bad section bounds",
       [] { return spoiled(tableField(0, 8), uint64_t{32}); }},
      {"OffsetNotAMultipleOf64", "ORB2: bad section bounds",
       [=] { return spoiled(tableField(kWeights, 8), start + 1); }},
      {"OneByteBehindTheEnd", "ORB2: bad section bounds",
       [=] { return spoiled(tableField(kWeights, 16), end - start + 1); }},
      {"OffsetBehindTheEnd", "ORB2: bad section bounds",
       [=] { return spoiled(tableField(kWeights, 8), (end / 64 + 1) * 64); }},
      {"EndThatWrapsToZero", "ORB2: bad section bounds",
       [=] { return spoiled(tableField(kWeights, 16), uint64_t{0} - start); }},
      {"EndThatWrapsIntoTheFile", "ORB2: bad section bounds",
       [] {
         File file = smallFile();
         poke(file, tableField(kWeights, 8), uint64_t{0} - 64);
         poke(file, tableField(kWeights, 16), uint64_t{128});
         reseal(file);
         return file;
       }},
      {"UnknownSectionsHaveBoundsToo", "ORB2: bad section bounds",
       [] {
         File file = smallFile();
         poke(file, tableField(kQuantInfo, 0), uint32_t{77});
         poke(file, tableField(kQuantInfo, 16), ~uint64_t{0});
         reseal(file);
         return file;
       }},
      {"NoTensorIndex", "ORB2: missing tensor index",
       [] { return smallBuilder().without(SectionType::TensorIndex).build(); }},
      {"TensorIndexOneByteTooShort", "ORB2: missing tensor index",
       [] { return spoiled(tableField(kIndex, 16), uint64_t{2 * 128 - 1}); }},
      {"OneTensorTooMany", "ORB2: missing tensor index", [] { return spoiled(40, uint64_t{3}); }},
      {"TensorCountWhoseProductWrapsToZero", "ORB2: missing tensor index",
       [] { return spoiled(40, uint64_t{1} << 57); }},
      {"TensorCountWhoseProductWrapsToOneEntry", "ORB2: missing tensor index",
       [] { return spoiled(40, (uint64_t{1} << 57) + 1); }},
      {"LargestTensorCount", "ORB2: missing tensor index",
       [] { return spoiled(40, ~uint64_t{0}); }},
      {"QuantInfoOneByteTooShort", "ORB2: bad quant info",
       [] { return spoiled(tableField(kQuantInfo, 16), uint64_t{2 * 32 - 1}); }},
      {"EmptyQuantInfo", "ORB2: bad quant info",
       [] { return spoiled(tableField(kQuantInfo, 16), uint64_t{0}); }},
      {"NoWeightData", "ORB2: missing weight data",
       [] { return smallBuilder().without(SectionType::WeightData).build(); }},
  };
}

std::vector<Case> metaCases() {
  return {
      {"NoMetaSection", "ORB2: missing meta section",
       [] { return smallBuilder().without(SectionType::Meta).build(); }},
      {"MetaSectionOfThreeBytes", "ORB2: missing meta section",
       [] { return withMeta(Bytes().zeros(3)); }},
      {"EmptyMetaSection", "ORB2: missing meta section", [] { return withMeta({}); }},
      {"NoKeyLength", "ORB2: bad meta key", [] { return withMeta(Bytes().u32(1)); }},
      {"HalfAKeyLength", "ORB2: bad meta key", [] { return withMeta(Bytes().u32(1).u8(0)); }},
      {"KeyOneByteTooLong", "ORB2: bad meta key",
       [] { return withMeta(Bytes().u32(1).u16(3).raw("ab")); }},
      {"LongestKey", "ORB2: bad meta key",
       [] { return withMeta(Bytes().u32(1).u16(0xFFFF).raw("abc")); }},
      {"HugeEntryCount", "ORB2: bad meta key", [] { return withMeta(Bytes().u32(0xFFFFFFFF)); }},
      {"SecondEntryMissing", "ORB2: bad meta key",
       [] { return withMeta(Bytes().u32(2).metaKey("k", MetaType::U32).u32(1)); }},
      {"KeyEndsTheSection", "ORB2: bad meta type",
       [] { return withMeta(Bytes().u32(1).u16(2).raw("ab")); }},
      {"TypeSix", "ORB2: unknown meta type",
       [] { return withMeta(Bytes().u32(1).u16(1).raw("k").u8(6).u64(0)); }},
      {"Type255", "ORB2: unknown meta type",
       [] { return withMeta(Bytes().u32(1).u16(1).raw("k").u8(255)); }},
      {"ShortU32", "ORB2: bad meta u32", [] { return withValue(MetaType::U32, Bytes("abc")); }},
      {"ShortI32", "ORB2: bad meta i32", [] { return withValue(MetaType::I32, Bytes("abc")); }},
      {"ShortF32", "ORB2: bad meta f32", [] { return withValue(MetaType::F32, Bytes("abc")); }},
      {"ShortU64", "ORB2: bad meta u64", [] { return withValue(MetaType::U64, Bytes("1234567")); }},
      {"MissingU32", "ORB2: bad meta u32", [] { return withValue(MetaType::U32, {}); }},
      {"MissingU64", "ORB2: bad meta u64", [] { return withValue(MetaType::U64, {}); }},
      {"ShortStringLength", "ORB2: bad meta str",
       [] { return withValue(MetaType::String, Bytes("abc")); }},
      {"StringOneByteTooLong", "ORB2: bad meta str",
       [] { return withValue(MetaType::String, Bytes().u32(4).raw("abc")); }},
      {"LongestString", "ORB2: bad meta str",
       [] { return withValue(MetaType::String, Bytes().u32(0xFFFFFFFF).raw("abc")); }},
      {"ShortArrayCount", "ORB2: bad meta array",
       [] { return withValue(MetaType::U32Array, Bytes("abc")); }},
      {"ArrayOneByteTooLong", "ORB2: bad meta array",
       [] { return withValue(MetaType::U32Array, Bytes().u32(2).u32(1).raw("abc")); }},
      {"ArrayWhoseBytesWrapIn32Bits", "ORB2: bad meta array",
       [] { return withValue(MetaType::U32Array, Bytes().u32(0x40000001).u32(1)); }},
      {"LongestArray", "ORB2: bad meta array",
       [] { return withValue(MetaType::U32Array, Bytes().u32(0xFFFFFFFF).u32(1)); }},
  };
}

// Several defects at once: the earlier check speaks.
std::vector<Case> orderCases() {
  const auto spoilAll = [](std::vector<std::pair<uint64_t, uint64_t>> words) {
    File file = smallFile();
    for (const auto& [offset, value] : words) poke(file, offset, value);
    reseal(file);
    return file;
  };
  const uint64_t badBounds = ~uint64_t{0};
  return {
      {"MagicBeforeVersion", "ORB2: bad magic",
       [=] {
         return spoilAll({{0, 0}});
       }},
      {"VersionBeforeMarker", "ORB2: unsupported version",
       [=] {
         return spoilAll({{4, uint64_t{3} | uint64_t{7} << 32}});
       }},
      {"MarkerBeforeTable", "ORB2: big-endian files unsupported",
       [=] {
         return spoilAll({{8, uint64_t{7} | uint64_t{999} << 32}});
       }},
      {"TooManySectionsBeforeChecksum", "ORB2: too many sections",
       [] {
         File file = smallFile();
         file.resize(64 + 17 * 24);
         poke(file, 12, uint32_t{17});
         return file;
       }},
      {"ChecksumBeforeBounds", "ORB2: CRC mismatch",
       [=] {
         File file = smallFile();
         poke(file, tableField(0, 16), badBounds);
         return file;
       }},
      {"BoundsBeforeTensorIndex", "ORB2: bad section bounds",
       [=] {
         return spoilAll({{40, 99}, {tableField(kWeights, 16), badBounds}});
       }},
      {"TensorIndexBeforeQuantInfo", "ORB2: missing tensor index",
       [=] {
         return spoilAll({{40, 99}, {tableField(kQuantInfo, 16), 0}});
       }},
      {"QuantInfoBeforeWeightData", "ORB2: bad quant info",
       [=] {
         return spoilAll({{tableField(kWeights, 0), 77}, {tableField(kQuantInfo, 16), 0}});
       }},
      {"WeightDataBeforeMeta", "ORB2: missing weight data",
       [] {
         return smallBuilder().without(SectionType::WeightData).without(SectionType::Meta).build();
       }},
      {"MetaBeforeTokenizer", "ORB2: missing meta section",
       [] { return ContainerBuilder().without(SectionType::Meta).build(); }},
  };
}

class MalformedTest : public testing::TestWithParam<Case> {};

TEST_P(MalformedTest, IsRefusedWithItsMessage) {
  const TempFile file(GetParam().file());
  ORB2Reader reader;
  const Status status = reader.open(file.path());
  EXPECT_EQ(status.message, GetParam().message);
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_FALSE(reader.opened());
  EXPECT_EQ(reader.mapping(), nullptr);
  EXPECT_EQ(reader.mappingSize(), 0u);
  EXPECT_EQ(reader.section(SectionType::TensorIndex), nullptr);
  ORB2Reader::MetaEntryView entry;
  EXPECT_FALSE(reader.metaAt(0, entry));

  ORBLoader loader;
  const Status same = loader.open(file.path());
  EXPECT_EQ(same.message, GetParam().message);
  EXPECT_EQ(same.code, StatusCode::InvalidFormat);
  EXPECT_FALSE(loader.opened);
  EXPECT_TRUE(loader.tensors.empty());
}

std::string nameOf(const testing::TestParamInfo<Case>& test) { return test.param.name; }

INSTANTIATE_TEST_SUITE_P(Header, MalformedTest, testing::ValuesIn(headerCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Sections, MalformedTest, testing::ValuesIn(sectionCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Meta, MalformedTest, testing::ValuesIn(metaCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Order, MalformedTest, testing::ValuesIn(orderCases()), nameOf);

TEST(MalformedTest, TheFileThatTheCasesSpoilIsRight) {
  const TempFile file(smallFile());
  ORBLoader loader;
  const Status status = loader.open(file.path());
  EXPECT_TRUE(status.ok()) << status.message;
}

std::string messageOf(const char* path) {
  ORBLoader loader;
  const Status status = loader.open(path);
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  ORB2Reader reader;
  EXPECT_EQ(reader.open(path).message, status.message);
  return status.message;
}

TEST(UnopenedTest, ANullPathIsRefused) { EXPECT_EQ(messageOf(nullptr), "ORB2: null path"); }

TEST(UnopenedTest, AMissingFileCannotBeOpened) {
  EXPECT_EQ(messageOf("/nonexistent/model.orb"), "ORB2: cannot open file");
  EXPECT_EQ(messageOf(""), "ORB2: cannot open file");
}

TEST(UnopenedTest, AnEmptyFileHasNoLength) {
  const TempFile file(File{});
  EXPECT_EQ(messageOf(file.path()), "ORB2: cannot stat file");
}

#if defined(_WIN32)
TEST(UnopenedTest, ADirectoryCannotBeOpened) {
  const std::string path = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(messageOf(path.c_str()), "ORB2: cannot open file");
}
#else
TEST(UnopenedTest, ADirectoryCannotBeMapped) {
  const std::string path = std::filesystem::temp_directory_path().string();
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  if (info.st_size == 0) GTEST_SKIP() << "directories of this file system have no size";
  EXPECT_EQ(messageOf(path.c_str()), "ORB2: mmap failed");
}

TEST(UnopenedTest, APipeIsRefusedAtOnce) {
  const TempFile place(File{});
  const std::string pipe = std::string(place.path()) + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(messageOf(pipe.c_str()), "ORB2: cannot stat file");
  std::remove(pipe.c_str());
}
#endif

TEST(ChecksumTest, CoversHeaderAndTableAndNothingElse) {
  const File good = smallFile();
  for (size_t at = 16; at < 64 + 5 * 24; ++at) {
    File bad = good;
    bad[at] ^= 0x10;
    const TempFile file(bad);
    ASSERT_EQ(messageOf(file.path()), "ORB2: CRC mismatch") << at;
  }
  File changed = good;
  changed.back() ^= 0xFF;                                             // a weight
  for (size_t at = 64 + 5 * 24; at < 192; ++at) changed[at] ^= 0xFF;  // padding
  const TempFile file(changed);
  ORBLoader loader;
  EXPECT_TRUE(loader.open(file.path()).ok());
}

TEST(TruncationTest, EveryShorterFileIsRefused) {
  const File good = smallFile();
  const TempFile file(good);
  for (size_t size = good.size(); size-- > 0;) {
    file.resize(size);
    ORBLoader loader;
    ASSERT_FALSE(loader.open(file.path()).ok()) << size;
  }
}

TEST(TruncationTest, EveryShorterMetadataSectionIsRefused) {
  const File good =
      ContainerBuilder()
          .meta("a", "text")
          .meta("b", 1)
          .metaEntry(Bytes().metaKey("c", MetaType::U32Array).u32(3).u32(1).u32(2).u32(3))
          .metaEntry(Bytes().metaKey("d", MetaType::U64).u64(5))
          .build();
  const uint64_t size = peek<uint64_t>(good, tableField(0, 16));
  for (uint64_t shorter = 0; shorter < size; ++shorter) {
    File file = good;
    poke(file, tableField(0, 16), shorter);
    reseal(file);
    const TempFile onDisk(file);
    ORB2Reader reader;
    const Status status = reader.open(onDisk.path());
    ASSERT_TRUE(status.message.rfind("ORB2: bad meta", 0) == 0 ||
                status.message == "ORB2: missing meta section")
        << shorter << status.message;
  }
}

// Reads whatever an opened file offers.
void walk(const ORBLoader& loader) {
  const ORB2Reader& reader = loader.reader;
  ORB2Reader::MetaEntryView entry;
  for (uint64_t i = 0; reader.metaAt(i, entry); ++i) {
    std::string text;
    static_cast<void>(reader.getMetaStr(entry.key.c_str(), text));
  }
  const uint64_t count = reader.opened() ? reader.header().tensorCount : 0;
  for (uint64_t i = 0; i < count; ++i) {
    static_cast<void>(reader.tensorView(i));
  }
  for (const TensorView& tensor : loader.tensors) {
    static_cast<void>(loader.findTensor(tensor.name));
    static_cast<void>(reader.tensorView(tensor.name.c_str()));
  }
}

TEST(HostileTest, RandomDamageNeverHarmsTheReader) {
  const File good = smallBuilder().text("free text").build();
  std::mt19937 random(5);
  int opened = 0;
  for (int round = 0; round < 3000; ++round) {
    File file = good;
    const int changes = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < changes; ++i) {
      // The fields behind the version, the table and the sections; often with extreme values.
      const size_t at = 12 + random() % (file.size() - 12);
      const uint8_t extremes[] = {0, 1, 0x7F, 0x80, 0xFF, static_cast<uint8_t>(random())};
      file[at] = extremes[random() % 6];
    }
    if (peek<uint32_t>(file, 12) <= 16) reseal(file);
    const TempFile onDisk(file);
    ORBLoader loader;
    opened += loader.open(onDisk.path()).ok();
    walk(loader);
  }
  EXPECT_GT(opened, 300) << "too few files got past the first checks to mean anything";
}

TEST(HostileTest, FailedOpensKeepNeitherDescriptorsNorMappings) {
  const TempFile file(withMeta({}));
  const int before = openFileCount();
  ORB2Reader reader;
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(reader.open(file.path()).ok());
    EXPECT_FALSE(ORB2Reader().open(file.path()).ok());
  }
  EXPECT_EQ(openFileCount(), before);
  const std::string name = std::filesystem::path(file.path()).filename().string();
  EXPECT_EQ(isFileMapped(name.c_str()), 0);
}

}  // namespace
}  // namespace kiv
