// Products of one token with K-quant weights where the CPU of the AVX-512 tier has VNNI, VBMI,
// VBMI2 and GFNI as well: dot products of bytes take a fraction of the operations that floats do
// (model/kernels/limb_products.h).
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"
#include "model/kernels/limb_products.h"

namespace qwen35 {
namespace {

constexpr size_t kCodeRegisters = 4;  // of a block
constexpr size_t kHeadRows = 4;       // whose scales are decoded together

// See model/kernels/limb_products.h.
struct Limbs {
  using Float = __m512;
  using Int = __m512i;
  static constexpr size_t kWidth = 16;
  static constexpr size_t kRowsAtOnce = 4;
  static constexpr size_t kAhead = 4096;
  static constexpr size_t kFirstUnit = 0;
  static const KernelTable& floats() { return kAvx512Kernels; }

  static Float load(const float* at) { return _mm512_loadu_ps(at); }
  static Float each(float value) { return _mm512_set1_ps(value); }
  static Float add(Float a, Float b) { return _mm512_add_ps(a, b); }
  static Float sub(Float a, Float b) { return _mm512_sub_ps(a, b); }
  static Float mul(Float a, Float b) { return _mm512_mul_ps(a, b); }
  static Float abs(Float a) { return _mm512_abs_ps(a); }
  static uint32_t greater(Float a, Float b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
  static float total(Float v) { return _mm512_reduce_add_ps(v); }

  static Int round(Float v) { return _mm512_cvtps_epi32(v); }
  static Float toFloat(Int v) { return _mm512_cvtepi32_ps(v); }
  static Int loadInts(const void* at) { return _mm512_loadu_si512(at); }
  static Int eachByte(int value) { return _mm512_set1_epi8(static_cast<char>(value)); }
  static Int dot(Int sums, Int codes, Int limbs) { return _mm512_dpbusd_epi32(sums, codes, limbs); }
  static void store(int32_t* at, Int v) { _mm512_storeu_si512(at, v); }

  // The number and, in the highest byte, what comes in when it is shifted.
  static void storeStart(LimbBlock& block, size_t, size_t pair, Int first, Int second) {
    const Int all = _mm512_add_epi32(_mm512_slli_epi32(first, 8), second);
    const Int start = _mm512_sub_epi32(_mm512_setzero_si512(), all);
    store(block.starts + 32 * pair, _mm512_srai_epi32(start, 8));
    store(block.starts + 32 * pair + 16, _mm512_slli_epi32(start, 24));
  }

  template <typename Codes, size_t kRows>
  class Rows;
};

inline __m128i load16(const uint8_t* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

inline __m256i load32(const uint8_t* at) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

// The first 16 bytes of the blocks of four rows, or of fewer and the last of them again.
template <size_t kRows>
inline __m512i headBytes(const uint8_t* block, size_t rowBytes) {
  const auto row = [&](size_t r) { return load16(block + (r < kRows ? r : kRows - 1) * rowBytes); };
  __m512i all = _mm512_castsi128_si512(row(0));
  all = _mm512_inserti32x4(all, row(1), 1);
  all = _mm512_inserti32x4(all, row(2), 2);
  return _mm512_inserti32x4(all, row(3), 3);
}

// Scales and minimums of Q4_K and Q5_K blocks of four rows.
struct SubBlockHeads {
  float scale[kHeadRows][8];
  __m512 offsets = _mm512_setzero_ps();  // four lanes a row

  // Bytes 0-7 of each quarter scales, 8-15 minimums.
  static __m512i codes(__m512i heads) {
    // Scales and minimums 0-3 as they lie; of 4-7 the upper two bits, in bits 4 and 5.
    const __m512i first = _mm512_multishift_epi64_epi8(
        _mm512_broadcast_i32x4(
            _mm_setr_epi8(32, 40, 48, 56, 34, 42, 50, 58, 0, 8, 16, 24, 2, 10, 18, 26)),
        heads);
    const __m512i lower = _mm512_multishift_epi64_epi8(
        _mm512_broadcast_i32x4(
            _mm_setr_epi8(32, 40, 48, 56, 32, 40, 48, 56, 32, 40, 48, 56, 36, 44, 52, 60)),
        _mm512_unpackhi_epi64(heads, heads));
    const __m512i all =
        _mm512_ternarylogic_epi32(_mm512_set1_epi64(0x0f0f0f0f00000000), lower, first, 0xca);
    return _mm512_and_si512(all, _mm512_set1_epi8(0x3f));
  }

  template <size_t kRows>
  [[gnu::always_inline]] void decode(const uint8_t* block, size_t rowBytes, const LimbBlock& x) {
    const __m512i heads = headBytes<kRows>(block, rowBytes);
    const __m512i codes = this->codes(heads);
    // The halves d of the four rows, then dmin.
    const __m512i halves = _mm512_permutexvar_epi16(
        _mm512_castsi128_si512(_mm_setr_epi16(0, 8, 16, 24, 1, 9, 17, 25)), heads);
    const __m512 factors = _mm512_castps256_ps512(_mm256_cvtph_ps(_mm512_castsi512_si128(halves)));
    const __m512 units = _mm512_broadcast_f32x8(_mm256_loadu_ps(x.units));
#pragma GCC unroll 2
    for (int pair = 0; pair < (kRows > 2 ? 2 : 1); ++pair) {
      const __m512i which = _mm512_add_epi32(
          _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 16, 17, 18, 19, 20, 21, 22, 23),
          _mm512_set1_epi32(32 * pair));
      const __m512i row =
          _mm512_add_epi32(_mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1),
                           _mm512_set1_epi32(2 * pair));
      const __m512 scales =
          _mm512_cvtepi32_ps(_mm512_maskz_permutexvar_epi8(0x1111111111111111, which, codes));
      _mm512_storeu_ps(
          scale[2 * pair],
          _mm512_mul_ps(_mm512_mul_ps(_mm512_permutexvar_ps(row, factors), units), scales));
    }
    __asm__("" : "+m"(scale));  // spread by loads, which leaves the arithmetic ports alone
    const __m512i row = _mm512_setr_epi32(4, 4, 4, 4, 5, 5, 5, 5, 6, 6, 6, 6, 7, 7, 7, 7);
    const __m512i third = _mm512_broadcast_i32x4(
        _mm_setr_epi8(8, -1, -1, -1, 9, -1, -1, -1, 10, -1, -1, -1, 11, -1, -1, -1));
    const __m512i fourth = _mm512_broadcast_i32x4(
        _mm_setr_epi8(12, -1, -1, -1, 13, -1, -1, -1, 14, -1, -1, -1, 15, -1, -1, -1));
    const __m512 sums0 = _mm512_broadcast_f32x4(_mm_loadu_ps(x.units + 8));
    const __m512 sums1 = _mm512_broadcast_f32x4(_mm_loadu_ps(x.units + 12));
    __m512 sum = _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_shuffle_epi8(codes, third)), sums0);
    sum = _mm512_fmadd_ps(_mm512_cvtepi32_ps(_mm512_shuffle_epi8(codes, fourth)), sums1, sum);
    offsets = _mm512_fmadd_ps(sum, _mm512_permutexvar_ps(row, factors), offsets);
  }

