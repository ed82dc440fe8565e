// Spreads independent pieces of work over the threads of the OpenMP runtime.
//
// A forward pass is one parallel region: its own thread goes through the layers and publishes a job
// for each matrix product or head loop; the others stand by and take pieces of it. A job is over
// when its pieces are done and counted, not when every thread has come by: others do the pieces
// that a thread which the system holds up has not begun, and wait for it only if it has begun one.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qwen35 {

// Used by one thread at a time; distinct teams are independent.
class Team {
 public:
  static constexpr size_t kMaxThreads = 64;

  Team() = default;
  Team(const Team&) = delete;
  Team& operator=(const Team&) = delete;

  // Calls body() on this thread while workers stand by for the jobs that it publishes. What body
  // throws leaves run(). Inside another run() of this team it just calls body().
  template <typename Body>
  void run(const Body& body) {
    runErased({&body, [](const void* context, size_t, size_t) {
                 (*static_cast<const Body*>(context))();
               }});
  }

  // Calls body(piece), or body(piece, thread) with a thread number below kMaxThreads, once for
  // every piece below `pieces`, then returns. Each thread has a contiguous run of pieces and, when
  // it is done, takes over what others have not begun. Which thread runs a piece must not change
  // what it computes; the body must not throw.
  template <typename Body>
  void forEach(size_t pieces, const Body& body) {
    forEachErased(pieces, {&body, [](const void* context, size_t piece, size_t thread) {
                             const Body& call = *static_cast<const Body*>(context);
                             if constexpr (std::is_invocable_v<const Body&, size_t, size_t>) {
                               call(piece, thread);
                             } else {
                               call(piece);
                             }
                           }});
  }

 private:
  struct Callable {
    const void* context = nullptr;
    void (*call)(const void* context, size_t piece, size_t thread) = nullptr;
  };

  // The pieces of one thread: the end in the high half, the next one in the low half, so that one
  // atomic addition claims a piece of whatever job is current.
  struct alignas(64) Share {
    std::atomic<uint64_t> endAndNext{0};
  };

  void runErased(const Callable& body);
  void forEachErased(size_t pieces, const Callable& body);
  void publish(size_t pieces, const Callable& body);
  void takePieces(size_t self);
  void waitForPieces();
  void serve(size_t self);

  size_t threads_ = 0;  // of the running region; 0 outside of run()
  Callable job_;
  std::array<Share, kMaxThreads> shares_;
  alignas(64) std::atomic<uint32_t> unfinished_{0};  // pieces of the job
  alignas(64) std::atomic<uint32_t> jobNumber_{0};   // changes with every job and at the end
  // With departed_ also the region's fork and join, once more: a race detector does not see those
  // of a runtime that was built without it.
  std::atomic<bool> over_{false};
  std::atomic<uint32_t> departed_{0};
};

}  // namespace qwen35
