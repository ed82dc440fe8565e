// Weights as the right operand of the tile unit, for the AMX tier (model/kernels/amx.cpp): sixteen
// rows of one panel of columns, their codes in bf16, which holds these small integers exactly.
//
// The unit wants pairs: lane r of line p holds inputs 2p and 2p + 1 of row r. Sixteen rows of a
// block are transposed four bytes at a time, where the codes lie; a table turns a code into its
// bf16. So the codes come out in an order of their own, in which the inputs are arranged as well.
//
// Included by the tier's source only. Everything is in an unnamed namespace: no function compiled
// here may be shared with another translation unit.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

constexpr size_t kSide = 16;    // tokens, rows and lines of a tile
constexpr size_t kPanel = 256;  // elements of a row that are decoded at a time

using Tile = uint32_t[kSide][kSide];  // [line][row]: pairs of bf16

// Sixteen rows of a panel as the tile unit takes them.
template <size_t kTiles>
struct alignas(64) Panel {
  Tile tiles[kTiles];
  float scales[kTiles][kSide];  // [tile][row]
  float minimums[8][kSide];     // [sub-block][row]
};

// The same sixteen or fewer bytes of sixteen rows, in lanes.
class Rows {
 public:
  Rows(const uint8_t* first, size_t stride) : stride_(stride) {
    for (size_t i = 0; i < 4; ++i) first_[i] = first + 4 * i * stride;
  }
  void advance(size_t bytes) {
    for (const uint8_t*& at : first_) at += bytes;
  }
  const uint8_t* row(size_t r) const { return first_[r / 4] + r % 4 * stride_; }

  // Bytes `offset` to `offset` + 15: four registers, lane r of which holds the four bytes of row r.
  void columns(size_t offset, __m512i (&out)[4]) const {
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
    return _mm512_cvtph_ps(_mm256_load_si256(reinterpret_cast<const __m256i*>(bits)));
  }

 private:
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

// The first 32 values of a code, as bf16.
template <int kFirst>
inline __m512i bf16Table() {
  alignas(64) static constexpr struct Table {
    uint16_t bits[32] = {};
    constexpr Table() {
      for (int i = 0; i < 32; ++i) {
        bits[i] = static_cast<uint16_t>(
            __builtin_bit_cast(uint32_t, static_cast<float>(kFirst + i)) >> 16);
      }
    }
  } kTable;
  return _mm512_load_si512(&kTable);
}

inline void store(uint32_t (&line)[kSide], __m512i pairs) { _mm512_store_si512(line, pairs); }
inline void store(float (&line)[kSide], __m512 values) { _mm512_store_ps(line, values); }

// Byte b of every lane, zero or positive, as a float that is too large by 2^(8b).
inline __m512 byteOfLanes(__m512i lanes, size_t b) {
  return _mm512_cvtepi32_ps(
      _mm512_and_si512(lanes, _mm512_set1_epi32(static_cast<int>(0xffu << (8 * b)))));
}

// The order of inputs within a tile, four at a time: the bytes of a lane in 16-bit halves give the
// pair of even places, then the pair of odd ones.
constexpr size_t pairedPlace(size_t i) { return i / 4 * 4 + (i % 4 % 2 * 2 + i % 4 / 2); }
constexpr size_t plainPlace(size_t i) { return i; }

// Types. Each turns sixteen rows of a panel into tiles.
//
//   struct Type {
//     static constexpr size_t kElements, kBytes;  // of a block
//     static constexpr size_t kTiles;         // of a panel
//     static constexpr size_t kTilesPerSum;   // that share their scale
//     static constexpr bool kJoined;          // both limbs of 16 inputs in a tile, instead of 32
//     static constexpr bool kScaled, kHasMinimums;
//     static constexpr size_t place(size_t);  // which input of a tile comes at a place
//     static void decode(Rows rows, size_t tiles, Panel<kTiles>& out);
//   };

// Scales and minimums of Q4_K and Q5_K, in the first sixteen bytes of a block.
struct SubBlocks {
  static constexpr size_t kElements = 256;
  static constexpr size_t kTiles = 8;
  static constexpr size_t kTilesPerSum = 1;
  static constexpr bool kJoined = false;
  static constexpr bool kScaled = true;
  static constexpr bool kHasMinimums = true;
  static constexpr size_t place(size_t i) { return pairedPlace(i); }