  __m512 scales(size_t r) const { return _mm512_broadcast_f32x8(_mm256_loadu_ps(scale[r])); }

  float minimums(size_t r) const {
    float lanes[16];
    _mm512_storeu_ps(lanes, offsets);
    return (lanes[4 * r] + lanes[4 * r + 1]) + (lanes[4 * r + 2] + lanes[4 * r + 3]);
  }
};

// The nibbles of the four chunks of 32 bytes: eight bytes of each twice, first 0-15 of a chunk,
// then 16-31.
struct PairedNibbles {
  __m512i half[2];

  explicit PairedNibbles(const uint8_t* at) {
    __m512i first = _mm512_loadu_si512(at);
    __m512i second = _mm512_loadu_si512(at + 64);
    __asm__("" : "+v"(first), "+v"(second));  // GCC would load them twice
    half[0] = _mm512_permutex2var_epi64(first, _mm512_setr_epi64(0, 4, 8, 12, 1, 5, 9, 13), second);
    half[1] =
        _mm512_permutex2var_epi64(first, _mm512_setr_epi64(2, 6, 10, 14, 3, 7, 11, 15), second);
  }
};

struct Q4kLimbs : Q4kBlock {
  static constexpr size_t kGroups = 1;
  static constexpr bool kShortRowsNear = false;
  using Heads = SubBlockHeads;

