// AMX tier (Linux): batched products of Q8_0, BF16 and the K-quants on the tile unit; the rest of
// the table is the AVX-512 tier's.
//
// A tile instruction adds the products of 16 tokens x 32 inputs and 32 inputs x 16 rows to 16 x 16
// sums. It takes bf16, eight significant bits. Inputs and weights are sums of two such limbs each,
// sixteen bits and more, and three of the four products of limbs count:
//
//   weight * x = high * x.high + low * x.high + high * x.low      (+ 2^-16 of it at most)
//
// Every (row, token) pair takes the same operations in the same order whatever the number of rows
// and tokens is: a token has the same bits in every batch.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/tile_weights.h"

namespace qwen35 {
namespace {

// Tile registers: the sums of up to 64 tokens, a tile of weights and one of inputs. A last tile of
// fewer than sixteen tokens has the last register of sums, and one of its own for its inputs. GCC's
// intrinsics take literals only, and do not say what they read.
constexpr int kLastSums = 3;
constexpr int kHighWeights = 4;
constexpr int kLowWeights = 5;
constexpr int kInputs = 6;
constexpr int kFewInputs = 7;
static_assert(kMaxBatch == (kLastSums + 1) * kSide);

template <int kTile>
inline void loadTile(const void* at) {
  __asm__ volatile("tileloadd (%1,%2), %%tmm%c0" ::"i"(kTile), "r"(at), "r"(size_t{64}) : "memory");
}
// Without a place in the nearest cache: inputs come by once for every sixteen rows, and would drive
// the weights out.
template <int kTile>
inline void streamTile(const void* at) {
  __asm__ volatile("tileloaddt1 (%1,%2), %%tmm%c0" ::"i"(kTile), "r"(at), "r"(size_t{64})
                   : "memory");
}
template <int kTile>
inline void storeTile(void* at) {
  __asm__ volatile("tilestored %%tmm%c0, (%1,%2)" ::"i"(kTile), "r"(at), "r"(size_t{64})
                   : "memory");
}
template <int kSums, int kLeft, int kRight>
inline void multiplyTiles() {
  __asm__ volatile("tdpbf16ps %%tmm%c2, %%tmm%c1, %%tmm%c0" ::"i"(kSums), "i"(kLeft), "i"(kRight));
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
    if (const auto few = static_cast<uint8_t>(tokens % kSide); few != 0) {
      config.lines[kLastSums] = few;
      config.lines[kFewInputs] = few;
    }
    __asm__ volatile("ldtilecfg %0" ::"m"(config));
  }
  ~TileScope() { __asm__ volatile("tilerelease"); }
  TileScope(const TileScope&) = delete;
  TileScope& operator=(const TileScope&) = delete;
};

// Inputs of sixteen tokens: for each tile of 32 columns their high limbs, a line for each token,
// then their low ones.
constexpr size_t kLimbs = kSide * kSide;  // floats of memory for the high limbs of a tile
constexpr size_t kInputTile = 2 * kLimbs;
static_assert(kTokenGroup == kSide);
static_assert(kPanelTiles * kInputTile <= kSide * kArrangedBlock);

inline __m512i roundToBf16(__m512 first, __m512 second) {
  return (__m512i)_mm512_cvtne2ps_pbh(second, first);
}
inline __m512 widen(__m256i bf16) {
  return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(bf16), 16));
}

inline __mmask16 firstLanes(size_t n) {
  return static_cast<__mmask16>(n < 16 ? (1u << n) - 1 : 0xffff);
}

// Sixteen inputs from `at` on; those past `cols` are zeros.
inline __m512 loadInputs(const float* x, size_t cols, size_t at) {
  return _mm512_maskz_loadu_ps(firstLanes(at < cols ? cols - at : 0), x + at);
}

