// The metadata section.
#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "format/orb2_reader.h"

namespace kiv {

using orb2::MetaType;

namespace {

template <typename T>
T load(const uint8_t* source) {
  T value;
  std::memcpy(&value, source, sizeof value);
  return value;
}

// A walk over the section. Positions are sums of a checked position and a few 32-bit lengths, which
// cannot wrap: the section is smaller than 2^63 bytes.
class MetaCursor {
 public:
  MetaCursor(const uint8_t* data, uint64_t size) : data_(data), size_(size) {}

  Status key(std::string& out) {
    constexpr const char* kBadKey = "ORB2: bad meta key";
    if (!holds(2)) return Status::invalidFormat(kBadKey);
    const auto length = load<uint16_t>(data_ + at_);
    if (!holds(uint64_t{2} + length)) return Status::invalidFormat(kBadKey);
    out.assign(text(at_ + 2), length);
    at_ += uint64_t{2} + length;
    return Status::success();
  }

  Status type(uint8_t& out) {
    if (!holds(1)) return Status::invalidFormat("ORB2: bad meta type");
    out = data_[at_++];
    return Status::success();
  }

  template <typename T>
  Status number(T& out, const char* message) {
    if (!holds(sizeof out)) return Status::invalidFormat(message);
    out = load<T>(data_ + at_);
    at_ += sizeof out;
    return Status::success();
  }

  Status string(std::string& out) {
    constexpr const char* kBadString = "ORB2: bad meta str";
    uint32_t length = 0;
    if (Status status = number(length, kBadString); !status.ok()) return status;
    if (!holds(length)) return Status::invalidFormat(kBadString);
    out.assign(text(at_), length);
    at_ += length;
    return Status::success();
  }

  Status array(std::vector<uint32_t>& out) {
    constexpr const char* kBadArray = "ORB2: bad meta array";
    uint32_t count = 0;
    if (Status status = number(count, kBadArray); !status.ok()) return status;
    const uint64_t bytes = uint64_t{4} * count;
    if (!holds(bytes)) return Status::invalidFormat(kBadArray);
    out.resize(count);
    if (count != 0) std::memcpy(out.data(), data_ + at_, bytes);
    at_ += bytes;
    return Status::success();
  }

 private:
  bool holds(uint64_t bytes) const { return bytes <= size_ - at_; }
  const char* text(uint64_t at) const { return reinterpret_cast<const char*>(data_ + at); }

  const uint8_t* data_;
  uint64_t size_;
  uint64_t at_ = 4;  // behind the entry count
};

Status parseValue(MetaCursor& cursor, ORB2Reader::MetaEntryView& entry) {
  switch (static_cast<MetaType>(entry.type)) {
    case MetaType::U32:
      return cursor.number(entry.u32, "ORB2: bad meta u32");
    case MetaType::I32:
      return cursor.number(entry.i32, "ORB2: bad meta i32");
    case MetaType::F32:
      return cursor.number(entry.f32, "ORB2: bad meta f32");
    case MetaType::U64:
      return cursor.number(entry.u64, "ORB2: bad meta u64");
    case MetaType::String:
      return cursor.string(entry.str);
    case MetaType::U32Array:
      return cursor.array(entry.u32Array);
  }
  return Status::invalidFormat("ORB2: unknown meta type");
}

}  // namespace

Status ORB2Reader::parseMeta() {
  meta_.clear();
  const uint8_t* data = sectionData(orb2::SectionType::Meta);
  const uint64_t size = sectionSize(orb2::SectionType::Meta);
  if (size < 4) return Status::invalidFormat("ORB2: missing meta section");

  const auto count = load<uint32_t>(data);
  // No more than the section can hold (the shortest entry takes 7 bytes), and no more than a real
  // model needs: an entry here is many times larger than there, so the rest grows as it is found.
  constexpr uint64_t kShortestEntry = 7;
  constexpr uint64_t kUsualEntries = 1024;
  meta_.reserve(std::min({uint64_t{count}, (size - 4) / kShortestEntry, kUsualEntries}));

  MetaCursor cursor(data, size);
  for (uint32_t i = 0; i < count; ++i) {
    MetaEntryView entry;
    Status status = cursor.key(entry.key);
    if (status.ok()) status = cursor.type(entry.type);
    if (status.ok()) status = parseValue(cursor, entry);
    if (!status.ok()) return status;
    meta_.push_back(std::move(entry));
  }
  return Status::success();
}

bool ORB2Reader::metaAt(uint64_t index, MetaEntryView& out) const {
  if (index >= meta_.size()) return false;
  out = meta_[index];
  return true;
}

const ORB2Reader::MetaEntryView* ORB2Reader::findMeta(const char* key, MetaType type) const {
  if (key == nullptr) return nullptr;
  const std::string_view wanted(key);
  for (const MetaEntryView& entry : meta_) {
    if (entry.type == static_cast<uint8_t>(type) && entry.key == wanted) return &entry;
  }
  return nullptr;
}

bool ORB2Reader::getMetaU32(const char* key, uint32_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U32);
  if (entry != nullptr) out = entry->u32;
  return entry != nullptr;
}

bool ORB2Reader::getMetaI32(const char* key, int32_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::I32);
  if (entry != nullptr) out = entry->i32;
  return entry != nullptr;
}

bool ORB2Reader::getMetaF32(const char* key, float& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::F32);
  if (entry != nullptr) out = entry->f32;
  return entry != nullptr;
}

bool ORB2Reader::getMetaU64(const char* key, uint64_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U64);
  if (entry != nullptr) out = entry->u64;
  return entry != nullptr;
}

bool ORB2Reader::getMetaStr(const char* key, std::string& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::String);
  if (entry != nullptr) out = entry->str;
  return entry != nullptr;
}

bool ORB2Reader::getMetaU32Array(const char* key, const uint32_t*& data, uint64_t& count) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U32Array);
  if (entry == nullptr) return false;
  data = entry->u32Array.data();
  count = entry->u32Array.size();
  return true;
}

}  // namespace kiv
