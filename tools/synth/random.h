// Pseudo-random numbers that are the same on every platform: xoshiro256++ seeded through
// splitmix64. (The distributions of the standard library differ between its implementations.)
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace orb {

class Random {
 public:
  explicit Random(uint64_t seed) {
    for (uint64_t& word : state_) {
      seed += 0x9E3779B97F4A7C15u;
      uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
      word = z ^ (z >> 31);
    }
  }

  // A stream of its own for every name.
  Random(uint64_t seed, std::string_view name) : Random(seed ^ hash(name)) {}

  uint64_t next() {
    const uint64_t result = rotate(state_[0] + state_[3], 23) + state_[0];
    const uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = rotate(state_[3], 45);
    return result;
  }

  // Nearly normal with mean 0 and deviation 1, never beyond 3.47: the sum of four uniform numbers,
  // in integers, so that no mathematical library has a say in it.
  float normal() {
    const uint64_t bits = next();
    const int32_t sum = static_cast<int32_t>((bits & 0xFFFF) + (bits >> 16 & 0xFFFF) +
                                             (bits >> 32 & 0xFFFF) + (bits >> 48));
    constexpr float kSqrt3 = 1.7320508f;
    return static_cast<float>(sum - 2 * 0xFFFF) * (kSqrt3 / 65536.0f);
  }

 private:
  static uint64_t rotate(uint64_t value, int bits) {
    return (value << bits) | (value >> (64 - bits));
  }

  static uint64_t hash(std::string_view text) {  // FNV-1a
    uint64_t value = 0xCBF29CE484222325u;
    for (const char c : text) {
      value = (value ^ static_cast<uint8_t>(c)) * 0x100000001B3u;
    }
    return value;
  }

  std::array<uint64_t, 4> state_;
};

}  // namespace orb
