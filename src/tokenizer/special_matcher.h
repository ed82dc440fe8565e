// Finds the longest special token that a text begins with.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace kiv {

// Special tokens come from the file, in any number and length. One lookup costs a table access when
// no token begins with the text's first byte, else a binary search whose comparisons skip what is
// known to be equal, plus a logarithmic walk over the tokens that are prefixes of one another.
class SpecialMatcher {
 public:
  struct Match {
    size_t length = 0;  // 0 when nothing matches
    int32_t id = -1;
  };

  // The views must stay valid as long as the matcher is used. Empty strings are left out; of equal
  // strings the one that comes first stays.
  void build(const std::vector<std::pair<std::string_view, int32_t>>& specials);

  bool empty() const { return nodes_.empty(); }
  Match longest(std::string_view text) const;

 private:
  // A token and, when there are any, the tokens that are prefixes of it. `jump` leads to some
  // prefix further away, chosen so that following jump or parent reaches any of them in a
  // logarithmic number of steps.
  struct Node {
    std::string_view text;
    int32_t id;
    uint32_t depth;   // number of tokens that are proper prefixes
    uint32_t parent;  // longest of them, or the node itself
    uint32_t jump;
  };

  void linkPrefixes(uint32_t index);

  std::vector<Node> nodes_;  // ascending by bytes
  // nodes_[firstNode_[b]] up to firstNode_[b + 1] begin with byte b.
  std::array<uint32_t, 257> firstNode_{};
};

}  // namespace kiv
