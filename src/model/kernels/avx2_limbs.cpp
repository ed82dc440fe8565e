// Products of one token with K-quant weights where the CPU of the AVX2 tier has AVX-VNNI and GFNI
// as well (model/kernels/limb_products.h).
//
// Sixteen registers don't hold the codes of a block. So these come apart one register at a time,
// for all limbs, and every limb has a sum of its own.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/k_products.h"
#include "model/kernels/kernels.h"
#include "model/kernels/limb_products.h"

namespace qwen35 {
namespace {

inline __m128i load16(const uint8_t* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// See model/kernels/limb_products.h.
struct Limbs {
  using Float = __m256;
  using Int = __m256i;
  static constexpr size_t kWidth = 8;
  static constexpr size_t kRowsAtOnce = 2;
  static constexpr size_t kAhead = 512;
  static constexpr size_t kFirstUnit = 8;
  static const KernelTable& floats() { return kAvx2Kernels; }

  static Float load(const float* at) { return _mm256_loadu_ps(at); }
  static Float each(float value) { return _mm256_set1_ps(value); }
  static Float add(Float a, Float b) { return _mm256_add_ps(a, b); }
  static Float sub(Float a, Float b) { return _mm256_sub_ps(a, b); }
  static Float mul(Float a, Float b) { return _mm256_mul_ps(a, b); }
  static Float abs(Float a) { return _mm256_andnot_ps(each(-0.0f), a); }
  static uint32_t greater(Float a, Float b) {
    return static_cast<uint32_t>(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_GT_OQ)));
  }
  static float total(Float v) {
    __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    s = _mm_add_ps(s, _mm_movehl_ps(s, s));
    s = _mm_add_ss(s, _mm_movehdup_ps(s));
    return _mm_cvtss_f32(s);
  }

  static Int round(Float v) { return _mm256_cvtps_epi32(v); }
  static Float toFloat(Int v) { return _mm256_cvtepi32_ps(v); }
  static Int loadInts(const void* at) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(at));
  }
  static Int eachByte(int value) { return _mm256_set1_epi8(static_cast<char>(value)); }
  static Int dot(Int sums, Int codes, Int limbs) {
    return _mm256_dpbusd_avx_epi32(sums, codes, limbs);
  }
  static void store(int32_t* at, Int v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), v); }

  // Where the second limb's sum starts, which the first one's joins.
  static void storeStart(LimbBlock& block, size_t group, size_t pair, Int first, Int second) {
    const Int all = join(first, second);
    store(startOf(block.starts, group, pair), _mm256_sub_epi32(_mm256_setzero_si256(), all));
  }

  template <typename Codes, size_t kRows>
  class Rows;

 private:
  static Int join(Int first, Int second) {
    return _mm256_add_epi32(_mm256_slli_epi32(first, 8), second);
  }
  template <typename Number>
  static Number* startOf(Number* starts, size_t group, size_t pair) {
    return starts + 16 * group + 8 * pair;
  }
};

// Sums of two rows' products, or of one. A type's Codes have as well:
//
//   static constexpr size_t kPartCodes;     // registers of each group that come from a part
//   struct Part {                           // of a block, packed
//     Part(const uint8_t* block, size_t part);
//     __m256i codes(size_t group, size_t i) const;
//   };
//   template <size_t kRows> struct Heads;   // scales and minimums:
//     void decode(const uint8_t* block, size_t rowBytes, x);
//     __m256 scales(size_t r, size_t group) const;  // of the last block, times the units
//     float minimums(size_t r) const;               // times the sums, of all blocks
template <typename Codes, size_t kRows>
class Limbs::Rows {
 public:
  Rows() {
    for (__m256& sum : sums_) sum = _mm256_setzero_ps();
  }

