// Plain generation and the sampling settings.
#include <cmath>
#include <limits>

#include "validate/handle.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

void isRepeatable(Test& test) {
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  const std::string text = first.talkativePrompt();
  const char* prompt = text.c_str();
  const Answer once = first.generate(prompt);
  test.expectEqual("result of generate", once.code, ORB_OK);
  test.expectText("the same prompt again", first.generate(prompt).text, once.text);
  test.expectText("the same prompt on another handle", second.generate(prompt).text, once.text);
  test.note("%zu bytes of text", once.text.size());
}

void startsFromAnEmptyContext(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string text = handle.talkativePrompt();
  const char* prompt = text.c_str();
  const Answer fresh = handle.generate(prompt);
  const auto context = static_cast<int64_t>(handle.contextTokens());
  handle.chat("Hello");
  test.expectText("generate after a conversation", handle.generate(prompt).text, fresh.text);
  test.expectEqual("context after that", static_cast<int64_t>(handle.contextTokens()), context);
}

void generationsOfTableAgree(Test& test) {
  uint32_t count = 0;
  const ORBRuntime* table =
      test.plugin.runtimes != nullptr ? test.plugin.runtimes(&count) : nullptr;
  const std::string id = test.plugin.runtime->id;
  while (count > 0 && (table->id == nullptr || table->id != id)) ++table, --count;
  if (count == 0) return test.skip("needs a first-generation table of the same id");
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string text = handle.talkativePrompt();
  const char* prompt = text.c_str();
  const Answer expected = handle.generate(prompt);
  ORBRuntimeHandle* older = nullptr;
  std::vector<char> out(Handle::kCapacity);
  if (!test.expectEqual("create of the first generation",
                        table->create(test.subject.model.c_str(), nullptr, &older, nullptr, 0),
                        ORB_OK)) {
    return;
  }
  test.expectEqual("generate of the first generation",
                   table->generate(older, prompt, out.data(), out.size()), expected.code);
  test.expectText("text of the first generation", out.data(), expected.text);
  table->destroy(older);
}

void freshHandlesAreGreedy(Test& test) {
  Handle fresh(test), cold(test), narrow(test);
  if (!fresh.ok() || !cold.ok() || !narrow.ok()) return;
  const std::string text = fresh.talkativePrompt();
  const char* prompt = text.c_str();
  const std::string expected = fresh.generate(prompt).text;
  ORBSessionOptions options = sampling(0, 9);
  cold.configure(options);
  test.expectText("temperature 0", cold.generate(prompt).text, expected);
  options = sampling(1.5f, 9);
  options.topK = 1;
  narrow.configure(options);
  test.expectText("top-k 1", narrow.generate(prompt).text, expected);
}

void valuesOutOfRangeChangeNothing(Test& test) {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string text = handle.talkativePrompt();
  const char* prompt = text.c_str();
  handle.configure(sampling(0.9f, 11));
  const std::string expected = handle.generate(prompt).text;
  for (const float value : {-1.0f, -0.5f, kNan, -std::numeric_limits<float>::infinity()}) {
    handle.configure(sampling(-1, 11));  // the seed only
    ORBSessionOptions options = keepSettings();
    options.temperature = value;
    options.topK = value < -0.7f ? 0 : -3;
    options.topP = std::isnan(value) ? value : 0;
    handle.configure(options);
    test.expectText("generate after settings out of range", handle.generate(prompt).text, expected);
  }
}

void sameSeedSameText(Test& test) {
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  const std::string text = first.talkativePrompt();
  const char* prompt = text.c_str();
  const auto seed = static_cast<uint64_t>(test.below(1000000)) + 1;
  first.configure(sampling(1.2f, seed));
  second.configure(sampling(1.2f, seed + (uint64_t{1} << 32)));  // the low 32 bits count
  for (int i = 0; i < 3; ++i) {
    test.expectText("same seed, other handle", second.generate(prompt).text,
                    first.generate(prompt).text);
  }
  const ORBSessionOptions again = sampling(1.2f, seed);
  first.configure(again);
  second.configure(again);
  test.expectText("seeded again", first.generate(prompt).text, second.generate(prompt).text);
}

void optionsOfOneCallEndWithIt(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string text = handle.talkativePrompt();
  const char* prompt = text.c_str();
  const std::string greedy = handle.generate(prompt).text;
  const ORBSessionOptions hot = sampling(1.5f, 21);
  const Answer sampled = handle.generateEx(prompt, &hot);
  test.expectText("generate after generateEx", handle.generate(prompt).text, greedy);
  test.expectText("the same generateEx again", handle.generateEx(prompt, &hot).text, sampled.text);
  test.expectText("generateEx without options", handle.generateEx(prompt, nullptr).text, greedy);
  if (sampled.text == greedy) test.note("sampling at 1.5 gave the greedy text");
}

void aSeedOfOneCallStays(Test& test) {
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  const std::string text = first.talkativePrompt();
  const char* prompt = text.c_str();
  const ORBSessionOptions seeded = sampling(1.2f, 31), warm = sampling(1.2f, 0);
  first.generateEx(prompt, &seeded);
  const std::string expected = first.generateEx(prompt, &warm).text;
  second.configure(seeded);
  second.generate(prompt);
  test.expectText("after a seed in generateEx, as after one in configure",
                  second.generate(prompt).text, expected);
}

void oddPromptsAreTaken(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string text = handle.talkativePrompt();
  const char* prompt = text.c_str();
  const std::string expected = handle.generate(prompt).text;
  std::string bytes;
  for (int i = 0; i < 200; ++i) bytes += static_cast<char>(1 + test.below(255));
  for (const std::string& odd : {bytes, std::string("\xF0\x9F"), std::string(300, ' '),
                                 std::string("<|im_start|><|im_end|>"), std::string("%s%n")}) {
    handle.generate(odd.c_str());
  }
  test.expectText("generate after odd prompts", handle.generate(prompt).text, expected);
}

}  // namespace

std::vector<TestCase> generationTests() {
  return {
      {"generation.is_repeatable", Need::Model, isRepeatable},
      {"generation.starts_from_an_empty_context", Need::Model, startsFromAnEmptyContext},
      {"generation.generations_of_table_agree", Need::Model, generationsOfTableAgree},
      {"generation.fresh_handles_are_greedy", Need::Model, freshHandlesAreGreedy},
      {"generation.values_out_of_range_change_nothing", Need::Model, valuesOutOfRangeChangeNothing},
      {"generation.same_seed_same_text", Need::Model, sameSeedSameText},
      {"generation.options_of_one_call_end_with_it", Need::Model, optionsOfOneCallEndWithIt},
      {"generation.a_seed_of_one_call_stays", Need::Model, aSeedOfOneCallStays},
      {"generation.odd_prompts_are_taken", Need::Model, oddPromptsAreTaken}};
}

}  // namespace orb::validate
