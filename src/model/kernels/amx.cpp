// AMX tier (Linux): products of Q8_0, BF16 and the K-quants on the tile unit, for one token and for
// batches alike; the rest of the table is the AVX-512 tier's.
//
// A tile instruction adds the products of 16 tokens x 32 inputs and 32 inputs x 16 rows to 16 x 16
// sums. It takes bf16, eight significant bits. The codes of a block are small integers, which bf16
// holds exactly; an input is the sum of two bf16 limbs, sixteen bits and more. So each tile of
// codes is multiplied with two tiles of limbs into the same sums, whose scales are applied outside:
//
//   row . x = sum over sub-blocks of  scale * (codes . high + codes . low)  -  minimum * sum of x
//
// The unit wants its right operand as pairs: lane r of line p holds inputs 2p and 2p + 1 of row r.
// Sixteen rows of a block are transposed four bytes at a time, where the codes lie; a table turns a
// code into its bf16. Inputs are arranged in the order in which the codes come out.
//
// Every (row, token) pair takes the same operations in the same order whatever the number of rows
// and tokens is, so that products of one token and of a batch have the same bits.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kSide = 16;         // tokens, rows and lines of a tile
constexpr size_t kPanel = 256;       // elements of a row that are decoded at a time
constexpr size_t kPanelsAtOnce = 2;  // of sixteen rows: they share every tile of inputs

// Tile registers. GCC's intrinsics take literals only, and do not say what they read.

// Both operands of a product of full tiles, and of one with the tokens that are left.
template <int kFirst>
struct Tiles {
  static constexpr int kSums = kFirst;  // and the next
  static constexpr int kInputs = kFirst + 2;
};
using FullTiles = Tiles<0>;
using RestTiles = Tiles<3>;
constexpr int kWeights = 6;  // and the next

template <int kTile>
inline void zeroTile() {
  __asm__ volatile("tilezero %%tmm%c0" ::"i"(kTile));
}
template <int kTile>
inline void loadTile(const void* at, size_t stride) {
  __asm__ volatile("tileloadd (%1,%2), %%tmm%c0" ::"i"(kTile), "r"(at), "r"(stride) : "memory");
}
template <int kTile>
inline void storeTile(void* at) {
  __asm__ volatile("tilestored %%tmm%c0, (%1,%2)" ::"i"(kTile), "r"(at), "r"(size_t{64})
                   : "memory");
}
template <int kSums, int kInputs, int kRight>
inline void multiplyTiles() {
  __asm__ volatile("tdpbf16ps %%tmm%c2, %%tmm%c1, %%tmm%c0" ::"i"(kSums), "i"(kInputs),
                   "i"(kRight));
}

// The thread's tile registers, from here on to the end of the scope.
class TileScope {
 public:
  explicit TileScope(size_t tokens) {
    struct alignas(64) {
      uint8_t palette = 1;
      uint8_t start = 0;
      uint8_t reserved[14] = {};
      uint16_t lineBytes[16] = {};
      uint8_t lines[16] = {};
    } config;
    for (int i = 0; i < 8; ++i) {
      config.lineBytes[i] = 64;
      config.lines[i] = kSide;
    }
    const size_t rest = tokens % kSide;
    for (int i = RestTiles::kSums; i <= RestTiles::kInputs && rest != 0; ++i) {
      config.lines[i] = static_cast<uint8_t>(rest);
    }
    __asm__ volatile("ldtilecfg %0" ::"m"(config));
  }
  ~TileScope() { __asm__ volatile("tilerelease"); }
  TileScope(const TileScope&) = delete;
  TileScope& operator=(const TileScope&) = delete;
};

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

// Inputs of a token: for each panel the lines of its tiles, high limbs before low ones, then minus
// the sums of its sub-blocks.
constexpr size_t kSumsAt = 256;  // of a panel's kArrangedBlock

inline __m512i roundToBf16(__m512 first, __m512 second) {
  return (__m512i)_mm512_cvtne2ps_pbh(second, first);
}
inline __m512 widen(__m256i bf16) {
  return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(bf16), 16));
}

// The order of a type's places, as indices of a 16-bit permutation.
template <typename Type>
inline __m512i placeOrder() {
  alignas(64) static constexpr struct Order {
    uint16_t index[32] = {};
    constexpr Order() {
      for (size_t i = 0; i < 32; ++i) index[i] = static_cast<uint16_t>(Type::place(i));
    }
  } kOrder;
  return _mm512_load_si512(&kOrder);
}

