// Chat turns in both forms: the answer in a buffer, and streamed token by token.
#include "plugin/chat.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "plugin/opened_model.h"
#include "synth/synth.h"

namespace orbtest {
namespace {

// Answers "abc" to everything: a turn ends with a newline, and a, b, c, <|im_end|> follow it.
struct Talker : ScriptedModel {
  int32_t a = token("a"), b = token("b"), c = token("c"), x = token("x");
  int32_t newline = token("\n");
  int32_t turnStart = special("<|im_start|>"), turnEnd = special("<|im_end|>");
  int32_t end = special("<|endoftext|>");

  Talker() {
    chain({newline, a, b, c, turnEnd});
    tokenizer.specialIds[1] = end;
  }
};

// A model whose every output depends on all that it was fed.
class Listener {
 public:
  Listener() : file_({}) {
    orb::SynthOptions options;
    options.hidden = 32;
    options.ffn = 32;
    options.vocabulary = 160;
    options.pattern = std::string(31, 'f') + "l";
    options.overwrite = true;
    EXPECT_TRUE(orb::writeSynthModel(file_.path(), options).ok());
  }
  const char* path() const { return file_.path(); }

 private:
  TempFile file_;
};

TEST(ChatTurn, AnswersUpToTheEndOfTheTurn) {
  OpenedModel model{Talker()};
  const Reply reply = model.chat("x");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "abc");
  EXPECT_TRUE(model.session().chatActive);
}

TEST(ChatTurn, EndOfSequenceEndsATurnToo) {
  Talker script;
  script.follow(script.b, script.end);
  OpenedModel model(script);
  EXPECT_EQ(model.chat("x").text, "ab");
  EXPECT_EQ(model.stream("x").text(), "ab");
}

TEST(ChatTurn, AnEndMarkerThatIsNoSpecialTokenEndsATurnToo) {
  Talker script;
  script.tokenizer.types[static_cast<size_t>(script.turnEnd)] = 1;
  OpenedModel model(script);
  EXPECT_EQ(model.chat("x").text, "abc");
}

TEST(ChatTurn, WithoutAnEndMarkerInTheVocabularyTheCapEndsIt) {
  const WithoutMixers quick;
  Talker script;
  script.tokenizer.tokens[static_cast<size_t>(script.turnEnd)] = "?";
  OpenedModel model(script);
  EXPECT_EQ(model.chat("x").text, "abc" + std::string(93, '?'));
}

TEST(ChatTurn, TheClosingMarkerIsCountedButNeverFed) {
  OpenedModel model{Talker()};
  const size_t turn = model.tokenCount(turnText("xx"));
  model.chat("xx");
  EXPECT_EQ(model.stats().contextTokens, turn + 3);
  EXPECT_EQ(model.session().generatedTokens, 4u);
}

TEST(ChatTurn, SecondTurnStartsAtTheFinalPositionOfTheFirst) {
  OpenedModel model{Talker()};
  model.chat("xx");
  const uint64_t first = model.stats().contextTokens;
  const double time = model.stats().totalForwardMs;
  EXPECT_EQ(model.chat("x").text, "abc");
  const uint64_t second = first + model.tokenCount(turnText("x")) + 3;
  EXPECT_EQ(model.stats().contextTokens, second);
  EXPECT_EQ(model.session().model.layers[0].position, second);
  EXPECT_EQ(model.session().generatedTokens, 8u);
  EXPECT_GT(model.stats().totalForwardMs, time);
}

// The context after two turns is that of the turns' texts and the first answer, without its marker.
TEST(ChatTurn, TheContextHoldsExactlyTheTurnsAndAnswers) {
  const ScopedEnv env("QWEN35_MAX_TOKENS", "6");
  const Listener listener;
  OpenedModel talk(listener.path());
  OpenedModel plain(listener.path());
  const auto feed = [&](const std::string& text) {
    std::vector<int32_t> ids;
    ASSERT_TRUE(plain.session().tokenizer->encode(text, ids, true).ok());
    ASSERT_TRUE(qwen35::prefill(plain.session(), ids));
  };
  const auto answer = [&](size_t fed) {
    for (size_t i = 0; i < fed; ++i) {
      const auto& logits = plain.session().logits;
      qwen35::feedForLogits(plain.session(), qwen35::greedyChoice(logits.data(), logits.size()));
    }
  };
  ASSERT_EQ(talk.chat("hello there").result, ORB_OK);
  feed("<|im_start|>user\nhello there<|im_end|>\n<|im_start|>assistant\n");
  answer(talk.session().position - plain.session().position);
  EXPECT_EQ(talk.session().logits, plain.session().logits);

  ASSERT_EQ(talk.stream("and now?").result, ORB_OK);
  feed("<|im_start|>user\nand now?<|im_end|>\n<|im_start|>assistant\n");
  answer(talk.session().position - plain.session().position);
  EXPECT_EQ(talk.session().logits, plain.session().logits);

  OpenedModel fresh(listener.path());
  fresh.chat("and now?");
  EXPECT_NE(fresh.session().logits, talk.session().logits) << "the first turn makes no difference";
}

TEST(ChatTurn, AfterPlainGenerationItStartsANewConversation) {
  OpenedModel model{Talker()};
  model.chat("xxxxxxx");
  model.generate("a");
  EXPECT_FALSE(model.session().chatActive);
  EXPECT_EQ(model.chat("x").text, "abc");
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("x")) + 3);
  EXPECT_EQ(model.session().generatedTokens, 4u);
}

