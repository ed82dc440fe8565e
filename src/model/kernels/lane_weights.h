// Weights of as many rows as a register has lanes, for products with batches: lane r holds weights
// of row r. Shared by the vector tiers and the tile unit's.
//
// Rows of a block are transposed four bytes at a time, where the codes lie, and made floats after
// that. Codes that share bytes have their columns in one tile, so that each tile has its own bytes:
// which columns are its two halves, a type says.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Vector {                         // registers of a tier
//     using Float = ..., Int = ...;         // of 32-bit lanes
//     static constexpr size_t kWidth;       // lanes of a register
//     static constexpr size_t kTileTokens;  // with two registers of rows, what the registers hold
//     static Float zero(), each(value), load(at), add(a, b), mul(a, b), fma(a, b, c);
//     static void store(float* at, Float v);
//     static void keep(Float& v);           // in its register: GCC would load it for every use
//     static void prefetchAfter<kLevel>(const uint8_t* at, Float& work);  // asked for after `work`
//     static float total(Float v);          // sum of the lanes, in a fixed order
//     static Int eachInt(value), eachByte(value), bitAnd(a, b), bitXor(a, b);
//     static Int join(a, maskA, b, maskB);  // what masks for each byte leave; no bit is in both
//     static Int left(a, bits), right(a, bits), rightSigned(a, bits);
//     static Int moveBits(a, from, to);     // bit `from` of each byte to bit `to`, the rest anyhow
//     static Float toFloat(Int a), asFloat(Int a);   // converted; the same bits
//     static Float widenHalves(const uint16_t* at);  // from an address divisible by 32
//     static Float widenLowHalves(Int a);            // of the lower 16 bits of each lane
//     static Int fromQuarters(const __m128i (&quarters)[kWidth / 4]);
//     static Int unpackLow32(a, b), unpackHigh32(a, b), unpackLow64(a, b), unpackHigh64(a, b);
//   };                                      // in each quarter of 128 bits
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/prefetch.h"

namespace qwen35 {
namespace {

constexpr size_t kTileCols = 32;   // columns of a tile
constexpr size_t kHalfCols = 16;   // consecutive ones of its halves
constexpr size_t kQuads = 8;       // registers of four columns that make a tile
constexpr size_t kPanelTiles = 8;  // whose scales are decoded together
constexpr size_t kPanelCols = kPanelTiles * kTileCols;

// Bytes of as many rows as there are lanes.
template <typename Vector>
class RowBytes {
 public:
  using Int = typename Vector::Int;

  RowBytes(const uint8_t* first, size_t stride) : stride_(stride) {
    for (size_t i = 0; i < kQuarters; ++i) first_[i] = first + 4 * i * stride;
  }

  // Bytes `offset` to `offset` + 15: four registers, lane r of which holds the four bytes of row r.
  void columns(size_t offset, Int* out) const {
    Int rows[4];
    for (size_t j = 0; j < 4; ++j) rows[j] = everyFourth(j, offset);
    const Int low01 = Vector::unpackLow32(rows[0], rows[1]);
    const Int low23 = Vector::unpackLow32(rows[2], rows[3]);
    const Int high01 = Vector::unpackHigh32(rows[0], rows[1]);
    const Int high23 = Vector::unpackHigh32(rows[2], rows[3]);
    out[0] = Vector::unpackLow64(low01, low23);
    out[1] = Vector::unpackHigh64(low01, low23);
    out[2] = Vector::unpackLow64(high01, high23);
    out[3] = Vector::unpackHigh64(high01, high23);
  }

  // The half-precision number at `offset` of each row.
  typename Vector::Float halves(size_t offset) const {
    alignas(32) uint16_t bits[Vector::kWidth];
    for (size_t r = 0; r < Vector::kWidth; ++r) __builtin_memcpy(&bits[r], row(r) + offset, 2);
    return Vector::widenHalves(bits);
  }

 private:
  static constexpr size_t kQuarters = Vector::kWidth / 4;

  const uint8_t* row(size_t r) const { return first_[r / 4] + r % 4 * stride_; }

  // Rows j, j + 4 and so on, a quarter of 128 bits each.
  Int everyFourth(size_t j, size_t offset) const {
    __m128i quarters[kQuarters];
    for (size_t q = 0; q < kQuarters; ++q) {
      quarters[q] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row(4 * q + j) + offset));
    }
    return Vector::fromQuarters(quarters);
  }

  const uint8_t* first_[kQuarters];
  size_t stride_;
};

