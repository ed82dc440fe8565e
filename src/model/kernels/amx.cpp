// AMX tier (Linux): batched products of BF16, Q8_0 and the K-quants on the tile unit; the rest of
// the table is the AVX-512 tier's.
//
// A tile instruction adds the products of 16 tokens x 32 inputs and 32 inputs x 16 rows to 16 x 16
// sums. It takes bf16, eight significant bits. An input is the sum of two such limbs, sixteen bits
// and more. Codes of a sub-block of 32 columns fit into one: its sums are taken by themselves, and
// its scale is applied to them. Other weights are split as well, and three of the four products of
// limbs count:
//
//   weight * x = high * x.high + high * x.low + low * x.high      (+ 2^-16 of it at most)
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

// Tile registers: four of sums, two of weights, two of inputs. GCC's intrinsics take literals only,
// and do not say what they read.
constexpr int kSumTiles = 4;
constexpr int kWeights = kSumTiles;
constexpr int kInputs = kWeights + 2;

template <int kTile>
inline void loadTile(const void* at) {
  __asm__ volatile("tileloadd (%1,%2), %%tmm%c0" ::"i"(kTile), "r"(at), "r"(size_t{64}) : "memory");
}
// Without a place in the nearest cache: weights come by once for some tokens, and would drive the
// inputs out, which are for all rows.
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
template <int kTile>
inline void clearTile() {
  __asm__ volatile("tilezero %%tmm%c0" ::"i"(kTile));
}
template <int kSums, int kLeft, int kRight>
inline void multiplyTiles() {
  __asm__ volatile("tdpbf16ps %%tmm%c2, %%tmm%c1, %%tmm%c0" ::"i"(kSums), "i"(kLeft), "i"(kRight));
}

// The thread's tile registers, from here on to the end of the scope.
class TileScope {
 public:
  TileScope() {
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
    __asm__ volatile("ldtilecfg %0" ::"m"(config));
  }
  ~TileScope() { __asm__ volatile("tilerelease"); }
  TileScope(const TileScope&) = delete;
  TileScope& operator=(const TileScope&) = delete;
};

// Calls call.operator()<0>() to call.operator()<kCount - 1>().
template <size_t kCount, typename Call>
[[gnu::always_inline]] inline void forEach(const Call& call) {
  if constexpr (kCount > 0) {
    forEach<kCount - 1>(call);
    call.template operator()<kCount - 1>();
  }
}

// Calls call.operator()<i, j>() for i < kFirst, j < kSecond.
template <size_t kFirst, size_t kSecond, typename Call>
[[gnu::always_inline]] inline void forEach(const Call& call) {
  forEach<kFirst>([&]<int i>() __attribute__((always_inline)) {
    forEach<kSecond>([&]<int j>()
                         __attribute__((always_inline)) { call.template operator()<i, j>(); });
  });
}

// Sums from memory, or zeros.
template <int kTile>
inline void openSums(const float (*at)[kSide], bool isFirst) {
  if (isFirst) return clearTile<kTile>();
  loadTile<kTile>(at);
}

// Inputs of sixteen tokens: for each panel of columns its tiles, the high limbs of a tile, a line
// for each token, and then the low ones; after them the sums of the tiles' inputs.
constexpr size_t kLimb = kSide * kSide;  // floats of memory for a limb of a tile
constexpr size_t kInputTile = 2 * kLimb;
constexpr size_t kInputPanel = kPanelTiles * kInputTile + kLimb;
static_assert(kTokenGroup == kSide);
static_assert(kInputPanel <= kSide * kArrangedBlock);

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

// 32 inputs as a line of high limbs at `out`, and one of low limbs.
inline void storeInputs(__m512 first, __m512 second, float* out) {
  const __m512i high = roundToBf16(first, second);
  const __m512 firstLow = _mm512_sub_ps(first, widen(_mm512_castsi512_si256(high)));
  const __m512 secondLow = _mm512_sub_ps(second, widen(_mm512_extracti64x4_epi64(high, 1)));
  _mm512_storeu_si512(out, high);
  _mm512_storeu_si512(out + kLimb, roundToBf16(firstLow, secondLow));
}

// Rows that go through the columns together: the inputs of a panel of columns stay in the core's
// caches while every sixteen rows read them.
constexpr size_t kRowsAtOnce = 256;
constexpr size_t kRowTiles = kRowsAtOnce / kSide;

using RowSums = float[kMaxBatch][kSide];  // of sixteen rows: [token][row]

