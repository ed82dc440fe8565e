#include "convert/source_types.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "quant/block_codec.h"
#include "quant/blocks.h"
#include "quant/k_blocks.h"

namespace orb {
namespace {

using kiv::QuantType;
using kiv::quant::loadHalf;
using kiv::quant::storeHalf;

constexpr std::array<int8_t, 16> kNonlinear{-127, -104, -83, -65, -49, -35, -22, -10,
                                            1,    13,   25,  38,  53,  69,  89,  113};
constexpr int kHalfBlock = 16;  // bytes of nibbles in a block of 32

// Signed codes of the 32 elements of one block.
using Codes32 = std::array<int8_t, 32>;

// Element i is the low nibble of byte i, element i + 16 its high nibble.
Codes32 splitNibbles(const uint8_t* bytes) {
  Codes32 codes;
  for (int i = 0; i < kHalfBlock; ++i) {
    codes[i] = static_cast<int8_t>(bytes[i] & 15);
    codes[i + kHalfBlock] = static_cast<int8_t>(bytes[i] >> 4);
  }
  return codes;
}

Codes32 splitFiveBits(const uint8_t* high, const uint8_t* nibbles) {
  uint32_t bits = 0;
  std::memcpy(&bits, high, sizeof bits);
  Codes32 codes = splitNibbles(nibbles);
  for (int i = 0; i < 32; ++i) {
    codes[i] = static_cast<int8_t>(codes[i] | (bits >> i & 1) << 4);
  }
  return codes;
}

Codes32 codesQ40(const uint8_t* block) {
  Codes32 codes = splitNibbles(block + 2);
  for (int8_t& code : codes) code = static_cast<int8_t>(code - 8);
  return codes;
}

Codes32 codesQ50(const uint8_t* block) {
  Codes32 codes = splitFiveBits(block + 2, block + 6);
  for (int8_t& code : codes) code = static_cast<int8_t>(code - 16);
  return codes;
}

Codes32 lookUp(const uint8_t* nibbles) {
  Codes32 codes = splitNibbles(nibbles);
  for (int8_t& code : codes) code = kNonlinear[static_cast<uint8_t>(code)];
  return codes;
}

Codes32 codesIq4Nl(const uint8_t* block) { return lookUp(block + 2); }

// Blocks that are a half and signed codes already: Q4_0, Q5_0, IQ4_NL.
template <Codes32 (*kCodes)(const uint8_t*), uint64_t kBytes>
void decodeSigned(const uint8_t* source, float* out, uint64_t count) {
  for (; count > 0; --count, source += kBytes, out += 32) {
    const float d = loadHalf(source);
    const Codes32 codes = kCodes(source);
    for (int i = 0; i < 32; ++i) out[i] = d * static_cast<float>(codes[i]);
  }
}

template <Codes32 (*kCodes)(const uint8_t*), uint64_t kBytes>
void reencodeSigned(const uint8_t* source, uint8_t* out, uint64_t count) {
  for (; count > 0; --count, source += kBytes, out += 34) {
    const Codes32 codes = kCodes(source);
    std::memcpy(out, source, 2);
    std::memcpy(out + 2, codes.data(), codes.size());
  }
}

// d * q + m: Q4_1 and Q5_1.
template <bool kFiveBits>
void decodeOffset(const uint8_t* source, float* out, uint64_t count) {
  for (; count > 0; --count, source += kFiveBits ? 24 : 20, out += 32) {
    const float d = loadHalf(source);
    const float m = loadHalf(source + 2);
    const Codes32 codes =
        kFiveBits ? splitFiveBits(source + 4, source + 8) : splitNibbles(source + 4);
    for (int i = 0; i < 32; ++i) out[i] = d * static_cast<float>(codes[i]) + m;
  }
}

void decodeQ2K(const uint8_t* source, float* out, uint64_t count) {
  for (; count > 0; --count, source += 84, out += 256) {
    const uint8_t* qs = source + 16;
    const float d = loadHalf(source + 80);
    const float dmin = loadHalf(source + 82);
    for (int i = 0; i < 256; ++i) {
      const int n = i / 128, s = i / 32 % 4, l = i % 32;
      const int q = qs[32 * n + l] >> (2 * s) & 3;
      const uint8_t packed = source[i / 16];
      out[i] = d * static_cast<float>((packed & 15) * q) - dmin * static_cast<float>(packed >> 4);
    }
  }
}

int scaleQ3K(const uint8_t* packed, int j) {
  const int low = j < 8 ? packed[j] & 15 : packed[j - 8] >> 4;
  return (low | (packed[8 + j % 4] >> (2 * (j / 4)) & 3) << 4) - 32;
}

int codeQ3K(const uint8_t* block, int i) {
  const int n = i / 128, s = i / 32 % 4, l = i % 32;
  const int low = block[32 + 32 * n + l] >> (2 * s) & 3;
  return low - ((block[l] >> (4 * n + s) & 1) != 0 ? 0 : 4);
}

constexpr int kQ3ScalesAt = 96, kQ3ScaleAt = 108, kQ3Bytes = 110;

void decodeQ3K(const uint8_t* source, float* out, uint64_t count) {
  for (; count > 0; --count, source += kQ3Bytes, out += 256) {
    const float d = loadHalf(source + kQ3ScaleAt);
    for (int i = 0; i < 256; ++i) {
      out[i] = d * static_cast<float>(scaleQ3K(source + kQ3ScalesAt, i / 16) * codeQ3K(source, i));
    }
  }
}

// The scales of Q3_K serve 16 elements each, as those of Q6_K do; the codes of three bits become
// codes of six.
void reencodeQ3K(const uint8_t* source, uint8_t* out, uint64_t count) {
  for (; count > 0; --count, source += kQ3Bytes, out += 210) {
    std::memset(out, 0, 192);
    for (int i = 0; i < 256; ++i) {
      const int code = codeQ3K(source, i) + 32;
      const int half = i / 128, quarter = i / 32 % 4, l = i % 32;
      uint8_t& low = out[64 * half + 32 * (quarter % 2) + l];
      uint8_t& high = out[128 + 32 * half + l];
      low = static_cast<uint8_t>(low | (code & 15) << (4 * (quarter / 2)));
      high = static_cast<uint8_t>(high | (code >> 4) << (2 * quarter));
    }
    for (int j = 0; j < 16; ++j) {
      out[192 + j] = static_cast<uint8_t>(scaleQ3K(source + kQ3ScalesAt, j));
    }
    std::memcpy(out + 208, source + kQ3ScaleAt, 2);
  }
}

int scaleIq4Xs(const uint8_t* block, int b) {
  const int high = (block[2] | block[3] << 8) >> (2 * b) & 3;
  const int low = block[4 + b / 2] >> (4 * (b % 2)) & 15;
  return (low | high << 4) - 32;
}

void decodeIq4Xs(const uint8_t* source, float* out, uint64_t count) {
  for (; count > 0; --count, source += 136) {
    const float d = loadHalf(source);
    for (int b = 0; b < 8; ++b, out += 32) {
      const float ds = d * static_cast<float>(scaleIq4Xs(source, b));
      const Codes32 codes = lookUp(source + 8 + 16 * b);
      for (int i = 0; i < 32; ++i) out[i] = ds * static_cast<float>(codes[i]);
    }
  }
}

void reencodeIq4Xs(const uint8_t* source, uint8_t* out, uint64_t count) {
  for (; count > 0; --count, source += 136) {
    const float d = loadHalf(source);
    for (int b = 0; b < 8; ++b, out += 34) {
      storeHalf(out, d * static_cast<float>(scaleIq4Xs(source, b)));
      const Codes32 codes = lookUp(source + 8 + 16 * b);
      std::memcpy(out + 2, codes.data(), codes.size());
    }
  }
}

void decodeF32(const uint8_t* source, float* out, uint64_t count) {
  std::memcpy(out, source, count * sizeof(float));
}

void decodeF16(const uint8_t* source, float* out, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) out[i] = loadHalf(source + 2 * i);
}

void decodeBf16(const uint8_t* source, float* out, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    uint16_t upper;
    std::memcpy(&upper, source + 2 * i, sizeof upper);
    const uint32_t bits = static_cast<uint32_t>(upper) << 16;
    std::memcpy(out + i, &bits, sizeof bits);
  }
}

