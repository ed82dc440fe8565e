// Plain generation through the entry points: prompt in, text out, from an empty context each time.
#include "plugin/generation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "model/forward.h"
#include "plugin/head_counter.h"
#include "plugin/opened_model.h"

namespace orbtest {
namespace {

// a -> b -> c -> end of sequence; x repeats itself.
struct Alphabet : ScriptedModel {
  int32_t a = token("a"), b = token("b"), c = token("c"), x = token("x");
  int32_t end = special("<|endoftext|>");

  Alphabet() {
    chain({a, b, c, end});
    tokenizer.specialIds[1] = end;
  }
};

TEST(Generate, ContinuesThePromptUpToTheEndOfSequence) {
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("a");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "bc");
}

TEST(Generate, TheTokenThatEndsItIsCountedButNotFed) {
  OpenedModel model{Alphabet()};
  model.generate("xa");
  EXPECT_EQ(model.stats().contextTokens, 4u);  // x a b c
  EXPECT_EQ(model.session().generatedTokens, 3u);
  EXPECT_EQ(model.session().model.layers[5].position, 4u);
}

TEST(Generate, EndOfSequenceAtOnceGivesAnEmptyText) {
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("c");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "");
}

TEST(Generate, PlainGenerationDoesNotStopAtTheEndOfATurn) {
  Alphabet script;
  const int32_t turnEnd = script.special("<|im_end|>");
  script.chain({script.a, turnEnd, script.b});
  OpenedModel model(script);
  EXPECT_EQ(model.generate("a").text, "<|im_end|>bc");
}

TEST(Generate, EmptyTokenListSamplesFromZeroLogitsSoGreedyPicksIdZero) {
  OpenedModel model{Alphabet()};
  for (const char* prompt : {"", "???"}) {  // without an id for the unknown both encode to nothing
    const Reply reply = model.generate(prompt);
    EXPECT_EQ(reply.result, ORB_OK);
    EXPECT_EQ(reply.text, "abc");
    EXPECT_EQ(model.stats().contextTokens, 3u);
  }
}

TEST(Generate, EmptyPromptIsStillTheBeginningOfSequence) {
  Alphabet script;
  const int32_t begin = script.special("<s>");
  script.tokenizer.specialIds[0] = begin;
  script.follow(begin, script.c);
  OpenedModel model(script);
  EXPECT_EQ(model.generate("").text, "c");
  EXPECT_EQ(model.stats().contextTokens, 2u);  // <s> c
  EXPECT_EQ(model.generate("a").text, "bc");
  EXPECT_EQ(model.stats().contextTokens, 4u);  // <s> a b c
}

TEST(Generate, NullPromptIsTheEmptyPrompt) {
  OpenedModel model{Alphabet()};
  EXPECT_EQ(model.generate(nullptr).text, model.generate("").text);
}

TEST(Generate, OutputOfOneByteIsAnEmptyString) {
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("a", 1);
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "");
}

TEST(Generate, TextIsCutToTheBufferAtAByteCountAndTerminated) {
  Alphabet script;
  const int32_t wide = script.token("\xE4\xBD\xA0");
  script.chain({script.a, wide, script.end});
  OpenedModel model(script);
  const std::string whole = "\xE4\xBD\xA0";
  for (size_t size = 1; size <= 6; ++size) {
    std::vector<char> out(8, '?');
    EXPECT_EQ(runtime().generate(model.handle(), "a", out.data(), size), ORB_OK);
    EXPECT_EQ(std::string(out.data()), whole.substr(0, size - 1)) << size;
    for (size_t i = size; i < out.size(); ++i) EXPECT_EQ(out[i], '?') << size << " " << i;
  }
}

TEST(Generate, EndsAfter96TokensWithoutAnEndOfSequence) {
  const WithoutMixers quick;
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("x");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, std::string(96, 'x'));
  EXPECT_EQ(model.session().generatedTokens, 96u);
  EXPECT_EQ(model.stats().contextTokens, 96u);  // the prompt and all but the last token
}

TEST(Generate, MaxTokensVariableChangesTheCap) {
  const WithoutMixers quick;
  for (const auto& [value, length] : {std::pair{"1", 1u}, {"5", 5u}, {"200", 200u}}) {
    const ScopedEnv env("QWEN35_MAX_TOKENS", value);
    OpenedModel model{Alphabet()};
    EXPECT_EQ(model.generate("x").text, std::string(length, 'x'));
  }
}

