#include "model/full_attention.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "model/diagnostics.h"
#include "model/numeric_kernels.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

constexpr float kScoreScale = 0.0625f;  // 1 / sqrt(256)
constexpr double kRopeBase = 10000000.0;
constexpr size_t kRotaryPairs = 32;
constexpr size_t kMostParts = 4096;  // runs kept at a time, about 17 MB

// Sine and cosine of the 32 rotary angles of one position.
struct Rotation {
  float sine[kRotaryPairs];
  float cosine[kRotaryPairs];

  explicit Rotation(size_t pos) {
    const double step = std::pow(kRopeBase, -2.0 / (2.0 * kRotaryPairs));
    double angle = static_cast<double>(pos);
    for (size_t j = 0; j < kRotaryPairs; ++j, angle *= step) {
      sine[j] = static_cast<float>(std::sin(angle));
      cosine[j] = static_cast<float>(std::cos(angle));
    }
  }

  // Rotates the pairs (j, j + 32) of the first 64 elements.
  void apply(float* head) const {
    for (size_t j = 0; j < kRotaryPairs; ++j) {
      const float a = head[j];
      const float b = head[j + kRotaryPairs];
      head[j] = a * cosine[j] - b * sine[j];
      head[j + kRotaryPairs] = a * sine[j] + b * cosine[j];
    }
  }
};

// Adds the bias to every token's row, over the elements that both have.
void addBias(const kiv::TensorView* bias, TokenRows& rows, size_t tokens) {
  if (bias == nullptr) return;
  std::vector<float> values(std::min<size_t>(bias->dims[0], rows.width()));
  rowToF32(bias, 0, values.size(), values.data());
  for (size_t t = 0; t < tokens; ++t) {
    float* row = rows.row(t);
    for (size_t i = 0; i < values.size(); ++i) row[i] += values[i];
  }
}

// q (with gates), k and v of the normalised inputs, into the work arrays.
void project(Model& model, const Layer& layer, const float* x, size_t tokens) {
  Workspace& w = model.work;
  const size_t hidden = model.hiddenSize;
  model.team.forEach(tokens, [&](size_t t) {
    rmsNorm(x + t * hidden, floats(layer.attnNorm), w.normed.row(t), hidden, kEpsilon);
  });
  Product products[] = {{layer.attnQ, w.normed, w.qkv, tokens},
                        {layer.attnK, w.normed, w.key, tokens},
                        {layer.attnV, w.normed, w.value, tokens}};
  runProducts(model, products);
  addBias(layer.attnQBias, w.qkv, tokens);
  addBias(layer.attnKBias, w.key, tokens);
  addBias(layer.attnVBias, w.value, tokens);
}

float* cacheSlot(const Model& model, ZeroedArray& cache, size_t group, size_t position) {
  return cache.data() + (group * model.maxContext + position) * kHeadSize;
}

// Normalises and rotates one token's queries into its row of w.heads, its keys into the cache at
// `slot`, beside their values.
void placeHeads(Model& model, Layer& layer, size_t token, size_t pos, size_t slot) {
  Workspace& w = model.work;
  const Rotation rotation(pos);
  for (size_t h = 0; h < model.attentionHeads; ++h) {
    float* query = w.heads.row(token) + h * kHeadSize;
    rmsNorm(w.qkv.row(token) + h * 2 * kHeadSize, floats(layer.attnQNorm), query, kHeadSize,
            kEpsilon);
    rotation.apply(query);
  }
  for (size_t g = 0; g < model.keyValueHeads; ++g) {
    float* key = cacheSlot(model, layer.keyCache, g, slot);
    rmsNorm(w.key.row(token) + g * kHeadSize, floats(layer.attnKNorm), key, kHeadSize, kEpsilon);
    rotation.apply(key);
    std::copy_n(w.value.row(token) + g * kHeadSize, kHeadSize,
                cacheSlot(model, layer.valueCache, g, slot));
  }
}

// One head's softmax over all runs, from those of the runs: the normalised output goes to
// out[256]. Returns the maximum and the sum for the diagnostic line.
struct SoftmaxTotals {
  float maximum;
  float sum;
};

SoftmaxTotals mergeRuns(const AttentionPart* parts, size_t runs, size_t head, float* out) {
  float maximum = -1e30f;
  for (size_t r = 0; r < runs; ++r) maximum = std::max(maximum, parts[r].maximum[head]);
  float sum = 0;
  std::fill_n(out, kHeadSize, 0.0f);
  for (size_t r = 0; r < runs; ++r) {
    const float factor = std::exp(parts[r].maximum[head] - maximum);
    sum += factor * parts[r].sum[head];
    const float* weighted = parts[r].weighted[head];
    for (size_t d = 0; d < kHeadSize; ++d) out[d] += factor * weighted[d];
  }
  const float inverse = 1.0f / sum;
  for (size_t d = 0; d < kHeadSize; ++d) out[d] *= inverse;
  return {maximum, sum};
}