TEST(ChatTurn, AfterAResetItStartsANewConversation) {
  OpenedModel model{Talker()};
  model.chat("xxxxxxx");
  EXPECT_EQ(runtime().reset(model.handle()), ORB_OK);
  model.chat("x");
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("x")) + 3);
}

TEST(ChatTurn, AfterABenchItStartsANewConversation) {
  OpenedModel model{Talker()};
  model.chat("xxxxxxx");
  ORBBenchResult result{};
  EXPECT_EQ(runtime().bench(model.handle(), nullptr, &result), ORB_OK);
  model.chat("x");
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("x")) + 3);
}

TEST(ChatTurn, FirstTurnKeepsTheLastForwardTimeWhenItResets) {
  Talker script;
  for (std::string& token : script.tokenizer.tokens) token = "?";  // nothing of a turn is a token
  script.tokenizer.types.assign(script.tokenizer.types.size(), 1);
  script.tokenizer.specialIds[1] = 0;
  OpenedModel model(script);
  model.session().lastForwardMs = 3.5;
  EXPECT_EQ(model.chat("").result, ORB_OK);
  EXPECT_EQ(model.stats().lastForwardMs, 3.5);
}

TEST(ChatTurn, NullUserTextIsTheEmptyText) {
  OpenedModel model{Talker()};
  EXPECT_EQ(model.chat(nullptr).text, "abc");
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("")) + 3);
  EXPECT_EQ(model.stream(nullptr).result, ORB_OK);
  EXPECT_EQ(model.stats().contextTokens, 2 * (model.tokenCount(turnText("")) + 3));
}

TEST(ChatTurn, EndsAfter96TokensAndTheNextTurnContinuesFromThere) {
  const WithoutMixers quick;
  Talker script;
  script.follow(script.a, script.a);
  OpenedModel model(script);
  EXPECT_EQ(model.chat("x").text, std::string(96, 'a'));
  const uint64_t turn = model.tokenCount(turnText("x")) + 95;
  EXPECT_EQ(model.stats().contextTokens, turn);
  EXPECT_EQ(model.stream("x").chunks.size(), 96u);
  EXPECT_EQ(model.stats().contextTokens, 2 * turn);
}

TEST(ChatTurn, MaxTokensVariableChangesTheCap) {
  const ScopedEnv env("QWEN35_MAX_TOKENS", "2");
  OpenedModel model{Talker()};
  EXPECT_EQ(model.chat("x").text, "ab");
  EXPECT_EQ(model.stream("x").text(), "ab");
}