// A panel of the inputs of some tiles of tokens. While some rows are multiplied with them, a part
// of those that come next is asked for: into the second-level cache, where they stay for all rows.
class Inputs {
 public:
  // Of kRowsAtOnce, `rows` of them from `row` on ask for their part of `next`.
  Inputs(const float* at, const float* next, size_t row, size_t rows, size_t tokenStride)
      : at_(at),
        next_(next + row * kRowPart),
        part_(rows * kRowPart / kPanelTiles),
        tokenStride_(kSide * tokenStride) {}

  const float* tile(size_t i, size_t tokenTile = 0) const {
    return at_ + i * kInputTile + tokenTile * tokenStride_;
  }
  void askForNext(size_t i, size_t tokenTile = 0) const {
    const float* at = next_ + i * part_ + tokenTile * tokenStride_;
    prefetch<2>(reinterpret_cast<const uint8_t*>(at), part_ * sizeof(float));
  }

 private:
  static constexpr size_t kRowPart = kPanelTiles * kInputTile / kRowsAtOnce;  // floats

  const float* at_;
  const float* next_;
  size_t part_;
  size_t tokenStride_;
};

// A panel of the weights of some rows times one of the inputs of some tokens. What comes of it is
// added to the sums, or with the first columns begins them.
template <typename Panel>
struct Step {
  const Panel* weights;  // of sixteen rows each
  size_t tiles;
  Inputs x;
  bool isFirst;
  RowSums* sums;
  size_t firstToken;
};

// Weights in limbs. Panels have [tile][limb].
template <typename Tiles>
struct LimbProduct : Tiles {
  using typename Tiles::Panel;
  static constexpr size_t kTogether = 2 * kSide;  // the most rows, and tokens, of a step

  static void arrange(const float* x, size_t cols, float* out) {
    for (size_t tile = 0; tile < tilesOf(cols); ++tile, out += kInputTile) {
      storeInputs(loadInputs(x, cols, Tiles::half(tile, 0)),
                  loadInputs(x, cols, Tiles::half(tile, 1)), out);
    }
  }

  static void multiply(const Step<Panel>& step, size_t rows, size_t tokens) {
    if (rows > kSide) {
      return tokens > kSide ? multiplyTogether<2, 2>(step) : multiplyTogether<2, 1>(step);
    }
    return tokens > kSide ? multiplyTogether<1, 2>(step) : multiplyTogether<1, 1>(step);
  }

 private:
  template <size_t kRowTiles, size_t kTokenTiles>
  static void multiplyTogether(const Step<Panel>& step) {
    forEach<kRowTiles, kTokenTiles>([&]<int r, int t>() __attribute__((always_inline)) {
      openSums<2 * r + t>(step.sums[r] + step.firstToken + t * kSide, step.isFirst);
    });
    const auto addProducts = []<int r, int t>() __attribute__((always_inline)) {
      multiplyTiles<2 * r + t, kInputs + t, kWeights + r>();
    };
    for (size_t i = 0; i < step.tiles; ++i) {
      forEach<kRowTiles>([&]<int r>() __attribute__((always_inline)) {
        streamTile<kWeights + r>(&step.weights[r].tiles[i][0]);
      });
      forEach<kTokenTiles>([&]<int t>() __attribute__((always_inline)) {
        step.x.askForNext(i, t);
        loadTile<kInputs + t>(step.x.tile(i, t) + kLimb);
        forEach<kRowTiles>([&]<int r>() __attribute__((always_inline)) {
          addProducts.template operator()<r, t>();
        });
      });
      forEach<kTokenTiles>([&]<int t>() __attribute__((always_inline)) {
        loadTile<kInputs + t>(step.x.tile(i, t));
        forEach<kRowTiles>([&]<int r>() __attribute__((always_inline)) {
          addProducts.template operator()<r, t>();
        });
      });
      if constexpr (Tiles::kLimbs > 1) {
        forEach<kRowTiles>([&]<int r>() __attribute__((always_inline)) {
          streamTile<kWeights + r>(&step.weights[r].tiles[i][1]);
          forEach<kTokenTiles>([&]<int t>() __attribute__((always_inline)) {
            addProducts.template operator()<r, t>();
          });
        });
      }
    }
    forEach<kRowTiles, kTokenTiles>([&]<int r, int t>() __attribute__((always_inline)) {
      storeTile<2 * r + t>(step.sums[r] + step.firstToken + t * kSide);
    });
  }
};

