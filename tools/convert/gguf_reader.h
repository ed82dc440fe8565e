// Reader of GGUF files, versions 2 and 3, little-endian:
//
//   "GGUF", u32 version, u64 tensor count, u64 key count, keys, tensor infos, data
//   string       u64 length and the bytes
//   key          string, u32 type, value: 0 u8, 1 i8, 2 u16, 3 i16, 4 u32, 5 i32, 6 f32, 7 bool,
//                8 string, 9 array (u32 type, u64 count, elements), 10 u64, 11 i64, 12 f64
//   tensor info  string name, u32 dimensions (1 to 4), u64 each, u32 type, u64 offset in the data
//
// The data begin behind the infos, at the next multiple of general.alignment (32 without it); so do
// the tensors. Everything before the data is read and checked here, within a fixed budget of memory
// whatever the file claims.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "convert/source_tensor.h"

namespace orb {

using GgufNumbers = std::vector<int64_t>;
using GgufStrings = std::vector<std::string>;
// Integers and booleans; floats; strings; arrays of integers; arrays of strings. Other arrays are
// passed over and hold nothing.
using GgufValue =
    std::variant<std::monostate, int64_t, double, std::string, GgufNumbers, GgufStrings>;

class GgufReader {
 public:
  // Whether the file begins like one.
  static bool recognizes(const std::string& path);

  // Messages name the file and the key or tensor; nothing is usable after a failure.
  kiv::Status open(const std::string& path);

  // Tensors of a readable type lie inside the file, at their alignment, without overlaps.
  const std::vector<SourceTensor>& tensors() const { return tensors_; }
  const std::shared_ptr<InputFile>& file() const { return file_; }

  bool has(const std::string& key) const { return values_.count(key) != 0; }
  std::optional<int64_t> integer(const std::string& key) const;
  std::optional<double> number(const std::string& key) const;  // of either kind
  const std::string* string(const std::string& key) const;
  const GgufNumbers* numbers(const std::string& key) const;
  const GgufStrings* strings(const std::string& key) const;

 private:
  class Cursor;
  kiv::Status readKeys(Cursor& cursor, uint64_t count);
  kiv::Status readTensors(Cursor& cursor, uint64_t count);
  kiv::Status placeTensors(uint64_t dataStart);
  kiv::Status refuse(const std::string& subject, const std::string& expected,
                     const std::string& found) const;

  std::shared_ptr<InputFile> file_;
  std::map<std::string, GgufValue> values_;
  std::vector<SourceTensor> tensors_;
};

}  // namespace orb
