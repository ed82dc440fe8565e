// JSON on the standard output stream.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace orb {

using Json = nlohmann::ordered_json;

// Indented, one newline at the end; bytes that are no UTF-8 become U+FFFD.
inline void printJson(const Json& json) {
  const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
}

}  // namespace orb
