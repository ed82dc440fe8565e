#include "model/linear_attention.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "model/diagnostics.h"
#include "model/kernels/kernel_table.h"
#include "model/numeric_kernels.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

constexpr size_t kHeadWidth = 128;

const float* floats(const kiv::TensorView* tensor) {
  return reinterpret_cast<const float*>(tensor->data);
}

// Causal depthwise convolution of the channels first..last - 1 over the rolling state, then SiLU.
void convolve(Model& model, Layer& layer, size_t first, size_t last) {
  const Workspace& w = model.work;
  const float* weights = floats(layer.ssmConv1d);
  float* out = model.work.conv.data();
  for (size_t c = first; c < last; ++c) {
    float* state = layer.convState.data() + 3 * c;
    const float* tap = weights + 4 * c;
    const float input = w.qkv[c];
    out[c] = tap[0] * state[0] + tap[1] * state[1] + tap[2] * state[2] + tap[3] * input;
    state[0] = state[1];
    state[1] = state[2];
    state[2] = input;
  }
  model.kernels->silu(out + first, out + first, last - first);
}

// All four projections of the normalised input; the channels of each finished run of rows are
// convolved at once. Channels without a row see no input and stay zero.
void project(Model& model, Layer& layer, const float* x) {
  Workspace& w = model.work;
  rmsNorm(x, floats(layer.attnNorm), w.normed.data(), model.hiddenSize, kEpsilon);
  for (ZeroedArray* a : {&w.qkv, &w.conv, &w.gate, &w.beta, &w.alpha}) a->clear();
  const float* input = w.normed.data();
  Product products[] = {{layer.attnQkv, input, w.qkv.data()},
                        {layer.attnGate, input, w.gate.data()},
                        {layer.ssmBeta, input, w.beta.data()},
                        {layer.ssmAlpha, input, w.alpha.data()}};
  runProducts(model, products, [&](size_t product, size_t first, size_t last) {
    if (product == 0) convolve(model, layer, first, last);
  });
}

// What the gates of one value head make of its projections.
struct HeadGates {
  float beta;
  float decay;  // g, the logarithm of the decay factor in a well-formed model
};

HeadGates headGates(const Model& model, const Layer& layer, size_t h) {
  const float raw = model.work.alpha[h] + floats(layer.ssmDt)[h];
  float step = 0;
  softplus(&raw, &step, 1);
  return {1.0f / (std::exp(-model.work.beta[h]) + 1.0f), step * floats(layer.ssmA)[h]};
}

// Delta-rule update and gated norm of one value head. Key head h mod 16 serves value head h: the
// key heads are tiled over the value heads.
void mixHead(Model& model, Layer& layer, size_t h, bool decays, float scale) {
  Workspace& w = model.work;
  const size_t keyHead = h % model.linearKeyHeads;
  const float* query = w.conv.data() + keyHead * kHeadWidth;
  const float* key = query + model.linearKeyWidth();
  const float* value = w.conv.data() + 2 * model.linearKeyWidth() + h * kHeadWidth;
  alignas(64) float qn[kHeadWidth];
  alignas(64) float kn[kHeadWidth];
  l2NormBlocks(query, qn, 1, kHeadWidth, kEpsilon);
  l2NormBlocks(key, kn, 1, kHeadWidth, kEpsilon);

  float* out = w.heads.data() + h * kHeadWidth;
  std::copy_n(value, kHeadWidth, out);
  const HeadGates gates = headGates(model, layer, h);
  float* state = layer.recurrentState.data() + h * kHeadWidth * kHeadWidth;
  model.kernels->deltaStep(state, qn, kn, out, gates.beta, kHeadWidth,
                           decays ? std::exp(gates.decay) : 1.0f, scale);

  float* gated = w.gated.data() + h * kHeadWidth;
  alignas(64) float gate[kHeadWidth];
  rmsNorm(out, floats(layer.ssmNorm), gated, kHeadWidth, kEpsilon);
  model.kernels->silu(w.gate.data() + h * kHeadWidth, gate, kHeadWidth);
  for (size_t j = 0; j < kHeadWidth; ++j) gated[j] *= gate[j];
}

}  // namespace

void linearAttnStep(Model& model, Layer& layer, const float* x, float* out, size_t blockIndex,
                    size_t pos) {
  project(model, layer, x);
  const bool decays = std::getenv("QWEN35_NODECAY") == nullptr;
  const float scale = 1.0f / std::sqrt(static_cast<float>(kHeadWidth));
  model.team.forEach(model.linearValueHeads,
                     [&](size_t h) { mixHead(model, layer, h, decays, scale); });
  gemvRow(model, layer.ssmOut, model.work.gated.data(), out);
  layer.position += 1;
  const HeadGates head0 = headGates(model, layer, 0);
  printLinearAttention(model, layer, {blockIndex, pos, head0.beta, head0.decay, out});
}

void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
             float scale) {
  // The vector tiers take whole registers and up to the model's own head width.
  const bool vectorSized = d % 16 == 0 && d <= kHeadWidth;
  const KernelTable& kernels = vectorSized ? selectKernels(nullptr) : kScalarKernels;
  kernels.deltaStep(S, q, k, v, beta, d, std::exp(g), scale);
}

}  // namespace qwen35
