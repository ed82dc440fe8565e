// Every byte that the quantizers write for one row of many magnitudes, against hashes from a second
// implementation (make_block_hashes.py).
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "quant/blocks.h"
#include "quant/k_blocks.h"
#include "quant/quant_type.h"

namespace kiv::quant {
namespace {

// As test_row() of the script; not a multiple of any block.
std::vector<float> testRow() {
  uint64_t state = 1;
  std::vector<float> row(4096 + 100);
  for (size_t i = 0; i < row.size(); ++i) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    const auto integer = static_cast<float>(static_cast<int64_t>(state >> 40) - (1 << 23));
    row[i] = std::ldexp(integer, -10 - static_cast<int>(i / 256 % 16));
    if (i / 32 % 3 == 0) row[i] = std::fabs(row[i]);
    if (i / 32 % 11 == 5 || i / 256 == 9) row[i] = 0;
  }
  return row;
}

uint64_t fnv1a(const std::vector<uint8_t>& bytes) {
  uint64_t hash = 0xCBF29CE484222325;
  for (const uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001B3;
  return hash;
}

struct Case {
  QuantType type;
  void (*quantize)(const float*, uint8_t*, uint64_t);
  uint64_t bytes;
  uint64_t hash;
};

class QuantizerBytesTest : public testing::TestWithParam<Case> {};

TEST_P(QuantizerBytesTest, EqualTheSecondImplementation) {
  const std::vector<float> row = testRow();
  std::vector<uint8_t> bytes(quantizedBytes(GetParam().type, row.size()));
  ASSERT_EQ(bytes.size(), GetParam().bytes);
  GetParam().quantize(row.data(), bytes.data(), row.size());
  EXPECT_EQ(fnv1a(bytes), GetParam().hash);
}

INSTANTIATE_TEST_SUITE_P(Formats, QuantizerBytesTest,
                         testing::Values(Case{QuantType::Q4_0, quantQ40, 2376, 0x55174FA2896EE925},
                                         Case{QuantType::Q8_0, quantQ80, 4488, 0x8CB68931FC718007},
                                         Case{QuantType::Q4_K, quantQ4K, 2448, 0x247404753C28E67D},
                                         Case{QuantType::Q5_K, quantQ5K, 2992, 0x3B47F6BE1A036307},
                                         Case{QuantType::Q6_K, quantQ6K, 3570, 0x43E2393C2F180BE1}),
                         [](const auto& test) { return quantTypeName(test.param.type); });

}  // namespace
}  // namespace kiv::quant
