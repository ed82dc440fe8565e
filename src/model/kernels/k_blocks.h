// The K-quant blocks of 256 elements as they lie in the file, one element at a time.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Block {
//     static constexpr size_t kType;       // kiv::QuantType
//     static constexpr size_t kBytes;
//     static constexpr size_t kSubBlocks;  // 8, which have minimums as well, or 16
//     static constexpr int kCentre;        // the code of zero
//     // What an element is, without the minimum of its sub-block.
//     static float scaledCode(const uint8_t* block, size_t element);
//   };
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

inline float halfAt(const uint8_t* at) {
  uint16_t bits;
  __builtin_memcpy(&bits, at, sizeof bits);
  return _cvtsh_ss(bits);
}

// The six-bit scale of a sub-block of Q4_K or Q5_K.
inline int subBlockScale(const uint8_t* block, size_t subBlock) {
  const uint8_t* packed = block + 4;
  if (subBlock < 4) return packed[subBlock] & 0x3f;
  return (packed[subBlock + 4] & 0x0f) | packed[subBlock - 4] >> 6 << 4;
}

// The nibble of an element, of which 32 are in the low halves of bytes and 32 in the high ones.
inline int chunkNibble(const uint8_t* codes, size_t element) {
  return codes[element / 64 * 32 + element % 32] >> (element % 64 < 32 ? 0 : 4) & 0x0f;
}

struct Q4kBlock {
  static constexpr size_t kType = 5;
  static constexpr size_t kBytes = 144;
  static constexpr size_t kSubBlocks = 8;
  static constexpr int kCentre = 0;

  static float scaledCode(const uint8_t* block, size_t element) {
    const int scaled = subBlockScale(block, element / 32) * chunkNibble(block + 16, element);
    return halfAt(block) * static_cast<float>(scaled);
  }
};

struct Q5kBlock {
  static constexpr size_t kType = 6;
  static constexpr size_t kBytes = 176;
  static constexpr size_t kSubBlocks = 8;
  static constexpr int kCentre = 0;

  static float scaledCode(const uint8_t* block, size_t element) {
    const int fifth = block[16 + element % 32] >> (element / 32) & 1;
    const int code = chunkNibble(block + 48, element) | fifth << 4;
    return halfAt(block) * static_cast<float>(subBlockScale(block, element / 32) * code);
  }
};

struct Q6kBlock {
  static constexpr size_t kType = 7;
  static constexpr size_t kBytes = 210;
  static constexpr size_t kSubBlocks = 16;
  static constexpr int kCentre = 32;

  static float scaledCode(const uint8_t* block, size_t element) {
    const size_t half = element / 128;
    const size_t quarter = element % 128 / 32;
    const size_t low = 64 * half + element % 64;
    const int nibble = block[low] >> (quarter < 2 ? 0 : 4) & 0x0f;
    const int upper = block[128 + 32 * half + element % 32] >> (2 * quarter) & 3;
    const auto scale = static_cast<int8_t>(block[192 + element / 16]);
    return halfAt(block + 208) * static_cast<float>(scale * ((nibble | upper << 4) - kCentre));
  }
};

}  // namespace
}  // namespace qwen35
