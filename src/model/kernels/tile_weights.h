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

// Codes of sub-blocks of 32, a tile each, whose scales are for the sums of a tile. The columns of a
// line are those of its inputs with the middle two of every four exchanged: bytes 0 and 2 of a lane
// are a pair, and so are bytes 1 and 3.
struct CodePanel {
  Tile codes[kPanelTiles];
  float scales[kPanelTiles][kSide];  // [tile][row]
};

// The numbers from 0 to 31 in bf16, which has all their bits.
alignas(64) constexpr uint16_t kNumbers[32] = {
    0x0000, 0x3f80, 0x4000, 0x4040, 0x4080, 0x40a0, 0x40c0, 0x40e0, 0x4100, 0x4110, 0x4120,
    0x4130, 0x4140, 0x4150, 0x4160, 0x4170, 0x4180, 0x4188, 0x4190, 0x4198, 0x41a0, 0x41a8,
    0x41b0, 0x41b8, 0x41c0, 0x41c8, 0x41d0, 0x41d8, 0x41e0, 0x41e8, 0x41f0, 0x41f8};

// A table of codes of five bits, and one of four, which takes no notice of the fifth.
inline __m512i fiveBits() { return _mm512_load_si512(kNumbers); }
inline __m512i fourBits() {
  return _mm512_broadcast_i64x4(_mm256_load_si256(reinterpret_cast<const __m256i*>(kNumbers)));
}

// Lines 2i and 2i + 1 of a tile, from four codes in each lane.
inline void storeCodes(Tile& out, size_t i, __m512i codes, __m512i table) {
  storeLine(out, 2 * i, _mm512_permutexvar_epi16(codes, table));
  storeLine(out, 2 * i + 1, _mm512_permutexvar_epi16(_mm512_srli_epi32(codes, 8), table));
}

// Q4_K and Q5_K, of which a panel is a block. A minimum is for the sum of a sub-block's inputs:
// `minimums` is a tile more, whose lines 2s and 2s + 1 both have the two limbs of sub-block s.
struct SubBlockPanel : CodePanel {
  Tile minimums;
};

inline void openSubBlocks(const RowBytes<Vector>& rows, SubBlockPanel& out) {
  SubBlockCodes<Vector>::Panel head;
  SubBlockCodes<Vector>::open(rows, head);
  for (size_t s = 0; s < kPanelTiles; ++s) {
    _mm512_store_ps(out.scales[s], _mm512_load_ps(head.scales[s]));
    const __m512 minimum = _mm512_load_ps(head.minimums[s]);
    const __m512i high = roundUpper(minimum);
    const __m512i limbs = upperHalves(high, roundUpper(rest(minimum, high)));
    storeLine(out.minimums, 2 * s, limbs);
    storeLine(out.minimums, 2 * s + 1, limbs);
  }
}

struct Q4kTiles {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 256;
  static constexpr size_t kBytes = 144;
  using Panel = SubBlockPanel;

  static void make(const RowBytes<Vector>& rows, size_t, Panel& out) {
    openSubBlocks(rows, out);
    const __m512i table = fourBits();
    for (size_t s = 0; s < kPanelTiles; s += 2) {
      __m512i bytes[kQuads];
      rows.columns(16 + 16 * s, bytes);
      rows.columns(32 + 16 * s, bytes + 4);
      for (size_t i = 0; i < kQuads; ++i) {
        storeCodes(out.codes[s], i, bytes[i], table);
        storeCodes(out.codes[s + 1], i, _mm512_srli_epi32(bytes[i], 4), table);
      }
    }
  }
};

struct Q5kTiles {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 256;
  static constexpr size_t kBytes = 176;
  using Panel = SubBlockPanel;

  static void make(const RowBytes<Vector>& rows, size_t, Panel& out) {
    openSubBlocks(rows, out);
    const __m512i table = fiveBits();
    __m512i fifths[kQuads];  // bit s of each byte belongs to sub-block s
    rows.columns(16, fifths);
    rows.columns(32, fifths + 4);
    for (size_t s = 0; s < kPanelTiles; s += 2) {
      __m512i bytes[kQuads];
      rows.columns(48 + 16 * s, bytes);
      rows.columns(64 + 16 * s, bytes + 4);
      for (size_t i = 0; i < kQuads; ++i) {
        storeCodes(out.codes[s], i, join(bytes[i], fifths[i], s), table);
        storeCodes(out.codes[s + 1], i, join(_mm512_srli_epi32(bytes[i], 4), fifths[i], s + 1),
                   table);
      }
    }
  }

 private:
  static __m512i join(__m512i low, __m512i fifths, size_t s) {
    return Vector::join(low, 0x0f, Vector::moveBits(fifths, s, 4), 0x10);
  }
};

struct Q80Tiles {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = kTileCols;
  static constexpr size_t kBytes = 34;
  using Panel = CodePanel;

  static void make(const RowBytes<Vector>& rows, size_t tiles, Panel& out) {
    for (size_t i = 0; i < tiles; ++i) {
      _mm512_store_ps(out.scales[i], rows.halves(kBytes * i));
      __m512i codes[kQuads];
      rows.columns(kBytes * i + 2, codes);
      rows.columns(kBytes * i + 18, codes + 4);
      for (size_t q = 0; q < kQuads; ++q) {
        storeLine(out.codes[i], 2 * q, upperHalves(code(codes[q], 0), code(codes[q], 2)));
        storeLine(out.codes[i], 2 * q + 1, upperHalves(code(codes[q], 1), code(codes[q], 3)));
      }
    }
  }

 private:
  // Byte b, signed, in bf16, which has all its bits, in the upper half of each lane.
  static __m512i code(__m512i lanes, unsigned b) {
    const __m512i value = _mm512_srai_epi32(_mm512_slli_epi32(lanes, 24 - 8 * b), 24);
    return _mm512_castps_si512(_mm512_cvtepi32_ps(value));
  }
};

}  // namespace
}  // namespace qwen35
