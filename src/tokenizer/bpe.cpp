#include "tokenizer/bpe.h"

#include <algorithm>

#include "tokenizer/characters.h"
#include "tokenizer/tokenizer.h"

namespace kiv {

void BpeMerger::split(std::string_view piece) {
  next_.assign(piece.size(), 0);
  previous_.resize(piece.size());
  uint32_t before = 0;
  for (uint32_t at = 0; at < piece.size(); at = next_[at]) {
    next_[at] = at + static_cast<uint32_t>(characterLength(piece, at));
    previous_[at] = before;
    before = at;
  }
}

bool BpeMerger::rankPair(std::string_view piece, uint32_t left, Candidate& candidate) const {
  const uint32_t right = next_[left];
  if (right == piece.size()) {
    return false;
  }
  const uint32_t end = next_[right];
  const int32_t rank =
      ranks_.findPair(piece.substr(left, right - left), piece.substr(right, end - right));
  if (rank < 0) {
    return false;
  }
  candidate = {static_cast<uint64_t>(rank) << 32 | left, right, end};
  return true;
}

void BpeMerger::push(const Candidate& candidate) {
  queue_.push_back(candidate);
  std::push_heap(queue_.begin(), queue_.end(),
                 [](const Candidate& a, const Candidate& b) { return a.order > b.order; });
}

BpeMerger::Candidate BpeMerger::pop() {
  std::pop_heap(queue_.begin(), queue_.end(),
                [](const Candidate& a, const Candidate& b) { return a.order > b.order; });
  const Candidate top = queue_.back();
  queue_.pop_back();
  return top;
}

void BpeMerger::run(std::string_view piece) {
  split(piece);
  queue_.clear();
  Candidate candidate;
  for (uint32_t at = 0; at < piece.size(); at = next_[at]) {
    if (rankPair(piece, at, candidate)) {
      push(candidate);
    }
  }
  while (!queue_.empty()) {
    const Candidate best = pop();
    const auto left = static_cast<uint32_t>(best.order);
    // A symbol that was swallowed has next 0, so it equals neither.
    if (next_[left] != best.right || next_[best.right] != best.end) {
      continue;
    }
    next_[left] = best.end;
    next_[best.right] = 0;
    if (best.end < piece.size()) {
      previous_[best.end] = left;
    }
    if (rankPair(piece, left, candidate)) {
      push(candidate);
    }
    if (left != 0 && rankPair(piece, previous_[left], candidate)) {
      push(candidate);
    }
  }
}

void Tokenizer::mergePiece(std::string_view piece, BpeMerger& merger,
                           std::vector<int32_t>& ids) const {
  merger.merge(piece, [&](std::string_view symbol) {
    const int32_t id = tokenIndex_.find(symbol);
    if (id >= 0) {
      ids.push_back(id);
    } else if (unknownId() >= 0) {
      ids.push_back(unknownId());
    }
  });
}

Status Tokenizer::tokenizeBpe(std::string_view piece, std::vector<int32_t>& ids) const {
  if (piece.size() > BpeMerger::kMaxPiece) {
    return Status::invalidFormat("tokenizer: text too long");
  }
  BpeMerger merger(mergeRank_);
  mergePiece(piece, merger, ids);
  return Status::success();
}

}  // namespace kiv
