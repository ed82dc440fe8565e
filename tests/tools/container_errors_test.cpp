#include "orb/container_errors.h"

#include <gtest/gtest.h>

#include "format/container_builder.h"
#include "format/loader.h"

namespace orb {
namespace {

TEST(ContainerErrorsTest, SayWhatWasExpectedAndKeepTheMessage) {
  EXPECT_EQ(explainContainerError("ORB2: bad magic"),
            "expected \"ORB2\" at the start, found something else (ORB2: bad magic); this is no "
            ".orb model");
  EXPECT_EQ(explainContainerError("ORB2: CRC mismatch"),
            "expected a header with its checksum, found another checksum (ORB2: CRC mismatch); "
            "the file is damaged or was cut short");
}

TEST(ContainerErrorsTest, AnUnknownMessageIsPassedOn) {
  EXPECT_EQ(explainContainerError("something else"), "something else");
}

TEST(ContainerErrorsTest, EveryMessageOfTheReaderIsKnown) {
  // Spoils one thing after another, in the order of the reader's checks.
  std::vector<std::vector<uint8_t>> files;
  const std::vector<uint8_t> good = orbtest::ContainerBuilder().meta("k", "v").build();
  const auto spoil = [&](uint64_t offset, uint32_t value) {
    files.push_back(good);
    orbtest::poke(files.back(), offset, value);
    orbtest::reseal(files.back());
  };
  files.push_back({});
  files.push_back(std::vector<uint8_t>(63));
  spoil(0, 0);
  spoil(4, 3);
  spoil(8, 1);
  spoil(12, 1000);
  spoil(12, 0);
  spoil(orbtest::tableField(0, 8), 1);
  files.push_back(good);
  orbtest::poke(files.back(), 56, uint64_t{0});
  files.push_back(orbtest::ContainerBuilder().without(kiv::orb2::SectionType::Meta).build());
  files.push_back(orbtest::ContainerBuilder().without(kiv::orb2::SectionType::WeightData).build());
  files.push_back(good);  // no tokenizer
  for (const auto& file : files) {
    const orbtest::TempFile onDisk(file);
    kiv::ORBLoader loader;
    const kiv::Status status = loader.open(onDisk.path());
    ASSERT_FALSE(status.ok());
    EXPECT_NE(explainContainerError(status.message), status.message);
  }
}

}  // namespace
}  // namespace orb
