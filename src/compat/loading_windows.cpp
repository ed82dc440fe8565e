// dlopen, dlsym, dlclose and dlerror over the system's loader.
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "compat/compat.h"

namespace {

constexpr int kNameLength = 4096;  // UTF-16 units, the terminator among them
constexpr int kTextLength = 192;   // UTF-16 units of an error text
constexpr int kErrorBytes = 256;

HMODULE moduleOf(void* handle) {
  return handle != nullptr ? static_cast<HMODULE>(handle) : GetModuleHandleW(nullptr);
}

// The system's text for the code as UTF-8 of at most kErrorBytes - 1 bytes, whole characters;
// false when it has none.
bool systemText(DWORD code, char* out) {
  wchar_t wide[kTextLength];
  const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                      nullptr, code, 0, wide, kTextLength, nullptr);
  char bytes[kTextLength * 3];  // a UTF-16 unit never takes more
  int count = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), bytes, sizeof bytes,
                                  nullptr, nullptr);
  if (length == 0 || count <= 0) return false;
  if (count > kErrorBytes - 1) {
    count = kErrorBytes - 1;
    while (count > 0 && (static_cast<unsigned char>(bytes[count]) & 0xC0) == 0x80) --count;
  }
  std::memcpy(out, bytes, static_cast<size_t>(count));
  out[count] = '\0';
  return true;
}

}  // namespace

void* dlopen(const char* name, int /*flags*/) {
  if (name == nullptr || name[0] == '\0') return GetModuleHandleW(nullptr);
  wchar_t wide[kNameLength];
  if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, name, -1, wide, kNameLength) == 0) {
    return nullptr;
  }
  const HMODULE module = LoadLibraryExW(
      wide, nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
  // The search flags want an absolute path; the plain call takes any.
  return module != nullptr ? module : LoadLibraryW(wide);
}

void* dlsym(void* handle, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(moduleOf(handle), name));
}

int dlclose(void* handle) {
  if (handle == nullptr) return 0;
  return FreeLibrary(static_cast<HMODULE>(handle)) != 0 ? 0 : 1;
}

char* dlerror() {
  const DWORD code = GetLastError();
  static thread_local char text[kErrorBytes];
  if (!systemText(code, text)) std::snprintf(text, sizeof text, "Win32 error %lu", code);
  SetLastError(code);
  return text;
}
