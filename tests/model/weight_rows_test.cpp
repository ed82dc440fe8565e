// Weights where they lie: single rows as floats, and whole tensors as matrices spread over threads.
#include "model/weight_rows.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "model/kernel_tiers.h"
#include "model/kernels/kernel_table.h"
#include "model/small_model.h"
#include "model/threads.h"
#include "model/weight_patterns.h"

namespace qwen35 {
namespace {

using kiv::QuantType;
using kiv::TensorView;
using orbtest::decodeRow;
using orbtest::kMatrixTypes;
using orbtest::normalVector;
using orbtest::ThreadCount;

// A tensor over bytes of its own.
struct TestTensor {
  std::vector<uint8_t> bytes;
  TensorView view;

  TestTensor(QuantType type, std::vector<uint64_t> dims, unsigned seed = 1) {
    std::mt19937 random(seed);
    view.type = static_cast<uint16_t>(type);
    view.ndims = static_cast<uint16_t>(dims.size());
    std::copy(dims.begin(), dims.end(), view.dims);
    for (uint64_t r = 0; r < rowCount(view); ++r) {
      const auto row = orbtest::makeRow(type, orbtest::Pattern::Random, dims[0], random);
      bytes.insert(bytes.end(), row.begin(), row.end());
    }
    view.data = bytes.data();
    view.size = bytes.size();
  }
  uint64_t cols() const { return view.dims[0]; }
  uint64_t rows() const { return rowCount(view); }
  std::vector<float> row(uint64_t r) const {
    const auto type = static_cast<QuantType>(view.type);
    return decodeRow(type, bytes.data() + r * bytes.size() / rows(), cols());
  }
  std::vector<double> product(const std::vector<float>& x) const {
    std::vector<double> y;
    for (uint64_t r = 0; r < rows(); ++r) {
      const std::vector<float> weights = row(r);
      double sum = 0;
      for (size_t i = 0; i < weights.size(); ++i) sum += static_cast<double>(weights[i]) * x[i];
      y.push_back(sum);
    }
    return y;
  }
};

// Every weight and input of these tests is of order one.
void expectNear(const std::vector<float>& y, const std::vector<double>& expected, size_t cols) {
  ASSERT_EQ(y.size(), expected.size());
  const double tolerance = 1e-3 * std::sqrt(static_cast<double>(cols));
  for (size_t r = 0; r < y.size(); ++r) ASSERT_NEAR(y[r], expected[r], tolerance) << "row " << r;
}

TEST(RowCountTest, IsTheProductOfTheDimensionsAfterTheFirst) {
  TensorView view;
  view.dims[0] = 5;
  EXPECT_EQ(rowCount(view), 1u) << "no dimensions";
  view.ndims = 1;
  EXPECT_EQ(rowCount(view), 1u);
  view.dims[1] = 3;
  EXPECT_EQ(rowCount(view), 1u) << "a dimension that is not used";
  view.ndims = 2;
  EXPECT_EQ(rowCount(view), 3u);
  view.dims[2] = 7;
  view.dims[3] = 2;
  view.ndims = 4;
  EXPECT_EQ(rowCount(view), 42u);
}

TEST(RowStrideTest, CountsWholeBlocksRoundedDown) {
  EXPECT_EQ(rowStride(QuantType::F32, 5), 20u);
  EXPECT_EQ(rowStride(QuantType::BF16, 5), 10u);
  EXPECT_EQ(rowStride(QuantType::Q8_0, 31), 0u);
  EXPECT_EQ(rowStride(QuantType::Q8_0, 32), 34u);
  EXPECT_EQ(rowStride(QuantType::Q8_0, 40), 34u);
  EXPECT_EQ(rowStride(QuantType::Q8_0, 64), 68u);
  EXPECT_EQ(rowStride(QuantType::Q4_K, 511), 144u);
  EXPECT_EQ(rowStride(QuantType::Q5_K, 512), 352u);
  EXPECT_EQ(rowStride(QuantType::Q6_K, 255), 0u);
  EXPECT_EQ(rowStride(QuantType::Q6_K, 256), 210u);
  for (const QuantType type : kMatrixTypes) EXPECT_EQ(rowStride(type, 0), 0u);
}

TEST(RowStrideTest, TypesThatNoWeightMayHaveHaveNone) {
  for (const int type : {1, 3, 8, 9, 10, 255}) {
    EXPECT_EQ(rowStride(static_cast<QuantType>(type), 256), 0u) << type;
  }
}

TEST(RowToF32Test, ConvertsAnyRowOfEveryType) {
  for (const QuantType type : kMatrixTypes) {
    const TestTensor tensor(type, {512, 5});
    for (const size_t row : {0, 1, 4}) {
      std::vector<float> out(513, 7.0f);
      rowToF32(&tensor.view, row, 512, out.data());
      EXPECT_EQ(out[512], 7) << "beyond the row";
      out.pop_back();
      EXPECT_EQ(out, tensor.row(row)) << kiv::quantTypeName(type) << " row " << row;
    }
  }
}

TEST(RowToF32Test, DataMayStartAtAnyByte) {
  for (const QuantType type : kMatrixTypes) {
    TestTensor tensor(type, {256, 2});
    const std::vector<float> expected = tensor.row(1);
    tensor.bytes.insert(tensor.bytes.begin(), 0xA5);
    tensor.view.data = tensor.bytes.data() + 1;
    std::vector<float> out(256);
    rowToF32(&tensor.view, 1, 256, out.data());
    EXPECT_EQ(out, expected) << kiv::quantTypeName(type);
  }
}

TEST(RowToF32Test, ConvertsThePartOfARowThatIsAskedFor) {
  const TestTensor tensor(QuantType::Q8_0, {64, 1});
  std::vector<float> out(41, 7.0f);
  rowToF32(&tensor.view, 0, 40, out.data());
  const std::vector<float> whole = tensor.row(0);
  for (size_t i = 0; i < 40; ++i) EXPECT_EQ(out[i], whole[i]) << i;
  EXPECT_EQ(out[40], 7);
}

TEST(RowToF32Test, OtherTypesLeaveTheOutputUntouched) {
  TestTensor tensor(QuantType::F32, {256, 1});
  for (const uint16_t type : {1, 3, 8, 9, 10}) {
    tensor.view.type = type;
    std::vector<float> out(256, 7.0f);
    rowToF32(&tensor.view, 0, 256, out.data());
    EXPECT_EQ(out, std::vector<float>(256, 7.0f)) << type;
  }
}

TEST(RowToF32Test, FewerElementsThanABlockLeaveTheOutputUntouched) {
  for (const QuantType type : kMatrixTypes) {
    const TestTensor tensor(type, {256, 1});
    const uint64_t block = kiv::quant::blockElements(type);
    float out[256] = {7};
    rowToF32(&tensor.view, 0, block - 1, out);
    rowToF32(&tensor.view, 0, 0, out);
    EXPECT_EQ(out[0], 7) << kiv::quantTypeName(type);
  }
}

TEST(GemvRowTest, MultipliesEveryTypeOnEveryTier) {
  for (const KernelTable* tier : allKernels()) {
    if (!canRun(*tier)) continue;
    Model model;
    model.kernels = tier;
    for (const QuantType type : kMatrixTypes) {
      const TestTensor tensor(type, {512, 50});
      const std::vector<float> x = normalVector(512, 2);
      std::vector<float> y(50, 0.0f);
      gemvRow(model, &tensor.view, x.data(), y.data());
      expectNear(y, tensor.product(x), 512);
    }
  }
}

TEST(GemvRowTest, AddsToTheOutput) {
  Model model;
  const TestTensor tensor(QuantType::Q6_K, {256, 10});
  const std::vector<float> x = normalVector(256, 3);
  std::vector<float> once(10, 0.0f);
  gemvRow(model, &tensor.view, x.data(), once.data());
  std::vector<float> y = once;
  gemvRow(model, &tensor.view, x.data(), y.data());
  for (size_t r = 0; r < 10; ++r) EXPECT_FLOAT_EQ(y[r], 2 * once[r]);
}

TEST(GemvRowTest, AOneDimensionalTensorIsASingleRow) {
  Model model;
  for (const QuantType type : kMatrixTypes) {
    const TestTensor tensor(type, {256});
    const std::vector<float> x = normalVector(256, 4);
    std::vector<float> y = {1, 7};
    gemvRow(model, &tensor.view, x.data(), y.data());
    EXPECT_NEAR(y[0], 1 + tensor.product(x)[0], 1e-2) << kiv::quantTypeName(type);
    EXPECT_EQ(y[1], 7);
  }
}

TEST(GemvRowTest, FourDimensionsAreManyRows) {
  Model model;
  const TestTensor tensor(QuantType::BF16, {9, 2, 3, 4});
  const std::vector<float> x = normalVector(9, 5);
  std::vector<float> y(24, 0.0f);
  gemvRow(model, &tensor.view, x.data(), y.data());
  expectNear(y, tensor.product(x), 9);
}

TEST(GemvRowTest, EightBitRowsOf40ElementsAreOneBlockApart) {
  // The stride is one block of 34 bytes; the 40 elements of a row reach into the next one.
  constexpr size_t kRows = 3;
  TestTensor tensor(QuantType::Q8_0, {32, kRows + 1});
  tensor.view.dims[0] = 40;
  tensor.view.dims[1] = kRows;
  const std::vector<float> x = normalVector(40, 6);
  std::vector<double> expected(kRows);
  for (size_t r = 0; r < kRows; ++r) {
    const auto weights = decodeRow(QuantType::Q8_0, tensor.bytes.data() + 34 * r, 40);
    for (size_t i = 0; i < 40; ++i) expected[r] += static_cast<double>(weights[i]) * x[i];
  }
  for (const KernelTable* tier : allKernels()) {
    if (!canRun(*tier)) continue;
    Model model;
    model.kernels = tier;
    std::vector<float> y(kRows, 0.0f);
    gemvRow(model, &tensor.view, x.data(), y.data());
    expectNear(y, expected, 40);
  }
}

TEST(GemvRowTest, OtherTypesAndRowsShorterThanABlockAddNothing) {
  Model model;
  TestTensor tensor(QuantType::F32, {256, 4});
  const std::vector<float> x(256, 1.0f);
  for (const uint16_t type : {1, 3, 8, 9, 10}) {
    tensor.view.type = type;
    std::vector<float> y(4, 7.0f);
    gemvRow(model, &tensor.view, x.data(), y.data());
    EXPECT_EQ(y, std::vector<float>(4, 7.0f)) << type;
  }
  TestTensor shorter(QuantType::Q4_K, {256, 4});
  shorter.view.dims[0] = 255;
  std::vector<float> y(4, 7.0f);
  gemvRow(model, &shorter.view, x.data(), y.data());
  EXPECT_EQ(y, std::vector<float>(4, 7.0f));
}

TEST(GemvRowTest, EveryRowIsComputedOnceWithTheSameBitsForEveryNumberOfThreads) {
  for (const KernelTable* tier : allKernels()) {
    if (!canRun(*tier)) continue;
    Model model;
    model.kernels = tier;
    for (const QuantType type : kMatrixTypes) {
      for (const uint64_t rows : {1, 2, 3, 15, 16, 17, 100, 1000}) {
        const TestTensor tensor(type, {256, rows});
        const std::vector<float> x = normalVector(256, 7);
        std::vector<float> single(rows, 0.0f);
        orbtest::addProduct(*tier, type, tensor.bytes.data(), tensor.bytes.size() / rows, rows, 256,
                            x.data(), single.data());
        for (const int threads : {1, 2, 3, 7}) {
          const ThreadCount scope(threads);
          std::vector<float> y(rows, 0.0f);
          gemvRow(model, &tensor.view, x.data(), y.data());
          ASSERT_EQ(std::memcmp(y.data(), single.data(), rows * sizeof(float)), 0)
              << tier->name << " " << kiv::quantTypeName(type) << ", " << rows << " rows, "
              << threads << " threads";
        }
      }
    }
  }
}

// What a hook was called with, and what it answers.
struct Hook {
  bool answer = true;
  int calls = 0;
  const TensorView* weights = nullptr;
  const float* input = nullptr;
  std::thread::id thread;

