// AVX2 + FMA + F16C tier.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/delta_rule.h"
#include "model/kernels/k_products.h"
#include "model/kernels/kernels.h"
#include "model/kernels/plain_products.h"
#include "model/kernels/products.h"

namespace qwen35 {
namespace {

constexpr size_t kWidth = 8;  // floats of one register

inline float halfAt(const uint8_t* at) {
  uint16_t bits;
  __builtin_memcpy(&bits, at, sizeof bits);
  return _cvtsh_ss(bits);
}

inline __m128i load8(const uint8_t* at) {
  return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
}

inline __m128i load16(const uint8_t* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

inline __m256i load32(const uint8_t* at) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

// Sum of the lanes, in a fixed order.
inline float total(__m256 v) {
  __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  s = _mm_add_ps(s, _mm_movehl_ps(s, s));
  s = _mm_add_ss(s, _mm_movehdup_ps(s));
  return _mm_cvtss_f32(s);
}

// See model/kernels/lane_weights.h.
struct Vector {
  using Float = __m256;
  using Int = __m256i;
  static constexpr size_t kWidth = 8;
  static constexpr size_t kTileTokens = 6;

  static Float zero() { return _mm256_setzero_ps(); }
  static Float each(float value) { return _mm256_set1_ps(value); }
  static Float load(const float* at) { return _mm256_loadu_ps(at); }
  static void store(float* at, Float v) { _mm256_storeu_ps(at, v); }
  static Float add(Float a, Float b) { return _mm256_add_ps(a, b); }
  static Float mul(Float a, Float b) { return _mm256_mul_ps(a, b); }
  static Float fma(Float a, Float b, Float c) { return _mm256_fmadd_ps(a, b, c); }
  static void keep(Float& v) { __asm__("" : "+x"(v)); }
  // Not tied to its place: that was slower here.
  template <int kLevel>
  static void prefetchAfter(const uint8_t* at, Float&) {
    __builtin_prefetch(at, 0, kLevel);
  }
  static float total(Float v) { return qwen35::total(v); }

  static Int eachInt(int value) { return _mm256_set1_epi32(value); }
  static Int eachByte(int value) { return _mm256_set1_epi8(static_cast<char>(value)); }
  static Int bitAnd(Int a, Int b) { return _mm256_and_si256(a, b); }
  static Int bitXor(Int a, Int b) { return _mm256_xor_si256(a, b); }
  static Int join(Int a, int maskA, Int b, int maskB) {
    return _mm256_or_si256(bitAnd(a, eachByte(maskA)), bitAnd(b, eachByte(maskB)));
  }
  static Int left(Int a, int bits) { return _mm256_slli_epi32(a, bits); }
  static Int right(Int a, int bits) { return _mm256_srli_epi32(a, bits); }
  static Int rightSigned(Int a, int bits) { return _mm256_srai_epi32(a, bits); }
  static Int moveBits(Int a, size_t from, size_t to) {
    const auto count = [](size_t bits) { return _mm_cvtsi32_si128(static_cast<int>(bits)); };
    return from > to ? _mm256_srl_epi32(a, count(from - to))
                     : _mm256_sll_epi32(a, count(to - from));
  }
  static Float toFloat(Int a) { return _mm256_cvtepi32_ps(a); }
  static Float asFloat(Int a) { return _mm256_castsi256_ps(a); }
  static Float widenHalves(const uint16_t* at) {
    return _mm256_cvtph_ps(load16(reinterpret_cast<const uint8_t*>(at)));
  }
  static Float widenLowHalves(Int a) {
    a = bitAnd(a, eachInt(0xffff));
    return _mm256_cvtph_ps(
        _mm_packus_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1)));
  }

