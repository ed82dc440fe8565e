// From a byte-level tokenizer to the form that the runtime's encoder and decoder work with.
//
// The runtime merges whole characters and knows spaces as U+2581, so tokens become their raw bytes
// with every space replaced by it, and merge rules are derived again over characters: in rank
// order, the product of a rule is split into characters and merged by the rules kept so far; what
// two symbols are left over is the rule at this rank. Rules through parts of characters drop out,
// and with them characters that were put together from bytes by merges only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "convert/tokenizer_source.h"
#include "format/tokenizer_data.h"

namespace orb {

struct TokenizerReport {
  uint64_t tokens = 0;
  uint64_t special = 0;
  uint64_t unused = 0;           // ids that a placeholder stands for
  uint64_t mergesKept = 0;       // with the same two parts
  uint64_t mergesRederived = 0;  // with other parts
  uint64_t mergesDropped = 0;
  // Characters of the vocabulary's tokens that are no token by themselves: lost outside of longer
  // tokens. All of them, in order.
  std::vector<std::string> lostCharacters;
};

// A token for each of `rows` ids; `rows` is at least the source's count. Special ids: no beginning
// of sequence; end = <|im_end|> or else the source's; unknown = U+FFFD; padding as given.
kiv::TokenizerData convertTokenizer(const TokenizerSource& source, uint64_t rows,
                                    TokenizerReport& report);

// The bytes that a text in the byte alphabet spells; the text itself when it is not in it.
std::string undoByteAlphabet(const std::string& text);

}  // namespace orb