TEST(Generate, MaxTokensIsReadWhenTheHandleIsCreated) {
  const WithoutMixers quick;
  OpenedModel model{Alphabet()};
  const ScopedEnv env("QWEN35_MAX_TOKENS", "5");
  EXPECT_EQ(model.generate("x").text, std::string(96, 'x'));
}

TEST(Generate, StopsWhenTheContextIsFull) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "5");
  OpenedModel model{Alphabet()};
  EXPECT_EQ(model.generate("xx").text, "xxxx");
  EXPECT_EQ(model.stats().contextTokens, 5u);
}

TEST(Generate, DefaultContextHolds8192Positions) {
  const DefaultContext context;
  const WithoutMixers quick;
  OpenedModel model{Alphabet()};
  EXPECT_EQ(model.generate(std::string(8192, 'x').c_str()).result, ORB_OK);
  EXPECT_EQ(model.stats().contextTokens, 8192u);
  EXPECT_EQ(model.generate(std::string(8193, 'x').c_str()).result, ORB_FAILED);
  EXPECT_EQ(model.stats().contextTokens, 8192u);
}

TEST(Generate, DecodeFailureEndsItWithTheTextSoFar) {
  Alphabet script;
  script.rows = 7;
  script.follow(script.b, 6);  // a row without a token
  OpenedModel model(script);
  const Reply reply = model.generate("a");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "b");
  EXPECT_EQ(model.session().generatedTokens, 2u);
}

TEST(Generate, LogitsThatAreNotFiniteInAStepDiscardTheText) {
  Alphabet script;
  script.spoil(script.c);
  OpenedModel model(script);
  const Reply reply = model.generate("a");  // b, c; then c is fed
  EXPECT_EQ(reply.result, ORB_FAILED);
  EXPECT_EQ(reply.text, "");
  EXPECT_EQ(model.stats().contextTokens, 3u);
  EXPECT_EQ(model.generate("x").result, ORB_OK) << "the handle stays usable";
}

TEST(Generate, EachCallStartsFromAnEmptyContext) {
  OpenedModel model{Alphabet()};
  model.generate("xxxx");
  EXPECT_EQ(model.generate("a").text, "bc");
  EXPECT_EQ(model.stats().contextTokens, 3u);
  EXPECT_EQ(model.session().generatedTokens, 3u);
  EXPECT_EQ(model.session().model.layers[0].position, 3u);
}

TEST(Generate, TimesOfTheCallAreSummedAndTheLastOneKept) {
  OpenedModel model{Alphabet()};
  model.generate("xxxxxxxa");
  const ORBRuntimeStats stats = model.stats();
  EXPECT_GT(stats.lastForwardMs, 0.0);
  EXPECT_GT(stats.totalForwardMs, stats.lastForwardMs);
  model.generate("a");
  EXPECT_GE(model.stats().totalForwardMs, model.stats().lastForwardMs);
}

TEST(Generate, LastForwardTimeStaysUntilTheNextPass) {
  Alphabet script;
  script.tokenizer.specialIds[1] = script.a;  // zero logits end an empty prompt at once
  OpenedModel model(script);
  model.generate("b");
  const double last = model.stats().lastForwardMs;
  EXPECT_GT(last, 0.0);
  EXPECT_EQ(model.generate("").result, ORB_OK);
  EXPECT_EQ(model.stats().lastForwardMs, last);
  EXPECT_EQ(model.stats().totalForwardMs, 0.0);
  EXPECT_EQ(model.stats().contextTokens, 0u);
}

TEST(Generate, EmptyPiecesAddNothing) {
  Alphabet script;
  const int32_t nothing = script.token("");
  script.chain({script.a, nothing, script.c});
  OpenedModel model(script);
  EXPECT_EQ(model.generate("a").text, "c");
  EXPECT_EQ(model.stats().contextTokens, 3u);
}

TEST(Generate, TextStopsAtANulByteThoughGenerationDoesNot) {
  Alphabet script;
  const int32_t nul = script.token("<0x00>");
  script.chain({script.a, nul, script.c});
  OpenedModel model(script);
  const Reply reply = model.generate("b");
  EXPECT_EQ(reply.text, "c");
  const Reply cut = model.generate("xa");
  EXPECT_EQ(cut.result, ORB_OK);
  EXPECT_EQ(cut.text, "");
  EXPECT_EQ(model.stats().contextTokens, 4u);
}

