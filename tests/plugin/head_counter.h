// Counts how often a model's output head runs.
#pragma once

#include <atomic>

#include "model/model.h"

namespace orbtest {

// Stands in for the model's kernel table until the end of the scope; one at a time.
class HeadCounter {
 public:
  explicit HeadCounter(qwen35::Model& model)
      : model_(model), original_(model.kernels), counting_(*model.kernels) {
    qwen35::GemvKernel& kernel = counting_.gemv[model.tokenEmbedding->type];
    forward_ = kernel;
    kernel = count;
    matrix_ = model.tokenEmbedding->data;
    runs_ = 0;
    model_.kernels = &counting_;
  }
  ~HeadCounter() { model_.kernels = original_; }
  HeadCounter(const HeadCounter&) = delete;
  HeadCounter& operator=(const HeadCounter&) = delete;

  int runs() const { return runs_; }

 private:
  // The rows of a product may come in several pieces; the first begins with the matrix.
  static void count(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                    const float* x, float* y) {
    if (rows == matrix_) ++runs_;
    forward_(rows, rowBytes, rowCount, cols, x, y);
  }

  inline static std::atomic<int> runs_ = 0;
  inline static qwen35::GemvKernel forward_ = nullptr;
  inline static const uint8_t* matrix_ = nullptr;

  qwen35::Model& model_;
  const qwen35::KernelTable* original_;
  qwen35::KernelTable counting_;
};

}  // namespace orbtest