  static Int fromQuarters(const __m128i (&quarters)[2]) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(quarters[0]), quarters[1], 1);
  }
  static Int unpackLow32(Int a, Int b) { return _mm256_unpacklo_epi32(a, b); }
  static Int unpackHigh32(Int a, Int b) { return _mm256_unpackhi_epi32(a, b); }
  static Int unpackLow64(Int a, Int b) { return _mm256_unpacklo_epi64(a, b); }
  static Int unpackHigh64(Int a, Int b) { return _mm256_unpackhi_epi64(a, b); }
};

// Decoders (model/kernels/plain_products.h). Weights, or codes, are exact.

struct F32Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 8;
  static constexpr size_t kBytes = 32;
  static constexpr size_t kElementBytes = 4;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    use(0, _mm256_loadu_ps(reinterpret_cast<const float*>(block)));
  }
};

struct Bf16Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 8;
  static constexpr size_t kBytes = 16;
  static constexpr size_t kElementBytes = 2;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    const __m256i lanes = _mm256_cvtepu16_epi32(load16(block));
    use(0, _mm256_castsi256_ps(_mm256_slli_epi32(lanes, 16)));
  }
};

inline __m256 signedCodes(const uint8_t* at) {
  return _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(load8(at)));
}

struct Q80Decoder {
  using Vector = qwen35::Vector;
  static constexpr size_t kElements = 32;
  static constexpr size_t kBytes = 34;

  const uint8_t* block;

  template <typename Use>
  void decode(const Use& use) const {
    for (size_t i = 0; i < 4; ++i) use(i, signedCodes(block + 2 + 8 * i));
  }
  __m256 factor() const { return _mm256_set1_ps(halfAt(block)); }
};

// K-quants (model/kernels/k_products.h).

// Byte b of every lane, less kCentre, as a float that is too large by 2^(8b), the highest one as it
// is.
template <int kCentre>
inline __m256 byteOfLanes(__m256i lanes, size_t b) {
  lanes = b == 3 ? _mm256_srli_epi32(lanes, 24)
                 : _mm256_and_si256(lanes, _mm256_set1_epi32(0xff << (8 * b)));
  if constexpr (kCentre != 0) {
    lanes = _mm256_sub_epi32(lanes, _mm256_set1_epi32(b == 3 ? kCentre : kCentre << (8 * b)));
  }
  return _mm256_cvtepi32_ps(lanes);
}
constexpr size_t byteShift(size_t b) { return b == 3 ? 0 : 8 * b; }

// (a & mask) | (b & other)
inline __m256i join(__m256i a, int mask, __m256i b, int other) {
  return _mm256_or_si256(_mm256_and_si256(a, _mm256_set1_epi8(static_cast<char>(mask))),
                         _mm256_and_si256(b, _mm256_set1_epi8(static_cast<char>(other))));
}

// Scales and minimums of a Q4_K or Q5_K block. Of its four chunks of 32 bytes, chunk c holds
// sub-blocks 2c and 2c + 1; group 2q + g holds sub-blocks 4q + g and 4q + 2 + g, four lanes each.
struct SubBlocks {
  static constexpr size_t kGroups = 4;
  static constexpr size_t kMinimums = 8;

  static constexpr size_t kFirstMinimum = 0;

  __m256 scales;
  __m256 lows;  // d * scale and dmin * minimum of each sub-block

  SubBlocks(const uint8_t* block, __m128i codes) {
    const __m128 factors = superScales(block);
    scales = scaled(codes, _mm256_broadcastss_ps(factors));
    lows = scaled(_mm_srli_si128(codes, 8), _mm256_broadcastss_ps(_mm_movehdup_ps(factors)));
  }
  __m256 scale(size_t group) const {
    const int first = static_cast<int>(group / 2 * 4 + group % 2);
    const int last = first + 2;
    return _mm256_permutevar8x32_ps(
        scales, _mm256_setr_epi32(first, first, first, first, last, last, last, last));
  }
  __m256 minimums(size_t) const { return lows; }

