// The global operator new of a test program, counted, and made to fail on demand. Memory that comes
// from malloc or calloc itself is not seen.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orbtest {

struct AllocationCounts {
  uint64_t calls = 0;  // of operator new on this thread since reset
  size_t live = 0;     // bytes, all threads
  size_t peak = 0;     // most bytes alive since reset
};

AllocationCounts allocationCounts();

// Starts over with `calls` and `peak`. The allocation number `failAt` of this thread from here on
// (1 is the next one) throws std::bad_alloc, once; 0 fails none.
void resetAllocationCounts(uint64_t failAt = 0);

}  // namespace orbtest
