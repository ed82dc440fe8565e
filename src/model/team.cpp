#include "model/team.h"

#include <emmintrin.h>
#include <omp.h>

#include <algorithm>
#include <exception>

#include "compat/address_wait.h"

namespace qwen35 {
namespace {

// Some tens of microseconds: longer than the serial steps between two jobs, far shorter than what
// the system needs to give the processor to somebody else.
constexpr int kSpins = 1000;

// Waits until the value is no longer `old`: first awake, then asleep, so that the processor is free
// for the thread that is waited for.
uint32_t awaitChange(const std::atomic<uint32_t>& value, uint32_t old) {
  for (int i = 0; i < kSpins; ++i) {
    const uint32_t now = value.load(std::memory_order_acquire);
    if (now != old) return now;
    _mm_pause();
  }
  uint32_t now = old;
  while (now == old) {
    compat::waitWhile(value, old);
    now = value.load(std::memory_order_acquire);
  }
  return now;
}

}  // namespace

void Team::runErased(const Callable& body) {
  if (threads_ != 0) {
    body.call(body.context, 0, 0);
    return;
  }
  threads_ = std::min(static_cast<size_t>(std::max(omp_get_max_threads(), 1)), kMaxThreads);
  over_.store(false, std::memory_order_release);
  std::exception_ptr error;
  const int teamSize = static_cast<int>(threads_);
#pragma omp parallel num_threads(teamSize)
  {
    const auto self = static_cast<size_t>(omp_get_thread_num());
    if (self != 0) {
      serve(self);
    } else {
      try {
        body.call(body.context, 0, 0);
      } catch (...) {
        error = std::current_exception();
      }
      over_.store(true, std::memory_order_relaxed);
      jobNumber_.fetch_add(1, std::memory_order_release);
      compat::wakeAll(jobNumber_);
    }
  }
  departed_.load(std::memory_order_acquire);
  threads_ = 0;
  if (error) std::rethrow_exception(error);
}

void Team::forEachErased(size_t pieces, const Callable& body) {
  if (threads_ == 0 && pieces > 1) {
    run([&] { forEachErased(pieces, body); });
    return;
  }
  if (threads_ <= 1 || pieces <= 1) {
    for (size_t piece = 0; piece < pieces; ++piece) body.call(body.context, piece, 0);
    return;
  }
  publish(pieces, body);
  takePieces(0);
  waitForPieces();
}

void Team::publish(size_t pieces, const Callable& body) {
  job_ = body;
  unfinished_.store(static_cast<uint32_t>(pieces), std::memory_order_relaxed);
  for (size_t t = 0; t < threads_; ++t) {
    const uint64_t first = pieces * t / threads_;
    const uint64_t end = pieces * (t + 1) / threads_;
    shares_[t].endAndNext.store(end << 32 | first, std::memory_order_release);
  }
  jobNumber_.fetch_add(1, std::memory_order_release);
  compat::wakeAll(jobNumber_);
}

void Team::takePieces(size_t self) {
  uint32_t done = 0;  // counted once: the threads' count is a cache line that they take in turns
  for (size_t t = 0; t < threads_; ++t) {
    std::atomic<uint64_t>& share = shares_[(self + t) % threads_].endAndNext;
    for (;;) {
      // Looking first keeps idle threads from writing to a share that is used up.
      uint64_t claim = share.load(std::memory_order_relaxed);
      if ((claim & UINT32_MAX) >= claim >> 32) break;
      claim = share.fetch_add(1, std::memory_order_acquire);
      const uint64_t piece = claim & UINT32_MAX;
      if (piece >= claim >> 32) break;
      // The claim holds the job open, so job_ is the one that the piece belongs to even when this
      // thread slept through the end of an earlier one.
      job_.call(job_.context, piece, self);
      done += 1;
    }
  }
  if (done == 0) return;
  if (unfinished_.fetch_sub(done, std::memory_order_acq_rel) == done) {
    compat::wakeOne(unfinished_);
  }
}

void Team::waitForPieces() {
  uint32_t left = unfinished_.load(std::memory_order_acquire);
  while (left != 0) left = awaitChange(unfinished_, left);
}

void Team::serve(size_t self) {
  uint32_t seen = jobNumber_.load(std::memory_order_acquire);
  while (!over_.load(std::memory_order_acquire)) {
    takePieces(self);
    seen = awaitChange(jobNumber_, seen);
  }
  departed_.fetch_add(1, std::memory_order_release);
}

}  // namespace qwen35
