// A file that never reaches a disk, to be opened by its path and changed at will.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orbtest {

// Changes show in mappings of the file that were made before.
class MemoryFile {
 public:
  explicit MemoryFile(const std::vector<uint8_t>& content)
      : descriptor_(memfd_create("test", MFD_CLOEXEC)) {
    if (descriptor_ < 0) throw std::runtime_error("memfd_create");
    path_ = "/proc/self/fd/" + std::to_string(descriptor_);
    write(0, content.data(), content.size());
  }
  ~MemoryFile() { close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const char* path() const { return path_.c_str(); }

  void write(uint64_t offset, const void* bytes, size_t count) {
    if (pwrite(descriptor_, bytes, count, static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(count)) {
      throw std::runtime_error("pwrite");
    }
  }
  void resize(uint64_t size) {
    if (ftruncate(descriptor_, static_cast<off_t>(size)) != 0) throw std::runtime_error("truncate");
  }

 private:
  int descriptor_;
  std::string path_;
};

}  // namespace orbtest
