#include "convert/tokenizer_conversion.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace orb {
namespace {

constexpr std::string_view kSpace = "\u2581";
constexpr std::string_view kByteLevelMarker = "\u0120";
constexpr std::string_view kReplacement = "\uFFFD";
constexpr int32_t kNormal = 1;
constexpr int32_t kControl = 3;

// Length of the whole UTF-8 character at `at`, or 0 when there is none: too short, stray or
// overlong bytes, surrogates, beyond U+10FFFF.
size_t characterLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) {
    return at + i < text.size() ? static_cast<uint8_t>(text[at + i]) : uint8_t{0};
  };
  const uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  const size_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool bad = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F) ||
                   (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F);
  return bad ? 0 : length;
}

// The characters of the text; false when it is not whole UTF-8.
bool splitCharacters(std::string_view text, std::vector<std::string>& out) {
  out.clear();
  for (size_t at = 0; at < text.size();) {
    const size_t length = characterLength(text, at);
    if (length == 0) return false;
    out.emplace_back(text.substr(at, length));
    at += length;
  }
  return true;
}

std::string markSpaces(const std::string& bytes) {
  std::string result;
  for (const char c : bytes) {
    if (c == ' ') {
      result += kSpace;
    } else {
      result += c;
    }
  }
  return result;
}

bool isWhitespace(std::string_view character) {
  static constexpr std::string_view kCharacters[] = {
      kSpace,   "\t",     "\n",     "\v",     "\f",     "\r",     "\u0085", "\u00A0", "\u1680",
      "\u2000", "\u2001", "\u2002", "\u2003", "\u2004", "\u2005", "\u2006", "\u2007", "\u2008",
      "\u2009", "\u200A", "\u2028", "\u2029", "\u202F", "\u205F", "\u3000"};
  return std::find(std::begin(kCharacters), std::end(kCharacters), character) !=
         std::end(kCharacters);
}

struct Rule {
  std::string text;  // "left right"
  bool whitespace;   // the product is nothing else
};

// Derives the rules over characters, one after the other.
class MergeDeriver {
 public:
  MergeDeriver(const std::vector<std::string>& tokens, TokenizerReport& report)
      : tokens_(tokens.begin(), tokens.end()), report_(report) {}

  void add(const std::string& left, const std::string& right) {
    if (!splitCharacters(left + right, symbols_) || tokens_.count(left + right) == 0) {
      ++report_.mergesDropped;
      return;
    }
    const bool whitespace = std::all_of(symbols_.begin(), symbols_.end(), isWhitespace);
    while (symbols_.size() > 1 && mergeOnce()) continue;
    if (symbols_.size() != 2) {
      ++report_.mergesDropped;
      return;
    }
    const bool same = symbols_[0] == left;
    ++(same ? report_.mergesKept : report_.mergesRederived);
    std::string text = symbols_[0] + ' ' + symbols_[1];
    ranks_.emplace(text, ranks_.size());
    rules_.push_back({std::move(text), whitespace});
  }

  // Rules of nothing but whitespace last: a run of spaces before a word then leaves its last one to
  // the word, as the original's splitting into words does. The first rule tells the runtime the
  // kind of vocabulary, so one with U+0120 must not stand there.
  std::vector<std::string> take() {
    std::stable_partition(rules_.begin(), rules_.end(),
                          [](const Rule& rule) { return !rule.whitespace; });
    const auto first = std::find_if(rules_.begin(), rules_.end(), [](const Rule& rule) {
      return rule.text.find(kByteLevelMarker) == std::string::npos;
    });
    if (first != rules_.end()) std::rotate(rules_.begin(), first, first + 1);
    std::vector<std::string> result;
    for (Rule& rule : rules_) result.push_back(std::move(rule.text));
    return result;
  }

