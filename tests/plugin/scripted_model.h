// Tiny models whose next token is known beforehand, for tests of everything around the forward
// pass.
//
// Every block but the last adds exactly nothing. Tokens have one-hot embeddings, and the last
// block's feed-forward step adds to the hidden vector of a token the embeddings of the tokens that
// shall follow it. A token that nothing was said about is followed by itself.
//
//   ScriptedModel script;
//   const int32_t a = script.token("a"), end = script.special("<|im_end|>");
//   script.follow(a, end);
//   TempFile file(script.build());
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "format/container_builder.h"
#include "format/tokenizer_data.h"

namespace orbtest {

class ScriptedModel {
 public:
  ScriptedModel() { tokenizer.specialIds = {-1, -1, -1, -1}; }

  // Adds a token and returns its id. Text without a token is dropped by encoding, for there is no
  // id for the unknown unless a test sets one.
  int32_t token(const std::string& text) { return add(text, 1); }
  int32_t special(const std::string& text) { return add(text, 3); }

  // Makes `next` the one that follows `token`. It may be a row without a token.
  void follow(int32_t token, int32_t next);
  // Adds `next` to those that may follow `token`: their logits are all but equal, and so far above
  // the others that nothing else is ever sampled.
  void mayFollow(int32_t token, int32_t next);
  // Each follows the one before it.
  void chain(const std::vector<int32_t>& tokens) {
    for (size_t i = 1; i < tokens.size(); ++i) follow(tokens[i - 1], tokens[i]);
  }

  // Replaces one element of the embedding matrix.
  void setEmbedding(int32_t row, size_t column, float value) { spoiled_[{row, column}] = value; }
  // Makes every output of the forward pass that feeds the token NaN. Where it shall follow, its own
  // logit is infinite, elsewhere NaN.
  void spoil(int32_t token) {
    setEmbedding(token, static_cast<size_t>(token), std::numeric_limits<float>::infinity());
  }

  // The container as a builder, for tests that leave something out or add to it, and as a file.
  ContainerBuilder container() const;
  std::vector<uint8_t> build() const;

  kiv::TokenizerData tokenizer;
  std::string architecture = "qwen35";
  // Rows of the embedding; 0 means one for every token. Rows without a token have the logit 0
  // unless follow() or setEmbedding() says otherwise.
  size_t rows = 0;
  // Smallest length of the hidden vector; there is one element for every token and row followed.
  size_t hidden = 8;

 private:
  int32_t add(const std::string& text, int32_t type);
  size_t hiddenSize() const;

  std::map<int32_t, std::vector<int32_t>> next_;
  std::map<std::pair<int32_t, size_t>, float> spoiled_;
};

}  // namespace orbtest
