// The layout of weights by itself: what checks a model file needs no threads and no kernels.
#include <algorithm>

#include "model/weight_rows.h"

namespace qwen35 {

using kiv::QuantType;

uint64_t rowCount(const kiv::TensorView& tensor) {
  uint64_t rows = 1;
  for (size_t i = 1; i < std::min<size_t>(tensor.ndims, 4); ++i) rows *= tensor.dims[i];
  return rows;
}

uint64_t rowStride(QuantType type, uint64_t n) {
  switch (type) {
    case QuantType::F32:
    case QuantType::BF16:
    case QuantType::Q8_0:
    case QuantType::Q4_K:
    case QuantType::Q5_K:
    case QuantType::Q6_K: {
      const uint64_t block = kiv::quant::blockElements(type);
      return kiv::quant::quantizedBytes(type, n - n % block);
    }
    default:
      return 0;
  }
}

}  // namespace qwen35
