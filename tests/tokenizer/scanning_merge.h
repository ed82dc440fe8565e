// The definition of the merge loop: scan, merge the leftmost pair of the lowest rank, repeat. Slow.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tokenizer/characters.h"

namespace kiv::testing {

inline std::vector<std::string> characters(std::string_view text) {
  std::vector<std::string> symbols;
  while (!text.empty()) {
    symbols.emplace_back(text.substr(0, characterLength(text, 0)));
    text.remove_prefix(symbols.back().size());
  }
  return symbols;
}

inline std::vector<std::string> mergedByScanning(std::string_view text,
                                                 const std::vector<std::string>& rules) {
  std::map<std::string, size_t> ranks;
  for (size_t rank = 0; rank < rules.size(); ++rank) {
    ranks.emplace(rules[rank], rank);
  }
  std::vector<std::string> symbols = characters(text);
  while (true) {
    size_t best = rules.size();
    size_t place = 0;
    for (size_t i = 0; i + 1 < symbols.size(); ++i) {
      const auto found = ranks.find(symbols[i] + ' ' + symbols[i + 1]);
      if (found != ranks.end() && found->second < best) {
        best = found->second;
        place = i;
      }
    }
    if (best == rules.size()) {
      return symbols;
    }
    symbols[place] += symbols[place + 1];
    symbols.erase(symbols.begin() + static_cast<std::ptrdiff_t>(place) + 1);
  }
}

}  // namespace kiv::testing
