#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

std::string decoded(TokenizerData data) {
  std::vector<int32_t> ids;
  for (size_t id = 0; id < data.tokens.size(); ++id) {
    ids.push_back(static_cast<int32_t>(id));
  }
  std::string text = "before";
  const Status status = loaded(std::move(data))->decode(ids, text);
  EXPECT_TRUE(status.ok()) << status.message;
  return text;
}

TEST(Decode, NotLoadedFailsAndLeavesTheText) {
  std::string text = "before";
  const Status status = Tokenizer().decode({0}, text);
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message, "tokenizer: not loaded");
  EXPECT_EQ(text, "before");
}

TEST(Decode, NoIdsGiveEmptyText) {
  std::string text = "before";
  EXPECT_TRUE(loaded(makeData({"a"}))->decode({}, text).ok());
  EXPECT_EQ(text, "");
}

TEST(Decode, WordMarkersBecomeSpacesAndTheFirstIsKept) {
  EXPECT_EQ(decoded(makeData({"▁Hello", "▁world"})), " Hello world");
}

TEST(Decode, ByteTokensBecomeBytes) {
  EXPECT_EQ(decoded(makeData({"<0xE4>", "<0xBD>", "<0xA0>"})), "\xE4\xBD\xA0");
}

TEST(Decode, ByteTokenMayBeZero) { EXPECT_EQ(decoded(makeData({"<0x00>"})), std::string(1, '\0')); }

TEST(Decode, BothCasesOfDigitsAreAccepted) {
  EXPECT_EQ(decoded(makeData({"<0x0a><0x4F>"})), "\nO");
}

TEST(Decode, WhatIsNoByteTokenIsKept) {
  for (const char* text : {"<0xZZ>", "<0x4>", "<0x041>", "<0X41>", "<1x41>", "[0x41>", "<0x4G>",
                           "<0xG4>", "<0x41]", "<", "<0", "<0x", "<0x4"}) {
    EXPECT_EQ(decoded(makeData({text})), text);
  }
}

TEST(Decode, UnfinishedByteTokenAtTheEndIsKept) {
  EXPECT_EQ(decoded(makeData({"ab<0x41"})), "ab<0x41");
}

TEST(Decode, ByteTokenSpelledAcrossTokensIsConverted) {
  EXPECT_EQ(decoded(makeData({"a<0", "x4", "1>b"})), "aAb");
}

TEST(Decode, ByteTokenPassLooksAtItsInputOnly) {
  // 0x3C is "<": what the pass wrote is not read again.
  EXPECT_EQ(decoded(makeData({"<0x3C>0x41>"})), "<0x41>");
  EXPECT_EQ(decoded(makeData({"<0x<0x41>"})), "<0xA");
}

TEST(Decode, SpecialTokensAreWrittenAsText) {
  TokenizerData data = makeData({"a"});
  addToken(data, "<|im_end|>", kUserDefined);
  EXPECT_EQ(decoded(std::move(data)), "a<|im_end|>");
}

TEST(Decode, SpecialTokensKeepTheWordMarker) {
  for (const int32_t type : {kControl, kUserDefined}) {
    TokenizerData data = makeData({"▁a"});
    addToken(data, "<▁>", type);
    EXPECT_EQ(decoded(std::move(data)), " a<▁>");
  }
}

TEST(Decode, ByteTokenInsideASpecialTokenIsConverted) {
  TokenizerData data = makeData({"a"});
  addToken(data, "<0x42>", kControl);
  EXPECT_EQ(decoded(std::move(data)), "aB");
}

TEST(Decode, WithoutTypesEveryTokenIsOrdinary) {
  TokenizerData data = makeData({"▁a", "▁b"});
  data.types.clear();
  EXPECT_EQ(decoded(std::move(data)), " a b");
}

TEST(Decode, ByteLevelMarkerIsLeftAsItIs) { EXPECT_EQ(decoded(makeData({"Ġa"}, {"Ġ a"})), "Ġa"); }

TEST(Decode, MarkerSpelledAcrossTokensIsKept) {
  EXPECT_EQ(decoded(makeData({"\xE2\x96", "\x81"})), "\xE2\x96\x81");
}

TEST(Decode, BadIdFailsWithTheTextBeforeItUnconverted) {
  const auto tokenizer = loaded(makeData({"▁a", "<0x41>"}));
  for (const int32_t bad : {-1, 2, INT32_MIN, INT32_MAX}) {
    std::string text = "before";
    const Status status = tokenizer->decode({0, 1, bad, 0}, text);
    EXPECT_EQ(status.code, StatusCode::InvalidFormat);
    EXPECT_EQ(status.message, "tokenizer: token id out of range");
    EXPECT_EQ(text, " a<0x41>");
  }
}

}  // namespace
}  // namespace kiv::testing
