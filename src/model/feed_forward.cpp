#include "model/feed_forward.h"

#include <algorithm>

#include "model/weight_rows.h"

namespace qwen35 {

void ffnStep(Model& model, Layer& layer, const float* x, float* out) {
  Workspace& w = model.work;
  const size_t n = rowCount(*layer.ffnGate);
  w.ffnGate.clear(0, n);
  w.ffnUp.clear(0, n);
  Product gate = {layer.ffnGate, x, w.ffnGate.data()};
  Product up = {layer.ffnUp, x, w.ffnUp.data()};
  prepare(model, gate);
  prepare(model, up);
  // A piece computes the same rows of both and their product while they are at hand.
  const size_t step = rowsPerPiece(gate.rowBytes + up.rowBytes);
  model.team.forEach((n + step - 1) / step, [&](size_t piece) {
    const size_t first = piece * step;
    const size_t last = std::min(first + step, n);
    addRows(gate, first, last);
    addRows(up, first, std::min(last, up.rows));
    model.kernels->silu(gate.y + first, gate.y + first, last - first);
    for (size_t i = first; i < last; ++i) gate.y[i] *= up.y[i];
  });
  std::fill_n(out, model.hiddenSize, 0.0f);
  gemvRow(model, layer.ffnDown, w.ffnGate.data(), out);
}

}  // namespace qwen35
