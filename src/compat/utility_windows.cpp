#include <io.h>
#include <windows.h>

#include <algorithm>
#include <limits>

#include "compat/compat.h"

int orbCompatGetcwd(char* buffer, int64_t size) {
  constexpr DWORD kLength = 4096;
  // No room would ask the conversion for the size that it needs.
  if (buffer == nullptr || size <= 0) return -1;
  wchar_t wide[kLength];
  const DWORD length = GetCurrentDirectoryW(kLength, wide);
  if (length == 0 || length > kLength - 1) return -1;
  const auto room = static_cast<int>(std::min<int64_t>(size, std::numeric_limits<int>::max()));
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), buffer, room,
                                        nullptr, nullptr);
  if (bytes <= 0) return -1;
  buffer[bytes] = '\0';
  return 0;
}

int orbCompatIsatty(int fd) { return _isatty(fd); }

void orbCompatSleepMs(uint64_t milliseconds) { Sleep(static_cast<DWORD>(milliseconds)); }