template <typename Type>
void arrangeToken(const float* x, size_t cols, float* out) {
  for (size_t tile = 0; tile * kTileCols < cols; ++tile, out += kInputTile) {
    const size_t panel = tile / kPanelTiles * kPanelCols;
    const __m512 first = loadInputs(x, cols, panel + Type::half(tile % kPanelTiles, 0));
    const __m512 second = loadInputs(x, cols, panel + Type::half(tile % kPanelTiles, 1));
    const __m512i high = roundToBf16(first, second);
    const __m512 firstLow = _mm512_sub_ps(first, widen(_mm512_castsi512_si256(high)));
    const __m512 secondLow = _mm512_sub_ps(second, widen(_mm512_extracti64x4_epi64(high, 1)));
    _mm512_storeu_si512(out, high);
    _mm512_storeu_si512(out + kLimbs, roundToBf16(firstLow, secondLow));
  }
}

template <typename Type>
void arrange(const float* x, size_t xStride, size_t tokens, size_t cols, float* out) {
  for (size_t t = 0; t < tokens; ++t) arrangeToken<Type>(x + t * xStride, cols, out + t * kSide);
}

// Rows that go through the columns together: the inputs of a panel of columns stay in the core's
// caches while every sixteen rows read them.
constexpr size_t kRowsAtOnce = 128;

// Tiles of weights that are held at a time, and how many a tile is made ahead of its use: its
// stores have to reach the cache, from where the tile unit loads.
constexpr size_t kHeld = 4;
constexpr size_t kAhead = 2;
static_assert(kAhead < kHeld);

// What a product works on.
template <typename Type>
struct Work {
  WeightTile tiles[kHeld];
  typename Type::Panel panel;
  alignas(64) float acc[kRowsAtOnce / kSide][kMaxBatch][kSide];  // [sixteen rows][token][row]
  FilledPanel<Type> filled;
};

// The tiles of up to kRowsAtOnce rows in the order in which they are multiplied: panel of columns
// by panel, sixteen rows by sixteen.
template <typename Type>
class TileSequence {
 public:
  TileSequence(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, Work<Type>& work)
      : work_(work),
        rows_(rows),
        rowBytes_(rowBytes),
        rowCount_(rowCount),
        cols_(cols),
        source_(rows, rowBytes) {}

  // Tiles of the panel that begins at column `first`.
  size_t tilesAt(size_t first) const { return tilesOf(cols_ - first); }

  // The next tile; after the last one, any.
  Type next() {
    if (tile_ == 0) openPanel();
    const Type weights(source_, work_.panel, tile_);
    if (++tile_ == tilesAt(column_)) advance();
    return weights;
  }

 private:
  void advance() {
    tile_ = 0;
    row_ += kSide;
    if (row_ < rowCount_) return;
    row_ = 0;
    column_ = column_ + kPanelCols < cols_ ? column_ + kPanelCols : 0;
  }

  void openPanel() {
    const uint8_t* at = rows_ + row_ * rowBytes_ + column_ / kPanelCols * panelBytes<Type>();
    // The same rows' next panel of columns, or the rows that come after these all.
    const bool isLast = column_ + kPanelCols >= cols_;
    prefetchPanel<Type>(isLast ? rows_ + (rowCount_ + row_) * rowBytes_ : at + panelBytes<Type>(),
                        rowBytes_);
    source_ = rowsOfPanel(at, rowBytes_, rowCount_ - row_, cols_ - column_, work_.filled);
    Type::open(source_, work_.panel);
  }

  Work<Type>& work_;
  const uint8_t* rows_;
  size_t rowBytes_;
  size_t rowCount_;
  size_t cols_;
  size_t row_ = 0;
  size_t column_ = 0;
  size_t tile_ = 0;
  RowBytes<Vector> source_;  // of the panel
};

// The sums of a tile of tokens, and its inputs times the weights' tile, both limbs of them.
template <int kSums, int kX>
struct TokenTile {
  static void load(float (*acc)[kSide]) { loadTile<kSums>(acc); }
  static void store(float (*acc)[kSide]) { storeTile<kSums>(acc); }
  template <bool kExact>
  static void multiply(const float* x) {
    streamTile<kX>(x);
    multiplyTiles<kSums, kX, kHighWeights>();
    if constexpr (!kExact) multiplyTiles<kSums, kX, kLowWeights>();
    streamTile<kX>(x + kLimbs);
    multiplyTiles<kSums, kX, kHighWeights>();
  }
};

