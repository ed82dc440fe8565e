// The exported utility functions of the compatibility layer. On POSIX systems mapping and dynamic
// loading are the native calls and these three are thin wrappers.
#pragma once

#include <cstdint>

#include "compat/export.h"

extern "C" {

// Current directory, UTF-8, into `buffer` of at least size + 1 bytes. 0, or -1 when it does not fit
// or the system fails.
ORB_API int orbCompatGetcwd(char* buffer, int64_t size);

// Non-zero when the descriptor is a terminal.
ORB_API int orbCompatIsatty(int fd);

// Sleeps at least that many milliseconds; only the low 32 bits count.
ORB_API void orbCompatSleepMs(uint64_t milliseconds);
}