  // Byte b of half v of the chunks of the group, lane 4 * (chunk of the two) + i.
  static constexpr size_t element(size_t group, size_t v, size_t b, size_t lane) {
    return 32 * (group / 2 * 4 + lane / 4 * 2 + group % 2) + 16 * v + 4 * (lane % 4) + b;
  }

 private:
  static __m256 scaled(__m128i bytes, __m256 factor) {
    return _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)), factor);
  }
};

// The nibbles of chunks 2q and 2q + 1: first halves, then second halves.
struct Nibbles {
  __m256i half[2][2];

  explicit Nibbles(const uint8_t* at) {
    for (size_t q = 0; q < 2; ++q) {
      const __m256i first = load32(at + 64 * q);
      const __m256i second = load32(at + 64 * q + 32);
      half[q][0] = _mm256_permute2x128_si256(first, second, 0x20);
      half[q][1] = _mm256_permute2x128_si256(first, second, 0x31);
    }
  }
};

struct Q4k : SubBlocks {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 144;
  static constexpr size_t kRowsAtOnce = 4;

  Nibbles nibbles;

  Q4k(const uint8_t* block, __m128i codes) : SubBlocks(block, codes), nibbles(block + 16) {}

  static constexpr size_t bit(size_t j) { return 8 * (j % 4) + 4 * (j / 8 % 2); }
  static constexpr Place place(size_t j, size_t lane) {
    return {element(j / 8, j % 8 / 4, j % 4, lane), bit(j) == 28 ? 0 : bit(j)};
  }
  __m256 codes(size_t j) const {
    const __m256i lanes = nibbles.half[j / 16][j % 8 / 4];
    return _mm256_cvtepi32_ps(bit(j) == 28
                                  ? _mm256_srli_epi32(lanes, 28)
                                  : _mm256_and_si256(lanes, _mm256_set1_epi32(0x0f << bit(j))));
  }
};

struct Q5k : SubBlocks {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 176;
  static constexpr size_t kRowsAtOnce = 2;

  Nibbles nibbles;
  __m256i fifths[2];

  Q5k(const uint8_t* block, __m128i codes) : SubBlocks(block, codes), nibbles(block + 48) {
    for (size_t v = 0; v < 2; ++v)
      fifths[v] = _mm256_broadcastsi128_si256(load16(block + 16 + 16 * v));
  }

  static constexpr Place place(size_t j, size_t lane) {
    return {element(j / 8, j % 8 / 4, j % 4, lane), byteShift(j % 4)};
  }
  __m256 codes(size_t j) const { return byteOfLanes<0>(bytes(j / 8, j % 8 / 4), j % 4); }

 private:
  // Bit 2c + g of each byte of qh is the fifth bit of sub-block 2c + g; it goes to bit 4.
  __m256i bytes(size_t group, size_t v) const {
    const int g = static_cast<int>(group % 2);
    const __m256i low =
        g == 0 ? nibbles.half[group / 2][v] : _mm256_srli_epi32(nibbles.half[group / 2][v], 4);
    const __m256i high = group < 2 ? _mm256_sllv_epi32(fifths[v], halves(4 - g, 2 - g))
                                   : _mm256_srlv_epi32(fifths[v], halves(g, 2 + g));
    return join(low, 0x0f, high, 0x10);
  }
  static __m256i halves(int low, int high) {
    return _mm256_setr_epi32(low, low, low, low, high, high, high, high);
  }
};

// Group r holds elements 32 r .. 32 r + 31 in order, four to a lane.
struct Q6k {
  using Vector = qwen35::Vector;
  static constexpr size_t kBytes = 210;
  static constexpr size_t kGroups = 8;
  static constexpr size_t kMinimums = 0;
  static constexpr size_t kFirstMinimum = 0;
  static constexpr size_t kRowsAtOnce = 4;

  const uint8_t* block;
  __m256 scales[2];