  template <int kLevel>
  [[gnu::always_inline]] void add(const uint8_t* rows, size_t rowBytes, const LimbBlock& x,
                                  const uint8_t* next) {
    heads_.decode(rows, rowBytes, x);
    // Eight chains of sums at a time, which is what the registers hold.
    constexpr size_t kStep = kRows < 2 / Codes::kGroups ? kRows : 2 / Codes::kGroups;
#pragma GCC unroll 2
    for (size_t r = 0; r < kRows; r += kStep) {
      __m256i sums[kStep][Codes::kGroups][kLimbs];
      dot<kLevel, kStep>(r, rows + r * rowBytes, rowBytes, x, next, sums);
#pragma GCC unroll 2
      for (size_t i = 0; i < kStep; ++i) {
#pragma GCC unroll 2
        for (size_t g = 0; g < Codes::kGroups; ++g) addSums(r + i, g, sums[i][g]);
      }
    }
  }

  float product(size_t r) const { return total(sums_[r]) + heads_.minimums(r); }

 private:
  static constexpr size_t kRegisters = kBlockElements / 32;
  static constexpr size_t kPerGroup = kRegisters / Codes::kGroups;
  static constexpr size_t kParts = kPerGroup / Codes::kPartCodes;

  [[gnu::always_inline]] void addSums(size_t r, size_t g, const __m256i (&sums)[kLimbs]) {
    const __m256 upper = toFloat(join(sums[0], sums[1]));
    const __m256 lower = toFloat(join(sums[2], sums[3]));
    const __m256 all = _mm256_fmadd_ps(lower, each(0x1p-16f), upper);
    sums_[r] = _mm256_fmadd_ps(all, heads_.scales(r, g), sums_[r]);
  }

  // Sums of the products of the codes of rows, from `first` of all on, with each limb.
  template <int kLevel, size_t kSome>
  [[gnu::always_inline]] static void dot(size_t first, const uint8_t* rows, size_t rowBytes,
                                         const LimbBlock& x, const uint8_t* next,
                                         __m256i (&sums)[kSome][Codes::kGroups][kLimbs]) {
#pragma GCC unroll 2
    for (size_t r = 0; r < kSome; ++r) {
#pragma GCC unroll 2
      for (size_t g = 0; g < Codes::kGroups; ++g) {
#pragma GCC unroll 4
        for (size_t l = 0; l < kLimbs; ++l) {
          sums[r][g][l] = Codes::kCentre == 0 || l % 2 == 0 ? _mm256_setzero_si256()
                                                            : loadInts(startOf(x.starts, g, l / 2));
        }
      }
    }
    size_t step = first * kLimbs * kRegisters;
#pragma GCC unroll 8
    for (size_t p = 0; p < kParts; ++p) {
      const typename Codes::Part parts[2] = {{rows, p}, {rows + (kSome - 1) * rowBytes, p}};
#pragma GCC unroll 8
      for (size_t i = 0; i < Codes::kPartCodes; ++i) {
#pragma GCC unroll 2
        for (size_t g = 0; g < Codes::kGroups; ++g) {
          const size_t j = g * kPerGroup + p * Codes::kPartCodes + i;
          __m256i codes[kSome];
#pragma GCC unroll 2
          for (size_t r = 0; r < kSome; ++r) codes[r] = parts[r].codes(g, i);
#pragma GCC unroll 4
          for (size_t l = 0; l < kLimbs; ++l) {
            __m256i limbs = loadInts(x.limbs[l] + 32 * j);
            if constexpr (kSome > 1) __asm__("" : "+v"(limbs));  // loaded once for all rows
#pragma GCC unroll 2
            for (size_t r = 0; r < kSome; ++r) {
              sums[r][g][l] = Limbs::dot(sums[r][g][l], codes[r], limbs);
              prefetchStep<kLevel, kRows * Codes::kBytes, kRows * kLimbs * kRegisters>(
                  next, step++, sums[r][g][l]);
            }
          }
        }
      }
    }
  }

  __m256 sums_[kRows];
  typename Codes::template Heads<kRows> heads_;
};

inline __m256 bothHalves(const float* at) {
  return _mm256_broadcast_ps(reinterpret_cast<const __m128*>(at));
}

