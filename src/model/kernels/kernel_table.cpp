#include "model/kernels/kernel_table.h"

#include <cstring>

#include "compat/cpu_features.h"

namespace qwen35 {
namespace {

constexpr const KernelTable* kTiers[] = {&kScalarKernels, &kAvx2Kernels, &kAvx512Kernels};

}  // namespace

std::span<const KernelTable* const> allKernels() { return kTiers; }

bool canRun(const KernelTable& kernels) {
  return (kernels.requiredFeatures & ~compat::cpuFeatures()) == 0;
}

const KernelTable& selectKernels(const char* name) {
  const KernelTable* best = &kScalarKernels;
  for (const KernelTable* tier : kTiers) {
    if (!canRun(*tier)) continue;
    if (name != nullptr && std::strcmp(name, tier->name) == 0) return *tier;
    best = tier;
  }
  return *best;
}

}  // namespace qwen35
