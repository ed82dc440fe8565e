#include "validate/handle.h"

#include <cstring>
#include <thread>

#include "validate/platform.h"

namespace orb::validate {
namespace {

struct Receiver {
  Streamed result;
  StreamPlan plan;
  volatile int cancel = 0;
  std::thread::id thread = std::this_thread::get_id();
};

void receive(const char* bytes, unsigned int length, void* user) {
  Receiver& receiver = *static_cast<Receiver*>(user);
  Streamed& result = receiver.result;
  if (std::this_thread::get_id() != receiver.thread) result.otherThread += 1;
  if (receiver.cancel != 0) result.afterCancel += 1;
  result.chunks.emplace_back(length > 0 ? bytes : "", length);
  result.text += result.chunks.back();
  if (static_cast<int>(result.chunks.size()) == receiver.plan.cancelAfter) receiver.cancel = 1;
}

}  // namespace

ORBSessionOptions keepSettings() {
  ORBSessionOptions options;
  std::memset(&options, 0xFF, sizeof options);  // what is not read may hold anything
  options.structSize = sizeof options;
  options.temperature = -1;
  options.topK = 0;
  options.topP = 0;
  options.seed = 0;
  return options;
}

ORBSessionOptions sampling(float temperature, uint64_t seed) {
  ORBSessionOptions options = keepSettings();
  options.temperature = temperature;
  options.topK = 1 << 30;
  options.topP = 1;
  options.seed = seed;
  return options;
}

Handle::Handle(Test& test) : test_(test) {
  GuardedBytes message(256);
  const int code = test.plugin.runtime->create(test.subject.model.c_str(), nullptr, &handle_,
                                               message.data(), message.size());
  const bool silent = static_cast<unsigned char>(message.data()[0]) == GuardedBytes::kCanary;
  message.data()[message.size() - 1] = '\0';
  test.expect(code == ORB_OK && handle_ != nullptr,
              "create: expected result 0 and a handle, found %d and \"%s\"", code,
              silent ? "" : message.data());
  if (code == ORB_OK) test.expect(silent, "create: expected no message on success, found one");
  if (code != ORB_OK) handle_ = nullptr;
}

Handle::~Handle() { test_.plugin.runtime->destroy(handle_); }

template <typename Call>
Answer Handle::collect(const char* slot, size_t capacity, const Call& call) {
  GuardedBytes buffer(capacity);
  Answer answer;
  answer.code = call(buffer.data(), buffer.size());
  test_.expect(answer.code == ORB_OK || answer.code == ORB_FAILED,
               "%s: expected result 0 or 1, found %d", slot, answer.code);
  test_.expect(buffer.frontIntact(), "%s: bytes in front of the buffer were changed", slot);
  const void* end = std::memchr(buffer.data(), '\0', capacity);
  if (test_.expect(end != nullptr, "%s: the text is not terminated within %zu bytes", slot,
                   capacity)) {
    answer.text = buffer.data();
  }
  return answer;
}

Answer Handle::generate(const char* prompt, size_t capacity) {
  return collect("generate", capacity, [&](char* out, size_t size) {
    return test_.plugin.runtime->generate(handle_, prompt, out, size);
  });
}

Answer Handle::generateEx(const char* prompt, const ORBSessionOptions* options, size_t capacity) {
  return collect("generateEx", capacity, [&](char* out, size_t size) {
    return test_.plugin.runtime->generateEx(handle_, prompt, options, out, size);
  });
}

Answer Handle::chat(const char* userText, size_t capacity) {
  return collect("chatTurn", capacity, [&](char* out, size_t size) {
    return test_.plugin.runtime->chatTurn(handle_, userText, out, size);
  });
}

Streamed Handle::stream(const char* userText, StreamPlan plan) {
  if (!test_.expect(test_.plugin.streaming != nullptr, "no streaming table for the runtime"))
    return {};
  Receiver receiver;
  receiver.plan = plan;
  receiver.cancel = plan.cancelAfter == 0 ? 1 : 0;
  Streamed& result = receiver.result;
  result.code = test_.plugin.streaming->chatTurnStream(handle_, userText, receive, &receiver,
                                                       &receiver.cancel);
  test_.expect(result.code == ORB_OK || result.code == ORB_FAILED,
               "chatTurnStream: expected result 0 or 1, found %d", result.code);
  test_.expect(result.otherThread == 0, "chatTurnStream: %d chunks came on another thread",
               result.otherThread);
  test_.expect(result.afterCancel == 0, "chatTurnStream: %d chunks came after the cancel flag",
               result.afterCancel);
  return result;
}

std::string Handle::talkativePrompt() {
  constexpr size_t kEnough = 8;
  std::string best;
  size_t most = 0;
  for (const char* prompt : {"<|im_start|>user\nWhat are you?<|im_end|>\n<|im_start|>assistant\n",
                             "Tell me what you are", "Once upon a time", "Hello"}) {
    const size_t length = generate(prompt).text.size();
    if (best.empty() || length > most) best = prompt, most = length;
    if (most >= kEnough) break;
  }
  return best;
}

ORBRuntimeStats Handle::stats() {
  GuardedBytes bytes(sizeof(ORBRuntimeStats));
  ORBRuntimeStats record{};
  test_.expectEqual(
      "result of stats",
      test_.plugin.runtime->stats(handle_, reinterpret_cast<ORBRuntimeStats*>(bytes.data())),
      ORB_OK);
  test_.expect(bytes.frontIntact(), "stats: bytes in front of the record were changed");
  std::memcpy(&record, bytes.data(), sizeof record);
  test_.expectEqual("structSize of stats", record.structSize, sizeof record);
  test_.expect(record.lastForwardMs >= 0 && record.totalForwardMs >= 0,
               "stats: expected times of 0 or more, found total %g and last %g ms",
               record.totalForwardMs, record.lastForwardMs);
  return record;
}

ORBBenchResult Handle::bench(int32_t genTokens, int32_t extraTokens) {
  GuardedBytes params(sizeof(ORBBenchParams)), bytes(sizeof(ORBBenchResult));
  const ORBBenchParams given{sizeof given, genTokens, extraTokens};
  std::memcpy(params.data(), &given, sizeof given);
  ORBBenchResult record{};
  const int code =
      test_.plugin.runtime->bench(handle_, reinterpret_cast<ORBBenchParams*>(params.data()),
                                  reinterpret_cast<ORBBenchResult*>(bytes.data()));
  test_.expect(bytes.frontIntact(), "bench: bytes in front of the record were changed");
  if (!test_.expectEqual("result of bench", code, ORB_OK)) return record;
  std::memcpy(&record, bytes.data(), sizeof record);
  test_.expectEqual("structSize of bench", record.structSize, sizeof record);
  return record;
}

void Handle::configure(const ORBSessionOptions& options) {
  GuardedBytes bytes(sizeof options);
  std::memcpy(bytes.data(), &options, sizeof options);
  test_.expectEqual(
      "result of configure",
      test_.plugin.runtime->configure(handle_, reinterpret_cast<ORBSessionOptions*>(bytes.data())),
      ORB_OK);
}

void Handle::reset() {
  test_.expectEqual("result of reset", test_.plugin.runtime->reset(handle_), ORB_OK);
}

}  // namespace orb::validate
