#include "compat/utf16.h"

#include <windows.h>

namespace compat {
namespace {

// Where the system's limit of 260 begins to bite: folders must leave room for an 8.3 name.
constexpr size_t kLongPath = 260 - 12;

std::wstring fullPath(const std::wstring& path) {
  const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  std::wstring full(needed, L'\0');
  const DWORD length = GetFullPathNameW(path.c_str(), needed, full.data(), nullptr);
  if (length == 0 || length >= needed) return path;
  full.resize(length);
  return full;
}

}  // namespace

bool toWide(std::string_view text, std::wstring& wide) {
  wide.clear();
  if (text.empty()) return true;
  const int size = static_cast<int>(text.size());
  const int needed =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
  if (needed <= 0) return false;
  wide.resize(static_cast<size_t>(needed));
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, wide.data(), needed);
  return true;
}

std::string toUtf8(std::wstring_view wide) {
  std::string text;
  if (wide.empty()) return text;
  const int size = static_cast<int>(wide.size());
  const int needed =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return text;
  text.resize(static_cast<size_t>(needed));
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, text.data(), needed, nullptr, nullptr);
  return text;
}

bool toWidePath(std::string_view path, std::wstring& wide) {
  if (!toWide(path, wide)) return false;
  const bool isPrefixed = wide.starts_with(L"\\\\?\\") || wide.starts_with(L"\\\\.\\");
  if (wide.size() < kLongPath || isPrefixed) return true;
  wide = fullPath(wide);
  const bool isShare = wide.starts_with(L"\\\\");
  wide.replace(0, isShare ? 2 : 0, isShare ? L"\\\\?\\UNC\\" : L"\\\\?\\");
  return true;
}

}  // namespace compat
