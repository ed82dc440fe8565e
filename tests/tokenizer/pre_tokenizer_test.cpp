#include "tokenizer/pre_tokenizer.h"

#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

using Strings = std::vector<std::string>;

Strings split(std::string_view text) {
  Strings pieces;
  while (!text.empty()) {
    const size_t length = preTokenLength(text);
    if (length == 0 || length > text.size()) {
      ADD_FAILURE() << "length " << length << " of " << text.size();
      break;
    }
    pieces.emplace_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return pieces;
}

TEST(PreTokenizer, ContractionIsAPieceOfItsOwn) {
  EXPECT_EQ(split("don't"), (Strings{"don", "'t"}));
  EXPECT_EQ(split("DON'T"), (Strings{"DON", "'T"}));
}

TEST(PreTokenizer, EverySuffixInEitherCaseMakesAContraction) {
  for (const char* suffix : {"s", "t", "re", "ve", "m", "ll", "d", "S", "Re", "vE", "LL"}) {
    EXPECT_EQ(split(std::string("x'") + suffix), (Strings{"x", std::string("'") + suffix}));
    EXPECT_EQ(split(std::string("x’") + suffix), (Strings{"x’" + std::string(suffix)}));
    EXPECT_EQ(split(std::string("1’") + suffix), (Strings{"1", "’" + std::string(suffix)}));
  }
}

TEST(PreTokenizer, ContractionTakesItsSuffixOnly) {
  EXPECT_EQ(split("'stop"), (Strings{"'s", "top"}));
  EXPECT_EQ(split("'really"), (Strings{"'re", "ally"}));
  EXPECT_EQ(split("'double"), (Strings{"'d", "ouble"}));
  EXPECT_EQ(split("'REALLY"), (Strings{"'RE", "ALLY"}));
  EXPECT_EQ(split("’stop"), (Strings{"’s", "top"}));
  EXPECT_EQ(split("’LLama"), (Strings{"’LL", "ama"}));
}

TEST(PreTokenizer, ApostropheWithoutASuffixJoinsTheWord) {
  EXPECT_EQ(split("'lone"), (Strings{"'lone"}));
  EXPECT_EQ(split("'xy"), (Strings{"'xy"}));
  EXPECT_EQ(split("’xy"), (Strings{"’xy"}));
  EXPECT_EQ(split("'r"), (Strings{"'r"}));
  EXPECT_EQ(split("'"), (Strings{"'"}));
}

TEST(PreTokenizer, SpaceJoinsTheWord) {
  EXPECT_EQ(split(" hello"), (Strings{" hello"}));
  EXPECT_EQ(split("hello world"), (Strings{"hello", " world"}));
}

TEST(PreTokenizer, AnySingleByteBeforeALetterJoinsTheWord) {
  EXPECT_EQ(split("\tword"), (Strings{"\tword"}));
  EXPECT_EQ(split("(word"), (Strings{"(word"}));
  EXPECT_EQ(split("\vword"), (Strings{"\vword"}));
  EXPECT_EQ(split(std::string_view("\0word", 5)), (Strings{std::string("\0word", 5)}));
}

TEST(PreTokenizer, DigitsAndLineEndsDoNotJoinTheWord) {
  EXPECT_EQ(split("1word"), (Strings{"1", "word"}));
  EXPECT_EQ(split("\rword"), (Strings{"\r", "word"}));
  EXPECT_EQ(split("\nword"), (Strings{"\n", "word"}));
}

TEST(PreTokenizer, CharactersBeyondAsciiAreLetters) {
  EXPECT_EQ(split(" é你😀a"), (Strings{" é你😀a"}));
  EXPECT_EQ(split("…"), (Strings{"…"}));
}

TEST(PreTokenizer, BrokenCharactersAreSteppedOverByTheirLeadByte) {
  EXPECT_EQ(split("\xE4"
                  " 1!"),
            (Strings{"\xE4"
                     " 1",
                     "!"}));
  EXPECT_EQ(split("a\xF0"), (Strings{"a\xF0"}));
  EXPECT_EQ(split("\x80\xFF 1"), (Strings{"\x80\xFF", " ", "1"}));
}

TEST(PreTokenizer, DigitsComeInThrees) {
  EXPECT_EQ(split("12345"), (Strings{"123", "45"}));
  EXPECT_EQ(split("123456"), (Strings{"123", "456"}));
  EXPECT_EQ(split("1a2"), (Strings{"1", "a", "2"}));
}

TEST(PreTokenizer, SpaceBeforeADigitStandsAlone) {
  EXPECT_EQ(split(" 1"), (Strings{" ", "1"}));
  EXPECT_EQ(split("a 12 b"), (Strings{"a", " ", "12", " b"}));
}

TEST(PreTokenizer, PunctuationTakesOneSpaceBeforeIt) {
  EXPECT_EQ(split("a !?"), (Strings{"a", " !?"}));
  EXPECT_EQ(split("!!a"), (Strings{"!!", "a"}));
  EXPECT_EQ(split("!! a"), (Strings{"!!", " a"}));
  EXPECT_EQ(split("!1"), (Strings{"!", "1"}));
}

TEST(PreTokenizer, PunctuationTakesTheLineEndsAfterIt) {
  EXPECT_EQ(split("!\r\n\r\na"), (Strings{"!\r\n\r\n", "a"}));
  EXPECT_EQ(split("!\n a"), (Strings{"!\n", " a"}));
  EXPECT_EQ(split("! \n"), (Strings{"!", " \n"}));
}

TEST(PreTokenizer, LineEndTakesTheWhiteSpaceAfterIt) {
  EXPECT_EQ(split("a\r\n \tb"), (Strings{"a", "\r\n \t", "b"}));
  EXPECT_EQ(split("\r 1"), (Strings{"\r ", "1"}));
}

TEST(PreTokenizer, RunOfWhiteSpaceStaysWhole) {
  EXPECT_EQ(split("a  b"), (Strings{"a", "  ", "b"}));
  EXPECT_EQ(split("a  !"), (Strings{"a", "  ", "!"}));
  EXPECT_EQ(split(" \t\v\f\r\n x"), (Strings{" \t\v\f\r\n ", "x"}));
  EXPECT_EQ(split("a "), (Strings{"a", " "}));
}

TEST(PreTokenizer, PiecesAreMarkedAndMergedSeparately) {
  const auto tokenizer =
      loaded(makeData({"Ġ", "h", "i", "hi", "Ġhi", "ih"}, {"Ġ h", "h i", "Ġ hi", "i h"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "hi"), (Strings{"hi"}));
  // The merge of "i" and "h" would need a pair across two words.
  const auto joined = loaded(makeData({"Ġ", "h", "i", "Ġh", "iĠ"}, {"Ġ h", "i Ġ"}));
  EXPECT_EQ(encodedTokens(*joined, "i h"), (Strings{"i", "Ġh"}));
}

TEST(PreTokenizer, OneSpaceBeforeAWordBecomesItsMarker) {
  const auto tokenizer = loaded(makeData({"Ġ", "h", "Ġh", "ĠĠ"}, {"Ġ h", "Ġ Ġ"}));
  EXPECT_EQ(encodedTokens(*tokenizer, " h"), (Strings{"Ġh"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "  h"), (Strings{"ĠĠ", "h"}));
}

}  // namespace
}  // namespace kiv::testing
