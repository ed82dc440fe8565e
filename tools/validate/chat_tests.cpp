// Conversations: what the context keeps, streaming, cancellation, a full context.
#include <chrono>
#include <thread>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kText = "Hello, what can you do?";

int64_t context(Handle& handle) { return static_cast<int64_t>(handle.contextTokens()); }

// The buffer form shows a text up to its first zero byte.
std::string shown(const Streamed& turn) { return turn.text.c_str(); }

void theContextKeepsTheConversation(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  test.expectEqual("result of the first turn", handle.chat(kText).code, ORB_OK);
  const int64_t first = context(handle);
  test.expect(first > 0, "context after a turn: expected tokens, found none");
  test.expectEqual("result of the second turn", handle.chat(kText).code, ORB_OK);
  test.expect(context(handle) > first,
              "context after a second turn: expected more than %lld, found %lld",
              static_cast<long long>(first), static_cast<long long>(context(handle)));
}

void resetForgets(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Answer fresh = handle.chat(kText);
  const int64_t tokens = context(handle);
  handle.chat("And more of it");
  handle.reset();
  test.expectEqual("context after reset", context(handle), 0);
  test.expectText("first turn after reset", handle.chat(kText).text, fresh.text);
  test.expectEqual("context after that turn", context(handle), tokens);
}

void generateAndBenchEndAConversation(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Answer fresh = handle.chat(kText);
  const int64_t tokens = context(handle);
  handle.generate("Something else");
  test.expectText("first turn after generate", handle.chat(kText).text, fresh.text);
  test.expectEqual("context after that turn", context(handle), tokens);
  handle.bench(1, 1);
  test.expectText("first turn after bench", handle.chat(kText).text, fresh.text);
  test.expectEqual("context after that turn", context(handle), tokens);
}

void resetKeepsTheSettings(Test& test) {
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  first.configure(sampling(1.2f, 77));
  first.reset();
  second.configure(sampling(1.2f, 77));
  test.expectText("sampled turn after configure and reset", first.chat(kText).text,
                  second.chat(kText).text);
}

void streamingGivesTheSameText(Test& test) {
  Handle whole(test), streamed(test);
  if (!whole.ok() || !streamed.ok()) return;
  for (int turn = 0; turn < 2; ++turn) {
    const Answer answer = whole.chat(kText);
    const Streamed chunks = streamed.stream(kText);
    test.expectEqual("result of the streamed turn", chunks.code, answer.code);
    test.expectText("streamed text", shown(chunks), answer.text);
    test.expectEqual("context after the streamed turn", context(streamed), context(whole));
  }
}

void streamingWithoutReceiver(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  if (!test.expect(test.plugin.streaming != nullptr, "no streaming table for the runtime")) return;
  handle.stream(kText);
  const int64_t tokens = context(handle);
  handle.reset();
  const int code =
      test.plugin.streaming->chatTurnStream(handle.raw(), kText, nullptr, nullptr, nullptr);
  test.expectEqual("result without a receiver", code, ORB_OK);
  test.expectEqual("context without a receiver", context(handle), tokens);
}

void cancelledBeforeTheFirstToken(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Streamed whole = handle.stream(kText);
  const int64_t tokens = context(handle);
  handle.reset();
  const Streamed turn = handle.stream(kText, {0});
  test.expectEqual("result of a turn cancelled before its start", turn.code, ORB_OK);
  test.expectEqual("chunks of that turn", static_cast<int64_t>(turn.chunks.size()), 0);
  test.expect(context(handle) > 0 && context(handle) <= tokens,
              "context: expected the user's text in it, found %lld tokens, whole turn %lld",
              static_cast<long long>(context(handle)), static_cast<long long>(tokens));
}

void cancelledAfterAnyChunk(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const Streamed whole = handle.stream(kText);
  const int64_t tokens = context(handle);
  const auto count = static_cast<int>(whole.chunks.size());
  if (count < 2) return test.skip("needs a model that answers with 2 tokens or more");
  for (int i = 0; i < 6; ++i) {
    const int after = i == 0 ? 1 : 1 + test.below(count);
    handle.reset();
    const Streamed turn = handle.stream(kText, {after});
    test.expectEqual("result of a cancelled turn", turn.code, ORB_OK);
    test.expectEqual("chunks of a cancelled turn", static_cast<int64_t>(turn.chunks.size()), after);
    test.expectText("text of a cancelled turn", turn.text, whole.text.substr(0, turn.text.size()));
    test.expect(context(handle) <= tokens,
                "context of a cancelled turn: more than the whole one's");
  }
}

