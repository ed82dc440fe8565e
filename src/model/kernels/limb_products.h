// Products of one token with K-quant weights in integers, for the tier that has dot products of
// bytes. An input becomes a whole number of 32 bits times a power of two that its sub-block has in
// common, and is cut into four limbs of eight bits. What codes and limbs give is exact:
//
//   row . x = sum over blocks of  scales * units . (codes . limbs)  -  minimums . sums
//
// Sixteen times four codes fill a register. A lane of it belongs to one sub-block, the same one in
// all registers of a block, so that a block has a single pair of sums: of the upper two limbs and
// of the lower two.
//
// A block whose inputs differ too much in magnitude for that, or are not finite, is left to the
// AVX-512 tier's own kernel, in floats.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Codes {                            // of one type
//     static constexpr size_t kType;          // kiv::QuantType
//     static constexpr size_t kBytes;         // of a block in the file
//     static constexpr size_t kSubBlocks;     // 8, which have minimums as well, or 16
//     static constexpr int kCentre;           // the code of zero
//     static constexpr bool kShortRowsNear;   // asked for into the first-level cache
//     static constexpr size_t element(size_t i, size_t lane);  // first of four in a row
//     static constexpr float factor(size_t subBlock);          // what its codes are multiplied by
//     static void load(const uint8_t* block, __m512i (&codes)[kCodeRegisters]);
//     struct Heads;                           // scales and minimums of up to four rows:
//       template <size_t kRows> void decode(const uint8_t* block, size_t rowBytes, x);
//       __m512 scales(size_t r) const;        // of the last block, times the units
//       float minimums(size_t r) const;       // times the sums, of all blocks
//   };
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kBlockElements = 256;
constexpr size_t kCodeRegisters = 4;  // of a block
constexpr size_t kLimbs = 4;
constexpr size_t kHeadRows = 4;  // whose scales are decoded together

// The inputs of a block in arranged form. Where they don't fit into limbs, it has what the AVX-512
// tier makes of them instead, which has zeros for units.
struct LimbBlock {
  int8_t limbs[kLimbs][kCodeRegisters][64];  // the most significant first
  // Of each sub-block, times 2^16; with eight of them, minus the sums of their inputs behind.
  float units[16];
  // What the sums of a pair of limbs start from so that codes count from their centre: the number,
  // and in the highest byte what comes in when it is shifted.
  int32_t centre[2][2][16];

  bool isFloats() const { return units[0] == 0; }
};
static_assert(sizeof(LimbBlock) == kArrangedBlock * sizeof(float));

inline __m512i loadInts(const void* at) { return _mm512_loadu_si512(at); }

template <typename Codes>
class LimbInputs {
 public:
  static void arrange(const float* x, size_t cols, float* out) {
    for (; cols >= kBlockElements; cols -= kBlockElements) {
      auto& block = *reinterpret_cast<LimbBlock*>(out);
      alignas(64) int32_t limbs[kBlockElements];  // four to a lane, as signed bytes
      if (split(x, limbs, block)) {
        spread(limbs, block);
        if constexpr (Codes::kCentre != 0) centre(block);
      } else {
        kAvx512Kernels.arrange[Codes::kType](x, kBlockElements, out);
      }
      x += kBlockElements;
      out += kArrangedBlock;
    }
  }

 private:
  static constexpr size_t kPart = kBlockElements / Codes::kSubBlocks;

  // False where 32 bits would not leave every input sixteen significant ones.
  static bool split(const float* x, int32_t* limbs, LimbBlock& out) {
    for (size_t s = 0; s < Codes::kSubBlocks; ++s, x += kPart, limbs += kPart) {
      float perUnit;
      if (!findUnit(x, perUnit, out.units[s])) return false;
      out.units[s] /= Codes::factor(s);
      __m512 sum = _mm512_setzero_ps();
      for (size_t i = 0; i < kPart; i += 16) {
        const __m512 input = _mm512_loadu_ps(x + i);
        const __m512 scaled = _mm512_mul_ps(input, _mm512_set1_ps(perUnit));
        const __m512i whole = _mm512_cvtps_epi32(scaled);
        const __m512 error = _mm512_abs_ps(_mm512_sub_ps(_mm512_cvtepi32_ps(whole), scaled));
        const __m512 bound = _mm512_mul_ps(_mm512_abs_ps(scaled), _mm512_set1_ps(0x1p-16f));
        if (_mm512_cmp_ps_mask(error, bound, _CMP_GT_OQ) != 0) return false;
        // Every byte but the highest is made signed, at the expense of the one above.
        const __m512i half = _mm512_set1_epi32(0x00808080);
        _mm512_storeu_si512(limbs + i, _mm512_xor_si512(_mm512_add_epi32(whole, half), half));
        sum = _mm512_add_ps(sum, input);
      }
      if constexpr (Codes::kSubBlocks == 8) out.units[8 + s] = -_mm512_reduce_add_ps(sum);
    }
    return true;
  }

