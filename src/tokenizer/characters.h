// Byte classes and character lengths that splitting and merging agree on. Text is not validated:
// only the lead byte decides how long a character is.
#pragma once

#include <cstddef>
#include <string_view>

namespace kiv {

inline constexpr char kEscapedSpace[] = "\xE2\x96\x81";      // U+2581
inline constexpr char kByteLevelSpace[] = "\xC4\xA0";        // U+0120
inline constexpr char kTypographicQuote[] = "\xE2\x80\x99";  // U+2019

inline bool isNewline(char c) { return c == '\n' || c == '\r'; }
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
// Every byte of a character beyond ASCII counts as a letter.
inline bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || static_cast<unsigned char>(c) >= 0x80;
}
inline bool isOther(char c) { return !isSpace(c) && !isDigit(c) && !isLetter(c); }

// Length in bytes of the character at `position` < text.size(), clipped to the end of the text.
inline size_t characterLength(std::string_view text, size_t position) {
  const auto lead = static_cast<unsigned char>(text[position]);
  size_t length = 1;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
  }
  const size_t rest = text.size() - position;
  return length < rest ? length : rest;
}

}  // namespace kiv
