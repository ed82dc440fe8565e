/* Dynamic loading for tests that are hosts: the system's own, under the names that it has
 * elsewhere. Not the functions of those names in the library, which they load by this. */
#ifndef ORB_TESTS_WINDOWS_DLFCN_H
#define ORB_TESTS_WINDOWS_DLFCN_H

#include <stdio.h>
#include <string.h>
#include <windows.h>

#define RTLD_NOW 0
#define RTLD_LOCAL 0
#define RTLD_GLOBAL 0

static inline void* dlopen(const char* path, int flags) {
  (void)flags;
  return LoadLibraryA(path);
}

static inline void* dlsym(void* library, const char* name) {
  const FARPROC function = GetProcAddress((HMODULE)library, name);
  void* address;
  memcpy(&address, &function, sizeof address);
  return address;
}

static inline int dlclose(void* library) { return !FreeLibrary((HMODULE)library); }

static inline const char* dlerror(void) {
  static char text[64];
  snprintf(text, sizeof text, "error %lu of the loader", GetLastError());
  return text;
}

#endif
