#include "orb/read_probe.h"

#include <gtest/gtest.h>

#include <vector>

namespace orb {
namespace {

TEST(ReadProbeTest, MeasuresAnyAlignmentSizeAndThreadCount) {
  const std::vector<uint8_t> memory(100001, 1);
  for (const int threads : {1, 2, 3, 7, 1000}) {
    EXPECT_GT(measureReadSpeed(memory.data() + 1, memory.size() - 1, threads, 2), 0) << threads;
  }
}

TEST(ReadProbeTest, TooLittleMemoryOrNoThreadGivesNothing) {
  const std::vector<uint8_t> memory(255, 1);
  EXPECT_EQ(measureReadSpeed(memory.data(), memory.size(), 1, 2), 0);
  EXPECT_EQ(measureReadSpeed(nullptr, 0, 1, 2), 0);
  EXPECT_EQ(measureReadSpeed(memory.data(), memory.size(), 0, 2), 0);
}

}  // namespace
}  // namespace orb
