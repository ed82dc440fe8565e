// Products of a batch, shared by the vector tiers, whatever the type of the weights.
//
// A panel of some rows and 256 columns is decoded into the nearest cache. A tile of it, two
// registers of rows, and of a few tokens has its sums in registers: each input is broadcast to
// them. Every (row, token) pair takes the columns in their order, a panel's sum by itself, so that
// its bits do not depend on the other rows and tokens.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/lane_weights.h"

namespace qwen35 {
namespace {

constexpr size_t kTileRegisters = 2;

// Inputs of up to kTokenGroup tokens as [column][token], zeros for those that are missing.
template <typename Vector>
void arrangeGroup(const float* x, size_t xStride, size_t tokens, size_t cols, float* out) {
  using Inputs = F32Rows<Vector>;  // tokens in lanes, as rows are
  typename Inputs::Panel panel;
  FilledPanel<Inputs> filled;
  for (size_t t = 0; t < kTokenGroup; t += Vector::kWidth) {
    const size_t count = t < tokens ? tokens - t : 0;
    for (size_t first = 0; first < cols; first += kPanelCols) {
      const auto* at = reinterpret_cast<const uint8_t*>(x + t * xStride + first);
      const auto rows = rowsOfPanel(at, xStride * sizeof(float), count, cols - first, filled);
      decodePanel<Inputs>(rows, cols - first, panel, out + first * kTokenGroup + t, kTokenGroup);
    }
  }
}

// Adds the first `count` lanes to floats in memory, or to zeros.
template <typename Vector>
inline void addLanes(float* y, size_t count, typename Vector::Float sums, bool adds) {
  if (count >= Vector::kWidth) {
    return Vector::store(y, Vector::add(adds ? Vector::load(y) : Vector::zero(), sums));
  }
  float lanes[Vector::kWidth];
  Vector::store(lanes, sums);
  for (size_t i = 0; i < count; ++i) y[i] = (adds ? y[i] : 0) + lanes[i];
}

// A panel's decoded weights, [column][row], times inputs, [column][token].
template <typename Vector>
struct PanelProduct {
  using Float = typename Vector::Float;
  static constexpr size_t kRows = kTileRegisters * Vector::kWidth;

  const float* weights;
  size_t cols;
  size_t rows;  // that count
  size_t yStride;
  bool adds;

  // For at most kTokens tokens, which are those of a tile.
  template <size_t kTokens = Vector::kTileTokens>
  void addTile(size_t tokens, const float* x, float* y) const {
    if constexpr (kTokens > 1) {
      if (tokens < kTokens) return addTile<kTokens - 1>(tokens, x, y);
    }
    Float sums[kTokens][kTileRegisters];
    sum(x, sums);
    for (size_t t = 0; t < kTokens; ++t, y += yStride) {
      addLanes<Vector>(y, rows, sums[t][0], adds);
      if (rows > Vector::kWidth)
        addLanes<Vector>(y + Vector::kWidth, rows - Vector::kWidth, sums[t][1], adds);
    }
  }

 private:
  template <size_t kTokens>
  [[gnu::always_inline]] void sum(const float* x, Float (&sums)[kTokens][kTileRegisters]) const {
#pragma GCC unroll 8
    for (size_t t = 0; t < kTokens; ++t) {
      sums[t][0] = Vector::zero();
      sums[t][1] = Vector::zero();
    }
    const float* w = weights;
    for (size_t c = 0; c < cols; ++c, w += kRows, x += kTokenGroup) {
      Float first = Vector::load(w);
      Float second = Vector::load(w + Vector::kWidth);
      Vector::keep(first);
      Vector::keep(second);
#pragma GCC unroll 8
      for (size_t t = 0; t < kTokens; ++t) {
        Float input = Vector::each(x[t]);
        Vector::keep(input);
        sums[t][0] = Vector::fma(first, input, sums[t][0]);
        sums[t][1] = Vector::fma(second, input, sums[t][1]);
      }
    }
  }
};

template <typename Type>
class BatchedProduct {
 public:
  static void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const Batch& batch) {
    for (size_t r = 0; r < rowCount; r += kRowsAtOnce) {
      const size_t count = rowCount - r < kRowsAtOnce ? rowCount - r : kRowsAtOnce;
      addRows(rows + r * rowBytes, rowBytes, count, cols, batch, batch.y + r);
    }
  }

 private:
  using Vector = typename Type::Vector;
  static constexpr size_t kRows = PanelProduct<Vector>::kRows;

  struct Work {
    alignas(64) float weights[kPanelCols][kRows];
    typename Type::Panel panel;
    FilledPanel<Type> filled;
  };

  // They share a panel of the inputs while it is in a near cache.
  static constexpr size_t kRowsAtOnce = 128;

  static void addRows(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                      const Batch& batch, float* y) {
    static_assert(sizeof(Work) <= kBatchScratch * sizeof(float));
    auto& work = *reinterpret_cast<Work*>(batch.scratch);
    const uint8_t* after = rows + rowCount * rowBytes;
    for (size_t first = 0; first < cols; first += kPanelCols, rows += panelBytes<Type>()) {
      const size_t left = cols - first;
      const float* x = batch.x + first * kTokenGroup;
      for (size_t r = 0; r < rowCount; r += kRows) {
        decode(rows + r * rowBytes, rowBytes, rowCount - r, left, work);
        const uint8_t* next = r + kRows < rowCount ? rows + (r + kRows) * rowBytes
                              : left > kPanelCols  ? rows + panelBytes<Type>()
                                                   : after;
        const PanelProduct<Vector> panel = {.weights = work.weights[0],
                                            .cols = left < kPanelCols ? left : kPanelCols,
                                            .rows = rowCount - r,
                                            .yStride = batch.yStride,
                                            .adds = batch.adds || first != 0};
        addTokens(panel, batch, x, y + r, next, rowBytes);
      }
    }
  }

  static void decode(const uint8_t* at, size_t rowBytes, size_t rowCount, size_t cols, Work& work) {
    for (size_t r = 0; r < kRows; r += Vector::kWidth) {
      const size_t count = r < rowCount ? rowCount - r : 0;
      const auto rows = rowsOfPanel(at + r * rowBytes, rowBytes, count, cols, work.filled);
      decodePanel<Type>(rows, cols, work.panel, work.weights[0] + r, kRows);
    }
  }

  // The next panel is asked for meanwhile, some rows with each tile: more requests at a time
  // than a core can have under way would hold it up.
  static void addTokens(const PanelProduct<Vector>& panel, const Batch& batch, const float* x,
                        float* y, const uint8_t* next, size_t rowBytes) {
    size_t asked = 0;
    for (size_t t = 0; t < batch.tokens; t += kTokenGroup, x += kTokenGroup * batch.xStride) {
      const size_t group = batch.tokens - t < kTokenGroup ? batch.tokens - t : kTokenGroup;
      for (size_t i = 0; i < group; i += Vector::kTileTokens) {
        const size_t done = t + i + Vector::kTileTokens;
        for (; asked < kRows && asked * batch.tokens < done * kRows; ++asked) {
          prefetch<3>(next + asked * rowBytes, panelBytes<Type>());
        }
        panel.addTile(group - i, x + i, y + (t + i) * batch.yStride);
      }
    }
  }
};

}  // namespace
}  // namespace qwen35
