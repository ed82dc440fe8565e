// AVX-512 (F, BW, VL, DQ) tier. Weights are exact: each K-quant sub-block becomes a table of the
// values that its codes stand for, and a permute looks them up.
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kWidth = 16;            // floats of one register
constexpr size_t kPrefetchAhead = 4096;  // bytes

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

// Makes the compiler believe that `memory` may have changed. Values that are stored once and read
// back one by one by broadcasting or widening loads cost no shuffle; without this the compiler
// replaces the loads by shuffles, of which one fits in a cycle.
template <typename T>
inline void keepInMemory(T& memory) {
  __asm__("" : "+m"(memory));
}

// The sixteen bytes of a register's low quarter, one to a lane.
inline __m512i bytesToLanes(__m128i bytes) { return _mm512_cvtepu8_epi32(bytes); }

// d * sc and dmin * m of the eight sub-blocks of a Q4_K or Q5_K block: 0-7 scales, 8-15 minimums.
struct SubBlockScales {
  alignas(64) float value[16];

  explicit SubBlockScales(const uint8_t* block) {
    const __m128i head = load16(block);  // d, dmin, then the twelve packed bytes
    // Lanes 0-3: the low six bits of bytes 0-3 are the scale; lanes 4-7: the low nibble of bytes
    // 8-11 with bits 6-7 of bytes 0-3 above it; likewise 8-15 with bytes 4-7 and the high nibble.
    const __m128i lowBytes = _mm_shuffle_epi8(
        head, _mm_setr_epi8(4, 5, 6, 7, 12, 13, 14, 15, 8, 9, 10, 11, 12, 13, 14, 15));
    const __m128i highBytes = _mm_shuffle_epi8(
        head, _mm_setr_epi8(-1, -1, -1, -1, 4, 5, 6, 7, -1, -1, -1, -1, 8, 9, 10, 11));
    const __m512i shift = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 4, 4, 4);
    const __m512i lowMask =
        _mm512_setr_epi32(63, 63, 63, 63, 15, 15, 15, 15, 63, 63, 63, 63, 15, 15, 15, 15);
    const __m512i low = _mm512_and_si512(_mm512_srlv_epi32(bytesToLanes(lowBytes), shift), lowMask);
    const __m512i high = _mm512_srli_epi32(bytesToLanes(highBytes), 2);
    const __m512i codes =
        _mm512_ternarylogic_epi32(low, high, _mm512_set1_epi32(0x30), 0xf8);  // low | (high & 48)
    const __m512i which = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1);
    const __m512 d = _mm512_permutexvar_ps(which, _mm512_castps128_ps512(_mm_cvtph_ps(head)));
    _mm512_store_ps(value, _mm512_mul_ps(d, _mm512_cvtepi32_ps(codes)));
    keepInMemory(value);
  }
};

// The values of the given codes in sub-block j.
inline __m512 codeValues(const SubBlockScales& scales, size_t j, __m512 codes) {
  return _mm512_fmsub_ps(codes, _mm512_set1_ps(scales.value[j]),
                         _mm512_set1_ps(scales.value[8 + j]));
}

