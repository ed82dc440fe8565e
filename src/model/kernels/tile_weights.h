// Weights as the right operand of the tile unit, for the AMX tier (model/kernels/amx.cpp): sixteen
// rows of 32 columns, each weight the sum of two bf16 limbs.
//
// The unit wants pairs: lane r of line p holds inputs 2p and 2p + 1 of row r. Sixteen rows of a
// block are transposed four bytes at a time, where the codes lie. Codes that share bytes have their
// columns in one tile, so that each tile has its own bytes: which columns are its two halves, a
// type says.
//
// Included by the tier's source only. Everything is in an unnamed namespace: no function compiled
// here may be shared with another translation unit.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

constexpr size_t kSide = 16;       // tokens, rows and lines of a tile
constexpr size_t kTileCols = 32;   // columns of a tile
constexpr size_t kPanelTiles = 8;  // of sixteen rows whose scales are decoded together
constexpr size_t kQuads = 8;       // registers of four columns for sixteen rows that make a tile
constexpr size_t kPanelCols = kPanelTiles * kTileCols;

using Tile = uint32_t[kSide][kSide];  // [line][row]: pairs of bf16

struct alignas(64) WeightTile {
  Tile high;
  Tile low;
};

// Half-precision numbers as floats. No NaN has a bit below its first: rounding would carry it away.
inline __m512 widenHalves(__m256i halves) {
  const __m512 values = _mm512_cvtph_ps(halves);
  const __m512 nan = _mm512_castsi512_ps(_mm512_set1_epi32(0x7fc00000));
  return _mm512_mask_mov_ps(values, _mm512_cmp_ps_mask(values, values, _CMP_UNORD_Q), nan);
}

// Bytes of sixteen rows, in lanes.
class Rows {
 public:
  Rows(const uint8_t* first, size_t stride) : stride_(stride) {
    for (size_t i = 0; i < 4; ++i) first_[i] = first + 4 * i * stride;
  }

  // Bytes `offset` to `offset` + 15: four registers, lane r of which holds the four bytes of row r.
  void columns(size_t offset, __m512i* out) const {
    __m512i rows[4];
    for (size_t j = 0; j < 4; ++j) rows[j] = everyFourth(j, offset);
    const __m512i low01 = _mm512_unpacklo_epi32(rows[0], rows[1]);
    const __m512i low23 = _mm512_unpacklo_epi32(rows[2], rows[3]);
    const __m512i high01 = _mm512_unpackhi_epi32(rows[0], rows[1]);
    const __m512i high23 = _mm512_unpackhi_epi32(rows[2], rows[3]);
    out[0] = _mm512_unpacklo_epi64(low01, low23);
    out[1] = _mm512_unpackhi_epi64(low01, low23);
    out[2] = _mm512_unpacklo_epi64(high01, high23);
    out[3] = _mm512_unpackhi_epi64(high01, high23);
  }

  // The half-precision number at `offset` of each row.
  __m512 halves(size_t offset) const {
    alignas(32) uint16_t bits[kSide];
    for (size_t r = 0; r < kSide; ++r) __builtin_memcpy(&bits[r], row(r) + offset, 2);
    return widenHalves(_mm256_load_si256(reinterpret_cast<const __m256i*>(bits)));
  }

 private:
  const uint8_t* row(size_t r) const { return first_[r / 4] + r % 4 * stride_; }

  // Rows j, j + 4, j + 8 and j + 12, a quarter of the register each.
  __m512i everyFourth(size_t j, size_t offset) const {
    __m512i all = _mm512_castsi128_si512(quarter(j, offset));
    all = _mm512_inserti32x4(all, quarter(4 + j, offset), 1);
    all = _mm512_inserti32x4(all, quarter(8 + j, offset), 2);
    return _mm512_inserti32x4(all, quarter(12 + j, offset), 3);
  }
  __m128i quarter(size_t r, size_t offset) const {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row(r) + offset));
  }

  const uint8_t* first_[4];
  size_t stride_;
};

// What one byte of every lane is worth as a float: scale * byte + offset.
struct Affine {
  __m512 scale;
  __m512 offset;
};

inline __m512i eachByte(int value) { return _mm512_set1_epi8(static_cast<char>(value)); }

// Byte b of every lane as a float that is too large by 2^(8b).
inline __m512 byteOfLanes(__m512i lanes, size_t b) {
  return _mm512_cvtepu32_ps(
      _mm512_and_si512(lanes, _mm512_set1_epi32(static_cast<int>(0xffu << (8 * b)))));
}

// Turns every lane to the right until bit `from` of each byte is at bit `to`.
inline __m512i moveBits(__m512i lanes, size_t from, size_t to) {
  return _mm512_rorv_epi32(lanes, _mm512_set1_epi32(static_cast<int>((from - to) % 32)));
}

