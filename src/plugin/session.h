// What a runtime handle is inside the library: an opened model with its conversation, settings and
// counters.
#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "format/loader.h"
#include "model/model.h"
#include "plugin/limits.h"
#include "plugin/sampler.h"
#include "tokenizer/tokenizer.h"

namespace qwen35 {

// One thread at a time; distinct sessions are independent. Destroyed in reverse order of
// declaration: the tokenizer, the model with its caches, then the loader, which unmaps the file.
struct Qwen35Session {
  Limits limits;
  std::unique_ptr<kiv::ORBLoader> loader;
  Model model;
  bool modelLoaded = false;
  std::unique_ptr<kiv::Tokenizer> tokenizer;
  std::string modelPath;

  SamplingSettings sampling;
  Sampler sampler;
  std::mt19937 rng{42};

  uint64_t position = 0;         // tokens in the caches; position of the next forward pass
  uint64_t generatedTokens = 0;  // since the last reset
  double totalForwardMs = 0.0;   // of all forward passes since the last reset
  double lastForwardMs = 0.0;    // of the most recent one
  bool chatActive = false;       // the next chat turn continues what the caches hold

  std::vector<float> hidden;  // [hidden size]
  std::vector<float> logits;  // [vocabulary]: of the last full forward pass
};

// Loads the model. Null on success, else the static message of what failed.
const char* openSession(Qwen35Session& session, const char* path);

// Forgets the conversation. Settings, generator and lastForwardMs stay.
void clearConversation(Qwen35Session& session);

}  // namespace qwen35

// The C ABI's opaque handle.
struct ORBRuntimeHandle {
  qwen35::Qwen35Session session;
};
