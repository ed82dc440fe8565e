#include "convert/gguf_reader.h"

#include <algorithm>
#include <cstring>

#include "convert/source_types.h"

namespace orb {

using kiv::Status;

namespace {

// Real files have 15 MB before the data, most of it the tokenizer, some 40 keys and 900 tensors.
constexpr uint64_t kMaxHeadBytes = uint64_t{64} << 20;
constexpr uint64_t kMaxNumbers = uint64_t{1} << 22;  // longer arrays are passed over
constexpr uint64_t kMaxKeys = 65536;
constexpr uint64_t kMaxTensors = 65536;
constexpr uint64_t kMaxNameBytes = 65536;
constexpr int kMaxNesting = 4;
constexpr int64_t kMaxAlignment = 65536;

enum ValueType : uint32_t {
  kU8,
  kI8,
  kU16,
  kI16,
  kU32,
  kI32,
  kF32,
  kBool,
  kString,
  kArray,
  kU64,
  kI64,
  kF64,  // NOLINT
  kValueTypes
};

// Bytes of one value; the least that a string and an array take.
uint64_t leastBytes(uint32_t type) {
  constexpr uint64_t kBytes[kValueTypes] = {1, 1, 2, 2, 4, 4, 4, 1, 8, 12, 8, 8, 8};
  return kBytes[type];
}

}  // namespace

// Walks the part before the data through a buffer. The first failure sticks: afterwards everything
// reads as 0, and the caller looks at failed() where it matters.
class GgufReader::Cursor {
 public:
  explicit Cursor(InputFile& file) : file_(file), end_(std::min(file.size(), kMaxHeadBytes)) {}

  template <typename T>
  T number() {
    T value{};
    take(&value, sizeof value);
    return value;
  }

  // Empty when it is longer than `limit`, which is a failure.
  std::string string(uint64_t limit) {
    const auto length = number<uint64_t>();
    if (length > limit || length > left()) fail();
    if (failed_) return {};
    std::string text(length, '\0');
    take(text.data(), length);
    return text;
  }

  void skip(uint64_t bytes) {
    if (bytes > left()) fail();
    if (!failed_) position_ += bytes;
  }

  void fail() { failed_ = true; }
  bool failed() const { return failed_; }
  uint64_t position() const { return position_; }
  uint64_t left() const { return end_ - position_; }
  // Why a read failed: the file ends, or its head is beyond what any model has.
  std::string reason() const {
    return end_ < file_.size()
               ? "more than " + std::to_string(kMaxHeadBytes) + " bytes, or lengths that say so"
               : "that the file ends before, or lengths that say so";
  }

 private:
  void take(void* out, uint64_t size) {
    if (size > left()) fail();
    if (failed_) return;
    auto* bytes = static_cast<uint8_t*>(out);
    while (size > 0) {
      if (position_ < bufferStart_ || position_ >= bufferStart_ + buffer_.size()) refill();
      if (failed_) return;
      const uint64_t at = position_ - bufferStart_;
      const uint64_t part = std::min(size, buffer_.size() - at);
      std::memcpy(bytes, buffer_.data() + at, part);
      bytes += part;
      size -= part;
      position_ += part;
    }
  }

  void refill() {
    constexpr uint64_t kBufferBytes = 1 << 20;
    buffer_.resize(std::min(kBufferBytes, left()));
    bufferStart_ = position_;
    if (!file_.read(position_, buffer_.data(), buffer_.size()).ok()) fail();
  }

