#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "compat/compat.h"

int orbCompatGetcwd(char* buffer, int64_t size) {
  if (buffer == nullptr || size <= 0) return -1;
  return getcwd(buffer, static_cast<size_t>(size) + 1) != nullptr ? 0 : -1;
}

int orbCompatIsatty(int fd) { return isatty(fd); }

void orbCompatSleepMs(uint64_t milliseconds) {
  const auto ms = static_cast<uint32_t>(milliseconds);
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
