#include "plugin/limits.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "model/kernels/kernel_table.h"

namespace qwen35 {
namespace {

constexpr size_t kMostNewTokens = 1000000;
constexpr size_t kMostContext = 1048576;

size_t countFrom(const char* variable, size_t fallback, size_t most) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return fallback;
  const char* end = text + std::strlen(text);
  size_t value = 0;
  const auto [stop, error] = std::from_chars(text, end, value);
  const bool sane = error == std::errc() && stop == end && value >= 1 && value <= most;
  return sane ? value : fallback;
}

}  // namespace

Limits limitsFromEnvironment() {
  const Limits defaults;
  const char* largeFiles = std::getenv("QWEN35_LARGE_FILES");
  return {
      .maxNewTokens = countFrom("QWEN35_MAX_TOKENS", defaults.maxNewTokens, kMostNewTokens),
      .maxContext = countFrom("QWEN35_MAX_CONTEXT", defaults.maxContext, kMostContext),
      .largeFiles = largeFiles != nullptr && std::strcmp(largeFiles, "1") == 0,
      .kernels = &selectKernels(std::getenv("QWEN35_ISA")),
  };
}

}  // namespace qwen35