// Types. An object of one holds what a tile is made of. Its quad i is columns 4i to 4i + 3 of
// sixteen rows as codes, four to a lane, whose weights are those of affine(i / 4). Where the low
// limbs are all zero there is pair(line) instead, a line of high limbs as it stands in the tile.
//
//   struct Type {
//     static constexpr size_t kElements, kBytes;    // of a block in the file
//     static constexpr size_t half(size_t tile, size_t h);  // first of sixteen columns
//     struct Panel;                                 // what the tiles of sixteen rows share
//     static void open(const Rows& rows, Panel& panel);
//     Type(const Rows& rows, const Panel& panel, size_t tile);
//     __m512i quad(size_t i) const;
//     Affine affine(size_t h) const;                // of half h
//   };

// Scales and minimums of Q4_K and Q5_K, in the first sixteen bytes of a block. Tile i has half of
// two sub-blocks, whose codes are the low and the high nibbles of the same bytes.
struct SubBlocks {
  static constexpr size_t kElements = 256;

  static constexpr size_t half(size_t tile, size_t h) {
    return tile / 2 * 64 + h * 32 + tile % 2 * 16;
  }

  struct alignas(64) Panel {
    float scales[8][kSide];
    float minimums[8][kSide];  // negated
  };

  static void open(const Rows& rows, Panel& panel) {
    __m512i head[4];
    rows.columns(0, head);
    const __m512i low6 = eachByte(0x3f);
    const __m512i low4 = eachByte(0x0f);
    const __m512i scales[2] = {_mm512_and_si512(head[1], low6), join(head[1], head[3], low4)};
    const __m512i minimums[2] = {_mm512_and_si512(head[2], low6),
                                 join(head[2], _mm512_srli_epi32(head[3], 4), low4)};
    __m512 d = widenHalves(_mm512_cvtepi32_epi16(head[0]));
    __m512 dmin = widenHalves(_mm512_cvtepi32_epi16(_mm512_srli_epi32(head[0], 16)));
    dmin = _mm512_mul_ps(dmin, _mm512_set1_ps(-1.0f));
    for (size_t b = 0; b < 4; ++b) {
      for (size_t h = 0; h < 2; ++h) {
        _mm512_store_ps(panel.scales[4 * h + b], _mm512_mul_ps(byteOfLanes(scales[h], b), d));
        _mm512_store_ps(panel.minimums[4 * h + b],
                        _mm512_mul_ps(byteOfLanes(minimums[h], b), dmin));
      }
      d = _mm512_mul_ps(d, _mm512_set1_ps(1.0f / 256));
      dmin = _mm512_mul_ps(dmin, _mm512_set1_ps(1.0f / 256));
    }
  }

  SubBlocks(const Panel& panel, size_t tile) : panel_(panel), first_(tile / 2 * 2) {}

  Affine affine(size_t h) const {
    return {_mm512_load_ps(panel_.scales[first_ + h]), _mm512_load_ps(panel_.minimums[first_ + h])};
  }

 protected:
  size_t subBlock(size_t h) const { return first_ + h; }

 private:
  // The four low bits of `low` below the two highest of each byte of `high`.
  static __m512i join(__m512i high, __m512i low, __m512i low4) {
    return _mm512_ternarylogic_epi32(eachByte(0x30), _mm512_srli_epi32(high, 2),
                                     _mm512_and_si512(low, low4), 0xca);
  }

  const Panel& panel_;
  size_t first_;
};

// Quad i of sixteen bytes whose low nibbles are the first half of a tile, whose high ones the rest.
inline __m512i nibbles(const __m512i (&bytes)[4], size_t i) {
  return i < 4 ? bytes[i] : _mm512_srli_epi32(bytes[i - 4], 4);
}

struct Q4k : SubBlocks {
  static constexpr size_t kBytes = 144;

  Q4k(const Rows& rows, const Panel& panel, size_t tile) : SubBlocks(panel, tile) {
    rows.columns(16 + 16 * tile, bytes_);
  }
  __m512i quad(size_t i) const { return _mm512_and_si512(nibbles(bytes_, i), eachByte(0x0f)); }

 private:
  __m512i bytes_[4];
};

struct Q5k : SubBlocks {
  static constexpr size_t kBytes = 176;

  Q5k(const Rows& rows, const Panel& panel, size_t tile) : SubBlocks(panel, tile) {
    rows.columns(48 + 16 * tile, bytes_);
    rows.columns(16 + 16 * (tile % 2), fifths_);
  }
  __m512i quad(size_t i) const {
    const __m512i fifth = moveBits(fifths_[i % 4], subBlock(i / 4), 4);
    return _mm512_ternarylogic_epi32(eachByte(0x0f), nibbles(bytes_, i),
                                     _mm512_and_si512(fifth, eachByte(0x10)), 0xca);
  }

 private:
  __m512i bytes_[4];
  __m512i fifths_[4];  // bit s of each byte belongs to sub-block s
};

// Halves of 128 columns in quarters of 32; a tile has half of quarters j and j + 2, which are the
// low and the high nibbles of the same bytes. Sub-blocks of sixteen.
struct Q6k {
  static constexpr size_t kElements = 256;
  static constexpr size_t kBytes = 210;

  static constexpr size_t half(size_t tile, size_t h) {
    return tile / 4 * 128 + tile % 4 * 16 + 64 * h;
  }