// All tokens against sixteen rows.
class TokenTiles {
 public:
  TokenTiles(size_t tokens, size_t xStride)
      : full_(tokens / kSide), few_(tokens % kSide != 0), xStride_(kSide * xStride) {}

  void load(float (*acc)[kSide]) const {
    forEach([=](auto tile, size_t t) { tile.load(acc + t * kSide); }, [](size_t) {});
  }
  void store(float (*acc)[kSide]) const {
    forEach([=](auto tile, size_t t) { tile.store(acc + t * kSide); }, [](size_t) {});
  }

  // Multiplies with a tile of weights and calls meanwhile(0) to meanwhile(3), a quarter each of the
  // work that the vector units do while the tile unit has its own.
  template <bool kExact, typename Meanwhile>
  void multiply(const float* x, const WeightTile& weights, const Meanwhile& meanwhile) const {
    loadTile<kHighWeights>(weights.high);
    if constexpr (!kExact) loadTile<kLowWeights>(weights.low);
    forEach([&](auto tile, size_t t) { tile.template multiply<kExact>(x + t * xStride_); },
            meanwhile);
  }

 private:
  template <typename Call, typename Meanwhile>
  [[gnu::always_inline]] void forEach(const Call& call, const Meanwhile& meanwhile) const {
    if (full_ > 0) call(TokenTile<0, kInputs>(), 0);
    meanwhile(0);
    if (full_ > 1) call(TokenTile<1, kInputs>(), 1);
    meanwhile(1);
    if (full_ > 2) call(TokenTile<2, kInputs>(), 2);
    meanwhile(2);
    if (few_) {
      call(TokenTile<kLastSums, kFewInputs>(), full_);
    } else if (full_ > kLastSums) {
      call(TokenTile<kLastSums, kInputs>(), kLastSums);
    }
    meanwhile(3);
  }

  size_t full_;
  bool few_;
  size_t xStride_;
};

// acc += rows . x for up to kRowsAtOnce rows.
template <typename Type>
void multiplyRows(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                  const Batch& batch, Work<Type>& work) {
  const TokenTiles tokens(batch.tokens, batch.xStride);
  TileSequence<Type> sequence(rows, rowBytes, rowCount, cols, work);
  for (size_t i = 0; i < kAhead; ++i) {
    const Type first = sequence.next();
    for (size_t q = 0; q < 4; ++q) makeQuarter(first, q, work.tiles[i]);
  }
  size_t turn = 0;
  const float* x = batch.x;
  for (size_t column = 0; column < cols; column += kPanelCols) {
    const size_t tiles = sequence.tilesAt(column);
    for (size_t r = 0; r < rowCount; r += kSide) {
      tokens.load(work.acc[r / kSide]);
      for (size_t i = 0; i < tiles; ++i, turn = (turn + 1) % kHeld) {
        const Type weights = sequence.next();
        tokens.multiply<kIsExact<Type>>(x + i * kInputTile, work.tiles[turn], [&](size_t q) {
          makeQuarter(weights, q, work.tiles[(turn + kAhead) % kHeld]);
        });
      }
      tokens.store(work.acc[r / kSide]);
    }
    x += tiles * kInputTile;
  }
}

template <typename Type>
void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const Batch& batch) {
  static_assert(sizeof(Work<Type>) <= kBatchScratch * sizeof(float));
  const TileScope scope(batch.tokens);
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
  table.requiredFeatures |= 0x4;    // compat::kCpuAmx
  use<Bf16Rows<Vector>>(table, 2);  // by kiv::QuantType
  use<Q80Rows<Vector>>(table, 4);
  use<Q4kRows<Vector>>(table, 5);
  use<Q5kRows<Vector>>(table, 6);
  use<Q6kRows<Vector>>(table, 7);
}

}  // namespace qwen35
