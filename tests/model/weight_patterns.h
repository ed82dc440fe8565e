// Rows of weights for the tests of the products: plausible ones and such as a careless kernel would
// get wrong.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "quant/quant_type.h"

namespace orbtest {

enum class Pattern {
  Random,            // any code under scales of ordinary size
  AllCodes,          // every code in turn, sub-block scales in steps
  ExtremeScales,     // the largest half, the smallest, subnormal, zero and negative ones
  SubScaleLimits,    // sub-block scales and minimums at the ends of their range
  Cancelling,        // every fourth weight is exactly zero as a difference of large numbers (Q4_K,
                     // Q5_K); elsewhere few and small weights among large ones
  OneDifferentCode,  // all codes stand for zero but for one in a row
};
inline constexpr Pattern kAllPatterns[] = {Pattern::Random,        Pattern::AllCodes,
                                           Pattern::ExtremeScales, Pattern::SubScaleLimits,
                                           Pattern::Cancelling,    Pattern::OneDifferentCode};

const char* patternName(Pattern pattern);

// The six types that a matrix may have.
inline constexpr kiv::QuantType kMatrixTypes[] = {kiv::QuantType::F32,  kiv::QuantType::BF16,
                                                  kiv::QuantType::Q8_0, kiv::QuantType::Q4_K,
                                                  kiv::QuantType::Q5_K, kiv::QuantType::Q6_K};

// One encoded row; cols is a multiple of the type's block.
std::vector<uint8_t> makeRow(kiv::QuantType type, Pattern pattern, size_t cols,
                             std::mt19937& random);

// One Q4_K or Q5_K block with the given halves and six-bit scales and minimums; codes[256].
std::vector<uint8_t> makeScaledBlock(kiv::QuantType type, uint16_t d, uint16_t dmin,
                                     const uint8_t (&scales)[8], const uint8_t (&minimums)[8],
                                     const std::vector<uint8_t>& codes);

// One Q6_K block; codes[256] are six bits each, 32 standing for zero.
std::vector<uint8_t> makeQ6Block(uint16_t d, const int8_t (&scales)[16],
                                 const std::vector<uint8_t>& codes);

// The row as floats, by the reference conversions.
std::vector<float> decodeRow(kiv::QuantType type, const uint8_t* row, size_t cols);

}  // namespace orbtest