// 32 inputs as two lines: their high limbs and their low ones; joined, the limbs of the first
// sixteen and those of the rest.
template <typename Type>
inline void splitLimbs(__m512 first, __m512 second, float* out) {
  const __m512i high = roundToBf16(first, second);
  const __m512i low = roundToBf16(_mm512_sub_ps(first, widen(_mm512_castsi512_si256(high))),
                                  _mm512_sub_ps(second, widen(_mm512_extracti64x4_epi64(high, 1))));
  const __m512i order = placeOrder<Type>();
  __m512i lines[2] = {high, low};
  if constexpr (Type::kJoined) {
    lines[0] = _mm512_inserti64x4(high, _mm512_castsi512_si256(low), 1);
    lines[1] = _mm512_shuffle_i64x2(high, low, 0xee);
  }
  _mm512_storeu_si512(out, _mm512_permutexvar_epi16(order, lines[0]));
  _mm512_storeu_si512(out + 16, _mm512_permutexvar_epi16(order, lines[1]));
}

inline __mmask16 firstLanes(size_t n) {
  return static_cast<__mmask16>(n < 16 ? (1u << n) - 1 : 0xffff);
}

template <typename Type>
void arrange(const float* x, size_t cols, float* out) {
  for (size_t first = 0; first < cols; first += kPanel, out += kArrangedBlock) {
    float* sums = out + kSumsAt;
    for (size_t i = 0; i < 8; ++i) {
      const size_t at = first + 32 * i;
      const size_t left = at < cols ? cols - at : 0;
      const __m512 a = _mm512_maskz_loadu_ps(firstLanes(left), x + at);
      const __m512 b = _mm512_maskz_loadu_ps(firstLanes(left < 16 ? 0 : left - 16), x + at + 16);
      splitLimbs<Type>(a, b, out + 32 * i);
      sums[i] = -_mm512_reduce_add_ps(_mm512_add_ps(a, b));
      sums[8 + i] = 0;
    }
  }
}

// Sums that are taken before their scales are applied: they stay in the nearest cache.
constexpr size_t kSumsAtOnce = 2;

// Rows that go through the columns together, a chunk of columns at a time: the inputs of a chunk
// stay in the core's cache while every group of rows reads them.
constexpr size_t kGroupRows = kPanelsAtOnce * kSide;
constexpr size_t kRowsAtOnce = 4 * kGroupRows;
constexpr size_t kChunk = 8 * kPanel;

// What a product works on.
template <typename Type>
struct alignas(64) Work {
  using Sum = float[kPanelsAtOnce][kSide][kSide];  // [panel][token][row]

  Panel<Type::kTiles> panels[kPanelsAtOnce];
  Sum sums[2][kSumsAtOnce];                                         // [turn]
  float acc[kRowsAtOnce / kSide][kMaxBatch][kSide];                 // [sixteen rows][token][row]
  uint8_t filled[kSide * kPanel / Type::kElements * Type::kBytes];  // rows made up to sixteen
};

// A tile of tokens and the sums of a panel that are taken together.
struct Step {
  const float* x = nullptr;  // of the first token
  size_t token = 0;
  size_t tokens = 0;
  size_t first = 0;  // sum
  size_t count = 0;
};

// One panel of columns of kPanels times sixteen rows for all tokens, into acc[panel][token][row].
template <typename Type, size_t kPanels>
class PanelProduct {
 public:
  using Sum = typename Work<Type>::Sum;

  PanelProduct(Work<Type>& work, size_t xStride, size_t tiles, float (*acc)[kMaxBatch][kSide])
      : work_(work),
        acc_(acc),
        xStride_(xStride),
        tilesPerSum_(tiles < Type::kTilesPerSum ? tiles : Type::kTilesPerSum),
        sums_(tiles / tilesPerSum_) {}

  // The tile unit is a step ahead of the scales: what reads its
  // sums at once would wait for it.
  void run(const float* x, size_t tokens) {
    Step last;
    size_t turn = 0;
    for (size_t first = 0; first < sums_; first += kSumsAtOnce) {
      for (size_t t = 0; t < tokens; t += kSide, turn ^= 1) {
        const Step step = {x + t * xStride_, t, tokens - t < kSide ? tokens - t : kSide, first,
                           sums_ - first < kSumsAtOnce ? sums_ - first : kSumsAtOnce};
        if (step.tokens == kSide) {
          sumTiles<FullTiles>(step, turn, last);
        } else {
          sumTiles<RestTiles>(step, turn, last);
        }
        last = step;
      }
    }
    for (size_t p = 0; p < kPanels; ++p) applyScales(last, turn ^ 1, p);
  }

