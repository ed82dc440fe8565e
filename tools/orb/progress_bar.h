// A line on the standard error stream that shows how far a long write has come.
#pragma once

#include <chrono>
#include <cstdint>

namespace orb {

// Silent unless the standard error stream is a terminal. One thread at a time.
class ProgressBar {
 public:
  ProgressBar();
  // Removes the line, so that whatever is printed next stands by itself.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Cheap: redraws ten times a second at most.
  void update(uint64_t doneBytes, uint64_t totalBytes);

 private:
  using Clock = std::chrono::steady_clock;

  bool enabled_;
  bool drawn_ = false;
  Clock::time_point start_;
  Clock::time_point last_;
};

}  // namespace orb
