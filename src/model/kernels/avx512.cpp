// AVX-512 (F, BW, VL, DQ) tier.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/delta_rule.h"
#include "model/kernels/k_products.h"
#include "model/kernels/kernels.h"
#include "model/kernels/plain_products.h"
#include "model/kernels/products.h"
#include "model/kernels/vector_avx512.h"

namespace qwen35 {
namespace {

constexpr size_t kWidth = 16;  // floats of one register

inline float halfAt(const uint8_t* at) {
  uint16_t bits;
  __builtin_memcpy(&bits, at, sizeof bits);
  return _cvtsh_ss(bits);
}

inline __m128i load16(const uint8_t* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

inline __m256i load32(const uint8_t* at) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

inline __mmask16 firstLanes(size_t n) { return static_cast<__mmask16>((1u << n) - 1); }

// Decoders (model/kernels/plain_products.h). Weights, or codes, are exact.

struct F32Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 16;
  static constexpr size_t kBytes = 64;
  static constexpr size_t kElementBytes = 4;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    use(0, _mm512_loadu_ps(block));
  }
};

struct Bf16Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 16;
  static constexpr size_t kBytes = 32;
  static constexpr size_t kElementBytes = 2;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    const __m512i lanes = _mm512_cvtepu16_epi32(load32(block));
    use(0, _mm512_castsi512_ps(_mm512_slli_epi32(lanes, 16)));
  }
};

struct Q80Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 32;
  static constexpr size_t kBytes = 34;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    for (size_t i = 0; i < 2; ++i) {
      use(i, _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(block + 2 + 16 * i))));
    }
  }
  __m512 factor() const {
    uint16_t half;
    __builtin_memcpy(&half, block, sizeof half);
    // Spread before it is converted: an operation less than the other way round.
    return _mm512_cvtph_ps(_mm256_set1_epi16(static_cast<short>(half)));
  }
};

// K-quants (model/kernels/k_products.h).

// Byte b of every lane, less kCentre, as a float that is too large by 2^(8b), the highest one as it
// is.
template <int kCentre>
inline __m512 byteOfLanes(__m512i lanes, size_t b) {
  lanes = b == 3 ? _mm512_srli_epi32(lanes, 24)
                 : _mm512_and_si512(lanes, _mm512_set1_epi32(0xff << (8 * b)));
  if constexpr (kCentre != 0) {
    lanes = _mm512_sub_epi32(lanes, _mm512_set1_epi32(b == 3 ? kCentre : kCentre << (8 * b)));
  }
  return _mm512_cvtepi32_ps(lanes);
}
constexpr size_t byteShift(size_t b) { return b == 3 ? 0 : 8 * b; }

// Bits of `a` where `mask` is set, of `b` elsewhere.
inline __m512i select(__m512i mask, __m512i a, __m512i b) {
  return _mm512_ternarylogic_epi32(mask, a, b, 0xca);
}

// Scales and minimums of a Q4_K or Q5_K block. Sub-blocks 2c + g, c = 0..3, share the registers of
// group g, four lanes each.
struct SubBlocks {
  static constexpr size_t kGroups = 2;
  static constexpr size_t kMinimums = 8;
  static constexpr size_t kFirstMinimum = 8;

  __m512 scales;  // lanes 0-7; minimums in lanes 8-15

  SubBlocks(const uint8_t* block, __m128i codes) {
    const __m512i which = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
    const __m512 factors = _mm512_castps128_ps512(superScales(block));
    scales = _mm512_mul_ps(_mm512_permutexvar_ps(which, factors),
                           _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(codes)));
  }
  __m512 scale(size_t group) const {
    const __m512i even = _mm512_setr_epi32(0, 0, 0, 0, 2, 2, 2, 2, 4, 4, 4, 4, 6, 6, 6, 6);
    const __m512i odd = _mm512_setr_epi32(1, 1, 1, 1, 3, 3, 3, 3, 5, 5, 5, 5, 7, 7, 7, 7);
    return _mm512_permutexvar_ps(group == 0 ? even : odd, scales);
  }
  __m512 minimums(size_t) const { return scales; }

  // Byte b of half v (16 bytes of the 32 that sub-blocks 2c and 2c + 1 share), lane 4c + i.
  static constexpr size_t element(size_t group, size_t v, size_t b, size_t lane) {
    return 32 * (lane / 4 * 2 + group) + 16 * v + 4 * (lane % 4) + b;
  }
};