 private:
  // Merges the leftmost pair of the lowest rank; false when no pair has one.
  bool mergeOnce() {
    size_t best = SIZE_MAX;
    size_t at = 0;
    for (size_t i = 0; i + 1 < symbols_.size(); ++i) {
      const auto found = ranks_.find(symbols_[i] + ' ' + symbols_[i + 1]);
      if (found != ranks_.end() && found->second < best) {
        best = found->second;
        at = i;
      }
    }
    if (best == SIZE_MAX) return false;
    symbols_[at] += symbols_[at + 1];
    symbols_.erase(symbols_.begin() + static_cast<std::ptrdiff_t>(at) + 1);
    return true;
  }

  std::unordered_set<std::string_view> tokens_;
  TokenizerReport& report_;
  std::unordered_map<std::string, size_t> ranks_;
  std::vector<Rule> rules_;
  std::vector<std::string> symbols_;
};

int32_t idOf(const std::vector<std::string>& tokens, std::string_view text) {
  const auto found = std::find(tokens.begin(), tokens.end(), text);
  return found == tokens.end() ? -1 : static_cast<int32_t>(found - tokens.begin());
}

int32_t validId(int64_t id, uint64_t rows) {
  return id >= 0 && static_cast<uint64_t>(id) < rows ? static_cast<int32_t>(id) : -1;
}

std::vector<std::string> findLostCharacters(const std::vector<std::string>& tokens) {
  const std::unordered_set<std::string_view> known(tokens.begin(), tokens.end());
  std::set<std::string> lost;
  std::vector<std::string> characters;
  for (const std::string& token : tokens) {
    if (!splitCharacters(token, characters)) continue;
    for (std::string& character : characters) {
      if (known.count(character) == 0) lost.insert(std::move(character));
    }
  }
  return {lost.begin(), lost.end()};
}

// The byte that each code point below 324 stands for, -1 for those outside of the alphabet.
std::array<int, 324> makeByteAlphabet() {
  std::array<int, 324> bytes;
  bytes.fill(-1);
  size_t next = 256;
  for (int byte = 0; byte < 256; ++byte) {
    const bool itself = (byte >= 33 && byte <= 126) || (byte >= 161 && byte <= 172) || byte >= 174;
    bytes[itself ? static_cast<size_t>(byte) : next++] = byte;
  }
  return bytes;
}

}  // namespace

std::string undoByteAlphabet(const std::string& text) {
  static const std::array<int, 324> kBytes = makeByteAlphabet();
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const size_t length = characterLength(text, at);
    if (length == 0 || length > 2) return text;
    const auto lead = static_cast<uint8_t>(text[at]);
    const size_t code =
        length == 1 ? lead : (lead & 31u) << 6 | (static_cast<uint8_t>(text[at + 1]) & 63u);
    if (code >= kBytes.size() || kBytes[code] < 0) return text;
    result += static_cast<char>(kBytes[code]);
    at += length;
  }
  return result;
}

kiv::TokenizerData convertTokenizer(const TokenizerSource& source, uint64_t rows,
                                    TokenizerReport& report) {
  report = {};
  kiv::TokenizerData data;
  data.model = "bpe";
  for (size_t id = 0; id < rows; ++id) {
    const bool known = id < source.tokens.size() && !source.tokens[id].empty();
    const bool added = known && source.added[id];
    if (!known) {
      data.tokens.push_back("<|unused_" + std::to_string(id) + "|>");
      ++report.unused;
    } else {
      data.tokens.push_back(
          markSpaces(added ? source.tokens[id] : undoByteAlphabet(source.tokens[id])));
    }
    data.types.push_back(added ? kControl : kNormal);
    report.special += added ? 1 : 0;
  }
  report.tokens = rows - report.unused;

  MergeDeriver deriver(data.tokens, report);
  for (const auto& [left, right] : source.merges) {
    deriver.add(markSpaces(undoByteAlphabet(left)), markSpaces(undoByteAlphabet(right)));
  }
  data.merges = deriver.take();
  report.lostCharacters = findLostCharacters(data.tokens);

  const int32_t turnEnd = idOf(data.tokens, "<|im_end|>");
  data.specialIds = {-1, turnEnd >= 0 ? turnEnd : validId(source.endId, rows),
                     idOf(data.tokens, kReplacement), validId(source.paddingId, rows)};
  return data;
}

}  // namespace orb