  static void decodeScales(const Rows& rows, Panel<kTiles>& out) {
    __m512i head[4];
    rows.columns(0, head);
    const __m512i low6 = _mm512_set1_epi32(0x3f3f3f3f);
    const __m512i low4 = _mm512_set1_epi32(0x0f0f0f0f);
    const __m512i high2 = _mm512_set1_epi32(0x30303030);
    const __m512i scales[2] = {_mm512_and_si512(head[1], low6),
                               join(high2, _mm512_srli_epi32(head[1], 2), head[3], low4)};
    const __m512i minimums[2] = {
        _mm512_and_si512(head[2], low6),
        join(high2, _mm512_srli_epi32(head[2], 2), _mm512_srli_epi32(head[3], 4), low4)};
    __m512 d = _mm512_cvtph_ps(_mm512_cvtepi32_epi16(head[0]));
    __m512 dmin = _mm512_cvtph_ps(_mm512_cvtepi32_epi16(_mm512_srli_epi32(head[0], 16)));
    for (size_t b = 0; b < 4; ++b) {
      for (size_t h = 0; h < 2; ++h) {
        store(out.scales[4 * h + b], _mm512_mul_ps(byteOfLanes(scales[h], b), d));
        store(out.minimums[4 * h + b], _mm512_mul_ps(byteOfLanes(minimums[h], b), dmin));
      }
      d = _mm512_mul_ps(d, _mm512_set1_ps(1.0f / 256));
      dmin = _mm512_mul_ps(dmin, _mm512_set1_ps(1.0f / 256));
    }
  }

 private:
  // Bits of `a` where `mask` is set, else those of `b` in `rest`.
  static __m512i join(__m512i mask, __m512i a, __m512i b, __m512i rest) {
    return _mm512_ternarylogic_epi32(mask, a, _mm512_and_si512(b, rest), 0xca);
  }
};

struct Q4k : SubBlocks {
  static constexpr size_t kBytes = 144;

  static void decode(const Rows& rows, size_t, Panel<kTiles>& out) {
    decodeScales(rows, out);
    // The table takes five bits: it repeats, so that the fifth does not count.
    const __m512i table = _mm512_shuffle_i64x2(bf16Table<0>(), bf16Table<0>(), 0x44);
    for (size_t c = 0; c < 8; ++c) {  // sixteen bytes: half of two sub-blocks
      __m512i bytes[4];
      rows.columns(16 + 16 * c, bytes);
      for (size_t q = 0; q < 4; ++q) {
        const size_t line = 8 * (c % 2) + 2 * q;
        auto& low = out.tiles[c / 2 * 2];
        auto& high = out.tiles[c / 2 * 2 + 1];
        store(low[line], _mm512_permutexvar_epi16(bytes[q], table));
        store(high[line], _mm512_permutexvar_epi16(_mm512_srli_epi16(bytes[q], 4), table));
        store(low[line + 1], _mm512_permutexvar_epi16(_mm512_srli_epi16(bytes[q], 8), table));
        store(high[line + 1], _mm512_permutexvar_epi16(_mm512_srli_epi16(bytes[q], 12), table));
      }
    }
  }
};

struct Q5k : SubBlocks {
  static constexpr size_t kBytes = 176;

  static void decode(const Rows& rows, size_t, Panel<kTiles>& out) {
    decodeScales(rows, out);
    for (size_t v = 0; v < 2; ++v) {
      __m512i fifths[4];
      rows.columns(16 + 16 * v, fifths);
      for (size_t c = 0; c < 4; ++c) decodeChunk(rows, c, v, fifths, out);
    }
  }

 private:
  // Half v of the 32 bytes that sub-blocks 2c and 2c + 1 share; bit s of a byte of `fifths` belongs
  // to sub-block s.
  static void decodeChunk(const Rows& rows, size_t c, size_t v, const __m512i (&fifths)[4],
                          Panel<kTiles>& out) {
    const __m512i table = bf16Table<0>();
    __m512i bytes[4];
    rows.columns(48 + 32 * c + 16 * v, bytes);
    for (size_t q = 0; q < 4; ++q) {
      for (size_t half = 0; half < 2; ++half) {    // byte of a 16-bit lane
        for (size_t high = 0; high < 2; ++high) {  // nibble
          const auto down = static_cast<unsigned>(8 * half + 4 * high);
          const auto bit = static_cast<unsigned>(8 * half + 2 * c + high);
          const __m512i nibbles = _mm512_srli_epi16(bytes[q], down);
          const __m512i fifth = bit < 4 ? _mm512_slli_epi16(fifths[q], 4 - bit)
                                        : _mm512_srli_epi16(fifths[q], bit - 4);
          const __m512i codes =
              _mm512_ternarylogic_epi32(_mm512_set1_epi16(0x0f), nibbles, fifth, 0xca);
          store(out.tiles[2 * c + high][8 * v + 2 * q + half],
                _mm512_permutexvar_epi16(codes, table));
        }
      }
    }
  }
};

// Sub-blocks of sixteen: a tile holds their codes twice, for both limbs.
struct Q6k {
  static constexpr size_t kElements = 256;
  static constexpr size_t kBytes = 210;
  static constexpr size_t kTiles = 16;
  static constexpr size_t kTilesPerSum = 1;
  static constexpr bool kJoined = true;
  static constexpr bool kScaled = true;
  static constexpr bool kHasMinimums = false;
  static constexpr size_t place(size_t i) { return pairedPlace(i); }

