// Products over weights that no quantizer would make: arbitrary bytes, with forbidden memory on
// either side of everything, on every tier and for every type.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "model/guarded_buffer.h"
#include "model/kernel_tiers.h"
#include "model/weight_patterns.h"

namespace orbtest {
namespace {

using kiv::QuantType;

constexpr double kBound = 1.0 / 16384;  // of sum |w_i x_i|

enum class Filling { Random, Ones, Zeros, HighBits };

std::vector<uint8_t> makeBytes(Filling filling, size_t count, std::mt19937& random) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) {
    switch (filling) {
      case Filling::Random:
        byte = static_cast<uint8_t>(random());
        break;
      case Filling::Ones:
        byte = 0xFF;
        break;
      case Filling::Zeros:
        byte = 0;
        break;
      case Filling::HighBits:
        byte = static_cast<uint8_t>(random() | 0x78);
        break;
    }
  }
  return bytes;
}

class KernelBytesTest : public TierTest {
 protected:
  // What one row gives with everything between forbidden pages: alone, and in a batch of two.
  std::vector<float> guarded(QuantType type, const std::vector<uint8_t>& row,
                             const std::vector<float>& x, Side side) {
    const auto index = static_cast<size_t>(type);
    const size_t cols = x.size();
    const size_t width = arrangedWidth(kernels(), type, cols);
    GuardedBuffer plain(x, side);
    GuardedBuffer rows(row, side);
    GuardedBuffer input(
        arranged(kernels(), type, Kernels::OneToken, plain.floats(), cols, 1, width), side);
    GuardedBuffer y(std::vector<float>(1, 0.0f), side);
    kernels().gemv[index](rows.bytes(), row.size(), 1, cols, input.floats(), y.floats());

    std::vector<float> twice = roomForInputs(kernels(), type, Kernels::Batch, cols, 2, width);
    arrange(kernels(), type, Kernels::Batch, plain.floats(), 0, cols, 2, twice.data(), width);
    GuardedBuffer inputs(twice, side);
    GuardedBuffer both(std::vector<float>(2, 0.0f), side);
    alignas(64) static float scratch[qwen35::kBatchScratch];
    kernels().gemm[index](rows.bytes(), row.size(), 1, cols,
                          {inputs.floats(), width, both.floats(), 1, 2, scratch});
    if (batchReference(kernels(), type) == Kernels::OneToken && std::isfinite(*y.floats())) {
      EXPECT_EQ(both.floats()[0], *y.floats());
    }
    if (std::isfinite(both.floats()[0])) {
      EXPECT_EQ(both.floats()[0], both.floats()[1]);
    }
    return {y.floats()[0], both.floats()[0], both.floats()[1]};
  }
};
ORB_INSTANTIATE_TIERS(KernelBytesTest);

TEST_P(KernelBytesTest, AnyBytesGiveTheRightSumOrNoNumber) {
  std::mt19937 random(1);
  std::normal_distribution<float> normal;
  for (const QuantType type : kMatrixTypes) {
    const uint64_t block = kiv::quant::blockElements(type);
    for (const uint64_t blocks : {1, 3, block == 1 ? 255 : 7}) {
      for (const Filling filling :
           {Filling::Random, Filling::Ones, Filling::Zeros, Filling::HighBits}) {
        const size_t cols = blocks * block;
        const std::vector<uint8_t> row =
            makeBytes(filling, kiv::quant::quantizedBytes(type, cols), random);
        const std::vector<float> weights = decodeRow(type, row.data(), cols);
        std::vector<float> x(cols);
        for (float& value : x) value = normal(random);
        double sum = 0;
        double magnitude = 0;
        double largest = 0;
        for (size_t i = 0; i < cols; ++i) {
          const double product = static_cast<double>(weights[i]) * static_cast<double>(x[i]);
          sum += product;
          magnitude += std::fabs(product);
          largest = std::max(largest, std::fabs(static_cast<double>(weights[i])));
        }
        for (const Side side : {Side::Begin, Side::End}) {
          SCOPED_TRACE(std::string(kiv::quantTypeName(type)) + ", " + std::to_string(cols) +
                       " columns, filling " + std::to_string(static_cast<int>(filling)));
          // Differences of large parts are exact to their parts only, as the table says.
          const bool differs = type == QuantType::Q4_K || type == QuantType::Q5_K;
          const double parts = differs ? 64 * largest * static_cast<double>(cols) : magnitude;
          for (const float y : guarded(type, row, x, side)) {
            if (std::isnan(sum) || std::isinf(sum)) {
              EXPECT_FALSE(std::isfinite(y));
            } else if (magnitude < 1e30) {
              EXPECT_LE(std::fabs(static_cast<double>(y) - sum), kBound * parts);
            }
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace orbtest
