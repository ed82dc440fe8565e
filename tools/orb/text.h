// Small pieces of text: formatted strings, human-readable sizes and times, and strings from
// untrusted files made fit for a terminal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orb {

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

// "0 bytes", "1 byte", "999 bytes", "1.50 kB", "2.37 GB": three significant digits, powers of 1000.
std::string formatBytes(uint64_t bytes);

// "512", "6.71 million", "4.21 billion".
std::string formatCount(uint64_t count);

// "850 ms", "4.2 s", "3 min 05 s", "2 h 10 min".
std::string formatDuration(double seconds);

// "0.123", "9.87", "12.3", "456": three significant digits of a non-negative number.
std::string formatThreeDigits(double value);

// The text with control characters, quotes' escapes and bytes that are no UTF-8 written as \n, \t
// or \xNN, so that a string from a file can neither forge output nor steer a terminal. Text of
// more than `maxBytes` bytes is cut on a character boundary and ends in "...".
std::string printable(std::string_view text, size_t maxBytes = SIZE_MAX);

}  // namespace orb