// Bytes `first` to `first` + 3 of each half, a lane each.
inline __m256 fourBytes(__m256i bytes, int first) {
  const __m256i which = _mm256_setr_epi32(0xffffff00, 0xffffff01, 0xffffff02, 0xffffff03,
                                          0xffffff00, 0xffffff01, 0xffffff02, 0xffffff03);
  return _mm256_cvtepi32_ps(
      _mm256_shuffle_epi8(bytes, _mm256_add_epi32(which, _mm256_set1_epi32(first))));
}

// Scales and minimums of Q4_K and Q5_K blocks; half a register a row.
template <size_t kRows>
struct SubBlockHeads {
  __m256 scale[2];
  __m256 offsets = _mm256_setzero_ps();

  [[gnu::always_inline]] void decode(const uint8_t* block, size_t rowBytes, const LimbBlock& x) {
    const uint8_t* last = block + (kRows - 1) * rowBytes;
    const __m256i codes = subBlockCodes(block, last);
    const __m256 factors = this->factors(block, last);
    const __m256 d = _mm256_permutevar8x32_ps(factors, _mm256_setr_epi32(0, 0, 0, 0, 2, 2, 2, 2));
    const __m256 dmin =
        _mm256_permutevar8x32_ps(factors, _mm256_setr_epi32(1, 1, 1, 1, 3, 3, 3, 3));
    const __m256 first =
        _mm256_mul_ps(_mm256_mul_ps(fourBytes(codes, 0), bothHalves(x.units + 8)), d);
    const __m256 second =
        _mm256_mul_ps(_mm256_mul_ps(fourBytes(codes, 4), bothHalves(x.units + 12)), d);
    scale[0] = _mm256_permute2f128_ps(first, second, 0x20);
    scale[1] = _mm256_permute2f128_ps(first, second, 0x31);
    __m256 sum = _mm256_mul_ps(fourBytes(codes, 8), bothHalves(x.units));
    sum = _mm256_fmadd_ps(fourBytes(codes, 12), bothHalves(x.units + 4), sum);
    offsets = _mm256_fmadd_ps(sum, dmin, offsets);
  }

  float minimums(size_t r) const {
    float lanes[8];
    _mm256_storeu_ps(lanes, offsets);
    return (lanes[4 * r] + lanes[4 * r + 1]) + (lanes[4 * r + 2] + lanes[4 * r + 3]);
  }

 private:
  // d and dmin of both rows in turn.
  static __m256 factors(const uint8_t* block, const uint8_t* last) {
    uint32_t halves[2];
    __builtin_memcpy(&halves[0], block, sizeof halves[0]);
    __builtin_memcpy(&halves[1], last, sizeof halves[1]);
    const uint64_t all = static_cast<uint64_t>(halves[1]) << 32 | halves[0];
    return _mm256_castps128_ps256(_mm_cvtph_ps(_mm_cvtsi64_si128(static_cast<long long>(all))));
  }
};

// Sixteen bytes each of a block's first half and of its second.
inline __m256i ofBothHalves(const uint8_t* first, const uint8_t* second) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(load16(first)), load16(second), 1);
}

// Half h of the nibbles of all four chunks of 32 bytes: of each chunk 16h to 16h + 7, then the
// others; lanes 2c and 2c + 1 belong to chunk c.
struct ChunkNibbles {
  __m256i nibbles[2];

  ChunkNibbles(const uint8_t* at, size_t h) {
    const __m256i even = ofBothHalves(at + 16 * h, at + 64 + 16 * h);
    const __m256i odd = ofBothHalves(at + 32 + 16 * h, at + 96 + 16 * h);
    nibbles[0] = _mm256_unpacklo_epi64(even, odd);
    nibbles[1] = _mm256_unpackhi_epi64(even, odd);
  }
};

struct Q4kLimbs : Q4kBlock {
  static constexpr size_t kGroups = 1;
  static constexpr size_t kPartCodes = 4;
  static constexpr bool kShortRowsNear = true;

  // Low nibbles in even lanes, high ones, 16 times their codes, in odd lanes. Of every two lanes
  // every second register has the other nibbles.
  static constexpr size_t element(size_t i, size_t lane) {
    return 32 * lane + 8 * (i / 2) + 4 * (lane % 2 ^ i % 2);
  }
  static constexpr float factor(size_t subBlock) { return subBlock % 2 == 0 ? 1.0f : 16.0f; }

