// AVX-512 (F, BW, VL, DQ) tier. Weights are exact: each K-quant sub-block becomes a table of the
// values that its codes stand for, and a permute looks them up.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kWidth = 16;            // floats of one register
constexpr size_t kPrefetchAhead = 1024;  // bytes

inline void prefetch(const uint8_t* at) {
  _mm_prefetch(reinterpret_cast<const char*>(at + kPrefetchAhead), _MM_HINT_T0);
}

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

// Sum of four accumulators, in a fixed order.
inline float total(const __m512 acc[4]) {
  return _mm512_reduce_add_ps(
      _mm512_add_ps(_mm512_add_ps(acc[0], acc[1]), _mm512_add_ps(acc[2], acc[3])));
}

// Runs `rowDot(row, cols, x)` over the rows of a product.
template <float (*kRowDot)(const uint8_t*, size_t, const float*)>
void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols, const float* x,
          float* y) {
  for (size_t r = 0; r < rowCount; ++r) y[r] += kRowDot(rows + r * rowBytes, cols, x);
}

float dotF32Row(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  size_t i = 0;
  for (; i + 64 <= cols; i += 64) {
    prefetch(row + 4 * i);
    for (size_t j = 0; j < 4; ++j) {
      const __m512 w = _mm512_loadu_ps(row + 4 * (i + kWidth * j));
      acc[j] = _mm512_fmadd_ps(w, _mm512_loadu_ps(x + i + kWidth * j), acc[j]);
    }
  }
  for (; i < cols; i += kWidth) {
    const __mmask16 lanes = cols - i < kWidth ? firstLanes(cols - i) : firstLanes(kWidth);
    const __m512 w = _mm512_maskz_loadu_ps(lanes, row + 4 * i);
    acc[0] = _mm512_fmadd_ps(w, _mm512_maskz_loadu_ps(lanes, x + i), acc[0]);
  }
  return total(acc);
}

float dotBf16Row(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  size_t i = 0;
  const auto widen = [](__m256i halves) {
    return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(halves), 16));
  };
  for (; i + 64 <= cols; i += 64) {
    prefetch(row + 2 * i);
    for (size_t j = 0; j < 4; ++j) {
      const __m512 w = widen(load32(row + 2 * (i + kWidth * j)));
      acc[j] = _mm512_fmadd_ps(w, _mm512_loadu_ps(x + i + kWidth * j), acc[j]);
    }
  }
  for (; i < cols; i += kWidth) {
    const __mmask16 lanes = cols - i < kWidth ? firstLanes(cols - i) : firstLanes(kWidth);
    const __m512 w = widen(_mm256_maskz_loadu_epi16(lanes, row + 2 * i));
    acc[0] = _mm512_fmadd_ps(w, _mm512_maskz_loadu_ps(lanes, x + i), acc[0]);
  }
  return total(acc);
}

// Signed byte codes times x, summed over 32 elements, then scaled once.
float dotQ80Row(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  const size_t blocks = cols / 32;
  for (size_t b = 0; b < blocks; ++b, row += 34, x += 32) {
    prefetch(row);
    const __m512 d = _mm512_set1_ps(halfAt(row));
    const __m512 low = _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(row + 2)));
    const __m512 high = _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(row + 18)));
    __m512 sum = _mm512_mul_ps(low, _mm512_loadu_ps(x));
    sum = _mm512_fmadd_ps(high, _mm512_loadu_ps(x + 16), sum);
    acc[b % 4] = _mm512_fmadd_ps(sum, d, acc[b % 4]);
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

// The values of codes first..first + 15 in sub-block j.
inline __m512 codeValues(const SubBlockScales& scales, size_t j, __m512 codes) {
  return _mm512_fmsub_ps(codes, _mm512_set1_ps(scales.scale[j]), _mm512_set1_ps(scales.minimum[j]));
}

