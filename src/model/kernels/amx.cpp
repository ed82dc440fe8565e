// AMX tier (Linux): batched products of Q8_0, BF16 and the K-quants on the tile unit; the rest of
// the table is the AVX-512 tier's.
//
// A tile instruction adds the products of 16 tokens x 32 inputs and 32 inputs x 16 rows to 16 x 16
// sums. It takes bf16, eight significant bits. The codes of a block are small integers, which bf16
// holds exactly; an input is the sum of two bf16 limbs, sixteen bits and more. So each tile of
// codes is multiplied with two tiles of limbs into the same sums, whose scales are applied outside:
//
//   row . x = sum over sub-blocks of  scale * (codes . high + codes . low)  -  minimum * sum of x
//
// Every (row, token) pair takes the same operations in the same order whatever the number of rows
// and tokens is: a token has the same bits in every batch.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/tile_panels.h"

namespace qwen35 {
namespace {

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

  // The tile unit is a step ahead of the scales: what reads its sums at once would wait for it.
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
  // The sums of a step, and meanwhile the scales of the one before, a panel after each sum.
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
