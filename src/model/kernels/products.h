// What the vector tiers' products share, whatever the type of the weights: the way of a batch
// through the rows, the columns and the caches.
//
// kBatchRows rows are decoded a chunk of columns at a time, and a tile of a few rows and tokens has
// its sums in registers. Every (row, token) pair has one accumulator, which takes the columns in
// their order, so that its bits do not depend on the other rows and tokens.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Vector {                         // registers of a tier
//     using Float = ...;
//     static constexpr size_t kWidth;       // floats of one register
//     static constexpr size_t kTileRows;    // with kTileTokens, what the register file holds
//     static Float zero(), load(at), loadAligned(at), mul(a, b), fma(a, b, c);
//     static void store(float* at, Float v);
//     static void keep(Float& v);           // in its register
//     static float total(Float v);          // sum of the lanes
//     static void addTotals(const float* acc, float* y);  // those of eight registers, same bits
//   };
//
//   struct Weights {                        // of a type
//     using Vector = ...;
//     static constexpr size_t kDecodedLines;  // at most, in a chunk: registers of every row
//     static constexpr size_t inputAt(size_t column);
//     static size_t byteAt(size_t column);  // where its block begins in a row
//     static void decode(const uint8_t* blocks, size_t count,
//                        float* out);       // as [line][row][lane], one of the rows
//     // Tile of the decoded weights times inputs, into accumulators [token][row][lane].
//     template <size_t kTokens>
//     static void multiplyTile(const float* weights, const float* x, size_t xStride, size_t count,
//                              float* acc);
//   };
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

// Asks for bytes, into the first-level cache (kLevel 3) or the second (2).
template <int kLevel>
inline void prefetch(const uint8_t* at, size_t bytes) {
  for (size_t i = 0; i < bytes; i += 64) __builtin_prefetch(at + i, 0, kLevel);
}

constexpr size_t kTileTokens = 3;  // of a tile

// The sums of a tile: a line of weights for every row times inputs of every token.
template <typename Vector, size_t kTokens>
struct Tile {
  using Float = typename Vector::Float;
  static constexpr size_t kRows = Vector::kTileRows;

  Float sums[kTokens][kRows];

  // Asks for what the tile of the next tokens will read: the inputs come from the second-level
  // cache, in runs too short for the hardware to see them coming.
  [[gnu::always_inline]] static void prefetchNext(const float* x, size_t xStride) {
#pragma GCC unroll 8
    for (size_t t = kTokens; t < 2 * kTokens; ++t) __builtin_prefetch(x + t * xStride);
  }

  // Adds the products with one register of inputs of every token.
  [[gnu::always_inline]] void add(const float* weights, const float* x, size_t xStride) {
    Float inputs[kTokens];
#pragma GCC unroll 8
    for (size_t t = 0; t < kTokens; ++t) inputs[t] = Vector::load(x + t * xStride);
#pragma GCC unroll 8
    for (size_t r = 0; r < kRows; ++r) {
      Float w = Vector::loadAligned(weights + r * Vector::kWidth);
      Vector::keep(w);
#pragma GCC unroll 8
      for (size_t t = 0; t < kTokens; ++t) sums[t][r] = Vector::fma(w, inputs[t], sums[t][r]);
    }
  }

  // From and to accumulators [token][row][lane].
  [[gnu::always_inline]] void load(const float* acc) {
#pragma GCC unroll 8
    for (size_t t = 0; t < kTokens; ++t) {
#pragma GCC unroll 8
      for (size_t r = 0; r < kRows; ++r) sums[t][r] = Vector::loadAligned(acc + offset(t, r));
    }
  }
  [[gnu::always_inline]] void store(float* acc) const {
#pragma GCC unroll 8
    for (size_t t = 0; t < kTokens; ++t) {
#pragma GCC unroll 8
      for (size_t r = 0; r < kRows; ++r) Vector::store(acc + offset(t, r), sums[t][r]);
    }
  }

