// Files that are changed, replaced, removed or shortened while they are open.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "hostile/hostile_case.h"
#include "hostile/memory_file.h"
#include "hostile/talking_handle.h"
#include "model/model.h"
#include "model/validation.h"

namespace orbtest {
namespace {

constexpr size_t kOffsetField = 104;  // of an index entry
constexpr size_t kNdimsField = 68;

class ChangingFileTest : public testing::Test {
 protected:
  void SetUp() override { setenv("QWEN35_MAX_TOKENS", "8", 1); }
  void TearDown() override { unsetenv("QWEN35_MAX_TOKENS"); }

  void overwriteIndex(MemoryFile& file, size_t field, uint64_t value, size_t size) {
    for (uint64_t at = sectionOffset(kIndexSection); at < validFile().size(); at += 128) {
      file.write(at + field, &value, size);
    }
  }
};

TEST_F(ChangingFileTest, ATableRewrittenAfterOpeningMovesNoSection) {
  MemoryFile file(validFile());
  kiv::ORB2Reader reader;
  ASSERT_TRUE(reader.open(file.path()).ok());
  const std::vector<uint8_t> ones(24 * kSections, 0xFF);
  file.write(64, ones.data(), ones.size());
  EXPECT_EQ(reader.sectionSize(SectionType::WeightData), sectionSize(kWeightSection));
  EXPECT_EQ(reader.sectionData(SectionType::WeightData),
            reader.mapping() + sectionOffset(kWeightSection));
  EXPECT_NE(reader.findTensor("token_embd.weight"), nullptr);
}

TEST_F(ChangingFileTest, AnIndexRewrittenAfterOpeningMovesNoTensor) {
  MemoryFile file(validFile());
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  overwriteIndex(file, kOffsetField, UINT64_MAX - 3, 8);
  qwen35::Model model;
  EXPECT_TRUE(initLayers(loader, model, 2));
  EXPECT_TRUE(bindModel(loader, model, 2));
  EXPECT_EQ(model.tokenEmbedding->data, loader.reader.mapping() + sectionOffset(kWeightSection));
}

// What was read is what is checked: a file can't pass by showing the checks something else.
TEST_F(ChangingFileTest, AnIndexRepairedAfterOpeningIsStillRefused) {
  File bad = validFile();
  for (uint64_t at = sectionOffset(kIndexSection); at < bad.size(); at += 128) {
    poke(bad, at + kOffsetField, uint64_t{1} << 40);
  }
  MemoryFile file(bad);
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  overwriteIndex(file, kOffsetField, 0, 8);
  EXPECT_EQ(qwen35::findGlobalDefects(loader).size(), 2u);
  qwen35::Model model;
  EXPECT_FALSE(initLayers(loader, model, 2));
}

TEST_F(ChangingFileTest, DimensionsThatAreHiddenAfterOpeningAreStillLookedAt) {
  File bad = validFile();
  for (uint64_t at = sectionOffset(kIndexSection); at < bad.size(); at += 128) {
    poke(bad, at + kNdimsField, uint16_t{3});  // the third is 0
  }
  MemoryFile file(bad);
  kiv::ORBLoader loader;
  ASSERT_TRUE(loader.open(file.path()).ok());
  overwriteIndex(file, kNdimsField, 2, 2);
  EXPECT_EQ(qwen35::findGlobalDefects(loader).size(), 2u);
}

TEST_F(ChangingFileTest, WeightsRewrittenDuringAConversationChangeNumbersOnly) {
  MemoryFile file(talkingFile());
  Handle handle(file.path());
  EXPECT_EQ(handle.generate(), ORB_OK);
  const std::vector<uint8_t> ones(64, 0xFF);  // NaN
  file.write(sectionOffset(kWeightSection), ones.data(), ones.size());
  EXPECT_EQ(handle.generate(), ORB_FAILED);
  const std::vector<float> numbers(16, 1);
  file.write(sectionOffset(kWeightSection), numbers.data(), 64);
  EXPECT_EQ(handle.generate(), ORB_OK);
}

TEST_F(ChangingFileTest, ARemovedFileStaysInUse) {
  std::string before;
  std::string after;
  auto file = std::make_unique<TempFile>(talkingFile());
  Handle handle(file->path());
  EXPECT_EQ(handle.generate(&before), ORB_OK);
  file.reset();
  EXPECT_EQ(handle.generate(&after), ORB_OK);
  EXPECT_EQ(before, after);
  EXPECT_EQ(before.size(), 8u);
}

TEST_F(ChangingFileTest, AFileReplacedByRenamingStaysInUse) {
  std::string before;
  std::string after;
  const TempFile file(talkingFile());
  const TempFile other(File{'x'});
  Handle handle(file.path());
  EXPECT_EQ(handle.generate(&before), ORB_OK);
  std::filesystem::rename(other.path(), file.path());
  EXPECT_EQ(handle.generate(&after), ORB_OK);
  EXPECT_EQ(before, after);
  ORBRuntimeProbe verdict{};
  EXPECT_EQ(table().probe(file.path(), &verdict), ORB_OK);
  EXPECT_EQ(verdict.score, 0u);
}

TEST_F(ChangingFileTest, AFileThatGrowsIsTheSameModel) {
  MemoryFile file(talkingFile());
  Handle handle(file.path());
  file.resize(talkingFile().size() + 100000);
  EXPECT_EQ(handle.generate(), ORB_OK);
}

// The next read behind the new end would end the process.
TEST_F(ChangingFileTest, AShortenedFileFailsEveryCallThatWouldReadIt) {
  const File content = talkingFile();
  for (const size_t size : {content.size() - 1, content.size() / 2, size_t{0}}) {
    MemoryFile file(content);
    Handle handle(file.path());
    EXPECT_EQ(handle.generate(), ORB_OK);
    file.resize(size);
    EXPECT_EQ(handle.generate(), ORB_FAILED);
    std::array<char, 64> out{};
    EXPECT_EQ(table().chatTurn(handle.get(), "a", out.data(), out.size()), ORB_FAILED);
    EXPECT_EQ(orb_plugin_runtimes_v2s(nullptr)->chatTurnStream(handle.get(), "a", nullptr, nullptr,
                                                               nullptr),
              ORB_FAILED);
    ORBBenchResult figures{};
    EXPECT_EQ(table().bench(handle.get(), nullptr, &figures), ORB_FAILED);
    ORBRuntimeStats stats{};
    EXPECT_EQ(table().stats(handle.get(), &stats), ORB_OK);
    EXPECT_EQ(table().reset(handle.get()), ORB_OK);
    // Once it is what it was, the handle works again.
    file.resize(content.size());
    file.write(0, content.data(), content.size());
    EXPECT_EQ(handle.generate(), ORB_OK);
  }
}

TEST_F(ChangingFileTest, AFileThatVanishesBetweenProbeAndCreateIsRefused) {
  auto file = std::make_unique<TempFile>(talkingFile());
  const std::string path = file->path();
  ORBRuntimeProbe verdict{};
  EXPECT_EQ(table().probe(path.c_str(), &verdict), ORB_OK);
  EXPECT_EQ(verdict.score, uint32_t{ORB_PROBE_SCORE_SERVED});
  file.reset();
  ORBRuntimeHandle* handle = nullptr;
  std::array<char, 64> message{};
  EXPECT_EQ(table().create(path.c_str(), nullptr, &handle, message.data(), message.size()),
            ORB_FAILED);
  EXPECT_EQ(handle, nullptr);
  EXPECT_STREQ(message.data(), kOpenFailed);
}

}  // namespace
}  // namespace orbtest