  template <size_t kRows>
  struct Heads : SubBlockHeads<kRows> {
    __m256 scales(size_t r, size_t) const { return this->scale[r]; }
  };

  struct Part : ChunkNibbles {
    Part(const uint8_t* block, size_t p) : ChunkNibbles(block + 16, p) {}
    __m256i codes(size_t, size_t i) const {
      const __m256i lanes =
          i % 2 == 0 ? nibbles[i / 2] : _mm256_shuffle_epi32(nibbles[i / 2], 0xb1);
      return _mm256_and_si256(lanes,
                              _mm256_set1_epi64x(static_cast<long long>(0xf0f0f0f00f0f0f0fu)));
    }
  };
};

// The matrix that brings bit `from` of every byte to bit `to`, and those above it with it.
constexpr long long moveBits(int from, int to, int count) {
  uint64_t matrix = 0;
  for (int i = 0; i < count; ++i) matrix |= uint64_t{1} << (from + i + 8 * (7 - to - i));
  return static_cast<long long>(matrix);
}

inline __m256i lowNibbles(__m256i bytes) { return _mm256_and_si256(bytes, _mm256_set1_epi8(0x0f)); }
inline __m256i highNibbles(__m256i bytes) {
  return _mm256_gf2p8affine_epi64_epi8(bytes, _mm256_set1_epi64x(moveBits(4, 0, 4)), 0);
}

// Group 0 has the even sub-blocks, group 1 the odd ones, two lanes each.
struct Q5kLimbs : Q5kBlock {
  static constexpr size_t kGroups = 2;
  static constexpr size_t kPartCodes = 2;
  static constexpr bool kShortRowsNear = true;

  static constexpr size_t element(size_t i, size_t lane) {
    return 64 * (lane / 2) + 32 * (i / 4) + 8 * (i % 4) + 4 * (lane % 2);
  }
  static constexpr float factor(size_t) { return 1; }

  template <size_t kRows>
  struct Heads : SubBlockHeads<kRows> {
    __m256 scales(size_t r, size_t group) const {
      return group == 0 ? _mm256_moveldup_ps(this->scale[r]) : _mm256_movehdup_ps(this->scale[r]);
    }
  };

  struct Part : ChunkNibbles {
    const uint8_t* fifths;  // bit s of each byte is the fifth bit of sub-block s

    Part(const uint8_t* block, size_t p)
        : ChunkNibbles(block + 48, p), fifths(block + 16 + 16 * p) {}
    __m256i codes(size_t group, size_t i) const {
      const __m256i even = _mm256_setr_epi64x(moveBits(0, 4, 1), moveBits(2, 4, 1),
                                              moveBits(4, 4, 1), moveBits(6, 4, 1));
      const __m256i odd = _mm256_setr_epi64x(moveBits(1, 4, 1), moveBits(3, 4, 1),
                                             moveBits(5, 4, 1), moveBits(7, 4, 1));
      long long bytes;
      __builtin_memcpy(&bytes, fifths + 8 * i, sizeof bytes);
      const __m256i bits =
          _mm256_gf2p8affine_epi64_epi8(_mm256_set1_epi64x(bytes), group == 0 ? even : odd, 0);
      const __m256i low = group == 0 ? lowNibbles(nibbles[i]) : highNibbles(nibbles[i]);
      return _mm256_or_si256(low, bits);
    }
  };
};

// Group 0 has sub-blocks 0-3 and 8-11, whose lower bits are low nibbles, group 1 the others;
// register i of a group has codes 4i to 4i + 3 of each.
struct Q6kLimbs : Q6kBlock {
  static constexpr size_t kGroups = 2;
  static constexpr size_t kPartCodes = 4;
  static constexpr bool kShortRowsNear = true;

  static constexpr size_t element(size_t i, size_t lane) {
    return 128 * (lane / 4) + 64 * (i / 4) + 16 * (lane % 4) + 4 * (i % 4);
  }
  // Codes of scales come in the highest byte of a lane.
  static constexpr float factor(size_t) { return 0x1p24f; }

