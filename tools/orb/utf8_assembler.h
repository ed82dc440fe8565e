// Puts a stream of byte pieces together into whole UTF-8 characters.
#pragma once

#include <string>
#include <string_view>

namespace orb {

// Pieces go in as they come; each call gives back the characters that are complete. The result is
// always valid UTF-8: every maximal ill-formed part becomes one U+FFFD. One thread at a time.
class Utf8Assembler {
 public:
  std::string push(std::string_view bytes);

  // Ends the stream: an unfinished character becomes U+FFFD. Ready for the next stream.
  std::string finish();

 private:
  void pushByte(unsigned char byte, std::string& text);

  std::string pending_;    // bytes of an unfinished character
  int missing_ = 0;        // continuation bytes still to come
  unsigned char low_ = 0;  // range of the next continuation byte
  unsigned char high_ = 0;
};

// The text with every control character but newline and tab replaced by U+FFFD, so that what a
// model says cannot steer the terminal. `text` is valid UTF-8.
std::string withoutControls(std::string_view text);

}  // namespace orb
