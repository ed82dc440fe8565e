// The check of memory safety that a model file passes before its first weight is read: every tensor
// that the forward pass uses lies inside its weight section, has a type usable for its role, a
// shape that fits the fixed work arrays, and rows of whole blocks. A model that passes is never
// looked at again. It is not a matter of taste: a projection may have fewer rows than the fixed
// sizes (the missing heads stay zero) or shorter rows than the array it reads; it may never have
// more.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "format/loader.h"

namespace qwen35 {

// What is wrong with one tensor, in words for `orb info --check`.
struct BindingDefect {
  std::string tensor;    // name in the file
  std::string expected;  // for example "at most 8192 rows"
  std::string found;     // for example "8448 rows"
};

// Defects of block `index` (0..31), missing required tensors included. The hidden size is the
// embedding's row length; without a usable embedding only what does not depend on it is checked.
std::vector<BindingDefect> findBlockDefects(const kiv::ORBLoader& loader, size_t index);

// Defects of the embedding and the output norm.
std::vector<BindingDefect> findGlobalDefects(const kiv::ORBLoader& loader);

}  // namespace qwen35
