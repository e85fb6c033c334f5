// A one-line progress bar on standard output, for renders long enough to wait for. It draws
// only on a terminal, so redirected output stays clean.
#pragma once

#include <cstdint>

namespace sr::cli {

class ProgressBar {
public:
    static constexpr double kMinimumSeconds = 5.0;

    // Disabled for unknown or short lengths and when standard output is not a terminal.
    ProgressBar(std::int64_t totalFrames, double sampleRate);
    ~ProgressBar() { finish(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(std::int64_t framesDone);
    // Ends the bar's line; further updates are ignored.
    void finish();

private:
    bool enabled;
    bool drawn = false;
    std::int64_t total;
    int lastPercent = -1;
};

} // namespace sr::cli