 private:
  static constexpr size_t offset(size_t token, size_t row) {
    return (token * kBatchRows + row) * Vector::kWidth;
  }
};

template <typename Weights>
class BatchedProduct {
 public:
  static void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const Batch& batch) {
    for (size_t r = 0; r < rowCount; r += kRowsAtOnce) {
      const size_t count = rowCount - r < kRowsAtOnce ? rowCount - r : kRowsAtOnce;
      multiplyRows(rows + r * rowBytes, rowBytes, count, cols, batch, batch.y + r);
    }
  }

 private:
  using Vector = typename Weights::Vector;

  // They share a chunk of the inputs while it is in a near cache. More would drive their own
  // accumulators out of it.
  static constexpr size_t kRowsAtOnce = 8 * kBatchRows;
  static_assert(kBatchRows == 8);  // of Vector::addTotals
  static constexpr size_t kLine = kBatchRows * Vector::kWidth;
  static_assert(Weights::kDecodedLines * kLine + kRowsAtOnce * kMaxBatch * Vector::kWidth <=
                kBatchScratch);

  static void multiplyRows(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                           const Batch& batch, float* y) {
    float* weights = batch.scratch;
    float* acc = weights + Weights::kDecodedLines * kLine;
    __builtin_memset(acc, 0, kRowsAtOnce * batch.tokens * Vector::kWidth * sizeof(float));
    for (size_t first = 0; first < cols; first += kBatchCols) {
      const size_t count = cols - first < kBatchCols ? cols - first : kBatchCols;
      const size_t next =
          first + kBatchCols < cols ? Weights::byteAt(first + kBatchCols) : kRowsAtOnce * rowBytes;
      for (size_t r = 0; r < rowCount; r += kBatchRows) {
        for (size_t i = r; i < r + kBatchRows && i < rowCount; ++i) {
          const uint8_t* row = rows + i * rowBytes;
          prefetch<2>(row + next, Weights::byteAt(kBatchCols));
          Weights::decode(row + Weights::byteAt(first), count, weights + (i - r) * Vector::kWidth);
        }
        multiplyTokens(weights, count, batch.x + Weights::inputAt(first), batch,
                       acc + r * batch.tokens * Vector::kWidth);
      }
    }
    for (size_t r = 0; r < rowCount; r += kBatchRows) {
      for (size_t t = 0; t < batch.tokens; ++t, acc += kLine) {
        addTotals(acc, rowCount - r, y + t * batch.yStride + r);
      }
    }
  }

  // Of kBatchRows rows or the last few, whose number is not theirs: what was decoded of no row
  // counts for nothing.
  static void addTotals(const float* acc, size_t rowCount, float* y) {
    if (rowCount >= kBatchRows) return Vector::addTotals(acc, y);
    float sums[kBatchRows] = {};
    Vector::addTotals(acc, sums);
    for (size_t r = 0; r < rowCount; ++r) y[r] += sums[r];
  }

  static void multiplyTokens(const float* weights, size_t count, const float* x, const Batch& batch,
                             float* acc) {
    size_t t = 0;
    for (; t + kTileTokens <= batch.tokens; t += kTileTokens) {
      multiplyTiles<kTileTokens>(weights, count, x + t * batch.xStride, batch.xStride,
                                 acc + t * kLine);
    }
    for (; t < batch.tokens; ++t) {
      multiplyTiles<1>(weights, count, x + t * batch.xStride, batch.xStride, acc + t * kLine);
    }
  }

  template <size_t kTokens>
  static void multiplyTiles(const float* weights, size_t count, const float* x, size_t xStride,
                            float* acc) {
    for (size_t r = 0; r < kLine; r += Vector::kTileRows * Vector::kWidth) {
      Weights::template multiplyTile<kTokens>(weights + r, x, xStride, count, acc + r);
    }
  }
};

}  // namespace
}  // namespace qwen35
