// Every kernel below a caller whose stack pointer is a multiple of 16 and no more, which is all
// that callers owe: a compiler that spills wide registers by aligned moves would crash in some of
// them.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "model/kernel_tiers.h"
#include "model/weight_patterns.h"

namespace {

using orbtest::Kernels;
using orbtest::TierTest;
using qwen35::AttentionPart;
using qwen35::AttentionRun;
using qwen35::Batch;
using qwen35::KernelTable;

constexpr size_t kCols = 512, kRows = 9, kTokens = 5, kDelta = 128;

// Calls the function with the stack pointer moved down by `shift` bytes, a multiple of 16.
template <typename Function>
[[gnu::noinline]] void callShifted(size_t shift, Function& function) {
  auto* gap = static_cast<volatile char*>(__builtin_alloca(shift + 64));
  gap[0] = 0;
  function();
  gap[1] = 0;
}

class StackAlignmentTest : public TierTest {
 protected:
  StackAlignmentTest() {
    std::mt19937 random(5);
    std::normal_distribution<float> normal;
    for (float& value : numbers_) value = normal(random);
  }

  const float* in(size_t at) const { return numbers_.data() + at; }

  // The results of all kernels one after the other.
  std::vector<float> runAll() {
    std::vector<float> all;
    const KernelTable& table = kernels();
    for (size_t type = 0; type < std::size(table.gemv); ++type) {
      if (table.gemv[type] != nullptr) product(table, type, all);
    }
    all.push_back(table.dot(in(0), in(1), 1023));
    std::vector<float> out(1001);
    table.silu(in(3), out.data(), out.size());
    all.insert(all.end(), out.begin(), out.end());
    table.sigmoid(in(3), out.data(), out.size());
    all.insert(all.end(), out.begin(), out.end());
    attend(table, all);
    delta(table, all);
    return all;
  }

 private:
  void product(const KernelTable& table, size_t type, std::vector<float>& all) {
    const auto kind = static_cast<kiv::QuantType>(type);
    std::mt19937 random(static_cast<unsigned>(type));
    std::vector<uint8_t> rows;
    for (size_t r = 0; r < kRows; ++r) {
      const auto row = orbtest::makeRow(kind, orbtest::Pattern::Random, kCols, random);
      rows.insert(rows.end(), row.begin(), row.end());
    }
    const size_t rowBytes = rows.size() / kRows;
    const size_t width = orbtest::arrangedWidth(table, kind, kCols);
    std::vector<float> x(qwen35::kTokenGroup * width);
    orbtest::arrange(table, kind, Kernels::OneToken, in(0), 0, kCols, 1, x.data(), width);
    std::vector<float> y(kRows);
    table.gemv[type](rows.data(), rowBytes, kRows, kCols, x.data(), y.data());
    all.insert(all.end(), y.begin(), y.end());
    std::vector<float> batch(kRows * kTokens);
    alignas(64) static float scratch[qwen35::kBatchScratch];
    orbtest::arrange(table, kind, Kernels::Batch, in(0), kCols, kCols, kTokens, x.data(), width);
    table.gemm[type](rows.data(), rowBytes, kRows, kCols,
                     Batch{x.data(), width, batch.data(), kRows, kTokens, scratch});
    all.insert(all.end(), batch.begin(), batch.end());
  }

  void attend(const KernelTable& table, std::vector<float>& all) const {
    AttentionPart part;
    table.attend(AttentionRun{in(0), in(7), in(11), 13, 0.1f}, part);
    const auto* first = reinterpret_cast<const float*>(&part);
    all.insert(all.end(), first, first + sizeof part / sizeof(float));
  }

  void delta(const KernelTable& table, std::vector<float>& all) const {
    constexpr size_t kTogether = 3;
    const float beta[] = {0.5f, 0.25f, 0.75f};
    const float decay[] = {0.9f, 1.0f, 0.8f};
    alignas(64) static float scratch[qwen35::kDeltaScratch];
    std::vector<float> to(kDelta * kDelta), v(in(3), in(3) + kTogether * kDelta);
    table.deltaRule(in(0), to.data(),
                    {in(1), in(2), v.data(), kDelta, beta, decay, kTogether, scratch}, kDelta,
                    0.3f);
    all.insert(all.end(), to.begin(), to.end());
    all.insert(all.end(), v.begin(), v.end());
  }

  std::vector<float> numbers_ = std::vector<float>(kDelta * kDelta + 64);
};

TEST_P(StackAlignmentTest, EveryKernelRunsAndGivesTheSameBitsAtEveryAlignmentOfTheStack) {
  std::vector<float> first;
  for (const size_t shift : {0, 16, 32, 48}) {
    std::vector<float> results;
    auto body = [&] { results = runAll(); };
    callShifted(shift, body);
    if (first.empty()) first = results;
    ASSERT_GT(results.size(), 10000u);
    EXPECT_EQ(std::memcmp(results.data(), first.data(), first.size() * sizeof(float)), 0) << shift;
  }
}

ORB_INSTANTIATE_TIERS(StackAlignmentTest);

}  // namespace
