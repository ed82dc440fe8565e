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
constexpr size_t kAhead = 2;  // tokens
constexpr size_t kConvTaps = 4;
constexpr size_t kConvInputs = kConvTaps - 1;  // that the state remembers

// Where a step reads and leaves the states of its block: in place for one token, beside them for a
// batch that may yet be refused.
struct States {
  const float* recurrent;
  float* recurrentOut;
  const float* conv;
  float* convOut;
};

States statesFor(Layer& layer, bool isBatch) {
  const bool inPlace = !isBatch;
  return {layer.recurrentState.data(),
          inPlace ? layer.recurrentState.data() : layer.nextRecurrent.data(),
          layer.convState.data(), inPlace ? layer.convState.data() : layer.nextConv.data()};
}

// Some channels of the convolution, of one head.
struct Channels {
  size_t first;
  size_t count;  // at most kHeadWidth
};

// Causal depthwise convolution of one token over the rolling state, which takes its input.
void convolveToken(Workspace& w, const float* weights, float* states, size_t t, Channels channels) {
  const float* inputs = w.qkv.row(t);
  float* out = w.conv.row(t);
  for (size_t c = channels.first; c < channels.first + channels.count; ++c) {
    float* state = states + kConvInputs * c;
    const float* tap = weights + kConvTaps * c;
    const float input = inputs[c];
    out[c] = tap[0] * state[0] + tap[1] * state[1] + tap[2] * state[2] + tap[3] * input;
    state[0] = state[1];
    state[1] = state[2];
    state[2] = input;
  }
}

// The same for a token whose last inputs are those of the batch; the taps are [tap][channel].
void convolveRows(Workspace& w, const float (*taps)[kHeadWidth], size_t t, Channels channels) {
  const float* third = w.qkv.row(t - 3) + channels.first;
  const float* second = w.qkv.row(t - 2) + channels.first;
  const float* last = w.qkv.row(t - 1) + channels.first;
  const float* input = w.qkv.row(t) + channels.first;
  float* out = w.conv.row(t) + channels.first;
#pragma omp simd
  for (size_t c = 0; c < channels.count; ++c) {
    out[c] = taps[0][c] * third[c] + taps[1][c] * second[c] + taps[2][c] * last[c] +
             taps[3][c] * input[c];
  }
}

// Convolution of all tokens, then SiLU.
void convolve(Model& model, const Layer& layer, const States& states, size_t tokens,
              Channels channels) {
  Workspace& w = model.work;
  const float* weights = floats(layer.ssmConv1d);
  const size_t stateAt = kConvInputs * channels.first;
  if (states.convOut != states.conv) {
    std::copy_n(states.conv + stateAt, kConvInputs * channels.count, states.convOut + stateAt);
  }
  float taps[kConvTaps][kHeadWidth];
  for (size_t i = 0; tokens > kConvInputs && i < kConvTaps * channels.count; ++i) {
    taps[i % kConvTaps][i / kConvTaps] = weights[kConvTaps * channels.first + i];
  }
  for (size_t t = 0; t < tokens; ++t) {
    if (t < kConvInputs) {
      convolveToken(w, weights, states.convOut, t, channels);
    } else {
      convolveRows(w, taps, t, channels);
    }
    float* out = w.conv.row(t) + channels.first;
    model.kernels->silu(out, out, channels.count);
  }
  for (size_t i = 0; tokens > kConvInputs && i < kConvInputs * channels.count; ++i) {
    const float* inputs = w.qkv.row(tokens - kConvInputs + i % kConvInputs);
    states.convOut[stateAt + i] = inputs[channels.first + i / kConvInputs];
  }
}

// All four projections of the normalised inputs.
void project(Model& model, Layer& layer, const float* x, size_t tokens) {
  Workspace& w = model.work;
  const size_t hidden = model.hiddenSize;
  model.team.forEach(tokens, [&](size_t t) {
    rmsNorm(x + t * hidden, floats(layer.attnNorm), w.normed.row(t), hidden, kEpsilon);
  });
  Product products[] = {{layer.attnQkv, w.normed, w.qkv, tokens},
                        {layer.attnGate, w.normed, w.gate, tokens},
                        {layer.ssmBeta, w.normed, w.beta, tokens},
                        {layer.ssmAlpha, w.normed, w.alpha, tokens}};
  runProducts(model, products);
}

