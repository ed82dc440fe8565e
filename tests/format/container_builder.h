// Containers for tests, well-formed or broken on purpose, built byte by byte.
//
//   ContainerBuilder builder;
//   builder.meta("general.architecture", "qwen35")
//       .tensor("output_norm.weight", QuantType::F32, {4}, Bytes().f32(1).f32(1).f32(1).f32(1))
//       .tokenizer(data);
//   std::vector<uint8_t> file = builder.build();   // header, table, sections, right checksum
//   poke(file, 4, uint32_t{3});                    // any field can be spoiled afterwards;
//   reseal(file);                                  // the checksum is then made right again
//   TempFile onDisk(file);
//   reader.open(onDisk.path());
//
// Sections stand in the table in the order in which they were added; meta, tensor index and weights
// come last unless a section of that type was added by hand or left out with without().
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "format/orb2_reader.h"
#include "quant/quant_type.h"

namespace orbtest {

using kiv::QuantType;
using kiv::orb2::SectionType;

// A growing byte string with little-endian numbers.
class Bytes {
 public:
  Bytes() = default;
  Bytes(std::string_view text) { raw(text); }                            // NOLINT: meant to convert
  Bytes(std::vector<uint8_t> content) : content_(std::move(content)) {}  // NOLINT

  Bytes& u8(uint8_t value) { return number(value); }
  Bytes& u16(uint16_t value) { return number(value); }
  Bytes& u32(uint32_t value) { return number(value); }
  Bytes& i32(int32_t value) { return number(value); }
  Bytes& u64(uint64_t value) { return number(value); }
  Bytes& f32(float value) { return number(value); }
  Bytes& raw(std::string_view text) {
    content_.insert(content_.end(), text.begin(), text.end());
    return *this;
  }
  Bytes& raw(const Bytes& other) {
    content_.insert(content_.end(), other.content_.begin(), other.content_.end());
    return *this;
  }
  Bytes& zeros(size_t count) {
    content_.insert(content_.end(), count, 0);
    return *this;
  }
  // u32 length and text, as tokenizer section and metadata values have it.
  Bytes& text(std::string_view value) {
    return u32(static_cast<uint32_t>(value.size())).raw(value);
  }
  // One metadata entry up to its value.
  Bytes& metaKey(std::string_view key, kiv::orb2::MetaType type) {
    return u16(static_cast<uint16_t>(key.size())).raw(key).u8(static_cast<uint8_t>(type));
  }

  const std::vector<uint8_t>& get() const { return content_; }
  size_t size() const { return content_.size(); }

 private:
  template <typename T>
  Bytes& number(T value) {
    uint8_t bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    for (const uint8_t byte : bytes) content_.push_back(byte);
    return *this;
  }

