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

// The same in kSteps steps, a line at a time between other work: a core that is asked for several
// lines at once waits for them. `work` is what the step follows.
template <typename Vector, int kLevel, size_t kBytes, size_t kSteps>
[[gnu::always_inline]] inline void prefetchPart(const uint8_t* at, size_t step,
                                                typename Vector::Float& work) {
  constexpr size_t kLines = (kBytes + 63) / 64;
  for (size_t line = kLines * step / kSteps; line < kLines * (step + 1) / kSteps; ++line) {
    Vector::template prefetchAfter<kLevel>(at + 64 * line, work);
  }
}

}  // namespace
}  // namespace qwen35
