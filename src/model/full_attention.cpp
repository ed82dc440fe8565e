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

const float* floats(const kiv::TensorView* tensor) {
  return reinterpret_cast<const float*>(tensor->data);
}

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

// y += bias, over the elements that both have.
void addBias(const kiv::TensorView* bias, ZeroedArray& y) {
  if (bias == nullptr) return;
  std::vector<float> values(std::min<size_t>(bias->dims[0], y.size()));
  rowToF32(bias, 0, values.size(), values.data());
  for (size_t i = 0; i < values.size(); ++i) y[i] += values[i];
}

// q (with gates), k and v of the normalised input, into the work arrays.
void project(Model& model, const Layer& layer, const float* x) {
  Workspace& w = model.work;
  rmsNorm(x, floats(layer.attnNorm), w.normed.data(), model.hiddenSize, kEpsilon);
  w.qkv.clear();
  w.key.clear();
  w.value.clear();
  Product products[] = {{layer.attnQ, w.normed.data(), w.qkv.data()},
                        {layer.attnK, w.normed.data(), w.key.data()},
                        {layer.attnV, w.normed.data(), w.value.data()}};
  runProducts(model, products, [](size_t, size_t, size_t) {});
  addBias(layer.attnQBias, w.qkv);
  addBias(layer.attnKBias, w.key);
  addBias(layer.attnVBias, w.value);
}

float* cacheSlot(const Model& model, ZeroedArray& cache, size_t group, size_t position) {
  return cache.data() + (group * model.maxContext + position) * kHeadSize;
}

// Normalises and rotates queries into `queries` [head][256] and the new keys into the cache, beside
// their values.
void placeHeads(Model& model, Layer& layer, size_t pos, float* queries) {
  Workspace& w = model.work;
  const Rotation rotation(pos);
  for (size_t h = 0; h < model.attentionHeads; ++h) {
    float* query = queries + h * kHeadSize;
    rmsNorm(w.qkv.data() + h * 2 * kHeadSize, floats(layer.attnQNorm), query, kHeadSize, kEpsilon);
    rotation.apply(query);
  }
  for (size_t g = 0; g < model.keyValueHeads; ++g) {
    float* key = cacheSlot(model, layer.keyCache, g, layer.position);
    rmsNorm(w.key.data() + g * kHeadSize, floats(layer.attnKNorm), key, kHeadSize, kEpsilon);
    rotation.apply(key);
    std::copy_n(w.value.data() + g * kHeadSize, kHeadSize,
                cacheSlot(model, layer.valueCache, g, layer.position));
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

// Attention of all heads over positions 0..layer.position, gated, into w.gated.
void attendAll(Model& model, Layer& layer, size_t pos, size_t blockIndex, const float* queries) {
  Workspace& w = model.work;
  const size_t tokens = layer.position + 1;
  const size_t runs = (tokens + kAttentionRun - 1) / kAttentionRun;
  w.parts.resize(std::max(w.parts.size(), runs * model.keyValueHeads));
  model.team.forEach(runs * model.keyValueHeads, [&](size_t piece) {
    const size_t g = piece / runs;
    const size_t first = piece % runs * kAttentionRun;
    const AttentionRun run = {queries + g * kGroupHeads * kHeadSize,
                              cacheSlot(model, layer.keyCache, g, first),
                              cacheSlot(model, layer.valueCache, g, first),
                              std::min(kAttentionRun, tokens - first), kScoreScale};
    model.kernels->attend(run, w.parts[piece]);
  });
  for (size_t h = 0; h < model.attentionHeads; ++h) {
    const AttentionPart* parts = w.parts.data() + h / kGroupHeads * runs;
    float* out = w.gated.data() + h * kHeadSize;
    const SoftmaxTotals totals = mergeRuns(parts, runs, h % kGroupHeads, out);
    if (h == 0) printFullAttention(blockIndex, pos, layer.position, totals.maximum, totals.sum);
    float gate[kHeadSize];
    model.kernels->sigmoid(w.qkv.data() + h * 2 * kHeadSize + kHeadSize, gate, kHeadSize);
    for (size_t d = 0; d < kHeadSize; ++d) out[d] *= gate[d];
  }
}

}  // namespace

void fullAttnStep(Model& model, Layer& layer, const float* x, float* out, size_t pos,
                  size_t blockIndex) {
  if (layer.position >= model.maxContext) return;
  Workspace& w = model.work;
  project(model, layer, x);
  placeHeads(model, layer, pos, w.heads.data());
  attendAll(model, layer, pos, blockIndex, w.heads.data());
  layer.position += 1;
  gemvRow(model, layer.attnOutput, w.gated.data(), out);
}

}  // namespace qwen35