  std::vector<uint8_t> content_;
};

// Overwrites a field of a finished file.
template <typename T>
void poke(std::vector<uint8_t>& file, uint64_t offset, T value) {
  std::memcpy(file.data() + offset, &value, sizeof value);
}

template <typename T>
T peek(const std::vector<uint8_t>& file, uint64_t offset) {
  T value;
  std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

// Makes the header checksum right for the header and table as they stand, as far as the file holds
// the table that the header claims.
inline void reseal(std::vector<uint8_t>& file) {
  const uint64_t table = uint64_t{24} * peek<uint32_t>(file, 12);
  std::vector<uint8_t> covered(file.begin(), file.begin() + 56);
  const auto end = static_cast<ptrdiff_t>(std::min<uint64_t>(file.size(), 64 + table));
  covered.insert(covered.end(), file.begin() + 64, file.begin() + end);
  poke(file, 56, kiv::orb2::crc64(covered.data(), covered.size()));
}

// Offset in the file of field `field` (0 type, 8 offset, 16 size) of table entry `index`.
inline uint64_t tableField(size_t index, size_t field) { return 64 + 24 * index + field; }

// The bytes of a tokenizer section.
inline Bytes tokenizerSection(const kiv::TokenizerData& data) {
  const auto count = [](const auto& list) { return static_cast<uint32_t>(list.size()); };
  Bytes out("TKNZ");
  out.text(data.model);
  out.u32(count(data.tokens));
  for (const auto& token : data.tokens) out.text(token);
  out.u32(count(data.scores));
  for (const uint32_t score : data.scores) out.u32(score);
  out.u32(count(data.types));
  for (const int32_t type : data.types) out.i32(type);
  out.u32(count(data.merges));
  for (const auto& merge : data.merges) out.text(merge);
  for (const int32_t id : data.specialIds) out.i32(id);
  return out.u8(data.flag ? 1 : 0);
}

// One 128-byte tensor index entry. The name is cut to its field; its length is not.
inline Bytes indexEntry(std::string_view name, uint16_t type, const std::vector<uint64_t>& dims,
                        uint64_t offset, uint64_t size) {
  Bytes out(name.substr(0, 64));
  out.zeros(64 - out.size());
  out.u16(static_cast<uint16_t>(name.size())).u16(type);
  out.u16(static_cast<uint16_t>(dims.size())).u16(0);
  for (size_t i = 0; i < 4; ++i) out.u64(i < dims.size() ? dims[i] : 0);
  return out.u64(offset).u64(size).u64(0);
}

class ContainerBuilder {
 public:
  kiv::orb2::FileHeader header{{'O', 'R', 'B', '2'}, 2, 0x01020304, 0, 0, 0, 0, 0, 0, 0};
  bool sortIndex = true;

  ContainerBuilder& meta(std::string_view key, std::string_view value) {
    return metaEntry(Bytes().metaKey(key, kiv::orb2::MetaType::String).text(value));
  }
  ContainerBuilder& meta(std::string_view key, uint32_t value) {
    return metaEntry(Bytes().metaKey(key, kiv::orb2::MetaType::U32).u32(value));
  }
  // Any entry, whole: key length, key, type, value.
  ContainerBuilder& metaEntry(const Bytes& entry) {
    metaEntries_.raw(entry);
    ++metaCount_;
    return *this;
  }

  // Any type code and shape; the data need not fit them. Data starts at a multiple of 64.
  ContainerBuilder& tensor(std::string_view name, QuantType type, std::vector<uint64_t> dims,
                           const Bytes& data) {
    weights_.zeros((64 - weights_.size() % 64) % 64);
    const uint64_t offset = weights_.size();
    weights_.raw(data);
    return rawTensor(indexEntry(name, static_cast<uint16_t>(type), dims, offset, data.size()));
  }
  // Any 128 bytes as an index entry.
  ContainerBuilder& rawTensor(const Bytes& entry) {
    index_.push_back(entry);
    return *this;
  }

  ContainerBuilder& tokenizer(const kiv::TokenizerData& data) {
    return section(SectionType::Tokenizer, tokenizerSection(data));
  }
  ContainerBuilder& text(std::string_view content) { return section(SectionType::Text, content); }

  // A section with any content and any type.
  ContainerBuilder& section(SectionType type, const Bytes& content) {
    sections_.emplace_back(static_cast<uint32_t>(type), content.get());
    return *this;
  }
  ContainerBuilder& without(SectionType type) {
    left_.insert(static_cast<uint32_t>(type));
    return *this;
  }

  // The whole file: sections at multiples of 64, the file ends with the last one.
  std::vector<uint8_t> build() const {
    auto sections = sections_;
    const auto add = [&](SectionType type, const Bytes& content) {
      const auto code = static_cast<uint32_t>(type);
      const bool given = std::any_of(sections_.begin(), sections_.end(),
                                     [&](const auto& s) { return s.first == code; });
      if (!given && left_.count(code) == 0) sections.emplace_back(code, content.get());
    };
    add(SectionType::Meta, Bytes().u32(metaCount_).raw(metaEntries_));
    add(SectionType::TensorIndex, indexSection());
    add(SectionType::WeightData, weights_);

    kiv::orb2::FileHeader head = header;
    head.sectionCount = static_cast<uint32_t>(sections.size());
    if (head.tensorCount == 0) head.tensorCount = index_.size();
    std::vector<uint8_t> file(sizeof head + 24 * sections.size());
    poke(file, 0, head);
    for (size_t i = 0; i < sections.size(); ++i) {
      file.resize((file.size() + 63) / 64 * 64);
      poke(file, tableField(i, 0), uint64_t{sections[i].first});
      poke(file, tableField(i, 8), uint64_t{file.size()});
      poke(file, tableField(i, 16), uint64_t{sections[i].second.size()});
      file.insert(file.end(), sections[i].second.begin(), sections[i].second.end());
    }
    reseal(file);
    return file;
  }

 private:
  Bytes indexSection() const {
    auto entries = index_;
    if (sortIndex) {
      std::stable_sort(entries.begin(), entries.end(), [](const Bytes& a, const Bytes& b) {
        return std::memcmp(a.get().data(), b.get().data(), 64) < 0;
      });
    }
    Bytes out;
    for (const Bytes& entry : entries) out.raw(entry);
    return out;
  }

  uint32_t metaCount_ = 0;
  Bytes metaEntries_;
  Bytes weights_;
  std::vector<Bytes> index_;
  std::vector<std::pair<uint32_t, std::vector<uint8_t>>> sections_;
  std::set<uint32_t> left_;
};

// A file in the temporary directory, removed with the object.
class TempFile {
 public:
  explicit TempFile(const std::vector<uint8_t>& content, const char* suffix = ".orb") {
    static std::atomic<int> counter{0};
    const std::string name =
        "orb_test_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + suffix;
    path_ = (std::filesystem::temp_directory_path() / name).string();
    std::ofstream file(path_, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
  }
  ~TempFile() { std::remove(path_.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const char* path() const { return path_.c_str(); }
  // Cuts the file, or lengthens it by a hole that takes no disk space.
  void resize(uint64_t size) const { std::filesystem::resize_file(path_, size); }

 private:
  std::string path_;
};

}  // namespace orbtest
