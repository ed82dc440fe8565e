// IEEE 754 binary16 conversions in software, bit by bit, so that results are the same on every CPU.
#pragma once

#include <cstdint>

#include "compat/export.h"

namespace kiv::quant {

// Rounds to nearest, ties to even; overflow gives infinity, every NaN the quiet NaN of its sign.
ORB_API uint16_t f32ToF16(float value);

// Exact; a NaN keeps its payload.
ORB_API float f16ToF32(uint16_t bits);

}  // namespace kiv::quant
