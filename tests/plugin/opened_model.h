// A model opened through the entry points, with a look inside the handle.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "format/container_builder.h"
#include "orb_plugin.h"
#include "plugin/scripted_model.h"
#include "plugin/session.h"

namespace orbtest {

inline const ORBRuntimeV2& runtime() { return *orb_plugin_runtimes_v2(nullptr); }
inline const ORBRuntimeV2S& streaming() { return *orb_plugin_runtimes_v2s(nullptr); }

// Sets a variable of the environment until the end of the scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value, 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Gives models the context length that they have by default, which these tests otherwise shorten.
class DefaultContext : public ScopedEnv {
 public:
  DefaultContext() : ScopedEnv("QWEN35_MAX_CONTEXT", "") {}
};

// Skips the mixers, which add nothing in scripted models but take most of the time, for tests that
// feed many tokens. Prompts are then fed token by token, as always when a diagnostic variable is
// set.
class WithoutMixers : public ScopedEnv {
 public:
  WithoutMixers() : ScopedEnv("QWEN35_ABLATE", "lin") {}
};

// What a call that writes text to a buffer returned.
struct Reply {
  int result;
  std::string text;
};

class OpenedModel {
 public:
  explicit OpenedModel(const char* path) {
    char message[64] = "";
    EXPECT_EQ(runtime().create(path, nullptr, &handle_, message, sizeof message), ORB_OK)
        << message;
  }
  explicit OpenedModel(const std::vector<uint8_t>& file) : OpenedModel(TempFile(file).path()) {}
  explicit OpenedModel(const ScriptedModel& script) : OpenedModel(script.build()) {}
  ~OpenedModel() { runtime().destroy(handle_); }
  OpenedModel(const OpenedModel&) = delete;
  OpenedModel& operator=(const OpenedModel&) = delete;

  ORBRuntimeHandle* handle() { return handle_; }
  qwen35::Qwen35Session& session() { return handle_->session; }

  Reply generate(const char* prompt, size_t size = 4096) {
    std::vector<char> out(size, '?');
    const int result = runtime().generate(handle_, prompt, out.data(), size);
    return {result, out.data()};
  }
  Reply generateEx(const char* prompt, const ORBSessionOptions* options) {
    std::vector<char> out(4096, '?');
    const int result = runtime().generateEx(handle_, prompt, options, out.data(), out.size());
    return {result, out.data()};
  }
  Reply chat(const char* userText, size_t size = 4096) {
    std::vector<char> out(size, '?');
    const int result = runtime().chatTurn(handle_, userText, out.data(), size);
    return {result, out.data()};
  }

  // A streamed turn: every chunk as it came. `cancelAfter` sets the flag in that chunk's callback,
  // 0 before the call.
  struct Stream {
    int result = -1;
    std::vector<std::string> chunks;
    int cancelAfter = -1;
    int cancel = 0;

    std::string text() const {
      std::string all;
      for (const auto& chunk : chunks) all += chunk;
      return all;
    }
  };
  Stream stream(const char* userText, int cancelAfter = -1) {
    Stream stream;
    stream.cancelAfter = cancelAfter;
    if (cancelAfter == 0) stream.cancel = 1;
    const auto onChunk = [](const char* bytes, unsigned length, void* user) {
      auto& self = *static_cast<Stream*>(user);
      self.chunks.emplace_back(bytes, length);
      if (static_cast<int>(self.chunks.size()) == self.cancelAfter) self.cancel = 1;
    };
    stream.result = streaming().chatTurnStream(handle_, userText, onChunk, &stream, &stream.cancel);
    return stream;
  }

  ORBRuntimeStats stats() {
    ORBRuntimeStats stats{};
    EXPECT_EQ(runtime().stats(handle_, &stats), ORB_OK);
    return stats;
  }
  size_t tokenCount(const std::string& text) {
    std::vector<int32_t> ids;
    EXPECT_TRUE(session().tokenizer->encode(text, ids, true).ok());
    return ids.size();
  }

 private:
  ORBRuntimeHandle* handle_ = nullptr;
};

// The text that a chat turn feeds.
inline std::string turnText(const std::string& userText) {
  return "<|im_start|>user\n" + userText + "<|im_end|>\n<|im_start|>assistant\n";
}

inline ORBSessionOptions options(float temperature, int32_t topK = 0, float topP = 0,
                                 uint64_t seed = 0) {
  return {.structSize = sizeof(ORBSessionOptions),
          .temperature = temperature,
          .topK = topK,
          .topP = topP,
          .seed = seed,
          .hostDefined = {}};
}

}  // namespace orbtest
