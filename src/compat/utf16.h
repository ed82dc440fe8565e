// Windows only: between the library's UTF-8 and the UTF-16 of the system's calls.
#pragma once

#include <string>
#include <string_view>

namespace compat {

// False when the bytes are no UTF-8; `wide` is then empty.
bool toWide(std::string_view text, std::wstring& wide);

// Unpaired surrogates, which file names may hold, become U+FFFD.
std::string toUtf8(std::wstring_view wide);

// The path in the form that the system's calls take: one too long for them as it stands is made
// absolute and prefixed with \\?\. False as for toWide.
bool toWidePath(std::string_view path, std::wstring& wide);

}  // namespace compat
