#include "plugin/generation.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

#include "model/forward.h"

namespace qwen35 {
namespace {

constexpr size_t kLogitCheckStride = 4096;

// Runs one forward pass of the token and books its time.
template <typename Pass>
void feed(Qwen35Session& session, int32_t token, const Pass& pass) {
  using Clock = std::chrono::steady_clock;
  embedRow(session.model, static_cast<size_t>(token), session.hidden.data());
  const Clock::time_point start = Clock::now();
  pass(session.hidden.data());
  session.lastForwardMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  session.totalForwardMs += session.lastForwardMs;
  session.position += 1;
}

bool hasEmbedding(const Model& model, int32_t token) {
  return token >= 0 && static_cast<uint64_t>(token) < model.vocabularySize;
}

}  // namespace

void feedForLogits(Qwen35Session& session, int32_t token) {
  feed(session, token, [&](const float* embedding) {
    forwardToken(session.model, embedding, session.position, session.logits.data());
  });
}

bool logitsAreFinite(const Qwen35Session& session) {
  for (size_t i = 0; i < session.logits.size(); i += kLogitCheckStride) {
    if (!std::isfinite(session.logits[i])) return false;
  }
  return true;
}

bool prefill(Qwen35Session& session, const std::vector<int32_t>& tokens) {
  Model& model = session.model;
  std::fill(session.hidden.begin(), session.hidden.end(), 0.0f);
  std::fill(session.logits.begin(), session.logits.end(), 0.0f);
  std::vector<float> scratch(model.hiddenSize);
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (session.position >= model.maxContext || !hasEmbedding(model, tokens[i])) return false;
    if (i + 1 == tokens.size()) {
      feedForLogits(session, tokens[i]);
      return logitsAreFinite(session);
    }
    feed(session, tokens[i], [&](const float* embedding) {
      forwardTokenHidden(model, embedding, session.position, scratch.data());
    });
    const auto finite = [](float value) { return std::isfinite(value); };
    if (!std::all_of(scratch.begin(), scratch.end(), finite)) return false;
  }
  return true;
}

bool generate(Qwen35Session& session, size_t maxNewTokens, int32_t stopId, const PieceSink& sink) {
  const int32_t endId = session.tokenizer->eosId();
  std::string piece;
  for (size_t step = 1;; ++step) {
    const int32_t token = session.sampler.sampleNext(session.logits.data(), session.logits.size(),
                                                     session.sampling, session.rng);
    session.generatedTokens += 1;
    if (token < 0 || token == endId || token == stopId) return true;
    if (!session.tokenizer->decode({token}, piece).ok()) return true;
    if (!sink(piece)) return true;
    if (step == maxNewTokens || session.position >= session.model.maxContext) return true;
    feedForLogits(session, token);
    if (!logitsAreFinite(session)) return false;
  }
}

}  // namespace qwen35