 private:
  // The sums of a step, and meanwhile the scales of the one before, some tokens after each sum.
  template <typename Regs>
  void sumTiles(const Step& step, size_t turn, const Step& last) {
    for (size_t s = 0; s < step.count; ++s) {
      sumTile<Regs>(step, s, work_.sums[turn][s]);
      if (s < kPanels) applyScales(last, turn ^ 1, s);
    }
    for (size_t p = step.count; p < kPanels; ++p) applyScales(last, turn ^ 1, p);
  }

  template <typename Regs>
  void sumTile(const Step& step, size_t s, Sum& out) {
    zeroTile<Regs::kSums>();
    if constexpr (kPanels == 2) zeroTile<Regs::kSums + 1>();
    for (size_t i = 0; i < tilesPerSum_; ++i) {
      const size_t tile = (step.first + s) * Type::kTilesPerSum + i;
      loadTile<kWeights>(work_.panels[0].tiles[tile], 64);
      if constexpr (kPanels == 2) loadTile<kWeights + 1>(work_.panels[1].tiles[tile], 64);
      for (size_t limb = 0; limb < (Type::kJoined ? 1 : 2); ++limb) {
        const float* line = step.x + (Type::kJoined ? tile : 2 * tile + limb) * 16;
        loadTile<Regs::kInputs>(line, xStride_ * sizeof(float));
        multiplyTiles<Regs::kSums, Regs::kInputs, kWeights>();
        if constexpr (kPanels == 2) {
          multiplyTiles<Regs::kSums + 1, Regs::kInputs, kWeights + 1>();
        }
      }
    }
    storeTile<Regs::kSums>(out[0]);
    if constexpr (kPanels == 2) storeTile<Regs::kSums + 1>(out[1]);
  }

  void applyScales(const Step& step, size_t turn, size_t p) {
    const Sum* sums = work_.sums[turn];
    if (step.count == kSumsAtOnce) {
      applySums<kSumsAtOnce>(step, step.first, sums, p);
    } else {
      for (size_t s = 0; s < step.count; ++s) applySums<1>(step, step.first + s, sums + s, p);
    }
  }

  // acc[token] += kCount sums of one panel times their scales, less the minimums.
  template <size_t kCount>
  void applySums(const Step& step, size_t first, const Sum* sums, size_t p) {
    const Panel<Type::kTiles>& panel = work_.panels[p];
    __m512 scales[kCount];
    __m512 minimums[kCount];
    for (size_t s = 0; s < kCount; ++s) {
      scales[s] = _mm512_load_ps(panel.scales[first + s]);
      if constexpr (Type::kHasMinimums) minimums[s] = _mm512_load_ps(panel.minimums[first + s]);
    }
    float(*acc)[kSide] = acc_[p] + step.token;
    const float* inputSums = step.x + kSumsAt + first;
    for (size_t t = 0; t < step.tokens; ++t, inputSums += xStride_) {
      __m512 total = _mm512_load_ps(acc[t]);
      for (size_t s = 0; s < kCount; ++s) {
        const __m512 sum = _mm512_load_ps(sums[s][p][t]);
        total = Type::kScaled ? _mm512_fmadd_ps(sum, scales[s], total) : _mm512_add_ps(sum, total);
        if constexpr (Type::kHasMinimums) {
          total = _mm512_fmadd_ps(minimums[s], _mm512_set1_ps(inputSums[s]), total);
        }
      }
      _mm512_store_ps(acc[t], total);
    }
  }

  Work<Type>& work_;
  float (*acc_)[kMaxBatch][kSide];
  size_t xStride_;
  size_t tilesPerSum_;
  size_t sums_;
};

// Up to sixteen rows of a panel, `bytes` of each; what is missing of rows and of their last tile
// counts as zeros.
template <typename Type>
inline void decodePanel(const uint8_t* at, size_t rowBytes, size_t rowCount, size_t bytes,
                        size_t tiles, uint8_t* filled, Panel<Type::kTiles>& out) {
  constexpr size_t kBytes = kPanel / Type::kElements * Type::kBytes;
  if (rowCount >= kSide && bytes == tiles * kBytes / Type::kTiles) {
    return Type::decode(Rows(at, rowBytes), tiles, out);
  }
  __builtin_memset(filled, 0, kSide * kBytes);
  for (size_t r = 0; r < rowCount && r < kSide; ++r) {
    __builtin_memcpy(filled + r * kBytes, at + r * rowBytes, bytes);
  }
  Type::decode(Rows(filled, kBytes), tiles, out);
}