// Types. An object of one holds what a tile is made of.
//
//   struct Type {
//     using Vector = ...;
//     static constexpr size_t kElements, kBytes;    // of a block in the file
//     static constexpr size_t half(size_t tile, size_t h);  // first of sixteen columns
//     struct Panel;                                 // what the tiles of a panel share
//     static void open(const RowBytes<Vector>& rows, Panel& panel);
//     Type(const RowBytes<Vector>& rows, const Panel& panel, size_t tile);
//     void quad(size_t i, Float (&out)[4]) const;   // columns 4i to 4i + 3: of half i / 4
//   };

// Byte b of every lane as a float that is too large by byteFactor(b).
template <typename Vector>
inline typename Vector::Float byteOfLanes(typename Vector::Int lanes, size_t b) {
  return Vector::toFloat(b == 3 ? Vector::right(lanes, 24)
                                : Vector::bitAnd(lanes, Vector::eachInt(0xff << (8 * b))));
}
constexpr float byteFactor(size_t b) { return b == 3 ? 1 : static_cast<float>(1u << (8 * b)); }

// Makes a type of codes, four to a lane, of which those of a half have scale and offset in common:
//   Int codes(size_t i) const;   Float scale(size_t h) const;   Float offset(size_t h) const;
template <typename Source>
class Coded : public Source {
 public:
  using Vector = typename Source::Vector;
  using Float = typename Vector::Float;

  Coded(const RowBytes<Vector>& rows, const typename Source::Panel& panel, size_t tile)
      : Source(rows, panel, tile) {
    for (size_t h = 0; h < 2; ++h) {
      offsets_[h] = Source::offset(h);
      const Float scale = Source::scale(h);
      for (size_t b = 0; b < 4; ++b) {
        scales_[h][b] = b == 3 ? scale : Vector::mul(scale, Vector::each(1 / byteFactor(b)));
      }
    }
  }

  void quad(size_t i, Float (&out)[4]) const {
    const typename Vector::Int codes = Source::codes(i);
    for (size_t b = 0; b < 4; ++b) {
      out[b] = Vector::fma(byteOfLanes<Vector>(codes, b), scales_[i / 4][b], offsets_[i / 4]);
    }
  }

 private:
  Float scales_[2][4];  // [half][byte]
  Float offsets_[2];
};

// Scales and minimums of Q4_K and Q5_K, in the first sixteen bytes of a block. Tile i has half of
// two sub-blocks, whose codes are the low and the high nibbles of the same bytes.
template <typename V>
struct SubBlockCodes {
  using Vector = V;
  using Int = typename V::Int;
  using Float = typename V::Float;
  static constexpr size_t kElements = 256;

  static constexpr size_t half(size_t tile, size_t h) {
    return tile / 2 * 64 + h * 32 + tile % 2 * 16;
  }

  struct alignas(64) Panel {
    float scales[8][V::kWidth];
    float minimums[8][V::kWidth];  // negated
  };

  static void open(const RowBytes<V>& rows, Panel& panel) {
    Int head[4];
    rows.columns(0, head);
    const Int low6 = V::eachByte(0x3f);
    const Int scales[2] = {V::bitAnd(head[1], low6),
                           V::join(V::right(head[1], 2), 0x30, head[3], 0x0f)};
    const Int minimums[2] = {V::bitAnd(head[2], low6),
                             V::join(V::right(head[2], 2), 0x30, V::right(head[3], 4), 0x0f)};
    const Float d = V::widenLowHalves(head[0]);
    const Float dmin = V::mul(V::widenLowHalves(V::right(head[0], 16)), V::each(-1.0f));
    for (size_t b = 0; b < 4; ++b) {
      const Float factor = V::each(1 / byteFactor(b));
      for (size_t h = 0; h < 2; ++h) {
        V::store(panel.scales[4 * h + b], V::mul(byteOfLanes<V>(scales[h], b), V::mul(d, factor)));
        V::store(panel.minimums[4 * h + b],
                 V::mul(byteOfLanes<V>(minimums[h], b), V::mul(dmin, factor)));
      }
    }
  }

  SubBlockCodes(const Panel& panel, size_t tile) : panel_(panel), first_(tile / 2 * 2) {}

  Float scale(size_t h) const { return V::load(panel_.scales[first_ + h]); }
  Float offset(size_t h) const { return V::load(panel_.minimums[first_ + h]); }

 protected:
  size_t subBlock(size_t h) const { return first_ + h; }

 private:
  const Panel& panel_;
  size_t first_;
};

// Codes i of sixteen bytes whose low nibbles are the first half of a tile, whose high ones the
// rest.
template <typename V>
inline typename V::Int nibbles(const typename V::Int (&bytes)[4], size_t i) {
  return i < 4 ? bytes[i] : V::right(bytes[i - 4], 4);
}