  static bool run(void* context, const TensorView* weights, const float* input, float* output) {
    auto& hook = *static_cast<Hook*>(context);
    ++hook.calls;
    hook.weights = weights;
    hook.input = input;
    hook.thread = std::this_thread::get_id();
    if (hook.answer) output[0] += 100;
    return hook.answer;
  }
};

class HookTest : public testing::Test {
 protected:
  std::vector<float> product(Model& model, const TestTensor& tensor) {
    std::vector<float> y(tensor.rows(), 0.0f);
    gemvRow(model, &tensor.view, x_.data(), y.data());
    return y;
  }

  Hook hook_;
  std::vector<float> x_ = normalVector(256, 8);
};

TEST_F(HookTest, AHookThatAnswersTrueReplacesTheProductOfKQuants) {
  const ThreadCount scope(2);
  Model model;
  model.matVecHook = Hook::run;
  model.matVecContext = &hook_;
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K}) {
    hook_.calls = 0;
    const TestTensor tensor(type, {256, 40});
    std::vector<float> expected(40, 0.0f);
    expected[0] = 100;
    EXPECT_EQ(product(model, tensor), expected) << kiv::quantTypeName(type);
    EXPECT_EQ(hook_.calls, 1);
    EXPECT_EQ(hook_.weights, &tensor.view);
    EXPECT_EQ(hook_.input, x_.data());
    EXPECT_EQ(hook_.thread, std::this_thread::get_id());
  }
}

