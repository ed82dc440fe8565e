// Byte-pair tokenizer of a model file: text to token ids and back.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "compat/export.h"
#include "format/tokenizer_data.h"
#include "quant/status.h"
#include "tokenizer/special_matcher.h"
#include "tokenizer/string_index.h"

namespace kiv {

class BpeMerger;

// Every byte 0x20 becomes U+2581 (E2 96 81); other bytes stay.
ORB_API void escapeWhitespace(std::string& text);
// Every E2 96 81 becomes a space; one pass, left to right.
ORB_API void unescapeWhitespace(std::string& text);

// Immutable after load(); then every const member may be called from several threads at once.
class ORB_API Tokenizer {
 public:
  Tokenizer() = default;
  // The indexes point into the token and merge lists.
  Tokenizer(const Tokenizer&) = delete;
  Tokenizer& operator=(const Tokenizer&) = delete;

  // Takes the record over. "tokenizer: empty token list" leaves the tokenizer as it was; a type
  // list whose length differs from the token count is dropped.
  Status load(TokenizerData data);
  Status buildIndexes();

  // Id of the exact byte string, the lowest among equals, or -1.
  int32_t tokenToId(std::string_view token) const;
  // The stored bytes; "tokenizer: token id out of range" leaves `out` unchanged.
  Status tokenToString(int32_t id, std::string& out) const;

  // As the free function, but with the marker of the loaded vocabulary (U+0120 when byte-level).
  void escapeWhitespace(std::string& text) const;
  void unescapeWhitespace(std::string& text) const;

  // Text to ids; `ids` is cleared first. `addBos` prepends the beginning-of-sequence id when there
  // is one. "tokenizer: not loaded" without tokens. Unknown text becomes the unknown id or is
  // dropped. Time is n log n in the length of the text.
  Status encode(std::string_view text, std::vector<int32_t>& ids, bool addBos) const;

  // The layers of encode; each appends to `ids`.
  Status tokenizeSegment(std::string_view segment, std::vector<int32_t>& ids) const;
  Status tokenizePlain(std::string_view piece, std::vector<int32_t>& ids) const;
  Status tokenizeBpe(std::string_view piece, std::vector<int32_t>& ids) const;

  // Ids to text. Ordinary tokens have their space marker undone, special tokens are copied as they
  // are, then "<0xHH>" anywhere in the joined text becomes that byte. A bad id gives
  // "tokenizer: token id out of range" with the text before it, unconverted.
  Status decode(const std::vector<int32_t>& ids, std::string& text) const;

  bool byteLevel() const { return byteLevel_; }
  size_t tokenCount() const { return tokens_.size(); }
  size_t mergeCount() const { return merges_.size(); }
  size_t specialCount() const { return specials_.size(); }
  const std::string& model() const { return model_; }
  int32_t bosId() const { return specialIds_[0]; }
  int32_t eosId() const { return specialIds_[1]; }
  int32_t unknownId() const { return specialIds_[2]; }
  int32_t paddingId() const { return specialIds_[3]; }
  // The special tokens in matching order: longest first, then bytes, then id. The views live as
  // long as the tokenizer, or until the next load().
  const std::vector<std::pair<std::string_view, int32_t>>& specials() const { return specials_; }

 private:
  bool isSpecial(int32_t id) const;
  void mergePiece(std::string_view piece, BpeMerger& merger, std::vector<int32_t>& ids) const;

  bool byteLevel_ = false;
  std::vector<std::string> tokens_;
  std::vector<uint32_t> scores_;
  std::vector<int32_t> types_;
  std::vector<std::string> merges_;
  std::array<int32_t, 4> specialIds_{-1, -1, -1, -1};
  bool flag_ = false;
  std::string model_;
  StringIndex tokenIndex_;
  StringIndex mergeRank_;
  std::vector<std::pair<std::string_view, int32_t>> specials_;
  SpecialMatcher specialMatcher_;
};

}  // namespace kiv
