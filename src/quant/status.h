// Result of every fallible operation of the container reader, the loader and the tokenizer.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "compat/export.h"

namespace kiv {

enum class StatusCode : uint8_t {
  Ok = 0,
  InvalidFormat = 1,  // malformed input or bad argument
  Unsupported = 2,    // well-formed but not supported
  Corrupted = 3,      // checksum or consistency failure
  IOError = 4,        // operating-system I/O failure
};

// A code and a complete, human-readable message; the message is empty on success.
struct [[nodiscard]] ORB_API Status {
  StatusCode code = StatusCode::Ok;
  std::string message;

  bool ok() const { return code == StatusCode::Ok; }

  // Static name of `code`: "OK", "InvalidFormat", ..., "Unknown" for any other value.
  const char* codeName() const;

  static Status success() { return {}; }
  static Status invalidFormat(std::string text) {
    return {StatusCode::InvalidFormat, std::move(text)};
  }
  static Status ioError(std::string text) { return {StatusCode::IOError, std::move(text)}; }
};

}  // namespace kiv
