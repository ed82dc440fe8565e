#include "tokenizer/characters.h"
#include "tokenizer/tokenizer.h"

namespace kiv {

namespace {

void replaceSpaces(std::string& text, std::string_view marker) {
  std::string marked;
  marked.reserve(text.size());
  for (const char c : text) {
    if (c == ' ') {
      marked += marker;
    } else {
      marked += c;
    }
  }
  text.swap(marked);
}

}  // namespace

void escapeWhitespace(std::string& text) { replaceSpaces(text, kEscapedSpace); }

void unescapeWhitespace(std::string& text) {
  const std::string_view marker = kEscapedSpace;
  size_t out = 0;
  for (size_t i = 0; i < text.size(); ++out) {
    const bool isMarker = text.compare(i, marker.size(), marker) == 0;
    text[out] = isMarker ? ' ' : text[i];
    i += isMarker ? marker.size() : 1;
  }
  text.resize(out);
}

void Tokenizer::escapeWhitespace(std::string& text) const {
  replaceSpaces(text, byteLevel_ ? kByteLevelSpace : kEscapedSpace);
}

void Tokenizer::unescapeWhitespace(std::string& text) const { kiv::unescapeWhitespace(text); }

}  // namespace kiv
