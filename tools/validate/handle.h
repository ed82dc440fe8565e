// An opened model whose every call is checked for what holds of each: result codes, texts that are
// terminated inside their buffer, nothing written around it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orb_plugin.h"
#include "validate/test.h"

namespace orb::validate {

struct Answer {
  int code = ORB_INVALID;
  std::string text;
};

struct StreamPlan {
  int cancelAfter = -1;  // chunks after which the flag is set; 0: before the call; -1: never
};

struct Streamed {
  int code = ORB_INVALID;
  std::vector<std::string> chunks;
  std::string text;     // of all chunks
  int otherThread = 0;  // chunks that came on another thread than the call's
  int afterCancel = 0;  // chunks that came when the flag was set
};

// Session options that change nothing.
ORBSessionOptions keepSettings();
// Sampling among all tokens; seed 0 keeps the generator.
ORBSessionOptions sampling(float temperature, uint64_t seed);

class Handle {
 public:
  static constexpr size_t kCapacity = 1 << 16;

  // A failure of the test when the model does not open.
  explicit Handle(Test& test);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  bool ok() const { return handle_ != nullptr; }
  ORBRuntimeHandle* raw() const { return handle_; }

  // A null text is handed over as null. `capacity` bytes are all that the call may touch.
  Answer generate(const char* prompt, size_t capacity = kCapacity);
  Answer generateEx(const char* prompt, const ORBSessionOptions* options,
                    size_t capacity = kCapacity);
  Answer chat(const char* userText, size_t capacity = kCapacity);
  Streamed stream(const char* userText, StreamPlan plan = {});

  // A prompt that the model has more to say to than to some others.
  std::string talkativePrompt();

  ORBRuntimeStats stats();
  uint64_t contextTokens() { return stats().contextTokens; }
  ORBBenchResult bench(int32_t genTokens, int32_t extraTokens);
  // Both are failures of the test when the result is not ORB_OK.
  void configure(const ORBSessionOptions& options);
  void reset();

 private:
  template <typename Call>
  Answer collect(const char* slot, size_t capacity, const Call& call);

  Test& test_;
  ORBRuntimeHandle* handle_ = nullptr;
};

}  // namespace orb::validate
