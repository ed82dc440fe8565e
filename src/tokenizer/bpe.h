// The byte-pair merge loop over one piece of text.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "tokenizer/string_index.h"

namespace kiv {

// Keeps its buffers from piece to piece. One thread at a time; the index must outlive it.
class BpeMerger {
 public:
  explicit BpeMerger(const StringIndex& ranks) : ranks_(ranks) {}

  // Longest piece in bytes that merge() takes.
  static constexpr size_t kMaxPiece = UINT32_MAX - 1;

  // Splits the piece into characters and merges neighbours until no rule applies: always the pair
  // of the lowest rank, of equal ones the leftmost. Calls emit(symbol) for the symbols that remain.
  // Time is n log n in the length of the piece.
  template <typename Emit>
  void merge(std::string_view piece, const Emit& emit) {
    run(piece);
    for (uint32_t at = 0; at < piece.size(); at = next_[at]) {
      emit(piece.substr(at, next_[at] - at));
    }
  }

 private:
  // A pair that has a rule: the symbols [left, right) and [right, end). It is out of date when one
  // of them no longer ends there.
  struct Candidate {
    uint64_t order;  // rank, then left: the queue hands out what a scan from the left would choose
    uint32_t right;
    uint32_t end;
  };

  void run(std::string_view piece);
  void split(std::string_view piece);
  bool rankPair(std::string_view piece, uint32_t left, Candidate& candidate) const;
  void push(const Candidate& candidate);
  Candidate pop();

  const StringIndex& ranks_;
  // Symbols are known by the position of their first byte, which no merge ever changes.
  std::vector<uint32_t> next_;      // position of the symbol after this one; 0 for no symbol
  std::vector<uint32_t> previous_;  // position of the symbol before this one
  std::vector<Candidate> queue_;    // binary heap, lowest order first
};

}  // namespace kiv
