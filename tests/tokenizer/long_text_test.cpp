// A line of one mebibyte of any kind must not take quadratic time, nor a deep stack.
#include <algorithm>
#include <chrono>
#include <random>

#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

constexpr size_t kLine = size_t{1} << 20;
// A quadratic loop takes hours; this leaves room for sanitizers on a crowded machine.
constexpr std::chrono::seconds kLimit{20};

std::string repeated(std::string_view unit) {
  std::string text;
  while (text.size() + unit.size() <= kLine) {
    text += unit;
  }
  return text;
}

std::string randomLetters() {
  std::mt19937 random(7);
  std::string text(kLine, ' ');
  for (char& c : text) {
    c = static_cast<char>('a' + random() % 26);
  }
  return text;
}

// Merges over every kind of character, each rule doubling what the one before it made.
TokenizerData doublingData(bool byteLevel) {
  TokenizerData data = makeData({"Ġ", "▁"}, {byteLevel ? "Ġ t" : "▁ t"});
  for (int byte = 0; byte < 256; ++byte) {
    addToken(data, std::string(1, static_cast<char>(byte)));
  }
  for (const char* unit : {"a", "7", "!", "<", "Ġ", "▁", "你", "\t", "\xE4\xE4\xE4", "\x80"}) {
    std::string made = unit;
    for (int step = 0; step < 12; ++step) {
      data.merges.push_back(made + ' ' + made);
      made += made;
      addToken(data, made);
    }
  }
  for (char left = 'a'; left <= 'z'; ++left) {
    for (char right = 'a'; right <= 'z'; ++right) {
      data.merges.push_back({left, ' ', right});
      addToken(data, {left, right});
    }
  }
  addToken(data, "<|im_start|>", kControl);
  addToken(data, std::string(64, '<') + ">", kControl);
  return data;
}

class LongLine : public ::testing::TestWithParam<bool> {};

TEST_P(LongLine, OfAnyOneKindEncodesInTime) {
  const auto tokenizer = loaded(doublingData(GetParam()));
  const std::pair<const char*, std::string> lines[] = {
      {"one letter", repeated("a")},
      {"letters", randomLetters()},
      {"spaces", repeated(" ")},
      {"tabs", repeated("\t")},
      {"digits", repeated("7")},
      {"punctuation", repeated("!")},
      {"three-byte characters", repeated("你")},
      {"broken characters", repeated("\xE4")},
      {"continuation bytes", repeated("\x80")},
      {"starts of special tokens", repeated("<")},
      {"almost special tokens", repeated("<|im_start|")},
      {"special tokens", repeated("<|im_start|>")},
      {"newlines", repeated("\n")},
      {"carriage returns", repeated("\r")},
      {"apostrophes", repeated("'")},
      {"words", repeated(" abc")},
  };
  for (const auto& [name, line] : lines) {
    std::vector<int32_t> ids;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(tokenizer->encode(line, ids, false).ok());
    EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit) << name;
    EXPECT_FALSE(ids.empty()) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(BothMarkers, LongLine, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "ByteLevel" : "WordMarker"; });

TEST(LongText, RulesThatGrowBySingleLettersEncodeInTime) {
  TokenizerData data = makeData({"a"});
  std::string made = "a";
  for (int step = 0; step < 200; ++step) {
    data.merges.push_back(made + " a");
    made += "a";
    addToken(data, made);
  }
  // Ranks reversed, so that every merge changes what the next scan would find.
  std::reverse(data.merges.begin(), data.merges.end());
  const auto tokenizer = loaded(std::move(data));
  std::vector<int32_t> ids;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(tokenizer->encode(repeated("a"), ids, false).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit);
  EXPECT_EQ(ids.size(), (kLine + 200) / 201);
}

TEST(LongText, ManyLongSpecialTokensThatAlmostMatchEncodeInTime) {
  TokenizerData data = makeData({"<"});
  std::string run;
  for (int length = 1; length <= 2000; ++length) {
    run += '<';
    addToken(data, run + "X", kControl);
    addToken(data, run + "X<", kControl);
    addToken(data, run + "\x01", kControl);
  }
  const auto tokenizer = loaded(std::move(data));
  std::vector<int32_t> ids;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(tokenizer->encode(repeated("<"), ids, false).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit);
  EXPECT_EQ(ids.size(), kLine);
}

TEST(LongText, FullSizeVocabularyLoadsInTime) {
  TokenizerData data = makeData({});
  for (int id = 0; id < 248320; ++id) {
    addToken(data, "token" + std::to_string(id), id % 1000 == 0 ? kControl : kOrdinary);
    data.merges.push_back("tok en" + std::to_string(id));
  }
  Tokenizer tokenizer;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(tokenizer.load(std::move(data)).ok());
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit);
  EXPECT_EQ(tokenizer.tokenToId("token248319"), 248319);
}

}  // namespace
}  // namespace kiv::testing
