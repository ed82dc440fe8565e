// The decoded tokenizer section: a plain movable value that owns its contents.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kiv {

struct TokenizerData {
  std::vector<std::string> tokens;      // byte strings; the index is the token id
  std::vector<uint32_t> scores;         // bit patterns as stored; carried, not interpreted
  std::vector<int32_t> types;           // 2 and 3 mark special tokens
  std::vector<std::string> merges;      // "left right", in priority order
  std::array<int32_t, 4> specialIds{};  // begin of sequence, end of sequence, unknown, padding
  bool flag = false;                    // carried, not interpreted
  std::string model;                    // name of the tokenizer model
};

}  // namespace kiv
