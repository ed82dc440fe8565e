// Products of one token with K-quant weights in integers, for the tiers that have dot products of
// bytes. An input becomes a whole number of 32 bits times a power of two that its sub-block has in
// common, and is cut into four limbs of eight bits. What codes and limbs give is exact:
//
//   row . x = sum over blocks of  scales * units . (codes . limbs)  -  minimums . sums
//
// Four times as many codes as a register has lanes fill it. A lane of it belongs to one sub-block,
// the same one in all registers of a group, so that a group has a single pair of sums: of the upper
// two limbs and of the lower two.
//
// An input that is far smaller than the largest of its sub-block would keep too few of its bits: it
// is taken by itself, in floats. A block with many of those, or with inputs that are not finite, is
// left to the tier's own kernel.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
//
//   struct Limbs {                            // the registers of a tier
//     using Float = ..., Int = ...;           // of 32-bit lanes
//     static constexpr size_t kWidth;         // lanes of a register
//     static constexpr size_t kRowsAtOnce;
//     static constexpr size_t kAhead;         // bytes beyond the next rows' that are asked for
//     static constexpr size_t kFirstUnit;     // 0 or 8: where the form for floats has zeros
//     static const KernelTable& floats();     // the tier's kernels for the blocks left to them
//     static Float load(at), each(value), add(a, b), sub(a, b), mul(a, b), abs(a);
//     static uint32_t greater(Float a, Float b);  // a bit for each lane
//     static float total(Float v);            // sum of the lanes, in a fixed order
//     static Int round(Float v);              // to the nearest whole number
//     static Float toFloat(Int v);
//     static Int loadInts(at), eachByte(value), dot(Int sums, Int codes, Int limbs);
//     static void store(int32_t* at, Int v);
//     // From where the sums of a group and a pair of limbs start, given the sums of each limb that
//     // are to be taken off them.
//     static void storeStart(LimbBlock& block, size_t group, size_t pair, Int first, Int second);
//     template <typename Codes, size_t kRows> class Rows;  // sums of products of kRows rows:
//       template <int kLevel> void add(const uint8_t* rows, size_t rowBytes, const LimbBlock& x,
//                                      const uint8_t* next);  // asks for kRows blocks at `next`
//       float product(size_t r) const;
//   };
//
//   struct Codes : Q4kBlock {                 // of one type: a struct of model/kernels/k_blocks.h
//     static constexpr size_t kGroups;        // of equal numbers of registers
//     static constexpr bool kShortRowsNear;   // asked for into the first-level cache
//     static constexpr size_t element(size_t i, size_t lane);  // first of four in a row
//     static constexpr float factor(size_t subBlock);          // what its codes are multiplied by
//   };
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "model/kernels/k_blocks.h"
#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

constexpr size_t kBlockElements = 256;
constexpr size_t kLimbs = 4;

// Inputs that the limbs of a block have zeros for.
struct SmallInputs {
  static constexpr size_t kMost = 12;  // so that all is a cache line

  float values[kMost];
  uint8_t elements[kMost];
  uint32_t count;

  bool add(size_t element, float value) {
    if (count == kMost) return false;
    values[count] = value;
    elements[count] = static_cast<uint8_t>(element);
    ++count;
    return true;
  }
};

// The inputs of a block in arranged form. Where they don't fit into limbs, it has what the tier
// makes of them instead, which has zeros for some units.
struct LimbBlock {
  int8_t limbs[kLimbs][kBlockElements];  // the most significant first
  // Of each sub-block, times 2^16; with eight of them also minus the sums of their inputs, in the
  // half that Limbs::kFirstUnit leaves.
  float units[16];
  int32_t starts[64];  // of sums, so that codes count from their centre
  SmallInputs small;
};
static_assert(sizeof(LimbBlock) == kArrangedBlock * sizeof(float));

template <typename Limbs>
bool isFloats(const LimbBlock& block) {
  return block.units[Limbs::kFirstUnit] == 0;
}

template <typename Limbs, typename Codes>
class LimbInputs {
 public:
  static void arrange(const float* x, size_t cols, float* out) {
    for (; cols >= kBlockElements; cols -= kBlockElements) {
      auto& block = *reinterpret_cast<LimbBlock*>(out);
      int32_t limbs[kBlockElements];  // four to a lane, as signed bytes
      if (split(x, limbs, block)) {
        spread(limbs, block);
        if constexpr (Codes::kCentre != 0) centre(block);
      } else {
        Limbs::floats().arrange[Codes::kType](x, kBlockElements, out);
      }
      x += kBlockElements;
      out += kArrangedBlock;
    }
  }

 private:
  using Float = typename Limbs::Float;
  using Int = typename Limbs::Int;

  static constexpr size_t kPart = kBlockElements / Codes::kSubBlocks;
  static constexpr size_t kRegisters = kBlockElements / 4 / Limbs::kWidth;
  static constexpr size_t kPerGroup = kRegisters / Codes::kGroups;
  static_assert(kRegisters % Codes::kGroups == 0);
  static constexpr size_t kUnits = Codes::kSubBlocks == 8 ? Limbs::kFirstUnit : 0;
  static constexpr size_t kSums = 8 - kUnits;