  struct alignas(64) Panel {
    float scales[16][kSide];
  };

  static void open(const Rows& rows, Panel& panel) {
    const __m512 d = rows.halves(208);
    __m512i codes[4];
    rows.columns(192, codes);
    for (size_t i = 0; i < 16; ++i) {
      const auto up = static_cast<unsigned>(24 - 8 * (i % 4));
      const __m512i code = _mm512_srai_epi32(_mm512_slli_epi32(codes[i / 4], up), 24);
      _mm512_store_ps(panel.scales[i], _mm512_mul_ps(_mm512_cvtepi32_ps(code), d));
    }
  }

  Q6k(const Rows& rows, const Panel& panel, size_t tile) : panel_(panel), tile_(tile) {
    rows.columns(64 * (tile / 4) + 16 * (tile % 4), low_);
    rows.columns(128 + 32 * (tile / 4) + 16 * (tile % 2), high_);
  }
  __m512i quad(size_t i) const {
    const size_t quarter = tile_ % 4 / 2 + i / 4 * 2;
    const __m512i high = moveBits(high_[i % 4], 2 * quarter, 4);
    return _mm512_ternarylogic_epi32(eachByte(0x0f), nibbles(low_, i),
                                     _mm512_and_si512(high, eachByte(0x30)), 0xca);
  }
  Affine affine(size_t h) const {
    const __m512 scale = _mm512_load_ps(panel_.scales[half(tile_, h) / kSide]);
    return {scale, _mm512_mul_ps(scale, _mm512_set1_ps(-32))};
  }

 private:
  const Panel& panel_;
  size_t tile_;
  __m512i low_[4];
  __m512i high_[4];
};

// Columns in order, and tiles that share nothing.
struct InOrder {
  static constexpr size_t kElements = 32;

  static constexpr size_t half(size_t tile, size_t h) { return tile * kTileCols + h * kSide; }

  struct Panel {};
  static void open(const Rows&, Panel&) {}
};

// A block is a tile.
struct Q80 : InOrder {
  static constexpr size_t kBytes = 34;

  Q80(const Rows& rows, const Panel&, size_t tile) : scale_(rows.halves(kBytes * tile)) {
    rows.columns(kBytes * tile + 2, codes_);
    rows.columns(kBytes * tile + 18, codes_ + 4);
  }
  // Plus 128, which makes them positive.
  __m512i quad(size_t i) const { return _mm512_xor_si512(codes_[i], eachByte(0x80)); }
  Affine affine(size_t) const { return {scale_, _mm512_mul_ps(scale_, _mm512_set1_ps(-128))}; }

 private:
  __m512 scale_;
  __m512i codes_[kQuads];
};

// One limb, pair by pair as they lie.
struct Bf16 : InOrder {
  static constexpr size_t kBytes = 64;

  Bf16(const Rows& rows, const Panel&, size_t tile) {
    for (size_t c = 0; c < 4; ++c) rows.columns(kBytes * tile + 16 * c, pairs_ + 4 * c);
  }
  __m512i pair(size_t line) const { return pairs_[line]; }

 private:
  __m512i pairs_[kSide];
};

// Whether the low limbs are all zero.
template <typename Type>
constexpr bool kIsExact = false;
template <>
constexpr bool kIsExact<Bf16> = true;

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

// Makes a tile, a quarter at a time: between them the tile unit gets its orders.
template <typename Type>
class TileMaker {
 public:
  TileMaker(const Rows& rows, const typename Type::Panel& panel, size_t tile)
      : source_(rows, panel, tile) {
    for (size_t h = 0; h < 2; ++h) {
      const Affine affine = source_.affine(h);
      offsets_[h] = affine.offset;
      scales_[h][0] = affine.scale;
      for (size_t b = 1; b < 4; ++b) {
        scales_[h][b] = _mm512_mul_ps(scales_[h][b - 1], _mm512_set1_ps(1.0f / 256));
      }
    }
  }

  void quarter(size_t q, WeightTile& out) const {
    for (size_t i = q; i < kQuads; i += 4) {
      const __m512i codes = source_.quad(i);
      __m512 weights[4];
      for (size_t b = 0; b < 4; ++b) {
        weights[b] = _mm512_fmadd_ps(byteOfLanes(codes, b), scales_[i / 4][b], offsets_[i / 4]);
      }
      storePair(out, 2 * i, weights[0], weights[1]);
      storePair(out, 2 * i + 1, weights[2], weights[3]);
    }
  }

 private:
  Type source_;
  __m512 scales_[2][4];  // [half][byte]: divided by what the bytes are too large
  __m512 offsets_[2];
};

template <>
class TileMaker<Bf16> {
 public:
  TileMaker(const Rows& rows, const Bf16::Panel& panel, size_t tile) : source_(rows, panel, tile) {}

  void quarter(size_t q, WeightTile& out) const {
    for (size_t line = 4 * q; line < 4 * q + 4; ++line) {
      _mm512_store_si512(out.high[line], source_.pair(line));
    }
  }

 private:
  Bf16 source_;
};

}  // namespace
}  // namespace qwen35
