#include "model/feed_forward.h"

#include <algorithm>

#include "model/weight_rows.h"

namespace qwen35 {

void feedForward(Model& model, Layer& layer, const float* x, float* out, size_t tokens) {
  Workspace& w = model.work;
  const size_t n = rowCount(*layer.ffnGate);
  const size_t hidden = model.hiddenSize;
  Product products[] = {{layer.ffnGate, x, hidden, w.ffnGate.data(), w.ffnGate.width(), tokens},
                        {layer.ffnUp, x, hidden, w.ffnUp.data(), w.ffnUp.width(), tokens}};
  prepare(model, products);
  const Product& gate = products[0];
  const Product& up = products[1];
  // A piece computes the same rows of both and their product while they are at hand.
  const size_t step = rowsPerPiece(n, gate.rowBytes + up.rowBytes, model.work.isBatch);
  model.team.forEach((n + step - 1) / step, [&](size_t piece, size_t thread) {
    const size_t first = piece * step;
    const size_t last = std::min(first + step, n);
    multiplyRows(model, gate, first, last, thread);
    multiplyRows(model, up, first, std::min(last, up.rows), thread);
    for (size_t t = 0; t < tokens; ++t) {
      float* g = w.ffnGate.row(t);
      const float* u = w.ffnUp.row(t);
      model.kernels->silu(g + first, g + first, last - first);
      for (size_t i = first; i < last; ++i) g[i] *= u[i];
    }
  });
  Product down[] = {{layer.ffnDown, w.ffnGate.data(), w.ffnGate.width(), out, hidden, tokens}};
  runProducts(model, down, [](size_t, size_t, size_t) {});
}

void ffnStep(Model& model, Layer& layer, const float* x, float* out) {
  feedForward(model, layer, x, out, 1);
}

}  // namespace qwen35