  // False where 32 bits would leave too few inputs sixteen significant ones.
  static bool split(const float* x, int32_t* limbs, LimbBlock& out) {
    out.small.count = 0;
    for (size_t s = 0; s < Codes::kSubBlocks; ++s, x += kPart, limbs += kPart) {
      float perUnit;
      float unit;
      if (!findUnit(x, perUnit, unit)) return false;
      if (!toWhole(x, perUnit, limbs, s * kPart, out.small)) return false;
      // Every byte but the highest is made signed, at the expense of the one above.
      constexpr uint32_t kHalf = 0x00808080;
      for (size_t i = 0; i < kPart; ++i) {
        limbs[i] = static_cast<int32_t>((static_cast<uint32_t>(limbs[i]) + kHalf) ^ kHalf);
      }
      out.units[kUnits + s] = unit / Codes::factor(s);
      if constexpr (Codes::kSubBlocks == 8) out.units[kSums + s] = -sum(x);
    }
    return true;
  }

  // Whole numbers of units; those of the small inputs are zeros.
  static bool toWhole(const float* x, float perUnit, int32_t* out, size_t element,
                      SmallInputs& small) {
    for (size_t i = 0; i < kPart; i += Limbs::kWidth) {
      const Float scaled = Limbs::mul(Limbs::load(x + i), Limbs::each(perUnit));
      const Int whole = Limbs::round(scaled);
      const Float error = Limbs::abs(Limbs::sub(Limbs::toFloat(whole), scaled));
      const Float bound = Limbs::mul(Limbs::abs(scaled), Limbs::each(0x1p-16f));
      Limbs::store(out + i, whole);
      for (uint32_t lanes = Limbs::greater(error, bound); lanes != 0; lanes &= lanes - 1) {
        const size_t lane = i + static_cast<size_t>(__builtin_ctz(lanes));
        if (!small.add(element + lane, x[lane])) return false;
        out[lane] = 0;
      }
    }
    return true;
  }

  static float sum(const float* x) {
    Float sum = Limbs::load(x);
    for (size_t i = Limbs::kWidth; i < kPart; i += Limbs::kWidth) {
      sum = Limbs::add(sum, Limbs::load(x + i));
    }
    return Limbs::total(sum);
  }

  // A power of two that leaves the largest of the inputs 30 or 31 bits and a sign; false where
  // floats could not hold what comes of it.
  static bool findUnit(const float* x, float& perUnit, float& unit) {
    constexpr uint32_t kLeast = uint32_t{127 - 60} << 23;
    constexpr uint32_t kTooMuch = uint32_t{127 + 60} << 23;  // bits of not a number are beyond
    const uint32_t most = largest(x);
    perUnit = 0;
    unit = 1;
    if (most == 0) return true;
    if (most < kLeast || most >= kTooMuch) return false;
    // Beyond 0x7f7f7f7f units, 24 bits of which are 0x7f7f7f, the highest byte would overflow.
    const uint32_t exponent = (most >> 23) + ((most & 0x7fffff) > 0x7efefe ? 1 : 0);
    perUnit = powerOfTwo(30 - static_cast<int>(exponent - 127));
    unit = powerOfTwo(static_cast<int>(exponent - 127) - 30 + 16);
    return true;
  }

  // The bits of the largest magnitude, which are in the order of magnitudes.
  static uint32_t largest(const float* x) {
    uint32_t bits[kPart];
    __builtin_memcpy(bits, x, sizeof bits);
    uint32_t most = 0;
    for (const uint32_t b : bits) {
      const uint32_t magnitude = b & 0x7fffffff;
      most = magnitude > most ? magnitude : most;
    }
    return most;
  }

  static float powerOfTwo(int exponent) {
    const uint32_t bits = static_cast<uint32_t>(127 + exponent) << 23;
    float power;
    __builtin_memcpy(&power, &bits, sizeof power);
    return power;
  }

  // Four lanes at a time.
  static void spread(const int32_t* limbs, LimbBlock& out) {
    const __m128i byLimb = _mm_setr_epi8(3, 7, 11, 15, 2, 6, 10, 14, 1, 5, 9, 13, 0, 4, 8, 12);
    for (size_t at = 0; at < kBlockElements; at += 16) {
      __m128i lanes[4];
      for (size_t l = 0; l < 4; ++l) {
        const size_t lane = at / 4 + l;
        const int32_t* from = limbs + Codes::element(lane / Limbs::kWidth, lane % Limbs::kWidth);
        const __m128i four = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        lanes[l] = _mm_shuffle_epi8(four, byLimb);
      }
      const __m128i upper0 = _mm_unpacklo_epi32(lanes[0], lanes[1]);
      const __m128i upper1 = _mm_unpacklo_epi32(lanes[2], lanes[3]);
      const __m128i lower0 = _mm_unpackhi_epi32(lanes[0], lanes[1]);
      const __m128i lower1 = _mm_unpackhi_epi32(lanes[2], lanes[3]);
      store(out.limbs[0] + at, _mm_unpacklo_epi64(upper0, upper1));
      store(out.limbs[1] + at, _mm_unpackhi_epi64(upper0, upper1));
      store(out.limbs[2] + at, _mm_unpacklo_epi64(lower0, lower1));
      store(out.limbs[3] + at, _mm_unpackhi_epi64(lower0, lower1));
    }
  }

