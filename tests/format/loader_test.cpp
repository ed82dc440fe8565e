// The loader facade: an opened file's records.
#include "format/loader.h"

#include <gtest/gtest.h>

#include "format/container_builder.h"

namespace kiv {
namespace {

using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::TempFile;

TEST(LoaderTest, AWellFormedFileOpens) {
  TokenizerData tokenizer;
  tokenizer.model = "bpe";
  tokenizer.tokens = {"a", "b", "ab"};
  tokenizer.merges = {"a b"};
  ContainerBuilder builder;
  builder.header.wordA = 1;
  builder.header.wordB = 2;
  builder.header.wordC = 3;
  builder.meta("general.architecture", "qwen35")
      .tensor("b", QuantType::F32, {2, 1}, Bytes().f32(1).f32(2))
      .tensor("a", QuantType::F32, {1}, Bytes().f32(3))
      .tokenizer(tokenizer)
      .text("free text");
  const TempFile file(builder.build());

  ORBLoader loader;
  const Status status = loader.open(file.path());
  ASSERT_TRUE(status.ok()) << status.message;
  EXPECT_TRUE(loader.opened);
  EXPECT_EQ(loader.headerWordA, 1u);
  EXPECT_EQ(loader.headerWordB, 2u);
  EXPECT_EQ(loader.headerWordC, 3u);
  EXPECT_EQ(loader.tensorCount, 2u);
  EXPECT_EQ(loader.text, "free text");
  EXPECT_EQ(loader.tokenizerModel, "bpe");
  EXPECT_EQ(loader.tokenizer.tokens, tokenizer.tokens);
  EXPECT_EQ(loader.tokenizer.merges, tokenizer.merges);
  std::string architecture;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ(architecture, "qwen35");

  const TensorView* b = loader.findTensor("b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->size, 8u);
  EXPECT_EQ(b->ndims, 2);
  EXPECT_EQ(b->dims[0], 2u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b->data) % 64, 0u);
  float values[2];
  std::memcpy(values, b->data, sizeof values);
  EXPECT_EQ(values[1], 2.0f);
}

}  // namespace
}  // namespace kiv
