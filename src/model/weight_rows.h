// Access to weights where they lie in the mapped file: one row as floats, or a whole tensor as the
// matrix of a product. A tensor is a row-major matrix whose row length is dims[0] and whose row
// count is the product of the other dimensions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "compat/export.h"
#include "format/tensor_view.h"
#include "model/kernels/kernels.h"
#include "model/model.h"
#include "quant/quant_type.h"

namespace qwen35 {

// Product of dims[1..ndims-1]; 1 for fewer than two dimensions.
ORB_API uint64_t rowCount(const kiv::TensorView& tensor);

// Bytes from row to row of n elements, whole blocks only (rounded down); 0 for a type that no
// weight of this model may have (F16, Q4_0, IQ4_XS).
ORB_API uint64_t rowStride(kiv::QuantType type, uint64_t n);

// The elements of a norm or another array that binding found to be F32.
inline const float* floats(const kiv::TensorView* tensor) {
  return reinterpret_cast<const float*>(tensor->data);
}

// Converts n elements of the row to floats. Writes nothing for a type without a stride or a row
// shorter than one block.
ORB_API void rowToF32(const kiv::TensorView* tensor, size_t row, size_t n, float* out);

// y[r] += (row r of W) . x for every row; x has dims[0] floats. Uses the model's hook and kernels.
ORB_API void gemvRow(Model& model, const kiv::TensorView* W, const float* x, float* y);

// y += W x over a plain row-major matrix of the type, spread over threads.
void addProduct(const KernelTable& kernels, kiv::QuantType type, const void* rows, size_t count,
                size_t cols, const float* x, float* y);

// One product of a group that shares an input and a parallel region, over the tokens of a batch.
struct Product {
  const kiv::TensorView* W;
  const float* x;  // token t at x + t * xStride, dims[0] floats
  size_t xStride;
  float* y;  // token t at y + t * yStride, one float a row, zeros after the last
  size_t yStride;
  size_t tokens;
  bool adds = false;  // to what is in y

  bool done = false;  // by the model's hook
  size_t rows = 0;
  size_t rowBytes = 0;
  size_t step = 0;  // rows of a piece
  size_t pieces = 0;
  GemvKernel gemv = nullptr;
  GemmKernel gemm = nullptr;
  ArrangeKernel arrange = nullptr;  // of one token, or of a batch; null for inputs as they come
  ArrangeBatchKernel arrangeBatch = nullptr;
  const float* arranged = nullptr;  // x in the form that the kernels take
  size_t arrangedStride = 0;

  Product(const kiv::TensorView* weights, const TokenRows& input, TokenRows& output, size_t count)
      : Product(weights, input.data(), input.width(), output.data(), output.width(), count) {}
  Product(const kiv::TensorView* weights, const float* input, size_t inputStride, float* output,
          size_t outputStride, size_t count)
      : W(weights),
        x(input),
        xStride(inputStride),
        y(output),
        yStride(outputStride),
        tokens(count) {}
};

// Floats of a row of `cols` inputs in arranged form.
size_t arrangedWidth(uint64_t cols);

// Whether an accelerated product is installed; it takes one token at a time.
bool hasHook(const Model& model);

// Rows of one piece out of `rows`: about 32 KiB of weights for one token, more for a batch, in
// whole cache lines of y.
size_t rowsPerPiece(size_t rows, size_t rowBytes, bool isBatch);

// Looks up kernels and sizes of a group of products, offers each to the model's hook, and brings
// the input into the forms that the kernels take. Clears what of y has no row.
void prepare(Model& model, std::span<Product> products);

// Computes rows first..last - 1 of the product, on the given thread of the model's team.
void multiplyRows(Model& model, const Product& product, size_t first, size_t last, size_t thread);

// Computes every product in one parallel region; all read the same x, of which some may take the
// first elements only.
void runProducts(Model& model, std::span<Product> products);

}  // namespace qwen35