  // Low nibbles in even lanes, high ones, 16 times their codes, in odd lanes. Of every two lanes
  // the second register of a half has the other nibbles.
  static constexpr size_t element(size_t i, size_t lane) {
    return 32 * (lane % 8) + 16 * (i / 2) + 8 * (lane / 8) + 4 * (lane % 2 ^ i % 2);
  }
  static constexpr float factor(size_t subBlock) { return subBlock % 2 == 0 ? 1.0f : 16.0f; }

  [[gnu::always_inline]] static void load(const uint8_t* block, __m512i (&codes)[4]) {
    const PairedNibbles nibbles(block + 16);
    const __m512i mask = _mm512_set1_epi64(static_cast<long long>(0xf0f0f0f00f0f0f0fu));
#pragma GCC unroll 2
    for (size_t h = 0; h < 2; ++h) {
      codes[2 * h] = _mm512_and_si512(nibbles.half[h], mask);
      codes[2 * h + 1] = _mm512_and_si512(_mm512_ror_epi64(nibbles.half[h], 32), mask);
    }
  }
};

// The matrix that brings bit `from` of every byte to bit `to`.
constexpr long long moveBit(int from, int to) {
  const uint64_t matrix = uint64_t{1} << (from + 8 * (7 - to));
  return static_cast<long long>(matrix);
}
// And the one above it as well.
constexpr long long moveTwoBits(int from, int to) {
  return moveBit(from, to) | moveBit(from + 1, to + 1);
}

// Nibbles of every byte, low or high, below bits that are nowhere else.
inline __m512i lowWith(__m512i nibbles, __m512i above) {
  return _mm512_ternarylogic_epi32(nibbles, _mm512_set1_epi8(0x0f), above, 0xea);
}
inline __m512i highWith(__m512i nibbles, __m512i above) {
  return lowWith(_mm512_srli_epi32(nibbles, 4), above);
}

struct Q5kLimbs : Q5kBlock {
  static constexpr size_t kGroups = 1;
  static constexpr bool kShortRowsNear = false;
  using Heads = SubBlockHeads;

  static constexpr size_t element(size_t i, size_t lane) {
    return 32 * (lane % 8) + 16 * (i / 2) + 8 * (lane / 8) + 4 * (i % 2);
  }
  static constexpr float factor(size_t) { return 1; }

  [[gnu::always_inline]] static void load(const uint8_t* block, __m512i (&codes)[4]) {
    const PairedNibbles nibbles(block + 48);
    const __m512i fifths = _mm512_castsi256_si512(load32(block + 16));
    // Bit 2c of each byte is the fifth bit of sub-block 2c, bit 2c + 1 that of 2c + 1.
    const __m512i even = _mm512_broadcast_i64x4(
        _mm256_setr_epi64x(moveBit(0, 4), moveBit(2, 4), moveBit(4, 4), moveBit(6, 4)));
    const __m512i odd = _mm512_broadcast_i64x4(
        _mm256_setr_epi64x(moveBit(1, 4), moveBit(3, 4), moveBit(5, 4), moveBit(7, 4)));
#pragma GCC unroll 2
    for (int h = 0; h < 2; ++h) {
      const __m512i which = h == 0 ? _mm512_setr_epi64(0, 0, 0, 0, 1, 1, 1, 1)
                                   : _mm512_setr_epi64(2, 2, 2, 2, 3, 3, 3, 3);
      const __m512i bits = _mm512_permutexvar_epi64(which, fifths);
      const __m512i low = lowWith(nibbles.half[h], _mm512_gf2p8affine_epi64_epi8(bits, even, 0));
      const __m512i high = highWith(nibbles.half[h], _mm512_gf2p8affine_epi64_epi8(bits, odd, 0));
      codes[2 * h] = _mm512_mask_shuffle_epi32(low, 0xaaaa, high, static_cast<_MM_PERM_ENUM>(0xa0));
      codes[2 * h + 1] =
          _mm512_mask_shuffle_epi32(high, 0x5555, low, static_cast<_MM_PERM_ENUM>(0xf5));
    }
  }
};

