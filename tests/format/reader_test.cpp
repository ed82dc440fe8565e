// An opened container: sections, tensor index, quantization info, file size, life cycle.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "format/container_builder.h"
#include "format/orb2_reader.h"

namespace kiv {
namespace {

using orb2::SectionType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::indexEntry;
using orbtest::peek;
using orbtest::poke;
using orbtest::reseal;
using orbtest::tableField;
using orbtest::TempFile;

using File = std::vector<uint8_t>;

// Where the weights stand in a table without further sections, after metadata and tensor index.
constexpr size_t kWeightsOfAbc = 2;

ContainerBuilder abc() {
  ContainerBuilder builder;
  builder.tensor("a", QuantType::F32, {1}, Bytes().f32(1))
      .tensor("b", QuantType::Q8_0, {32, 2, 3}, Bytes().zeros(204))
      .tensor("c", QuantType::F16, {}, Bytes().u16(7));
  return builder;
}

// A reader on a file of these bytes.
struct Opened {
  explicit Opened(const File& bytes) : file(bytes), status(reader.open(file.path())) {
    EXPECT_TRUE(status.ok()) << status.message;
  }
  TempFile file;
  ORB2Reader reader;
  Status status;
};

bool isEmpty(const TensorEntryView& view) {
  const auto zero = [](auto value) { return value == 0; };
  return view.data == nullptr && view.size == 0 && view.type == 0 && view.ndims == 0 &&
         std::all_of(std::begin(view.dims), std::end(view.dims), zero) &&
         std::all_of(std::begin(view.quant), std::end(view.quant), zero);
}

TEST(ReaderTest, SuccessHasCodeOkAndNoMessage) {
  const Opened opened(abc().build());
  EXPECT_EQ(opened.status.code, StatusCode::Ok);
  EXPECT_EQ(opened.status.message, "");
  EXPECT_TRUE(opened.reader.opened());
  EXPECT_TRUE(opened.reader.aligned64());
}

TEST(ReaderTest, SectionsPointIntoTheMapping) {
  const Opened opened(abc().text("hello").build());
  const ORB2Reader& reader = opened.reader;
  const orb2::SectionEntry* text = reader.section(SectionType::Text);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->type, 3u);
  EXPECT_EQ(reader.sectionSize(SectionType::Text), 5u);
  EXPECT_EQ(reader.sectionData(SectionType::Text), reader.mapping() + text->offset);
  EXPECT_EQ(std::memcmp(reader.sectionData(SectionType::Text), "hello", 5), 0);
}

TEST(ReaderTest, AnAbsentSectionIsNullAndEmpty) {
  const Opened opened(abc().build());
  EXPECT_EQ(opened.reader.section(SectionType::Text), nullptr);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Text), nullptr);
  EXPECT_EQ(opened.reader.sectionSize(SectionType::Text), 0u);
}

TEST(ReaderTest, OfTwoSectionsOfOneTypeTheFirstIsFound) {
  const Opened opened(abc().text("first").text("second one").build());
  EXPECT_EQ(opened.reader.sectionSize(SectionType::Text), 5u);
  EXPECT_EQ(*opened.reader.sectionData(SectionType::Text), 'f');
}

TEST(ReaderTest, UnknownSectionsAreIgnored) {
  const Opened opened(abc()
                          .section(static_cast<SectionType>(0), {})
                          .section(static_cast<SectionType>(0xFFFFFFFF), Bytes("x"))
                          .build());
  EXPECT_EQ(opened.reader.sectionSize(static_cast<SectionType>(0xFFFFFFFF)), 1u);
}

TEST(ReaderTest, SixteenSectionsAreNotTooMany) {
  ContainerBuilder builder = abc();
  for (int i = 0; i < 13; ++i) builder.text("x");
  const Opened opened(builder.build());
  EXPECT_EQ(opened.reader.header().sectionCount, 16u);
}

