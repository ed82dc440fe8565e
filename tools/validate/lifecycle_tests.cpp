// Handles: their making and end, calls in any order, several at once.
#include <memory>
#include <thread>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

constexpr const char* kTexts[] = {"", "Hello", "What is it?", "a b c", "\xC3\xA4\n", "1 2 3"};

const char* anyText(Test& test) { return kTexts[test.below(std::size(kTexts))]; }

ORBSessionOptions anySettings(Test& test) {
  ORBSessionOptions options = keepSettings();
  options.temperature = static_cast<float>(test.below(4)) - 1;
  options.topK = test.below(20) - 5;
  options.topP = static_cast<float>(test.below(5)) / 4;
  options.seed = static_cast<uint64_t>(test.below(3));
  return options;
}

void opensTheModel(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  test.expectEqual("context of a fresh handle", static_cast<int64_t>(handle.contextTokens()), 0);
}

void roundsOfCreateAndDestroy(Test& test) {
  constexpr int kRounds = 20;
  const std::vector<std::string> files = openFiles();
  for (int round = 0; round < kRounds; ++round) {
    Handle handle(test);
    if (!handle.ok()) return;
    if (round % 2 == 1) handle.generate(anyText(test), 64);
  }
  test.expectEqual("files open afterwards", static_cast<int64_t>(openFiles().size()),
                   static_cast<int64_t>(files.size()));
}

// One call, chosen at random, and what must be so after it.
void anyCall(Test& test, Handle& handle) {
  const uint64_t before = handle.contextTokens();
  switch (test.below(8)) {
    case 0:
      handle.reset();
      test.expect(handle.contextTokens() == 0, "context after reset: expected 0");
      break;
    case 1:
      handle.configure(anySettings(test));
      test.expect(handle.contextTokens() == before, "configure changed the context");
      break;
    case 2:
      handle.bench(1 + test.below(3), 1);
      test.expect(handle.contextTokens() == 0, "context after bench: expected 0");
      break;
    case 3:
      handle.generate(anyText(test), 1 + static_cast<size_t>(test.below(100)));
      break;
    case 4: {
      const ORBSessionOptions options = anySettings(test);
      handle.generateEx(anyText(test), &options, 1 + static_cast<size_t>(test.below(100)));
      break;
    }
    case 5:
    case 6: {
      const Streamed turn = handle.stream(anyText(test), {test.below(6) - 1});
      test.expect(turn.code == ORB_FAILED || handle.contextTokens() > 0,
                  "context after a streamed turn: expected tokens, found none");
      if (turn.code == ORB_FAILED) handle.reset();
      break;
    }
    default:
      if (handle.chat(anyText(test)).code == ORB_FAILED) handle.reset();
  }
}

void callsInAnyOrder(Test& test) {
  constexpr int kCalls = 60, kHandles = 3;
  std::unique_ptr<Handle> handles[kHandles];
  for (int call = 0; call < kCalls; ++call) {
    std::unique_ptr<Handle>& handle = handles[test.below(kHandles)];
    if (handle == nullptr) {
      handle = std::make_unique<Handle>(test);
      if (!handle->ok()) return;
    } else if (test.below(10) == 0) {
      handle.reset();
    } else {
      anyCall(test, *handle);
    }
  }
}

std::string conversation(Handle& handle, uint64_t seed) {
  handle.configure(sampling(0.9f, seed));
  std::string all = handle.chat("Hello").text;
  all += '|' + handle.stream("And then?").text;
  all += '|' + handle.generate("Once").text;
  all += '|' + std::to_string(handle.contextTokens());
  return all;
}

void handlesAreIndependent(Test& test) {
  Handle alone(test);
  if (!alone.ok()) return;
  const std::string expected = conversation(alone, 5);
  Handle first(test), second(test);
  if (!first.ok() || !second.ok()) return;
  first.configure(sampling(0.9f, 5));
  second.configure(sampling(0.5f, 6));
  std::string all = first.chat("Hello").text;
  second.chat("Something else altogether");
  all += '|' + first.stream("And then?").text;
  second.bench(1, 1);
  all += '|' + first.generate("Once").text;
  second.reset();
  all += '|' + std::to_string(first.contextTokens());
  test.expectText("a conversation beside another handle", all, expected);
}

void twoThreadsAtOnce(Test& test) {
  std::string expected[2], found[2];
  const auto converse = [&test](uint64_t seed, std::string& result) {
    Handle handle(test);
    if (handle.ok()) result = conversation(handle, seed);
  };
  for (int i = 0; i < 2; ++i) converse(static_cast<uint64_t>(i) + 1, expected[i]);
  std::thread other([&] { converse(1, found[0]); });
  converse(2, found[1]);
  other.join();
  for (int i = 0; i < 2; ++i) {
    test.expectText("a conversation beside another thread's", found[i], expected[i]);
  }
}

void handlesMoveBetweenThreads(Test& test) {
  Handle here(test);
  if (!here.ok()) return;
  const std::string expected = conversation(here, 3);
  std::unique_ptr<Handle> moved;
  std::string found;
  std::thread([&] { moved = std::make_unique<Handle>(test); }).join();
  if (!moved->ok()) return;
  std::thread([&] { found = conversation(*moved, 3); }).join();
  test.expectText("a conversation on another thread than the handle was made on", found, expected);
  std::thread([&] { moved.reset(); }).join();
}

void failedCreateLeavesOthersAlone(Test& test) {
  Handle handle(test);
  if (!handle.ok()) return;
  const std::string expected = conversation(handle, 4);
  handle.reset();
  ORBRuntimeHandle* none = nullptr;
  const int code = test.plugin.runtime->create("no/such/file.orb", nullptr, &none, nullptr, 0);
  test.expectEqual("create of a missing file", code, ORB_FAILED);
  test.expectText("a conversation after a failed create", conversation(handle, 4), expected);
}

}  // namespace

std::vector<TestCase> lifecycleTests() {
  return {
      {"lifecycle.opens_the_model", Need::Model, opensTheModel},
      {"lifecycle.rounds_of_create_and_destroy", Need::Model, roundsOfCreateAndDestroy},
      {"lifecycle.calls_in_any_order", Need::Model, callsInAnyOrder},
      {"lifecycle.handles_are_independent", Need::Model, handlesAreIndependent},
      {"lifecycle.two_threads_at_once", Need::Model, twoThreadsAtOnce},
      {"lifecycle.handles_move_between_threads", Need::Model, handlesMoveBetweenThreads},
      {"lifecycle.failed_create_leaves_others_alone", Need::Model, failedCreateLeavesOthersAlone}};
}

}  // namespace orb::validate