TEST(Generate, EncodingFailureReturnsOneAndChangesNothing) {
  OpenedModel model{Alphabet()};
  model.generate("a");
  model.session().tokenizer = std::make_unique<kiv::Tokenizer>();
  const Reply reply = model.generate("a");
  EXPECT_EQ(reply.result, ORB_FAILED);
  EXPECT_EQ(reply.text, "");
  EXPECT_EQ(model.stats().contextTokens, 3u);
}

TEST(Generate, ArgumentErrorsLeaveTheContextAlone) {
  OpenedModel model{Alphabet()};
  model.generate("a");
  char out[4] = "???";
  EXPECT_EQ(runtime().generate(nullptr, "a", out, sizeof out), ORB_INVALID);
  EXPECT_EQ(runtime().generate(model.handle(), "a", nullptr, 4), ORB_INVALID);
  EXPECT_EQ(runtime().generate(model.handle(), "a", out, 0), ORB_INVALID);
  model.session().modelLoaded = false;
  EXPECT_EQ(runtime().generate(model.handle(), "a", out, sizeof out), ORB_INVALID);
  EXPECT_STREQ(out, "???");
  EXPECT_EQ(model.stats().contextTokens, 3u);
}

// --- The prompt pass, in batches and token by token ------------------------------------------

class PromptPass : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!GetParam()) single_.emplace();
  }

 private:
  std::optional<WithoutMixers> single_;
};

INSTANTIATE_TEST_SUITE_P(Prompt, PromptPass, testing::Bool(), [](const auto& instance) {
  return instance.param ? "InBatches" : "TokenByToken";
});

TEST_P(PromptPass, PromptOfExactlyTheContextLengthIsFed) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "5");
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("xxxxa");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "b");  // one token can be told, none can be fed
  EXPECT_EQ(model.stats().contextTokens, 5u);
}

TEST_P(PromptPass, PromptOneTokenLongerThanTheContextFails) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "5");
  OpenedModel model{Alphabet()};
  const Reply reply = model.generate("xxxxxa");
  EXPECT_EQ(reply.result, ORB_FAILED);
  EXPECT_EQ(reply.text, "");
  EXPECT_EQ(model.stats().contextTokens, 5u);
  EXPECT_EQ(model.generate("a").text, "bc") << "the handle stays usable";
}

TEST_P(PromptPass, TokenIdsPastTheEmbeddingFailCleanly) {
  Alphabet script;
  script.rows = 5;
  script.token("z");  // id 5
  OpenedModel model(script);
  for (const auto& [prompt, fed] : {std::pair{"z", 0u}, {"az", 1u}, {"xxza", 2u}}) {
    const Reply reply = model.generate(prompt);
    EXPECT_EQ(reply.result, ORB_FAILED) << prompt;
    EXPECT_EQ(reply.text, "");
    EXPECT_EQ(model.stats().contextTokens, fed) << prompt;
  }
  EXPECT_EQ(model.generate("a").text, "bc");
}

TEST_P(PromptPass, ASpecialIdPastTheEmbeddingFailsCleanly) {
  Alphabet script;
  script.tokenizer.specialIds[0] = std::numeric_limits<int32_t>::max();
  OpenedModel model(script);
  EXPECT_EQ(model.generate("a").result, ORB_FAILED);
  EXPECT_EQ(model.stats().contextTokens, 0u);
}

TEST_P(PromptPass, HiddenVectorThatIsNotFiniteInThePromptFails) {
  Alphabet script;
  script.spoil(script.c);
  OpenedModel model(script);
  const Reply reply = model.generate("xcx");
  EXPECT_EQ(reply.result, ORB_FAILED);
  EXPECT_EQ(reply.text, "");
  EXPECT_EQ(model.stats().contextTokens, 2u);
}

TEST_P(PromptPass, LogitsThatAreNotFiniteAfterThePromptFail) {
  Alphabet script;
  script.spoil(script.c);
  OpenedModel model(script);
  EXPECT_EQ(model.generate("xc").result, ORB_FAILED);
  EXPECT_EQ(model.stats().contextTokens, 2u);
}