  InputFile& file_;
  uint64_t end_;
  uint64_t position_ = 0;
  uint64_t bufferStart_ = 0;
  std::vector<uint8_t> buffer_;
  bool failed_ = false;
};

namespace {

template <typename Cursor>
int64_t readInteger(Cursor& cursor, uint32_t type) {
  switch (type) {
    case kU8:
    case kBool:
      return cursor.template number<uint8_t>();
    case kI8:
      return cursor.template number<int8_t>();
    case kU16:
      return cursor.template number<uint16_t>();
    case kI16:
      return cursor.template number<int16_t>();
    case kU32:
      return cursor.template number<uint32_t>();
    case kI32:
      return cursor.template number<int32_t>();
    default:  // a u64 beyond the range turns negative, which no setting is
      return cursor.template number<int64_t>();
  }
}

bool isInteger(uint32_t type) {
  return type <= kBool ? type != kF32 : type == kU64 || type == kI64;
}

template <typename Cursor>
GgufValue readArray(Cursor& cursor, int nesting);

// A value of the type; fails the cursor on one that does not exist.
template <typename Cursor>
GgufValue readValue(Cursor& cursor, uint32_t type, int nesting = 0) {
  if (type >= kValueTypes) {
    cursor.fail();
    return {};
  }
  if (isInteger(type)) return readInteger(cursor, type);
  if (type == kF32) return static_cast<double>(cursor.template number<float>());
  if (type == kF64) return cursor.template number<double>();
  if (type == kString) return cursor.string(kMaxHeadBytes);
  return readArray(cursor, nesting);
}

// The count is held against the bytes that are left before anything is reserved.
template <typename Cursor>
GgufValue readArray(Cursor& cursor, int nesting) {
  const auto type = cursor.template number<uint32_t>();
  const auto count = cursor.template number<uint64_t>();
  if (type >= kValueTypes || nesting >= kMaxNesting || count > cursor.left() / leastBytes(type)) {
    cursor.fail();
    return {};
  }
  if (isInteger(type) && nesting == 0 && count <= kMaxNumbers) {
    GgufNumbers list(count);
    for (int64_t& value : list) value = readInteger(cursor, type);
    return list;
  }
  if (type == kString && nesting == 0) {
    GgufStrings list;
    list.reserve(count);
    for (uint64_t i = 0; i < count && !cursor.failed(); ++i) {
      list.push_back(cursor.string(kMaxHeadBytes));
    }
    return list;
  }
  if (type != kString && type != kArray) {
    cursor.skip(count * leastBytes(type));
    return {};
  }
  for (uint64_t i = 0; i < count && !cursor.failed(); ++i) {
    static_cast<void>(readValue(cursor, type, nesting + 1));
  }
  return {};
}

}  // namespace

bool GgufReader::recognizes(const std::string& path) {
  InputFile file;
  char magic[4];
  return file.open(path).ok() && file.read(0, magic, sizeof magic).ok() &&
         std::memcmp(magic, "GGUF", 4) == 0;
}

Status GgufReader::open(const std::string& path) {
  values_.clear();
  tensors_.clear();
  file_ = std::make_shared<InputFile>();
  if (Status status = file_->open(path); !status.ok()) return status;
  Cursor cursor(*file_);
  char magic[4];
  for (char& c : magic) c = cursor.number<char>();
  if (cursor.failed() || std::memcmp(magic, "GGUF", 4) != 0) {
    return refuse("file", "\"GGUF\" at its beginning", "something else");
  }
  const auto version = cursor.number<uint32_t>();
  if (version != 2 && version != 3) {
    const bool swapped = version == 0x02000000 || version == 0x03000000;
    return refuse("version", "2 or 3", swapped ? "a big-endian file" : std::to_string(version));
  }
  const auto tensorCount = cursor.number<uint64_t>();
  const auto keyCount = cursor.number<uint64_t>();
  if (cursor.failed()) return refuse("header", "24 bytes", cursor.reason());
  if (keyCount > kMaxKeys) {
    return refuse("keys", "at most " + std::to_string(kMaxKeys), std::to_string(keyCount));
  }
  if (tensorCount > kMaxTensors) {
    return refuse("tensors", "at most " + std::to_string(kMaxTensors), std::to_string(tensorCount));
  }
  if (Status status = readKeys(cursor, keyCount); !status.ok()) return status;
  if (Status status = readTensors(cursor, tensorCount); !status.ok()) return status;
  if (Status status = placeTensors(cursor.position()); !status.ok()) return status;
  return checkOverlaps(tensors_);
}

Status GgufReader::readKeys(Cursor& cursor, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    std::string key = cursor.string(kMaxNameBytes);
    if (cursor.failed()) {
      return refuse("key " + std::to_string(i + 1), "a name that fits", cursor.reason());
    }
    const auto type = cursor.number<uint32_t>();
    if (!cursor.failed() && type >= kValueTypes) {
      return refuse("key " + key, "a type of 0 to 12", std::to_string(type));
    }
    GgufValue value = readValue(cursor, type);
    if (cursor.failed()) {
      return refuse("key " + key, "a value that fits", cursor.reason());
    }
    if (!values_.emplace(key, std::move(value)).second) {
      return refuse("key " + key, "once", "twice");
    }
  }
  return Status::success();
}

