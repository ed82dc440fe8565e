#include "tokenizer/tokenizer.h"

#include <algorithm>

#include "tokenizer/characters.h"

namespace kiv {

namespace {

bool isSpecialType(int32_t type) { return type == 2 || type == 3; }

}  // namespace

Status Tokenizer::load(TokenizerData data) {
  if (data.tokens.empty()) {
    return Status::invalidFormat("tokenizer: empty token list");
  }
  if (data.types.size() != data.tokens.size()) {
    data.types.clear();
  }
  tokens_ = std::move(data.tokens);
  scores_ = std::move(data.scores);
  types_ = std::move(data.types);
  merges_ = std::move(data.merges);
  specialIds_ = data.specialIds;
  flag_ = data.flag;
  model_ = std::move(data.model);
  return buildIndexes();
}

Status Tokenizer::buildIndexes() {
  // The first rule shows which marker the vocabulary writes for a space.
  byteLevel_ = !merges_.empty() && merges_[0].find(kByteLevelSpace) != std::string::npos &&
               merges_[0].find(kEscapedSpace) == std::string::npos;
  tokenIndex_.build(tokens_);
  mergeRank_.build(merges_);

  specials_.clear();
  for (size_t id = 0; id < types_.size(); ++id) {
    if (isSpecialType(types_[id])) {
      specials_.emplace_back(tokens_[id], static_cast<int32_t>(id));
    }
  }
  std::sort(specials_.begin(), specials_.end(), [](const auto& a, const auto& b) {
    return a.first.size() != b.first.size() ? a.first.size() > b.first.size() : a < b;
  });
  specialMatcher_.build(specials_);
  return Status::success();
}

bool Tokenizer::isSpecial(int32_t id) const {
  const auto index = static_cast<size_t>(id);
  return index < types_.size() && isSpecialType(types_[index]);
}

int32_t Tokenizer::tokenToId(std::string_view token) const { return tokenIndex_.find(token); }

Status Tokenizer::tokenToString(int32_t id, std::string& out) const {
  if (id < 0 || static_cast<size_t>(id) >= tokens_.size()) {
    return Status::invalidFormat("tokenizer: token id out of range");
  }
  out = tokens_[static_cast<size_t>(id)];
  return Status::success();
}

}  // namespace kiv
