#include "tokenizer/string_index.h"

#include <algorithm>
#include <bit>
#include <chrono>

namespace kiv {

namespace {

// The hash is a polynomial in a random base over the integers modulo a Mersenne prime. A file's
// author can't know the base, so cannot choose strings that all fall into one slot.
constexpr uint64_t kPrime = (uint64_t{1} << 61) - 1;
constexpr uint64_t kSpread = 0x9E3779B97F4A7C15u;  // 2^64 / golden ratio, odd

uint64_t multiply(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  const uint64_t sum =
      (static_cast<uint64_t>(product) & kPrime) + static_cast<uint64_t>(product >> 61);
  return sum >= kPrime ? sum - kPrime : sum;
}

uint64_t randomBase(const void* place) {
  auto seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  seed ^= static_cast<uint64_t>(reinterpret_cast<uintptr_t>(place)) * kSpread;
  // The finalizer of SplitMix64.
  seed = (seed ^ (seed >> 30)) * 0xBF58476D1CE4E5B9u;
  seed = (seed ^ (seed >> 27)) * 0x94D049BB133111EBu;
  seed ^= seed >> 31;
  return 256 + seed % (kPrime - 256);
}

}  // namespace

uint64_t StringIndex::extendHash(uint64_t hash, std::string_view text) const {
  for (const char c : text) {
    hash = multiply(hash, base_) + static_cast<unsigned char>(c) + 1;
  }
  return hash;
}

size_t StringIndex::firstSlot(uint64_t hash) const {
  return static_cast<size_t>((hash * kSpread) >> shift_);
}

void StringIndex::build(const std::vector<std::string>& strings) {
  strings_ = &strings;
  base_ = randomBase(this);
  const size_t capacity = std::bit_ceil(strings.size() + strings.size() / 2 + 2);
  slots_.assign(capacity, Slot{});
  shift_ = 64 - std::countr_zero(capacity);
  longest_ = 0;
  for (size_t position = 0; position < strings.size(); ++position) {
    const std::string& text = strings[position];
    longest_ = std::max(longest_, text.size());
    const uint64_t hash = extendHash(0, text);
    size_t i = firstSlot(hash);
    while (slots_[i].entry != 0 && !(slots_[i].tag == static_cast<uint32_t>(hash) &&
                                     strings[slots_[i].entry - 1] == text)) {
      i = (i + 1) & (capacity - 1);
    }
    if (slots_[i].entry == 0) {
      slots_[i] = {static_cast<uint32_t>(position + 1), static_cast<uint32_t>(hash)};
    }
  }
}

int32_t StringIndex::find(std::string_view text) const {
  if (slots_.empty() || text.size() > longest_) {
    return -1;
  }
  const uint64_t hash = extendHash(0, text);
  for (size_t i = firstSlot(hash); slots_[i].entry != 0; i = (i + 1) & (slots_.size() - 1)) {
    if (slots_[i].tag == static_cast<uint32_t>(hash) && (*strings_)[slots_[i].entry - 1] == text) {
      return static_cast<int32_t>(slots_[i].entry - 1);
    }
  }
  return -1;
}

int32_t StringIndex::findPair(std::string_view left, std::string_view right) const {
  const size_t size = left.size() + 1 + right.size();
  if (slots_.empty() || size > longest_) {
    return -1;
  }
  const uint64_t hash = extendHash(extendHash(extendHash(0, left), " "), right);
  for (size_t i = firstSlot(hash); slots_[i].entry != 0; i = (i + 1) & (slots_.size() - 1)) {
    if (slots_[i].tag != static_cast<uint32_t>(hash)) {
      continue;
    }
    const std::string_view found = (*strings_)[slots_[i].entry - 1];
    if (found.size() == size && found.substr(0, left.size()) == left && found[left.size()] == ' ' &&
        found.substr(left.size() + 1) == right) {
      return static_cast<int32_t>(slots_[i].entry - 1);
    }
  }
  return -1;
}

}  // namespace kiv
