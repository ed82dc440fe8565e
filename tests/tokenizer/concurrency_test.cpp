#include <thread>

#include "tokenizer/vocabulary.h"

namespace kiv::testing {
namespace {

TEST(Concurrency, TwoThreadsEncodeAndDecodeAtOnce) {
  TokenizerData data = makeData({"a", "b", "ab", "Ġ", "Ġab", "\n", "1"}, {"Ġ a", "a b", "Ġ ab"});
  addToken(data, "<|im_start|>", kControl);
  const auto tokenizer = loaded(std::move(data));
  std::string text;
  for (int i = 0; i < 200; ++i) {
    text += "<|im_start|>ab ab\nba 11";
  }
  std::vector<int32_t> expected;
  ASSERT_TRUE(tokenizer->encode(text, expected, false).ok());
  std::string expectedText;
  ASSERT_TRUE(tokenizer->decode(expected, expectedText).ok());

  const auto work = [&] {
    for (int round = 0; round < 20; ++round) {
      std::vector<int32_t> ids;
      std::string decoded;
      EXPECT_TRUE(tokenizer->encode(text, ids, false).ok());
      EXPECT_TRUE(tokenizer->decode(ids, decoded).ok());
      EXPECT_EQ(ids, expected);
      EXPECT_EQ(decoded, expectedText);
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
}

}  // namespace
}  // namespace kiv::testing
