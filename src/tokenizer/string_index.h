// Hash index over a vector of byte strings that it does not own: exact match, lowest position wins.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kiv {

// The vector must outlive the index and stay unchanged after build(). Const members are safe from
// any thread.
class StringIndex {
 public:
  void build(const std::vector<std::string>& strings);

  // Position of the string, or -1.
  int32_t find(std::string_view text) const;

  // Position of the string left + ' ' + right, without forming it, or -1.
  int32_t findPair(std::string_view left, std::string_view right) const;

 private:
  const std::vector<std::string>* strings_ = nullptr;
  std::vector<uint32_t> slots_;  // position + 1, 0 when free; open addressing, power of two
};

}  // namespace kiv