// The tokens of a batch that attention takes at once, and the runs of positions that they see.
struct Span {
  size_t first;  // token of the batch
  size_t count;
  size_t cached;  // positions in the cache before the batch
  size_t runs;

  // Positions that token first + t sees.
  size_t visible(size_t t) const { return cached + first + t + 1; }
};

// Softmax of every run for every token and group of the span, into w.parts. A piece is one run of
// one group: its keys and values are read once for all tokens.
void attendRuns(Model& model, Layer& layer, const Span& span) {
  Workspace& w = model.work;
  const size_t groups = model.keyValueHeads;
  w.parts.resize(std::max(w.parts.size(), span.count * groups * span.runs));
  model.team.forEach(groups * span.runs, [&](size_t piece) {
    const size_t g = piece / span.runs;
    const size_t r = piece % span.runs;
    const size_t position = r * kAttentionRun;
    for (size_t t = 0; t < span.count; ++t) {
      if (position >= span.visible(t)) continue;
      const AttentionRun run = {w.heads.row(span.first + t) + g * kGroupHeads * kHeadSize,
                                cacheSlot(model, layer.keyCache, g, position),
                                cacheSlot(model, layer.valueCache, g, position),
                                std::min(kAttentionRun, span.visible(t) - position), kScoreScale};
      model.kernels->attend(run, w.parts[(t * groups + g) * span.runs + r]);
    }
  });
}

// Joins the runs of one token, gates its heads and leaves them in w.gated.
void gateHeads(Model& model, const Span& span, size_t t, size_t pos, size_t blockIndex) {
  Workspace& w = model.work;
  const size_t runs = (span.visible(t) + kAttentionRun - 1) / kAttentionRun;
  for (size_t h = 0; h < model.attentionHeads; ++h) {
    const size_t group = t * model.keyValueHeads + h / kGroupHeads;
    float* out = w.gated.row(span.first + t) + h * kHeadSize;
    const SoftmaxTotals totals =
        mergeRuns(w.parts.data() + group * span.runs, runs, h % kGroupHeads, out);
    if (h == 0) {
      printFullAttention(blockIndex, pos, span.visible(t) - 1, totals.maximum, totals.sum);
    }
    float gate[kHeadSize];
    model.kernels->sigmoid(w.qkv.row(span.first + t) + (2 * h + 1) * kHeadSize, gate, kHeadSize);
    for (size_t d = 0; d < kHeadSize; ++d) out[d] *= gate[d];
  }
}

// Attention of all tokens, each over the cache and the batch up to itself, gated, into w.gated.
void attendAll(Model& model, Layer& layer, size_t tokens, size_t pos, size_t blockIndex) {
  const size_t runs = (layer.position + tokens + kAttentionRun - 1) / kAttentionRun;
  const size_t step = std::max<size_t>(1, kMostParts / (runs * model.keyValueHeads));
  for (size_t first = 0; first < tokens; first += step) {
    const Span span = {first, std::min(step, tokens - first), layer.position, runs};
    attendRuns(model, layer, span);
    model.team.forEach(span.count,
                       [&](size_t t) { gateHeads(model, span, t, pos + first + t, blockIndex); });
  }
}

}  // namespace

void fullAttention(Model& model, Layer& layer, const float* x, float* out, size_t tokens,
                   size_t pos, size_t blockIndex, Output output) {
  project(model, layer, x, tokens);
  model.team.forEach(tokens,
                     [&](size_t t) { placeHeads(model, layer, t, pos + t, layer.position + t); });
  attendAll(model, layer, tokens, pos, blockIndex);
  layer.position += tokens;
  const TokenRows& gated = model.work.gated;
  Product products[] = {
      {layer.attnOutput, gated.data(), gated.width(), out, model.hiddenSize, tokens}};
  products[0].adds = output == Output::Add;
  runProducts(model, products);
}

void fullAttnStep(Model& model, Layer& layer, const float* x, float* out, size_t pos,
                  size_t blockIndex) {
  if (layer.position >= model.maxContext) return;
  fullAttention(model, layer, x, out, 1, pos, blockIndex, Output::Add);
}

}  // namespace qwen35
