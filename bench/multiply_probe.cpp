#include "multiply_probe.h"

#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace orb {
namespace {

constexpr size_t kRounds = size_t{1} << 20;
constexpr int kPasses = 5;

// As many independent sums as hide the latency of a multiply-add and fit 16 registers.
constexpr size_t kPairs = 6;
constexpr size_t kSums = 2 * kPairs;

template <size_t kWidth>
struct Vector {
  typedef float Type __attribute__((vector_size(kWidth)));
};

// Each pair of sums turns slowly round a circle. So the numbers keep all their bits, as weights and
// inputs have them: a processor's clock depends on how many it has to switch.
template <size_t kWidth>
[[gnu::always_inline]] inline float multiplyAdd() {
  using Floats = typename Vector<kWidth>::Type;
  volatile float angle = 0x1.234566p-20f;
  const Floats forth = Floats{} + angle;
  const Floats back = -forth;
  Floats sums[kSums];
  uint32_t bits = 1;
  for (Floats& sum : sums) {
    for (size_t lane = 0; lane < kWidth / sizeof(float); ++lane) {
      bits = bits * 1664525 + 1013904223;
      sum[lane] = static_cast<float>(bits) * 0x1p-32f;
    }
  }
  for (size_t round = 0; round < kRounds; ++round) {
#pragma GCC unroll 6
    for (size_t s = 0; s < kSums; s += 2) {
      const Floats before = sums[s];
      sums[s] = sums[s + 1] * forth + before;
      sums[s + 1] = before * back + sums[s + 1];
    }
  }
  Floats total{};
  for (const Floats& sum : sums) total += sum;
  return total[0];
}

float multiplyBaseline() { return multiplyAdd<16>(); }

[[gnu::target("avx2,fma")]] float multiplyAvx2() { return multiplyAdd<32>(); }

[[gnu::target("avx512f")]] float multiplyAvx512() { return multiplyAdd<64>(); }

// Tiles of 16 rows of 64 bytes: bf16 pairs on the right, floats on the left. The tier's check has
// asked the system for them.
constexpr size_t kTileProducts = 4;
constexpr double kTileOperations = 2 * 16 * 16 * 32;

float multiplyTiles() {
  struct alignas(64) {
    uint8_t palette = 1;
    uint8_t start = 0;
    uint8_t reserved[14] = {};
    uint16_t bytes[16] = {64, 64, 64, 64, 64, 64, 64, 64};
    uint8_t rows[16] = {16, 16, 16, 16, 16, 16, 16, 16};
  } const shape;
  static_assert(sizeof shape == 64);
  __asm__ volatile(
      "ldtilecfg %0\n\t"
      "tilezero %%tmm0\n\ttilezero %%tmm1\n\ttilezero %%tmm2\n\ttilezero %%tmm3\n\t"
      "tilezero %%tmm4\n\ttilezero %%tmm5\n\ttilezero %%tmm6\n\ttilezero %%tmm7"
      :
      : "m"(shape));
  for (size_t round = 0; round < kRounds; ++round) {
    __asm__ volatile(
        "tdpbf16ps %tmm6, %tmm4, %tmm0\n\ttdpbf16ps %tmm7, %tmm4, %tmm1\n\t"
        "tdpbf16ps %tmm6, %tmm5, %tmm2\n\ttdpbf16ps %tmm7, %tmm5, %tmm3");
  }
  __asm__ volatile("tilerelease");
  return 0;
}

struct Probe {
  const char* tier;
  float (*run)();
  double operations;  // of one run
};

constexpr double lanes(size_t width) {
  return static_cast<double>(2 * kRounds * kSums * width / sizeof(float));
}

constexpr Probe kProbes[] = {{"scalar", multiplyBaseline, lanes(16)},
                             {"avx2", multiplyAvx2, lanes(32)},
                             {"avx512", multiplyAvx512, lanes(64)},
                             {"amx", multiplyTiles, kRounds* kTileProducts* kTileOperations}};

double secondsOfPass(const Probe& probe, int threads) {
  const auto start = std::chrono::steady_clock::now();
#pragma omp parallel num_threads(threads)
  {
    volatile float sink = probe.run();
    static_cast<void>(sink);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

double measureMultiplySpeed(const char* tier, int threads) {
  const auto probe = std::find_if(std::begin(kProbes), std::end(kProbes),
                                  [&](const Probe& p) { return std::strcmp(p.tier, tier) == 0; });
  if (probe == std::end(kProbes)) return 0;
  double best = 0;
  for (int pass = 0; pass < kPasses; ++pass) {
    best = std::max(best, probe->operations * threads / secondsOfPass(*probe, threads));
  }
  return best;
}

}  // namespace orb