// What the gates of one value head make of its projections.
struct HeadGates {
  float beta;
  float decay;  // g, the logarithm of the decay factor in a well-formed model
};

HeadGates headGates(const Model& model, const Layer& layer, size_t token, size_t h) {
  const float raw = model.work.alpha.row(token)[h] + floats(layer.ssmDt)[h];
  float step = 0;
  softplus(&raw, &step, 1);
  return {1.0f / (std::exp(-model.work.beta.row(token)[h]) + 1.0f), step * floats(layer.ssmA)[h]};
}

// Some tokens of a batch.
struct Run {
  size_t first;
  size_t count;
};

// A thread's memory for a run of one head.
struct DeltaWork {
  float columns[kDeltaScratch];
  float queries[kDeltaRun * kHeadWidth];
  float keys[kDeltaRun * kHeadWidth];
  float beta[kDeltaRun];
  float decay[kDeltaRun];
};

// Asks for one head's part of the token's row. Such parts lie pages apart, where the processor does
// not look ahead by itself.
void askForHead(const TokenRows& rows, size_t token, size_t at) {
  constexpr size_t kLineFloats = 16;
  if (token >= kMaxBatch) return;
  for (size_t i = 0; i < kHeadWidth; i += kLineFloats) __builtin_prefetch(rows.row(token) + at + i);
}

// Delta rule of one value head over the run: values become outputs, in w.heads. Key head h mod 16
// serves value head h: the key heads are tiled over the value heads.
void updateState(Model& model, const Layer& layer, Run run, size_t h, bool decays,
                 const float* state, float* stateOut, DeltaWork& work) {
  Workspace& w = model.work;
  for (size_t t = 0; t < run.count; ++t) {
    const float* channels = w.conv.row(run.first + t);
    const size_t queryAt = h % model.linearKeyHeads * kHeadWidth;
    const size_t valueAt = 2 * model.linearKeyWidth() + h * kHeadWidth;
    for (const size_t at : {queryAt, queryAt + model.linearKeyWidth(), valueAt}) {
      askForHead(w.conv, run.first + t + kAhead, at);
    }
    const float* query = channels + queryAt;
    l2NormBlocks(query, work.queries + t * kHeadWidth, 1, kHeadWidth, kEpsilon);
    l2NormBlocks(query + model.linearKeyWidth(), work.keys + t * kHeadWidth, 1, kHeadWidth,
                 kEpsilon);
    std::copy_n(channels + valueAt, kHeadWidth, w.heads.row(run.first + t) + h * kHeadWidth);
    const HeadGates gates = headGates(model, layer, run.first + t, h);
    work.beta[t] = gates.beta;
    work.decay[t] = decays ? std::exp(gates.decay) : 1.0f;
  }
  const DeltaTokens tokens = {.q = work.queries,
                              .k = work.keys,
                              .v = w.heads.row(run.first) + h * kHeadWidth,
                              .vStride = w.heads.width(),
                              .beta = work.beta,
                              .decay = work.decay,
                              .count = run.count,
                              .scratch = work.columns};
  model.kernels->deltaRule(state, stateOut, tokens, kHeadWidth,
                           1.0f / std::sqrt(static_cast<float>(kHeadWidth)));
}

// Gated norm of one value head's output for one token.
void gateHead(Model& model, const Layer& layer, size_t token, size_t h) {
  Workspace& w = model.work;
  askForHead(w.gate, token + kAhead, h * kHeadWidth);
  float* gated = w.gated.row(token) + h * kHeadWidth;
  alignas(64) float gate[kHeadWidth];
  rmsNorm(w.heads.row(token) + h * kHeadWidth, floats(layer.ssmNorm), gated, kHeadWidth, kEpsilon);
  model.kernels->silu(w.gate.row(token) + h * kHeadWidth, gate, kHeadWidth);
#pragma omp simd
  for (size_t j = 0; j < kHeadWidth; ++j) gated[j] *= gate[j];
}

