// AVX2 + FMA + F16C tier.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kWidth = 8;             // floats of one register
constexpr size_t kPrefetchAhead = 1024;  // bytes

inline void prefetch(const uint8_t* at) {
  _mm_prefetch(reinterpret_cast<const char*>(at + kPrefetchAhead), _MM_HINT_T0);
}

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

inline float loadFloat(const uint8_t* at) {
  float value;
  __builtin_memcpy(&value, at, sizeof value);
  return value;
}

// Sum of the lanes, in a fixed order.
inline float total(__m256 v) {
  __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  s = _mm_add_ps(s, _mm_movehl_ps(s, s));
  s = _mm_add_ss(s, _mm_movehdup_ps(s));
  return _mm_cvtss_f32(s);
}

inline float total(const __m256 acc[4]) {
  return total(_mm256_add_ps(_mm256_add_ps(acc[0], acc[1]), _mm256_add_ps(acc[2], acc[3])));
}

// Runs kRowDot(row, cols, x) over the rows of a product.
template <float (*kRowDot)(const uint8_t*, size_t, const float*)>
void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const float* x,
          float* y) {
  for (size_t r = 0; r < rowCount; ++r) y[r] += kRowDot(rows + r * rowBytes, cols, x);
}

float dotF32Row(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  size_t i = 0;
  for (; i + 32 <= cols; i += 32) {
    prefetch(row + 4 * i);
    for (size_t j = 0; j < 4; ++j) {
      const __m256 w = _mm256_loadu_ps(reinterpret_cast<const float*>(row + 4 * (i + kWidth * j)));
      acc[j] = _mm256_fmadd_ps(w, _mm256_loadu_ps(x + i + kWidth * j), acc[j]);
    }
  }
  float tail = 0;
  for (; i < cols; ++i) tail += loadFloat(row + 4 * i) * x[i];
  return total(acc) + tail;
}

inline __m256 widenBf16(__m128i halves) {
  return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(halves), 16));
}

float dotBf16Row(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  size_t i = 0;
  for (; i + 32 <= cols; i += 32) {
    prefetch(row + 2 * i);
    for (size_t j = 0; j < 4; ++j) {
      const __m256 w = widenBf16(load16(row + 2 * (i + kWidth * j)));
      acc[j] = _mm256_fmadd_ps(w, _mm256_loadu_ps(x + i + kWidth * j), acc[j]);
    }
  }
  float tail = 0;
  for (; i < cols; ++i) {
    uint16_t half;
    __builtin_memcpy(&half, row + 2 * i, sizeof half);
    tail += _mm256_cvtss_f32(widenBf16(_mm_cvtsi32_si128(half))) * x[i];
  }
  return total(acc) + tail;
}

inline __m256 signedCodes(const uint8_t* at) {
  return _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(load8(at)));
}

// Signed byte codes times x, summed over 32 elements, then scaled once.
float dotQ80Row(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  const size_t blocks = cols / 32;
  for (size_t b = 0; b < blocks; ++b, row += 34, x += 32) {
    prefetch(row);
    const __m256 d = _mm256_set1_ps(halfAt(row));
    __m256 sum = _mm256_mul_ps(signedCodes(row + 2), _mm256_loadu_ps(x));
    sum = _mm256_fmadd_ps(signedCodes(row + 10), _mm256_loadu_ps(x + 8), sum);
    sum = _mm256_fmadd_ps(signedCodes(row + 18), _mm256_loadu_ps(x + 16), sum);
    sum = _mm256_fmadd_ps(signedCodes(row + 26), _mm256_loadu_ps(x + 24), sum);
    acc[b % 4] = _mm256_fmadd_ps(sum, d, acc[b % 4]);
  }
  return total(acc);
}

// d * sc and dmin * m of the eight sub-blocks of a Q4_K or Q5_K block.
struct SubBlockScales {
  alignas(32) float scale[8];
  alignas(32) float minimum[8];
};

inline SubBlockScales unpackScales(const uint8_t* block) {
  uint32_t words[3];
  __builtin_memcpy(words, block + 4, sizeof words);
  const uint32_t scLow = words[0] & 0x3f3f3f3fu;
  const uint32_t mLow = words[1] & 0x3f3f3f3fu;
  const uint32_t scHigh = (words[2] & 0x0f0f0f0fu) | (((words[0] >> 6) & 0x03030303u) << 4);
  const uint32_t mHigh = ((words[2] >> 4) & 0x0f0f0f0fu) | (((words[1] >> 6) & 0x03030303u) << 4);
  const auto toFloats = [](uint32_t low, uint32_t high) {
    const uint64_t bytes = (uint64_t{high} << 32) | low;
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<int64_t>(bytes))));
  };
  SubBlockScales result;
  const __m256 d = _mm256_set1_ps(halfAt(block));
  const __m256 dmin = _mm256_set1_ps(halfAt(block + 2));
  _mm256_store_ps(result.scale, _mm256_mul_ps(d, toFloats(scLow, scHigh)));
  _mm256_store_ps(result.minimum, _mm256_mul_ps(dmin, toFloats(mLow, mHigh)));
  return result;
}

