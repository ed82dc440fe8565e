// A byte-level tokenizer as a checkpoint has it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "convert/gguf_reader.h"
#include "quant/status.h"

namespace orb {

// Ordinary tokens and merges are spelled in the byte alphabet: bytes 33..126, 161..172, 174..255 as
// the code point of the same number, the other 68 in ascending order as U+0100 onward.
struct TokenizerSource {
  std::vector<std::string> tokens;  // the index is the id; empty for an id without a token
  std::vector<bool> added;          // one a token: plain text that is never merged, as <|im_end|>
  std::vector<std::pair<std::string, std::string>> merges;  // in rank order
  int64_t endId = -1;
  int64_t paddingId = -1;
};

// Both refuse, in words, what is no byte-level tokenizer and what does not fit `rows`, the rows of
// the embedding.
kiv::Status readGgufTokenizer(const GgufReader& reader, uint64_t rows, TokenizerSource& out);
// `subject` begins the messages; the document is a tokenizer.json.
kiv::Status readJsonTokenizer(const std::string& subject, const nlohmann::json& document,
                              uint64_t rows, TokenizerSource& out);

}  // namespace orb
