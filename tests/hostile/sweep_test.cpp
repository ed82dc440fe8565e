// Every way to cut a small valid file, and every single bit of it turned over.
#include <gtest/gtest.h>

#include "format/loader.h"
#include "hostile/hostile_case.h"
#include "hostile/memory_file.h"
#include "model/forward.h"
#include "model/model.h"

namespace orbtest {
namespace {

#if ORB_INSTRUMENTED
constexpr uint64_t kStride = 61;
#else
constexpr uint64_t kStride = 1;
#endif
constexpr uint64_t kSwept = 65536;  // bytes; the valid file is shorter
constexpr size_t kMaxContext = 2;

// Opens the file and, if asked, binds it and feeds one token. Says whether it opened.
bool takes(const MemoryFile& file, bool whole) {
  kiv::ORBLoader loader;
  if (!loader.open(file.path()).ok()) return false;
  if (!whole) return true;
  qwen35::Model model;
  if (!initLayers(loader, model, kMaxContext) || !bindModel(loader, model, kMaxContext))
    return true;
  std::vector<float> embedding(model.hiddenSize);
  std::vector<float> logits(model.vocabularySize);
  qwen35::embedRow(model, model.vocabularySize - 1, embedding.data());
  qwen35::forwardToken(model, embedding.data(), 0, logits.data());
  return true;
}

// Turns over every bit of the bytes, one at a time, and counts how often the file still opens.
struct Sweep {
  uint64_t tried = 0;
  uint64_t opened = 0;
};

Sweep flip(const File& valid, uint64_t first, uint64_t size, bool whole) {
  MemoryFile file(valid);
  Sweep sweep;
  for (uint64_t bit = 0; bit < 8 * size; bit += kStride) {
    const uint64_t at = first + bit / 8;
    const uint8_t before = valid[at];
    const auto after = static_cast<uint8_t>(before ^ (1 << bit % 8));
    file.write(at, &after, 1);
    sweep.tried += 1;
    sweep.opened += takes(file, whole) ? 1 : 0;
    file.write(at, &before, 1);
  }
  return sweep;
}

TEST(SweepTest, TheValidFileIsTakenAndFitsTheSweep) {
  EXPECT_TRUE(takes(MemoryFile(validFile()), true));
  EXPECT_LE(validFile().size(), kSwept);
}

TEST(SweepTest, NoPieceOfAFileOpens) {
  MemoryFile file(validFile());
  for (uint64_t size = validFile().size() - 1; size > 0; --size) {
    file.resize(size);
    if (size % kStride != 0) continue;
    ASSERT_FALSE(takes(file, false)) << size << " bytes";
  }
}

TEST(SweepTest, NoBitOfHeaderAndTableIsFreeToChange) {
  EXPECT_EQ(flip(validFile(), 0, 64 + 24 * kSections, false).opened, 0u);
}

// Some of the weights, the tokenizer, the metadata, and the tensors of one block.
TEST(SweepTest, AnyBitOfTheContentMayChange) {
  const File& file = validFile();
  const Sweep weights = flip(file, sectionOffset(kWeightSection), 64, true);
  EXPECT_EQ(weights.opened, weights.tried);
  for (const size_t section : {kTokenizerSection, kMetaSection}) {
    const Sweep sweep = flip(file, sectionOffset(section), sectionSize(section), true);
    EXPECT_LT(sweep.opened, 8 * sectionSize(section));
  }
  const Sweep block = flip(file, sectionOffset(kIndexSection), 11 * 128, true);
  EXPECT_EQ(block.opened, block.tried);
}

// Nothing in the index keeps a file from opening: it is looked at when the model is bound. To
// whoever opens a file its blocks are alike: two stand for all.
TEST(SweepTest, AnyBitOfTheIndexMayChange) {
  const File file = smallestModel(1, 2).build();
  const uint64_t index = sectionOffset(kIndexSection, file);
  const Sweep sweep = flip(file, index, sectionSize(kIndexSection, file), false);
  EXPECT_EQ(sweep.opened, sweep.tried);
}

}  // namespace
}  // namespace orbtest
