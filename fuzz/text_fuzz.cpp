// Text to ids and back, over arbitrary bytes; the merge loop against its definition.
//
// Input: a byte of modes, then
//   merge     up to 16 rules, each ended by a NUL byte and begun by how many bytes its left side
//   has
//             (a space joins the sides), then the text
//   otherwise the text for the vocabulary that the mode names
#include <array>
#include <memory>

#include "fuzz.h"
#include "input.h"
#include "synth/synth.h"
#include "tokenizer/scanning_merge.h"
#include "tokenizer/tokenizer.h"

namespace {

using kiv::Tokenizer;
using kiv::TokenizerData;
using orbfuzz::Input;
using orbfuzz::require;

constexpr size_t kLongestScan = 256;  // the definition takes a cube of it

std::unique_ptr<Tokenizer> loaded(TokenizerData data) {
  auto tokenizer = std::make_unique<Tokenizer>();
  require(tokenizer->load(std::move(data)).ok(), "the vocabulary loads");
  return tokenizer;
}

// Specials that begin with one another, are empty or equal; tokens of stray bytes; a space in a
// rule.
TokenizerData awkwardVocabulary() {
  TokenizerData data;
  data.tokens = {"",
                 "<",
                 "<|",
                 "<|a",
                 "<|a|>",
                 "a",
                 "aa",
                 "aaa",
                 "\xE2\x96",
                 "\x96\x81",
                 "\xFF",
                 "\n",
                 "\n\n",
                 "<0x41>",
                 "<0x",
                 "\xE2\x96\x81",
                 "\xE2\x96\x81"
                 "a",
                 "a",
                 "|>"};
  data.types = {3, 3, 2, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 3};
  data.merges = {"a a", "aa a", "\xE2\x96\x81 a", " a", "a ", "", " ", "a  a", "a a"};
  data.specialIds = {5, 4, 10, -1};
  return data;
}

const Tokenizer& vocabulary(size_t number) {
  static const std::array<std::unique_ptr<Tokenizer>, 3> kAll = {
      loaded(orb::makeSynthTokenizer(512, orb::TokenizerForm::SpaceMarker)),
      loaded(orb::makeSynthTokenizer(512, orb::TokenizerForm::ByteLevel)),
      loaded(awkwardVocabulary()),
  };
  return *kAll[number % kAll.size()];
}

void encodeAndDecode(const Tokenizer& tokenizer, std::string_view text, bool addBos) {
  std::vector<int32_t> ids;
  require(tokenizer.encode(text, ids, addBos).ok(), "any text encodes");
  require(ids.size() <= 3 * text.size() + 1, "no more ids than bytes of marked text");
  std::string decoded;
  require(tokenizer.decode(ids, decoded).ok(), "ids of a text decode");
  std::vector<int32_t> again;
  require(tokenizer.encode(text, again, addBos).ok() && again == ids, "encoding is a function");
}

// Printable text comes back as it was: it has a token for every character.
void roundTrip(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const char printable = static_cast<char>(' ' + static_cast<unsigned char>(c) % 95);
    text += printable == '<' ? '\n' : printable;  // "<0x41>" and "<|im_end|>" mean something else
  }
  std::vector<int32_t> ids;
  std::string back;
  require(vocabulary(0).encode(text, ids, false).ok(), "printable text encodes");
  require(vocabulary(0).decode(ids, back).ok() && back == text, "printable text comes back");
}

void mergeLikeTheDefinition(Input& input) {
  std::vector<std::string> rules;
  for (size_t count = input.below(17); count > 0; --count) {
    const size_t left = input.byte() % 8;
    std::string rule(input.line());
    rule.insert(std::min(left, rule.size()), 1, ' ');
    rules.push_back(rule);
  }
  const std::string_view text = input.rest().substr(0, kLongestScan);
  const std::vector<std::string> expected = kiv::testing::mergedByScanning(text, rules);
  // A token for every symbol that is expected: any other cut gives an unknown one.
  TokenizerData data;
  data.tokens = {"never"};
  data.tokens.insert(data.tokens.end(), expected.begin(), expected.end());
  data.merges = std::move(rules);
  data.specialIds = {-1, -1, 0, -1};
  const auto tokenizer = loaded(std::move(data));
  std::vector<int32_t> ids;
  require(tokenizer->tokenizeBpe(text, ids).ok(), "any piece merges");
  require(ids.size() == expected.size(), "as many symbols as the definition has");
  for (size_t i = 0; i < ids.size(); ++i) {
    require(ids[i] == tokenizer->tokenToId(expected[i]), "the symbols of the definition");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const uint8_t mode = input.byte();
  if (mode % 4 == 3) {
    mergeLikeTheDefinition(input);
    return 0;
  }
  const std::string_view text = input.rest();
  encodeAndDecode(vocabulary(mode % 4), text, (mode & 4) != 0);
  roundTrip(text);
  // Ids that no encoding gave.
  std::vector<int32_t> ids(text.begin(), text.end());
  std::string decoded;
  (void)vocabulary(mode % 4).decode(ids, decoded);
  return 0;
}
