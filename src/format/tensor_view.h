// One tensor of an opened model, as the model code sees it.
#pragma once

#include <cstdint>
#include <string>

namespace kiv {

// The tensor's quantization-info record. Carried, not interpreted; a to e are zero without a
// record.
struct QuantParams {
  uint16_t type = 0;  // same as TensorView::type
  uint16_t a = 0;
  uint32_t b = 0;
  uint32_t c = 0;
  uint32_t d = 0;
  uint32_t e = 0;
};

// Owned by the loader; valid until the loader is closed or reopened. `data` is what the index says
// and nothing more: whether it lies inside the file is checked when a model is bound.
struct TensorView {
  const uint8_t* data = nullptr;  // into the mapping
  uint64_t size = 0;              // bytes
  uint16_t type = 0;              // a QuantType value; a stored type of 11 or more reads as 8
  uint64_t dims[4] = {};          // dims[0] is the row length; unused ones are 0
  uint16_t ndims = 0;             // at most 4
  QuantParams quant;
  std::string name;
};

}  // namespace kiv
