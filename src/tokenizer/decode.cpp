#include "tokenizer/tokenizer.h"

namespace kiv {

namespace {

// Value of a hexadecimal digit, or -1.
int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// Value of the byte token "<0xHH>" that the text begins with, or -1.
int byteTokenValue(std::string_view text) {
  if (text.size() < 6 || !text.starts_with("<0x") || text[5] != '>') {
    return -1;
  }
  const int high = hexValue(text[3]);
  const int low = hexValue(text[4]);
  return high < 0 || low < 0 ? -1 : 16 * high + low;
}

void replaceByteTokens(std::string& text) {
  size_t out = 0;
  for (size_t i = 0; i < text.size(); ++out) {
    const int value = byteTokenValue(std::string_view(text).substr(i));
    text[out] = value < 0 ? text[i] : static_cast<char>(value);
    i += value < 0 ? 1 : 6;
  }
  text.resize(out);
}

}  // namespace

Status Tokenizer::decode(const std::vector<int32_t>& ids, std::string& text) const {
  if (tokens_.empty()) {
    return Status::invalidFormat("tokenizer: not loaded");
  }
  text.clear();
  std::string piece;
  for (const int32_t id : ids) {
    if (Status status = tokenToString(id, piece); !status.ok()) {
      return status;
    }
    if (!isSpecial(id)) {
      kiv::unescapeWhitespace(piece);
    }
    text += piece;
  }
  replaceByteTokens(text);
  return Status::success();
}

}  // namespace kiv
