// The merge loop against the definition: scan, merge the leftmost pair of the lowest rank, repeat.
#if !defined(_WIN32)
#include <sys/mman.h>
#endif

#include <algorithm>
#include <random>

#include "tokenizer/scanning_merge.h"
#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

class Generator {
 public:
  explicit Generator(uint32_t seed) : random_(seed) {}

  size_t below(size_t limit) { return random_() % limit; }

  std::string text(const std::vector<std::string>& alphabet, size_t longest) {
    std::string text;
    for (size_t length = below(longest + 1); length > 0; --length) {
      text += alphabet[below(alphabet.size())];
    }
    return text;
  }

  // Rules that can build on one another: most join symbols that earlier rules make.
  std::vector<std::string> rules(const std::vector<std::string>& alphabet) {
    std::vector<std::string> made = alphabet;
    std::vector<std::string> rules;
    for (size_t count = 1 + below(12); count > 0; --count) {
      std::string left = made[below(made.size())];
      std::string right = made[below(made.size())];
      if (below(8) == 0) {
        left = text(alphabet, 3);
        right = text(alphabet, 3);
      }
      rules.push_back(left + ' ' + right);
      if (left.size() + right.size() < 12) {
        made.push_back(left + right);
      }
    }
    // A rule may rank before those that make its parts.
    std::shuffle(rules.begin(), rules.end(), random_);
    return rules;
  }

 private:
  std::mt19937 random_;
};

// Every substring that a merge can leave gets an id, so that ids tell how the text was cut.
void compareWithScanning(const std::vector<std::string>& alphabet, uint32_t seed, int rounds) {
  Generator generate(seed);
  for (int round = 0; round < rounds; ++round) {
    const std::vector<std::string> rules = generate.rules(alphabet);
    const std::string text = generate.text(alphabet, 24);
    std::vector<std::string> tokens = {"never"};
    for (size_t from = 0; from < text.size(); ++from) {
      for (size_t size = 1; from + size <= text.size(); ++size) {
        tokens.push_back(text.substr(from, size));
      }
    }
    const auto tokenizer = loaded(makeData(tokens, rules));
    std::vector<int32_t> ids;
    ASSERT_TRUE(tokenizer->tokenizeBpe(text, ids).ok());
    std::vector<std::string> cut;
    for (const int32_t id : ids) {
      cut.push_back(tokens[static_cast<size_t>(id)]);
    }
    ASSERT_EQ(cut, mergedByScanning(text, rules))
        << "text '" << text << "', rules " << ::testing::PrintToString(rules);
  }
}

TEST(Merge, EqualsTheScanOnOneLetter) { compareWithScanning({"a"}, 1, 1500); }

TEST(Merge, EqualsTheScanOnTwoLetters) { compareWithScanning({"a", "b"}, 2, 3000); }

TEST(Merge, EqualsTheScanWithSpacesInRules) { compareWithScanning({"a", " "}, 3, 3000); }

TEST(Merge, EqualsTheScanWithSpacesAmongLetters) { compareWithScanning({"a", "b", " "}, 4, 3000); }

TEST(Merge, EqualsTheScanOnLongerCharacters) {
  compareWithScanning({"a", "é", "▁", "\xE4", "\x80"}, 5, 2000);
}

TEST(Merge, RuleOfLowerRankThatALaterMergeMakesPossibleComesNext) {
  // Joining "b" and "c" makes "a bc" possible, which ranks before the remaining "b c".
  const std::vector<std::string> rules = {"a bc", "b c"};
  const auto tokenizer = loaded(makeData({"abc", "bc", "a", "b", "c"}, rules));
  EXPECT_EQ(encodedTokens(*tokenizer, "bcabcabc"), (std::vector<std::string>{"bc", "abc", "abc"}));
}

TEST(Merge, RuleIsTheJoinedStringOnly) {
  // "a  b" is both "a" + " b" and "a " + "b".
  compareWithScanning({"a", " ", "b"}, 6, 500);
  EXPECT_EQ(mergedByScanning("a b", {"a  b", "  b"}), (std::vector<std::string>{"a b"}));
  EXPECT_EQ(mergedByScanning("a b", {"a  b", "a  "}), (std::vector<std::string>{"a b"}));
}

#if !defined(_WIN32)
// A piece that is all length: the system reserves the addresses only.
TEST(Merge, APieceOf4GiBIsRefused) {
  constexpr size_t kSize = size_t{1} << 32;
  void* addresses = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(addresses, MAP_FAILED);
  std::vector<int32_t> ids;
  const std::string_view piece(static_cast<const char*>(addresses), kSize);
  EXPECT_EQ(loaded(makeData({"a"}))->tokenizeBpe(piece, ids).message, "tokenizer: text too long");
  EXPECT_EQ(ids, std::vector<int32_t>{});
  munmap(addresses, kSize);
}
#endif

}  // namespace
}  // namespace kiv::testing
