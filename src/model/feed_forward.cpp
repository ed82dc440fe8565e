#include "model/feed_forward.h"

#include <algorithm>

#include "model/weight_rows.h"

namespace qwen35 {

namespace {

// g = silu(g) * u for elements first..last - 1 of every token.
void gate(Model& model, size_t tokens, size_t first, size_t last) {
  for (size_t t = 0; t < tokens; ++t) {
    float* g = model.work.ffnGate.row(t);
    const float* u = model.work.ffnUp.row(t);
    model.kernels->silu(g + first, g + first, last - first);
    for (size_t i = first; i < last; ++i) g[i] *= u[i];
  }
}

// Both products of a batch, gated: a piece computes the same rows of both while they are at hand.
void multiplyBatch(Model& model, Product (&products)[2]) {
  prepare(model, products);
  const Product& gates = products[0];
  const Product& ups = products[1];
  const size_t step = rowsPerPiece(gates.rows, gates.rowBytes + ups.rowBytes, true);
  model.team.forEach((gates.rows + step - 1) / step, [&](size_t piece, size_t thread) {
    const size_t first = piece * step;
    const size_t last = std::min(first + step, gates.rows);
    multiplyRows(model, gates, first, last, thread);
    multiplyRows(model, ups, first, std::min(last, ups.rows), thread);
    gate(model, gates.tokens, first, last);
  });
}

}  // namespace

void feedForward(Model& model, Layer& layer, const float* x, float* out, size_t tokens) {
  Workspace& w = model.work;
  const size_t hidden = model.hiddenSize;
  Product products[] = {{layer.ffnGate, x, hidden, w.ffnGate.data(), w.ffnGate.width(), tokens},
                        {layer.ffnUp, x, hidden, w.ffnUp.data(), w.ffnUp.width(), tokens}};
  if (model.work.isBatch) {
    multiplyBatch(model, products);
  } else {
    // One token is read from memory, fastest in the order in which it lies there.
    runProducts(model, products);
    gate(model, 1, 0, products[0].rows);
  }
  Product down[] = {{layer.ffnDown, w.ffnGate.data(), w.ffnGate.width(), out, hidden, tokens}};
  runProducts(model, down);
}

void ffnStep(Model& model, Layer& layer, const float* x, float* out) {
  feedForward(model, layer, x, out, 1);
}

}  // namespace qwen35
