// The gated feed-forward step of a block.
#pragma once

#include "compat/export.h"
#include "model/model.h"

namespace qwen35 {

// out[hidden] = W_down (silu(W_gate x) * (W_up x)), x[hidden]; out is overwritten.
ORB_API void ffnStep(Model& model, Layer& layer, const float* x, float* out);

// The same for every token of a batch: x and out are [token][hidden].
void feedForward(Model& model, Layer& layer, const float* x, float* out, size_t tokens);

}  // namespace qwen35
