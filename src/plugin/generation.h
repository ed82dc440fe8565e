// Prompt in, tokens out: the two loops that every generating entry point shares.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "plugin/session.h"

namespace qwen35 {

// Zeroes the hidden and logits vectors, then feeds the tokens from the session's position on. On
// success the session's logits predict the next token (an empty list leaves them zero). False when
// the model file has been shortened, the context is full, an id has no embedding row, or an output
// is not finite; the position then stays advanced by the tokens that were fed.
bool prefill(Qwen35Session& session, const std::vector<int32_t>& tokens);

// Takes one decoded piece; false ends the generation.
using PieceSink = std::function<bool(std::string_view piece)>;

// Samples, decodes and feeds tokens until the end-of-sequence id, `stopId`, maxNewTokens, the
// context limit, a decode failure or the sink ends it. The token that ends it is never fed. False
// only when a forward pass gives logits that are not finite.
bool generate(Qwen35Session& session, size_t maxNewTokens, int32_t stopId, const PieceSink& sink);

// One forward pass of the token to the session's logits, timed; advances the position.
void feedForLogits(Qwen35Session& session, int32_t token);

// Whether the sampled elements of the session's logits are finite.
bool logitsAreFinite(const Qwen35Session& session);

}  // namespace qwen35