TEST(ReaderTest, ASectionMayEndWithTheFile) {
  const File file = abc().build();
  const uint64_t end = peek<uint64_t>(file, tableField(kWeightsOfAbc, 8)) +
                       peek<uint64_t>(file, tableField(kWeightsOfAbc, 16));
  EXPECT_EQ(end, file.size());
  const Opened opened(file);
}

TEST(ReaderTest, AnEmptySectionMayStandAtTheEndOfTheFile) {
  File file = abc().text("").build();
  file.resize((file.size() + 63) / 64 * 64);
  poke(file, tableField(0, 8), uint64_t{file.size()});
  reseal(file);
  const Opened opened(file);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Text), opened.reader.mapping() + file.size());
}

TEST(ReaderTest, SectionsMayOverlap) {
  File file = abc().text("x").build();
  poke(file, tableField(0, 8), uint64_t{0});
  poke(file, tableField(0, 16), uint64_t{file.size()});
  reseal(file);
  const Opened opened(file);
  EXPECT_EQ(opened.reader.sectionData(SectionType::Text), opened.reader.mapping());
}

TEST(ReaderTest, TheHeaderIsHandedOut) {
  ContainerBuilder builder = abc();
  builder.header.wordA = 0x1111;
  builder.header.wordB = 0x2222;
  builder.header.wordC = ~uint64_t{0};
  const Opened opened(builder.build());
  EXPECT_EQ(opened.reader.header().wordA, 0x1111u);
  EXPECT_EQ(opened.reader.header().wordB, 0x2222u);
  EXPECT_EQ(opened.reader.header().wordC, ~uint64_t{0});
  EXPECT_EQ(opened.reader.header().tensorCount, 3u);
}

TEST(ReaderTest, CloseForgetsEverythingButTheHeader) {
  Opened opened(abc().meta("k", "v").section(SectionType::QuantInfo, Bytes().zeros(96)).build());
  ORB2Reader& reader = opened.reader;
  reader.close();
  EXPECT_FALSE(reader.opened());
  EXPECT_FALSE(reader.aligned64());
  for (uint32_t type = 0; type < 8; ++type) {
    EXPECT_EQ(reader.section(static_cast<SectionType>(type)), nullptr);
    EXPECT_EQ(reader.sectionData(static_cast<SectionType>(type)), nullptr);
    EXPECT_EQ(reader.sectionSize(static_cast<SectionType>(type)), 0u);
  }
  std::string value;
  EXPECT_FALSE(reader.getMetaStr("k", value));
  EXPECT_EQ(reader.findTensor("a"), nullptr);
  EXPECT_TRUE(isEmpty(reader.tensorView(uint64_t{0})));
  EXPECT_TRUE(reader.quantInfo().empty());
  EXPECT_EQ(reader.header().tensorCount, 3u);
  EXPECT_EQ(reader.parseMeta().message, "ORB2: missing meta section");
  EXPECT_TRUE(reader.parseQuantInfo().ok());
  TokenizerData tokenizer;
  EXPECT_FALSE(reader.readTokenizer(tokenizer));
  reader.close();
}

TEST(ReaderTest, OpenReplacesWhatWasOpen) {
  Opened opened(abc().meta("k", "v").build());
  const TempFile other(ContainerBuilder().build());
  ASSERT_TRUE(opened.reader.open(other.path()).ok());
  EXPECT_EQ(opened.reader.header().tensorCount, 0u);
  EXPECT_EQ(opened.reader.findTensor("a"), nullptr);
  std::string value;
  EXPECT_FALSE(opened.reader.getMetaStr("k", value));

  EXPECT_FALSE(opened.reader.open("/nonexistent").ok());
  EXPECT_FALSE(opened.reader.opened());
}

// ---------------------------------------------------------------------- whether the file is there

TEST(HoldsMappingTest, IsSaidOfAnOpenFileThatIsLongEnough) {
  const Opened opened(abc().build());
  EXPECT_TRUE(opened.reader.holdsMapping());
  EXPECT_FALSE(ORB2Reader().holdsMapping());
}

