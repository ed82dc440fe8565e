#include "orb/text.h"

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "orb/utf8_assembler.h"

namespace orb {

std::string format(const char* pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, pattern, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  // The terminator lands on the string's own.
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, pattern, again);
  va_end(again);
  return text;
}

std::string formatThreeDigits(double value) {
  // The limits are where rounding would give a fourth digit.
  const int decimals = value < 0.9995 ? 3 : value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  return format("%.*f", decimals, value);
}

std::string formatBytes(uint64_t bytes) {
  if (bytes < 1000) return format("%u byte%s", static_cast<unsigned>(bytes), bytes == 1 ? "" : "s");
  constexpr std::array<const char*, 6> kUnits{"kB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1000;
  size_t unit = 0;
  while (value >= 999.5 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  return formatThreeDigits(value) + ' ' + kUnits[unit];
}

std::string formatCount(uint64_t count) {
  const auto value = static_cast<double>(count);
  if (value < 999500) return std::to_string(count);
  if (value < 999.5e6) return formatThreeDigits(value / 1e6) + " million";
  return formatThreeDigits(value / 1e9) + " billion";
}

std::string formatDuration(double seconds) {
  if (!(seconds >= 0)) return "?";
  if (seconds < 0.9995) return format("%.0f ms", seconds * 1000);
  if (seconds < 59.95) return format("%.1f s", seconds);
  if (seconds > 1e9) return "?";
  const uint64_t whole = static_cast<uint64_t>(std::llround(seconds));
  const auto hours = static_cast<unsigned>(whole / 3600);
  const auto minutes = static_cast<unsigned>(whole / 60 % 60);
  if (hours > 0) return format("%u h %02u min", hours, minutes);
  return format("%u min %02u s", minutes, static_cast<unsigned>(whole % 60));
}

std::string printable(std::string_view text, size_t maxBytes) {
  std::string result;
  Utf8Assembler assembler;
  size_t start = 0;  // of the character being put together
  for (size_t i = 0; i < text.size(); ++i) {
    const std::string whole = assembler.push(text.substr(i, 1));
    if (whole.empty() && i + 1 < text.size()) continue;
    const std::string_view bytes = text.substr(start, i + 1 - start);
    start = i + 1;
    if (result.size() + bytes.size() > maxBytes) return result + "...";
    if (whole == bytes && withoutControls(whole) == whole && whole != "\n" && whole != "\t") {
      result += bytes;
      continue;
    }
    for (const char c : bytes) {
      if (c == '\n') {
        result += "\\n";
      } else if (c == '\t') {
        result += "\\t";
      } else if (c >= ' ' && c <= '~') {
        result += c;
      } else {
        result += format("\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
      }
    }
  }
  return result;
}

}  // namespace orb
