#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

using Strings = std::vector<std::string>;
using Ids = std::vector<int32_t>;

Ids encodedIds(const Tokenizer& tokenizer, std::string_view text, bool addBos = false) {
  Ids ids = {99};  // encode clears what the caller left
  const Status status = tokenizer.encode(text, ids, addBos);
  EXPECT_TRUE(status.ok()) << status.message;
  return ids;
}

TokenizerData chatData() {
  TokenizerData data =
      makeData({"u", "s", "e", "r", "us", "er", "user", "<", "|", "▁"}, {"u s", "e r", "us er"});
  addToken(data, "<|im_start|>", kUserDefined);  // 10
  addToken(data, "<|im", kControl);              // 11
  return data;
}

TEST(Encode, NotLoadedFailsAndLeavesTheIds) {
  Ids ids = {7};
  const Status status = Tokenizer().encode("a", ids, true);
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message, "tokenizer: not loaded");
  EXPECT_EQ(ids, Ids{7});
}

TEST(Encode, EmptyTextGivesTheBeginIdWhenThereIsOne) {
  TokenizerData data = makeData({"a", "<s>"});
  data.specialIds[0] = 1;
  EXPECT_EQ(encodedIds(*loaded(data), "", true), Ids{1});
  EXPECT_EQ(encodedIds(*loaded(data), "", false), Ids{});
  data.specialIds[0] = -1;
  EXPECT_EQ(encodedIds(*loaded(data), "", true), Ids{});
}

TEST(Encode, BeginIdPrecedesTheText) {
  TokenizerData data = makeData({"a", "<s>"});
  data.specialIds[0] = 0;
  EXPECT_EQ(encodedIds(*loaded(data), "a", true), (Ids{0, 0}));
}

TEST(Encode, RunOfNewlinesGivesOneIdEach) {
  const auto tokenizer = loaded(makeData({"a", "b", "\n", "\n\n"}, {"\n \n"}));
  EXPECT_EQ(encodedIds(*tokenizer, "a\n\nb"), (Ids{0, 2, 2, 1}));
  EXPECT_EQ(encodedIds(*tokenizer, "\n"), Ids{2});
  EXPECT_EQ(encodedIds(*tokenizer, "\na\n"), (Ids{2, 0, 2}));
}

TEST(Encode, NewlineWithoutATokenIsOrdinaryText) {
  TokenizerData data = makeData({"a", "?"});
  EXPECT_EQ(encodedIds(*loaded(data), "a\na"), (Ids{0, 0}));
  data.specialIds[2] = 1;
  EXPECT_EQ(encodedIds(*loaded(data), "a\na"), (Ids{0, 1, 0}));
}

TEST(Encode, MergesNeverCrossANewline) {
  const auto tokenizer = loaded(makeData({"a", "\n", "a\n", "\na"}, {"a \n", "\n a"}));
  EXPECT_EQ(encodedIds(*tokenizer, "a\na"), (Ids{0, 1, 0}));
}