Status GgufReader::readTensors(Cursor& cursor, uint64_t count) {
  for (uint64_t i = 0; i < count; ++i) {
    SourceTensor tensor;
    tensor.file = file_;
    tensor.name = cursor.string(kMaxNameBytes);
    const auto dimensions = cursor.number<uint32_t>();
    if (!cursor.failed() && (dimensions < 1 || dimensions > 4)) {
      return refuse("tensor " + tensor.name, "1 to 4 dimensions", std::to_string(dimensions));
    }
    for (uint32_t d = 0; d < dimensions && !cursor.failed(); ++d) {
      tensor.dims.push_back(cursor.number<uint64_t>());
    }
    tensor.type = cursor.number<uint32_t>();
    tensor.offset = cursor.number<uint64_t>();
    if (cursor.failed()) {
      return refuse("tensor " + std::to_string(i + 1), "an entry that fits", cursor.reason());
    }
    if (std::count(tensor.dims.begin(), tensor.dims.end(), 0u) != 0) {
      return refuse("tensor " + tensor.name, "dimensions of at least 1", "a dimension of 0");
    }
    tensors_.push_back(std::move(tensor));
  }
  return Status::success();
}

Status GgufReader::placeTensors(uint64_t dataStart) {
  const int64_t given = integer("general.alignment").value_or(32);
  if (given < 1 || given > kMaxAlignment || (given & (given - 1)) != 0) {
    return refuse("key general.alignment", "a power of two of at most 65536",
                  std::to_string(given));
  }
  const auto alignment = static_cast<uint64_t>(given);
  dataStart = (dataStart + alignment - 1) / alignment * alignment;
  const uint64_t dataBytes = file_->size() - std::min(dataStart, file_->size());
  for (SourceTensor& tensor : tensors_) {
    const std::string subject = "tensor " + tensor.name;
    if (tensor.offset % alignment != 0) {
      return refuse(subject, "an offset at a multiple of " + std::to_string(alignment),
                    std::to_string(tensor.offset));
    }
    tensor.bytes = sourceBytes(tensor.type, tensor.dims);
    if (tensor.bytes == 0 && findSourceType(tensor.type) != nullptr) {
      return refuse(subject, "rows of whole blocks and less than 2^62 bytes",
                    "rows of " + std::to_string(tensor.dims[0]) + " elements of type " +
                        sourceTypeName(tensor.type));
    }
    if (tensor.offset > dataBytes || tensor.bytes > dataBytes - tensor.offset) {
      return refuse(subject, "data inside the file",
                    std::to_string(tensor.bytes) + " bytes at offset " +
                        std::to_string(tensor.offset) + " of " + std::to_string(dataBytes));
    }
    tensor.offset += dataStart;
  }
  return Status::success();
}

Status GgufReader::refuse(const std::string& subject, const std::string& expected,
                          const std::string& found) const {
  return Status::invalidFormat(file_->path() + ": " + subject + ": expected " + expected +
                               ", found " + found);
}

std::optional<int64_t> GgufReader::integer(const std::string& key) const {
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  const auto* value = std::get_if<int64_t>(&found->second);
  return value == nullptr ? std::nullopt : std::optional(*value);
}

std::optional<double> GgufReader::number(const std::string& key) const {
  if (const auto value = integer(key)) return static_cast<double>(*value);
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  const auto* value = std::get_if<double>(&found->second);
  return value == nullptr ? std::nullopt : std::optional(*value);
}

namespace {

template <typename T>
const T* valueOf(const std::map<std::string, GgufValue>& values, const std::string& key) {
  const auto found = values.find(key);
  return found == values.end() ? nullptr : std::get_if<T>(&found->second);
}

}  // namespace

const std::string* GgufReader::string(const std::string& key) const {
  return valueOf<std::string>(values_, key);
}

const GgufNumbers* GgufReader::numbers(const std::string& key) const {
  return valueOf<GgufNumbers>(values_, key);
}

const GgufStrings* GgufReader::strings(const std::string& key) const {
  return valueOf<GgufStrings>(values_, key);
}

}  // namespace orb