TEST_P(PromptPass, OnlyTheLastPromptTokenRunsTheOutputHead) {
  OpenedModel model{Alphabet()};
  const HeadCounter head(model.session().model);
  model.generate("xxxxxc");
  EXPECT_EQ(head.runs(), 1);
  model.generate("xxa");  // and for b and c
  EXPECT_EQ(head.runs(), 1 + 3);
}

TEST_P(PromptPass, LogitsAreCheckedAtEvery4096thOnly) {
  for (const auto& [row, result] : {std::pair{0, ORB_FAILED},
                                    {4095, ORB_OK},
                                    {4096, ORB_FAILED},
                                    {4097, ORB_OK},
                                    {8192, ORB_FAILED}}) {
    Alphabet script;
    script.rows = 8193;
    script.setEmbedding(row, 7, std::numeric_limits<float>::quiet_NaN());
    OpenedModel model(script);
    EXPECT_EQ(model.generate("xb").result, result) << row;
  }
}

TEST_P(PromptPass, ALongPromptFailsAtTheVeryTokenThatIsBad) {
  Alphabet script;
  script.spoil(script.c);
  OpenedModel model(script);
  for (const size_t before : {0u, 1u, 62u, 63u, 64u, 65u, 100u, 128u}) {
    const std::string prompt = std::string(before, 'x') + "c" + std::string(70, 'x');
    EXPECT_EQ(model.generate(prompt.c_str()).result, ORB_FAILED);
    EXPECT_EQ(model.stats().contextTokens, before + 1);
  }
}

TEST_P(PromptPass, ALongPromptIsFedWhole) {
  OpenedModel model{Alphabet()};
  for (const size_t before : {1u, 62u, 63u, 64u, 65u, 127u, 128u, 150u}) {
    const Reply reply = model.generate((std::string(before, 'x') + "a").c_str());
    EXPECT_EQ(reply.text, "bc") << before;
    EXPECT_EQ(model.stats().contextTokens, before + 3);
  }
}

TEST_P(PromptPass, TimeIsBookedForEveryToken) {
  OpenedModel model{Alphabet()};
  model.generate((std::string(99, 'x') + "c").c_str());
  const ORBRuntimeStats stats = model.stats();
  EXPECT_GT(stats.lastForwardMs, 0.0);
  EXPECT_GE(stats.totalForwardMs, stats.lastForwardMs);
}

TEST(Prefill, EmptyListSucceedsWithZeroLogits) {
  OpenedModel model{Alphabet()};
  qwen35::Qwen35Session& session = model.session();
  model.generate("a");
  EXPECT_TRUE(qwen35::prefill(session, {}));
  for (const float logit : session.logits) EXPECT_EQ(logit, 0.0f);
  EXPECT_EQ(session.position, 3u);
}

TEST(Prefill, NegativeIdsAreNeverLookedUp) {
  OpenedModel model{Alphabet()};
  EXPECT_FALSE(qwen35::prefill(model.session(), {0, -1}));
  EXPECT_EQ(model.session().position, 1u);
}

// --- Generate with options --------------------------------------------------------------------

// Any letter may follow any letter; greedily each repeats itself.
struct Dice : ScriptedModel {
  int32_t a = token("a"), b = token("b"), c = token("c"), x = token("x");

  Dice() {
    for (const int32_t from : {a, b, c, x}) {
      for (const int32_t next : {a, b, c, x}) mayFollow(from, next);
    }
  }
};

TEST(GenerateWithOptions, SettingsHoldForTheCallOnly) {
  const WithoutMixers quick;
  OpenedModel model{Dice()};
  const ORBSessionOptions before = options(0.25f, 7, 0.125f);
  ASSERT_EQ(runtime().configure(model.handle(), &before), ORB_OK);
  const ORBSessionOptions once = options(0.5f, 3, 1.0f);
  EXPECT_EQ(model.generateEx("x", &once).result, ORB_OK);
  EXPECT_EQ(model.session().sampling.temperature, 0.25f);
  EXPECT_EQ(model.session().sampling.topK, 7);
  EXPECT_EQ(model.session().sampling.topP, 0.125f);
}