TEST(Encode, SpecialTokenInTheTextIsRecognised) {
  const auto tokenizer = loaded(chatData());
  EXPECT_EQ(encodedTokens(*tokenizer, "<|im_start|>user"), (Strings{"<|im_start|>", "user"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "user<|im_start|>"), (Strings{"user", "<|im_start|>"}));
}

TEST(Encode, WithoutSpecialTokensTheirTextIsOrdinary) {
  TokenizerData data = chatData();
  data.types.clear();
  EXPECT_EQ(encodedTokens(*loaded(std::move(data)), "<|im_start|>user"),
            (Strings{"<", "|", "s", "r", "|", "user"}));
}

TEST(Encode, LongestSpecialTokenWins) {
  const auto tokenizer = loaded(chatData());
  EXPECT_EQ(encodedTokens(*tokenizer, "<|im_start|>"), (Strings{"<|im_start|>"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "<|im_star"), (Strings{"<|im", "s", "r"}));
}

TEST(Encode, LeftmostSpecialTokenWinsOverALongerOne) {
  TokenizerData data = makeData({"a", "b", "c", "d"});
  addToken(data, "ab", kControl);
  addToken(data, "bcd", kControl);
  EXPECT_EQ(encodedTokens(*loaded(std::move(data)), "abcd"), (Strings{"ab", "c", "d"}));
}

TEST(Encode, EqualSpecialTokensGiveTheLowerId) {
  TokenizerData data = makeData({"a"});
  addToken(data, "<s>", kControl);
  addToken(data, "<s>", kUserDefined);
  EXPECT_EQ(encodedIds(*loaded(std::move(data)), "<s>"), Ids{1});
}

TEST(Encode, EmptySpecialTokenNeverMatches) {
  TokenizerData data = makeData({"a"});
  addToken(data, "", kControl);
  EXPECT_EQ(encodedIds(*loaded(data), "aa"), (Ids{0, 0}));
  addToken(data, "<s>", kControl);
  EXPECT_EQ(encodedIds(*loaded(data), "a<s>a"), (Ids{0, 2, 0}));
}

TEST(Encode, SpecialTokenWithASpaceMatchesMarkedText) {
  // Spaces are marked before anything else, so the stored form must hold the marker.
  TokenizerData data = makeData({"a"});
  addToken(data, "<▁>", kControl);
  addToken(data, "[ ]", kControl);
  EXPECT_EQ(encodedIds(*loaded(std::move(data)), "< >[ ]"), Ids{1});
}

TEST(Encode, ByteLevelSpecialTokenWithASpaceMatchesTheText) {
  TokenizerData data = makeData({"a"}, {"Ġ a"});
  addToken(data, "[ ]", kControl);
  EXPECT_EQ(encodedIds(*loaded(std::move(data)), "[ ]"), Ids{1});
}

TEST(Encode, SpecialTokenCutsMerges) {
  TokenizerData data = makeData({"a", "aa"}, {"a a"});
  addToken(data, "|", kControl);
  EXPECT_EQ(encodedTokens(*loaded(std::move(data)), "aa|a"), (Strings{"aa", "|", "a"}));
}

TEST(Encode, SegmentOfNewlinesThatIsATokenIsThatToken) {
  const auto tokenizer = loaded(makeData({"\n", "\n\n", "a"}));
  Ids ids = {5};
  EXPECT_TRUE(tokenizer->tokenizeSegment("\n\n", ids).ok());
  EXPECT_EQ(ids, (Ids{5, 1}));
  EXPECT_TRUE(tokenizer->tokenizeSegment("\n\n\n", ids).ok());
  EXPECT_EQ(ids, (Ids{5, 1, 0, 0, 0}));
}

TEST(Encode, LowerLayersAppendAndTakeEmptyPieces) {
  const auto tokenizer = loaded(chatData());
  Ids ids = {5};
  EXPECT_TRUE(tokenizer->tokenizeSegment("", ids).ok());
  EXPECT_TRUE(tokenizer->tokenizePlain("", ids).ok());
  EXPECT_TRUE(tokenizer->tokenizeBpe("", ids).ok());
  EXPECT_EQ(ids, Ids{5});
  EXPECT_TRUE(tokenizer->tokenizeSegment("u", ids).ok());
  EXPECT_TRUE(tokenizer->tokenizePlain("s", ids).ok());
  EXPECT_TRUE(tokenizer->tokenizeBpe("e", ids).ok());
  EXPECT_EQ(ids, (Ids{5, 0, 1, 2}));
}

TEST(Encode, SpacesAreMarkedBeforeMerging) {
  const auto tokenizer = loaded(makeData({"▁", "a", "▁a"}, {"▁ a"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "a a  a"), (Strings{"a", "▁a", "▁", "▁a"}));
}

TEST(Encode, WordMarkerVocabularyIsNotPreTokenized) {
  const auto tokenizer = loaded(makeData({"▁", "a", "!", "a!", "!▁", "a!▁"}, {"! ▁", "a !▁"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "a! "), (Strings{"a!▁"}));
}

TEST(Encode, EqualRanksMergeLeftmostFirst) {
  const auto tokenizer = loaded(makeData({"a", "aa"}, {"a a"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "aaa"), (Strings{"aa", "a"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "aaaaa"), (Strings{"aa", "aa", "a"}));
}

TEST(Encode, LowerRankMergesFirst) {
  const auto tokenizer = loaded(makeData({"a", "b", "c", "ab", "bc"}, {"b c", "a b"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "abc"), (Strings{"a", "bc"}));
}

TEST(Encode, UnknownCharacterIsDroppedWithoutAnUnknownId) {
  EXPECT_EQ(encodedIds(*loaded(makeData({"a"})), "aéxa"), (Ids{0, 0}));
}

TEST(Encode, UnknownCharacterBecomesTheUnknownId) {
  TokenizerData data = makeData({"a", "?"});
  data.specialIds[2] = 1;
  EXPECT_EQ(encodedIds(*loaded(std::move(data)), "aéxa"), (Ids{0, 1, 1, 0}));
}

TEST(Encode, MergedSymbolWithoutATokenIsUnknownAsAWhole) {
  TokenizerData data = makeData({"a", "b", "?"}, {"a b"});
  data.specialIds[2] = 2;
  EXPECT_EQ(encodedIds(*loaded(std::move(data)), "ab"), Ids{2});
}

TEST(Encode, SymbolsAreWholeCharacters) {
  const auto tokenizer = loaded(makeData({"é", "你", "😀", "\xC3"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "é你😀"), (Strings{"é", "你", "😀"}));
}

TEST(Encode, CharacterCutShortKeepsTheBytesThatRemain) {
  const auto tokenizer = loaded(makeData({"\xE4\xBD", "\xF0\x9F\x98", "\xC3"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "\xE4\xBD"), (Strings{"\xE4\xBD"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "\xF0\x9F\x98"), (Strings{"\xF0\x9F\x98"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "\xC3"), (Strings{"\xC3"}));
}

TEST(Encode, StrayBytesAreSymbolsOfTheirOwn) {
  const auto tokenizer = loaded(makeData({"\x80", "\xBF", "\xF8", "\xFF"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "\x80\xBF\xF8\xFF"),
            (Strings{"\x80", "\xBF", "\xF8", "\xFF"}));
}

TEST(Encode, LeadByteDecidesTheLengthWhateverFollows) {
  const auto tokenizer =
      loaded(makeData({"\xE4"
                       "ab",
                       "c"}));
  EXPECT_EQ(encodedTokens(*tokenizer,
                          "\xE4"
                          "abc"),
            (Strings{"\xE4"
                     "ab",
                     "c"}));
}

TEST(Encode, TextMayHoldZeroBytes) {
  const auto tokenizer = loaded(makeData({std::string(1, '\0'), "a"}));
  EXPECT_EQ(encodedIds(*tokenizer, std::string_view("a\0a", 3)), (Ids{1, 0, 1}));
}

TEST(Encode, RuleWithAnAmbiguousSpaceServesBothPairs) {
  // A word-marker vocabulary never sees a space, but the layers below can be called directly.
  const auto tokenizer = loaded(makeData({"a", "b", " ", "a ", " b"}, {"a  b", "a  ", "  b"}));
  Ids ids;
  EXPECT_TRUE(tokenizer->tokenizeBpe("a b", ids).ok());
  EXPECT_EQ(ids, Ids{});  // "a" + " " by rank 1, then "a " + "b" by rank 0: not a token
}

}  // namespace
}  // namespace kiv::testing