  static void store(int8_t* at, __m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at), bytes);
  }

  static void centre(LimbBlock& out) {
    const Int codes = Limbs::eachByte(Codes::kCentre);
    for (size_t g = 0; g < Codes::kGroups; ++g) {
      for (size_t pair = 0; pair < 2; ++pair) {
        Int sums[2] = {};
        for (size_t i = g * kPerGroup; i < (g + 1) * kPerGroup; ++i) {
          for (size_t l = 0; l < 2; ++l) {
            const Int limbs = Limbs::loadInts(out.limbs[2 * pair + l] + 4 * Limbs::kWidth * i);
            sums[l] = Limbs::dot(sums[l], codes, limbs);
          }
        }
        Limbs::storeStart(out, g, pair, sums[0], sums[1]);
      }
    }
  }
};

// As prefetchPart of model/kernels/prefetch.h, between integers.
template <int kLevel, size_t kBytes, size_t kSteps, typename Int>
[[gnu::always_inline]] inline void prefetchStep(const uint8_t* at, size_t step, Int& work) {
  constexpr size_t kLines = (kBytes + 63) / 64;
  for (size_t line = kLines * step / kSteps; line < kLines * (step + 1) / kSteps; ++line) {
    if constexpr (kLevel == 3) {
      __asm__ volatile("prefetcht0 %1" : "+v"(work) : "m"(at[64 * line]));
    } else {
      static_assert(kLevel == 2);
      __asm__ volatile("prefetcht1 %1" : "+v"(work) : "m"(at[64 * line]));
    }
  }
}

template <typename Limbs, typename Codes>
class LimbProducts {
 public:
  static void gemv(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                   const float* x, float* y) {
    if (Codes::kShortRowsNear && rowBytes <= kNearBytes) {
      dotGroups<3>(rows, rowBytes, rowCount, cols, x, y);
    } else {
      dotGroups<2>(rows, rowBytes, rowCount, cols, x, y);
    }
    for (; cols >= kBlockElements; cols -= kBlockElements, x += kArrangedBlock) {
      const auto& block = *reinterpret_cast<const LimbBlock*>(x);
      if (isFloats<Limbs>(block)) {
        Limbs::floats().gemv[Codes::kType](rows, rowBytes, rowCount, kBlockElements, x, y);
      } else {
        addSmall(rows, rowBytes, rowCount, block.small, y);
      }
      rows += Codes::kBytes;
    }
  }

 private:
  static constexpr size_t kNearBytes = 4096;

  template <int kLevel>
  static void dotGroups(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                        const float* x, float* y) {
    constexpr size_t kRows = Limbs::kRowsAtOnce;
    size_t r = 0;
    for (; r + kRows <= rowCount; r += kRows) {
      dotRows<kRows, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
    }
    for (; r < rowCount; ++r) dotRows<1, kLevel>(rows + r * rowBytes, rowBytes, cols, x, y + r);
  }

  static void addSmall(const uint8_t* rows, size_t rowBytes, size_t rowCount,
                       const SmallInputs& small, float* y) {
    for (size_t i = 0; i < small.count; ++i) {
      const size_t element = small.elements[i];
      const float value = small.values[i];
      for (size_t r = 0; r < rowCount; ++r) {
        y[r] += value * Codes::scaledCode(rows + r * rowBytes, element);
      }
    }
  }

  // y[r] += row r . x for kRows rows that share every load of x, but for the blocks in floats.
  template <size_t kRows, int kLevel>
  static void dotRows(const uint8_t* rows, size_t rowBytes, size_t cols, const float* x, float* y) {
    typename Limbs::template Rows<Codes, kRows> sums;
    const uint8_t* next = rows + kRows * rowBytes + Limbs::kAhead;
    for (; cols >= kBlockElements; cols -= kBlockElements, x += kArrangedBlock) {
      const auto& block = *reinterpret_cast<const LimbBlock*>(x);
      if (!isFloats<Limbs>(block)) [[likely]] {
        sums.template add<kLevel>(rows, rowBytes, block, next);
      }
      rows += Codes::kBytes;
      next += kRows * Codes::kBytes;
    }
#pragma GCC unroll 4
    for (size_t r = 0; r < kRows; ++r) y[r] += sums.product(r);
  }
};

template <typename Limbs, typename Codes>
void useLimbs(KernelTable& table) {
  table.gemv[Codes::kType] = LimbProducts<Limbs, Codes>::gemv;
  table.arrange[Codes::kType] = LimbInputs<Limbs, Codes>::arrange;
}

}  // namespace
}  // namespace qwen35
