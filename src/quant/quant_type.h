// Element types of tensors and the bytes that a row of each occupies in the container.
#pragma once

#include <cstdint>

#include "compat/export.h"

namespace kiv {

// Stored in the tensor index. Blocks and bytes per block:
//   F32 1/4, F16 1/2, BF16 1/2, Q4_0 32/18, Q8_0 32/34,
//   Q4_K 256/144, Q5_K 256/176, Q6_K 256/210, IQ4_XS 256/136.
// IQ4_XS is known by name and size only: there is no conversion for it.
enum class QuantType : uint8_t {
  F32 = 0,
  F16 = 1,
  BF16 = 2,
  Q4_0 = 3,
  Q8_0 = 4,
  Q4_K = 5,
  Q5_K = 6,
  Q6_K = 7,
  IQ4_XS = 8,
};

inline constexpr int kQuantTypeCount = 9;

// Printable static name; "?" for an unknown value.
ORB_API const char* quantTypeName(QuantType type);

namespace quant {

// Elements of one block; 0 for an unknown type.
ORB_API uint64_t blockElements(QuantType type);

// Bytes of one row of n elements, rounded up to whole blocks; 0 for an unknown type. Modulo 2^64:
// a caller with a hostile n compares it with the file size first.
ORB_API uint64_t quantizedBytes(QuantType type, uint64_t n);

// The same for the 256-element types only (Q4_K, Q5_K, Q6_K, IQ4_XS); 0 for every other type.
ORB_API uint64_t quantizedBytesK(QuantType type, uint64_t n);

}  // namespace quant
}  // namespace kiv
