#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "format/platform_file.h"

namespace kiv::platform {

int openForReading(const char* path) {
  // Without O_NONBLOCK the open of a pipe would wait for a writer for ever; files do not mind it.
  return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

int64_t fileSize(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 ? int64_t{info.st_size} : -1;
}

void closeDescriptor(int fd) { close(fd); }

const uint8_t* mapFile(int fd, uint64_t length) {
  constexpr int kHugePages = 14;  // MADV_HUGEPAGE, not everywhere in the headers
  void* base = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
  if (base == MAP_FAILED) return nullptr;
  static_cast<void>(madvise(base, length, kHugePages));  // a hint; most file systems refuse it
  return static_cast<const uint8_t*>(base);
}

void unmapFile(const uint8_t* base, uint64_t length) { munmap(const_cast<uint8_t*>(base), length); }

PathKind pathKind(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return PathKind::Missing;
  return S_ISREG(info.st_mode) ? PathKind::RegularFile : PathKind::Other;
}

std::FILE* createFile(const std::string& path) { return std::fopen(path.c_str(), "wbe"); }

bool syncFile(std::FILE* file) { return fsync(fileno(file)) == 0; }

bool replaceFile(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

bool removeFile(const std::string& path) { return unlink(path.c_str()) == 0; }

}  // namespace kiv::platform
