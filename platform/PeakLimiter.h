// Zero-latency peak limiter for the plug-in's output, 0 dBFS ceiling, all channels linked.
//
// Each frame is scaled by the pre-gain, then by one gain shared by every channel. That gain is
// the smaller of
//  - a smoothed gain: a peak-following hold that grabs every peak at once and lets go with the
//    decay time, followed by a one-pole that lowers the gain with the attack time and follows
//    the hold straight back up, so recovery runs at the decay time alone, and
//  - the instantaneous gain this frame needs, so the ceiling holds while the smoothed gain is
//    still coming down (no lookahead, so the first peaks of a loud onset are flattened).
// Output samples are finally clamped to [-1, 1], which only ever removes rounding residue.
// While nothing exceeds the ceiling and no reduction is left over, the output is exactly the
// input times the pre-gain, so limiting cannot colour quiet material at all.
//
// Threads: the setters may be called from any thread; process() picks changes up at its next
// call. process() and reset() belong to the audio thread (or run while it is stopped). Nothing
// here allocates, locks or makes a system call.
#pragma once

#include <atomic>
#include <cstdint>

namespace sr {

class PeakLimiter {
public:
    static constexpr std::uint32_t kMaxChannels = 8;
    static constexpr double kMinSampleRate = 1.0;
    static constexpr double kMaxSampleRate = 10'000'000.0;
    static constexpr double kMinPreGainDb = -40.0;
    static constexpr double kMaxPreGainDb = 40.0;

    PeakLimiter() = default;
    PeakLimiter(const PeakLimiter&) = delete;
    PeakLimiter& operator=(const PeakLimiter&) = delete;

    // Refuses rates outside 1 Hz..10 MHz (and non-finite ones), keeping the previous rate.
    void setSampleRate(double hz);
    double sampleRate() const { return sampleRate_.load(std::memory_order_relaxed); }
    // Time constant of the gain coming down. Refuses non-finite or non-positive values.
    void setAttackTime(double seconds);
    double attackTime() const { return attackTime_.load(std::memory_order_relaxed); }
    // Time constant of the gain recovering to unity. Refuses non-finite or non-positive values.
    void setDecayTime(double seconds);
    double decayTime() const { return decayTime_.load(std::memory_order_relaxed); }
    // Gain applied before limiting, clamped to -40..+40 dB. Refuses non-finite values.
    void setPreGain(double decibels);
    double preGain() const { return preGain_.load(std::memory_order_relaxed); }

    // Forgets any gain reduction in progress.
    void reset();

    // Limits `channelCount` non-interleaved channels of `frames` samples in place. Channels
    // beyond kMaxChannels and null channel pointers are left alone and take no part in the
    // detection. A non-finite sample becomes 0 and counts as silence.
    void process(float* const* channels, std::uint32_t channelCount, std::uint32_t frames);
    // The same for two channels, both non-null (the plug-in's output): no channel list to
    // gather, the stereo group test known at compile time.
    void processStereo(float* left, float* right, std::uint32_t frames);

    // The gain the last processed frame got on top of the pre-gain; 1 when idle. Safe to read
    // from any thread.
    float currentGain() const { return lastGain.load(std::memory_order_relaxed); }

private:
    // Takes the settings in force (their version changed since they were last taken).
    void applySettings();
    bool idle() const { return heldDeficit == 0.0 && smoothDeficit == 0.0; }
    void limitFrame(float* const* channels, std::uint32_t count, std::uint32_t frame);
    // process() once the non-null channels are gathered; Channels is their count when known
    // at compile time, 0 otherwise.
    template <std::uint32_t Channels>
    void processChannels(float* const* used, std::uint32_t count, std::uint32_t frames);

    static_assert(std::atomic<double>::is_always_lock_free);

    // Settings, written by any thread. The version tells process() something changed.
    std::atomic<double> sampleRate_{48000.0};
    std::atomic<double> attackTime_{0.1};
    std::atomic<double> decayTime_{0.1};
    std::atomic<double> preGain_{-0.01};
    std::atomic<std::uint32_t> settingsVersion{1};

    // Audio-thread state. Gains are kept as deficits below unity so that "no reduction" is an
    // exact 0 and decaying values snap to it instead of creeping towards it.
    std::uint32_t appliedVersion = 0;
    float preGainFactor = 1.0f;
    double attackStep = 1.0;  // fraction of the remaining distance covered per frame
    double decayFactor = 0.0; // per-frame multiplier of the held deficit
    double heldDeficit = 0.0;
    double smoothDeficit = 0.0;
    double lastApplied = 1.0;
    std::atomic<float> lastGain{1.0f};
};

} // namespace sr