TEST_F(HookTest, AHookThatAnswersFalseChangesNothing) {
  Model plain, hooked;
  hooked.matVecHook = Hook::run;
  hooked.matVecContext = &hook_;
  hook_.answer = false;
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K, QuantType::Q6_K}) {
    const TestTensor tensor(type, {256, 40});
    EXPECT_EQ(product(hooked, tensor), product(plain, tensor)) << kiv::quantTypeName(type);
  }
  EXPECT_EQ(hook_.calls, 3);
}

TEST_F(HookTest, OtherTypesAreNotOfferedToTheHook) {
  Model plain, hooked;
  hooked.matVecHook = Hook::run;
  hooked.matVecContext = &hook_;
  for (const QuantType type : {QuantType::F32, QuantType::BF16, QuantType::Q8_0}) {
    const TestTensor tensor(type, {256, 40});
    EXPECT_EQ(product(hooked, tensor), product(plain, tensor)) << kiv::quantTypeName(type);
  }
  EXPECT_EQ(hook_.calls, 0);
}

TEST_F(HookTest, AHookWithoutAContextIsNotCalled) {
  Model plain, hooked;
  hooked.matVecHook = Hook::run;
  const TestTensor tensor(QuantType::Q4_K, {256, 40});
  EXPECT_EQ(product(hooked, tensor), product(plain, tensor));
}

}  // namespace
}  // namespace qwen35
