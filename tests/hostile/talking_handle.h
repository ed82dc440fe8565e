// A small model that answers, opened through the tables.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "hostile/hostile_case.h"

namespace orbtest {

inline const ORBRuntimeV2& table() { return *orb_plugin_runtimes_v2(nullptr); }

class Handle {
 public:
  explicit Handle(const char* path) {
    EXPECT_EQ(table().create(path, nullptr, &handle_, nullptr, 0), ORB_OK);
  }
  ~Handle() { table().destroy(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  ORBRuntimeHandle* get() { return handle_; }
  int generate(std::string* text = nullptr) {
    std::array<char, 256> out{};
    const int result = table().generate(handle_, "ab", out.data(), out.size());
    if (text != nullptr) *text = out.data();
    return result;
  }

 private:
  ORBRuntimeHandle* handle_ = nullptr;
};

// Two tokens and no end of sequence: it talks for as long as it may.
inline File talkingFile() {
  kiv::TokenizerData tokenizer;
  tokenizer.tokens = {"a", "b"};
  tokenizer.specialIds = {-1, -1, -1, -1};
  ModelFile model = smallestModel();
  model["token_embd.weight"] = TensorSpec::floats({1, 2}, 1);
  return model.container().tokenizer(tokenizer).meta("general.architecture", "qwen35").build();
}

}  // namespace orbtest
