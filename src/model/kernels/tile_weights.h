// Weights as the right operand of the tile unit, for the AMX tier (model/kernels/amx.cpp): sixteen
// rows of 32 columns, each weight the sum of two bf16 limbs.
//
// The unit wants pairs: lane r of line p holds inputs 2p and 2p + 1 of row r.
//
// Included by the tier's source only. Everything is in an unnamed namespace: no function compiled
// here may be shared with another translation unit.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/lane_weights.h"
#include "model/kernels/vector_avx512.h"

namespace qwen35 {
namespace {

constexpr size_t kSide = 16;  // tokens, rows and lines of a tile

using Tile = uint32_t[kSide][kSide];  // [line][row]: pairs of bf16

struct alignas(64) WeightTile {
  Tile high;
  Tile low;
};

// Whether the low limbs are all zero.
template <typename Type>
constexpr bool kIsExact = false;
template <>
constexpr bool kIsExact<Bf16Rows<Vector>> = true;

// The upper halves of `even` and of `odd` as pairs.
inline __m512i upperHalves(__m512i even, __m512i odd) {
  const __m512i upper = _mm512_set1_epi32(static_cast<int>(0xffff0000));
  return _mm512_ternarylogic_epi32(upper, odd, _mm512_srli_epi32(even, 16), 0xca);
}

// Rounded to the sixteen bits of its upper half.
inline __m512i roundUpper(__m512 value) {
  return _mm512_add_epi32(_mm512_castps_si512(value), _mm512_set1_epi32(0x8000));
}

// A weight without its high limb, which is the upper half of `rounded`.
inline __m512 rest(__m512 value, __m512i rounded) {
  const __m512i upper = _mm512_set1_epi32(static_cast<int>(0xffff0000));
  return _mm512_sub_ps(value, _mm512_castsi512_ps(_mm512_and_si512(rounded, upper)));
}

inline void storePair(WeightTile& out, size_t line, __m512 even, __m512 odd) {
  const __m512i evenHigh = roundUpper(even);
  const __m512i oddHigh = roundUpper(odd);
  _mm512_store_si512(out.high[line], upperHalves(evenHigh, oddHigh));
  _mm512_store_si512(out.low[line],
                     upperHalves(roundUpper(rest(even, evenHigh)), roundUpper(rest(odd, oddHigh))));
}

// Makes a quarter of a tile: between them the tile unit gets its orders.
template <typename Type>
[[gnu::always_inline]] inline void makeQuarter(const Type& weights, size_t q, WeightTile& out) {
  if constexpr (kIsExact<Type>) {
    for (size_t line = 4 * q; line < 4 * q + 4; ++line) {
      _mm512_store_si512(out.high[line], weights.pair(line));
    }
  } else {
    for (size_t i = q; i < kQuads; i += 4) {
      __m512 quad[4];
      weights.quad(i, quad);
      storePair(out, 2 * i, quad[0], quad[1]);
      storePair(out, 2 * i + 1, quad[2], quad[3]);
    }
  }
}

}  // namespace
}  // namespace qwen35