  // A power of two that leaves the largest of the inputs 30 or 31 bits and a sign; false where
  // floats could not hold what comes of it.
  static bool findUnit(const float* x, float& perUnit, float& unit) {
    __m512 top = _mm512_setzero_ps();
    for (size_t i = 0; i < kPart; i += 16) {
      const __m512 magnitude = _mm512_abs_ps(_mm512_loadu_ps(x + i));
      // Not a number, too.
      if (_mm512_cmp_ps_mask(magnitude, _mm512_set1_ps(0x1p60f), _CMP_NLT_UQ) != 0) return false;
      top = _mm512_max_ps(top, magnitude);
    }
    const float most = _mm512_reduce_max_ps(top);
    perUnit = 0;
    unit = 1;
    if (most == 0) return true;
    if (most < 0x1p-60f) return false;
    uint32_t bits;
    __builtin_memcpy(&bits, &most, sizeof bits);
    // Beyond 0x7f7f7f7f units, 24 bits of which are 0x7f7f7f, the highest byte would overflow.
    const uint32_t exponent = (bits >> 23) + ((bits & 0x7fffff) > 0x7efefe ? 1 : 0);
    perUnit = powerOfTwo(30 - static_cast<int>(exponent - 127));
    unit = powerOfTwo(static_cast<int>(exponent - 127) - 30 + 16);
    return true;
  }

  static float powerOfTwo(int exponent) {
    const uint32_t bits = static_cast<uint32_t>(127 + exponent) << 23;
    float power;
    __builtin_memcpy(&power, &bits, sizeof power);
    return power;
  }

  static void spread(const int32_t* limbs, LimbBlock& out) {
    const __m128i byLimb = _mm_setr_epi8(3, 7, 11, 15, 2, 6, 10, 14, 1, 5, 9, 13, 0, 4, 8, 12);
    for (size_t i = 0; i < kCodeRegisters; ++i) {
      for (size_t lane = 0; lane < 16; ++lane) {
        const int32_t* from = limbs + Codes::element(i, lane);
        const __m128i four = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        alignas(16) int32_t parts[kLimbs];
        _mm_store_si128(reinterpret_cast<__m128i*>(parts), _mm_shuffle_epi8(four, byLimb));
        for (size_t l = 0; l < kLimbs; ++l) {
          __builtin_memcpy(out.limbs[l][i] + 4 * lane, &parts[l], sizeof parts[l]);
        }
      }
    }
  }

  static void centre(LimbBlock& out) {
    const __m512i codes = _mm512_set1_epi8(Codes::kCentre);
    for (size_t pair = 0; pair < 2; ++pair) {
      __m512i sums[2] = {_mm512_setzero_si512(), _mm512_setzero_si512()};
      for (size_t i = 0; i < kCodeRegisters; ++i) {
        for (size_t l = 0; l < 2; ++l) {
          sums[l] = _mm512_dpbusd_epi32(sums[l], codes, loadInts(out.limbs[2 * pair + l][i]));
        }
      }
      const __m512i all = _mm512_add_epi32(_mm512_slli_epi32(sums[0], 8), sums[1]);
      const __m512i start = _mm512_sub_epi32(_mm512_setzero_si512(), all);
      _mm512_storeu_si512(out.centre[pair][0], _mm512_srai_epi32(start, 8));
      _mm512_storeu_si512(out.centre[pair][1], _mm512_slli_epi32(start, 24));
    }
  }
};

// As prefetchPart of model/kernels/prefetch.h, between integers.
template <int kLevel, size_t kBytes, size_t kSteps>
[[gnu::always_inline]] inline void prefetchStep(const uint8_t* at, size_t step, __m512i& work) {
  constexpr size_t kLines = (kBytes + 63) / 64;
  for (size_t line = kLines * step / kSteps; line < kLines * (step + 1) / kSteps; ++line) {
    if constexpr (kLevel == 3) {
      __asm__ volatile("prefetcht0 %1" : "+v"(work) : "m"(at[64 * line]));
    } else {
      static_assert(kLevel == 2);
      __asm__ volatile("prefetcht1 %1" : "+v"(work) : "m"(at[64 * line]));
    }
  }
}

