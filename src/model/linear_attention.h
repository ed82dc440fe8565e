// The token mixer of the linear blocks: a Gated DeltaNet recurrence whose cost per token does not
// depend on the length of the conversation.
#pragma once

#include <cstddef>

#include "compat/export.h"
#include "model/model.h"

namespace qwen35 {

// Consumes one token: x[hidden] is the block's input, not normalised; the mixer's output is added
// to out[hidden]. The block index and pos serve the diagnostics only.
ORB_API void linearAttnStep(Model& model, Layer& layer, const float* x, float* out,
                            size_t blockIndex, size_t pos);

// The same for `tokens` tokens in order, x and out being [token][hidden]; pos is that of the first.
// What is in out may be replaced instead. With more than one, the block's states stay as they are
// and nextRecurrent and nextConv hold those after the batch.
void linearAttention(Model& model, Layer& layer, const float* x, float* out, size_t tokens,
                     size_t blockIndex, size_t pos, Output output);

// One delta-rule update of the d x d state matrix S (key index major) with decay e = exp(g):
// S *= e; delta_j = (v_j - sum k_i S_ij) * beta; S_ij += k_i delta_j; v_j = scale * sum q_i S_ij.
ORB_API void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d,
                     float g, float scale);

}  // namespace qwen35
