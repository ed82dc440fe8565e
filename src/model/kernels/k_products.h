// Products of one token with K-quant weights, shared by the vector tiers. A tier brings one struct
// for each type that says how a block of 256 weights comes apart; the loops around it are written
// here once.
//
// The codes stay where they lie in the block's bytes: a mask and a conversion turn sixteen (eight)
// of them into floats, each too large by a power of two that is known beforehand. So the input is
// brought into the codes' order once for all rows, every element divided by its power of two, which
// is exact. Elements of sub-blocks that lie in the same lanes form a group:
//
//   row . x = sum over blocks of  sum over groups of  scales . (codes . x)  -  minimums . sums
//
// where the sums are those of each sub-block's inputs.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Block {
//     using Vector = ...;                    // see model/kernels/lane_weights.h
//     static constexpr size_t kBytes;        // of a block in the file
//     static constexpr size_t kGroups;       // groups of equal numbers of registers
//     static constexpr size_t kMinimums;      // sub-blocks with a minimum, in element order
//     static constexpr size_t kFirstMinimum;  // lane of the first of them
//     static constexpr size_t kRowsAtOnce;   // long rows that fit the register file
//     static constexpr Place place(size_t j, size_t lane);  // which input register j multiplies
//     explicit Block(const uint8_t* bytes);  // where there are no minimums, else
//     Block(const uint8_t* bytes, __m128i codes);  // with the sub-blocks' (subBlockCodes)
//     Float codes(size_t j) const;           // j < kRegisters, group by group
//     Float scale(size_t group) const;
//     Float minimums(size_t i) const;        // i < kOffsets; registers of them
//   };
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/prefetch.h"

namespace qwen35 {
namespace {

// The sixteen 6-bit codes of each of two Q4_K or Q5_K blocks: bytes 0-7 scales, 8-15 minimums.
inline __m256i subBlockCodes(const uint8_t* first, const uint8_t* second) {
  const __m256i heads = _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(first))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(second)), 1);
  // Six bits of four codes as they lie, or four of four others; above these, what is left of six.
  const __m256i low =
      _mm256_shuffle_epi8(heads, _mm256_broadcastsi128_si256(_mm_setr_epi8(
                                     4, 5, 6, 7, 12, 13, 14, 15, 8, 9, 10, 11, 12, 13, 14, 15)));
  const __m256i high =
      _mm256_shuffle_epi8(heads, _mm256_broadcastsi128_si256(_mm_setr_epi8(
                                     -1, -1, -1, -1, 4, 5, 6, 7, -1, -1, -1, -1, 8, 9, 10, 11)));
  const __m256i lowShift = _mm256_setr_epi32(0, 0, 0, 4, 0, 0, 0, 4);
  const __m256i lowMask = _mm256_set1_epi64x(0x0f0f0f0f3f3f3f3f);
  return _mm256_or_si256(_mm256_and_si256(_mm256_srlv_epi32(low, lowShift), lowMask),
                         _mm256_and_si256(_mm256_srli_epi32(high, 2), _mm256_set1_epi8(0x30)));
}

// The two halves d and dmin at the start of a Q4_K or Q5_K block, in lanes 0 and 1.
inline __m128 superScales(const uint8_t* block) {
  int halves;
  __builtin_memcpy(&halves, block, sizeof halves);
  return _mm_cvtph_ps(_mm_cvtsi32_si128(halves));
}

// The input at `element` of a block, divided by 2^shift.
struct Place {
  size_t element;
  size_t shift;
};

// The blocks of two rows.
template <typename Block>
struct Pair {
  Block block[2];

  Pair(const uint8_t* first, const uint8_t* second) requires(Block::kMinimums == 0)
      : block{Block(first), Block(second)} {}
  Pair(const uint8_t* first, const uint8_t* second) requires(Block::kMinimums != 0)
      : Pair(first, second, subBlockCodes(first, second)) {}

 private:
  Pair(const uint8_t* first, const uint8_t* second, __m256i codes)
      : block{Block(first, _mm256_castsi256_si128(codes)),
              Block(second, _mm256_extracti128_si256(codes, 1))} {}
};

template <typename Block>
struct KProducts {
  using Vector = typename Block::Vector;
  using Float = typename Vector::Float;

  static constexpr size_t kWidth = Vector::kWidth;
  static constexpr size_t kElements = 256;
  static constexpr size_t kSums = 16;  // behind the elements
  static constexpr size_t kRegisters = kElements / kWidth;
  static constexpr size_t kPerGroup = kRegisters / Block::kGroups;
  static constexpr size_t kOffsets =
      Block::kMinimums == 0 ? 0 : (Block::kFirstMinimum + Block::kMinimums) / kWidth;

  static void arrange(const float* x, size_t cols, float* out) {
    static constexpr Order kOrder;
    for (; cols >= kElements; cols -= kElements, x += kElements, out += kArrangedBlock) {
      for (size_t i = 0; i < kElements; ++i) out[i] = x[kOrder.element[i]] * kOrder.factor[i];
      sumParts(x, out + kElements);
    }
  }

