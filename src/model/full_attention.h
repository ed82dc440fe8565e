// The token mixer of the blocks that are not linear: causal softmax attention with grouped
// key/value heads, per-head norms, partial rotary embedding and an output gate.
#pragma once

#include <cstddef>

#include "compat/export.h"
#include "model/model.h"

namespace qwen35 {

// Consumes one token: x[hidden] is the block's input, not normalised; the mixer's output is added
// to out[hidden]; pos is the absolute position for the rotary angle. The token's key and value go
// to cache slot layer.position, which then advances; a full cache makes this a no-op.
ORB_API void fullAttnStep(Model& model, Layer& layer, const float* x, float* out, size_t pos,
                          size_t blockIndex);

// The same for `tokens` tokens in order, x and out being [token][hidden]; pos is that of the first.
// What is in out may be replaced instead. All of them must fit the cache.
void fullAttention(Model& model, Layer& layer, const float* x, float* out, size_t tokens,
                   size_t pos, size_t blockIndex, Output output);

}  // namespace qwen35