// Lane s belongs to sub-block s; register i has its codes 4i to 4i + 3.
struct Q6kLimbs : Q6kBlock {
  static constexpr size_t kGroups = 1;
  static constexpr bool kShortRowsNear = true;

  struct Heads {
    float scale[kHeadRows][16];

    template <size_t kRows>
    [[gnu::always_inline]] void decode(const uint8_t* block, size_t rowBytes, const LimbBlock& x) {
      uint64_t halves = 0;
      for (size_t r = 0; r < kRows; ++r) {
        uint16_t half;
        __builtin_memcpy(&half, block + r * rowBytes + 208, sizeof half);
        halves |= static_cast<uint64_t>(half) << (16 * r);
      }
      float d[4];
      _mm_storeu_ps(d, _mm_cvtph_ps(_mm_cvtsi64_si128(static_cast<long long>(halves))));
      __asm__("" : "+m"(d));  // spread from memory
      const __m512 units = _mm512_loadu_ps(x.units);
#pragma GCC unroll 4
      for (size_t r = 0; r < kRows; ++r) {
        const __m512i codes = _mm512_cvtepi8_epi32(load16(block + r * rowBytes + 192));
        const __m512 scaled = _mm512_mul_ps(_mm512_cvtepi32_ps(codes), units);
        _mm512_storeu_ps(scale[r], _mm512_mul_ps(scaled, _mm512_set1_ps(d[r])));
      }
    }
    __m512 scales(size_t r) const { return _mm512_loadu_ps(scale[r]); }
    float minimums(size_t) const { return 0; }
  };

  static constexpr size_t element(size_t i, size_t lane) { return 16 * lane + 4 * i; }
  static constexpr float factor(size_t) { return 1; }

  [[gnu::always_inline]] static void load(const uint8_t* block, __m512i (&codes)[4]) {
    __m512i first = _mm512_loadu_si512(block);
    __m512i second = _mm512_loadu_si512(block + 64);
    __m512i high = _mm512_loadu_si512(block + 128);
    __asm__("" : "+v"(first), "+v"(second), "+v"(high));
    // Bits 0-1 belong to the first 32 elements of a half, 2-3 to the next; then 4-5 and 6-7.
    const __m512i forLow =
        _mm512_broadcast_i32x4(_mm_set_epi64x(moveTwoBits(2, 4), moveTwoBits(0, 4)));
    const __m512i forHigh =
        _mm512_broadcast_i32x4(_mm_set_epi64x(moveTwoBits(6, 4), moveTwoBits(4, 4)));
#pragma GCC unroll 2
    for (int p = 0; p < 2; ++p) {
      // Four bytes of each of the four sub-blocks that share 64 bytes, and the next four.
      const __m512i lanes =
          p == 0 ? _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 16, 20, 24, 28, 17, 21, 25, 29)
                 : _mm512_setr_epi32(2, 6, 10, 14, 3, 7, 11, 15, 18, 22, 26, 30, 19, 23, 27, 31);
      const __m512i highLanes =
          p == 0 ? _mm512_setr_epi32(0, 4, 0, 4, 1, 5, 1, 5, 8, 12, 8, 12, 9, 13, 9, 13)
                 : _mm512_setr_epi32(2, 6, 2, 6, 3, 7, 3, 7, 10, 14, 10, 14, 11, 15, 11, 15);
      const __m512i nibbles = _mm512_permutex2var_epi32(first, lanes, second);
      const __m512i bits = _mm512_permutexvar_epi32(highLanes, high);
      const __m512i even = lowWith(nibbles, _mm512_gf2p8affine_epi64_epi8(bits, forLow, 0));
      const __m512i odd = highWith(nibbles, _mm512_gf2p8affine_epi64_epi8(bits, forHigh, 0));
      codes[2 * p] = _mm512_mask_shuffle_i32x4(even, 0xf0f0, odd, odd, 0xa0);
      codes[2 * p + 1] = _mm512_mask_shuffle_i32x4(odd, 0x0f0f, even, even, 0xf5);
    }
  }
};

