// What keeps these tests fast. Their models are far too small for more than one thread: the others
// would do nothing but wait, which takes long on a busy machine. And caches of the default context
// are slow to make where a sanitizer keeps account of them.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdlib>

namespace {

class Quick : public testing::Environment {
 public:
  void SetUp() override {
    omp_set_num_threads(1);
    setenv("QWEN35_MAX_CONTEXT", "600", 1);
  }
};

[[maybe_unused]] const testing::Environment* const kQuick =
    testing::AddGlobalTestEnvironment(new Quick);

}  // namespace