template <void (*kDequantize)(const uint8_t*, float*, uint64_t), uint64_t kElements>
void decodeOwn(const uint8_t* source, float* out, uint64_t count) {
  kDequantize(source, out, count * kElements);
}

constexpr auto kFloat = Handling::Float;
constexpr auto kCopy = Handling::Copy;
constexpr auto kReencode = Handling::Reencode;
constexpr auto kRequantize = Handling::Requantize;

constexpr SourceTypeInfo kTypes[] = {
    {SourceType::F32, "F32", 1, 4, kCopy, QuantType::F32, true, decodeF32, nullptr},
    {SourceType::F16, "F16", 1, 2, kFloat, QuantType::F32, true, decodeF16, nullptr},
    {SourceType::BF16, "BF16", 1, 2, kCopy, QuantType::BF16, true, decodeBf16, nullptr},
    {SourceType::Q4_0, "Q4_0", 32, 18, kReencode, QuantType::Q8_0, true, decodeSigned<codesQ40, 18>,
     reencodeSigned<codesQ40, 18>},
    {SourceType::Q4_1, "Q4_1", 32, 20, kRequantize, QuantType::Q6_K, false, decodeOffset<false>,
     nullptr},
    {SourceType::Q5_0, "Q5_0", 32, 22, kReencode, QuantType::Q8_0, true, decodeSigned<codesQ50, 22>,
     reencodeSigned<codesQ50, 22>},
    {SourceType::Q5_1, "Q5_1", 32, 24, kRequantize, QuantType::Q6_K, false, decodeOffset<true>,
     nullptr},
    {SourceType::Q8_0, "Q8_0", 32, 34, kCopy, QuantType::Q8_0, true,
     decodeOwn<kiv::quant::dequantQ80, 32>, nullptr},
    {SourceType::Q2_K, "Q2_K", 256, 84, kRequantize, QuantType::Q6_K, false, decodeQ2K, nullptr},
    {SourceType::Q3_K, "Q3_K", 256, 110, kReencode, QuantType::Q6_K, true, decodeQ3K, reencodeQ3K},
    {SourceType::Q4_K, "Q4_K", 256, 144, kCopy, QuantType::Q4_K, true,
     decodeOwn<kiv::quant::dequantQ4K, 256>, nullptr},
    {SourceType::Q5_K, "Q5_K", 256, 176, kCopy, QuantType::Q5_K, true,
     decodeOwn<kiv::quant::dequantQ5K, 256>, nullptr},
    {SourceType::Q6_K, "Q6_K", 256, 210, kCopy, QuantType::Q6_K, true,
     decodeOwn<kiv::quant::dequantQ6K, 256>, nullptr},
    {SourceType::IQ4_NL, "IQ4_NL", 32, 18, kReencode, QuantType::Q8_0, true,
     decodeSigned<codesIq4Nl, 18>, reencodeSigned<codesIq4Nl, 18>},
    {SourceType::IQ4_XS, "IQ4_XS", 256, 136, kReencode, QuantType::Q8_0, false, decodeIq4Xs,
     reencodeIq4Xs},
};