// Sums of four rows' products, or fewer. A type's Codes have as well:
//
//   static void load(const uint8_t* block, __m512i (&codes)[kCodeRegisters]);
//   struct Heads;                           // scales and minimums of up to four rows:
//     template <size_t kRows> void decode(const uint8_t* block, size_t rowBytes, x);
//     __m512 scales(size_t r) const;        // of the last block, times the units
//     float minimums(size_t r) const;       // times the sums, of all blocks
template <typename Codes, size_t kRows>
class Limbs::Rows {
 public:
  Rows() {
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) upper_[r] = lower_[r] = _mm512_setzero_ps();
  }

  template <int kLevel>
  [[gnu::always_inline]] void add(const uint8_t* rows, size_t rowBytes, const LimbBlock& x,
                                  const uint8_t* next) {
    heads_.template decode<kRows>(rows, rowBytes, x);
    __m512i sums[kRows][2];
    dot<kLevel>(rows, rowBytes, x, next, sums);
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      const __m512 scales = heads_.scales(r);
      upper_[r] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(sums[r][0]), scales, upper_[r]);
      lower_[r] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(sums[r][1]), scales, lower_[r]);
    }
  }

  float product(size_t r) const {
    const __m512 all = _mm512_fmadd_ps(lower_[r], _mm512_set1_ps(0x1p-16f), upper_[r]);
    return _mm512_reduce_add_ps(all) + heads_.minimums(r);
  }

 private:
  // Sums of the products of each row's codes with pairs of limbs, the first of a pair times 256: of
  // the upper two and the lower two. Taking turns keeps 2 * kRows chains of sums going.
  template <int kLevel>
  [[gnu::always_inline]] static void dot(const uint8_t* rows, size_t rowBytes, const LimbBlock& x,
                                         const uint8_t* next, __m512i (&sums)[kRows][2]) {
    __m512i codes[kRows][kCodeRegisters];
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      Codes::load(rows + r * rowBytes, codes[r]);
      for (size_t pair = 0; pair < 2; ++pair) {
        sums[r][pair] = Codes::kCentre == 0 ? _mm512_setzero_si512() : start(x, pair, 0);
      }
    }
    addLimbs<kLevel>(codes, x, 0, next, sums);
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) {
      for (size_t pair = 0; pair < 2; ++pair) {
        if constexpr (Codes::kCentre == 0) {
          sums[r][pair] = _mm512_slli_epi32(sums[r][pair], 8);
        } else {
          sums[r][pair] = _mm512_shldi_epi32(sums[r][pair], start(x, pair, 1), 8);
        }
      }
    }
    addLimbs<kLevel>(codes, x, 1, next, sums);
  }

  // See Limbs::storeStart.
  static __m512i start(const LimbBlock& x, size_t pair, size_t part) {
    return Limbs::loadInts(x.starts + 32 * pair + 16 * part);
  }

  template <int kLevel>
  [[gnu::always_inline]] static void addLimbs(const __m512i (&codes)[kRows][kCodeRegisters],
                                              const LimbBlock& x, size_t limb, const uint8_t* next,
                                              __m512i (&sums)[kRows][2]) {
#pragma GCC unroll 4
    for (size_t i = 0; i < kCodeRegisters; ++i) {
#pragma GCC unroll 2
      for (size_t pair = 0; pair < 2; ++pair) {
        __m512i limbs = Limbs::loadInts(x.limbs[2 * pair + limb] + 64 * i);
        __asm__("" : "+v"(limbs));  // loaded once for all rows
#pragma GCC unroll 4
        for (size_t r = 0; r < kRows; ++r) {
          sums[r][pair] = Limbs::dot(sums[r][pair], codes[r][i], limbs);
        }
        constexpr size_t kSteps = 2 * 2 * kCodeRegisters;
        prefetchStep<kLevel, kRows * Codes::kBytes, kSteps>(next, 8 * limb + 2 * i + pair,
                                                            sums[0][pair]);
      }
    }
  }

  __m512 upper_[kRows];
  __m512 lower_[kRows];
  typename Codes::Heads heads_;
};

}  // namespace

void addAvx512LimbKernels(KernelTable& table) {
  useLimbs<Limbs, Q4kLimbs>(table);
  useLimbs<Limbs, Q5kLimbs>(table);
  useLimbs<Limbs, Q6kLimbs>(table);
}

}  // namespace qwen35
