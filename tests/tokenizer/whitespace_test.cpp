#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

std::string escaped(std::string text) {
  escapeWhitespace(text);
  return text;
}

std::string unescaped(std::string text) {
  unescapeWhitespace(text);
  return text;
}

TEST(Whitespace, SpaceBecomesTheWordMarker) {
  EXPECT_EQ(escaped("a b"),
            "a\xE2\x96\x81"
            "b");
}

TEST(Whitespace, EverySpaceBecomesOneMarker) { EXPECT_EQ(escaped("  "), "▁▁"); }

TEST(Whitespace, OtherWhiteSpaceIsKept) { EXPECT_EQ(escaped("\t\n\r\v\f"), "\t\n\r\v\f"); }

TEST(Whitespace, EmptyTextStaysEmpty) {
  EXPECT_EQ(escaped(""), "");
  EXPECT_EQ(unescaped(""), "");
}

TEST(Whitespace, MarkersBecomeSpaces) { EXPECT_EQ(unescaped("▁▁x"), "  x"); }

TEST(Whitespace, TruncatedMarkerIsCopied) {
  EXPECT_EQ(unescaped("x\xE2\x96"), "x\xE2\x96");
  EXPECT_EQ(unescaped("x\xE2"), "x\xE2");
}

TEST(Whitespace, UnescapingNeverLooksBack) {
  EXPECT_EQ(unescaped("\xE2\xE2\x96\x81"), "\xE2 ");
  EXPECT_EQ(unescaped("\xE2\x96\xE2\x96\x81\x81"), "\xE2\x96 \x81");
}

TEST(Whitespace, ByteLevelTokenizerUsesItsOwnMarker) {
  const auto tokenizer = loaded(makeData({"a"}, {"Ġ t"}));
  std::string text = "a b";
  tokenizer->escapeWhitespace(text);
  EXPECT_EQ(text,
            "a\xC4\xA0"
            "b");
}

TEST(Whitespace, OtherTokenizersUseTheWordMarker) {
  const auto tokenizer = loaded(makeData({"a"}, {"▁ t"}));
  std::string text = "a b";
  tokenizer->escapeWhitespace(text);
  EXPECT_EQ(text, "a▁b");
}

TEST(Whitespace, ByteLevelTokenizerUnescapesTheWordMarkerOnly) {
  const auto tokenizer = loaded(makeData({"a"}, {"Ġ t"}));
  std::string text = "\xC4\xA0▁";
  tokenizer->unescapeWhitespace(text);
  EXPECT_EQ(text, "\xC4\xA0 ");
}

}  // namespace
}  // namespace kiv::testing
