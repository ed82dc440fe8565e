// What the running CPU and operating system can do, for the choice of a kernel tier.
#pragma once

#include <cstdint>

namespace compat {

// Feature bits. A bit is set only when CPUID reports every listed instruction set and XGETBV says
// that the system saves the registers it needs.
enum CpuFeature : uint32_t {
  kCpuAvx2 = 1u << 0,         // AVX2, FMA and F16C
  kCpuAvx512 = 1u << 1,       // AVX-512 F, BW, VL and DQ
  kCpuAvx512Limbs = 1u << 3,  // kCpuAvx512 and AVX-512 VNNI, VBMI, VBMI2 and GFNI
  kCpuAvx2Limbs = 1u << 4,    // kCpuAvx2, AVX-VNNI and GFNI
  kCpuAmx = 1u << 2,          // AMX tiles of BF16, AVX-512 BF16; usable after requestTiles()
};

// Looked up once; safe from any thread.
uint32_t cpuFeatures();

// Asks the system, once, to let this process use the tile registers of a CPU that has kCpuAmx;
// false when it refuses, and on systems that have no such request. From then on the system wants
// larger alternate signal stacks of this process. Safe from any thread.
bool requestTiles();

}  // namespace compat