TEST(GenerateWithOptions, SettingsAreInForceDuringTheCall) {
  const WithoutMixers quick;
  OpenedModel model{Dice()};
  const std::string greedy = model.generate("x").text;
  EXPECT_EQ(greedy, std::string(96, 'x'));
  const ORBSessionOptions hot = options(1.0f);
  EXPECT_NE(model.generateEx("x", &hot).text, greedy);
  EXPECT_EQ(model.generate("x").text, greedy);
}

TEST(GenerateWithOptions, SettingsComeBackAfterAFailureToo) {
  Dice script;
  script.spoil(script.c);
  OpenedModel model(script);
  const ORBSessionOptions hot = options(1.0f, 3, 2.0f);
  EXPECT_EQ(model.generateEx("c", &hot).result, ORB_FAILED);
  EXPECT_EQ(model.session().sampling.temperature, 0.0f);
  EXPECT_EQ(model.session().sampling.topK, 0);
  EXPECT_EQ(model.session().sampling.topP, 0.0f);
}

TEST(GenerateWithOptions, SeedStaysAndChangesLaterResults) {
  const WithoutMixers quick;
  OpenedModel first{Dice()};
  OpenedModel second{Dice()};
  const ORBSessionOptions hot = options(1.0f);
  const ORBSessionOptions seeded = options(1.0f, 0, 0, 99);
  first.generateEx("x", &hot);
  second.generateEx("x", &seeded);
  std::mt19937 expected(99);
  expected.discard(2 * 96);
  EXPECT_TRUE(second.session().rng == expected);
  EXPECT_NE(first.generateEx("x", &hot).text, second.generateEx("x", &hot).text);
}

TEST(GenerateWithOptions, ZeroSeedContinuesTheGenerator) {
  const WithoutMixers quick;
  OpenedModel model{Dice()};
  const ORBSessionOptions hot = options(1.0f);
  const std::string first = model.generateEx("x", &hot).text;
  EXPECT_NE(model.generateEx("x", &hot).text, first);
  const ORBSessionOptions again = options(1.0f, 0, 0, 42);  // what a handle starts with
  EXPECT_EQ(model.generateEx("x", &again).text, first);
}

TEST(GenerateWithOptions, NegativeTemperatureKeepsTheCurrentOneAndZeroReplacesIt) {
  const WithoutMixers quick;
  OpenedModel model{Dice()};
  const ORBSessionOptions hot = options(1.0f);
  ASSERT_EQ(runtime().configure(model.handle(), &hot), ORB_OK);
  const ORBSessionOptions keep = options(-1.0f);
  EXPECT_NE(model.generateEx("x", &keep).text, std::string(96, 'x'));
  const ORBSessionOptions greedy = options(0.0f);
  EXPECT_EQ(model.generateEx("x", &greedy).text, std::string(96, 'x'));
}

TEST(GenerateWithOptions, NullOrShortRecordIsIgnoredWithoutError) {
  const WithoutMixers quick;
  OpenedModel model{Dice()};
  const std::string greedy = model.generate("x").text;
  EXPECT_EQ(model.generateEx("x", nullptr).text, greedy);
  ORBSessionOptions record = options(1.0f, 0, 0, 99);
  record.structSize = 55;
  const Reply reply = model.generateEx("x", &record);
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, greedy);
  EXPECT_TRUE(model.session().rng == std::mt19937(42));
  record.structSize = 57;
  EXPECT_NE(model.generateEx("x", &record).text, greedy);
}

TEST(GenerateWithOptions, ArgumentErrorsAreFoundBeforeAnyOptionIsApplied) {
  OpenedModel model{Dice()};
  const ORBSessionOptions seeded = options(1.0f, 3, 1.0f, 99);
  char out[4] = "???";
  const auto call = [&](ORBRuntimeHandle* handle, char* buffer, size_t size) {
    return runtime().generateEx(handle, "x", &seeded, buffer, size);
  };
  EXPECT_EQ(call(nullptr, out, 4), ORB_INVALID);
  EXPECT_EQ(call(model.handle(), nullptr, 4), ORB_INVALID);
  EXPECT_EQ(call(model.handle(), out, 0), ORB_INVALID);
  model.session().modelLoaded = false;
  EXPECT_EQ(call(model.handle(), out, 4), ORB_INVALID);
  EXPECT_STREQ(out, "???");
  EXPECT_TRUE(model.session().rng == std::mt19937(42));
  EXPECT_EQ(model.session().sampling.temperature, 0.0f);
}

}  // namespace
}  // namespace orbtest