// Codes whose scales are applied to the sums of a tile.
template <typename Tiles>
struct CodeProduct : Tiles {
  using typename Tiles::Panel;
  static constexpr size_t kTogether = kSide;
  static constexpr bool kHasMinimums = requires(Panel panel) { panel.minimums; };

  static void arrange(const float* x, size_t cols, float* out) {
    alignas(64) float sums[kSide] = {};
    for (size_t tile = 0; tile < tilesOf(cols); ++tile) {
      const __m512 first = loadInputs(x, cols, tile * kTileCols);
      const __m512 second = loadInputs(x, cols, tile * kTileCols + kHalfCols);
      storeInputs(swapMiddle(first), swapMiddle(second), out + tile * kInputTile);
      sums[2 * tile] = sums[2 * tile + 1] = _mm512_reduce_add_ps(_mm512_add_ps(first, second));
    }
    if constexpr (kHasMinimums) storeSums(sums, out + kPanelTiles * kInputTile);
  }

  static void multiply(const Step<Panel>& step, size_t, size_t) {
    const Panel& weights = *step.weights;
    float(*out)[kSide] = *step.sums + step.firstToken;
    alignas(64) float parts[kSumTiles][kSide][kSide];  // [tile][token][row]
    openSums<kTotal>(out, step.isFirst);
    if constexpr (kHasMinimums) addMinimums(weights.minimums, step.x.tile(kPanelTiles));
    storeTile<kTotal>(parts[kTotal]);
    __m512 total[kSide];
#pragma GCC unroll 16
    for (size_t t = 0; t < kSide; ++t) total[t] = _mm512_load_ps(parts[kTotal][t]);
    forEach<kPanelTiles + kDelay>([&]<int i>() __attribute__((always_inline)) {
      if constexpr (i < kPanelTiles) {
        step.x.askForNext(i);
        if (i < step.tiles) sumCodes<i>(weights.codes[i], step.x.tile(i), parts[i % kSumTiles]);
      }
      if constexpr (i >= kDelay) {
        constexpr size_t kTile = i - kDelay;
        if (kTile < step.tiles) {
          addScaled(parts[kTile % kSumTiles], _mm512_load_ps(weights.scales[kTile]), total);
        }
      }
    });
#pragma GCC unroll 16
    for (size_t t = 0; t < kSide; ++t) _mm512_store_ps(out[t], total[t]);
  }

 private:
  // Tiles from a sum's beginning to its use: the tile unit takes its time.
  static constexpr int kDelay = 2;
  static constexpr int kTotal = kSumTiles - 1;  // the tile of what was there before
  static_assert(kDelay < kTotal);

  template <int kTile>
  [[gnu::always_inline]] static void sumCodes(const Tile& codes, const float* x,
                                              float (&sums)[kSide][kSide]) {
    constexpr int kSum = kTile % kSumTiles;
    constexpr int kCodes = kWeights + kTile % 2;
    clearTile<kSum>();
    streamTile<kCodes>(&codes);
    loadTile<kInputs>(x);
    multiplyTiles<kSum, kInputs, kCodes>();
    loadTile<kInputs + 1>(x + kLimb);
    multiplyTiles<kSum, kInputs + 1, kCodes>();
    storeTile<kSum>(sums);
  }

  [[gnu::always_inline]] static void addMinimums(const Tile& minimums, const float* x) {
    streamTile<kWeights>(&minimums);
    loadTile<kInputs>(x);
    multiplyTiles<kTotal, kInputs, kWeights>();
  }

  [[gnu::always_inline]] static void addScaled(const float (&sums)[kSide][kSide], __m512 scale,
                                               __m512 (&total)[kSide]) {
#pragma GCC unroll 16
    for (size_t t = 0; t < kSide; ++t) {
      total[t] = _mm512_fmadd_ps(_mm512_load_ps(sums[t]), scale, total[t]);
    }
  }

  // In every four, as a line of codes has its columns.
  static __m512 swapMiddle(__m512 x) { return _mm512_permute_ps(x, 0xd8); }

  // Lane 2s as both its high limb, lane 2s + 1 as both its low limb.
  static void storeSums(const float* sums, float* out) {
    const __m512 all = _mm512_load_ps(sums);
    const __m512i high = roundUpper(all);
    const __m512i limbs = _mm512_mask_mov_epi32(high, 0xaaaa, roundUpper(rest(all, high)));
    _mm512_storeu_si512(out, upperHalves(limbs, limbs));
  }
};

