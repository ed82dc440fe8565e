// What every fuzz target shares: its two entry points, a check that also holds without assertions,
// and files in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "hostile/memory_file.h"

// Called once, then once for every input. libFuzzer and the replay program bring the main().
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace orbfuzz {

inline void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz: not so: %s\n", what);
  std::abort();
}

using orbtest::MemoryFile;

}  // namespace orbfuzz
