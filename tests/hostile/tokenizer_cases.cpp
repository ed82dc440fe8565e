// The tokenizer section: what can't be read, and what can be but is no good vocabulary.
#include "hostile/hostile_case.h"

namespace orbtest {
namespace {

using kiv::TokenizerData;

std::function<File()> withSection(const Bytes& section) {
  return [=] {
    return smallestModel()
        .container()
        .section(SectionType::Tokenizer, section)
        .meta("general.architecture", "qwen35")
        .build();
  };
}

HostileCase unreadable(std::string name, const Bytes& section) {
  return {std::move(name), withSection(section), false, kOpenFailed, "tokenizer"};
}

TokenizerData sound() {
  TokenizerData data;
  data.tokens = {"a", "b"};
  data.specialIds = {-1, -1, -1, -1};
  return data;
}

HostileCase odd(std::string name, int generated,
                const std::function<void(TokenizerData&)>& change) {
  TokenizerData data = sound();
  change(data);
  return {std::move(name), withSection(tokenizerSection(data)), true, kCreated, "", generated};
}

// The sound section up to the count of a list, then that count and nothing else.
Bytes countAt(int list, uint32_t count) {
  Bytes section("TKNZ");
  section.text("bpe");
  if (list > 0) section.u32(1).text("a");
  for (int i = 1; i < list; ++i) section.u32(0);
  return section.u32(count);
}

std::vector<HostileCase> listCountCases() {
  const char* names[] = {"tokens", "scores", "types", "merges"};
  constexpr uint32_t kLimit = kiv::orb2::kMaxTokenizerCount;
  std::vector<HostileCase> cases;
  for (int list = 0; list < 4; ++list) {
    const std::string name = std::string("tokenizer: ") + names[list] + ", ";
    cases.push_back(
        unreadable(name + "as many as there may be but none there", countAt(list, kLimit)));
    cases.push_back(unreadable(name + "one more than there may be", countAt(list, kLimit + 1)));
    cases.push_back(unreadable(name + "2^31", countAt(list, uint32_t{1} << 31)));
    cases.push_back(unreadable(name + "2^32 - 1", countAt(list, UINT32_MAX)));
    std::vector<uint8_t> half = countAt(list, 0).get();
    half.pop_back();
    cases.push_back(unreadable(name + "no count", Bytes(half)));
  }
  return cases;
}

std::vector<HostileCase> lengthCases() {
  const auto token = [](uint32_t length) {
    return Bytes("TKNZ").text("bpe").u32(2).u32(length).raw("a");
  };
  const std::vector<uint8_t> whole = tokenizerSection(sound()).get();
  const auto cut = [&](size_t bytes) {
    return Bytes(std::vector<uint8_t>(whole.begin(), whole.end() - static_cast<ptrdiff_t>(bytes)));
  };
  return {
      unreadable("tokenizer: empty", Bytes()),
      unreadable("tokenizer: another magic", Bytes("TKNX").text("bpe")),
      unreadable("tokenizer: name of 2^32 - 1 bytes", Bytes("TKNZ").u32(UINT32_MAX)),
      unreadable("tokenizer: token of 2^31 bytes", token(uint32_t{1} << 31)),
      unreadable("tokenizer: token of 2^32 - 1 bytes", token(UINT32_MAX)),
      unreadable("tokenizer: token one byte too long", token(2)),
      unreadable("tokenizer: no flag", cut(1)),
      unreadable("tokenizer: three special ids", cut(1 + 4)),
      unreadable("tokenizer: half a special id", cut(1 + 2)),
  };
}

}  // namespace

std::vector<HostileCase> tokenizerCases() {
  std::vector<HostileCase> cases = listCountCases();
  for (const HostileCase& test : lengthCases()) cases.push_back(test);
  cases.push_back(
      {"tokenizer: no tokens", withSection(tokenizerSection({})), true, kNoTokens, "tokenizer"});
  const auto add = [&](std::string name, const std::function<void(TokenizerData&)>& change,
                       int generated = ORB_OK) {
    cases.push_back(odd("vocabulary: " + std::move(name), generated, change));
  };
  add("sound", [](TokenizerData&) {});
  add(
      "empty tokens",
      [](TokenizerData& data) {
        data.tokens = {"", "", "a", ""};
      },
      ORB_FAILED);
  add("equal tokens", [](TokenizerData& data) { data.tokens = {"a", "a", "a"}; });
  add(
      "tokens of stray bytes",
      [](TokenizerData& data) {
        data.tokens = {"\xFF", "\xE2\x96", "a"};
      },
      ORB_FAILED);
  add("a token of a megabyte",
      [](TokenizerData& data) { data.tokens[1] = std::string(1 << 20, 'b'); });
  add("a special that is empty", [](TokenizerData& data) {
    data.tokens = {"a", ""};
    data.types = {1, 3};
  });
  add(
      "specials that begin with one another, without embeddings",
      [](TokenizerData& data) {
        data.tokens = {"a", "aa"};
        for (size_t length = 3; length < 300; ++length) data.tokens.emplace_back(length, 'a');
        data.types.assign(data.tokens.size(), 3);
      },
      ORB_FAILED);
  add("types for other tokens", [](TokenizerData& data) { data.types = {3}; });
  add("types of any number", [](TokenizerData& data) { data.types = {INT32_MIN, INT32_MAX}; });
  add("scores for other tokens", [](TokenizerData& data) { data.scores = {1, 2, 3, 4, 5}; });
  add(
      "ids past the embedding",
      [](TokenizerData& data) {
        data.specialIds = {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX};
      },
      ORB_FAILED);
  add("ids below -1", [](TokenizerData& data) {
    data.specialIds = {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN};
  });
  add(
      "beginning of sequence behind the embedding",
      [](TokenizerData& data) { data.specialIds[0] = 2; }, ORB_FAILED);
  add(
      "an id for the unknown behind the embedding",
      [](TokenizerData& data) {
        data.tokens = {"b", "c"};
        data.specialIds[2] = 2;
      },
      ORB_FAILED);
  add(
      "more tokens than embedding rows",
      [](TokenizerData& data) {
        data.tokens = {"x", "y", "z", "a"};
      },
      ORB_FAILED);
  add("fewer tokens than embedding rows", [](TokenizerData& data) { data.tokens = {"a"}; });
  add("merges that reach no token", [](TokenizerData& data) { data.merges = {"a q", "q a"}; });
  add("merges of nothing", [](TokenizerData& data) { data.merges = {"", " ", "  ", "a", " a"}; });
  add("a merge of a megabyte",
      [](TokenizerData& data) { data.merges = {std::string(1 << 20, 'a') + " b"}; });
  add("equal merges", [](TokenizerData& data) { data.merges.assign(1000, "a a"); });
  return cases;
}

}  // namespace orbtest
