// What keeps these tests fast. Scripted models are too small for more than one thread: the others
// would do nothing but wait, which takes long on a busy machine. Their mixers add nothing and take
// most of the time, so they are skipped, but for the tests that set the variable to something else.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdlib>

namespace {

class Quick : public testing::Environment {
 public:
  void SetUp() override {
    omp_set_num_threads(1);
    setenv("QWEN35_ABLATE", "lin", 1);
  }
};

[[maybe_unused]] const testing::Environment* const kQuick =
    testing::AddGlobalTestEnvironment(new Quick);

}  // namespace
