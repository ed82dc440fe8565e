// How fast this machine reads memory: the yardstick of the benchmark.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orb {

// Bytes per second of the best of `passes` passes over the memory, each thread summing a contiguous
// part of it. The memory should be much larger than the caches, and its pages resident; the first
// pass makes them so. `size` below 256 bytes gives 0.
double measureReadSpeed(const uint8_t* data, size_t size, int threads, int passes);

}  // namespace orb