template <typename V>
struct Q4kCodes : SubBlockCodes<V> {
  using Int = typename V::Int;
  static constexpr size_t kBytes = 144;

  Q4kCodes(const RowBytes<V>& rows, const typename SubBlockCodes<V>::Panel& panel, size_t tile)
      : SubBlockCodes<V>(panel, tile) {
    rows.columns(16 + 16 * tile, bytes_);
  }
  Int codes(size_t i) const { return V::bitAnd(nibbles<V>(bytes_, i), V::eachByte(0x0f)); }

 private:
  Int bytes_[4];
};

template <typename V>
struct Q5kCodes : SubBlockCodes<V> {
  using Int = typename V::Int;
  static constexpr size_t kBytes = 176;

  Q5kCodes(const RowBytes<V>& rows, const typename SubBlockCodes<V>::Panel& panel, size_t tile)
      : SubBlockCodes<V>(panel, tile) {
    rows.columns(48 + 16 * tile, bytes_);
    rows.columns(16 + 16 * (tile % 2), fifths_);
  }
  Int codes(size_t i) const {
    const Int fifths = V::moveBits(fifths_[i % 4], this->subBlock(i / 4), 4);
    return V::join(nibbles<V>(bytes_, i), 0x0f, fifths, 0x10);
  }

 private:
  Int bytes_[4];
  Int fifths_[4];  // bit s of each byte belongs to sub-block s
};

// Halves of 128 columns in quarters of 32; a tile has half of quarters j and j + 2, which are the
// low and the high nibbles of the same bytes. Sub-blocks of sixteen.
template <typename V>
struct Q6kCodes {
  using Vector = V;
  using Int = typename V::Int;
  using Float = typename V::Float;
  static constexpr size_t kElements = 256;
  static constexpr size_t kBytes = 210;

  static constexpr size_t half(size_t tile, size_t h) {
    return tile / 4 * 128 + tile % 4 * 16 + 64 * h;
  }

  struct alignas(64) Panel {
    float scales[16][V::kWidth];
  };

  static void open(const RowBytes<V>& rows, Panel& panel) {
    const Float d = rows.halves(208);
    Int codes[4];
    rows.columns(192, codes);
    for (size_t i = 0; i < 16; ++i) {
      const Int code = V::rightSigned(V::left(codes[i / 4], 24 - 8 * static_cast<int>(i % 4)), 24);
      V::store(panel.scales[i], V::mul(V::toFloat(code), d));
    }
  }

  Q6kCodes(const RowBytes<V>& rows, const Panel& panel, size_t tile) : panel_(panel), tile_(tile) {
    rows.columns(64 * (tile / 4) + 16 * (tile % 4), low_);
    rows.columns(128 + 32 * (tile / 4) + 16 * (tile % 2), high_);
  }
  Int codes(size_t i) const {
    const size_t quarter = tile_ % 4 / 2 + i / 4 * 2;
    return V::join(nibbles<V>(low_, i), 0x0f, V::moveBits(high_[i % 4], 2 * quarter, 4), 0x30);
  }
  Float scale(size_t h) const { return V::load(panel_.scales[half(tile_, h) / kHalfCols]); }
  Float offset(size_t h) const { return V::mul(scale(h), V::each(-32.0f)); }

 private:
  const Panel& panel_;
  size_t tile_;
  Int low_[4];
  Int high_[4];
};

// Columns in order, and tiles that share nothing.
template <typename V>
struct InOrder {
  using Vector = V;
  static constexpr size_t kElements = kTileCols;

  static constexpr size_t half(size_t tile, size_t h) { return tile * kTileCols + h * kHalfCols; }

  struct Panel {};
  static void open(const RowBytes<V>&, Panel&) {}
};

// A block is a tile.
template <typename V>
struct Q80Codes : InOrder<V> {
  using Int = typename V::Int;
  using Float = typename V::Float;
  static constexpr size_t kBytes = 34;

  Q80Codes(const RowBytes<V>& rows, const typename InOrder<V>::Panel&, size_t tile)
      : scale_(rows.halves(kBytes * tile)) {
    rows.columns(kBytes * tile + 2, codes_);
    rows.columns(kBytes * tile + 18, codes_ + 4);
  }
  // Plus 128, which makes them positive.
  Int codes(size_t i) const { return V::bitXor(codes_[i], V::eachByte(0x80)); }
  Float scale(size_t) const { return scale_; }
  Float offset(size_t) const { return V::mul(scale_, V::each(-128.0f)); }

