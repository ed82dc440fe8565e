#include "tokenizer/tokenizer.h"

namespace kiv {

Status Tokenizer::encode(std::string_view text, std::vector<int32_t>& ids, bool addBos) const {
  if (tokens_.empty()) {
    return Status::invalidFormat("tokenizer: not loaded");
  }
  ids.clear();
  if (addBos && bosId() >= 0) {
    ids.push_back(bosId());
  }
  std::string marked(text);
  if (!byteLevel_) {
    escapeWhitespace(marked);
  }
  std::string_view rest = marked;
  while (!rest.empty()) {
    // A newline is a segment by itself, so that runs of them give one id each.
    const size_t line = rest.find('\n');
    const std::string_view segment = rest.substr(0, line == 0 ? 1 : line);
    if (Status status = tokenizeSegment(segment, ids); !status.ok()) {
      return status;
    }
    rest.remove_prefix(segment.size());
  }
  return Status::success();
}

Status Tokenizer::tokenizeSegment(std::string_view segment, std::vector<int32_t>& ids) const {
  if (segment.empty()) {
    return Status::success();
  }
  if (segment.find_first_not_of('\n') == std::string_view::npos) {
    if (const int32_t id = tokenIndex_.find(segment); id >= 0) {
      ids.push_back(id);
      return Status::success();
    }
  }
  if (specialMatcher_.empty()) {
    return tokenizePlain(segment, ids);
  }
  size_t pending = 0;
  size_t position = 0;
  while (position < segment.size()) {
    const SpecialMatcher::Match match = specialMatcher_.longest(segment.substr(position));
    if (match.length == 0) {
      ++position;
      continue;
    }
    if (Status status = tokenizePlain(segment.substr(pending, position - pending), ids);
        !status.ok()) {
      return status;
    }
    ids.push_back(match.id);
    position += match.length;
    pending = position;
  }
  return tokenizePlain(segment.substr(pending), ids);
}

}  // namespace kiv
