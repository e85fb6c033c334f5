#include "cli/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "platform/PrintQueue.h"

namespace sr::cli {

ProgressBar::ProgressBar(std::int64_t totalFrames, double sampleRate)
    : enabled(totalFrames > 0 && sampleRate > 0.0 &&
              double(totalFrames) / sampleRate > kMinimumSeconds && ::isatty(STDOUT_FILENO)),
      total(totalFrames) {}

void ProgressBar::update(std::int64_t framesDone) {
    if (!enabled) return;
    const int percent = int(std::clamp<std::int64_t>(framesDone * 100 / total, 0, 100));
    if (percent == lastPercent) return;
    if (!drawn) sr::printQueue().flush(); // the kernel's log lines first, not through the bar
    constexpr int kWidth = 40;
    const int filled = percent * kWidth / 100;
    std::printf("\r[%s%s] %3d%%", std::string(std::size_t(filled), '#').c_str(),
                std::string(std::size_t(kWidth - filled), '.').c_str(), percent);
    std::fflush(stdout);
    drawn = true;
    lastPercent = percent;
}

void ProgressBar::finish() {
    if (drawn) std::printf("\n");
    std::fflush(stdout);
    enabled = false;
    drawn = false;
}

} // namespace sr::cli
