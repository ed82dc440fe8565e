// The tokenizer section.
#include <algorithm>
#include <cstring>

#include "format/orb2_reader.h"

namespace kiv {
namespace {

// A walk over the section; every step says whether the section held what was asked for.
class TokenizerCursor {
 public:
  TokenizerCursor(const uint8_t* data, uint64_t size) : data_(data), left_(size) {}

  bool magic() {
    if (left_ < 4 || std::memcmp(data_, "TKNZ", 4) != 0) return false;
    skip(4);
    return true;
  }

  bool string(std::string& out) {
    uint32_t length = 0;
    if (!word(length) || length > left_) return false;
    out.assign(reinterpret_cast<const char*>(data_), length);
    skip(length);
    return true;
  }

  bool strings(std::vector<std::string>& out) {
    uint32_t count = 0;
    if (!listCount(count)) return false;
    out.clear();
    out.reserve(std::min<uint64_t>(count, left_ / 4));  // an empty string takes 4 bytes
    for (uint32_t i = 0; i < count; ++i) {
      if (!string(out.emplace_back())) return false;
    }
    return true;
  }

  template <typename T>
  bool words(std::vector<T>& out) {
    static_assert(sizeof(T) == 4);
    uint32_t count = 0;
    if (!listCount(count) || count > left_ / 4) return false;
    out.resize(count);
    if (count != 0) std::memcpy(out.data(), data_, uint64_t{4} * count);
    skip(uint64_t{4} * count);
    return true;
  }

  template <typename T>
  bool word(T& out) {
    static_assert(sizeof(T) == 4);
    if (left_ < 4) return false;
    std::memcpy(&out, data_, 4);
    skip(4);
    return true;
  }

  bool flag(bool& out) {
    if (left_ == 0) return false;
    out = *data_ != 0;
    return true;
  }

 private:
  bool listCount(uint32_t& out) { return word(out) && out <= orb2::kMaxTokenizerCount; }

  void skip(uint64_t bytes) {
    data_ += bytes;
    left_ -= bytes;
  }

  const uint8_t* data_;
  uint64_t left_;
};

}  // namespace

bool ORB2Reader::readTokenizer(TokenizerData& out) const {
  TokenizerCursor cursor(sectionData(orb2::SectionType::Tokenizer),
                         sectionSize(orb2::SectionType::Tokenizer));
  if (!cursor.magic() || !cursor.string(out.model) || !cursor.strings(out.tokens) ||
      !cursor.words(out.scores) || !cursor.words(out.types) || !cursor.strings(out.merges)) {
    return false;
  }
  for (int32_t& id : out.specialIds) {
    if (!cursor.word(id)) return false;
  }
  return cursor.flag(out.flag);
}

}  // namespace kiv
