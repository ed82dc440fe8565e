// The last words of the commands that write models, on a file that was written.
#include "orb/conversion_output.h"

#include <gtest/gtest.h>

#include "format/container_builder.h"
#include "orb/exit_codes.h"
#include "synth/synth.h"

namespace orb {
namespace {

class CheckResultTest : public testing::Test {
 protected:
  void SetUp() override {
    SynthOptions options;
    options.hidden = options.ffn = 32;
    options.vocabulary = 160;
    options.queryHeads = options.valueHeads = 1;
    options.overwrite = true;
    const kiv::Status status = writeSynthModel(file_.path(), options);
    ASSERT_TRUE(status.ok()) << status.message;
  }

  // What it prints of the file, made `size` bytes long; the bytes behind the model take no space.
  std::string saysOfSize(uint64_t size) {
    file_.resize(size);
    testing::internal::CaptureStdout();
    EXPECT_EQ(checkResult(file_.path(), 1), kOk);
    return testing::internal::GetCapturedStdout();
  }

  const orbtest::TempFile file_{{}};
};

TEST_F(CheckResultTest, SaysFrom2GibOnThatOtherHostsNeedASetting) {
  constexpr uint64_t kGib = uint64_t{1} << 30;
  EXPECT_EQ(saysOfSize(2 * kGib - 64).find("QWEN35_LARGE_FILES"), std::string::npos);
  EXPECT_NE(saysOfSize(2 * kGib).find("QWEN35_LARGE_FILES=1"), std::string::npos);
}

}  // namespace
}  // namespace orb