inline __m512 codesFrom(float first) {
  const __m512 lanes = _mm512_setr_ps(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  return _mm512_add_ps(lanes, _mm512_set1_ps(first));
}

float dotQ4kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  const __m512 codes = codesFrom(0);
  for (size_t at = 0; at < cols; at += 256, row += 144) {
    const SubBlockScales scales(row);
    prefetch(row);
    prefetch(row + 64);
    for (size_t c = 0; c < 4; ++c, x += 64) {
      const __m512 lowTable = codeValues(scales, 2 * c, codes);
      const __m512 highTable = codeValues(scales, 2 * c + 1, codes);
      // A permute reads the low four bits of each lane only, so the nibbles need no mask.
      const __m512i first = bytesToLanes(load16(row + 16 + 32 * c));
      const __m512i second = bytesToLanes(load16(row + 32 + 32 * c));
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

// 64 bytes on their way from byte arithmetic to lanes: storing them once and widening loads is
// cheaper than extracting quarters.
struct alignas(64) CodeBytes {
  uint8_t byte[64];

  explicit CodeBytes(__m512i bytes) {
    _mm512_store_si512(byte, bytes);
    keepInMemory(byte);
  }
};

// 32 bytes in both halves.
inline __m512i twice(const uint8_t* at) { return _mm512_broadcast_i64x4(load32(at)); }

// The two halves shifted by their own amounts, in 16-bit words.
inline __m512i halves(short low, short high) {
  return _mm512_inserti64x4(_mm512_set1_epi16(low), _mm256_set1_epi16(high), 1);
}

// Bits of `a` where `mask` is set, of `b` elsewhere.
inline __m512i select(__m512i mask, __m512i a, __m512i b) {
  return _mm512_ternarylogic_epi32(mask, a, b, 0xca);
}

// acc[i] += the 32 weights of sub-block j, given as codes of five bits and more, times x.
inline void q5Add(const uint8_t* codes, const SubBlockScales& scales, size_t j, const float* x,
                  __m512& acc0, __m512& acc1) {
  const __m512 table = codeValues(scales, j, codesFrom(0));
  const __m512 from16 = codeValues(scales, j, codesFrom(16));
  const __m512i first = bytesToLanes(load16(codes));
  const __m512i second = bytesToLanes(load16(codes + 16));
  acc0 = _mm512_fmadd_ps(_mm512_permutex2var_ps(table, first, from16), _mm512_loadu_ps(x), acc0);
  acc1 =
      _mm512_fmadd_ps(_mm512_permutex2var_ps(table, second, from16), _mm512_loadu_ps(x + 16), acc1);
}

float dotQ5kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  const __m512i nibble = _mm512_set1_epi8(0x0f);
  for (size_t at = 0; at < cols; at += 256, row += 176, x += 256) {
    const SubBlockScales scales(row);
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    const __m512i fifths = twice(row + 16);
    // Fifth bits of sub-blocks 0 and 2, 1 and 3, 4 and 6, 5 and 7, moved to bit 4. What lies above
    // bit 4 does not matter: a permute of two tables reads five bits.
    const __m512i qs0 = _mm512_loadu_si512(row + 48);
    const __m512i qs1 = _mm512_loadu_si512(row + 112);
    const CodeBytes c02(select(nibble, qs0, _mm512_sllv_epi16(fifths, halves(4, 2))));
    const CodeBytes c13(
        select(nibble, _mm512_srli_epi16(qs0, 4), _mm512_sllv_epi16(fifths, halves(3, 1))));
    const CodeBytes c46(select(nibble, qs1, _mm512_srlv_epi16(fifths, halves(0, 2))));
    const CodeBytes c57(
        select(nibble, _mm512_srli_epi16(qs1, 4), _mm512_srlv_epi16(fifths, halves(1, 3))));
    q5Add(c02.byte, scales, 0, x, acc[0], acc[1]);
    q5Add(c13.byte, scales, 1, x + 32, acc[2], acc[3]);
    q5Add(c02.byte + 32, scales, 2, x + 64, acc[0], acc[1]);
    q5Add(c13.byte + 32, scales, 3, x + 96, acc[2], acc[3]);
    q5Add(c46.byte, scales, 4, x + 128, acc[0], acc[1]);
    q5Add(c57.byte, scales, 5, x + 160, acc[2], acc[3]);
    q5Add(c46.byte + 32, scales, 6, x + 192, acc[0], acc[1]);
    q5Add(c57.byte + 32, scales, 7, x + 224, acc[2], acc[3]);
  }
  return total(acc);
}

// Signed bytes 4 * (code - 32) of 64 six-bit codes: the nibble moved to bits 2-5, the two high bits
// to 6-7. The factor goes into the scale.
inline CodeBytes q6Codes(__m512i nibbleAtBit2, __m512i highAtBit6) {
  const __m512i code = select(_mm512_set1_epi8(0x3c), nibbleAtBit2, highAtBit6);
  return CodeBytes(_mm512_ternarylogic_epi32(code, _mm512_set1_epi8(static_cast<char>(0xfc)),
                                             _mm512_set1_epi8(static_cast<char>(0x80)), 0x6a));
}

// acc[i] += 16 weights of one scale times x, for the four sub-blocks of 64 codes.
inline void q6Add(const CodeBytes& codes, const float* scale, const float* x, __m512 acc[4]) {
  for (size_t i = 0; i < 4; ++i) {
    const __m512 code = _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(codes.byte + 16 * i)));
    const __m512 weight = _mm512_mul_ps(code, _mm512_set1_ps(scale[i]));
    acc[i] = _mm512_fmadd_ps(weight, _mm512_loadu_ps(x + 16 * i), acc[i]);
  }
}

float dotQ6kRow(const uint8_t* row, size_t cols, const float* x) {
  __m512 acc[4] = {};
  for (size_t at = 0; at < cols; at += 256, row += 210) {
    prefetch(row);
    prefetch(row + 64);
    prefetch(row + 128);
    alignas(64) float scale[16];
    const __m512 quarter = _mm512_set1_ps(0.25f * halfAt(row + 208));
    _mm512_store_ps(
        scale, _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(load16(row + 192))), quarter));
    keepInMemory(scale);
    for (size_t h = 0; h < 2; ++h, x += 128) {
      const __m512i ql = _mm512_loadu_si512(row + 64 * h);
      const __m512i qh = twice(row + 128 + 32 * h);
      // Bits 0-1 belong to the first 32 elements, 2-3 to the next; then 4-5 and 6-7.
      const CodeBytes low = q6Codes(_mm512_slli_epi16(ql, 2), _mm512_sllv_epi16(qh, halves(6, 4)));
      const CodeBytes high = q6Codes(_mm512_srli_epi16(ql, 2), _mm512_sllv_epi16(qh, halves(2, 0)));
      q6Add(low, scale + 8 * h, x, acc);
      q6Add(high, scale + 8 * h + 4, x + 64, acc);
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
