#include "tokenizer/pre_tokenizer.h"

#include "tokenizer/bpe.h"
#include "tokenizer/characters.h"
#include "tokenizer/tokenizer.h"

namespace kiv {

namespace {

template <typename Class>
size_t runEnd(std::string_view text, size_t position, Class inClass) {
  while (position < text.size() && inClass(text[position])) {
    ++position;
  }
  return position;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view lower) {
  if (text.size() < lower.size()) {
    return false;
  }
  for (size_t i = 0; i < lower.size(); ++i) {
    const char c = text[i] >= 'A' && text[i] <= 'Z' ? static_cast<char>(text[i] + 32) : text[i];
    if (c != lower[i]) {
      return false;
    }
  }
  return true;
}

// An apostrophe and a suffix, or 0.
size_t contraction(std::string_view text) {
  size_t apostrophe = 0;
  if (text.starts_with('\'')) {
    apostrophe = 1;
  } else if (text.starts_with(kTypographicQuote)) {
    apostrophe = 3;
  } else {
    return 0;
  }
  for (const std::string_view suffix : {"s", "t", "re", "ve", "m", "ll", "d"}) {
    if (startsWithIgnoringCase(text.substr(apostrophe), suffix)) {
      return apostrophe + suffix.size();
    }
  }
  return 0;
}

// A run of letters, with one leading byte of nearly any other kind, or 0.
size_t word(std::string_view text) {
  size_t position = 0;
  if (!isLetter(text[0])) {
    if (isDigit(text[0]) || isNewline(text[0]) || text.size() < 2 || !isLetter(text[1])) {
      return 0;
    }
    position = 1;
  }
  while (position < text.size() && isLetter(text[position])) {
    position += characterLength(text, position);
  }
  return position;
}

size_t number(std::string_view text) { return runEnd(text.substr(0, 3), 0, isDigit); }

// A run of other bytes, with one leading space and trailing line ends, or 0.
size_t punctuation(std::string_view text) {
  const size_t start = text[0] == ' ' ? 1 : 0;
  const size_t end = runEnd(text, start, isOther);
  return end == start ? 0 : runEnd(text, end, isNewline);
}

}  // namespace

size_t preTokenLength(std::string_view text) {
  for (const auto rule : {contraction, word, number, punctuation}) {
    if (const size_t length = rule(text); length != 0) {
      return length;
    }
  }
  // What remains starts with white space, and a line break takes the same run as any other.
  return runEnd(text, 0, isSpace);
}

Status Tokenizer::tokenizePlain(std::string_view piece, std::vector<int32_t>& ids) const {
  if (!byteLevel_) {
    return tokenizeBpe(piece, ids);
  }
  BpeMerger merger(mergeRank_);
  std::string marked;
  while (!piece.empty()) {
    const size_t length = preTokenLength(piece);
    marked.assign(piece.substr(0, length));
    escapeWhitespace(marked);
    if (marked.size() > BpeMerger::kMaxPiece) {
      return Status::invalidFormat("tokenizer: text too long");
    }
    mergePiece(marked, merger, ids);
    piece.remove_prefix(length);
  }
  return Status::success();
}

}  // namespace kiv
