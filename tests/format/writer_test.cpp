// The streaming writer, read back through the loader.
#include <gtest/gtest.h>

#include "format/container_builder.h"
#include "format/loader.h"
#include "format/orb2_writer.h"

namespace kiv {
namespace {

using orbtest::TempFile;

TEST(WriterTest, WhatIsWrittenIsReadBack) {
  const TempFile place({});
  TokenizerData tokenizer;
  tokenizer.tokens = {"x", ""};
  tokenizer.scores = {1, 2};
  tokenizer.types = {1, 3};
  tokenizer.merges = {"x x"};
  tokenizer.specialIds = {0, 1, -1, 5};
  tokenizer.flag = true;
  tokenizer.model = "bpe";
  const float values[4] = {1, 2, 3, 4};

  ORB2Writer writer;
  ASSERT_TRUE(writer.open(place.path(), true).ok());
  ASSERT_TRUE(writer.beginTensor("b", QuantType::F32, {2, 2}).ok());
  ASSERT_TRUE(writer.append(values, 12).ok());
  ASSERT_TRUE(writer.append(values + 3, 4).ok());
  ASSERT_TRUE(writer.endTensor().ok());
  ASSERT_TRUE(writer.addAlias("a", "b").ok());
  writer.setMeta("general.architecture", "qwen35");
  writer.setMeta("n", uint32_t{7});
  writer.setHeaderWords(1, 2, 3);
  writer.setTokenizer(tokenizer);
  writer.setText("free");
  const Status finished = writer.finish();
  ASSERT_TRUE(finished.ok()) << finished.message;

  ORBLoader loader;
  const Status status = loader.open(place.path());
  ASSERT_TRUE(status.ok()) << status.message;
  EXPECT_EQ(loader.headerWordC, 3u);
  EXPECT_EQ(loader.text, "free");
  EXPECT_EQ(loader.tokenizer.tokens, tokenizer.tokens);
  EXPECT_EQ(loader.tokenizer.scores, tokenizer.scores);
  EXPECT_EQ(loader.tokenizer.types, tokenizer.types);
  EXPECT_EQ(loader.tokenizer.merges, tokenizer.merges);
  EXPECT_EQ(loader.tokenizer.specialIds, tokenizer.specialIds);
  EXPECT_TRUE(loader.tokenizer.flag);
  EXPECT_EQ(loader.tokenizerModel, "bpe");
  uint32_t n = 0;
  EXPECT_TRUE(loader.reader.getMetaU32("n", n));
  EXPECT_EQ(n, 7u);

  const TensorView* a = loader.findTensor("a");
  const TensorView* b = loader.findTensor("b");
  ASSERT_TRUE(a != nullptr && b != nullptr);
  EXPECT_EQ(a->data, b->data);
  EXPECT_EQ(a->dims[1], 2u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(b->data) % 64, 0u);
  EXPECT_EQ(std::memcmp(b->data, values, sizeof values), 0);
}

}  // namespace
}  // namespace kiv
