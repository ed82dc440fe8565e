// One tensor of a checkpoint, wherever its bytes lie.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "convert/input_file.h"
#include "quant/status.h"

namespace orb {

struct SourceTensor {
  std::string name;            // as the checkpoint calls it
  uint32_t type = 0;           // a SourceType, or the number of one that cannot be read
  std::vector<uint64_t> dims;  // dims[0] is the row length; none is 0
  std::shared_ptr<InputFile> file;
  uint64_t offset = 0;  // in the file
  uint64_t bytes = 0;   // 0 when the type cannot be read; else inside the file, whole blocks
};

// Product of the dimensions; 2^62 when it would be more.
uint64_t elementCount(const SourceTensor& tensor);

// The bytes of a shape; 0 when rows are not whole blocks or the product does not fit 62 bits.
uint64_t sourceBytes(uint32_t type, const std::vector<uint64_t>& dims);

// Refuses two tensors of one name, and tensors of one file whose bytes overlap.
kiv::Status checkOverlaps(const std::vector<SourceTensor>& tensors);

}  // namespace orb
