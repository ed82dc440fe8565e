// Tokens through all blocks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "compat/export.h"
#include "model/model.h"

namespace qwen35 {

// Tokens are fed in order, one call per token, from a bound model on one thread at a time.
// embedding[hidden] is the token's embedding, pos its absolute position in the conversation.

// Writes the logits [vocabulary] of the next token.
ORB_API void forwardToken(Model& model, const float* embedding, size_t pos, float* logits);

// Writes the normalised final hidden state [hidden].
ORB_API void forwardTokenHidden(Model& model, const float* embedding, size_t pos, float* out);

// Feeds `count` tokens (1 to kMaxBatch, all with an embedding row, all fitting the context) in
// one pass over the weights; the position of the first is pos. With `logits` the last token's
// logits are written there; the hidden states of all other tokens are checked to be finite in every
// element, the logits in those that logitsAreFinite() samples. True: the model's state is that
// after the last token, with the same bits however the tokens are split into batches (on all tiers
// but "amx" also with those of forwardToken). False: an output is not finite, and the state is as
// before.
bool forwardBatch(Model& model, const int32_t* tokens, size_t count, size_t pos, float* logits);

// Whether tokens may be fed in batches: no diagnostic variable is set and no hook installed, as
// both look at one token at a time.
bool canBatch(const Model& model);

// Whether the sampled elements of the logits are finite: every 4096th, so that it costs nothing.
bool logitsAreFinite(const float* logits, size_t count);

}  // namespace qwen35
