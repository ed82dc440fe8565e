#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "synth/synth.h"

namespace orb {
namespace {

constexpr int32_t kTypeNormal = 1;
constexpr int32_t kTypeControl = 3;
constexpr int32_t kImEnd = 2;
constexpr int32_t kUnknown = 3;
constexpr std::string_view kSpaceMarker = "\u2581";
constexpr std::string_view kByteLevelMarker = "\u0120";

// Left and right side of the merge rules, '_' standing for the marker. The first holds it, since
// that is what a reader of the vocabulary tells the two forms by.
constexpr std::array<std::pair<std::string_view, std::string_view>, 20> kMerges{{
    {"_", "t"},  {"_", "a"},   {"h", "e"}, {"i", "n"}, {"_t", "he"}, {"e", "r"}, {"_", "w"},
    {"o", "u"},  {"_", "s"},   {"r", "e"}, {"o", "n"}, {"in", "g"},  {"a", "t"}, {"_", "i"},
    {"_a", "n"}, {"_an", "d"}, {"l", "l"}, {"_", "y"}, {"_y", "ou"}, {"o", "r"},
}};

std::string withMarker(std::string_view text, std::string_view marker) {
  std::string result;
  for (const char c : text) {
    if (c == '_') {
      result += marker;
    } else {
      result += c;
    }
  }
  return result;
}

// The n-th made-up word: at least two syllables of consonant and vowel, so that it differs from
// every character and merge above; every other word begins with the marker.
std::string inventWord(uint64_t n, std::string_view marker) {
  constexpr std::string_view kConsonants = "bdfgklmnprstvz";
  constexpr std::string_view kVowels = "aeiou";
  constexpr uint64_t kSyllables = kConsonants.size() * kVowels.size();
  std::string word(n % 2 == 0 ? marker : std::string_view());
  uint64_t number = n / 2;
  for (int i = 0; i < 2 || number > 0; ++i) {
    const uint64_t syllable = number % kSyllables;
    word += kConsonants[syllable / kVowels.size()];
    word += kVowels[syllable % kVowels.size()];
    number /= kSyllables;
  }
  return word;
}

// The n-th ideograph of the block at U+4E00: text of more than one byte a character.
std::string ideograph(uint64_t n) {
  const uint64_t code = 0x4E00 + n;
  return {static_cast<char>(0xE0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 63)),
          static_cast<char>(0x80 | (code & 63))};
}

constexpr uint64_t kIdeographs = 20000;
constexpr uint64_t kWordsPerIdeograph = 16;

}  // namespace

kiv::TokenizerData makeSynthTokenizer(uint64_t vocabulary, TokenizerForm form) {
  const std::string_view marker =
      form == TokenizerForm::ByteLevel ? kByteLevelMarker : kSpaceMarker;
  kiv::TokenizerData data;
  data.model = "synthetic";
  data.specialIds = {-1, kImEnd, kUnknown, 0};
  data.tokens = {"<|endoftext|>", "<|im_start|>", "<|im_end|>",
                 "\uFFFD",        "\n",           std::string(marker)};
  for (char c = '!'; c <= '~'; ++c) data.tokens.emplace_back(1, c);
  for (const auto& [left, right] : kMerges) {
    const std::string first = withMarker(left, marker);
    const std::string second = withMarker(right, marker);
    data.merges.push_back(first + ' ' + second);
    data.tokens.push_back(first + second);
  }
  uint64_t words = 0;
  for (uint64_t n = 0; data.tokens.size() < vocabulary; ++n) {
    const uint64_t ideographs = n / kWordsPerIdeograph;
    const bool other = n % kWordsPerIdeograph == kWordsPerIdeograph - 1 && ideographs < kIdeographs;
    data.tokens.push_back(other ? ideograph(ideographs) : inventWord(words++, marker));
  }
  data.types.assign(data.tokens.size(), kTypeNormal);
  for (int32_t id = 0; id <= kImEnd; ++id) data.types[static_cast<size_t>(id)] = kTypeControl;
  return data;
}

}  // namespace orb
