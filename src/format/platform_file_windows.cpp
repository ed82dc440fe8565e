#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>

#include "compat/compat.h"
#include "compat/utf16.h"
#include "format/platform_file.h"

namespace kiv::platform {
namespace {

// The reasons that a user can do something about.
int errorNumber(DWORD code) {
  switch (code) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
    case ERROR_USER_MAPPED_FILE:
      return EACCES;
    case ERROR_DISK_FULL:
      return ENOSPC;
    default:
      return EIO;
  }
}

bool fail(int number) {
  errno = number;
  return false;
}

}  // namespace

int openForReading(const char* path) {
  constexpr int kFlags = _O_RDONLY | _O_BINARY | _O_NOINHERIT;
  std::wstring wide;
  // Bytes that are no UTF-8 may be a name in the system's own code page.
  return compat::toWidePath(path, wide) ? _wopen(wide.c_str(), kFlags) : _open(path, kFlags);
}

int64_t fileSize(int fd) {
  struct __stat64 info;
  return _fstat64(fd, &info) == 0 ? int64_t{info.st_size} : -1;
}

void closeDescriptor(int fd) { _close(fd); }

const uint8_t* mapFile(int fd, uint64_t length) {
  void* base = mmap(nullptr, length, 0, 0, fd, 0);
  if (base == reinterpret_cast<void*>(~uintptr_t{0})) return nullptr;
  return static_cast<const uint8_t*>(base);
}

void unmapFile(const uint8_t* base, uint64_t length) { munmap(const_cast<uint8_t*>(base), length); }

PathKind pathKind(const std::string& path) {
  std::wstring wide;
  if (!compat::toWidePath(path, wide)) return PathKind::Missing;
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return PathKind::Missing;
  constexpr DWORD kOthers = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE;
  return (attributes & kOthers) == 0 ? PathKind::RegularFile : PathKind::Other;
}

std::FILE* createFile(const std::string& path) {
  std::wstring wide;
  if (!compat::toWidePath(path, wide)) {
    errno = EILSEQ;
    return nullptr;
  }
  return _wfopen(wide.c_str(), L"wbN");  // N: child processes do not inherit it
}

bool syncFile(std::FILE* file) { return _commit(_fileno(file)) == 0; }

bool replaceFile(const std::string& from, const std::string& to) {
  std::wstring wideFrom, wideTo;
  if (!compat::toWidePath(from, wideFrom) || !compat::toWidePath(to, wideTo)) return fail(EILSEQ);
  constexpr DWORD kFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
  if (MoveFileExW(wideFrom.c_str(), wideTo.c_str(), kFlags) != 0) return true;
  return fail(errorNumber(GetLastError()));
}

bool removeFile(const std::string& path) {
  std::wstring wide;
  if (!compat::toWidePath(path, wide)) return fail(EILSEQ);
  return _wunlink(wide.c_str()) == 0;
}

}  // namespace kiv::platform
