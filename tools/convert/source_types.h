// Element types of checkpoints: how many bytes they take, what they become in an .orb file, and
// how their blocks are read.
//
//   blocks of 32; d, m are halves
//   Q4_0   18: d, 16 bytes; element i < 16 is the low nibble of byte i, element i + 16 its high
//              nibble; d * (q - 8). (The container's own Q4_0 pairs other elements.)
//   Q4_1   20: d, m, 16 bytes likewise; d * q + m
//   Q5_0   22: d, u32 whose bit i is the fifth bit of element i, 16 bytes; d * (q - 16)
//   Q5_1   24: d, m, u32, 16 bytes; d * q + m
//   Q8_0   34: as in the container
//   IQ4_NL 18: as Q4_0, d * table[q]
//   blocks of 256
//   Q2_K   84: 16 bytes with a scale (low nibble) and a minimum (high nibble) for 16 elements each,
//              64 bytes qs, d, dmin; element 128n + 32s + l is bits 2s..2s + 1 of qs[32n + l];
//              d * scale * q - dmin * minimum
//   Q3_K  110: 32 bytes hmask, 64 bytes qs, 12 bytes scales, d; low two bits as Q2_K, third bit =
//              bit 4n + s of hmask[l], q = low - (third ? 0 : 4); d * (scale - 32) * q, sixteen
//              scales j of six bits: low nibble of byte j (j < 8) or high nibble of byte j - 8,
//              upper bits 2 * (j / 4) and the next of byte 8 + j % 4
//   Q4_K, Q5_K, Q6_K: as in the container
//   IQ4_XS 136: d, u16 scales_h, 4 bytes scales_l, 128 bytes qs; sub-block b of 32 has
//              ls = nibble b of scales_l | (scales_h >> 2b & 3) << 4 and the 16 bytes from 16b, as
//              Q4_0; d * (ls - 32) * table[q]
#pragma once

#include <cstdint>
#include <string>

#include "quant/quant_type.h"

namespace orb {

// The numbers that GGUF files use; safetensors and .orb files are read into the same ones.
enum class SourceType : uint32_t {
  F32 = 0,
  F16 = 1,
  Q4_0 = 2,
  Q4_1 = 3,
  Q5_0 = 6,
  Q5_1 = 7,
  Q8_0 = 8,
  Q2_K = 10,
  Q3_K = 11,
  Q4_K = 12,
  Q5_K = 13,
  Q6_K = 14,
  IQ4_NL = 20,
  IQ4_XS = 23,
  BF16 = 30,
};

// What becomes of a type when nothing else is asked for.
enum class Handling {
  Copy,      // the same bytes
  Reencode,  // other bytes, the same values (IQ4_XS: within 2^-11)
  Float,     // through floats, exact in F32
  Requantize,
};

struct SourceTypeInfo {
  SourceType type;
  const char* name;
  uint64_t blockElements;
  uint64_t blockBytes;
  Handling handling;
  kiv::QuantType target;  // of Copy, Reencode and Requantize; F32 of Float
  bool exact;             // target values equal source values
  // `count` blocks to floats.
  void (*decode)(const uint8_t* source, float* out, uint64_t count);
  // `count` blocks to target blocks; null unless Reencode.
  void (*reencode)(const uint8_t* source, uint8_t* out, uint64_t count);
};

// Null for a type that cannot be read.
const SourceTypeInfo* findSourceType(uint32_t number);
const SourceTypeInfo& sourceType(SourceType type);

// The type that holds the same bytes as a container type (not F16, Q4_0 and IQ4_XS).
SourceType sourceTypeOf(kiv::QuantType type);

// "IQ2_XXS", or "type 99" for a number that has no name.
std::string sourceTypeName(uint32_t number);

}  // namespace orb
