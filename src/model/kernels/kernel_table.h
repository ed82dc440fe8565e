// The choice of a kernel tier for the running machine.
#pragma once

#include <span>

#include "model/kernels/kernels.h"

namespace qwen35 {

// All tiers of this build, best last. A tier may need more than the machine has.
std::span<const KernelTable* const> allKernels();

// Whether the CPU and the operating system provide what the tier needs. Asking for the AMX tier
// asks the system for its registers.
bool canRun(const KernelTable& kernels);

// The tier called `name` when there is one and this machine can run it, else (also for null) the
// best one that it can.
const KernelTable& selectKernels(const char* name);

}  // namespace qwen35
