// The registers of AVX-512 (F, BW, VL, DQ), for the tiers that have them.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

// See model/kernels/lane_weights.h.
struct Vector {
  using Float = __m512;
  using Int = __m512i;
  static constexpr size_t kWidth = 16;
  static constexpr size_t kTileTokens = 8;

  static Float zero() { return _mm512_setzero_ps(); }
  static Float each(float value) { return _mm512_set1_ps(value); }
  static Float load(const float* at) { return _mm512_loadu_ps(at); }
  static void store(float* at, Float v) { _mm512_storeu_ps(at, v); }
  static Float add(Float a, Float b) { return _mm512_add_ps(a, b); }
  static Float mul(Float a, Float b) { return _mm512_mul_ps(a, b); }
  static Float fma(Float a, Float b, Float c) { return _mm512_fmadd_ps(a, b, c); }
  static void keep(Float& v) { __asm__("" : "+v"(v)); }
  // Compilers would gather what only asks for memory.
  template <int kLevel>
  static void prefetchAfter(const uint8_t* at, Float& work) {
    if constexpr (kLevel == 3) {
      __asm__ volatile("prefetcht0 %1" : "+v"(work) : "m"(*at));
    } else {
      static_assert(kLevel == 2);
      __asm__ volatile("prefetcht1 %1" : "+v"(work) : "m"(*at));
    }
  }
  // Lanes i and i + 8 first, then i and i + 4, i + 2, i + 1.
  static float total(Float v) { return _mm512_reduce_add_ps(v); }

  static Int eachInt(int value) { return _mm512_set1_epi32(value); }
  static Int eachByte(int value) { return _mm512_set1_epi8(static_cast<char>(value)); }
  static Int bitAnd(Int a, Int b) { return _mm512_and_si512(a, b); }
  static Int bitXor(Int a, Int b) { return _mm512_xor_si512(a, b); }
  static Int join(Int a, int maskA, Int b, int maskB) {
    return _mm512_ternarylogic_epi32(eachByte(maskA), a, bitAnd(b, eachByte(maskB)), 0xca);
  }
  static Int left(Int a, int bits) { return _mm512_slli_epi32(a, static_cast<unsigned>(bits)); }
  static Int right(Int a, int bits) { return _mm512_srli_epi32(a, static_cast<unsigned>(bits)); }
  static Int rightSigned(Int a, int bits) {
    return _mm512_srai_epi32(a, static_cast<unsigned>(bits));
  }
  static Int moveBits(Int a, size_t from, size_t to) {
    return _mm512_rorv_epi32(a, _mm512_set1_epi32(static_cast<int>((from - to) % 32)));
  }
  static Float toFloat(Int a) { return _mm512_cvtepi32_ps(a); }
  static Float asFloat(Int a) { return _mm512_castsi512_ps(a); }
  static Float widenHalves(const uint16_t* at) {
    return widen(_mm256_load_si256(reinterpret_cast<const __m256i*>(at)));
  }
  static Float widenLowHalves(Int a) { return widen(_mm512_cvtepi32_epi16(a)); }

  static Int fromQuarters(const __m128i (&quarters)[4]) {
    Int all = _mm512_castsi128_si512(quarters[0]);
    all = _mm512_inserti32x4(all, quarters[1], 1);
    all = _mm512_inserti32x4(all, quarters[2], 2);
    return _mm512_inserti32x4(all, quarters[3], 3);
  }
  static Int unpackLow32(Int a, Int b) { return _mm512_unpacklo_epi32(a, b); }
  static Int unpackHigh32(Int a, Int b) { return _mm512_unpackhi_epi32(a, b); }
  static Int unpackLow64(Int a, Int b) { return _mm512_unpacklo_epi64(a, b); }
  static Int unpackHigh64(Int a, Int b) { return _mm512_unpackhi_epi64(a, b); }

 private:
  // No NaN has a bit below its first: where rounding follows, it would carry the NaN away.
  static Float widen(__m256i halves) {
    const Float values = _mm512_cvtph_ps(halves);
    const Float nan = asFloat(eachInt(0x7fc00000));
    return _mm512_mask_mov_ps(values, _mm512_cmp_ps_mask(values, values, _CMP_UNORD_Q), nan);
  }
};

}  // namespace
}  // namespace qwen35