template <typename Product>
void arrange(const float* x, size_t xStride, size_t tokens, size_t cols, float* out) {
  for (size_t first = 0; first < cols; first += kPanelCols, out += kInputPanel) {
    for (size_t t = 0; t < tokens; ++t) {
      Product::arrange(x + t * xStride + first, cols - first, out + t * kSide);
    }
  }
}

// What a product works on.
template <typename Product>
struct Work {
  typename Product::Panel weights[kRowTiles];
  alignas(64) RowSums sums[kRowTiles];
  FilledPanel<Product> filled;
};

// Asks for the bytes of a panel's rows, shared out over the tokens: for the share of
// Product::kTogether from `token` on.
template <typename Product>
void askForRows(const uint8_t* at, size_t rowBytes, size_t token, size_t tokens) {
  const size_t end = token + Product::kTogether < tokens ? token + Product::kTogether : tokens;
  for (size_t r = token * Product::kTogether / tokens; r < end * Product::kTogether / tokens; ++r) {
    prefetch<2>(at + r * rowBytes, panelBytes<Product>());
  }
}

// work.sums = rows . x for up to kRowsAtOnce rows.
template <typename Product>
void multiplyRows(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                  const Batch& batch, Work<Product>& work) {
  const float* x = batch.x;
  for (size_t first = 0; first < cols; first += kPanelCols, x += kInputPanel) {
    const size_t left = cols - first;
    const bool isLast = left <= kPanelCols;
    const uint8_t* at = rows + first / kPanelCols * panelBytes<Product>();
    for (size_t r = 0; r < rowCount; r += kSide) {
      Product::make(rowsOfPanel(at + r * rowBytes, rowBytes, rowCount - r, left, work.filled),
                    tilesOf(left), work.weights[r / kSide]);
    }
    const uint8_t* nextRows = isLast ? rows + rowCount * rowBytes : at + panelBytes<Product>();
    const float* nextInputs = isLast ? batch.x : x + kInputPanel;
    for (size_t t = 0; t < batch.tokens; t += Product::kTogether) {
      const size_t token = t * batch.xStride;
      for (size_t r = 0; r < rowCount; r += Product::kTogether) {
        askForRows<Product>(nextRows + r * rowBytes, rowBytes, t, batch.tokens);
        Product::multiply(
            {.weights = work.weights + r / kSide,
             .tiles = tilesOf(left),
             .x = Inputs(x + token, nextInputs + token, r, Product::kTogether, batch.xStride),
             .isFirst = first == 0,
             .sums = work.sums + r / kSide,
             .firstToken = t},
            rowCount - r, batch.tokens - t);
      }
    }
  }
}

template <typename Product>
void gemm(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const Batch& batch) {
  static_assert(sizeof(Work<Product>) <= kBatchScratch * sizeof(float));
  const TileScope scope;
  auto& work = *reinterpret_cast<Work<Product>*>(batch.scratch);
  for (size_t first = 0; first < rowCount; first += kRowsAtOnce) {
    const size_t count = rowCount - first < kRowsAtOnce ? rowCount - first : kRowsAtOnce;
    multiplyRows(rows + first * rowBytes, rowBytes, count, cols, batch, work);
    for (size_t t = 0; t < batch.tokens; ++t) {
      float* y = batch.y + t * batch.yStride + first;
      for (size_t r = 0; r < count; r += kSide) {
        const __mmask16 lanes = firstLanes(count - r);
        const __m512 sums = _mm512_load_ps(work.sums[r / kSide][t]);
        const __m512 before = _mm512_maskz_loadu_ps(batch.adds ? lanes : __mmask16{0}, y + r);
        _mm512_mask_storeu_ps(y + r, lanes, _mm512_add_ps(before, sums));
      }
    }
  }
}

template <typename Product>
void use(KernelTable& table, size_t type) {
  table.gemm[type] = gemm<Product>;
  table.arrangeBatch[type] = arrange<Product>;
}

}  // namespace

void addTileKernels(KernelTable& table) {
  table.name = "amx";
  table.requiredFeatures |= 0x4;           // compat::kCpuAmx
  use<LimbProduct<PlainTiles>>(table, 2);  // by kiv::QuantType
  use<CodeProduct<Q80Tiles>>(table, 4);
  use<CodeProduct<Q4kTiles>>(table, 5);
  use<CodeProduct<Q5kTiles>>(table, 6);
  use<LimbProduct<SplitTiles<Q6kRows<Vector>>>>(table, 7);
}

}  // namespace qwen35
