#include "orb/utf8_assembler.h"

#include <gtest/gtest.h>

#include <string>

namespace orb {
namespace {

// The whole stream, cut into pieces of `step` bytes.
std::string assemble(const std::string& bytes, size_t step) {
  Utf8Assembler assembler;
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += step) text += assembler.push(bytes.substr(i, step));
  return text + assembler.finish();
}

TEST(Utf8AssemblerTest, HoldsAnUnfinishedCharacterBack) {
  Utf8Assembler assembler;
  EXPECT_EQ(assembler.push("a\xE4"), "a");
  EXPECT_EQ(assembler.push("\xBD"), "");
  EXPECT_EQ(assembler.push("\xA0z"), "\u4F60z");
  EXPECT_EQ(assembler.finish(), "");
}

TEST(Utf8AssemblerTest, TextOfEveryLengthComesThroughInAnyPieces) {
  const std::string text = "a\u00E9\u4F60\U0001F600\u07FF\uFFFF\U0010FFFF\u0080\u0800\U00010000.";
  for (size_t step = 1; step <= text.size(); ++step) EXPECT_EQ(assemble(text, step), text) << step;
}

TEST(Utf8AssemblerTest, EveryIllFormedPartBecomesOneReplacement) {
  const struct {
    const char* bytes;
    const char* text;
  } cases[] = {
      {"\x80", "\uFFFD"},                      // continuation without a lead
      {"\xC0\x80", "\uFFFD\uFFFD"},            // overlong NUL
      {"\xC1\xBF", "\uFFFD\uFFFD"},            // overlong
      {"\xE0\x9F\xBF", "\uFFFD\uFFFD\uFFFD"},  // overlong three bytes
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},  // surrogate
      {"\xF0\x8F\xBF\xBF", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond U+10FFFF
      {"\xF5", "\uFFFD"},
      {"\xFF", "\uFFFD"},
      {"\xE4\xBD"
       "A",
       "\uFFFDA"},                                   // cut short by a letter
      {"\xF0\x9F\x98\xE4\xBD\xA0", "\uFFFD\u4F60"},  // cut short by a character
      {"\xE4\xE4\xBD\xA0", "\uFFFD\u4F60"},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(assemble(bytes, 1), text);
    EXPECT_EQ(assemble(bytes, 100), text);
  }
}

TEST(Utf8AssemblerTest, AnUnfinishedEndBecomesOneReplacementAndIsForgotten) {
  Utf8Assembler assembler;
  EXPECT_EQ(assembler.push("\xF0\x9F\x98"), "");
  EXPECT_EQ(assembler.finish(), "\uFFFD");
  EXPECT_EQ(assembler.push("\x80"), "\uFFFD");
  EXPECT_EQ(assembler.finish(), "");
}

TEST(Utf8AssemblerTest, NulBytesAreText) {
  EXPECT_EQ(assemble(std::string("a\0b", 3), 1), std::string("a\0b", 3));
}

TEST(WithoutControlsTest, WhatWouldSteerATerminalIsReplaced) {
  EXPECT_EQ(withoutControls("a\x1b[2Jb\rc\x7f"), "a\uFFFD[2Jb\uFFFDc\uFFFD");
  EXPECT_EQ(withoutControls("\u009B31m"), "\uFFFD31m");
  EXPECT_EQ(withoutControls("line\n\ttab \u00A0 \u4F60"), "line\n\ttab \u00A0 \u4F60");
}

}  // namespace
}  // namespace orb
