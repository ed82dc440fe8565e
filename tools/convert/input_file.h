// A file that is read by position, never mapped: memory stays with the caller's buffers however
// large the file is.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "quant/status.h"

namespace orb {

// The path that a UTF-8 text names, on every platform, and back.
std::filesystem::path pathFromUtf8(const std::string& text);
std::string utf8FromPath(const std::filesystem::path& path);

// One thread at a time. Messages begin with the path.
class InputFile {
 public:
  // Regular files only: a pipe or device has no positions.
  kiv::Status open(const std::string& path);

  // Fills `out` with the `size` bytes at `offset`; a file that ends before is an error.
  kiv::Status read(uint64_t offset, void* out, uint64_t size);

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }

 private:
  std::string path_;
  uint64_t size_ = 0;
  uint64_t position_ = 0;  // of the stream
  std::ifstream stream_;
};

// The whole file as text; refused when it is larger than `limit`.
kiv::Status readTextFile(const std::string& path, uint64_t limit, std::string& out);

}  // namespace orb
