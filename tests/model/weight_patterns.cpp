#include "model/weight_patterns.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "quant/blocks.h"
#include "quant/half.h"
#include "quant/k_blocks.h"

namespace orbtest {

using kiv::QuantType;
using kiv::quant::f32ToF16;

namespace {

constexpr uint16_t kExtremeHalves[] = {0x7BFF, 0xFBFF, 0x0001, 0x8001, 0x03FF, 0x0400,
                                       0x0000, 0x8000, 0x3C00, 0x0200, 0x7800, 0xBC01};

uint16_t extremeHalf(size_t index) { return kExtremeHalves[index % std::size(kExtremeHalves)]; }

float uniform(std::mt19937& random, float low, float high) {
  return std::uniform_real_distribution<float>(low, high)(random);
}

int below(std::mt19937& random, int limit) {
  return std::uniform_int_distribution<int>(0, limit - 1)(random);
}

uint16_t ordinaryHalf(std::mt19937& random) {
  const float value = std::exp2(uniform(random, -12, 0));
  return f32ToF16(below(random, 4) == 0 ? -value : value);
}

void append(std::vector<uint8_t>& out, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  out.resize(out.size() + size);
  std::copy_n(bytes, size, out.end() - static_cast<std::ptrdiff_t>(size));
}

// A weight of a plain float row.
float plainWeight(Pattern pattern, size_t i, std::mt19937& random) {
  switch (pattern) {
    case Pattern::Random:
      return std::normal_distribution<float>()(random);
    case Pattern::AllCodes:
      return static_cast<float>(static_cast<int>(i % 255) - 127);
    case Pattern::ExtremeScales:
      return std::ldexp(below(random, 2) == 0 ? 1.5f : -1.25f, below(random, 60) - 30);
    case Pattern::SubScaleLimits:
      return i % 2 == 0 ? 1e10f : -1e-10f;
    case Pattern::Cancelling:
      return i % 4 == 0 ? 0.0f : uniform(random, -1e-3f, 1e-3f);
    case Pattern::OneDifferentCode:
      return i % 256 == 77 ? 0.015625f : 0.0f;
  }
  return 0;
}

std::vector<uint8_t> makeQ80Block(Pattern pattern, size_t block, std::mt19937& random) {
  const bool extreme = pattern == Pattern::ExtremeScales;
  const uint16_t d = extreme ? extremeHalf(block) : ordinaryHalf(random);
  std::vector<uint8_t> out;
  append(out, &d, sizeof d);
  for (size_t i = 0; i < 32; ++i) {
    int code = below(random, 256) - 128;
    if (pattern == Pattern::AllCodes) code = static_cast<int>((32 * block + i) % 256) - 128;
    if (pattern == Pattern::SubScaleLimits) code = i % 2 == 0 ? -128 : 127;
    if (pattern == Pattern::Cancelling) code = i % 4 == 0 ? 0 : (i % 2 == 0 ? 1 : -1);
    if (pattern == Pattern::OneDifferentCode) code = i == 13 ? 1 : 0;
    out.push_back(static_cast<uint8_t>(code));
  }
  return out;
}

std::vector<uint8_t> makeKBlock(QuantType type, Pattern pattern, size_t block,
                                std::mt19937& random) {
  const int levels = type == QuantType::Q4_K ? 16 : 32;
  const bool extreme = pattern == Pattern::ExtremeScales;
  uint16_t d = extreme ? extremeHalf(block) : ordinaryHalf(random);
  uint16_t dmin =
      extreme ? extremeHalf(block / std::size(kExtremeHalves) + 5 * block) : ordinaryHalf(random);
  uint8_t scales[8];
  uint8_t minimums[8];
  std::vector<uint8_t> codes(256);
  for (size_t j = 0; j < 8; ++j) {
    scales[j] = static_cast<uint8_t>(below(random, 64));
    minimums[j] = static_cast<uint8_t>(below(random, 64));
    if (pattern == Pattern::SubScaleLimits) {
      scales[j] = (block + j) % 3 == 0 ? 0 : 63;
      minimums[j] = (block + j) % 4 < 2 ? 63 : 0;
    }
  }
  for (uint8_t& code : codes) code = static_cast<uint8_t>(below(random, levels));
  if (pattern == Pattern::AllCodes) {
    for (size_t i = 0; i < 256; ++i) codes[i] = static_cast<uint8_t>(i % levels);
    for (size_t j = 0; j < 8; ++j) {
      scales[j] = static_cast<uint8_t>((8 * block + j) % 64);
      minimums[j] = static_cast<uint8_t>((8 * block + 7 * j) % 64);
    }
  }
  if (pattern == Pattern::Cancelling || pattern == Pattern::OneDifferentCode) {
    // code 9 x scale 7 == minimum 63 under equal super-scales: a weight of exactly zero.
    d = dmin = 0x5800;  // 128
    for (size_t j = 0; j < 8; ++j) {
      scales[j] = 7;
      minimums[j] = 63;
    }
    for (size_t i = 0; i < 256; ++i) {
      const bool zero = pattern == Pattern::Cancelling ? i % 4 == 0 : i != 77;
      codes[i] = zero ? 9 : (i % 2 == 0 ? 8 : 10);
    }
  }
  return makeScaledBlock(type, d, dmin, scales, minimums, codes);
}

std::vector<uint8_t> makeQ6PatternBlock(Pattern pattern, size_t block, std::mt19937& random) {
  const bool extreme = pattern == Pattern::ExtremeScales;
  const uint16_t d = extreme ? extremeHalf(block) : ordinaryHalf(random);
  int8_t scales[16];
  std::vector<uint8_t> codes(256);
  for (size_t j = 0; j < 16; ++j) {
    scales[j] = static_cast<int8_t>(below(random, 256) - 128);
    if (pattern == Pattern::SubScaleLimits) scales[j] = (block + j) % 2 == 0 ? -128 : 127;
    if (pattern == Pattern::AllCodes) {
      scales[j] = static_cast<int8_t>(static_cast<int>((16 * block + j) % 256) - 128);
    }
  }
  for (size_t i = 0; i < 256; ++i) {
    codes[i] = static_cast<uint8_t>(below(random, 64));
    if (pattern == Pattern::AllCodes) codes[i] = static_cast<uint8_t>(i % 64);
    if (pattern == Pattern::Cancelling) codes[i] = i % 4 == 0 ? 32 : (i % 2 == 0 ? 31 : 33);
    if (pattern == Pattern::OneDifferentCode) codes[i] = i == 77 ? 33 : 32;
  }
  return makeQ6Block(d, scales, codes);
}

}  // namespace

const char* patternName(Pattern pattern) {
  switch (pattern) {
    case Pattern::Random:
      return "random";
    case Pattern::AllCodes:
      return "all codes";
    case Pattern::ExtremeScales:
      return "extreme scales";
    case Pattern::SubScaleLimits:
      return "sub-block scales at their limits";
    case Pattern::Cancelling:
      return "cancelling";
    case Pattern::OneDifferentCode:
      return "one different code";
  }
  return "?";
}

std::vector<uint8_t> makeScaledBlock(QuantType type, uint16_t d, uint16_t dmin,
                                     const uint8_t (&scales)[8], const uint8_t (&minimums)[8],
                                     const std::vector<uint8_t>& codes) {
  std::vector<uint8_t> out;
  append(out, &d, sizeof d);
  append(out, &dmin, sizeof dmin);
  uint8_t packed[12];
  for (size_t j = 0; j < 4; ++j) {
    packed[j] = static_cast<uint8_t>(scales[j] | (scales[j + 4] >> 4) << 6);
    packed[j + 4] = static_cast<uint8_t>(minimums[j] | (minimums[j + 4] >> 4) << 6);
    packed[j + 8] = static_cast<uint8_t>((scales[j + 4] & 15) | (minimums[j + 4] & 15) << 4);
  }
  append(out, packed, sizeof packed);
  if (type == QuantType::Q5_K) {
    for (size_t l = 0; l < 32; ++l) {
      unsigned bits = 0;
      for (size_t j = 0; j < 8; ++j) bits |= unsigned{codes[32 * j + l]} >> 4 << j;
      out.push_back(static_cast<uint8_t>(bits));
    }
  }
  for (size_t c = 0; c < 4; ++c) {
    for (size_t l = 0; l < 32; ++l) {
      const unsigned low = codes[64 * c + l] & 15u;
      const unsigned high = codes[64 * c + 32 + l] & 15u;
      out.push_back(static_cast<uint8_t>(low | high << 4));
    }
  }
  return out;
}

std::vector<uint8_t> makeQ6Block(uint16_t d, const int8_t (&scales)[16],
                                 const std::vector<uint8_t>& codes) {
  std::vector<uint8_t> out(210);
  for (size_t h = 0; h < 2; ++h) {
    const uint8_t* half = codes.data() + 128 * h;
    for (size_t l = 0; l < 32; ++l) {
      const unsigned a = half[l], b = half[l + 32], c = half[l + 64], e = half[l + 96];
      out[64 * h + l] = static_cast<uint8_t>((a & 15) | (c & 15) << 4);
      out[64 * h + 32 + l] = static_cast<uint8_t>((b & 15) | (e & 15) << 4);
      out[128 + 32 * h + l] =
          static_cast<uint8_t>(a >> 4 | (b >> 4) << 2 | (c >> 4) << 4 | (e >> 4) << 6);
    }
  }
  std::memcpy(out.data() + 192, scales, sizeof scales);
  std::memcpy(out.data() + 208, &d, sizeof d);
  return out;
}

std::vector<uint8_t> makeRow(QuantType type, Pattern pattern, size_t cols, std::mt19937& random) {
  std::vector<uint8_t> row;
  if (type == QuantType::F32 || type == QuantType::BF16) {
    for (size_t i = 0; i < cols; ++i) {
      const float weight = plainWeight(pattern, i, random);
      const auto* bytes = reinterpret_cast<const uint8_t*>(&weight);
      append(row, type == QuantType::F32 ? bytes : bytes + 2, type == QuantType::F32 ? 4 : 2);
    }
    return row;
  }
  const size_t elements = kiv::quant::blockElements(type);
  for (size_t block = 0; block < cols / elements; ++block) {
    std::vector<uint8_t> bytes;
    if (type == QuantType::Q8_0) bytes = makeQ80Block(pattern, block, random);
    if (type == QuantType::Q6_K) bytes = makeQ6PatternBlock(pattern, block, random);
    if (bytes.empty()) bytes = makeKBlock(type, pattern, block, random);
    append(row, bytes.data(), bytes.size());
  }
  return row;
}

std::vector<float> decodeRow(QuantType type, const uint8_t* row, size_t cols) {
  std::vector<float> out(cols);
  switch (type) {
    case QuantType::F32:
      std::memcpy(out.data(), row, 4 * cols);
      break;
    case QuantType::BF16:
      for (size_t i = 0; i < cols; ++i) {
        std::memcpy(reinterpret_cast<uint8_t*>(&out[i]) + 2, row + 2 * i, 2);
      }
      break;
    case QuantType::Q8_0:
      kiv::quant::dequantQ80(row, out.data(), cols);
      break;
    case QuantType::Q4_K:
      kiv::quant::dequantQ4K(row, out.data(), cols);
      break;
    case QuantType::Q5_K:
      kiv::quant::dequantQ5K(row, out.data(), cols);
      break;
    case QuantType::Q6_K:
      kiv::quant::dequantQ6K(row, out.data(), cols);
      break;
    default:
      ADD_FAILURE() << "no matrix type";
  }
  return out;
}

}  // namespace orbtest