inline __m512 codesFrom(float first) {
  const __m512 lanes = _mm512_setr_ps(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  return _mm512_add_ps(lanes, _mm512_set1_ps(first));
}

float dotQ4kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  const __m512 codes = codesFrom(0);
  for (size_t at = 0; at < cols; at += 256, row += 144) {
    const SubBlockScales scales = unpackScales(row);
    prefetch(row);
    prefetch(row + 64);
    for (size_t c = 0; c < 4; ++c, x += 64) {
      const __m512 lowTable = codeValues(scales, 2 * c, codes);
      const __m512 highTable = codeValues(scales, 2 * c + 1, codes);
      // A permute reads the low four bits of each lane only, so the nibbles need no mask.
      const __m512i first = _mm512_cvtepu8_epi32(load16(row + 16 + 32 * c));
      const __m512i second = _mm512_cvtepu8_epi32(load16(row + 32 + 32 * c));
      acc[0] = _mm512_fmadd_ps(_mm512_permutexvar_ps(first, lowTable), _mm512_loadu_ps(x), acc[0]);
      acc[1] =
          _mm512_fmadd_ps(_mm512_permutexvar_ps(second, lowTable), _mm512_loadu_ps(x + 16), acc[1]);
      acc[2] = _mm512_fmadd_ps(_mm512_permutexvar_ps(_mm512_srli_epi32(first, 4), highTable),
                               _mm512_loadu_ps(x + 32), acc[2]);
      acc[3] = _mm512_fmadd_ps(_mm512_permutexvar_ps(_mm512_srli_epi32(second, 4), highTable),
                               _mm512_loadu_ps(x + 48), acc[3]);
    }
  }
  return total(acc);
}

// Sixteen Q5_K weights: the low four bits of each lane of `nibbles`, bit `kBit` of `fifths`.
template <unsigned kBit>
inline __m512 q5Values(__m512i nibbles, __m512i fifths, __m512 table, __m512 tableFrom16) {
  const __m512i shifted =
      kBit < 4 ? _mm512_slli_epi32(fifths, 4 - (kBit & 3)) : _mm512_srli_epi32(fifths, kBit - 4);
  // Low four bits from the nibbles, the rest from the shifted bits (bit 4 is the one that counts).
  const __m512i index = _mm512_ternarylogic_epi32(_mm512_set1_epi32(0x0f), nibbles, shifted, 0xca);
  return _mm512_permutex2var_ps(table, index, tableFrom16);
}

template <unsigned kChunk>
inline void q5Chunk(const uint8_t* nibbleBytes, const __m512i fifths[2],
                    const SubBlockScales& scales, const float* x, __m512 acc[4]) {
  const __m512 low = codeValues(scales, 2 * kChunk, codesFrom(0));
  const __m512 low16 = codeValues(scales, 2 * kChunk, codesFrom(16));
  const __m512 high = codeValues(scales, 2 * kChunk + 1, codesFrom(0));
  const __m512 high16 = codeValues(scales, 2 * kChunk + 1, codesFrom(16));
  for (size_t half = 0; half < 2; ++half) {
    const __m512i nibbles = _mm512_cvtepu8_epi32(load16(nibbleBytes + 16 * half));
    const __m512 lowWeights = q5Values<2 * kChunk>(nibbles, fifths[half], low, low16);
    const __m512 highWeights =
        q5Values<2 * kChunk + 1>(_mm512_srli_epi32(nibbles, 4), fifths[half], high, high16);
    acc[half] = _mm512_fmadd_ps(lowWeights, _mm512_loadu_ps(x + 16 * half), acc[half]);
    acc[2 + half] =
        _mm512_fmadd_ps(highWeights, _mm512_loadu_ps(x + 32 + 16 * half), acc[2 + half]);
  }
}

float dotQ5kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  for (size_t at = 0; at < cols; at += 256, row += 176, x += 256) {
    const SubBlockScales scales = unpackScales(row);
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    const __m512i fifths[2] = {_mm512_cvtepu8_epi32(load16(row + 16)),
                               _mm512_cvtepu8_epi32(load16(row + 32))};
    q5Chunk<0>(row + 48, fifths, scales, x, acc);
    q5Chunk<1>(row + 80, fifths, scales, x + 64, acc);
    q5Chunk<2>(row + 112, fifths, scales, x + 128, acc);
    q5Chunk<3>(row + 144, fifths, scales, x + 192, acc);
  }
  return total(acc);
}

// 32 codes of 6 bits, minus 32: `nibbles` already shifted, the two high bits at bit `kShift` of qh.
template <int kShift>
inline __m256i q6Codes(__m256i nibbles, __m256i qh) {
  const __m256i low = _mm256_and_si256(nibbles, _mm256_set1_epi8(0x0f));
  const __m256i bits =
      kShift < 4 ? _mm256_slli_epi16(qh, 4 - (kShift & 3)) : _mm256_srli_epi16(qh, kShift - 4);
  const __m256i code = _mm256_or_si256(low, _mm256_and_si256(bits, _mm256_set1_epi8(0x30)));
  return _mm256_sub_epi8(code, _mm256_set1_epi8(32));
}

