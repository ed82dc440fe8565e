// What the running CPU and operating system can do, for the choice of a kernel tier.
#pragma once

#include <cstdint>

namespace compat {

// Feature bits. A bit is set only when CPUID reports every listed instruction set and XGETBV says
// that the system saves the registers it needs.
enum CpuFeature : uint32_t {
  kCpuAvx2 = 1u << 0,    // AVX2, FMA and F16C
  kCpuAvx512 = 1u << 1,  // AVX-512 F, BW, VL and DQ
};

// Looked up once; safe from any thread.
uint32_t cpuFeatures();

}  // namespace compat
