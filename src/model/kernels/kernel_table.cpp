#include "model/kernels/kernel_table.h"

#include <cstring>

#include "compat/cpu_features.h"

namespace qwen35 {
namespace {

const KernelTable& avx2Kernels() {
  static const KernelTable table = [] {
    KernelTable kernels = kAvx2Kernels;
    if ((compat::cpuFeatures() & compat::kCpuAvx2Limbs) != 0) addAvx2LimbKernels(kernels);
    return kernels;
  }();
  return table;
}

const KernelTable& avx512Kernels() {
  static const KernelTable table = [] {
    KernelTable kernels = kAvx512Kernels;
    if ((compat::cpuFeatures() & compat::kCpuAvx512Limbs) != 0) addAvx512LimbKernels(kernels);
    return kernels;
  }();
  return table;
}

#ifdef ORB_TILES
const KernelTable& tileKernels() {
  static const KernelTable table = [] {
    KernelTable tiles = avx512Kernels();
    addTileKernels(tiles);
    return tiles;
  }();
  return table;
}
#endif

}  // namespace

std::span<const KernelTable* const> allKernels() {
  static const KernelTable* const tiers[] = {
      &kScalarKernels,
      &avx2Kernels(),
      &avx512Kernels(),
#ifdef ORB_TILES
      &tileKernels(),
#endif
  };
  return tiers;
}

bool canRun(const KernelTable& kernels) {
  if ((kernels.requiredFeatures & ~compat::cpuFeatures()) != 0) return false;
  return (kernels.requiredFeatures & compat::kCpuAmx) == 0 || compat::requestTiles();
}

const KernelTable& selectKernels(const char* name) {
  const KernelTable* best = &kScalarKernels;
  for (const KernelTable* tier : allKernels()) {
    if (!canRun(*tier)) continue;
    if (name != nullptr && std::strcmp(name, tier->name) == 0) return *tier;
    best = tier;
  }
  return *best;
}

}  // namespace qwen35
