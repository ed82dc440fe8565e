#include "compat/cpu_features.h"

#include <cpuid.h>
#ifdef __linux__
#include <sys/syscall.h>
#include <unistd.h>
#endif

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
  constexpr uint32_t kLimbs = (1u << 1) | (1u << 6) | (1u << 8) | (1u << 11);      // leaf 7, ecx
  constexpr uint32_t kGfni = 1u << 8;                                              // leaf 7, ecx
  constexpr uint32_t kAmx = (1u << 22) | (1u << 24);       // leaf 7, edx: BF16, TILE
  constexpr uint32_t kAvxVnni = 1u << 4, kBf16 = 1u << 5;  // leaf 7.1, eax
  constexpr uint64_t kYmmState = 0x6, kZmmState = 0xE6, kTileState = 0x60000;  // XCR0

  const Registers one = cpuid(1, 0);
  if (!hasAll(one.ecx, kOsxsave)) return 0;
  const uint64_t states = enabledStates();
  const Registers seven = cpuid(7, 0);
  const Registers sevenOne = cpuid(7, 1);

  uint32_t features = 0;
  if (hasAll(one.ecx, kFma | kF16c) && hasAll(seven.ebx, kAvx2) && hasAll(states, kYmmState)) {
    features |= kCpuAvx2;
    if (hasAll(sevenOne.eax, kAvxVnni) && hasAll(seven.ecx, kGfni)) features |= kCpuAvx2Limbs;
    if (hasAll(seven.ebx, kAvx512) && hasAll(states, kZmmState)) {
      features |= kCpuAvx512;
      if (hasAll(seven.ecx, kLimbs)) features |= kCpuAvx512Limbs;
      if (hasAll(seven.edx, kAmx) && hasAll(sevenOne.eax, kBf16) && hasAll(states, kTileState)) {
        features |= kCpuAmx;
      }
    }
  }
  return features;
}

bool askForTiles() {
#ifdef __linux__
  constexpr long kRequestPermission = 0x1023;  // ARCH_REQ_XCOMP_PERM
  constexpr long kTileData = 18;               // the register state's number
  return syscall(SYS_arch_prctl, kRequestPermission, kTileData) == 0;
#else
  return false;
#endif
}

}  // namespace

uint32_t cpuFeatures() {
  static const uint32_t features = detect();
  return features;
}

bool requestTiles() {
  static const bool granted = askForTiles();
  return granted;
}

}  // namespace compat