  static void decode(const Rows& rows, size_t, Panel<kTiles>& out) {
    decodeScales(rows, out);
    for (size_t h = 0; h < 2; ++h) {
      for (size_t v = 0; v < 2; ++v) {
        __m512i high[4];
        __m512i first[4];
        __m512i second[4];
        rows.columns(128 + 32 * h + 16 * v, high);
        rows.columns(64 * h + 16 * v, first);
        rows.columns(64 * h + 32 + 16 * v, second);
        for (size_t q = 0; q < 4; ++q) {
          const __m512i nibbles[2] = {first[q], second[q]};
          for (size_t quarter = 0; quarter < 4; ++quarter) {
            // Bits 2 * quarter and the next of the high bytes go with this quarter of the half.
            auto& tile = out.tiles[8 * h + 2 * quarter + v];
            decodeQuarter(nibbles[quarter % 2], high[q], quarter, q, tile);
          }
        }
      }
    }
  }

 private:
  static void decodeScales(const Rows& rows, Panel<kTiles>& out) {
    __m512 d = rows.halves(208);
    __m512i codes[4];
    rows.columns(192, codes);
    for (size_t q = 0; q < 4; ++q) {
      for (size_t b = 0; b < 4; ++b) {
        const __m512i code =
            _mm512_srai_epi32(_mm512_slli_epi32(codes[q], static_cast<unsigned>(24 - 8 * b)), 24);
        store(out.scales[4 * q + b], _mm512_mul_ps(_mm512_cvtepi32_ps(code), d));
      }
    }
  }

  static void decodeQuarter(__m512i nibbles, __m512i high, size_t quarter, size_t q, Tile& tile) {
    for (size_t half = 0; half < 2; ++half) {  // byte of a 16-bit lane
      const auto down = static_cast<unsigned>(8 * half + quarter / 2 * 4);
      const auto bit = static_cast<unsigned>(8 * half + 2 * quarter);
      const __m512i low4 = _mm512_srli_epi16(nibbles, down);
      const __m512i high2 =
          bit < 4 ? _mm512_slli_epi16(high, 4 - bit) : _mm512_srli_epi16(high, bit - 4);
      const __m512i codes = _mm512_ternarylogic_epi32(_mm512_set1_epi16(0x0f), low4, high2, 0xca);
      const __m512i pairs = _mm512_permutex2var_epi16(bf16Table<-32>(), codes, bf16Table<0>());
      store(tile[2 * q + half], pairs);
      store(tile[8 + 2 * q + half], pairs);
    }
  }
};

struct Q80 {
  static constexpr size_t kElements = 32;
  static constexpr size_t kBytes = 34;
  static constexpr size_t kTiles = 8;
  static constexpr size_t kTilesPerSum = 1;
  static constexpr bool kJoined = false;
  static constexpr bool kScaled = true;
  static constexpr bool kHasMinimums = false;
  static constexpr size_t place(size_t i) { return pairedPlace(i); }

  static void decode(Rows rows, size_t tiles, Panel<kTiles>& out) {
    for (size_t i = 0; i < tiles; ++i, rows.advance(kBytes)) {
      // The codes below come out too large by 2^24.
      store(out.scales[i], _mm512_mul_ps(rows.halves(0), _mm512_set1_ps(1.0f / (1 << 24))));
      for (size_t v = 0; v < 2; ++v) {
        __m512i bytes[4];
        rows.columns(2 + 16 * v, bytes);
        for (size_t q = 0; q < 4; ++q) {
          store(out.tiles[i][8 * v + 2 * q], pair(topByte(_mm512_slli_epi32(bytes[q], 24)),
                                                  topByte(_mm512_slli_epi32(bytes[q], 8))));
          store(out.tiles[i][8 * v + 2 * q + 1],
                pair(topByte(_mm512_slli_epi32(bytes[q], 16)), topByte(bytes[q])));
        }
      }
    }
  }

 private:
  static __m512i topByte(__m512i lanes) {
    const __m512i top = _mm512_and_si512(lanes, _mm512_set1_epi32(static_cast<int>(0xff000000)));
    return _mm512_castps_si512(_mm512_cvtepi32_ps(top));
  }
  // Floats of eight significant bits each to their upper halves.
  static __m512i pair(__m512i first, __m512i second) {
    const __m512i upper = _mm512_set1_epi32(static_cast<int>(0xffff0000));
    return _mm512_ternarylogic_epi32(upper, second, _mm512_srli_epi32(first, 16), 0xca);
  }
};

struct Bf16 {
  static constexpr size_t kElements = 32;
  static constexpr size_t kBytes = 64;
  static constexpr size_t kTiles = 8;
  static constexpr size_t kTilesPerSum = 8;
  static constexpr bool kJoined = false;
  static constexpr bool kScaled = false;
  static constexpr bool kHasMinimums = false;
  static constexpr size_t place(size_t i) { return plainPlace(i); }

  static void decode(Rows rows, size_t tiles, Panel<kTiles>& out) {
    for (size_t i = 0; i < tiles; ++i, rows.advance(kBytes)) {
      for (size_t c = 0; c < 4; ++c) {
        __m512i pairs[4];
        rows.columns(16 * c, pairs);
        for (size_t q = 0; q < 4; ++q) store(out.tiles[i][4 * c + q], pairs[q]);
      }
    }
  }
};

}  // namespace
}  // namespace qwen35
