#include "format/orb2_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "format/platform_file.h"

namespace kiv {

using orb2::MetaType;
using orb2::SectionType;

namespace {

constexpr uint64_t kHeaderSpace =
    sizeof(orb2::FileHeader) + orb2::kMaxSections * sizeof(orb2::SectionEntry);
static_assert(kHeaderSpace % orb2::kAlignment == 0);

void appendBytes(std::string& out, const void* data, size_t size) {
  out.append(static_cast<const char*>(data), size);
}

// A 32-bit length and the bytes; false when they are too many.
bool appendString(std::string& out, std::string_view text) {
  if (text.size() > std::numeric_limits<uint32_t>::max()) return false;
  const auto length = static_cast<uint32_t>(text.size());
  appendBytes(out, &length, sizeof length);
  appendBytes(out, text.data(), text.size());
  return true;
}

bool appendCount(std::string& out, size_t count) {
  if (count > orb2::kMaxTokenizerCount) return false;
  const auto stored = static_cast<uint32_t>(count);
  appendBytes(out, &stored, sizeof stored);
  return true;
}

bool appendStrings(std::string& out, const std::vector<std::string>& list) {
  if (!appendCount(out, list.size())) return false;
  return std::all_of(list.begin(), list.end(),
                     [&](const std::string& text) { return appendString(out, text); });
}

template <typename T>
bool appendWords(std::string& out, const std::vector<T>& list) {
  static_assert(sizeof(T) == 4);
  if (!appendCount(out, list.size())) return false;
  appendBytes(out, list.data(), list.size() * sizeof(T));
  return true;
}

}  // namespace

Status ORB2Writer::open(const std::string& path, bool overwrite) {
  abandon();
  path_ = path;
  overwrite_ = overwrite;
  if (Status status = checkDestination(); !status.ok()) return fail(std::move(status));

  partPath_ = path + ".part";
  file_ = platform::createFile(partPath_);
  if (file_ == nullptr) {
    partPath_.clear();
    return fail(ioFailure("cannot create a file beside it"));
  }
  const std::vector<uint8_t> space(kHeaderSpace);
  if (Status status = write(space.data(), space.size()); !status.ok()) return status;
  weightStart_ = position_;
  return Status::success();
}

Status ORB2Writer::beginTensor(std::string_view name, QuantType type,
                               const std::vector<uint64_t>& dims) {
  if (Status status = checkName(name); !status.ok()) return fail(std::move(status));
  const uint64_t size = tensorBytes(type, dims);
  if (size == 0) return fail(misuse("tensor " + std::string(name) + " has no valid shape"));
  if (Status status = padTo(orb2::kAlignment); !status.ok()) return status;

  orb2::TensorIndexEntry entry{};
  std::copy(name.begin(), name.end(), entry.name);
  entry.nameLength = static_cast<uint16_t>(name.size());
  entry.type = static_cast<uint16_t>(type);
  entry.ndims = static_cast<uint16_t>(dims.size());
  std::copy(dims.begin(), dims.end(), entry.dims);
  entry.offset = position_ - weightStart_;
  entry.size = size;
  expectedEnd_ = position_ + size;
  inTensor_ = true;
  contents_.names.emplace(name, contents_.index.size());
  contents_.index.push_back(entry);
  return Status::success();
}

Status ORB2Writer::append(const void* data, uint64_t size) {
  if (!inTensor_) return fail(misuse("data outside of a tensor"));
  if (size > expectedEnd_ - position_) return fail(misuse("more data than the tensor's shape"));
  return write(data, size);
}

Status ORB2Writer::endTensor() {
  if (!inTensor_) return fail(misuse("no tensor to end"));
  if (position_ != expectedEnd_) return fail(misuse("less data than the tensor's shape"));
  inTensor_ = false;
  return Status::success();
}

Status ORB2Writer::addAlias(std::string_view name, std::string_view existing) {
  if (Status status = checkName(name); !status.ok()) return fail(std::move(status));
  const auto found = contents_.names.find(std::string(existing));
  if (found == contents_.names.end()) {
    return fail(misuse("no tensor " + std::string(existing) + " to share"));
  }
  orb2::TensorIndexEntry entry = contents_.index[found->second];
  std::fill(std::begin(entry.name), std::end(entry.name), '\0');
  std::copy(name.begin(), name.end(), entry.name);
  entry.nameLength = static_cast<uint16_t>(name.size());
  contents_.names.emplace(name, contents_.index.size());
  contents_.index.push_back(entry);
  return Status::success();
}

void ORB2Writer::setHeaderWords(uint64_t a, uint64_t b, uint64_t c) {
  contents_.header.wordA = a;
  contents_.header.wordB = b;
  contents_.header.wordC = c;
}

void ORB2Writer::setMeta(std::string_view key, std::string_view value) {
  std::string body;
  if (!appendString(body, value)) {
    static_cast<void>(fail(misuse("metadata " + std::string(key) + " is too long")));
    return;
  }
  appendMeta(key, MetaType::String, body.data(), body.size());
}

void ORB2Writer::setMeta(std::string_view key, uint32_t value) {
  appendMeta(key, MetaType::U32, &value, sizeof value);
}

void ORB2Writer::setMeta(std::string_view key, uint64_t value) {
  appendMeta(key, MetaType::U64, &value, sizeof value);
}

void ORB2Writer::setMeta(std::string_view key, float value) {
  appendMeta(key, MetaType::F32, &value, sizeof value);
}

void ORB2Writer::setMeta(std::string_view key, int32_t value) {
  appendMeta(key, MetaType::I32, &value, sizeof value);
}

void ORB2Writer::setMeta(std::string_view key, const std::vector<uint32_t>& values) {
  std::string body;
  const auto count = static_cast<uint32_t>(values.size());
  appendBytes(body, &count, sizeof count);
  appendBytes(body, values.data(), values.size() * sizeof(uint32_t));
  appendMeta(key, MetaType::U32Array, body.data(), body.size());
}

void ORB2Writer::appendMeta(std::string_view key, MetaType type, const void* value, size_t size) {
  if (key.size() > std::numeric_limits<uint16_t>::max() ||
      !contents_.metaKeys.emplace(key).second) {
    static_cast<void>(fail(misuse("bad or repeated metadata key " + std::string(key))));
    return;
  }
  const auto length = static_cast<uint16_t>(key.size());
  appendBytes(contents_.meta, &length, sizeof length);
  appendBytes(contents_.meta, key.data(), key.size());
  contents_.meta.push_back(static_cast<char>(type));
  appendBytes(contents_.meta, value, size);
}

void ORB2Writer::setTokenizer(const TokenizerData& data) {
  std::string& out = contents_.tokenizer;
  out.clear();
  appendBytes(out, "TKNZ", 4);
  if (!appendString(out, data.model) || !appendStrings(out, data.tokens) ||
      !appendWords(out, data.scores) || !appendWords(out, data.types) ||
      !appendStrings(out, data.merges)) {
    static_cast<void>(fail(misuse("the tokenizer is too large")));
    return;
  }
  appendBytes(out, data.specialIds.data(), sizeof data.specialIds);
  out.push_back(data.flag ? 1 : 0);
}

void ORB2Writer::setText(std::string_view text) { contents_.text = text; }

Status ORB2Writer::finish() {
  if (!error_.ok()) return error_;
  if (file_ == nullptr) return fail(misuse("not open"));
  if (inTensor_) return fail(misuse("a tensor is not ended"));
  if (Status status = writeSections(); !status.ok()) return status;
  if (Status status = writeHeader(); !status.ok()) return status;
  return commit();
}

// The weights are written already.
Status ORB2Writer::writeSections() {
  contents_.sections.push_back(
      {static_cast<uint32_t>(SectionType::WeightData), 0, weightStart_, position_ - weightStart_});

  std::string meta;
  const auto count = static_cast<uint32_t>(contents_.metaKeys.size());
  appendBytes(meta, &count, sizeof count);
  appendBytes(meta, contents_.meta.data(), contents_.meta.size());
  Status status = writeSection(SectionType::Meta, meta.data(), meta.size());

  const auto& tokenizer = contents_.tokenizer;
  if (status.ok() && !tokenizer.empty()) {
    status = writeSection(SectionType::Tokenizer, tokenizer.data(), tokenizer.size());
  }
  if (status.ok() && !contents_.text.empty()) {
    status = writeSection(SectionType::Text, contents_.text.data(), contents_.text.size());
  }
  if (!status.ok()) return status;

  auto& index = contents_.index;
  std::sort(index.begin(), index.end(), [](const auto& a, const auto& b) {
    return std::memcmp(a.name, b.name, sizeof a.name) < 0;
  });
  return writeSection(SectionType::TensorIndex, index.data(), index.size() * sizeof index[0]);
}

Status ORB2Writer::writeSection(SectionType type, const void* body, uint64_t size) {
  if (Status status = padTo(orb2::kAlignment); !status.ok()) return status;
  contents_.sections.push_back({static_cast<uint32_t>(type), 0, position_, size});
  return write(body, size);
}

Status ORB2Writer::writeHeader() {
  orb2::FileHeader& header = contents_.header;
  const auto& sections = contents_.sections;
  std::memcpy(header.magic, "ORB2", 4);
  header.version = orb2::kVersion;
  header.endianMarker = orb2::kEndianMarker;
  header.sectionCount = static_cast<uint32_t>(sections.size());
  header.tensorCount = contents_.index.size();

  std::string covered;
  appendBytes(covered, &header, offsetof(orb2::FileHeader, crc));
  appendBytes(covered, sections.data(), sections.size() * sizeof sections[0]);
  header.crc = orb2::crc64(reinterpret_cast<const uint8_t*>(covered.data()), covered.size());

  const uint64_t end = position_;
  if (std::fseek(file_, 0, SEEK_SET) != 0) return fail(ioFailure("cannot write"));
  Status status = write(&header, sizeof header);
  if (status.ok()) status = write(sections.data(), sections.size() * sizeof sections[0]);
  position_ = end;
  return status;
}

Status ORB2Writer::commit() {
  if (std::fflush(file_) != 0 || !platform::syncFile(file_)) {
    return fail(ioFailure("cannot write"));
  }
  if (std::fclose(std::exchange(file_, nullptr)) != 0) return fail(ioFailure("cannot write"));
  // Again, because a model takes a while to write.
  if (Status status = checkDestination(); !status.ok()) return fail(std::move(status));
  if (!platform::replaceFile(partPath_, path_)) return fail(ioFailure("cannot rename onto it"));
  partPath_.clear();
  return Status::success();
}

void ORB2Writer::abandon() {
  removePart();
  error_ = Status::success();
  position_ = 0;
  inTensor_ = false;
  contents_ = {};
}

uint64_t ORB2Writer::tensorBytes(QuantType type, const std::vector<uint64_t>& dims) {
  constexpr uint64_t kLargest = uint64_t{1} << 62;
  const uint64_t block = quant::blockElements(type);
  if (block == 0 || dims.empty() || dims.size() > 4) return 0;
  if (dims[0] % block != 0 || dims[0] > kLargest / 8) return 0;
  uint64_t bytes = quant::quantizedBytes(type, dims[0]);
  for (size_t i = 1; i < dims.size(); ++i) {
    if (dims[i] != 0 && bytes > kLargest / dims[i]) return 0;
    bytes *= dims[i];
  }
  return bytes;
}

Status ORB2Writer::checkDestination() const {
  const platform::PathKind kind = platform::pathKind(path_);
  if (kind == platform::PathKind::Other) {
    return Status::ioError("ORB2Writer: " + path_ + ": not a regular file");
  }
  if (kind == platform::PathKind::RegularFile && !overwrite_) {
    return Status::ioError("ORB2Writer: " + path_ + ": already exists");
  }
  return Status::success();
}

Status ORB2Writer::checkName(std::string_view name) const {
  if (file_ == nullptr) return misuse("not open");
  if (inTensor_) return misuse("a tensor is not ended");
  if (name.empty() || name.size() > sizeof(orb2::TensorIndexEntry::name) ||
      name.find('\0') != std::string_view::npos) {
    return misuse("bad tensor name " + std::string(name));
  }
  if (contents_.names.count(std::string(name)) != 0) {
    return misuse("second tensor " + std::string(name));
  }
  return Status::success();
}

Status ORB2Writer::write(const void* data, uint64_t size) {
  if (size != 0 && std::fwrite(data, 1, size, file_) != size) {
    return fail(ioFailure("cannot write"));
  }
  position_ += size;
  return Status::success();
}

Status ORB2Writer::padTo(uint64_t alignment) {
  static constexpr uint8_t kZeros[orb2::kAlignment] = {};
  return write(kZeros, (alignment - position_ % alignment) % alignment);
}

Status ORB2Writer::misuse(const std::string& text) const {
  return Status::invalidFormat("ORB2Writer: " + path_ + ": " + text);
}

Status ORB2Writer::ioFailure(const char* text) const {
  const std::string reason = std::generic_category().message(errno);
  return Status::ioError("ORB2Writer: " + path_ + ": " + text + ": " + reason);
}

// The first failure counts; the disk space is given back at once.
Status ORB2Writer::fail(Status status) {
  removePart();
  if (error_.ok()) error_ = std::move(status);
  return error_;
}

void ORB2Writer::removePart() {
  if (file_ != nullptr) std::fclose(std::exchange(file_, nullptr));
  if (!partPath_.empty()) platform::removeFile(partPath_);
  partPath_.clear();
}

}  // namespace kiv
