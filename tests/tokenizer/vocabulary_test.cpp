#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

using Specials = std::vector<std::pair<std::string_view, int32_t>>;

TEST(Vocabulary, FirstMergeWithTheByteLevelMarkerMakesItByteLevel) {
  EXPECT_TRUE(loaded(makeData({"a"}, {"Ġ t"}))->byteLevel());
}

TEST(Vocabulary, FirstMergeWithTheWordMarkerIsNotByteLevel) {
  EXPECT_FALSE(loaded(makeData({"a"}, {"▁ t"}))->byteLevel());
}

TEST(Vocabulary, FirstMergeWithBothMarkersIsNotByteLevel) {
  EXPECT_FALSE(loaded(makeData({"a"}, {"Ġ ▁"}))->byteLevel());
  EXPECT_FALSE(loaded(makeData({"a"}, {"▁ Ġ"}))->byteLevel());
}

TEST(Vocabulary, NoMergesIsNotByteLevel) { EXPECT_FALSE(loaded(makeData({"Ġ"}))->byteLevel()); }

TEST(Vocabulary, OnlyTheFirstMergeDecidesTheMarker) {
  EXPECT_FALSE(loaded(makeData({"a"}, {"a b", "Ġ t"}))->byteLevel());
  EXPECT_FALSE(loaded(makeData({"a"}, {"", "Ġ t"}))->byteLevel());
  EXPECT_TRUE(loaded(makeData({"a"}, {"Ġ t", "▁ t"}))->byteLevel());
}

TEST(Vocabulary, EqualTokensGiveTheLowerId) {
  EXPECT_EQ(loaded(makeData({"x", "same", "y", "same"}))->tokenToId("same"), 1);
}

TEST(Vocabulary, EqualMergesGiveTheLowerRank) {
  // "a b" ranks before "b c" only by its first entry.
  const auto tokenizer = loaded(makeData({"a", "b", "c", "ab", "bc"}, {"a b", "b c", "a b"}));
  EXPECT_EQ(encodedTokens(*tokenizer, "abc"), (std::vector<std::string>{"ab", "c"}));
}

TEST(Vocabulary, LongerSpecialsComeFirst) {
  TokenizerData data = makeData({"a"});
  addToken(data, "<|im_end|>", kUserDefined);
  addToken(data, "<|im_start|>", kControl);
  EXPECT_EQ(loaded(std::move(data))->specials(),
            (Specials{{"<|im_start|>", 2}, {"<|im_end|>", 1}}));
}

TEST(Vocabulary, SpecialsOfEqualLengthAreOrderedByBytesThenId) {
  TokenizerData data = makeData({"a"});
  addToken(data, "<\xC3>", kControl);
  addToken(data, "<z>", kControl);
  addToken(data, "<a>", kControl);
  addToken(data, "<z>", kUserDefined);
  EXPECT_EQ(loaded(std::move(data))->specials(),
            (Specials{{"<a>", 3}, {"<z>", 2}, {"<z>", 4}, {"<\xC3>", 1}}));
}

TEST(Vocabulary, OnlyTypesTwoAndThreeAreSpecial) {
  TokenizerData data = makeData({"a"});
  for (const int32_t type : {-1, 0, 1, 2, 3, 4, 5, 6}) {
    addToken(data, "t" + std::to_string(type), type);
  }
  EXPECT_EQ(loaded(std::move(data))->specials(), (Specials{{"t2", 4}, {"t3", 5}}));
}

TEST(Vocabulary, TypeListOfAnotherLengthIsDropped) {
  for (const size_t count : {0u, 1u, 3u}) {
    TokenizerData data = makeData({"a", "<s>"});
    data.types.assign(count, kControl);
    EXPECT_EQ(loaded(std::move(data))->specialCount(), 0u) << count;
  }
}

TEST(Vocabulary, EmptyStringIsNoTokenUnlessItIsListed) {
  EXPECT_EQ(loaded(makeData({"a"}))->tokenToId(""), -1);
  EXPECT_EQ(loaded(makeData({"a", ""}))->tokenToId(""), 1);
}

