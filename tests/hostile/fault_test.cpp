// What the library makes of a system that refuses: memory, mappings, descriptors, stack,
// processors.
#include <gtest/gtest.h>
#include <omp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <functional>
#include <new>
#include <thread>

#include "hostile/counted_new.h"
#include "hostile/talking_handle.h"
#include "model/kernels/kernel_table.h"
#include "synth/synth.h"

namespace orbtest {
namespace {

class FaultTest : public testing::Test {
 protected:
  void SetUp() override { setenv("QWEN35_MAX_TOKENS", "4", 1); }
  void TearDown() override { unsetenv("QWEN35_MAX_TOKENS"); }

  const TempFile file_{talkingFile()};
};

// A call that is tried; it runs `arm` when what follows is to be counted.
using Armed = std::function<void(const std::function<void()>& arm)>;

#if ORB_INSTRUMENTED
constexpr uint64_t kRefusalStride = 7;
#else
constexpr uint64_t kRefusalStride = 1;
#endif

// Runs `call` again and again, each time with another of its allocations refused (where that is
// slow every seventh), until one run needs no more of them. After each run nothing more is alive
// than before it, and `works` must hold. Returns how many allocations were refused.
uint64_t refuseEach(const Armed& call, const std::function<void()>& works) {
  call([] {});  // buffers that stay have their size now
  for (uint64_t number = 1;; number += kRefusalStride) {
    const size_t before = allocationCounts().live;
    bool thrown = false;
    try {
      call([number] { resetAllocationCounts(number); });
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    const bool refused = allocationCounts().calls >= number;
    resetAllocationCounts();
    EXPECT_LE(allocationCounts().live, before) << "allocation " << number;
    EXPECT_EQ(thrown, refused) << "allocation " << number;
    if (!refused) return number - 1;
    works();
    if (testing::Test::HasFailure()) return number;
  }
}

TEST_F(FaultTest, ProbeThrowsAndLeavesNothing) {
  ORBRuntimeProbe verdict{};
  const auto probe = [&](const std::function<void()>& arm) {
    arm();
    (void)table().probe(file_.path(), &verdict);
  };
  const uint64_t refused = refuseEach(probe, [&] {
    EXPECT_EQ(verdict.score, 0u);
    probe([] {});
    EXPECT_EQ(verdict.score, uint32_t{ORB_PROBE_SCORE_SERVED});
  });
  EXPECT_GT(refused, 300u);
  RecordProperty("refused", static_cast<int>(refused));
}

TEST_F(FaultTest, CreateThrowsAndLeavesNoHandle) {
  ORBRuntimeHandle* handle = nullptr;
  const uint64_t refused = refuseEach(
      [&](const std::function<void()>& arm) {
        arm();
        (void)table().create(file_.path(), nullptr, &handle, nullptr, 0);
        table().destroy(handle);
        handle = nullptr;
      },
      [&] { EXPECT_EQ(handle, nullptr); });
  EXPECT_GT(refused, 400u);
  RecordProperty("refused", static_cast<int>(refused));
  Handle working(file_.path());
  EXPECT_EQ(working.generate(), ORB_OK);
}

// Each of the calls that run the model, on a handle of its own that is fresh or used.
TEST_F(FaultTest, GeneratingCallsThrowAndTheHandleGoesOn) {
  std::array<char, 256> out{};
  ORBBenchResult figures{};
  ORBBenchParams params{};
  params.genTokens = params.extraTokens = 1;
  using Call = std::function<void(ORBRuntimeHandle*)>;
  const Call calls[] = {
      [&](ORBRuntimeHandle* handle) {
        (void)table().generate(handle, "ab", out.data(), out.size());
      },
      [&](ORBRuntimeHandle* handle) {
        const ORBSessionOptions options = {sizeof options, 0.5f, 2, 0, 7, {}};
        (void)table().generateEx(handle, "ab", &options, out.data(), out.size());
      },
      [&](ORBRuntimeHandle* handle) {
        (void)table().chatTurn(handle, "ab", out.data(), out.size());
      },
      [&](ORBRuntimeHandle* handle) {
        (void)orb_plugin_runtimes_v2s(nullptr)->chatTurnStream(handle, "ab", nullptr, nullptr,
                                                               nullptr);
      },
      [&](ORBRuntimeHandle* handle) { (void)table().bench(handle, &params, &figures); },
  };
  Handle other(file_.path());
  std::string expected;
  EXPECT_EQ(other.generate(&expected), ORB_OK);
  uint64_t refused = 0;
  for (const Call& call : calls) {
    Handle used(file_.path());
    refused += refuseEach(
        [&](const std::function<void()>& arm) {
          Handle fresh(file_.path());
          arm();
          call(fresh.get());
        },
        [] {});
    refused += refuseEach(
        [&](const std::function<void()>& arm) {
          arm();
          call(used.get());
        },
        [&] {
          std::string text;
          EXPECT_EQ(table().reset(used.get()), ORB_OK);
          EXPECT_EQ(used.generate(&text), ORB_OK);
          EXPECT_EQ(text, expected);
          EXPECT_EQ(other.generate(&text), ORB_OK);
          EXPECT_EQ(text, expected);
        });
  }
  EXPECT_GT(refused, 20u);
  RecordProperty("refused", static_cast<int>(refused));
}

TEST_F(FaultTest, CallsThatDoNotRunTheModelNeedNoMemory) {
  Handle handle(file_.path());
  std::string text;
  EXPECT_EQ(handle.generate(&text), ORB_OK);
  resetAllocationCounts();
  ORBRuntimeStats stats{};
  const ORBSessionOptions options = {sizeof options, 0.5f, 2, 0, 7, {}};
  EXPECT_EQ(table().stats(handle.get(), &stats), ORB_OK);
  EXPECT_EQ(table().configure(handle.get(), &options), ORB_OK);
  EXPECT_EQ(table().reset(handle.get()), ORB_OK);
  EXPECT_NE(orb_plugin_init(), nullptr);
  EXPECT_EQ(allocationCounts().calls, 0u);
}

// A limit of the process for one scope.
class Limit {
 public:
  Limit(int what, rlim_t value) : what_(static_cast<__rlimit_resource>(what)) {
    getrlimit(what_, &before_);
    const rlimit limit = {value, before_.rlim_max};
    setrlimit(what_, &limit);
  }
  ~Limit() { setrlimit(what_, &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  __rlimit_resource what_;
  rlimit before_{};
};

void expectRefused(const char* path, const char* message) {
  ORBRuntimeProbe verdict{};
  EXPECT_EQ(table().probe(path, &verdict), ORB_OK);
  EXPECT_EQ(verdict.score, 0u);
  ORBRuntimeHandle* handle = nullptr;
  std::array<char, 64> text{};
  EXPECT_EQ(table().create(path, nullptr, &handle, text.data(), text.size()), ORB_FAILED);
  EXPECT_EQ(handle, nullptr);
  EXPECT_STREQ(text.data(), message);
}

TEST_F(FaultTest, WithoutADescriptorTheFileIsRefused) {
  Handle open(file_.path());
  {
    const Limit none(RLIMIT_NOFILE, 0);
    expectRefused(file_.path(), kOpenFailed);
    EXPECT_EQ(open.generate(), ORB_OK);
  }
  Handle again(file_.path());
  EXPECT_EQ(again.generate(), ORB_OK);
}

// Instrumented programs reserve more than any limit leaves.
#if !ORB_INSTRUMENTED
uint64_t addressSpace() {
  std::ifstream pages("/proc/self/statm");
  uint64_t count = 0;
  pages >> count;
  return count * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(FaultTest, AMappingThatFailsRefusesTheFile) {
  const TempFile large(talkingFile());
  large.resize(uint64_t{2047} << 20);
  Handle open(file_.path());
  {
    const Limit little(RLIMIT_AS, addressSpace() + (uint64_t{1} << 30));
    expectRefused(large.path(), kOpenFailed);
    EXPECT_EQ(open.generate(), ORB_OK);
  }
  Handle again(large.path());
  EXPECT_EQ(again.generate(), ORB_OK);
}

TEST_F(FaultTest, CachesThatDoNotFitThrow) {
  setenv("QWEN35_MAX_CONTEXT", "1048576", 1);  // 256 GiB of them
  {
    const Limit little(RLIMIT_AS, addressSpace() + (uint64_t{1} << 30));
    ORBRuntimeHandle* handle = nullptr;
    EXPECT_THROW((void)table().create(file_.path(), nullptr, &handle, nullptr, 0), std::bad_alloc);
    EXPECT_EQ(handle, nullptr);
  }
  setenv("QWEN35_MAX_CONTEXT", "600", 1);
  Handle again(file_.path());
  EXPECT_EQ(again.generate(), ORB_OK);
}

// Runs the body on a thread with the stack, and the number of threads that the process has.
void runOnStack(size_t bytes, const std::function<void()>& body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, bytes), 0);
  pthread_t thread{};
  const auto start = [](void* context) -> void* {
    omp_set_num_threads(1);
    (*static_cast<const std::function<void()>*>(context))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, start,
                           const_cast<void*>(static_cast<const void*>(&body))),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// Everything on the host's thread: a prompt in one batch, both mixers, every tier.
TEST_F(FaultTest, AStackOf64KibibytesIsEnough) {
  for (const kiv::QuantType type :
       {kiv::QuantType::BF16, kiv::QuantType::Q8_0, kiv::QuantType::Q4_K, kiv::QuantType::Q6_K}) {
    orb::SynthOptions options;
    options.hidden = options.ffn = 256;
    options.vocabulary = 128;
    options.pattern = "lf";
    options.queryHeads = options.valueHeads = 2;
    options.attentionType = options.linearType = options.ffnType = type;
    options.overwrite = true;
    const TempFile model({});
    ASSERT_TRUE(orb::writeSynthModel(model.path(), options).ok());
    for (const char* tier : {"scalar", "avx2", "avx512", "amx"}) {
      setenv("QWEN35_ISA", tier, 1);
      runOnStack(64 << 10, [&] {
        ORBRuntimeProbe verdict{};
        EXPECT_EQ(table().probe(model.path(), &verdict), ORB_OK);
        Handle handle(model.path());
        std::array<char, 256> out{};
        EXPECT_EQ(table().chatTurn(handle.get(), "Hi", out.data(), out.size()), ORB_OK);
      });
    }
    unsetenv("QWEN35_ISA");
  }
}
#endif

TEST_F(FaultTest, OneProcessorIsEnoughForTwoThreads) {
  Handle handle(file_.path());
  std::string expected;
  EXPECT_EQ(handle.generate(&expected), ORB_OK);
  std::thread([&] {
    cpu_set_t all;
    ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
      if (CPU_ISSET(cpu, &all)) CPU_SET(cpu, &one);
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    omp_set_num_threads(2);
    std::string text;
    EXPECT_EQ(handle.generate(&text), ORB_OK);
    EXPECT_EQ(text, expected);
#if !defined(__clang__)  // whose OpenMP runtime, used with sanitizers only, sets masks itself
    cpu_set_t after;
    ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&after, &one));
#endif
  }).join();
}

}  // namespace
}  // namespace orbtest
