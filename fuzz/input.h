// Takes values off the front of a fuzzer's input; when it is used up, everything is zero or empty.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace orbfuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  template <typename T>
  T number() {
    T value{};
    const std::string_view bytes = take(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }
  uint8_t byte() { return number<uint8_t>(); }
  // Below `limit`, which is at least 1.
  size_t below(size_t limit) { return number<uint16_t>() % limit; }

  std::string_view take(size_t count) {
    const std::string_view bytes = rest_.substr(0, count);
    rest_.remove_prefix(bytes.size());
    return bytes;
  }
  // Up to a NUL byte, which is swallowed.
  std::string_view line() {
    const size_t length = std::min(rest_.find('\0'), rest_.size());
    const std::string_view bytes = take(length);
    take(1);
    return bytes;
  }
  std::string_view rest() { return take(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace orbfuzz