// Types that are known by name only.
constexpr std::pair<uint32_t, const char*> kOtherNames[] = {
    {9, "Q8_1"},     {15, "Q8_K"},  {16, "IQ2_XXS"}, {17, "IQ2_XS"},
    {18, "IQ3_XXS"}, {19, "IQ1_S"}, {21, "IQ3_S"},   {22, "IQ2_S"},
};

}  // namespace

const SourceTypeInfo* findSourceType(uint32_t number) {
  const auto found = std::find_if(std::begin(kTypes), std::end(kTypes), [&](const auto& info) {
    return static_cast<uint32_t>(info.type) == number;
  });
  return found == std::end(kTypes) ? nullptr : &*found;
}

const SourceTypeInfo& sourceType(SourceType type) {
  return *findSourceType(static_cast<uint32_t>(type));
}

SourceType sourceTypeOf(QuantType type) {
  switch (type) {
    case QuantType::BF16:
      return SourceType::BF16;
    case QuantType::Q8_0:
      return SourceType::Q8_0;
    case QuantType::Q4_K:
      return SourceType::Q4_K;
    case QuantType::Q5_K:
      return SourceType::Q5_K;
    case QuantType::Q6_K:
      return SourceType::Q6_K;
    default:
      return SourceType::F32;
  }
}

std::string sourceTypeName(uint32_t number) {
  if (const SourceTypeInfo* info = findSourceType(number); info != nullptr) return info->name;
  for (const auto& [other, name] : kOtherNames) {
    if (other == number) return name;
  }
  return "type " + std::to_string(number);
}

}  // namespace orb