// acc[j] += 32 unsigned byte codes as weights times x; the weight is exact: code * scale - minimum
// with one rounding.
inline void addCodes(__m256i codes, float scale, float minimum, const float* x, __m256 acc[4]) {
  const __m256 s = _mm256_set1_ps(scale);
  const __m256 m = _mm256_set1_ps(minimum);
  const __m128i halves[2] = {_mm256_castsi256_si128(codes), _mm256_extracti128_si256(codes, 1)};
  for (size_t j = 0; j < 4; ++j) {
    const __m128i eight = j % 2 == 0 ? halves[j / 2] : _mm_srli_si128(halves[j / 2], 8);
    const __m256 code = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(eight));
    const __m256 weight = _mm256_fmsub_ps(code, s, m);
    acc[j] = _mm256_fmadd_ps(weight, _mm256_loadu_ps(x + kWidth * j), acc[j]);
  }
}

float dotQ4kRow(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  const __m256i nibble = _mm256_set1_epi8(0x0f);
  for (size_t at = 0; at < cols; at += 256, row += 144) {
    const SubBlockScales s = unpackScales(row);
    prefetch(row);
    prefetch(row + 64);
    for (size_t c = 0; c < 4; ++c, x += 64) {
      const __m256i bytes = load32(row + 16 + 32 * c);
      const __m256i low = _mm256_and_si256(bytes, nibble);
      const __m256i high = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), nibble);
      addCodes(low, s.scale[2 * c], s.minimum[2 * c], x, acc);
      addCodes(high, s.scale[2 * c + 1], s.minimum[2 * c + 1], x + 32, acc);
    }
  }
  return total(acc);
}

// 16 in every byte whose bit `kBit` is set.
template <unsigned kBit>
inline __m256i fifthBits(__m256i qh) {
  const __m256i shifted =
      kBit < 4 ? _mm256_slli_epi16(qh, 4 - (kBit & 3)) : _mm256_srli_epi16(qh, kBit - 4);
  return _mm256_and_si256(shifted, _mm256_set1_epi8(0x10));
}

template <unsigned kChunk>
inline void q5Chunk(const uint8_t* nibbleBytes, __m256i qh, const SubBlockScales& s, const float* x,
                    __m256 acc[4]) {
  const __m256i nibble = _mm256_set1_epi8(0x0f);
  const __m256i bytes = load32(nibbleBytes);
  const __m256i low = _mm256_and_si256(bytes, nibble);
  const __m256i high = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), nibble);
  addCodes(_mm256_or_si256(low, fifthBits<2 * kChunk>(qh)), s.scale[2 * kChunk],
           s.minimum[2 * kChunk], x, acc);
  addCodes(_mm256_or_si256(high, fifthBits<2 * kChunk + 1>(qh)), s.scale[2 * kChunk + 1],
           s.minimum[2 * kChunk + 1], x + 32, acc);
}

float dotQ5kRow(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  for (size_t at = 0; at < cols; at += 256, row += 176, x += 256) {
    const SubBlockScales s = unpackScales(row);
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    const __m256i qh = load32(row + 16);
    q5Chunk<0>(row + 48, qh, s, x, acc);
    q5Chunk<1>(row + 80, qh, s, x + 64, acc);
    q5Chunk<2>(row + 112, qh, s, x + 128, acc);
    q5Chunk<3>(row + 144, qh, s, x + 192, acc);
  }
  return total(acc);
}

// acc += 32 codes of 6 bits, minus 32, times x; the first 16 have scale0, the others scale1.
template <int kShift>
inline void addSixBit(__m256i nibbles, __m256i qh, float scale0, float scale1, const float* x,
                      __m256 acc[4]) {
  const __m256i low = _mm256_and_si256(nibbles, _mm256_set1_epi8(0x0f));
  const __m256i bits =
      kShift < 4 ? _mm256_slli_epi16(qh, 4 - (kShift & 3)) : _mm256_srli_epi16(qh, kShift - 4);
  const __m256i codes = _mm256_sub_epi8(
      _mm256_or_si256(low, _mm256_and_si256(bits, _mm256_set1_epi8(0x30))), _mm256_set1_epi8(32));
  const __m128i halves[2] = {_mm256_castsi256_si128(codes), _mm256_extracti128_si256(codes, 1)};
  const __m256 scales[2] = {_mm256_set1_ps(scale0), _mm256_set1_ps(scale1)};
  for (size_t j = 0; j < 4; ++j) {
    const __m128i eight = j % 2 == 0 ? halves[j / 2] : _mm_srli_si128(halves[j / 2], 8);
    const __m256 weight =
        _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(eight)), scales[j / 2]);
    acc[j] = _mm256_fmadd_ps(weight, _mm256_loadu_ps(x + kWidth * j), acc[j]);
  }
}

