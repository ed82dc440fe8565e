// Small vocabularies for the tokenizer's tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tokenizer/tokenizer.h"

namespace kiv::testing {

inline constexpr int32_t kOrdinary = 1;
inline constexpr int32_t kControl = 2;
inline constexpr int32_t kUserDefined = 3;

// A record without beginning-of-sequence, end-of-sequence, unknown and padding id.
inline TokenizerData makeData(std::vector<std::string> tokens,
                              std::vector<std::string> merges = {}) {
  TokenizerData data;
  data.types.assign(tokens.size(), kOrdinary);
  data.tokens = std::move(tokens);
  data.merges = std::move(merges);
  data.specialIds = {-1, -1, -1, -1};
  return data;
}

inline void addToken(TokenizerData& data, std::string token, int32_t type = kOrdinary) {
  data.tokens.push_back(std::move(token));
  data.types.push_back(type);
}

inline std::unique_ptr<Tokenizer> loaded(TokenizerData data) {
  auto tokenizer = std::make_unique<Tokenizer>();
  const Status status = tokenizer->load(std::move(data));
  EXPECT_TRUE(status.ok()) << status.message;
  return tokenizer;
}

// The encoded text as token strings.
inline std::vector<std::string> encodedTokens(const Tokenizer& tokenizer, std::string_view text) {
  std::vector<int32_t> ids;
  const Status status = tokenizer.encode(text, ids, false);
  EXPECT_TRUE(status.ok()) << status.message;
  std::vector<std::string> tokens;
  for (const int32_t id : ids) {
    std::string token;
    EXPECT_TRUE(tokenizer.tokenToString(id, token).ok());
    tokens.push_back(token);
  }
  return tokens;
}

}  // namespace kiv::testing
