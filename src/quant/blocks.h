// The block formats of 32 elements, Q4_0 and Q8_0, both little-endian with a half scale d first.
//
//   Q4_0, 18 bytes: d, 16 bytes of codes; byte 2 + k holds element 2k in its low nibble and
//                   element 2k + 1 in its high nibble; value = (code - 8) * d.
//   Q8_0, 34 bytes: d, 32 signed codes; value = code * d.
//
// Quantizers write ceil(n / 32) blocks, elements beyond n count as 0. Dequantizers write exactly
// n floats. The encoded side may have any alignment; source and destination do not overlap.
#pragma once

#include <cstdint>

#include "compat/export.h"

namespace kiv::quant {

ORB_API void quantQ40(const float* source, uint8_t* destination, uint64_t n);
ORB_API void dequantQ40(const uint8_t* source, float* destination, uint64_t n);
ORB_API void quantQ80(const float* source, uint8_t* destination, uint64_t n);
ORB_API void dequantQ80(const uint8_t* source, float* destination, uint64_t n);

}  // namespace kiv::quant