#if !defined(_WIN32)  // where a mapped file can't be cut
TEST(HoldsMappingTest, IsNotSaidOfAFileThatLostItsLastByte) {
  const File bytes = abc().build();
  const Opened opened(bytes);
  opened.file.resize(bytes.size() - 1);
  EXPECT_FALSE(opened.reader.holdsMapping());
  opened.file.resize(bytes.size());
  EXPECT_TRUE(opened.reader.holdsMapping());
}

// As hosts do that close every descriptor before they go into the background.
TEST(HoldsMappingTest, IsNotSaidOnceTheHostClosedTheDescriptor) {
  const int next = open("/dev/null", O_RDONLY);
  close(next);
  const Opened opened(abc().build());
  ASSERT_TRUE(opened.reader.holdsMapping());
  close(next);
  EXPECT_FALSE(opened.reader.holdsMapping());
}
#endif

TEST(FindTensorTest, FindsExactNamesOnly) {
  const Opened opened(abc().build());
  const ORB2Reader& reader = opened.reader;
  const auto* index =
      reinterpret_cast<const orb2::TensorIndexEntry*>(reader.sectionData(SectionType::TensorIndex));
  EXPECT_EQ(reader.findTensor("a"), index);
  EXPECT_EQ(reader.findTensor("b"), index + 1);
  EXPECT_EQ(reader.findTensor("c"), index + 2);
  for (const char* absent : {"bb", "", "0", "d", "B"}) {
    EXPECT_EQ(reader.findTensor(absent), nullptr) << absent;
  }
  EXPECT_EQ(reader.findTensor(nullptr), nullptr);
}

TEST(FindTensorTest, AnEmptyIndexHoldsNothing) {
  const Opened opened(ContainerBuilder().build());
  EXPECT_EQ(opened.reader.findTensor("a"), nullptr);
  EXPECT_EQ(opened.reader.findTensor(""), nullptr);
}

TEST(FindTensorTest, ANameOf64BytesNeedsNoTerminator) {
  const std::string full(64, 'n');
  const Opened opened(abc().tensor(full, QuantType::F32, {1}, Bytes().f32(1)).build());
  const orb2::TensorIndexEntry* entry = opened.reader.findTensor(full.c_str());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->nameLength, 64);
  EXPECT_EQ(opened.reader.findTensor(full.substr(0, 63).c_str()), nullptr);
  EXPECT_EQ(opened.reader.findTensor((full + "more").c_str()), entry) << "64 bytes are compared";
}

TEST(FindTensorTest, BytesCompareUnsigned) {
  const Opened opened(abc().tensor("\xC3\xA9", QuantType::F32, {1}, Bytes().f32(1)).build());
  EXPECT_NE(opened.reader.findTensor("\xC3\xA9"), nullptr);
  EXPECT_NE(opened.reader.findTensor("a"), nullptr);
}

TEST(FindTensorTest, AnUnsortedIndexMisses) {
  ContainerBuilder builder;
  builder.sortIndex = false;
  builder.tensor("c", QuantType::F32, {1}, Bytes().f32(1))
      .tensor("b", QuantType::F32, {1}, Bytes().f32(1))
      .tensor("a", QuantType::F32, {1}, Bytes().f32(1));
  const Opened opened(builder.build());
  for (const char* name : {"a", "b", "c"}) EXPECT_EQ(opened.reader.findTensor(name), nullptr);
}

TEST(TensorViewTest, ShowsTheEntry) {
  const Opened opened(abc().build());
  const TensorEntryView b = opened.reader.tensorView("b");
  EXPECT_EQ(b.data, opened.reader.sectionData(SectionType::WeightData) + 64);
  EXPECT_EQ(b.size, 204u);
  EXPECT_EQ(b.type, 4);
  EXPECT_EQ(b.ndims, 3);
  EXPECT_EQ(b.dims[0], 32u);
  EXPECT_EQ(b.dims[1], 2u);
  EXPECT_EQ(b.dims[2], 3u);
  EXPECT_EQ(b.dims[3], 0u);
  EXPECT_EQ(opened.reader.tensorView(uint64_t{1}).data, b.data);
}

