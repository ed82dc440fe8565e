// Speed of the product kernels by tier, type and number of threads. Products of one token read
// memory: GB/s and the share of a pure read. Products of a batch compute: GFLOP/s and the share of
// multiply-adds that read nothing, on the tile unit where the tier uses that. Both yardsticks are
// measured in the same run, with as many threads. Rows as long as a 4B model's hidden size.
#include <benchmark/benchmark.h>
#include <omp.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "model/kernels/kernel_table.h"
#include "model/team.h"
#include "model/weight_rows.h"
#include "model/zeroed_array.h"
#include "multiply_probe.h"
#include "orb/read_probe.h"
#include "quant/quant_type.h"

namespace {

using kiv::QuantType;
using qwen35::KernelTable;

constexpr size_t kCols = 2560;
constexpr size_t kBytes = size_t{512} << 20;  // far more than the caches hold
constexpr size_t kBatchBytes = size_t{4} << 20;
constexpr size_t kRowStep = 16;     // of the split between threads
constexpr uint16_t kHalf = 0x1c00;  // 2^-8: keeps sums in range whatever the codes are
constexpr QuantType kTypes[] = {QuantType::F32,  QuantType::BF16, QuantType::Q8_0,
                                QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K};

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

// Memory of large pages where the system has them, as mapped model files are.
std::unique_ptr<uint8_t, Free> allocateLargePages(size_t bytes) {
  constexpr size_t kPage = size_t{2} << 20;
  auto* memory = static_cast<uint8_t*>(std::aligned_alloc(kPage, bytes));
  if (memory == nullptr) throw std::bad_alloc();
  madvise(memory, bytes, MADV_HUGEPAGE);
  return std::unique_ptr<uint8_t, Free>(memory);
}

// Weights of one type: any codes under ordinary scales.
class Weights {
 public:
  explicit Weights(QuantType type)
      : type_(type), rowBytes_(qwen35::rowStride(type, kCols)), bytes_(allocateLargePages(kBytes)) {
    uint64_t state = 1;
    for (size_t at = 0; at + 8 <= kBytes; at += 8) {
      state = state * 6364136223846793005u + 1442695040888963407u;
      // Numbers of either sign from 2^-7 to 2^-3: denormal ones would be slow.
      const uint64_t word = type == QuantType::F32 || type == QuantType::BF16
                                ? (state & 0x81ff81ff81ff81ffu) | 0x3c003c003c003c00u
                                : state ^ state >> 29;
      std::memcpy(bytes_.get() + at, &word, sizeof word);
    }
    const size_t block = kiv::quant::quantizedBytes(type, kiv::quant::blockElements(type));
    for (size_t at = 0; at + block <= kBytes && block > 4; at += block) setScales(at, block);
  }

  const uint8_t* data() const { return bytes_.get(); }
  size_t rowBytes() const { return rowBytes_; }
  size_t rows(size_t bytes) const { return bytes / rowBytes_; }

 private:
  void setScales(size_t at, size_t block) {
    if (type_ == QuantType::Q6_K) at += block - 2;
    std::memcpy(bytes_.get() + at, &kHalf, sizeof kHalf);
    if (type_ == QuantType::Q4_K || type_ == QuantType::Q5_K) {
      std::memcpy(bytes_.get() + at + 2, &kHalf, sizeof kHalf);
    }
  }

  QuantType type_;
  size_t rowBytes_;
  std::unique_ptr<uint8_t, Free> bytes_;
};

// One type's weights at a time.
const Weights& weightsOf(QuantType type) {
  static std::unique_ptr<Weights> weights;
  static QuantType held{};
  if (weights == nullptr || held != type) {
    weights.reset();
    weights = std::make_unique<Weights>(type);
    held = type;
  }
  return *weights;
}

qwen35::ZeroedArray inputs(size_t tokens) {
  qwen35::ZeroedArray x;
  x.resize(tokens * kCols);
  for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(i * 7919 % 2001) / 1000 - 1;
  return x;
}

// Runs a benchmark between two passes of its yardstick, whose mean it returns: the speed of a
// shared machine changes from second to second.
template <typename Probe, typename Body>
double runBetween(benchmark::State& state, const Probe& probe, const Body& body) {
  const double before = probe();
  for (auto _ : state) {
    body();
    benchmark::ClobberMemory();
  }
  return (before + probe()) / 2;
}

// `amount` of something an iteration, also as share of the yardstick's speed.
void count(benchmark::State& state, const char* speed, const char* share, double amount,
           double yardstick) {
  using benchmark::Counter;
  state.counters[speed] = Counter(amount, Counter::kIsIterationInvariantRate);
  state.counters[share] = Counter(amount / yardstick, Counter::kIsIterationInvariantRate);
}

void readWeights(benchmark::State& state, const KernelTable& tier, QuantType type, int threads) {
  const Weights& weights = weightsOf(type);
  const qwen35::ZeroedArray x = inputs(1);
  const size_t rows = weights.rows(kBytes);
  std::vector<float> y(rows);
  omp_set_num_threads(threads);
  const double probe = runBetween(
      state, [&] { return orb::measureReadSpeed(weights.data(), kBytes, threads, 3); },
      [&] { qwen35::addProduct(tier, type, weights.data(), rows, kCols, x.data(), y.data()); });
  count(state, "B/s", "of_read", static_cast<double>(rows * weights.rowBytes()), probe);
}

// The inputs of a batch in the form that a tier's products of a type take.
struct BatchInputs {
  size_t width = kCols;
  qwen35::ZeroedArray x = inputs(qwen35::kMaxBatch);

