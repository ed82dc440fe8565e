#include "plugin/bench.h"

#include <chrono>
#include <vector>

#include "plugin/generation.h"

namespace qwen35 {
namespace {

constexpr int64_t kDefaultTokens = 64;
constexpr int64_t kDefaultExtraTokens = 8;
constexpr int64_t kMostSteps = 4096;

// Greedy decode steps until a bound or the end of the sequence.
void decode(Qwen35Session& session, int64_t bound) {
  for (int64_t step = 1;; ++step) {
    const int32_t token = greedyChoice(session.logits.data(), session.logits.size());
    if (token == session.tokenizer->eosId() || step == bound || step == kMostSteps ||
        session.position >= session.model.maxContext) {
      return;
    }
    feedForLogits(session, token);
    if (!logitsAreFinite(session)) return;
  }
}

}  // namespace

int runBench(Qwen35Session& session, const ORBBenchParams* params, ORBBenchResult& out) {
  const bool hasTokens = params != nullptr && params->genTokens >= 1;
  const bool hasExtra = params != nullptr && params->extraTokens >= 1;
  const int64_t tokens = hasTokens ? params->genTokens : kDefaultTokens;
  const int64_t extra = hasExtra ? params->extraTokens : kDefaultExtraTokens;

  std::vector<int32_t> prompt;
  if (!session.tokenizer->encode("Hi", prompt, true).ok()) return ORB_FAILED;
  clearConversation(session);
  const SamplingSettings saved = session.sampling;
  session.sampling.temperature = 0.0f;
  session.sampling.topK = 1;
  if (!prefill(session, prompt)) return ORB_FAILED;

  const auto start = std::chrono::steady_clock::now();
  decode(session, tokens + extra);
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - start;
  const double msPerToken = elapsed.count() / static_cast<double>(tokens);
  out = {.structSize = sizeof(ORBBenchResult),
         .msPerToken = msPerToken,
         .tokensPerSecond = 1000.0 / msPerToken,
         .tokens = tokens};
  session.sampling = saved;
  clearConversation(session);
  return ORB_OK;
}

}  // namespace qwen35
