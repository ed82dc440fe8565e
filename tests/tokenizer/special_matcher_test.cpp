#include "tokenizer/special_matcher.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace kiv {
namespace {

using Specials = std::vector<std::pair<std::string, int32_t>>;

SpecialMatcher matcherOf(const Specials& specials) {
  SpecialMatcher matcher;
  matcher.build({specials.begin(), specials.end()});
  return matcher;
}

// The definition: the longest that fits, of equal strings the first.
SpecialMatcher::Match byScanning(const Specials& specials, std::string_view text) {
  SpecialMatcher::Match best;
  for (const auto& [special, id] : specials) {
    if (special.size() > best.length && text.starts_with(special)) {
      best = {special.size(), id};
    }
  }
  return best;
}

std::string randomText(std::mt19937& random, size_t longest) {
  static constexpr char kAlphabet[] = {'a', 'b', '\0', '\xFF'};
  std::string text(random() % (longest + 1), ' ');
  for (char& c : text) {
    c = kAlphabet[random() % (random() % 4 + 1)];
  }
  return text;
}

TEST(SpecialMatcher, WithoutTokensNothingMatches) {
  EXPECT_TRUE(matcherOf({}).empty());
  EXPECT_TRUE(matcherOf({{"", 1}}).empty());
  EXPECT_EQ(matcherOf({}).longest("a").length, 0u);
}

TEST(SpecialMatcher, EmptyTextMatchesNothing) {
  EXPECT_EQ(matcherOf({{"a", 1}}).longest("").length, 0u);
}

TEST(SpecialMatcher, EqualsTheScanOnRandomTokens) {
  std::mt19937 random(1);
  for (int round = 0; round < 3000; ++round) {
    Specials specials;
    for (size_t count = random() % 40; count > 0; --count) {
      specials.emplace_back(randomText(random, 12), static_cast<int32_t>(count));
    }
    const SpecialMatcher matcher = matcherOf(specials);
    for (int i = 0; i < 8; ++i) {
      const std::string text = randomText(random, 16);
      const SpecialMatcher::Match expected = byScanning(specials, text);
      // No terminator behind the text, so that a read past its end shows.
      const std::vector<char> exact(text.begin(), text.end());
      const SpecialMatcher::Match match = matcher.longest({exact.data(), exact.size()});
      ASSERT_EQ(match.length, expected.length) << ::testing::PrintToString(text);
      ASSERT_EQ(match.id, expected.id) << ::testing::PrintToString(text);
    }
  }
}

TEST(SpecialMatcher, FindsEveryLengthOfALongChain) {
  Specials specials;
  for (int length = 1; length <= 300; ++length) {
    specials.emplace_back(std::string(static_cast<size_t>(length), 'a'), length);
    specials.emplace_back(std::string(static_cast<size_t>(length), 'a') + "Z", 1000 + length);
  }
  const SpecialMatcher matcher = matcherOf(specials);
  for (int length = 1; length <= 300; ++length) {
    const std::string run(static_cast<size_t>(length), 'a');
    EXPECT_EQ(matcher.longest(run).id, length);
    EXPECT_EQ(matcher.longest(run + "b").id, length);
    EXPECT_EQ(matcher.longest(run + "Z").id, 1000 + length);
  }
}

}  // namespace
}  // namespace kiv
