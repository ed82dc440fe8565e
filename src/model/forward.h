// One token through all blocks.
#pragma once

#include <cstddef>

#include "compat/export.h"
#include "model/model.h"

namespace qwen35 {

// Tokens are fed in order, one call per token, from a bound model on one thread at a time.
// embedding[hidden] is the token's embedding, pos its absolute position in the conversation.

// Writes the logits [vocabulary] of the next token.
ORB_API void forwardToken(Model& model, const float* embedding, size_t pos, float* logits);

// Writes the normalised final hidden state [hidden].
ORB_API void forwardTokenHidden(Model& model, const float* embedding, size_t pos, float* out);

}  // namespace qwen35