// The nibbles of the four chunks of 32 bytes: first halves, then second halves.
struct Nibbles {
  __m512i half[2];

  explicit Nibbles(const uint8_t* at) {
    const __m512i first = _mm512_loadu_si512(at);
    const __m512i second = _mm512_loadu_si512(at + 64);
    half[0] = _mm512_shuffle_i32x4(first, second, 0x88);
    half[1] = _mm512_shuffle_i32x4(first, second, 0xdd);
  }
};

// The number in the lowest four, or five, bits of every lane, looked up: a mask less.
inline __m512 lowestFourBits(__m512i lanes) {
  return _mm512_permutexvar_ps(
      lanes, _mm512_setr_ps(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
}
inline __m512 lowestFiveBits(__m512i lanes) {
  return _mm512_permutex2var_ps(
      _mm512_setr_ps(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15), lanes,
      _mm512_setr_ps(16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31));
}

struct Q4k : SubBlocks {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 144;
  static constexpr size_t kRowsAtOnce = 4;

  Nibbles nibbles;

  Q4k(const uint8_t* block, __m128i codes) : SubBlocks(block, codes), nibbles(block + 16) {}

  static constexpr size_t bit(size_t j) { return 8 * (j % 4) + 4 * (j / 8); }
  static constexpr Place place(size_t j, size_t lane) {
    return {element(j / 8, j % 8 / 4, j % 4, lane), bit(j) == 28 ? 0 : bit(j)};
  }
  __m512 codes(size_t j) const {
    const __m512i lanes = nibbles.half[j % 8 / 4];
    if (bit(j) == 0) return lowestFourBits(lanes);
    return _mm512_cvtepi32_ps(bit(j) == 28
                                  ? _mm512_srli_epi32(lanes, 28)
                                  : _mm512_and_si512(lanes, _mm512_set1_epi32(0x0f << bit(j))));
  }
};

struct Q5k : SubBlocks {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 176;
  static constexpr size_t kRowsAtOnce = 4;

  __m512i bytes[kGroups][2];

  Q5k(const uint8_t* block, __m128i codes) : SubBlocks(block, codes) {
    const Nibbles nibbles(block + 48);
    for (size_t v = 0; v < 2; ++v) {
      // Bit 2c + g of each byte is the fifth bit of sub-block 2c + g; it goes to bit 4.
      const __m512i fifths = _mm512_broadcast_i32x4(load16(block + 16 + 16 * v));
      const __m512i even = _mm512_setr_epi32(4, 4, 4, 4, 2, 2, 2, 2, 0, 0, 0, 0, 30, 30, 30, 30);
      const __m512i odd = _mm512_setr_epi32(3, 3, 3, 3, 1, 1, 1, 1, 31, 31, 31, 31, 29, 29, 29, 29);
      bytes[0][v] = join(nibbles.half[v], _mm512_rolv_epi32(fifths, even));
      bytes[1][v] = join(_mm512_srli_epi32(nibbles.half[v], 4), _mm512_rolv_epi32(fifths, odd));
    }
  }

  static constexpr Place place(size_t j, size_t lane) {
    return {element(j / 8, j % 8 / 4, j % 4, lane), byteShift(j % 4)};
  }
  __m512 codes(size_t j) const {
    const __m512i lanes = bytes[j / 8][j % 8 / 4];
    return j % 4 == 0 ? lowestFiveBits(lanes) : byteOfLanes<0>(lanes, j % 4);
  }

 private:
  static __m512i join(__m512i nibbles, __m512i fifthAtBit4) {
    return _mm512_and_si512(select(_mm512_set1_epi8(0x0f), nibbles, fifthAtBit4),
                            _mm512_set1_epi8(0x1f));
  }
};

// Group r holds elements 64 r .. 64 r + 63 in order, four to a lane.
struct Q6k {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 210;
  static constexpr size_t kGroups = 4;
  static constexpr size_t kMinimums = 0;
  static constexpr size_t kFirstMinimum = 0;
  static constexpr size_t kRowsAtOnce = 4;

  __m512i bytes[kGroups];
  __m512 scales;

  explicit Q6k(const uint8_t* block) {
    for (size_t h = 0; h < 2; ++h) {
      const __m512i nibbles = _mm512_loadu_si512(block + 64 * h);
      // Bits 0-1 belong to the first 32 elements of a half, 2-3 to the next; then 4-5 and 6-7.
      const __m512i high = _mm512_broadcast_i64x4(load32(block + 128 + 32 * h));
      bytes[2 * h] = join(nibbles, _mm512_rolv_epi32(high, halves(4, 2)));
      bytes[2 * h + 1] =
          join(_mm512_srli_epi32(nibbles, 4), _mm512_rolv_epi32(high, halves(0, 30)));
    }
    scales = _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(block + 192))),
                           _mm512_set1_ps(halfAt(block + 208)));
  }

  static constexpr Place place(size_t j, size_t lane) {
    return {64 * (j / 4) + 4 * lane + j % 4, byteShift(j % 4)};
  }
  __m512 codes(size_t j) const { return byteOfLanes<32>(bytes[j / 4], j % 4); }
  __m512 scale(size_t group) const {
    const __m512i first = _mm512_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3);
    const __m512i lanes = _mm512_add_epi32(first, _mm512_set1_epi32(static_cast<int>(4 * group)));
    return _mm512_permutexvar_ps(lanes, scales);
  }

 private:
  static __m512i halves(int low, int high) {
    return _mm512_inserti64x4(_mm512_set1_epi32(low), _mm256_set1_epi32(high), 1);
  }
  static __m512i join(__m512i nibbles, __m512i highAtBit4) {
    return _mm512_and_si512(select(_mm512_set1_epi8(0x0f), nibbles, highAtBit4),
                            _mm512_set1_epi8(0x3f));
  }
};

