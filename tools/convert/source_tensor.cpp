#include "convert/source_tensor.h"

#include <algorithm>
#include <tuple>
#include <unordered_set>

#include "convert/source_types.h"

namespace orb {
namespace {

constexpr uint64_t kMost = uint64_t{1} << 62;

}  // namespace

uint64_t elementCount(const SourceTensor& tensor) {
  uint64_t count = 1;
  for (const uint64_t dim : tensor.dims) {
    if (dim != 0 && count > kMost / dim) return kMost;
    count *= dim;
  }
  return count;
}

uint64_t sourceBytes(uint32_t type, const std::vector<uint64_t>& dims) {
  const SourceTypeInfo* info = findSourceType(type);
  if (info == nullptr || dims.empty() || dims[0] % info->blockElements != 0) return 0;
  uint64_t bytes = info->blockBytes;
  uint64_t factor = dims[0] / info->blockElements;
  for (size_t i = 0;; factor = dims[i]) {
    if (factor == 0 || bytes > kMost / factor) return 0;
    bytes *= factor;
    if (++i == dims.size()) return bytes;
  }
}

kiv::Status checkOverlaps(const std::vector<SourceTensor>& tensors) {
  std::unordered_set<std::string> names;
  std::vector<const SourceTensor*> order;
  for (const SourceTensor& tensor : tensors) {
    if (!names.insert(tensor.name).second) {
      return kiv::Status::invalidFormat(tensor.file->path() + ": tensor " + tensor.name +
                                        ": expected once, found twice");
    }
    order.push_back(&tensor);
  }
  std::sort(order.begin(), order.end(), [](const auto* a, const auto* b) {
    return std::tuple(a->file.get(), a->offset, a->bytes) <
           std::tuple(b->file.get(), b->offset, b->bytes);
  });
  for (size_t i = 1; i < order.size(); ++i) {
    const SourceTensor& before = *order[i - 1];
    const SourceTensor& tensor = *order[i];
    if (before.file == tensor.file && before.offset + before.bytes > tensor.offset) {
      return kiv::Status::invalidFormat(tensor.file->path() + ": tensor " + tensor.name +
                                        ": expected bytes of its own, found that it overlaps " +
                                        before.name);
    }
  }
  return kiv::Status::success();
}

}  // namespace orb