float dotQ6kRow(const uint8_t* row, size_t cols, const float* x) {
  __m256 acc[4] = {};
  for (size_t at = 0; at < cols; at += 256, row += 210) {
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    alignas(32) float scale[16];
    const __m256 d = _mm256_set1_ps(halfAt(row + 208));
    _mm256_store_ps(scale, _mm256_mul_ps(signedCodes(row + 192), d));
    _mm256_store_ps(scale + 8, _mm256_mul_ps(signedCodes(row + 200), d));
    for (size_t h = 0; h < 2; ++h, x += 128) {
      const float* s = scale + 8 * h;
      const __m256i ql0 = load32(row + 64 * h);
      const __m256i ql1 = load32(row + 64 * h + 32);
      const __m256i qh = load32(row + 128 + 32 * h);
      addSixBit<0>(ql0, qh, s[0], s[1], x, acc);
      addSixBit<2>(ql1, qh, s[2], s[3], x + 32, acc);
      addSixBit<4>(_mm256_srli_epi16(ql0, 4), qh, s[4], s[5], x + 64, acc);
      addSixBit<6>(_mm256_srli_epi16(ql1, 4), qh, s[6], s[7], x + 96, acc);
    }
  }
  return total(acc);
}

float dot(const float* a, const float* b, size_t n) {
  return dotF32Row(reinterpret_cast<const uint8_t*>(a), n, b);
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

// Columns j .. j + 8 * kRegisters of one delta step. The first pass gathers k.S and q.S of the old
// state, the second decays and updates it; the output follows from q.S' = decay q.S + (q.k) delta.
template <size_t kRegisters>
void deltaColumns(float* state, const float* q, const float* k, float* v, float beta, size_t d,
                  float decay, float scale, float qk) {
  __m256 kS[kRegisters] = {};
  __m256 qS[kRegisters] = {};
  for (size_t i = 0; i < d; ++i) {
    const __m256 ki = _mm256_set1_ps(k[i]);
    const __m256 qi = _mm256_set1_ps(q[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      const __m256 s = _mm256_loadu_ps(state + i * d + kWidth * c);
      kS[c] = _mm256_fmadd_ps(ki, s, kS[c]);
      qS[c] = _mm256_fmadd_ps(qi, s, qS[c]);
    }
  }
  const __m256 decays = _mm256_set1_ps(decay);
  __m256 delta[kRegisters];
  for (size_t c = 0; c < kRegisters; ++c) {
    const __m256 value = _mm256_loadu_ps(v + kWidth * c);
    delta[c] = _mm256_mul_ps(_mm256_fnmadd_ps(decays, kS[c], value), _mm256_set1_ps(beta));
    const __m256 out = _mm256_fmadd_ps(_mm256_set1_ps(qk), delta[c], _mm256_mul_ps(decays, qS[c]));
    _mm256_storeu_ps(v + kWidth * c, _mm256_mul_ps(_mm256_set1_ps(scale), out));
  }
  for (size_t i = 0; i < d; ++i) {
    const __m256 ki = _mm256_set1_ps(k[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      float* at = state + i * d + kWidth * c;
      const __m256 decayed = _mm256_mul_ps(decays, _mm256_loadu_ps(at));
      _mm256_storeu_ps(at, _mm256_fmadd_ps(ki, delta[c], decayed));
    }
  }
}

void deltaStep(float* state, const float* q, const float* k, float* v, float beta, size_t d,
               float decay, float scale) {
  const float qk = dot(q, k, d);
  size_t j = 0;
  for (; j + 4 * kWidth <= d; j += 4 * kWidth) {
    deltaColumns<4>(state + j, q, k, v + j, beta, d, decay, scale, qk);
  }
  for (; j < d; j += kWidth) {
    deltaColumns<1>(state + j, q, k, v + j, beta, d, decay, scale, qk);
  }
}

}  // namespace

const KernelTable kAvx2Kernels = {
    .name = "avx2",
    .requiredFeatures = 0x1,  // compat::kCpuAvx2
    .gemv = {gemv<dotF32Row>, nullptr, gemv<dotBf16Row>, nullptr, gemv<dotQ80Row>, gemv<dotQ4kRow>,
             gemv<dotQ5kRow>, gemv<dotQ6kRow>, nullptr},
    .dot = dot,
    .silu = apply<siluOf>,
    .sigmoid = apply<sigmoidOf>,
    .attend = attend,
    .deltaStep = deltaStep,
};

}  // namespace qwen35