  explicit Q6k(const uint8_t* at) : block(at) {
    const __m256 d = _mm256_set1_ps(halfAt(at + 208));
    for (size_t i = 0; i < 2; ++i) scales[i] = _mm256_mul_ps(signedCodes(at + 192 + 8 * i), d);
  }

  static constexpr Place place(size_t j, size_t lane) {
    return {32 * (j / 4) + 4 * lane + j % 4, byteShift(j % 4)};
  }
  __m256 codes(size_t j) const { return byteOfLanes<32>(bytes(j / 4), j % 4); }
  __m256 scale(size_t group) const {
    const int first = static_cast<int>(2 * group % 8);
    const int last = first + 1;
    return _mm256_permutevar8x32_ps(
        scales[group / 4], _mm256_setr_epi32(first, first, first, first, last, last, last, last));
  }

 private:
  // Quarter `part` of half h: bits 2 part and 2 part + 1 of qh go to bits 4 and 5.
  __m256i bytes(size_t group) const {
    const size_t h = group / 4;
    const int part = static_cast<int>(group % 4);
    const __m256i ql = load32(block + 64 * h + 32 * (group % 2));
    const __m256i qh = load32(block + 128 + 32 * h);
    return join(
        part < 2 ? ql : _mm256_srli_epi32(ql, 4), 0x0f,
        part < 2 ? _mm256_slli_epi32(qh, 4 - 2 * part) : _mm256_srli_epi32(qh, 2 * part - 4), 0x30);
  }
};

float dot(const float* a, const float* b, size_t n) {
  float result = 0;
  PlainProducts<F32Decoder>::dotRows<1, 2>(reinterpret_cast<const uint8_t*>(a), 0, n, b, &result);
  return result;
}

// e^x to about one unit in the last place; NaN stays NaN, overflow gives infinity.
inline __m256 exp256(__m256 x) {
  // The bound comes first: min and max return the second operand when one is NaN.
  x = _mm256_min_ps(_mm256_set1_ps(89.0f), x);
  x = _mm256_max_ps(_mm256_set1_ps(-104.0f), x);
  const __m256 n = _mm256_round_ps(_mm256_mul_ps(x, _mm256_set1_ps(1.44269504f)),
                                   _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  // ln 2 in two parts, the first of few enough bits that n times it is exact.
  __m256 r = _mm256_fnmadd_ps(n, _mm256_set1_ps(0.693359375f), x);
  r = _mm256_fnmadd_ps(n, _mm256_set1_ps(-2.12194440e-4f), r);
  __m256 p = _mm256_set1_ps(1.9875691500e-4f);
  p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(1.3981999507e-3f));
  p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(8.3334519073e-3f));
  p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(4.1665795894e-2f));
  p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(1.6666665459e-1f));
  p = _mm256_fmadd_ps(p, r, _mm256_set1_ps(5.0000001201e-1f));
  p = _mm256_fmadd_ps(_mm256_mul_ps(p, r), r, _mm256_add_ps(r, _mm256_set1_ps(1.0f)));
  // 2^n in two factors, so that subnormal results and the overflow come out right.
  const __m256i whole = _mm256_cvtps_epi32(n);
  const __m256i half = _mm256_srai_epi32(whole, 1);
  const auto powerOfTwo = [](__m256i e) {
    return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_add_epi32(e, _mm256_set1_epi32(127)), 23));
  };
  return _mm256_mul_ps(_mm256_mul_ps(p, powerOfTwo(half)),
                       powerOfTwo(_mm256_sub_epi32(whole, half)));
}

inline __m256 onePlusExpMinus(__m256 x) {
  return _mm256_add_ps(exp256(_mm256_sub_ps(_mm256_setzero_ps(), x)), _mm256_set1_ps(1.0f));
}

inline __m256 siluOf(__m256 x) { return _mm256_div_ps(x, onePlusExpMinus(x)); }

