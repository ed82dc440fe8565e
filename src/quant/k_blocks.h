// The super-block formats of 256 elements, split into sub-blocks whose scales are themselves
// quantized against half-precision super-scales. Little-endian throughout.
//
//   Q4_K, 144 bytes: 0 d, 2 dmin (halves), 4 packed scales (12), 16 codes (128).
//         Element 64c + l (c < 4, l < 32) is the low nibble of codes[32c + l] in sub-block 2c,
//         element 64c + 32 + l its high nibble in sub-block 2c + 1;
//         value = fma(code, d * sc, -(dmin * m)).
//   Q5_K, 176 bytes: 0 d, 2 dmin, 4 packed scales (12), 16 fifth bits qh (32), 48 low
//         nibbles (128).
//         As Q4_K, the code plus 16 when bit 2c (bit 2c + 1 for the high nibble) of qh[l] is set.
//   Q6_K, 210 bytes: 0 low nibbles ql (128), 128 high bits qh (64), 192 signed scales (16), 208 d.
//         Per half h (ql + 64h, qh + 32h, scales + 8h, elements 128h..), l < 32, s = l / 16:
//         l: ql[l] low, qh bits 0-1, scale s; l + 32: ql[l + 32] low, bits 2-3, scale s + 2;
//         l + 64: ql[l] high, bits 4-5, scale s + 4;
//         l + 96: ql[l + 32] high, bits 6-7, scale s + 6;
//         value = d * float((code - 32) * scale).
//   Q8_K, 290 bytes, source of dequantQ8K only: 0 d, 2 signed codes (256), 258 sixteen half
//         sub-scales; value = float(code) * d * subscale, with the d of the row's first block.
//
// Quantizers write ceil(n / 256) blocks, elements beyond n count as 0. Dequantizers write exactly
// n floats (dequantQ8K: whole blocks only). The encoded side may have any alignment; source and
// destination do not overlap.
#pragma once

#include <cstdint>

#include "compat/export.h"

namespace kiv::quant {

ORB_API void quantQ4K(const float* source, uint8_t* destination, uint64_t n);
ORB_API void quantQ5K(const float* source, uint8_t* destination, uint64_t n);
ORB_API void quantQ6K(const float* source, uint8_t* destination, uint64_t n);

ORB_API void dequantQ4K(const uint8_t* source, float* destination, uint64_t n);
ORB_API void dequantQ5K(const uint8_t* source, float* destination, uint64_t n);
ORB_API void dequantQ6K(const uint8_t* source, float* destination, uint64_t n);
ORB_API void dequantQ8K(const uint8_t* source, float* destination, uint64_t n);

// Six-bit scale and minimum of sub-block j (0..7) from the 12 packed bytes of Q4_K and Q5_K.
ORB_API void getScaleMinK4(int j, const uint8_t* packed, uint8_t& scale, uint8_t& minimum);

}  // namespace kiv::quant