TEST(ChatTurn, AFullContextFailsUntilTheHostResets) {
  const uint64_t turn = OpenedModel(Talker()).tokenCount(turnText("x")) + 3;
  const uint64_t context = 2 * turn - 4;  // one short of the second turn's prompt
  const ScopedEnv env("QWEN35_MAX_CONTEXT", std::to_string(context).c_str());
  OpenedModel model{Talker()};
  EXPECT_EQ(model.chat("x").result, ORB_OK);
  for (int i = 0; i < 2; ++i) {
    const Reply full = model.chat("x");
    EXPECT_EQ(full.result, ORB_FAILED);
    EXPECT_EQ(full.text, "");
    EXPECT_EQ(model.stream("x").result, ORB_FAILED);
    EXPECT_EQ(model.stats().contextTokens, context);
    EXPECT_TRUE(model.session().chatActive);
  }
  EXPECT_EQ(runtime().reset(model.handle()), ORB_OK);
  EXPECT_EQ(model.chat("x").text, "abc");
}

TEST(ChatTurn, AnAnswerThatFillsTheContextEndsThere) {
  Talker script;
  const size_t turn = OpenedModel(script).tokenCount(turnText("x"));
  const ScopedEnv env("QWEN35_MAX_CONTEXT", std::to_string(turn + 1).c_str());
  for (const bool streamed : {false, true}) {
    OpenedModel model(script);
    EXPECT_EQ(streamed ? model.stream("x").text() : model.chat("x").text, "ab");
    EXPECT_EQ(model.stats().contextTokens, turn + 1);
  }
}

TEST(ChatTurn, AFailedFirstPromptPassLeavesThePositionAndNoConversation) {
  Talker script;
  script.spoil(script.x);
  OpenedModel model(script);
  const std::string before = turnText("").substr(0, turnText("").find("<|im_end|>"));
  EXPECT_EQ(model.chat("ax").result, ORB_FAILED);
  EXPECT_FALSE(model.session().chatActive);
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(before + "ax"));
  EXPECT_EQ(model.chat("a").text, "abc");  // which starts anew
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("a")) + 3);
}

TEST(ChatTurn, AFailedLaterPromptPassLeavesThePositionAndTheConversation) {
  const ScopedEnv env("QWEN35_MAX_CONTEXT", "30");
  Talker script;
  OpenedModel model(script);
  model.chat("a");
  EXPECT_EQ(model.chat("aaaaaaaaaaaaaaaa").result, ORB_FAILED);
  EXPECT_TRUE(model.session().chatActive);
  EXPECT_EQ(model.stats().contextTokens, 30u);
}

TEST(ChatTurn, EncodingFailureReturnsOne) {
  OpenedModel model{Talker()};
  model.session().tokenizer = std::make_unique<kiv::Tokenizer>();
  EXPECT_EQ(model.chat("x").result, ORB_FAILED);
  EXPECT_EQ(model.stream("x").result, ORB_FAILED);
  EXPECT_FALSE(model.session().chatActive);
}

TEST(ChatTurn, TokenIdsPastTheEmbeddingFailCleanly) {
  Talker script;
  script.rows = script.tokenizer.tokens.size();
  script.token("z");
  OpenedModel model(script);
  EXPECT_EQ(model.chat("z").result, ORB_FAILED);
  EXPECT_EQ(model.stream("z").result, ORB_FAILED);
  EXPECT_EQ(model.chat("x").text, "abc");
}

TEST(ChatTurn, DecodeFailureEndsTheTurnWithTheAnswerSoFar) {
  Talker script;
  script.rows = script.tokenizer.tokens.size() + 1;
  script.follow(script.b, static_cast<int32_t>(script.rows) - 1);
  OpenedModel model(script);
  const Reply reply = model.chat("x");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "ab");
  const OpenedModel::Stream stream = model.stream("x");
  EXPECT_EQ(stream.result, ORB_OK);
  EXPECT_EQ(stream.text(), "ab");
}

TEST(ChatTurn, LogitsThatAreNotFiniteWhileGeneratingFail) {
  Talker script;
  script.spoil(script.b);
  OpenedModel model(script);
  const Reply reply = model.chat("x");
  EXPECT_EQ(reply.result, ORB_FAILED);
  EXPECT_EQ(reply.text, "");
  OpenedModel other(script);
  const OpenedModel::Stream stream = other.stream("x");
  EXPECT_EQ(stream.result, ORB_FAILED);
  EXPECT_EQ(stream.text(), "ab") << "what was delivered before stays delivered";
}

