// The format's own checksum.
#include <gtest/gtest.h>

#include <string_view>

#include "format/orb2_reader.h"

namespace kiv::orb2 {
namespace {

uint64_t checksum(std::string_view text) {
  return crc64(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

TEST(Crc64Test, AnEmptyBufferGivesZero) {
  EXPECT_EQ(checksum(""), 0u);
  EXPECT_EQ(crc64(nullptr, 0), 0u);
}

TEST(Crc64Test, CheckValues) {
  EXPECT_EQ(checksum("123456789"), 0x4DB9A9F87EC10C59u);
  EXPECT_EQ(checksum("a"), 0x6E77A179CB48B4D6u);
}

TEST(Crc64Test, SingleBytesAreTableEntries) {
  const uint8_t one = 1;
  const uint8_t high = 128;
  EXPECT_EQ(crc64(&one, 1), 0x3C3B78E888D80FE1u);
  EXPECT_EQ(crc64(&high, 1), 0x42F0E1EBA9EA3693u);
}

TEST(Crc64Test, ZerosAreNotSeenAtTheFront) {
  EXPECT_EQ(checksum(std::string_view("\0\0a", 3)), checksum("a")) << "the initial value is 0";
}

}  // namespace
}  // namespace kiv::orb2
