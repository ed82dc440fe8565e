#include "orb/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace orb {
namespace {

TEST(FormatTest, LongTextIsNotCut) {
  const std::string word(5000, 'x');
  EXPECT_EQ(format("<%s %d>", word.c_str(), 7), "<" + word + " 7>");
  EXPECT_EQ(format("%s", ""), "");
}

TEST(FormatBytesTest, ShowsThreeDigitsInPowersOf1000) {
  EXPECT_EQ(formatBytes(0), "0 bytes");
  EXPECT_EQ(formatBytes(1), "1 byte");
  EXPECT_EQ(formatBytes(999), "999 bytes");
  EXPECT_EQ(formatBytes(1000), "1.00 kB");
  EXPECT_EQ(formatBytes(65536), "65.5 kB");
  EXPECT_EQ(formatBytes(999499), "999 kB");
  EXPECT_EQ(formatBytes(999500), "1.00 MB");
  EXPECT_EQ(formatBytes(2369040384), "2.37 GB");
  EXPECT_EQ(formatBytes(UINT64_MAX), "18.4 EB");
}

TEST(FormatCountTest, NamesMillionsAndBillions) {
  EXPECT_EQ(formatCount(426), "426");
  EXPECT_EQ(formatCount(999499), "999499");
  EXPECT_EQ(formatCount(999500), "1.00 million");
  EXPECT_EQ(formatCount(999500000), "1.00 billion");
  EXPECT_EQ(formatCount(4205751296), "4.21 billion");
}

TEST(FormatThreeDigitsTest, RoundsBeforeItCountsDigits) {
  EXPECT_EQ(formatThreeDigits(0), "0.000");
  EXPECT_EQ(formatThreeDigits(0.9996), "1.00");
  EXPECT_EQ(formatThreeDigits(9.996), "10.0");
  EXPECT_EQ(formatThreeDigits(99.96), "100");
  EXPECT_EQ(formatThreeDigits(21.54), "21.5");
  EXPECT_EQ(formatThreeDigits(12345), "12345");
}

TEST(FormatDurationTest, TakesTheUnitThatFits) {
  EXPECT_EQ(formatDuration(0), "0 ms");
  EXPECT_EQ(formatDuration(0.0123), "12 ms");
  EXPECT_EQ(formatDuration(0.9996), "1.0 s");
  EXPECT_EQ(formatDuration(59.94), "59.9 s");
  EXPECT_EQ(formatDuration(59.96), "1 min 00 s");
  EXPECT_EQ(formatDuration(3599.4), "59 min 59 s");
  EXPECT_EQ(formatDuration(3599.6), "1 h 00 min");
  EXPECT_EQ(formatDuration(-1), "?");
  EXPECT_EQ(formatDuration(1e300), "?");
}

TEST(PrintableTest, TextIsKept) {
  EXPECT_EQ(printable("blk.0.attn_q.weight \u4F60 \\ \""), "blk.0.attn_q.weight \u4F60 \\ \"");
}

TEST(PrintableTest, ControlsAndBrokenUtf8AreSpelledOut) {
  EXPECT_EQ(printable("a\nb\tc"), "a\\nb\\tc");
  EXPECT_EQ(printable(std::string_view("\x1b[2J\0", 5)), "\\x1B[2J\\x00");
  EXPECT_EQ(printable("\xE4\xBD"), "\\xE4\\xBD");
  EXPECT_EQ(printable("\xE4\xBD"
                      "A\xFF"),
            "\\xE4\\xBDA\\xFF");
  EXPECT_EQ(printable("\u009B"), "\\xC2\\x9B");
}

TEST(PrintableTest, ALongTextIsCutBetweenCharacters) {
  EXPECT_EQ(printable("\u4F60\u4F60\u4F60", 7), "\u4F60\u4F60...");
  EXPECT_EQ(printable("abc", 3), "abc");
  EXPECT_EQ(printable("abcd", 3), "abc...");
}

}  // namespace
}  // namespace orb