TEST(ChatTurn, AnswerIsCutToTheBufferAndTerminated) {
  OpenedModel model{Talker()};
  const std::string whole = "abc";
  for (size_t size = 1; size <= 5; ++size) {
    std::vector<char> out(8, '?');
    EXPECT_EQ(runtime().chatTurn(model.handle(), "x", out.data(), size), ORB_OK);
    EXPECT_EQ(std::string(out.data()), whole.substr(0, size - 1));
    for (size_t i = std::max<size_t>(size, 4); i < out.size(); ++i) EXPECT_EQ(out[i], '?');
  }
}

TEST(ChatTurn, NulBytesStopTheBufferAndAreStreamed) {
  Talker script;
  const int32_t nul = script.token("<0x00>");
  script.chain({script.a, nul, script.c});
  OpenedModel model(script);
  const Reply reply = model.chat("x");
  EXPECT_EQ(reply.result, ORB_OK);
  EXPECT_EQ(reply.text, "a");
  const OpenedModel::Stream stream = model.stream("x");
  const std::vector<std::string> expected = {"a", std::string(1, '\0'), "c"};
  EXPECT_EQ(stream.chunks, expected);
}

TEST(ChatTurn, ArgumentErrorsTouchNothing) {
  OpenedModel model{Talker()};
  char out[4] = "???";
  EXPECT_EQ(runtime().chatTurn(nullptr, "x", out, 4), ORB_INVALID);
  EXPECT_EQ(runtime().chatTurn(model.handle(), "x", nullptr, 4), ORB_INVALID);
  EXPECT_EQ(runtime().chatTurn(model.handle(), "x", out, 0), ORB_INVALID);
  EXPECT_EQ(streaming().chatTurnStream(nullptr, "x", nullptr, nullptr, nullptr), ORB_INVALID);
  model.session().modelLoaded = false;
  EXPECT_EQ(runtime().chatTurn(model.handle(), "x", out, 4), ORB_INVALID);
  EXPECT_EQ(streaming().chatTurnStream(model.handle(), "x", nullptr, nullptr, nullptr),
            ORB_INVALID);
  EXPECT_STREQ(out, "???");
  EXPECT_EQ(model.stats().contextTokens, 0u);
}

// --- Streaming --------------------------------------------------------------------------------

TEST(StreamedTurn, DeliversEachTokenByItself) {
  OpenedModel model{Talker()};
  const OpenedModel::Stream stream = model.stream("x");
  EXPECT_EQ(stream.result, ORB_OK);
  EXPECT_EQ(stream.chunks, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(StreamedTurn, GivesTheSameTextAndStateAsTheBufferForm) {
  const ScopedEnv env("QWEN35_MAX_TOKENS", "12");
  const Listener listener;
  OpenedModel buffer(listener.path());
  OpenedModel streamed(listener.path());
  const ORBSessionOptions hot = options(0.9f, 20);
  runtime().configure(buffer.handle(), &hot);
  runtime().configure(streamed.handle(), &hot);
  for (const char* text : {"what is this", "and that"}) {
    EXPECT_EQ(streamed.stream(text).text(), buffer.chat(text).text);
    EXPECT_EQ(streamed.stats().contextTokens, buffer.stats().contextTokens);
    EXPECT_TRUE(streamed.session().rng == buffer.session().rng);
  }
}

TEST(StreamedTurn, ACharacterSplitOverTokensArrivesSplit) {
  Talker script;
  const int32_t first = script.token("<0xE4>");
  const int32_t second = script.token("<0xBD>");
  const int32_t third = script.token("<0xA0>");
  script.chain({script.a, first, second, third, script.turnEnd});
  OpenedModel model(script);
  EXPECT_EQ(model.stream("x").chunks, (std::vector<std::string>{"a", "\xE4", "\xBD", "\xA0"}));
  EXPECT_EQ(model.chat("x").text, "a\xE4\xBD\xA0");
}

TEST(StreamedTurn, EmptyPiecesAreDeliveredAsCallsOfLengthZero) {
  Talker script;
  const int32_t nothing = script.token("");
  script.chain({script.a, nothing, script.c});
  OpenedModel model(script);
  EXPECT_EQ(model.stream("x").chunks, (std::vector<std::string>{"a", "", "c"}));
}

TEST(StreamedTurn, ACancelFlagSetBeforeTheCallFeedsThePromptAndNothingElse) {
  OpenedModel model{Talker()};
  const ORBSessionOptions hot = options(1.0f);
  runtime().configure(model.handle(), &hot);
  const OpenedModel::Stream stream = model.stream("x", 0);
  EXPECT_EQ(stream.result, ORB_OK);
  EXPECT_TRUE(stream.chunks.empty());
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("x")));
  EXPECT_EQ(model.session().generatedTokens, 0u);
  EXPECT_TRUE(model.session().chatActive);
  EXPECT_TRUE(model.session().rng == std::mt19937(42));
}

