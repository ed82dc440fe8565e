// Spreads independent pieces of work over the threads of the OpenMP runtime.
#pragma once

#include <omp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>

namespace qwen35 {

inline constexpr size_t kMaxThreads = 64;

// Calls body(piece) once for every piece below `pieces`, from one parallel region. Each thread gets
// a contiguous run of pieces and, when it is done, takes over what others have not begun: a thread
// that the system holds up delays the region by one piece, not by its share. Which thread runs a
// piece must not change what it computes. The body must not throw.
template <typename Body>
void parallelPieces(size_t pieces, const Body& body) {
  const size_t threads =
      std::min({static_cast<size_t>(std::max(omp_get_max_threads(), 1)), kMaxThreads, pieces});
  if (threads <= 1) {
    for (size_t piece = 0; piece < pieces; ++piece) body(piece);
    return;
  }
  struct alignas(64) Share {
    std::atomic<size_t> next;
    size_t end;
  };
  std::array<Share, kMaxThreads> shares;
  for (size_t t = 0; t < threads; ++t) {
    shares[t].next.store(pieces * t / threads, std::memory_order_relaxed);
    shares[t].end = pieces * (t + 1) / threads;
  }
#pragma omp parallel num_threads(static_cast <int>(threads))
  {
    const auto self = static_cast<size_t>(omp_get_thread_num());
    for (size_t t = 0; t < threads; ++t) {
      Share& share = shares[(self + t) % threads];
      for (;;) {
        const size_t piece = share.next.fetch_add(1, std::memory_order_relaxed);
        if (piece >= share.end) break;
        body(piece);
      }
    }
  }
}

}  // namespace qwen35
