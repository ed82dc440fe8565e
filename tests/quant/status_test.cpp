// Status codes and the table of element types.
#include "quant/status.h"

#include <gtest/gtest.h>

#include "quant/quant_type.h"

namespace kiv {
namespace {

using quant::blockElements;
using quant::quantizedBytes;
using quant::quantizedBytesK;

constexpr auto kUnknownType = static_cast<QuantType>(9);

TEST(StatusTest, NamesEveryCode) {
  const char* const names[] = {"OK", "InvalidFormat", "Unsupported", "Corrupted", "IOError"};
  for (uint8_t code = 0; code < 5; ++code) {
    EXPECT_STREQ((Status{static_cast<StatusCode>(code), ""}.codeName()), names[code]);
  }
}

TEST(StatusTest, NamesCodesBeyondTheTableUnknown) {
  EXPECT_STREQ((Status{static_cast<StatusCode>(5), ""}.codeName()), "Unknown");
  EXPECT_STREQ((Status{static_cast<StatusCode>(255), ""}.codeName()), "Unknown");
}

TEST(StatusTest, SuccessHasNoMessage) {
  EXPECT_TRUE(Status::success().ok());
  EXPECT_EQ(Status::success().message, "");
  EXPECT_FALSE(Status::invalidFormat("x").ok());
  EXPECT_EQ(Status::ioError("x").code, StatusCode::IOError);
  EXPECT_EQ(Status::ioError("x").message, "x");
}

TEST(QuantTypeTest, NamesEveryType) {
  const char* const names[kQuantTypeCount] = {"F32",  "F16",  "BF16", "Q4_0",  "Q8_0",
                                              "Q4_K", "Q5_K", "Q6_K", "IQ4_XS"};
  for (int type = 0; type < kQuantTypeCount; ++type) {
    EXPECT_STREQ(quantTypeName(static_cast<QuantType>(type)), names[type]);
  }
  EXPECT_STREQ(quantTypeName(kUnknownType), "?");
  EXPECT_STREQ(quantTypeName(static_cast<QuantType>(255)), "?");
}

TEST(QuantTypeTest, RowSizesRoundUpToWholeBlocks) {
  EXPECT_EQ(quantizedBytes(QuantType::F32, 7), 28u);
  EXPECT_EQ(quantizedBytes(QuantType::F16, 7), 14u);
  EXPECT_EQ(quantizedBytes(QuantType::BF16, 7), 14u);
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, 1), 18u);
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, 32), 18u);
  EXPECT_EQ(quantizedBytes(QuantType::Q4_0, 33), 36u);
  EXPECT_EQ(quantizedBytes(QuantType::Q8_0, 64), 68u);
  EXPECT_EQ(quantizedBytes(QuantType::Q4_K, 256), 144u);
  EXPECT_EQ(quantizedBytes(QuantType::Q5_K, 255), 176u);
  EXPECT_EQ(quantizedBytes(QuantType::Q6_K, 256), 210u);
  EXPECT_EQ(quantizedBytes(QuantType::Q6_K, 257), 420u);
  EXPECT_EQ(quantizedBytes(QuantType::IQ4_XS, 256), 136u);
}

TEST(QuantTypeTest, AnEmptyRowTakesNoBytes) {
  for (int type = 0; type < kQuantTypeCount; ++type) {
    EXPECT_EQ(quantizedBytes(static_cast<QuantType>(type), 0), 0u);
  }
}

TEST(QuantTypeTest, AnUnknownTypeHasNoSize) {
  EXPECT_EQ(quantizedBytes(kUnknownType, 1024), 0u);
  EXPECT_EQ(quantizedBytesK(kUnknownType, 1024), 0u);
  EXPECT_EQ(blockElements(kUnknownType), 0u);
}

TEST(QuantTypeTest, TheSizeOfSuperBlocksIsForTheirTypesOnly) {
  for (const QuantType type :
       {QuantType::F32, QuantType::F16, QuantType::BF16, QuantType::Q4_0, QuantType::Q8_0}) {
    EXPECT_EQ(quantizedBytesK(type, 512), 0u);
  }
  EXPECT_EQ(quantizedBytesK(QuantType::Q4_K, 512), 288u);
  EXPECT_EQ(quantizedBytesK(QuantType::Q5_K, 512), 352u);
  EXPECT_EQ(quantizedBytesK(QuantType::Q6_K, 512), 420u);
  EXPECT_EQ(quantizedBytesK(QuantType::IQ4_XS, 512), 272u);
}

TEST(QuantTypeTest, BlocksHaveOneOr32Or256Elements) {
  const uint64_t elements[kQuantTypeCount] = {1, 1, 1, 32, 32, 256, 256, 256, 256};
  for (int type = 0; type < kQuantTypeCount; ++type) {
    EXPECT_EQ(blockElements(static_cast<QuantType>(type)), elements[type]);
  }
}

}  // namespace
}  // namespace kiv
