#include "orb/progress_bar.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "orb/platform.h"
#include "orb/text.h"

namespace orb {
namespace {

constexpr std::chrono::milliseconds kInterval(100);
constexpr int kBarWidth = 20;
constexpr const char* kEraseLine = "\r\x1b[K";

}  // namespace

ProgressBar::ProgressBar()
    : enabled_(isTerminal(Stream::Error)), start_(Clock::now()), last_(start_) {}

ProgressBar::~ProgressBar() {
  if (drawn_) std::fputs(kEraseLine, stderr);
}

void ProgressBar::update(uint64_t doneBytes, uint64_t totalBytes) {
  const Clock::time_point now = Clock::now();
  if (!enabled_ || now - last_ < kInterval || totalBytes == 0) return;
  last_ = now;
  drawn_ = true;
  const double part =
      std::min(1.0, static_cast<double>(doneBytes) / static_cast<double>(totalBytes));
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = static_cast<double>(doneBytes) / seconds;  // seconds >= kInterval
  const int filled = static_cast<int>(part * kBarWidth);
  std::string line = kEraseLine;
  line += '[' + std::string(static_cast<size_t>(filled), '#') +
          std::string(static_cast<size_t>(kBarWidth - filled), '.') + ']';
  line += format(" %3.0f %%  %s of %s", part * 100, formatBytes(doneBytes).c_str(),
                 formatBytes(totalBytes).c_str());
  line += format("  %s/s", formatBytes(static_cast<uint64_t>(rate)).c_str());
  if (rate > 0) {
    const double left = static_cast<double>(totalBytes - std::min(doneBytes, totalBytes)) / rate;
    line += "  " + formatDuration(left) + " left";
  }
  std::fputs(line.c_str(), stderr);
}

}  // namespace orb
