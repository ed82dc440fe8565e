// JSON from strangers: parsed within bounds of depth and of values, and refused when a key comes
// twice in an object.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "quant/status.h"

namespace orb {

// `subject` begins the messages.
kiv::Status parseGuardedJson(const std::string& subject, std::string_view text,
                             nlohmann::json& out);

// The same for a file of at most `maxBytes`.
kiv::Status readGuardedJson(const std::string& path, uint64_t maxBytes, nlohmann::json& out);

}  // namespace orb
