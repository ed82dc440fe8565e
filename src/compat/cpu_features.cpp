#include "compat/cpu_features.h"

#include <cpuid.h>

namespace compat {
namespace {

struct Registers {
  uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
};

Registers cpuid(uint32_t leaf, uint32_t subleaf) {
  Registers r;
  if (!__get_cpuid_count(leaf, subleaf, &r.eax, &r.ebx, &r.ecx, &r.edx)) return {};
  return r;
}

// The register states that the operating system saves and restores.
uint64_t enabledStates() {
  uint32_t low = 0, high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (uint64_t{high} << 32) | low;
}

bool hasAll(uint64_t value, uint64_t bits) { return (value & bits) == bits; }

uint32_t detect() {
  constexpr uint32_t kFma = 1u << 12, kOsxsave = 1u << 27, kF16c = 1u << 29;       // leaf 1, ecx
  constexpr uint32_t kAvx2 = 1u << 5;                                              // leaf 7, ebx
  constexpr uint32_t kAvx512 = (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);  // F DQ BW VL
  constexpr uint64_t kYmmState = 0x6, kZmmState = 0xE6;                            // XCR0

  const Registers one = cpuid(1, 0);
  if (!hasAll(one.ecx, kOsxsave)) return 0;
  const uint64_t states = enabledStates();
  const Registers seven = cpuid(7, 0);

  uint32_t features = 0;
  if (hasAll(one.ecx, kFma | kF16c) && hasAll(seven.ebx, kAvx2) && hasAll(states, kYmmState)) {
    features |= kCpuAvx2;
    if (hasAll(seven.ebx, kAvx512) && hasAll(states, kZmmState)) features |= kCpuAvx512;
  }
  return features;
}

}  // namespace

uint32_t cpuFeatures() {
  static const uint32_t features = detect();
  return features;
}

}  // namespace compat
