// Cuts text into the pieces that a byte-level vocabulary merges separately.
#pragma once

#include <cstddef>
#include <string_view>

namespace kiv {

// Length of the pre-token at the start of the text, which is not empty. The first rule that applies
// decides: contraction, word, number, punctuation, line break, white space.
size_t preTokenLength(std::string_view text);

}  // namespace kiv