  BatchInputs(const KernelTable& tier, QuantType type) {
    const auto arrange = tier.arrangeBatch[static_cast<size_t>(type)];
    if (arrange == nullptr) return;
    width = qwen35::arrangedWidth(kCols);
    qwen35::ZeroedArray arranged;
    arranged.resize(qwen35::kMaxBatch * width);
    for (size_t t = 0; t < qwen35::kMaxBatch; t += qwen35::kTokenGroup) {
      arrange(x.data() + t * kCols, kCols, qwen35::kTokenGroup, kCols, arranged.data() + t * width);
    }
    std::swap(x, arranged);
  }
};

void multiplyBatch(benchmark::State& state, const KernelTable& tier, QuantType type, int threads) {
  const Weights& weights = weightsOf(type);
  const BatchInputs batch(tier, type);
  const size_t rows = weights.rows(kBatchBytes);
  std::vector<float> y(rows * qwen35::kMaxBatch);
  qwen35::ZeroedArray scratch;
  scratch.resize(qwen35::kBatchScratch * static_cast<size_t>(threads));
  const auto multiply = tier.gemm[static_cast<size_t>(type)];
  const auto firstRow = [&](size_t thread) {
    return rows * thread / static_cast<size_t>(threads) / kRowStep * kRowStep;
  };
  const auto product = [&] {
#pragma omp parallel num_threads(threads)
    {
      const auto self = static_cast<size_t>(omp_get_thread_num());
      const size_t first = firstRow(self);
      const size_t last = self + 1 == static_cast<size_t>(threads) ? rows : firstRow(self + 1);
      multiply(weights.data() + first * weights.rowBytes(), weights.rowBytes(), last - first, kCols,
               {batch.x.data(), batch.width, y.data() + first, rows, qwen35::kMaxBatch,
                scratch.data() + self * qwen35::kBatchScratch});
    }
  };
  const double probe = runBetween(
      state, [&] { return orb::measureMultiplySpeed(tier.name, threads); }, product);
  count(state, "FLOP/s", "of_multiply", static_cast<double>(2 * rows * kCols * qwen35::kMaxBatch),
        probe);
}

using Measurement = void (*)(benchmark::State& state, const KernelTable& tier, QuantType type,
                             int threads);

void registerFor(const std::string& name, Measurement measure, const KernelTable& tier,
                 QuantType type) {
  const int most = omp_get_max_threads();
  for (int threads = 1; threads <= most; threads += std::max(most - 1, 1)) {
    const std::string label = name + "/" + kiv::quantTypeName(type) + "/" + tier.name +
                              "/threads:" + std::to_string(threads);
    benchmark::RegisterBenchmark(label.c_str(), measure, std::cref(tier), type, threads)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
}

// What a tier has from the one below it is not measured again.
void registerAll() {
  for (const QuantType type : kTypes) {
    const auto index = static_cast<size_t>(type);
    const KernelTable* below = nullptr;
    for (const KernelTable* tier : qwen35::allKernels()) {
      if (!qwen35::canRun(*tier)) continue;
      if (below == nullptr || below->gemv[index] != tier->gemv[index]) {
        registerFor("one_token", readWeights, *tier, type);
      }
      if (below == nullptr || below->gemm[index] != tier->gemm[index]) {
        registerFor("batch", multiplyBatch, *tier, type);
      }
      below = tier;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