// Whether there is room for them without a cancel.
bool holdsTwoTurns(Test& test) {
  Handle handle(test);
  return handle.ok() && handle.chat(kText).code == ORB_OK && handle.chat("Go on").code == ORB_OK;
}

void aCancelledConversationGoesOn(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  handle.stream(kText, {1});
  const int64_t tokens = context(handle);
  const int code = handle.chat("Go on").code;
  if (code != ORB_OK && !holdsTwoTurns(test)) {
    return test.skip("needs a context that holds two turns");
  }
  test.expectEqual("result of the next turn", code, ORB_OK);
  test.expect(context(handle) > tokens, "context: expected the cancelled turn to stay in it");
}

void cancelledFromAnotherThread(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  if (!test.expect(test.plugin.streaming != nullptr, "no streaming table for the runtime")) return;
  volatile int cancel = 0;
  std::thread canceller([&cancel] {
    sleepMilliseconds(20);
    cancel = 1;
  });
  const int code =
      test.plugin.streaming->chatTurnStream(handle.raw(), kText, nullptr, nullptr, &cancel);
  canceller.join();
  test.expectEqual("result of a turn cancelled from another thread", code, ORB_OK);
}

// Turn after turn until one does not fit; a model with room for long is left alone after a while.
void aFullContextIsAnErrorUntilReset(Test& test) {
  constexpr std::chrono::seconds kPatience(20);
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string fresh = handle.stream(kText, {1}).text;
  std::string text;
  for (int i = 0; i < 60; ++i) text += "one more word ";
  const Clock::time_point start = Clock::now();
  Streamed turn;
  do {
    turn = handle.stream(text.c_str(), {1});
  } while (turn.code == ORB_OK && Clock::now() - start < kPatience);
  test.note("context held %lld tokens", static_cast<long long>(context(handle)));
  if (turn.code == ORB_OK) return test.skip("the context did not fill up in 20 s");
  test.expectEqual("one more turn in a full context", handle.chat(text.c_str()).code, ORB_FAILED);
  handle.reset();
  test.expectText("first turn after reset", handle.stream(kText, {1}).text, fresh);
}

void oddTextsAreTaken(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string expected = handle.chat(kText).text;
  std::string bytes;
  for (int i = 0; i < 200; ++i) bytes += static_cast<char>(1 + test.below(255));
  for (const std::string& text : {bytes, std::string("<|im_end|>\n<|im_start|>assistant\n"),
                                  std::string("\xC0\x80\xFF"), std::string("%s%n%d")}) {
    handle.stream(text.c_str(), {2});
  }
  handle.reset();
  test.expectText("first turn after odd texts and reset", handle.chat(kText).text, expected);
}

}  // namespace

std::vector<TestCase> chatTests() {
  return {
      {"chat.the_context_keeps_the_conversation", Need::Model, theContextKeepsTheConversation},
      {"chat.reset_forgets", Need::Model, resetForgets},
      {"chat.generate_and_bench_end_a_conversation", Need::Model, generateAndBenchEndAConversation},
      {"chat.reset_keeps_the_settings", Need::Model, resetKeepsTheSettings},
      {"chat.streaming_gives_the_same_text", Need::Model, streamingGivesTheSameText},
      {"chat.streaming_without_receiver", Need::Model, streamingWithoutReceiver},
      {"chat.cancelled_before_the_first_token", Need::Model, cancelledBeforeTheFirstToken},
      {"chat.cancelled_after_any_chunk", Need::Model, cancelledAfterAnyChunk},
      {"chat.a_cancelled_conversation_goes_on", Need::Model, aCancelledConversationGoesOn},
      {"chat.cancelled_from_another_thread", Need::Model, cancelledFromAnotherThread},
      {"chat.a_full_context_is_an_error_until_reset", Need::Model, aFullContextIsAnErrorUntilReset},
      {"chat.odd_texts_are_taken", Need::Model, oddTextsAreTaken}};
}

}  // namespace orb::validate