TEST(TensorViewTest, OfAnAbsentTensorIsAllZero) {
  const Opened opened(abc().build());
  EXPECT_TRUE(isEmpty(opened.reader.tensorView(uint64_t{3})));
  EXPECT_TRUE(isEmpty(opened.reader.tensorView(~uint64_t{0})));
  EXPECT_TRUE(isEmpty(opened.reader.tensorView("d")));
  EXPECT_FALSE(isEmpty(opened.reader.tensorView(uint64_t{2})));
}

TEST(TensorViewTest, WithoutDimensionsHasZeroDims) {
  const Opened opened(ContainerBuilder().rawTensor(Bytes(indexEntry("x", 0, {}, 0, 0))).build());
  const TensorEntryView view = opened.reader.tensorView("x");
  EXPECT_EQ(view.ndims, 0);
  for (const uint64_t dim : view.dims) EXPECT_EQ(dim, 0u);
}

TEST(TensorViewTest, UnusedDimensionsReadAsZero) {
  File entry = indexEntry("x", 0, {1, 2, 3, 4}, 0, 0).get();
  poke(entry, 68, uint16_t{2});
  const Opened opened(ContainerBuilder().rawTensor(Bytes(entry)).build());
  const TensorEntryView view = opened.reader.tensorView("x");
  EXPECT_EQ(view.dims[1], 2u);
  EXPECT_EQ(view.dims[2], 0u);
  EXPECT_EQ(view.dims[3], 0u);
}

TEST(TensorViewTest, MoreThanFourDimensionsAreCut) {
  File entry = indexEntry("x", 0, {1, 2, 3, 4}, 0, 0).get();
  poke(entry, 68, uint16_t{0xFFFF});
  const Opened opened(ContainerBuilder().rawTensor(Bytes(entry)).build());
  const TensorEntryView view = opened.reader.tensorView("x");
  EXPECT_EQ(view.ndims, 4);
  EXPECT_EQ(view.dims[3], 4u);
  EXPECT_EQ(opened.reader.findTensor("x")->ndims, 0xFFFF);
}

TEST(TensorViewTest, OffsetAndSizeAreWhatTheIndexSays) {
  const uint64_t hostile = ~uint64_t{0};
  const Opened opened(
      ContainerBuilder().rawTensor(indexEntry("x", 0xFFFF, {1}, hostile, hostile)).build());
  const TensorEntryView view = opened.reader.tensorView("x");
  const uint8_t* weights = opened.reader.sectionData(SectionType::WeightData);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(view.data), reinterpret_cast<uintptr_t>(weights) - 1);
  EXPECT_EQ(view.size, hostile);
  EXPECT_EQ(view.type, 0xFFFF);
}

TEST(QuantInfoTest, EveryTensorShowsTheFirstEightBytesOfItsRecord) {
  Bytes records;
  for (int i = 0; i < 96; ++i) records.u8(static_cast<uint8_t>(i));
  const Opened opened(abc().section(SectionType::QuantInfo, records).build());
  for (uint64_t t = 0; t < 3; ++t) {
    const TensorEntryView view = opened.reader.tensorView(t);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(view.quant[i], 32 * t + i);
  }
  ASSERT_EQ(opened.reader.quantInfo().size(), 3u);
  EXPECT_EQ(opened.reader.quantInfo()[1].type, 0x2120);
  EXPECT_EQ(opened.reader.quantInfo()[1].a, 0x2322);
  EXPECT_EQ(opened.reader.quantInfo()[1].b, 0x27262524u);
  EXPECT_EQ(opened.reader.quantInfo()[1].e, 0x33323130u);
}

