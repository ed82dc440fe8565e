// The models of these tests are far too small for more than one thread: the others would do nothing
// but wait, which takes long on a busy machine.
#include <gtest/gtest.h>
#include <omp.h>

namespace {

class OneThread : public testing::Environment {
 public:
  void SetUp() override { omp_set_num_threads(1); }
};

[[maybe_unused]] const testing::Environment* const kOneThread =
    testing::AddGlobalTestEnvironment(new OneThread);

}  // namespace
