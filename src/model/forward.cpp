#include "model/forward.h"

#include <algorithm>
#include <cmath>
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

// Whether QWEN35_ABLATE switches this block's mixer off: its value names the kind that is kept.
bool isAblated(const Layer& layer) {
  const char* kept = std::getenv("QWEN35_ABLATE");
  return kept != nullptr && std::strcmp(kept, layer.isLinear ? "full" : "lin") == 0;
}

void mix(Model& model, Layer& layer, size_t tokens, size_t index, size_t pos) {
  Workspace& w = model.work;
  if (isAblated(layer)) return w.mixed.clearRows(tokens);
  if (layer.isLinear) {
    linearAttention(model, layer, w.x.data(), w.mixed.data(), tokens, index, pos, Output::Set);
  } else {
    fullAttention(model, layer, w.x.data(), w.mixed.data(), tokens, pos, index, Output::Set);
  }
}

void add(const float* a, const float* b, float* sum, size_t n) {
  for (size_t i = 0; i < n; ++i) sum[i] = a[i] + b[i];
}

enum class Pass { OneToken, Batch };

// All blocks over the embeddings in work.x, up to the final norm; the results are in work.x.
void runBlocks(Model& model, Pass pass, size_t tokens, size_t pos, ForwardObserver& observer) {
  Workspace& w = model.work;
  w.isBatch = pass == Pass::Batch;
  const size_t hidden = model.hiddenSize;
  // The diagnostics tell of every block.
  const bool observed = diagnosticsRequested();
  for (size_t i = 0; i < model.layers.size(); ++i) {
    Layer& layer = model.layers[i];
    if (layer.isIdentity && !observed) {
      layer.position += tokens;
      continue;
    }
    observer.beginBlock();
    mix(model, layer, tokens, i, pos);
    observer.mixed(layer, i);
    model.team.forEach(tokens, [&](size_t t) {
      add(w.x.row(t), w.mixed.row(t), w.residual.row(t), hidden);
      rmsNorm(w.residual.row(t), floats(layer.postAttentionNorm), w.normed.row(t), hidden,
              kEpsilon);
    });
    observer.normed(i);
    feedForward(model, layer, w.normed.data(), w.ffnOut.data(), tokens);
    model.team.forEach(
        tokens, [&](size_t t) { add(w.residual.row(t), w.ffnOut.row(t), w.x.row(t), hidden); });
    observer.endBlock(i);
  }
  w.isBatch = false;
  observer.finished();
  model.team.forEach(tokens, [&](size_t t) {
    rmsNorm(w.x.row(t), floats(model.outputNorm), w.x.row(t), hidden, kEpsilon);
  });
}

void projectLogits(Model& model, const float* hidden, float* logits) {
  std::fill_n(logits, model.vocabularySize, 0.0f);
  gemvRow(model, model.tokenEmbedding, hidden, logits);
}

bool allFinite(const float* values, size_t n) {
  return std::all_of(values, values + n, [](float value) { return std::isfinite(value); });
}

// Makes the states after the batch those of the model.
void acceptBatch(Model& model) {
  for (Layer& layer : model.layers) {
    if (!layer.isLinear) continue;
    layer.recurrentState.swap(layer.nextRecurrent);
    layer.convState.swap(layer.nextConv);
  }
}

// Leaves the model as it was before the batch.
void forgetBatch(Model& model, size_t count) {
  for (Layer& layer : model.layers) {
    layer.position -= count;
    if (!layer.isLinear) clearCaches(model, layer, layer.position, count);
  }
}

}  // namespace

void forwardToken(Model& model, const float* embedding, size_t pos, float* logits) {
  TokenDiagnostics diagnostics(model, embedding, pos);
  std::copy_n(embedding, model.hiddenSize, model.work.x.data());
  model.team.run([&] {
    runBlocks(model, Pass::OneToken, 1, pos, diagnostics);
    projectLogits(model, model.work.x.data(), logits);
  });
}

void forwardTokenHidden(Model& model, const float* embedding, size_t pos, float* out) {
  HiddenTiming timing(pos);
  std::copy_n(embedding, model.hiddenSize, model.work.x.data());
  model.team.run([&] { runBlocks(model, Pass::OneToken, 1, pos, timing); });
  std::copy_n(model.work.x.data(), model.hiddenSize, out);
  timing.print();
}

bool forwardBatch(Model& model, const int32_t* tokens, size_t count, size_t pos, float* logits) {
  Workspace& w = model.work;
  for (size_t t = 0; t < count; ++t) {
    embedRow(model, static_cast<size_t>(tokens[t]), w.x.row(t));
  }
  const size_t checked = logits != nullptr ? count - 1 : count;
  bool finite = false;
  model.team.run([&] {
    ForwardObserver silent;
    runBlocks(model, Pass::Batch, count, pos, silent);
    finite = allFinite(w.x.data(), checked * model.hiddenSize);
    if (!finite || logits == nullptr) return;
    projectLogits(model, w.x.row(count - 1), logits);
    finite = logitsAreFinite(logits, model.vocabularySize);
  });
  if (finite) {
    acceptBatch(model);
  } else {
    forgetBatch(model, count);
  }
  return finite;
}

bool canBatch(const Model& model) { return !hasHook(model) && !diagnosticsRequested(); }

bool logitsAreFinite(const float* logits, size_t count) {
  constexpr size_t kStride = 4096;
  for (size_t i = 0; i < count; i += kStride) {
    if (!std::isfinite(logits[i])) return false;
  }
  return true;
}

}  // namespace qwen35