TEST(QuantInfoTest, WithoutASectionTheBytesAreZero) {
  const Opened opened(abc().build());
  EXPECT_TRUE(opened.reader.quantInfo().empty());
  for (const uint8_t byte : opened.reader.tensorView("b").quant) EXPECT_EQ(byte, 0);
}

TEST(QuantInfoTest, OnlyWholeRecordsAreKept) {
  const Opened opened(abc().section(SectionType::QuantInfo, Bytes().zeros(100)).build());
  EXPECT_EQ(opened.reader.quantInfo().size(), 3u);
}

TEST(QuantInfoTest, LoadingAgainReplacesTheRecords) {
  Opened opened(abc().section(SectionType::QuantInfo, Bytes().zeros(128)).build());
  EXPECT_TRUE(opened.reader.parseQuantInfo().ok());
  EXPECT_EQ(opened.reader.quantInfo().size(), 4u);
}

TEST(QuantInfoTest, OfNoTensorsMayBeEmpty) {
  const Opened opened(ContainerBuilder().section(SectionType::QuantInfo, {}).build());
  EXPECT_TRUE(opened.reader.quantInfo().empty());
}

// Files of gigabytes are holes behind a small container.
class FileSizeTest : public testing::Test {
 protected:
  static constexpr uint64_t kGiB = uint64_t{1} << 30;

  std::string messageOf(uint64_t size, bool largeFiles) {
    reader_.close();  // some systems refuse to resize what is mapped
    file_.resize(size);
    return reader_.open(file_.path(), largeFiles).message;
  }

  File bytes_ = abc().build();
  TempFile file_{bytes_};
  ORB2Reader reader_;
};

TEST_F(FileSizeTest, UpTo2GiBMinusOneByteNothingChanges) {
  EXPECT_EQ(messageOf(2 * kGiB - 1, false), "");
  EXPECT_EQ(reader_.mappingSize(), 2 * kGiB - 1);
}

TEST_F(FileSizeTest, From2GiBOnTheLengthReadsAsNegative) {
  EXPECT_EQ(messageOf(2 * kGiB, false), "ORB2: cannot stat file");
  EXPECT_EQ(messageOf(4 * kGiB - 1, false), "ORB2: cannot stat file");
  EXPECT_EQ(messageOf(4 * kGiB, false), "ORB2: cannot stat file") << "reads as 0";
}

TEST_F(FileSizeTest, From4GiBOnTheFileIsCut) {
  EXPECT_EQ(messageOf(4 * kGiB + 63, false), "ORB2: file too small");
  EXPECT_EQ(messageOf(4 * kGiB + bytes_.size(), false), "");
  EXPECT_EQ(reader_.mappingSize(), bytes_.size());
  EXPECT_EQ(messageOf(4 * kGiB + bytes_.size() - 1, false), "ORB2: bad section bounds");
}

TEST_F(FileSizeTest, LargeFilesOpenWhole) {
  for (const uint64_t size : {2 * kGiB, 4 * kGiB, 4 * kGiB + 63}) {
    EXPECT_EQ(messageOf(size, true), "");
    EXPECT_EQ(reader_.mappingSize(), size);
  }
}

TEST_F(FileSizeTest, LargeFilesMayHaveSectionsBehind4GiB) {
  poke(bytes_, tableField(kWeightsOfAbc, 8), 4 * kGiB);
  reseal(bytes_);
  const TempFile large(bytes_);
  large.resize(4 * kGiB);
  std::ofstream(large.path(), std::ios::binary | std::ios::app).write("weights", 7);
  large.resize(5 * kGiB);
  EXPECT_EQ(reader_.open(large.path(), false).message, "ORB2: bad section bounds");
  ASSERT_EQ(reader_.open(large.path(), true).message, "");
  EXPECT_EQ(std::memcmp(reader_.tensorView("a").data, "weights", 7), 0);
  reader_.close();
}

}  // namespace
}  // namespace kiv
