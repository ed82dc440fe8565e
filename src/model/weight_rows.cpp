#include "model/weight_rows.h"

#include <algorithm>

#include "model/kernels/kernel_table.h"
#include "model/numeric_kernels.h"
#include "quant/blocks.h"
#include "quant/k_blocks.h"

namespace qwen35 {

using kiv::QuantType;

namespace {

constexpr size_t kPieceBytes = 32 * 1024;
constexpr size_t kMinBatchPiece = 64;   // rows
constexpr size_t kMaxBatchPiece = 256;  // more share the inputs that were brought near
constexpr size_t kBatchPieces = 8;
constexpr size_t kLineFloats = 16;

const KernelTable& kernelsOf(const Model& model) {
  return model.kernels != nullptr ? *model.kernels : selectKernels(nullptr);
}

// The scalar tier serves rows that are not whole blocks; no bound model has any.
const KernelTable& kernelsFor(const Model& model, QuantType type, uint64_t cols) {
  return cols % kiv::quant::blockElements(type) == 0 ? kernelsOf(model) : kScalarKernels;
}

bool isSuperBlock(QuantType type) {
  return type == QuantType::Q4_K || type == QuantType::Q5_K || type == QuantType::Q6_K;
}

// Clears columns first..last - 1 of y.
void clear(const Product& product, size_t first, size_t last) {
  if (product.adds || first >= last) return;
  for (size_t t = 0; t < product.tokens; ++t) {
    std::fill_n(product.y + t * product.yStride + first, last - first, 0.0f);
  }
}

void lookUp(Model& model, Product& product) {
  const kiv::TensorView& W = *product.W;
  const auto type = static_cast<QuantType>(W.type);
  product.rows = rowCount(W);
  product.rowBytes = rowStride(type, W.dims[0]);
  product.step = rowsPerPiece(product.rows, product.rowBytes, model.work.isBatch);
  product.pieces = (product.rows + product.step - 1) / product.step;
  clear(product, product.rows, product.yStride);
  // A type that no weight may have adds nothing; binding refuses it.
  product.done = product.rowBytes == 0;
  if (product.done) return clear(product, 0, product.rows);
  const KernelTable& kernels = kernelsFor(model, type, W.dims[0]);
  product.gemv = kernels.gemv[static_cast<size_t>(type)];
  product.gemm = kernels.gemm[static_cast<size_t>(type)];
  if (model.work.isBatch) {
    product.arrangeBatch = kernels.arrangeBatch[static_cast<size_t>(type)];
  } else {
    product.arrange = kernels.arrange[static_cast<size_t>(type)];
  }
  product.arranged = product.x;
  product.arrangedStride = product.xStride;
  if (!model.work.isBatch && hasHook(model) && isSuperBlock(type)) {
    clear(product, 0, product.rows);
    product.done = model.matVecHook(model.matVecContext, &W, product.x, product.y);
  }
}

bool isArranged(const Product& product) {
  return !product.done && (product.arrange != nullptr || product.arrangeBatch != nullptr);
}

void arrangeInput(Model& model, const Product& product, TokenRows& rows) {
  const size_t cols = product.W->dims[0];
  if (product.arrange != nullptr) return product.arrange(product.x, cols, rows.data());
  model.team.forEach((product.tokens + kTokenGroup - 1) / kTokenGroup, [&](size_t group) {
    const size_t first = group * kTokenGroup;
    product.arrangeBatch(product.x + first * product.xStride, product.xStride,
                         std::min(product.tokens - first, kTokenGroup), cols, rows.row(first));
  });
}

// Those whose kernels take the same form share the arranged input.
void arrangeInputs(Model& model, std::span<Product> products) {
  for (size_t p = 0; p < products.size(); ++p) {
    Product& product = products[p];
    if (!isArranged(product)) continue;
    const uint64_t cols = product.W->dims[0];
    const auto servesIt = [&](const Product& other) {
      return isArranged(other) && other.arrange == product.arrange &&
             other.arrangeBatch == product.arrangeBatch && other.W->dims[0] >= cols;
    };
    const auto before = products.first(p);
    if (const auto same = std::ranges::find_if(before, servesIt); same != before.end()) {
      product.arranged = same->arranged;
      product.arrangedStride = same->arrangedStride;
      continue;
    }
    TokenRows& rows = model.work.arranged[product.W->type];
    if (rows.width() < arrangedWidth(cols)) rows.resizeRows(arrangedWidth(cols));
    product.arranged = rows.data();
    product.arrangedStride = rows.width();
    arrangeInput(model, product, rows);
  }
}

}  // namespace

size_t arrangedWidth(uint64_t cols) { return (cols + 255) / 256 * kArrangedBlock; }

bool hasHook(const Model& model) {
  return model.matVecHook != nullptr && model.matVecContext != nullptr;
}

void rowToF32(const kiv::TensorView* tensor, size_t row, size_t n, float* out) {
  const auto type = static_cast<QuantType>(tensor->type);
  const uint64_t stride = rowStride(type, n);
  if (stride == 0) return;
  const uint8_t* source = tensor->data + row * stride;
  switch (type) {
    case QuantType::F32:
      std::copy_n(source, n * sizeof(float), reinterpret_cast<uint8_t*>(out));
      return;
    case QuantType::BF16:
      for (size_t i = 0; i < n; ++i) {
        uint16_t bits = 0;
        std::copy_n(source + 2 * i, sizeof bits, reinterpret_cast<uint8_t*>(&bits));
        out[i] = bf16ToF32(bits);
      }
      return;
    case QuantType::Q8_0:
      return kiv::quant::dequantQ80(source, out, n);
    case QuantType::Q4_K:
      return kiv::quant::dequantQ4K(source, out, n);
    case QuantType::Q5_K:
      return kiv::quant::dequantQ5K(source, out, n);
    case QuantType::Q6_K:
      return kiv::quant::dequantQ6K(source, out, n);
    default:
      return;
  }
}

size_t rowsPerPiece(size_t rows, size_t rowBytes, bool isBatch) {
  if (isBatch) {
    const size_t share = rows / kBatchPieces / kMinBatchPiece * kMinBatchPiece;
    return std::clamp(share, kMinBatchPiece, kMaxBatchPiece);
  }
  const size_t fitting = kPieceBytes / std::max<size_t>(rowBytes, 1);
  return std::max(kLineFloats, fitting / kLineFloats * kLineFloats);
}

void prepare(Model& model, std::span<Product> products) {
  for (Product& product : products) lookUp(model, product);
  arrangeInputs(model, products);
}

void multiplyRows(Model& model, const Product& product, size_t first, size_t last, size_t thread) {
  if (product.done || first >= last) return;
  const uint8_t* rows = product.W->data + first * product.rowBytes;
  const size_t cols = product.W->dims[0];
  if (!model.work.isBatch) {
    clear(product, first, last);
    product.gemv(rows, product.rowBytes, last - first, cols, product.arranged, product.y + first);
    return;
  }
  product.gemm(rows, product.rowBytes, last - first, cols,
               {.x = product.arranged,
                .xStride = product.arrangedStride,
                .y = product.y + first,
                .yStride = product.yStride,
                .tokens = product.tokens,
                .scratch = model.work.batchScratch.data() + thread * kBatchScratch,
                .adds = product.adds});
}

void runProducts(Model& model, std::span<Product> products) {
  prepare(model, products);
  size_t pieces = 0;
  for (const Product& product : products) pieces += product.pieces;
  model.team.forEach(pieces, [&](size_t piece, size_t thread) {
    const Product* product = products.data();
    for (; piece >= product->pieces; ++product) piece -= product->pieces;
    const size_t first = piece * product->step;
    multiplyRows(model, *product, first, std::min(first + product->step, product->rows), thread);
  });
}

void gemvRow(Model& model, const kiv::TensorView* W, const float* x, float* y) {
  Product products[] = {{W, x, 0, y, 0, 1}};
  products[0].adds = true;
  runProducts(model, products);
}

void addProduct(const KernelTable& kernels, QuantType type, const void* rows, size_t count,
                size_t cols, const float* x, float* y) {
  const size_t rowBytes = rowStride(type, cols);
  const size_t step = rowsPerPiece(count, rowBytes, false);
  const GemvKernel kernel = kernels.gemv[static_cast<size_t>(type)];
  ZeroedArray arranged;
  if (const ArrangeKernel arrange = kernels.arrange[static_cast<size_t>(type)]) {
    arranged.resize(arrangedWidth(cols));
    arrange(x, cols, arranged.data());
    x = arranged.data();
  }
  const auto* bytes = static_cast<const uint8_t*>(rows);
  Team team;
  team.forEach((count + step - 1) / step, [&](size_t piece) {
    const size_t first = piece * step;
    const size_t n = std::min(step, count - first);
    kernel(bytes + first * rowBytes, rowBytes, n, cols, x, y + first);
  });
}

}  // namespace qwen35
