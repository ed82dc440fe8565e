// Reader of safetensors files: u64 length N, N bytes of JSON {name: {dtype, shape, data_offsets:
// [begin, end)}, "__metadata__": {}}, data; offsets count from the data's start, rows are
// contiguous. A folder has one such file, or several and an index that says what is where.
#pragma once

#include <string>
#include <vector>

#include "convert/source_tensor.h"

namespace orb {

// Adds the tensors of one file to `out`: each inside the file, as large as its shape says. Types
// other than F32, F16 and BF16 are there with 0 bytes and the type kForeignType.
kiv::Status readSafetensors(const std::string& path, std::vector<SourceTensor>& out);

// The tensors of all files of a folder: those that model.safetensors.index.json names, or every
// *.safetensors without one.
kiv::Status readSafetensorsFolder(const std::string& folder, std::vector<SourceTensor>& out);

inline constexpr uint32_t kForeignType = UINT32_MAX;

}  // namespace orb
