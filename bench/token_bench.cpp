// What a token of the demo model costs beside its arithmetic: the share of all threads' time that
// is not spent in kernels, but in handing out work, waiting for each other, and the steps between.
#include <benchmark/benchmark.h>
#include <omp.h>
#include <x86intrin.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "model/kernels/kernel_table.h"
#include "plugin/generation.h"
#include "plugin/session.h"

namespace {

using qwen35::KernelTable;
using qwen35::Qwen35Session;

constexpr int kTokens = 200;  // of a measured text
constexpr int32_t kToken = 40;

// Cycles of the time stamp counter that a thread spent in kernels.
struct alignas(64) Cycles {
  uint64_t spent = 0;
};
std::array<Cycles, qwen35::Team::kMaxThreads> cyclesOf;

class Stopwatch {
 public:
  Stopwatch() = default;
  ~Stopwatch() { cyclesOf[static_cast<size_t>(omp_get_thread_num())].spent += __rdtsc() - start_; }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  uint64_t start_ = __rdtsc();
};

// A timed function for each slot and signature.
template <size_t kSlot, typename Result, typename... Arguments>
struct Timed {
  static inline Result (*inner)(Arguments...) = nullptr;

  static Result call(Arguments... arguments) {
    const Stopwatch watch;
    return inner(arguments...);
  }
};

template <size_t kSlot, typename Result, typename... Arguments>
void wrap(Result (*&function)(Arguments...)) {
  if (function == nullptr) return;
  Timed<kSlot, Result, Arguments...>::inner = function;
  function = Timed<kSlot, Result, Arguments...>::call;
}

template <size_t kFirstSlot = 0, typename Function, size_t... kIndex>
void wrapAll(Function (&functions)[sizeof...(kIndex)], std::index_sequence<kIndex...>) {
  (wrap<kFirstSlot + kIndex>(functions[kIndex]), ...);
}

KernelTable timedKernels() {
  KernelTable table = qwen35::selectKernels(nullptr);
  constexpr auto kEachType = std::make_index_sequence<std::size(KernelTable{}.gemv)>();
  wrapAll(table.gemv, kEachType);
  wrapAll(table.gemm, kEachType);
  wrapAll(table.arrange, kEachType);
  wrapAll<kEachType.size()>(table.arrangeBatch, kEachType);
  wrap<0>(table.dot);
  wrap<0>(table.silu);
  wrap<1>(table.sigmoid);
  wrap<0>(table.attend);
  wrap<0>(table.deltaRule);
  return table;
}

void generate(benchmark::State& state, int threads) {
  static const KernelTable kernels = timedKernels();
  Qwen35Session session;
  session.limits.kernels = &kernels;
  if (qwen35::openSession(session, ORB_SOURCE_FOLDER "/models/demo.orb") != nullptr) {
    state.SkipWithError("the demo model does not open");
    return;
  }
  omp_set_num_threads(threads);
  double all = 0;
  double inKernels = 0;
  for (auto _ : state) {
    state.PauseTiming();
    clearConversation(session);
    qwen35::feedForLogits(session, kToken);
    cyclesOf.fill({});
    state.ResumeTiming();
    const uint64_t start = __rdtsc();
    for (int i = 0; i < kTokens; ++i) qwen35::feedForLogits(session, kToken);
    all += static_cast<double>(__rdtsc() - start) * threads;
    for (const Cycles& cycles : cyclesOf) inKernels += static_cast<double>(cycles.spent);
  }
  state.counters["tokens/s"] =
      benchmark::Counter(kTokens, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["outside_kernels"] = 1 - inKernels / all;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const int most = omp_get_max_threads();
  for (int threads = 1; threads <= most; threads += std::max(most - 1, 1)) {
    const std::string label = "demo_tokens/threads:" + std::to_string(threads);
    benchmark::RegisterBenchmark(label.c_str(), generate, threads)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
