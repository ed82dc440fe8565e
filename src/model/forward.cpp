#include "model/forward.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "model/diagnostics.h"
#include "model/feed_forward.h"
#include "model/full_attention.h"
#include "model/linear_attention.h"
#include "model/numeric_kernels.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

const float* floats(const kiv::TensorView* tensor) {
  return reinterpret_cast<const float*>(tensor->data);
}

// Whether QWEN35_ABLATE switches this block's mixer off: its value names the kind that is kept.
bool isAblated(const Layer& layer) {
  const char* kept = std::getenv("QWEN35_ABLATE");
  return kept != nullptr && std::strcmp(kept, layer.isLinear ? "full" : "lin") == 0;
}

void mix(Model& model, Layer& layer, size_t index, size_t pos) {
  Workspace& w = model.work;
  w.mixed.clear();
  if (isAblated(layer)) return;
  if (layer.isLinear) {
    linearAttnStep(model, layer, w.x.data(), w.mixed.data(), index, pos);
  } else {
    fullAttnStep(model, layer, w.x.data(), w.mixed.data(), pos, index);
  }
}

void add(const ZeroedArray& a, const ZeroedArray& b, ZeroedArray& sum) {
  for (size_t i = 0; i < sum.size(); ++i) sum[i] = a[i] + b[i];
}

// All blocks from the embedding to the final norm; the result is in work.x.
void runBlocks(Model& model, const float* embedding, size_t pos, ForwardObserver& observer) {
  Workspace& w = model.work;
  std::copy_n(embedding, model.hiddenSize, w.x.data());
  for (size_t i = 0; i < model.layers.size(); ++i) {
    Layer& layer = model.layers[i];
    observer.beginBlock();
    mix(model, layer, i, pos);
    observer.mixed(layer, i);
    add(w.x, w.mixed, w.residual);
    rmsNorm(w.residual.data(), floats(layer.postAttentionNorm), w.normed.data(), model.hiddenSize,
            kEpsilon);
    observer.normed(i);
    ffnStep(model, layer, w.normed.data(), w.ffnOut.data());
    add(w.residual, w.ffnOut, w.x);
    observer.endBlock(i);
  }
  observer.finished(embedding);
  rmsNorm(w.x.data(), floats(model.outputNorm), w.x.data(), model.hiddenSize, kEpsilon);
}

}  // namespace

void forwardToken(Model& model, const float* embedding, size_t pos, float* logits) {
  TokenDiagnostics diagnostics(model, pos);
  model.team.run([&] {
    runBlocks(model, embedding, pos, diagnostics);
    std::fill_n(logits, model.vocabularySize, 0.0f);
    gemvRow(model, model.tokenEmbedding, model.work.x.data(), logits);
  });
}

void forwardTokenHidden(Model& model, const float* embedding, size_t pos, float* out) {
  HiddenTiming timing(pos);
  model.team.run([&] { runBlocks(model, embedding, pos, timing); });
  std::copy_n(model.work.x.data(), model.hiddenSize, out);
  timing.print();
}

}  // namespace qwen35