inline __m256 sigmoidOf(__m256 x) {
  return _mm256_div_ps(_mm256_set1_ps(1.0f), onePlusExpMinus(x));
}

template <__m256 (*kFunction)(__m256)>
void apply(const float* x, float* out, size_t n) {
  size_t i = 0;
  for (; i + kWidth <= n; i += kWidth) {
    _mm256_storeu_ps(out + i, kFunction(_mm256_loadu_ps(x + i)));
  }
  if (i == n) return;
  float tail[kWidth] = {};
  __builtin_memcpy(tail, x + i, (n - i) * sizeof(float));
  _mm256_storeu_ps(tail, kFunction(_mm256_loadu_ps(tail)));
  __builtin_memcpy(out + i, tail, (n - i) * sizeof(float));
}

// Replaces the scores of one head by exp(score - maximum). Lanes past `count` of the last register
// are scratch.
void softmaxRun(float* scores, size_t count, float& maximum, float& sum) {
  float top = -1e30f;
  for (size_t t = 0; t < count; ++t) top = scores[t] > top ? scores[t] : top;
  maximum = top;
  float total = 0;
  for (size_t t = 0; t < count; t += kWidth) {
    const __m256 s = _mm256_loadu_ps(scores + t);
    _mm256_storeu_ps(scores + t, exp256(_mm256_sub_ps(s, _mm256_set1_ps(top))));
  }
  for (size_t t = 0; t < count; ++t) total += scores[t];
  sum = total;
}

// The weighted sum of the values, 16 elements of every head at a time: each value is read once.
void sumValues(const AttentionRun& run, const float (*weights)[kAttentionRun],
               AttentionPart& part) {
  constexpr size_t kRegisters = 2;
  for (size_t d = 0; d < kHeadSize; d += kWidth * kRegisters) {
    __m256 acc[kGroupHeads][kRegisters] = {};
    for (size_t t = 0; t < run.count; ++t) {
      const float* value = run.values + t * kHeadSize + d;
      for (size_t j = 0; j < kRegisters; ++j) {
        const __m256 v = _mm256_loadu_ps(value + kWidth * j);
        for (size_t h = 0; h < kGroupHeads; ++h) {
          acc[h][j] = _mm256_fmadd_ps(_mm256_set1_ps(weights[h][t]), v, acc[h][j]);
        }
      }
    }
    for (size_t h = 0; h < kGroupHeads; ++h) {
      for (size_t j = 0; j < kRegisters; ++j) {
        _mm256_storeu_ps(part.weighted[h] + d + kWidth * j, acc[h][j]);
      }
    }
  }
}

void attend(const AttentionRun& run, AttentionPart& part) {
  alignas(32) float scores[kGroupHeads][kAttentionRun] = {};
  for (size_t t = 0; t < run.count; ++t) {
    const float* key = run.keys + t * kHeadSize;
    __m256 acc[kGroupHeads] = {};
    for (size_t d = 0; d < kHeadSize; d += kWidth) {
      const __m256 k = _mm256_loadu_ps(key + d);
      for (size_t h = 0; h < kGroupHeads; ++h) {
        acc[h] = _mm256_fmadd_ps(_mm256_loadu_ps(run.queries + h * kHeadSize + d), k, acc[h]);
      }
    }
    for (size_t h = 0; h < kGroupHeads; ++h) scores[h][t] = run.scale * total(acc[h]);
  }
  for (size_t h = 0; h < kGroupHeads; ++h) {
    softmaxRun(scores[h], run.count, part.maximum[h], part.sum[h]);
  }
  sumValues(run, scores, part);
}

}  // namespace

const KernelTable kAvx2Kernels = {
    .name = "avx2",
    .requiredFeatures = 0x1,  // compat::kCpuAvx2
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
    .silu = apply<siluOf>,
    .sigmoid = apply<sigmoidOf>,
    .attend = attend,
    .deltaRule = deltaRule<Vector, dot>,
};

}  // namespace qwen35
