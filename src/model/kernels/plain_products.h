// Products of one token with weights of F32, BF16 and Q8_0, shared by the vector tiers. A tier
// brings one decoder for each type; the loops around it are written here once.
//
// Every row has one accumulator that takes its registers in order, so its bits depend on nothing
// but the row and the input.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Decoder {                        // of one block of weights
//     using Vector = ...;                   // see model/kernels/lane_weights.h
//     static constexpr size_t kElements;    // of a block
//     static constexpr size_t kBytes;
//     static constexpr size_t kElementBytes;  // where a row may end inside a block, which then is
//                                             // of one register
//     const uint8_t* block;
//     void decode(const Use& use) const;    // use(register number, weights), in element order
//     Float factor() const;                 // of the block's weights, if they have one
//   };
#pragma once

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/prefetch.h"

namespace qwen35 {
namespace {

// A decoder without an element size takes whole blocks only.
template <typename Decoder>
concept HasTail = requires {
  Decoder::kElementBytes;
};

// Weights with a factor that is applied to a block's sum.
template <typename Decoder>
concept HasFactor = requires(const Decoder& decoder) {
  decoder.factor();
};

template <typename Decoder>
struct PlainProducts {
  using Vector = typename Decoder::Vector;
  using Float = typename Vector::Float;

  static constexpr size_t kWidth = Vector::kWidth;

  static void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const float* x, float* y) {
    if (4 * rowBytes <= kNearBytes) {
      dotGroups<3>(rows, rowBytes, rowCount, cols, x, y);
    } else {
      dotGroups<2>(rows, rowBytes, rowCount, cols, x, y);
    }
  }

  // y[r] += row r . x for kRows rows at once, one or four. Asks for the bytes of as many rows after
  // them, into the first-level cache (kLevel 3) or the second (2).
  template <size_t kRows, int kLevel>
  static void dotRows(const uint8_t* rows, size_t rowBytes, size_t cols, const float* x, float* y) {
    Float acc[kRows];
    for (Float& a : acc) a = Vector::zero();
    const size_t blocks = cols / Decoder::kElements;
    for (size_t b = 0; b < blocks; ++b, x += Decoder::kElements) {
      const uint8_t* at = rows + b * Decoder::kBytes;
      addBlocks<kRows, kLevel>(at, rowBytes, x,
                               rows + kRows * rowBytes + b * kRows * Decoder::kBytes, acc);
    }
    if constexpr (HasTail<Decoder>) {
      const size_t left = cols % Decoder::kElements;
      for (size_t r = 0; r < kRows && left != 0; ++r) {
        const Tail weights(rows + r * rowBytes + blocks * Decoder::kBytes,
                           left * Decoder::kElementBytes);
        const Tail input(x, left * sizeof(float));
        Decoder{weights.bytes}.decode([&](size_t, Float w) {
          acc[r] = Vector::fma(w, Vector::load(input.floats()), acc[r]);
        });
      }
    }
    for (size_t r = 0; r < kRows; ++r) y[r] += Vector::total(acc[r]);
  }

 private:
  // Of the rows that are asked for: what leaves room for others in the first-level cache.
  static constexpr size_t kNearBytes = 16 * 1024;

  template <int kLevel>
  static void dotGroups(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                        const float* x, float* y) {
    size_t r = 0;
    for (; r + 4 <= rowCount; r += 4) {
      dotRows<4, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
    }
    for (; r < rowCount; ++r) dotRows<1, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
  }

  // The last elements of a row or an input, filled up with zeros to a register.
  struct Tail {
    alignas(64) uint8_t bytes[kWidth * sizeof(float)] = {};

    Tail(const void* at, size_t count) { __builtin_memcpy(bytes, at, count); }
    const float* floats() const { return reinterpret_cast<const float*>(bytes); }
  };

  [[gnu::always_inline]] static void addBlock(const Decoder& weights, const float* x, Float& acc) {
    if constexpr (HasFactor<Decoder>) {
      Float sum;
      weights.decode([&](size_t i, Float w) {
        const Float input = Vector::load(x + kWidth * i);
        sum = i == 0 ? Vector::mul(w, input) : Vector::fma(w, input, sum);
      });
      acc = Vector::fma(sum, weights.factor(), acc);
    } else {
      weights.decode(
          [&](size_t i, Float w) { acc = Vector::fma(w, Vector::load(x + kWidth * i), acc); });
    }
  }

  template <size_t kRows, int kLevel>
  [[gnu::always_inline]] static void addBlocks(const uint8_t* at, size_t rowBytes, const float* x,
                                               const uint8_t* next, Float (&acc)[kRows]) {
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      addBlock(Decoder{at + r * rowBytes}, x, acc[r]);
      prefetchPart<Vector, kLevel, kRows * Decoder::kBytes, kRows>(next, r, acc[r]);
    }
  }
};

}  // namespace
}  // namespace qwen35
