// The exported functions of the compatibility layer. On POSIX systems mapping and dynamic loading
// are the native calls and only the three utility functions are here, as thin wrappers; on Windows
// this layer supplies all of them, for the library and for hosts and plug-ins of the same sources.
//
// All may be called from any thread. None sets errno.
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

#if defined(_WIN32)

// A read-only view of `length` bytes of the file from `offset` on (a multiple of 64 KiB), whatever
// protection and flags say; the all-ones pointer on failure. It outlives the descriptor.
ORB_API void* mmap(void* hint, uint64_t length, int protection, int flags, int fd, uint64_t offset);

// Releases the mapping that begins at the address, whole, whatever the length; 0 always, also for
// an address that begins none.
ORB_API int munmap(void* address, uint64_t length);

// Does nothing; 0 always.
ORB_API int madvise(void* address, uint64_t length, int advice);

// Handle of the library of that UTF-8 file name, of the main program for a null or empty name; null
// on failure. The flags are ignored.
ORB_API void* dlopen(const char* name, int flags);

// Null when the library, or the main program for a null handle, exports no such name.
ORB_API void* dlsym(void* handle, const char* name);

// 0 on success and for a null handle, 1 on failure.
ORB_API int dlclose(void* handle);

// The system's text for the calling thread's last error, UTF-8, in a buffer of the thread that its
// next call overwrites. Never null; the error stays what it was.
ORB_API char* dlerror();

#endif
}
