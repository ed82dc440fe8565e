#include "orb/utf8_assembler.h"

namespace orb {
namespace {

constexpr std::string_view kReplacement = "\uFFFD";

}  // namespace

std::string Utf8Assembler::push(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) pushByte(static_cast<unsigned char>(c), text);
  return text;
}

std::string Utf8Assembler::finish() {
  std::string text;
  if (missing_ > 0) text = kReplacement;
  pending_.clear();
  missing_ = 0;
  return text;
}

void Utf8Assembler::pushByte(unsigned char byte, std::string& text) {
  if (missing_ > 0) {
    if (byte >= low_ && byte <= high_) {
      pending_ += static_cast<char>(byte);
      low_ = 0x80;
      high_ = 0xBF;
      if (--missing_ == 0) {
        text += pending_;
        pending_.clear();
      }
      return;
    }
    text += finish();  // and look at the byte anew
  }
  if (byte < 0x80) {
    text += static_cast<char>(byte);
    return;
  }
  if (byte < 0xC2 || byte > 0xF4) {  // continuation, overlong lead, or beyond U+10FFFF
    text += kReplacement;
    return;
  }
  pending_.assign(1, static_cast<char>(byte));
  missing_ = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
  // Overlong forms, surrogates and code points past U+10FFFF show in the second byte.
  low_ = byte == 0xE0 ? 0xA0 : byte == 0xF0 ? 0x90 : 0x80;
  high_ = byte == 0xED ? 0x9F : byte == 0xF4 ? 0x8F : 0xBF;
}

std::string withoutControls(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    // U+0080..U+009F are the bytes C2 80..C2 9F.
    const bool c1 =
        byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (c1 || byte == 0x7F || (byte < 0x20 && byte != '\n' && byte != '\t')) {
      result += kReplacement;
      if (c1) ++i;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace orb
