// How fast this machine multiplies: the yardstick of the batched products.
#pragma once

namespace orb {

// Operations per second, two for each multiply-add, of as many threads at a time with the widest
// registers that a kernel tier uses and nothing read from memory. 0 for a tier that it doesn't
// know.
double measureMultiplySpeed(const char* tier, int threads);

}  // namespace orb