  static void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const float* x, float* y) {
    constexpr size_t kFew = 2;
    if (kFew * rowBytes <= kNearBytes) {
      dotGroups<kFew, Rows::Short>(rows, rowBytes, rowCount, cols, x, y);
    } else {
      dotGroups<Block::kRowsAtOnce, Rows::Long>(rows, rowBytes, rowCount, cols, x, y);
    }
  }

 private:
  struct Order {
    uint8_t element[kElements] = {};
    float factor[kElements] = {};

    constexpr Order() {
      for (size_t i = 0; i < kElements; ++i) {
        const Place place = Block::place(i / kWidth, i % kWidth);
        element[i] = static_cast<uint8_t>(place.element);
        factor[i] = 1.0f / static_cast<float>(uint32_t{1} << place.shift);
      }
    }
  };

  // Minus the sums of the inputs of each sub-block, in the lanes of its minimum.
  static void sumParts(const float* x, float* out) {
    for (size_t s = 0; s < kSums; ++s) out[s] = 0;
    if constexpr (Block::kMinimums != 0) {
      constexpr size_t kPart = kElements / Block::kMinimums;
      for (size_t s = 0; s < Block::kMinimums; ++s) {
        float sum = 0;
        for (size_t i = 0; i < kPart; ++i) sum += x[s * kPart + i];
        out[Block::kFirstMinimum + s] = -sum;
      }
    }
  }

  // The bytes of the next group of rows are asked for in address order, while the rows of a group
  // are read in turns: a plain ascending stream, which the hardware's own prefetcher follows. A
  // group of short rows goes to the first-level cache; long rows would drive each other and x out
  // of it and go to the second.
  enum class Rows { Short, Long };
  static constexpr size_t kNearBytes = 5120;

  template <size_t kRows, Rows kLength>
  static void dotGroups(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                        const float* x, float* y) {
    size_t r = 0;
    for (; r + kRows <= rowCount; r += kRows) {
      dotRows<kRows, kLength>(rows + r * rowBytes, rowBytes, cols, x, y + r);
    }
    for (; r < rowCount; ++r) {
      dotRows<1, kLength>(rows + r * rowBytes, rowBytes, cols, x, y + r);
    }
  }

  // y[r] += row r . x for kRows rows that share every load of x.
  template <size_t kRows, Rows kLength>
  static void dotRows(const uint8_t* rows, size_t rowBytes, size_t cols, const float* x, float* y) {
    Float acc[kRows];
    for (Float& a : acc) a = Vector::zero();
    const uint8_t* next = rows + kRows * rowBytes;
    for (; cols >= kElements; cols -= kElements, x += kArrangedBlock, rows += Block::kBytes) {
      addBlocks<kRows, kLength>(rows, rowBytes, x, next, acc);
      next += kRows * Block::kBytes;
    }
    for (size_t r = 0; r < kRows; ++r) y[r] += Vector::total(acc[r]);
  }

  template <size_t kRows, Rows kLength>
  [[gnu::always_inline]] static void addBlocks(const uint8_t* rows, size_t rowBytes, const float* x,
                                               const uint8_t* next, Float (&acc)[kRows]) {
    if constexpr (kRows == 1) {
      addBlocks<1, kLength>({Pair<Block>(rows, rows)}, x, next, acc);
    } else if constexpr (kRows == 2) {
      addBlocks<2, kLength>({Pair<Block>(rows, rows + rowBytes)}, x, next, acc);
    } else {
      static_assert(kRows == 4);
      addBlocks<4, kLength>({Pair<Block>(rows, rows + rowBytes),
                             Pair<Block>(rows + 2 * rowBytes, rows + 3 * rowBytes)},
                            x, next, acc);
    }
  }

  template <size_t kRows, Rows kLength>
  [[gnu::always_inline]] static void addBlocks(const Pair<Block> (&pairs)[(kRows + 1) / 2],
                                               const float* x, const uint8_t* next,
                                               Float (&acc)[kRows]) {
    constexpr int kLevel = kLength == Rows::Short ? 3 : 2;
    if constexpr (kOffsets != 0) {
#pragma GCC unroll 2
      for (size_t i = 0; i < kOffsets; ++i) {
        const Float sums = Vector::load(x + kElements + i * kWidth);
#pragma GCC unroll 4
        for (size_t r = 0; r < kRows; ++r) {
          acc[r] = Vector::fma(pairs[r / 2].block[r % 2].minimums(i), sums, acc[r]);
        }
      }
    }
#pragma GCC unroll 8
    for (size_t g = 0; g < Block::kGroups; ++g) {
      Float sum[kRows];
#pragma GCC unroll 8
      for (size_t i = 0; i < kPerGroup; ++i) {
        const size_t j = g * kPerGroup + i;
        Float input = Vector::load(x + j * kWidth);
        Vector::keep(input);
#pragma GCC unroll 4
        for (size_t r = 0; r < kRows; ++r) {
          const Float codes = pairs[r / 2].block[r % 2].codes(j);
          sum[r] = i == 0 ? Vector::mul(codes, input) : Vector::fma(codes, input, sum[r]);
        }
        prefetchPart<Vector, kLevel, kRows * Block::kBytes, kRegisters>(next, j, sum[0]);
      }
#pragma GCC unroll 4
      for (size_t r = 0; r < kRows; ++r) {
        acc[r] = Vector::fma(sum[r], pairs[r / 2].block[r % 2].scale(g), acc[r]);
      }
    }
  }
};

}  // namespace
}  // namespace qwen35