float dot(const float* a, const float* b, size_t n) {
  float result = 0;
  PlainProducts<F32Decoder>::dotRows<1, 2>(reinterpret_cast<const uint8_t*>(a), 0, n, b, &result);
  return result;
}

// e^x to about one unit in the last place; NaN stays NaN, overflow gives infinity.
inline __m512 exp512(__m512 x) {
  // The bound comes first: min and max return the second operand when one is NaN.
  x = _mm512_min_ps(_mm512_set1_ps(89.0f), x);
  x = _mm512_max_ps(_mm512_set1_ps(-104.0f), x);
  const __m512 n = _mm512_roundscale_ps(_mm512_mul_ps(x, _mm512_set1_ps(1.44269504f)),
                                        _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  // ln 2 in two parts, the first of few enough bits that n times it is exact.
  __m512 r = _mm512_fnmadd_ps(n, _mm512_set1_ps(0.693359375f), x);
  r = _mm512_fnmadd_ps(n, _mm512_set1_ps(-2.12194440e-4f), r);
  __m512 p = _mm512_set1_ps(1.9875691500e-4f);
  p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(1.3981999507e-3f));
  p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(8.3334519073e-3f));
  p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(4.1665795894e-2f));
  p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(1.6666665459e-1f));
  p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(5.0000001201e-1f));
  p = _mm512_fmadd_ps(_mm512_mul_ps(p, r), r, _mm512_add_ps(r, _mm512_set1_ps(1.0f)));
  return _mm512_scalef_ps(p, n);
}

inline __m512 onePlusExpMinus(__m512 x) {
  return _mm512_add_ps(exp512(_mm512_sub_ps(_mm512_setzero_ps(), x)), _mm512_set1_ps(1.0f));
}

void silu(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; i += kWidth) {
    const __mmask16 lanes = n - i < kWidth ? firstLanes(n - i) : firstLanes(kWidth);
    const __m512 v = _mm512_maskz_loadu_ps(lanes, x + i);
    _mm512_mask_storeu_ps(out + i, lanes, _mm512_div_ps(v, onePlusExpMinus(v)));
  }
}

void sigmoid(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; i += kWidth) {
    const __mmask16 lanes = n - i < kWidth ? firstLanes(n - i) : firstLanes(kWidth);
    const __m512 v = _mm512_maskz_loadu_ps(lanes, x + i);
    _mm512_mask_storeu_ps(out + i, lanes, _mm512_div_ps(_mm512_set1_ps(1.0f), onePlusExpMinus(v)));
  }
}