  template <size_t kRows>
  struct Heads {
    __m256 scale[kRows][2];

    [[gnu::always_inline]] void decode(const uint8_t* block, size_t rowBytes, const LimbBlock& x) {
      const __m256i lanes = _mm256_setr_epi32(0x00ffffff, 0x01ffffff, 0x02ffffff, 0x03ffffff,
                                              0x08ffffff, 0x09ffffff, 0x0affffff, 0x0bffffff);
#pragma GCC unroll 2
      for (size_t g = 0; g < 2; ++g) {
        const __m256i which = _mm256_or_si256(lanes, _mm256_set1_epi32(static_cast<int>(g << 26)));
        const __m256 units =
            _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(x.units + 4 * g)),
                                 _mm_loadu_ps(x.units + 8 + 4 * g), 1);
#pragma GCC unroll 2
        for (size_t r = 0; r < kRows; ++r) {
          const uint8_t* row = block + r * rowBytes;
          const __m256i codes =
              _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(load16(row + 192)), which);
          uint16_t half;
          __builtin_memcpy(&half, row + 208, sizeof half);
          const __m256 d = _mm256_broadcastss_ps(_mm_cvtph_ps(_mm_cvtsi32_si128(half)));
          scale[r][g] = _mm256_mul_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(codes), units), d);
        }
      }
    }
    __m256 scales(size_t r, size_t group) const { return scale[r][group]; }
    float minimums(size_t) const { return 0; }
  };

  struct Part {
    __m256i nibbles[4];  // of quarters 0 and 1, then 2 and 3; first 0-1 of their dwords, then 2-3
    __m256i upper[2];

    Part(const uint8_t* block, size_t) {
#pragma GCC unroll 2
      for (size_t q = 0; q < 2; ++q) {
        const __m256i even = ofBothHalves(block + 32 * q, block + 64 + 32 * q);
        const __m256i odd = ofBothHalves(block + 16 + 32 * q, block + 80 + 32 * q);
        nibbles[q] = _mm256_unpacklo_epi32(even, odd);
        nibbles[2 + q] = _mm256_unpackhi_epi32(even, odd);
      }
      const __m256i even = ofBothHalves(block + 128, block + 160);
      const __m256i odd = ofBothHalves(block + 144, block + 176);
      upper[0] = _mm256_unpacklo_epi32(even, odd);
      upper[1] = _mm256_unpackhi_epi32(even, odd);
    }
    // Bits 0-1 belong to the first 32 elements of a half, 2-3 to the next; then 4-5 and 6-7.
    __m256i codes(size_t group, size_t i) const {
      const __m256i lower =
          _mm256_broadcastsi128_si256(_mm_set_epi64x(moveBits(2, 4, 2), moveBits(0, 4, 2)));
      const __m256i higher =
          _mm256_broadcastsi128_si256(_mm_set_epi64x(moveBits(6, 4, 2), moveBits(4, 4, 2)));
      const size_t h = i / 2;
      const __m256i four = i % 2 == 0 ? _mm256_unpacklo_epi64(nibbles[2 * h], nibbles[2 * h + 1])
                                      : _mm256_unpackhi_epi64(nibbles[2 * h], nibbles[2 * h + 1]);
      const __m256i all =
          i % 2 == 0 ? _mm256_shuffle_epi32(upper[h], 0x44) : _mm256_shuffle_epi32(upper[h], 0xee);
      const __m256i bits = _mm256_gf2p8affine_epi64_epi8(all, group == 0 ? lower : higher, 0);
      const __m256i low = group == 0 ? lowNibbles(four) : highNibbles(four);
      return _mm256_or_si256(low, bits);
    }
  };
};

}  // namespace

void addAvx2LimbKernels(KernelTable& table) {
  useLimbs<Limbs, Q4kLimbs>(table);
  useLimbs<Limbs, Q5kLimbs>(table);
  useLimbs<Limbs, Q6kLimbs>(table);
}

}  // namespace qwen35