template <typename Codes>
class LimbProducts {
 public:
  static void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const float* x, float* y) {
    if (Codes::kShortRowsNear && kRowsAtOnce * rowBytes <= kNearBytes) {
      dotGroups<3>(rows, rowBytes, rowCount, cols, x, y);
    } else {
      dotGroups<2>(rows, rowBytes, rowCount, cols, x, y);
    }
    for (; cols >= kBlockElements; cols -= kBlockElements, x += kArrangedBlock) {
      if (reinterpret_cast<const LimbBlock*>(x)->isFloats()) {
        kAvx512Kernels.gemv[Codes::kType](rows, rowBytes, rowCount, kBlockElements, x, y);
      }
      rows += Codes::kBytes;
    }
  }

 private:
  static constexpr size_t kRowsAtOnce = 4;
  static constexpr size_t kNearBytes = 16 * 1024;
  static constexpr size_t kAhead = 4096;  // bytes beyond the next rows' that are asked for

  template <int kLevel>
  static void dotGroups(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                        const float* x, float* y) {
    size_t r = 0;
    for (; r + kRowsAtOnce <= rowCount; r += kRowsAtOnce) {
      dotRows<kRowsAtOnce, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
    }
    for (; r < rowCount; ++r) dotRows<1, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
  }

  // y[r] += row r . x for kRows rows that share every load of x, but for the blocks in floats.
  template <size_t kRows, int kLevel>
  static void dotRows(const uint8_t* rows, size_t rowBytes, size_t cols, const float* x, float* y) {
    __m512 upper[kRows];
    __m512 lower[kRows];
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) upper[r] = lower[r] = _mm512_setzero_ps();
    typename Codes::Heads heads;
    const uint8_t* next = rows + kRows * rowBytes + kAhead;
    for (; cols >= kBlockElements; cols -= kBlockElements, x += kArrangedBlock) {
      const auto& block = *reinterpret_cast<const LimbBlock*>(x);
      if (!block.isFloats()) [[likely]] {
        heads.template decode<kRows>(rows, rowBytes, block);
        __m512i sums[kRows][2];
        dot<kRows, kLevel>(rows, rowBytes, block, next, sums);
#pragma GCC unroll 4
        for (size_t r = 0; r < kRows; ++r) {
          const __m512 scales = heads.scales(r);
          upper[r] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(sums[r][0]), scales, upper[r]);
          lower[r] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(sums[r][1]), scales, lower[r]);
        }
      }
      rows += Codes::kBytes;
      next += kRows * Codes::kBytes;
    }
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      const __m512 all = _mm512_fmadd_ps(lower[r], _mm512_set1_ps(0x1p-16f), upper[r]);
      y[r] += _mm512_reduce_add_ps(all) + heads.minimums(r);
    }
  }

  // Sums of the products of each row's codes with pairs of limbs, the first of a pair times 256: of
  // the upper two and the lower two. Taking turns keeps 2 * kRows chains of sums going.
  template <size_t kRows, int kLevel>
  [[gnu::always_inline]] static void dot(const uint8_t* rows, size_t rowBytes, const LimbBlock& x,
                                         const uint8_t* next, __m512i (&sums)[kRows][2]) {
    __m512i codes[kRows][kCodeRegisters];
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      Codes::load(rows + r * rowBytes, codes[r]);
      for (size_t pair = 0; pair < 2; ++pair) {
        sums[r][pair] = Codes::kCentre == 0 ? _mm512_setzero_si512() : loadInts(x.centre[pair][0]);
      }
    }
    addLimbs<kRows, kLevel>(codes, x, 0, next, sums);
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      for (size_t pair = 0; pair < 2; ++pair) {
        if constexpr (Codes::kCentre == 0) {
          sums[r][pair] = _mm512_slli_epi32(sums[r][pair], 8);
        } else {
          sums[r][pair] = _mm512_shldi_epi32(sums[r][pair], loadInts(x.centre[pair][1]), 8);
        }
      }
    }
    addLimbs<kRows, kLevel>(codes, x, 1, next, sums);
  }

  template <size_t kRows, int kLevel>
  [[gnu::always_inline]] static void addLimbs(const __m512i (&codes)[kRows][kCodeRegisters],
                                              const LimbBlock& x, size_t limb, const uint8_t* next,
                                              __m512i (&sums)[kRows][2]) {
#pragma GCC unroll 4
    for (size_t i = 0; i < kCodeRegisters; ++i) {
#pragma GCC unroll 2
      for (size_t pair = 0; pair < 2; ++pair) {
        __m512i limbs = loadInts(x.limbs[2 * pair + limb][i]);
        __asm__("" : "+v"(limbs));  // loaded once for all rows
#pragma GCC unroll 4
        for (size_t r = 0; r < kRows; ++r) {
          sums[r][pair] = _mm512_dpbusd_epi32(sums[r][pair], codes[r][i], limbs);
        }
        constexpr size_t kSteps = 2 * 2 * kCodeRegisters;
        prefetchStep<kLevel, kRows * Codes::kBytes, kSteps>(next, 8 * limb + 2 * i + pair,
                                                            sums[0][pair]);
      }
    }
  }
};

}  // namespace
}  // namespace qwen35
