#include "tokenizer/string_index.h"

#include <gtest/gtest.h>

namespace kiv {
namespace {

TEST(StringIndex, BeforeBuildingItFindsNothing) {
  EXPECT_EQ(StringIndex().find(""), -1);
  EXPECT_EQ(StringIndex().findPair("a", "b"), -1);
}

TEST(StringIndex, OverNoStringsItFindsNothing) {
  const std::vector<std::string> strings;
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(index.find(""), -1);
  EXPECT_EQ(index.findPair("", ""), -1);
}

TEST(StringIndex, FindsEachOfManyStrings) {
  std::vector<std::string> strings;
  for (int i = 0; i < 50000; ++i) {
    strings.push_back(std::to_string(i));
  }
  StringIndex index;
  index.build(strings);
  for (int i = 0; i < 50000; ++i) {
    ASSERT_EQ(index.find(strings[static_cast<size_t>(i)]), i);
  }
  for (int i = 50000; i < 100000; ++i) {
    ASSERT_EQ(index.find(std::to_string(i)), -1);
  }
}

TEST(StringIndex, StringsThatDifferInZeroBytesAreDifferent) {
  const std::vector<std::string> strings = {std::string(1, '\0'), "", std::string(2, '\0')};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(index.find(std::string_view("\0", 1)), 0);
  EXPECT_EQ(index.find(""), 1);
  EXPECT_EQ(index.find(std::string_view("\0\0", 2)), 2);
  EXPECT_EQ(index.find(std::string_view("\0\0\0", 3)), -1);
}

TEST(StringIndex, PairIsTheJoinedStringWhereverTheSpaceLies) {
  const std::vector<std::string> strings = {"a b", "a  b", " "};
  StringIndex index;
  index.build(strings);
  EXPECT_EQ(index.findPair("a", "b"), 0);
  EXPECT_EQ(index.findPair("a ", "b"), 1);
  EXPECT_EQ(index.findPair("a", " b"), 1);
  EXPECT_EQ(index.findPair("", ""), 2);
  EXPECT_EQ(index.findPair("ab", ""), -1);
  EXPECT_EQ(index.findPair("a b", ""), -1);
}

}  // namespace
}  // namespace kiv
