#include "orb/read_probe.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "compat/cpu_features.h"

namespace orb {
namespace {

// Four independent sums, each as wide as the machine's registers: narrower loads keep fewer cache
// lines on their way from memory and do not reach its full speed.
constexpr size_t kSums = 4;
constexpr size_t kLine = 256;  // bytes of one step of the widest loop

template <size_t kWidth>
struct Vector {
  typedef uint64_t Type __attribute__((vector_size(kWidth)));
};

template <size_t kWidth>
[[gnu::always_inline]] inline uint64_t sumWords(const uint8_t* data, size_t size) {
  using Word = typename Vector<kWidth>::Type;
  Word sums[kSums] = {};
  for (size_t i = 0; i < size; i += kSums * kWidth) {
#pragma GCC unroll 4
    for (size_t s = 0; s < kSums; ++s) {
      Word word;
      std::memcpy(&word, data + i + s * kWidth, kWidth);
      sums[s] += word;
    }
  }
  const Word total = sums[0] + sums[1] + sums[2] + sums[3];
  uint64_t result = 0;
  for (size_t lane = 0; lane < kWidth / sizeof result; ++lane) result += total[lane];
  return result;
}

// The sizes are multiples of kLine.
uint64_t sumBaseline(const uint8_t* data, size_t size) { return sumWords<16>(data, size); }

[[gnu::target("avx2")]] uint64_t sumAvx2(const uint8_t* data, size_t size) {
  return sumWords<32>(data, size);
}

[[gnu::target("avx512f")]] uint64_t sumAvx512(const uint8_t* data, size_t size) {
  return sumWords<64>(data, size);
}

using SumFunction = uint64_t (*)(const uint8_t* data, size_t size);

SumFunction widestSum() {
  const uint32_t features = compat::cpuFeatures();
  if ((features & compat::kCpuAvx512) != 0) return sumAvx512;
  if ((features & compat::kCpuAvx2) != 0) return sumAvx2;
  return sumBaseline;
}

double secondsOfPass(SumFunction sum, const uint8_t* data, size_t lines,
                     std::vector<uint64_t>& sums) {
  const size_t threads = sums.size();
  const auto part = [&](size_t t) {
    const size_t first = lines * t / threads;
    sums[t] = sum(data + first * kLine, (lines * (t + 1) / threads - first) * kLine);
  };
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (size_t t = 1; t < threads; ++t) workers.emplace_back(part, t);
  part(0);
  for (std::thread& worker : workers) worker.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

double measureReadSpeed(const uint8_t* data, size_t size, int threads, int passes) {
  const size_t lines = size / kLine;
  if (threads < 1) return 0;
  std::vector<uint64_t> sums(static_cast<size_t>(threads));
  const SumFunction sum = widestSum();
  double best = 0;
  for (int pass = 0; pass < passes; ++pass) {
    const double seconds = secondsOfPass(sum, data, lines, sums);
    if (seconds > 0) best = std::max(best, static_cast<double>(lines * kLine) / seconds);
  }
  // The sums are results that the compiler must not drop.
  volatile uint64_t sink = 0;
  for (const uint64_t value : sums) sink = sink + value;
  return best;
}

}  // namespace orb
