// Random weights, written straight in an element type of the container.
#pragma once

#include <cstdint>

#include "quant/quant_type.h"
#include "synth/random.h"

namespace orb {

// Fills `count` whole blocks (elements, for F32 and BF16) at `out` with values of about the given
// mean and standard deviation. Block types draw random codes under plausible scales instead of
// quantizing floats, which is fast and uses every code; their mean is 0 whatever `mean` says.
// F32, BF16, Q8_0, Q4_K, Q5_K and Q6_K only.
void fillRandomBlocks(kiv::QuantType type, Random& random, float mean, float deviation,
                      uint8_t* out, uint64_t count);

// Bytes of one block; 0 for a type that fillRandomBlocks() does not write.
uint64_t randomBlockBytes(kiv::QuantType type);

}  // namespace orb