TEST(Vocabulary, UnknownStringHasNoId) {
  const auto tokenizer = loaded(makeData({"ab", "abc"}));
  EXPECT_EQ(tokenizer->tokenToId("a"), -1);
  EXPECT_EQ(tokenizer->tokenToId("abcd"), -1);
  EXPECT_EQ(Tokenizer().tokenToId("a"), -1);
}

TEST(Vocabulary, TokensMayHoldAnyByte) {
  const std::string odd("\0\xFF\0", 3);
  const auto tokenizer = loaded(makeData({std::string("\0", 1), odd}));
  EXPECT_EQ(tokenizer->tokenToId(odd), 1);
}

TEST(Vocabulary, IdOutOfRangeFailsAndLeavesTheOutput) {
  const auto tokenizer = loaded(makeData({"▁a", "<0x41>"}));
  std::string out = "before";
  for (const int32_t id : {-1, 2, INT32_MIN, INT32_MAX}) {
    const Status status = tokenizer->tokenToString(id, out);
    EXPECT_EQ(status.code, StatusCode::InvalidFormat);
    EXPECT_EQ(status.message, "tokenizer: token id out of range");
    EXPECT_EQ(out, "before");
  }
}

TEST(Vocabulary, TokenStringIsGivenAsStored) {
  const auto tokenizer = loaded(makeData({"▁a", "<0x41>"}));
  std::string out;
  EXPECT_TRUE(tokenizer->tokenToString(0, out).ok());
  EXPECT_EQ(out, "▁a");
  EXPECT_TRUE(tokenizer->tokenToString(1, out).ok());
  EXPECT_EQ(out, "<0x41>");
}

TEST(Vocabulary, EmptyTokenListIsRefusedAndLeavesTheTokenizer) {
  const auto tokenizer = loaded(makeData({"a", "b"}));
  const Status status = tokenizer->load(makeData({}, {"Ġ t"}));
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message, "tokenizer: empty token list");
  EXPECT_EQ(tokenizer->tokenToId("b"), 1);
  EXPECT_FALSE(tokenizer->byteLevel());
}

TEST(Vocabulary, LoadingAgainReplacesEverything) {
  TokenizerData first = makeData({"a"}, {"Ġ t"});
  addToken(first, "<s>", kControl);
  const auto tokenizer = loaded(std::move(first));
  EXPECT_TRUE(tokenizer->load(makeData({"c", "d", "cd"}, {"c d"})).ok());
  EXPECT_FALSE(tokenizer->byteLevel());
  EXPECT_EQ(tokenizer->specialCount(), 0u);
  EXPECT_EQ(tokenizer->tokenToId("a"), -1);
  EXPECT_EQ(encodedTokens(*tokenizer, "cd<s>"), (std::vector<std::string>{"cd"}));
}

TEST(Vocabulary, CarriesModelNameAndSpecialIds) {
  TokenizerData data = makeData({"a", "b", "c", "d"}, {"a b"});
  data.specialIds = {3, 2, 1, 0};
  data.model = "bpe";
  const auto tokenizer = loaded(std::move(data));
  EXPECT_EQ(tokenizer->bosId(), 3);
  EXPECT_EQ(tokenizer->eosId(), 2);
  EXPECT_EQ(tokenizer->unknownId(), 1);
  EXPECT_EQ(tokenizer->paddingId(), 0);
  EXPECT_EQ(tokenizer->model(), "bpe");
  EXPECT_EQ(tokenizer->tokenCount(), 4u);
  EXPECT_EQ(tokenizer->mergeCount(), 1u);
}

TEST(Vocabulary, BuildingTheIndexesAgainChangesNothing) {
  const auto tokenizer = loaded(makeData({"a", "b", "ab"}, {"a b"}));
  EXPECT_TRUE(tokenizer->buildIndexes().ok());
  EXPECT_EQ(encodedTokens(*tokenizer, "ab"), (std::vector<std::string>{"ab"}));
}

}  // namespace
}  // namespace kiv::testing