 private:
  Float scale_;
  Int codes_[kQuads];
};

template <typename V>
using Q4kRows = Coded<Q4kCodes<V>>;
template <typename V>
using Q5kRows = Coded<Q5kCodes<V>>;
template <typename V>
using Q6kRows = Coded<Q6kCodes<V>>;
template <typename V>
using Q80Rows = Coded<Q80Codes<V>>;

template <typename V>
struct Bf16Rows : InOrder<V> {
  using Int = typename V::Int;
  using Float = typename V::Float;
  static constexpr size_t kBytes = 64;

  Bf16Rows(const RowBytes<V>& rows, const typename InOrder<V>::Panel&, size_t tile) {
    for (size_t c = 0; c < 4; ++c) rows.columns(kBytes * tile + 16 * c, pairs_ + 4 * c);
  }
  // Columns 2i and 2i + 1 as they lie.
  Int pair(size_t i) const { return pairs_[i]; }

  void quad(size_t i, Float (&out)[4]) const {
    const Int upper = V::eachInt(static_cast<int>(0xffff0000));
    for (size_t p = 0; p < 2; ++p) {
      out[2 * p] = V::asFloat(V::left(pairs_[2 * i + p], 16));
      out[2 * p + 1] = V::asFloat(V::bitAnd(pairs_[2 * i + p], upper));
    }
  }

 private:
  Int pairs_[kTileCols / 2];
};

template <typename V>
struct F32Rows : InOrder<V> {
  using Int = typename V::Int;
  using Float = typename V::Float;
  static constexpr size_t kBytes = 128;

  F32Rows(const RowBytes<V>& rows, const typename InOrder<V>::Panel&, size_t tile)
      : rows_(rows), tile_(tile) {}

  void quad(size_t i, Float (&out)[4]) const {
    Int columns[4];
    rows_.columns(kBytes * tile_ + 16 * i, columns);
    for (size_t c = 0; c < 4; ++c) out[c] = V::asFloat(columns[c]);
  }

 private:
  RowBytes<V> rows_;
  size_t tile_;
};

// Bytes of a row's panel of columns, or of the rest of a row.
template <typename Type>
constexpr size_t panelBytes(size_t cols = kPanelCols) {
  return cols * Type::kBytes / Type::kElements;
}

constexpr size_t tilesOf(size_t cols) {
  return cols < kPanelCols ? (cols + kTileCols - 1) / kTileCols : kPanelTiles;
}

// Decodes the rows of a panel of so many columns: row r of column c at out[c * stride + r].
template <typename Type>
void decodePanel(const RowBytes<typename Type::Vector>& rows, size_t cols,
                 typename Type::Panel& panel, float* out, size_t stride) {
  using Vector = typename Type::Vector;
  Type::open(rows, panel);
  for (size_t tile = 0; tile < tilesOf(cols); ++tile) {
    const Type weights(rows, panel, tile);
#pragma GCC unroll 8
    for (size_t i = 0; i < kQuads; ++i) {
      typename Vector::Float quad[4];
      weights.quad(i, quad);
      float* at = out + (Type::half(tile, i / 4) + 4 * (i % 4)) * stride;
      for (size_t c = 0; c < 4; ++c) Vector::store(at + c * stride, quad[c]);
    }
  }
}

// A panel that lacks rows or columns of its last tile, filled up with zeros.
template <typename Type>
struct FilledPanel {
  static constexpr size_t kStride = panelBytes<Type>();

  uint8_t bytes[Type::Vector::kWidth * kStride];
};

// The rows of the panel that begins at `at` in a row of `cols` columns more, rowCount rows from
// there on; `filled` holds them where that is less than a panel and has to last as long.
template <typename Type>
RowBytes<typename Type::Vector> rowsOfPanel(const uint8_t* at, size_t rowBytes, size_t rowCount,
                                            size_t cols, FilledPanel<Type>& filled) {
  constexpr size_t kRows = Type::Vector::kWidth;
  const bool isWhole = rowCount >= kRows && (cols >= kPanelCols || cols % kTileCols == 0);
  if (isWhole) return {at, rowBytes};
  const size_t bytes = panelBytes<Type>(cols < kPanelCols ? cols : kPanelCols);
  __builtin_memset(filled.bytes, 0, sizeof filled.bytes);
  for (size_t r = 0; r < kRows && r < rowCount; ++r) {
    __builtin_memcpy(filled.bytes + r * filled.kStride, at + r * rowBytes, bytes);
  }
  return {filled.bytes, filled.kStride};
}

}  // namespace
}  // namespace qwen35