// acc += sum over 32 elements of (scale of its 16) * code * x.
inline void q6Add(__m256i codes, float scale0, float scale1, const float* x, __m512& acc0,
                  __m512& acc1) {
  const __m512 low = _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(_mm256_castsi256_si128(codes)));
  const __m512 high = _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(_mm256_extracti128_si256(codes, 1)));
  acc0 = _mm512_fmadd_ps(_mm512_mul_ps(low, _mm512_set1_ps(scale0)), _mm512_loadu_ps(x), acc0);
  acc1 =
      _mm512_fmadd_ps(_mm512_mul_ps(high, _mm512_set1_ps(scale1)), _mm512_loadu_ps(x + 16), acc1);
}

float dotQ6kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  for (size_t at = 0; at < cols; at += 256, row += 210) {
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    alignas(64) float scale[16];
    _mm512_store_ps(scale,
                    _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(row + 192))),
                                  _mm512_set1_ps(halfAt(row + 208))));
    for (size_t h = 0; h < 2; ++h, x += 128) {
      const float* s = scale + 8 * h;
      const __m256i ql0 = load32(row + 64 * h);
      const __m256i ql1 = load32(row + 64 * h + 32);
      const __m256i qh = load32(row + 128 + 32 * h);
      q6Add(q6Codes<0>(ql0, qh), s[0], s[1], x, acc[0], acc[1]);
      q6Add(q6Codes<2>(ql1, qh), s[2], s[3], x + 32, acc[2], acc[3]);
      q6Add(q6Codes<4>(_mm256_srli_epi16(ql0, 4), qh), s[4], s[5], x + 64, acc[0], acc[1]);
      q6Add(q6Codes<6>(_mm256_srli_epi16(ql1, 4), qh), s[6], s[7], x + 96, acc[2], acc[3]);
    }
  }
  return total(acc);
}

float dot(const float* a, const float* b, size_t n) {
  return dotF32Row(reinterpret_cast<const uint8_t*>(a), n, b);
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

// Columns j .. j + 16 * kRegisters of one delta step. The first pass gathers k.S and q.S of the old
// state, the second decays and updates it; the output follows from q.S' = decay q.S + (q.k) delta.
template <size_t kRegisters>
void deltaColumns(float* state, const float* q, const float* k, float* v, float beta, size_t d,
                  float decay, float scale, float qk) {
  __m512 kS[kRegisters] = {};
  __m512 qS[kRegisters] = {};
  for (size_t i = 0; i < d; ++i) {
    const __m512 ki = _mm512_set1_ps(k[i]);
    const __m512 qi = _mm512_set1_ps(q[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      const __m512 s = _mm512_loadu_ps(state + i * d + kWidth * c);
      kS[c] = _mm512_fmadd_ps(ki, s, kS[c]);
      qS[c] = _mm512_fmadd_ps(qi, s, qS[c]);
    }
  }
  const __m512 decays = _mm512_set1_ps(decay);
  __m512 delta[kRegisters];
  for (size_t c = 0; c < kRegisters; ++c) {
    const __m512 value = _mm512_loadu_ps(v + kWidth * c);
    delta[c] = _mm512_mul_ps(_mm512_fnmadd_ps(decays, kS[c], value), _mm512_set1_ps(beta));
    const __m512 out = _mm512_fmadd_ps(_mm512_set1_ps(qk), delta[c], _mm512_mul_ps(decays, qS[c]));
    _mm512_storeu_ps(v + kWidth * c, _mm512_mul_ps(_mm512_set1_ps(scale), out));
  }
  for (size_t i = 0; i < d; ++i) {
    const __m512 ki = _mm512_set1_ps(k[i]);
    for (size_t c = 0; c < kRegisters; ++c) {
      float* at = state + i * d + kWidth * c;
      const __m512 decayed = _mm512_mul_ps(decays, _mm512_loadu_ps(at));
      _mm512_storeu_ps(at, _mm512_fmadd_ps(ki, delta[c], decayed));
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

const KernelTable kAvx512Kernels = {
    .name = "avx512",
    .requiredFeatures = 0x3,  // compat::kCpuAvx2 | compat::kCpuAvx512
    .gemv = {gemv<dotF32Row>, nullptr, gemv<dotBf16Row>, nullptr, gemv<dotQ80Row>, gemv<dotQ4kRow>,
             gemv<dotQ5kRow>, gemv<dotQ6kRow>, nullptr},
    .dot = dot,
    .silu = silu,
    .sigmoid = sigmoid,
    .attend = attend,
    .deltaStep = deltaStep,
};

}  // namespace qwen35