// One panel of a group of up to kPanels times sixteen rows, `count` columns of them.
template <typename Type, size_t kPanels>
void addPanel(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t count, const float* x,
              const Batch& batch, float (*acc)[kMaxBatch][kSide], Work<Type>& work) {
  const size_t tiles = (count + 31) / 32 * (Type::kTiles / 8);
  const size_t bytes = count * Type::kBytes / Type::kElements;
  for (size_t p = 0; p < kPanels; ++p) {
    decodePanel<Type>(rows + p * kSide * rowBytes, rowBytes, rowCount - p * kSide, bytes, tiles,
                      work.filled, work.panels[p]);
  }
  PanelProduct<Type, kPanels>(work, batch.xStride, tiles, acc).run(x, batch.tokens);
}

inline void prefetchRows(const uint8_t* at, size_t rowBytes, size_t bytes) {
  for (size_t r = 0; r < kGroupRows; ++r, at += rowBytes) {
    for (size_t i = 0; i < bytes; i += 64) __builtin_prefetch(at + i, 0, 2);
  }
}

// acc += rows . x for up to kRowsAtOnce rows.
template <typename Type>
void multiplyRows(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                  const Batch& batch, Work<Type>& work) {
  constexpr size_t kPanelBytes = kPanel / Type::kElements * Type::kBytes;
  for (size_t chunk = 0; chunk < cols; chunk += kChunk) {
    const size_t end = cols - chunk < kChunk ? cols : chunk + kChunk;
    for (size_t r = 0; r < rowCount; r += kGroupRows) {
      const bool isLast = r + kGroupRows >= rowCount;
      const uint8_t* group = rows + r * rowBytes + chunk / kPanel * kPanelBytes;
      const uint8_t* next =
          isLast ? rows + end / kPanel * kPanelBytes : group + kGroupRows * rowBytes;
      for (size_t first = chunk; first < end; first += kPanel) {
        const size_t count = cols - first < kPanel ? cols - first : kPanel;
        const float* x = batch.x + first / kPanel * kArrangedBlock;
        prefetchRows(next, rowBytes, kPanelBytes);
        if (rowCount - r > kSide) {
          addPanel<Type, 2>(group, rowBytes, rowCount - r, count, x, batch, work.acc + r / kSide,
                            work);
        } else {
          addPanel<Type, 1>(group, rowBytes, rowCount - r, count, x, batch, work.acc + r / kSide,
                            work);
        }
        group += kPanelBytes;
        next += kPanelBytes;
      }
    }
  }
}

template <typename Type>
void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const Batch& batch) {
  static_assert(sizeof(Work<Type>) <= kBatchScratch * sizeof(float));
  const TileScope tiles(batch.tokens);
  auto& work = *reinterpret_cast<Work<Type>*>(batch.scratch);
  for (size_t first = 0; first < rowCount; first += kRowsAtOnce) {
    const size_t count = rowCount - first < kRowsAtOnce ? rowCount - first : kRowsAtOnce;
    __builtin_memset(work.acc, 0, sizeof work.acc);
    multiplyRows(rows + first * rowBytes, rowBytes, count, cols, batch, work);
    for (size_t r = 0; r < count; r += kSide) {
      const __mmask16 lanes = firstLanes(count - r);
      for (size_t t = 0; t < batch.tokens; ++t) {
        float* y = batch.y + t * batch.yStride + first + r;
        const __m512 sum = _mm512_load_ps(work.acc[r / kSide][t]);
        _mm512_mask_storeu_ps(y, lanes, _mm512_add_ps(_mm512_maskz_loadu_ps(lanes, y), sum));
      }
    }
  }
}

template <typename Type>
void use(KernelTable& table, size_t type) {
  table.gemm[type] = gemm<Type>;
  table.arrangeBatch[type] = arrange<Type>;
}

}  // namespace

void addTileKernels(KernelTable& table) {
  table.name = "amx";
  table.requiredFeatures |= 0x4;  // compat::kCpuAmx
  use<Bf16>(table, 2);            // by kiv::QuantType
  use<Q80>(table, 4);
  use<Q4k>(table, 5);
  use<Q5k>(table, 6);
  use<Q6k>(table, 7);
}

}  // namespace qwen35
