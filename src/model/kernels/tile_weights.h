// Weights as the right operand of the tile unit, for the AMX tier (model/kernels/amx.cpp): tiles of
// sixteen rows and 32 columns in bf16.
//
// The unit wants pairs: lane r of line p holds two inputs of row r, those that are at 2p and 2p + 1
// in a line of inputs.
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

struct alignas(64) Tile {
  uint32_t lines[kSide][kSide];  // [line][row]: pairs of bf16
};

// The upper halves of `even` and of `odd` as pairs.
inline __m512i upperHalves(__m512i even, __m512i odd) {
  const __m512i upper = _mm512_set1_epi32(static_cast<int>(0xffff0000));
  return _mm512_ternarylogic_epi32(upper, odd, _mm512_srli_epi32(even, 16), 0xca);
}

// Rounded to the sixteen bits of its upper half.
inline __m512i roundUpper(__m512 value) {
  return _mm512_add_epi32(_mm512_castps_si512(value), _mm512_set1_epi32(0x8000));
}

// A number without its high limb, which is the upper half of `rounded`.
inline __m512 rest(__m512 value, __m512i rounded) {
  const __m512i upper = _mm512_set1_epi32(static_cast<int>(0xffff0000));
  return _mm512_sub_ps(value, _mm512_castsi512_ps(_mm512_and_si512(rounded, upper)));
}

inline void storeLine(Tile& out, size_t line, __m512i pairs) {
  _mm512_store_si512(out.lines[line], pairs);
}

// Weights that are bf16 as they come.
struct PlainTiles : Bf16Rows<Vector> {
  static constexpr size_t kLimbs = 1;

  struct Panel {
    Tile tiles[kPanelTiles][kLimbs];
  };

  static void make(const RowBytes<Vector>& rows, size_t tiles, Panel& out) {
    for (size_t i = 0; i < tiles; ++i) {
      const Bf16Rows<Vector> weights(rows, {}, i);
      for (size_t line = 0; line < kSide; ++line) {
        storeLine(out.tiles[i][0], line, weights.pair(line));
      }
    }
  }
};

// Weights as sums of two limbs, sixteen bits and more.
template <typename Type>
struct SplitTiles : Type {
  static constexpr size_t kLimbs = 2;

  struct Panel {
    Tile tiles[kPanelTiles][kLimbs];
    typename Type::Panel shared;
  };

  static void make(const RowBytes<Vector>& rows, size_t tiles, Panel& out) {
    Type::open(rows, out.shared);
    for (size_t i = 0; i < tiles; ++i) {
      const Type weights(rows, out.shared, i);
      for (size_t q = 0; q < kQuads; ++q) {
        __m512 quad[4];
        weights.quad(q, quad);
        storePairs(out.tiles[i], 2 * q, quad[0], quad[1]);
        storePairs(out.tiles[i], 2 * q + 1, quad[2], quad[3]);
      }
    }
  }

 private:
  static void storePairs(Tile (&out)[kLimbs], size_t line, __m512 even, __m512 odd) {
    const __m512i evenHigh = roundUpper(even);
    const __m512i oddHigh = roundUpper(odd);
    storeLine(out[0], line, upperHalves(evenHigh, oddHigh));
    storeLine(out[1], line,
              upperHalves(roundUpper(rest(even, evenHigh)), roundUpper(rest(odd, oddHigh))));
  }
};

}  // namespace
}  // namespace qwen35
