// The tensor index and the quantization info.
#include <algorithm>
#include <cstring>

#include "format/orb2_reader.h"

namespace kiv {

using orb2::QuantInfoRecord;
using orb2::SectionType;
using orb2::TensorIndexEntry;

const TensorIndexEntry* ORB2Reader::findTensor(const char* name) const {
  if (!opened_ || name == nullptr) return nullptr;
  const auto* entries =
      reinterpret_cast<const TensorIndexEntry*>(sectionData(SectionType::TensorIndex));
  const auto compare = [&](uint64_t i) {
    return std::strncmp(entries[i].name, name, sizeof entries[i].name);
  };
  uint64_t low = 0;
  uint64_t high = header_.tensorCount;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    if (compare(middle) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low < header_.tensorCount && compare(low) == 0 ? &entries[low] : nullptr;
}

TensorEntryView ORB2Reader::tensorView(uint64_t index) const {
  TensorEntryView view;
  if (!opened_ || index >= header_.tensorCount) return view;
  const auto* entries =
      reinterpret_cast<const TensorIndexEntry*>(sectionData(SectionType::TensorIndex));
  const TensorIndexEntry& entry = entries[index];
  // As numbers: the offset is the file's claim, and a pointer must not leave its object.
  const auto weights = reinterpret_cast<uintptr_t>(sectionData(SectionType::WeightData));
  view.data = reinterpret_cast<const uint8_t*>(weights + entry.offset);
  view.size = entry.size;
  view.type = entry.type;
  view.ndims = std::min<uint16_t>(entry.ndims, 4);
  std::copy_n(entry.dims, view.ndims, view.dims);
  if (index < quantInfo_.size()) std::memcpy(view.quant, &quantInfo_[index], sizeof view.quant);
  return view;
}

TensorEntryView ORB2Reader::tensorView(const char* name) const {
  const TensorIndexEntry* entry = findTensor(name);
  if (entry == nullptr) return {};
  const uint8_t* start = sectionData(SectionType::TensorIndex);
  const auto distance = reinterpret_cast<const uint8_t*>(entry) - start;
  return tensorView(static_cast<uint64_t>(distance) / sizeof *entry);
}

Status ORB2Reader::parseQuantInfo() {
  const uint8_t* data = sectionData(SectionType::QuantInfo);
  if (data == nullptr) return Status::success();
  quantInfo_.resize(sectionSize(SectionType::QuantInfo) / sizeof(QuantInfoRecord));
  if (quantInfo_.empty()) return Status::success();
  std::memcpy(quantInfo_.data(), data, quantInfo_.size() * sizeof(QuantInfoRecord));
  return Status::success();
}

}  // namespace kiv