// Replaces the scores of one head by exp(score - maximum).
void softmaxRun(float* scores, size_t count, float& maximum, float& sum) {
  __m512 top = _mm512_set1_ps(-1e30f);
  for (size_t t = 0; t < count; t += kWidth) {
    const __mmask16 lanes = count - t < kWidth ? firstLanes(count - t) : firstLanes(kWidth);
    top = _mm512_mask_max_ps(top, lanes, _mm512_maskz_loadu_ps(lanes, scores + t), top);
  }
  maximum = _mm512_reduce_max_ps(top);
  __m512 weightSum = _mm512_setzero_ps();
  for (size_t t = 0; t < count; t += kWidth) {
    const __mmask16 lanes = count - t < kWidth ? firstLanes(count - t) : firstLanes(kWidth);
    const __m512 s = _mm512_maskz_loadu_ps(lanes, scores + t);
    const __m512 weight = exp512(_mm512_sub_ps(s, _mm512_set1_ps(maximum)));
    _mm512_mask_storeu_ps(scores + t, lanes, weight);
    weightSum = _mm512_mask_add_ps(weightSum, lanes, weightSum, weight);
  }
  sum = _mm512_reduce_add_ps(weightSum);
}

// The weighted sum of the values, 64 elements of every head at a time: each value is read once.
void sumValues(const AttentionRun& run, const float (*weights)[kAttentionRun],
               AttentionPart& part) {
  constexpr size_t kRegisters = 4;
  for (size_t d = 0; d < kHeadSize; d += kWidth * kRegisters) {
    __m512 acc[kGroupHeads][kRegisters] = {};
    for (size_t t = 0; t < run.count; ++t) {
      const float* value = run.values + t * kHeadSize + d;
      for (size_t j = 0; j < kRegisters; ++j) {
        const __m512 v = _mm512_loadu_ps(value + kWidth * j);
        for (size_t h = 0; h < kGroupHeads; ++h) {
          acc[h][j] = _mm512_fmadd_ps(_mm512_set1_ps(weights[h][t]), v, acc[h][j]);
        }
      }
    }
    for (size_t h = 0; h < kGroupHeads; ++h) {
      for (size_t j = 0; j < kRegisters; ++j) {
        _mm512_storeu_ps(part.weighted[h] + d + kWidth * j, acc[h][j]);
      }
    }
  }
}

void attend(const AttentionRun& run, AttentionPart& part) {
  alignas(64) float scores[kGroupHeads][kAttentionRun];
  for (size_t t = 0; t < run.count; ++t) {
    const float* key = run.keys + t * kHeadSize;
    __m512 acc[kGroupHeads] = {};
    for (size_t d = 0; d < kHeadSize; d += kWidth) {
      const __m512 k = _mm512_loadu_ps(key + d);
      for (size_t h = 0; h < kGroupHeads; ++h) {
        acc[h] = _mm512_fmadd_ps(_mm512_loadu_ps(run.queries + h * kHeadSize + d), k, acc[h]);
      }
    }
    for (size_t h = 0; h < kGroupHeads; ++h) {
      scores[h][t] = run.scale * _mm512_reduce_add_ps(acc[h]);
    }
  }
  for (size_t h = 0; h < kGroupHeads; ++h) {
    softmaxRun(scores[h], run.count, part.maximum[h], part.sum[h]);
  }
  sumValues(run, scores, part);
}

}  // namespace

const KernelTable kAvx512Kernels = {
    .name = "avx512",
    .requiredFeatures = 0x3,  // compat::kCpuAvx2 | compat::kCpuAvx512
    .gemv = {PlainProducts<F32Decoder>::gemv, nullptr, PlainProducts<Bf16Decoder>::gemv, nullptr,
             PlainProducts<Q80Decoder>::gemv, KProducts<Q4k>::gemv, KProducts<Q5k>::gemv,
             KProducts<Q6k>::gemv, nullptr},
    .gemm = {BatchedProduct<F32Rows<Vector>>::gemm, nullptr, BatchedProduct<Bf16Rows<Vector>>::gemm,
             nullptr, BatchedProduct<Q80Rows<Vector>>::gemm, BatchedProduct<Q4kRows<Vector>>::gemm,
             BatchedProduct<Q5kRows<Vector>>::gemm, BatchedProduct<Q6kRows<Vector>>::gemm, nullptr},
    .arrange = {nullptr, nullptr, nullptr, nullptr, nullptr, KProducts<Q4k>::arrange,
                KProducts<Q5k>::arrange, KProducts<Q6k>::arrange, nullptr},
    .arrangeBatch = {arrangeGroup<Vector>, nullptr, arrangeGroup<Vector>, nullptr,
                     arrangeGroup<Vector>, arrangeGroup<Vector>, arrangeGroup<Vector>,
                     arrangeGroup<Vector>, nullptr},
    .dot = dot,
    .silu = silu,
    .sigmoid = sigmoid,
    .attend = attend,
    .deltaRule = deltaRule<Vector, dot>,
};

}  // namespace qwen35
