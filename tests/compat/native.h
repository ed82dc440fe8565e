// Mapping and dynamic loading under their usual names: the system's own, or the layer's where the
// system has none.
#pragma once

#if defined(_WIN32)
#include <windows.h>

#include "compat/compat.h"

constexpr int PROT_READ = 1;
constexpr int PROT_WRITE = 2;
constexpr int MAP_SHARED = 1;
constexpr int MAP_PRIVATE = 2;
constexpr int RTLD_NOW = 2;
#else
#include <dlfcn.h>
#include <sys/mman.h>
#endif

#include <cstdint>
#include <filesystem>
#include <string>

namespace orbtest {

inline void* allOnes() { return reinterpret_cast<void*>(~uintptr_t{0}); }

// A path of UTF-8 bytes, and back.
inline std::filesystem::path pathOf(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}
inline std::string textOf(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

}  // namespace orbtest
