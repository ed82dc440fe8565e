#include "plugin/generation.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <span>
#include <string>

#include "model/forward.h"

namespace qwen35 {
namespace {

using Clock = std::chrono::steady_clock;

// Books a pass over `count` tokens that began at `start`; each has its share of the time.
void book(Qwen35Session& session, Clock::time_point start, size_t count) {
  const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  session.totalForwardMs += elapsed;
  session.lastForwardMs = elapsed / static_cast<double>(count);
  session.position += count;
}

bool hasEmbedding(const Model& model, int32_t token) {
  return token >= 0 && static_cast<uint64_t>(token) < model.vocabularySize;
}

size_t quotientUp(size_t a, size_t b) { return (a + b - 1) / b; }

// How many of the tokens can be fed in one pass: they fit the context and have an embedding row. A
// prompt that takes several passes is cut evenly: one over few tokens takes nearly as long as one
// over many.
size_t batchSize(const Qwen35Session& session, std::span<const int32_t> tokens) {
  const Model& model = session.model;
  const size_t fitting = std::min(tokens.size(), model.maxContext - session.position);
  if (fitting == 0) return 0;
  const size_t share = quotientUp(fitting, quotientUp(fitting, kMaxBatch));
  const size_t most = std::min(fitting, quotientUp(share, kTokenGroup) * kTokenGroup);
  size_t count = 0;
  while (count < most && hasEmbedding(model, tokens[count])) ++count;
  return count;
}

// Feeds one token of a prompt; the last one's logits are wanted. False when it can't be fed or an
// output is not finite.
bool feedPromptToken(Qwen35Session& session, int32_t token, bool isLast) {
  Model& model = session.model;
  if (session.position >= model.maxContext || !hasEmbedding(model, token)) return false;
  if (isLast) {
    feedForLogits(session, token);
    return logitsAreFinite(session);
  }
  embedRow(model, static_cast<size_t>(token), session.hidden.data());
  std::vector<float> out(model.hiddenSize);
  const Clock::time_point start = Clock::now();
  forwardTokenHidden(model, session.hidden.data(), session.position, out.data());
  book(session, start, 1);
  return std::all_of(out.begin(), out.end(), [](float value) { return std::isfinite(value); });
}

// Feeds the tokens in one pass; false leaves the session as it was.
bool feedPromptBatch(Qwen35Session& session, std::span<const int32_t> tokens, bool isLast) {
  const Clock::time_point start = Clock::now();
  float* logits = isLast ? session.logits.data() : nullptr;
  if (!forwardBatch(session.model, tokens.data(), tokens.size(), session.position, logits)) {
    return false;
  }
  book(session, start, tokens.size());
  return true;
}

}  // namespace

void feedForLogits(Qwen35Session& session, int32_t token) {
  embedRow(session.model, static_cast<size_t>(token), session.hidden.data());
  const Clock::time_point start = Clock::now();
  forwardToken(session.model, session.hidden.data(), session.position, session.logits.data());
  book(session, start, 1);
}

bool logitsAreFinite(const Qwen35Session& session) {
  return logitsAreFinite(session.logits.data(), session.logits.size());
}

bool prefill(Qwen35Session& session, const std::vector<int32_t>& tokens) {
  // A signal would end the process at the first weight that is gone.
  if (!session.loader->reader.holdsMapping()) return false;
  std::fill(session.hidden.begin(), session.hidden.end(), 0.0f);
  std::fill(session.logits.begin(), session.logits.end(), 0.0f);
  const bool batches = canBatch(session.model);
  std::span<const int32_t> rest(tokens);
  while (!rest.empty()) {
    const size_t fitting = batches ? batchSize(session, rest) : 0;
    const auto batch = rest.first(std::max<size_t>(fitting, 1));
    rest = rest.subspan(batch.size());
    if (fitting > 0 && feedPromptBatch(session, batch, rest.empty())) continue;
    // Single tokens, and a batch that failed: one by one up to the token that fails.
    for (size_t i = 0; i < batch.size(); ++i) {
      const bool isLast = rest.empty() && i + 1 == batch.size();
      if (!feedPromptToken(session, batch[i], isLast)) return false;
    }
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
