// Hash index over a vector of byte strings that it does not own: exact match, lowest position wins.
#pragma once

#include <cstddef>
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
  struct Slot {
    uint32_t entry = 0;  // position + 1, 0 when free
    uint32_t tag = 0;    // hash bits that settle most comparisons without touching the string
  };

  uint64_t extendHash(uint64_t hash, std::string_view text) const;
  size_t firstSlot(uint64_t hash) const;

  const std::vector<std::string>* strings_ = nullptr;
  std::vector<Slot> slots_;  // open addressing with linear probing, a power of two
  uint64_t base_ = 0;
  int shift_ = 0;
  size_t longest_ = 0;
};

}  // namespace kiv
