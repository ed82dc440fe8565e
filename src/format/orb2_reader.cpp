// Opening, the fixed order of checks, sections.
#include "format/orb2_reader.h"

#include <cstddef>
#include <cstring>

#include "format/platform_file.h"

namespace kiv {

using orb2::SectionEntry;
using orb2::SectionType;

Status ORB2Reader::open(const char* path, bool largeFiles) {
  close();
  Status status = map(path, largeFiles);
  if (status.ok()) status = checkHeader();
  if (status.ok()) status = checkTable();
  if (status.ok()) status = checkSections();
  if (status.ok()) status = parseMeta();
  if (status.ok()) status = parseQuantInfo();
  if (!status.ok()) {
    close();
    return status;
  }
  opened_ = true;
  return status;
}

void ORB2Reader::close() {
  if (base_ != nullptr) platform::unmapFile(base_, length_);
  base_ = nullptr;
  if (fd_ >= 0) platform::closeDescriptor(fd_);
  fd_ = -1;
  length_ = 0;
  sections_ = nullptr;
  meta_.clear();
  quantInfo_.clear();
  opened_ = false;
}

Status ORB2Reader::map(const char* path, bool largeFiles) {
  if (path == nullptr) return Status::invalidFormat("ORB2: null path");
  fd_ = platform::openForReading(path);
  if (fd_ < 0) return Status::invalidFormat("ORB2: cannot open file");

  int64_t size = platform::fileSize(fd_);
  // The format's own limit: 32 bits, signed, so 3 GiB reads as negative and 5 GiB as 1 GiB.
  if (!largeFiles) size = static_cast<int32_t>(static_cast<uint32_t>(size));
  if (size <= 0) return Status::invalidFormat("ORB2: cannot stat file");

  length_ = static_cast<uint64_t>(size);
  base_ = platform::mapFile(fd_, length_);
  if (base_ == nullptr) return Status::invalidFormat("ORB2: mmap failed");
  return Status::success();
}

Status ORB2Reader::checkHeader() {
  if (length_ < sizeof header_) return Status::invalidFormat("ORB2: file too small");
  std::memcpy(&header_, base_, sizeof header_);
  if (std::memcmp(header_.magic, "ORB2", 4) != 0) return Status::invalidFormat("ORB2: bad magic");
  if (header_.version != orb2::kVersion) {
    return Status::invalidFormat("ORB2: unsupported version");
  }
  if (header_.endianMarker != orb2::kEndianMarker) {
    return Status::invalidFormat("ORB2: big-endian files unsupported");
  }
  return Status::success();
}

Status ORB2Reader::checkTable() {
  const uint64_t tableBytes = uint64_t{header_.sectionCount} * sizeof(SectionEntry);
  if (length_ < sizeof header_ + tableBytes) {
    return Status::invalidFormat("ORB2: truncated section table");
  }
  if (header_.sectionCount > orb2::kMaxSections) {
    return Status::invalidFormat("ORB2: too many sections");
  }
  std::memcpy(table_.data(), base_ + sizeof header_, tableBytes);
  sections_ = table_.data();

  constexpr size_t kCovered = offsetof(orb2::FileHeader, crc);
  uint8_t covered[kCovered + orb2::kMaxSections * sizeof(SectionEntry)];
  std::memcpy(covered, &header_, kCovered);
  std::memcpy(covered + kCovered, table_.data(), tableBytes);
  if (orb2::crc64(covered, kCovered + tableBytes) != header_.crc) {
    return Status::invalidFormat("ORB2: CRC mismatch");
  }
  return Status::success();
}

Status ORB2Reader::checkSections() const {
  for (uint32_t i = 0; i < header_.sectionCount; ++i) {
    const SectionEntry& entry = sections_[i];
    if (entry.offset % orb2::kAlignment != 0 || entry.offset > length_ ||
        entry.size > length_ - entry.offset) {
      return Status::invalidFormat("ORB2: bad section bounds");
    }
  }
  // Divided sizes instead of multiplied counts: a product that wraps counts as too large.
  const SectionEntry* index = section(SectionType::TensorIndex);
  if (index == nullptr || index->size / sizeof(orb2::TensorIndexEntry) < header_.tensorCount) {
    return Status::invalidFormat("ORB2: missing tensor index");
  }
  const SectionEntry* quant = section(SectionType::QuantInfo);
  if (quant != nullptr && quant->size / sizeof(orb2::QuantInfoRecord) < header_.tensorCount) {
    return Status::invalidFormat("ORB2: bad quant info");
  }
  if (section(SectionType::WeightData) == nullptr) {
    return Status::invalidFormat("ORB2: missing weight data");
  }
  return Status::success();
}

const SectionEntry* ORB2Reader::section(SectionType type) const {
  if (sections_ == nullptr) return nullptr;
  for (uint32_t i = 0; i < header_.sectionCount; ++i) {
    if (sections_[i].type == static_cast<uint32_t>(type)) return &sections_[i];
  }
  return nullptr;
}

const uint8_t* ORB2Reader::sectionData(SectionType type) const {
  const SectionEntry* entry = section(type);
  return entry != nullptr ? base_ + entry->offset : nullptr;
}

uint64_t ORB2Reader::sectionSize(SectionType type) const {
  const SectionEntry* entry = section(type);
  return entry != nullptr ? entry->size : 0;
}

bool ORB2Reader::holdsMapping() const {
  return base_ != nullptr && platform::fileSize(fd_) >= static_cast<int64_t>(length_);
}

bool ORB2Reader::aligned64() const {
  return opened_;  // no other file opens
}

}  // namespace kiv
