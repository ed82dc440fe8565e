// Asking for memory ahead of time, in tier sources.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {
namespace {

// Asks for bytes, into the first-level cache (kLevel 3) or the second (2).
template <int kLevel>
inline void prefetch(const uint8_t* at, size_t bytes) {
  for (size_t i = 0; i < bytes; i += 64) __builtin_prefetch(at + i, 0, kLevel);
}

}  // namespace
}  // namespace qwen35
