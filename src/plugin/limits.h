// The limits that a host may lift through the environment.
#pragma once

#include <cstddef>

#include "model/kernels/kernels.h"

namespace qwen35 {

// The defaults are the system's fixed behaviour.
struct Limits {
  size_t maxNewTokens = 96;  // QWEN35_MAX_TOKENS: new tokens per generation call or chat turn
  size_t maxContext = 8192;  // QWEN35_MAX_CONTEXT: positions that the caches hold
  bool largeFiles = false;   // QWEN35_LARGE_FILES=1: take a file's true 64-bit size
  const KernelTable* kernels = nullptr;  // QWEN35_ISA: tier by name, else the best one
};

// Reads the variables; a value that is not a sane number is ignored.
Limits limitsFromEnvironment();

}  // namespace qwen35