TEST(StreamedTurn, AFailedPromptPassFailsThoughItWasCancelled) {
  Talker script;
  script.spoil(script.x);
  OpenedModel model(script);
  EXPECT_EQ(model.stream("x", 0).result, ORB_FAILED);
}

TEST(StreamedTurn, ACancelFlagSetInAChunkEndsTheTurnBeforeThatTokenIsFed) {
  const WithoutMixers quick;
  Talker script;
  script.follow(script.a, script.a);
  for (const int chunk : {1, 2, 50, 96}) {
    OpenedModel model(script);
    const size_t turn = model.tokenCount(turnText("x"));
    const OpenedModel::Stream stream = model.stream("x", chunk);
    EXPECT_EQ(stream.result, ORB_OK);
    EXPECT_EQ(stream.chunks.size(), static_cast<size_t>(chunk));
    EXPECT_EQ(model.stats().contextTokens, turn + static_cast<size_t>(chunk) - 1);
    EXPECT_EQ(model.session().generatedTokens, static_cast<size_t>(chunk));
  }
}

TEST(StreamedTurn, ACancelledConversationGoesOn) {
  OpenedModel model{Talker()};
  model.stream("x", 2);
  const uint64_t first = model.stats().contextTokens;
  EXPECT_EQ(model.stream("x").text(), "abc");
  EXPECT_EQ(model.stats().contextTokens, first + model.tokenCount(turnText("x")) + 3);
}

TEST(StreamedTurn, AnyNonZeroCancelValueCounts) {
  OpenedModel model{Talker()};
  for (const int value : {-1, 2, 1 << 30}) {
    int cancel = value;
    int chunks = 0;
    const auto onChunk = [](const char*, unsigned, void* user) { ++*static_cast<int*>(user); };
    EXPECT_EQ(streaming().chatTurnStream(model.handle(), "x", onChunk, &chunks, &cancel), ORB_OK);
    EXPECT_EQ(chunks, 0);
    EXPECT_EQ(cancel, value) << "the flag belongs to the host";
  }
}

TEST(StreamedTurn, ANullCancelPointerIsNoRequest) {
  OpenedModel model{Talker()};
  int chunks = 0;
  const auto onChunk = [](const char*, unsigned, void* user) { ++*static_cast<int*>(user); };
  EXPECT_EQ(streaming().chatTurnStream(model.handle(), "x", onChunk, &chunks, nullptr), ORB_OK);
  EXPECT_EQ(chunks, 3);
}

TEST(StreamedTurn, ANullCallbackGeneratesAndFillsTheContext) {
  OpenedModel model{Talker()};
  EXPECT_EQ(streaming().chatTurnStream(model.handle(), "x", nullptr, nullptr, nullptr), ORB_OK);
  EXPECT_EQ(model.stats().contextTokens, model.tokenCount(turnText("x")) + 3);
  EXPECT_EQ(model.session().generatedTokens, 4u);
}

TEST(StreamedTurn, TheCallbackRunsOnTheCallingThread) {
  OpenedModel model{Talker()};
  std::thread::id seen;
  const auto onChunk = [](const char*, unsigned, void* user) {
    *static_cast<std::thread::id*>(user) = std::this_thread::get_id();
  };
  streaming().chatTurnStream(model.handle(), "x", onChunk, &seen, nullptr);
  EXPECT_EQ(seen, std::this_thread::get_id());
}

}  // namespace
}  // namespace orbtest