// One value head over all tokens.
void mixHead(Model& model, const Layer& layer, const States& states, size_t tokens, size_t h,
             bool decays, size_t thread) {
  static_assert(sizeof(DeltaWork) <= kBatchScratch * sizeof(float));
  float* scratch = model.work.batchScratch.data() + thread * kBatchScratch;
  auto& work = *reinterpret_cast<DeltaWork*>(scratch);
  const size_t at = h * kHeadWidth * kHeadWidth;
  const float* from = states.recurrent + at;
  float* to = states.recurrentOut + at;
  for (size_t first = 0; first < tokens; first += kDeltaRun, from = to) {
    const Run run = {first, std::min(kDeltaRun, tokens - first)};
    updateState(model, layer, run, h, decays, from, to, work);
    for (size_t t = 0; t < run.count; ++t) gateHead(model, layer, first + t, h);
  }
}

// One key head and the value heads that it serves, over all tokens.
void mixHeads(Model& model, const Layer& layer, const States& states, size_t tokens, size_t keyHead,
              bool decays, size_t thread) {
  // Channels without a row in the projection see no input and stay zero.
  const size_t channels = std::min<size_t>(rowCount(*layer.attnQkv), model.convChannels());
  const auto convolveHead = [&](size_t at) {
    if (at >= channels) return;
    convolve(model, layer, states, tokens, {at, std::min(kHeadWidth, channels - at)});
  };
  convolveHead(keyHead * kHeadWidth);
  convolveHead(model.linearKeyWidth() + keyHead * kHeadWidth);
  for (size_t h = keyHead; h < model.linearValueHeads; h += model.linearKeyHeads) {
    convolveHead(2 * model.linearKeyWidth() + h * kHeadWidth);
    mixHead(model, layer, states, tokens, h, decays, thread);
  }
}

}  // namespace

void linearAttention(Model& model, Layer& layer, const float* x, float* out, size_t tokens,
                     size_t blockIndex, size_t pos, Output output) {
  const States states = statesFor(layer, model.work.isBatch);
  project(model, layer, x, tokens);
  if (rowCount(*layer.attnQkv) < model.convChannels()) model.work.conv.clearRows(tokens);
  const bool decays = std::getenv("QWEN35_NODECAY") == nullptr;
  // One head's state stays in a core's own cache over the whole batch.
  model.team.forEach(model.linearKeyHeads, [&](size_t keyHead, size_t thread) {
    mixHeads(model, layer, states, tokens, keyHead, decays, thread);
  });
  const TokenRows& gated = model.work.gated;
  Product products[] = {{layer.ssmOut, gated.data(), gated.width(), out, model.hiddenSize, tokens}};
  products[0].adds = output == Output::Add;
  runProducts(model, products);
  layer.position += tokens;
  const HeadGates head0 = headGates(model, layer, 0, 0);
  printLinearAttention(model, layer, {blockIndex, pos, head0.beta, head0.decay, out});
}

void linearAttnStep(Model& model, Layer& layer, const float* x, float* out, size_t blockIndex,
                    size_t pos) {
  linearAttention(model, layer, x, out, 1, blockIndex, pos, Output::Add);
}

void gdnStep(float* S, const float* q, const float* k, float* v, float beta, size_t d, float g,
             float scale) {
  // The vector tiers take whole registers and up to the model's own head width.
  const bool vectorSized = d % 16 == 0 && d <= kHeadWidth;
  const KernelTable& kernels = vectorSized ? selectKernels(nullptr) : kScalarKernels;
  const float decay = std::exp(g);
  const DeltaTokens token = {.q = q,
                             .k = k,
                             .v = v,
                             .vStride = 0,
                             .beta = &beta,
                             .decay = &decay,
                             .count = 1,
                             .scratch = nullptr};
  kernels.deltaRule(S, S, token, d, scale);
}

}  // namespace qwen35
