#include "platform/PeakLimiter.h"

#include <algorithm>
#include <cmath>

#include "util/Simd.h"

namespace sr {

namespace {

// Products up to this value round to at most 1.0f (ties go to the even 1.0f), so this is where
// float output would exceed the ceiling. Detection works in double, where a product of two
// floats is exact, and must agree with the float pass-through path to the last bit.
constexpr double kCeilingInDouble = 1.0 + 0x1p-24;

// A held deficit below this (about -120 dB of gain change) is dropped: the step is inaudible
// and afterwards the exact pass-through path is back.
constexpr double kSnapDeficit = 1e-6;

// Frames checked together before taking the pass-through path.
constexpr std::uint32_t kChunk = 32;

// Whether every sample times the gain stays within the ceiling; NaN compares false.
bool belowCeiling(float* const* channels, std::uint32_t count, std::uint32_t begin,
                  std::uint32_t end, float gain) {
    simd::i32x4 good = simd::splat(-1);
    for (std::uint32_t c = 0; c < count; ++c) {
        const float* x = channels[c];
        std::uint32_t i = begin;
        for (; i + 4 <= end; i += 4) good &= simd::abs(simd::load(x + i) * gain) <= 1.0f;
        for (; i < end; ++i)
            if (!(std::fabs(x[i] * gain) <= 1.0f)) return false;
    }
    return simd::all(good);
}

void scale(float* x, std::uint32_t begin, std::uint32_t end, float gain) {
    std::uint32_t i = begin;
    for (; i + 4 <= end; i += 4) simd::store(x + i, simd::load(x + i) * gain);
    for (; i < end; ++i) x[i] *= gain;
}

} // namespace

void PeakLimiter::setSampleRate(double hz) {
    if (!(hz >= kMinSampleRate && hz <= kMaxSampleRate)) return;
    sampleRate_.store(hz, std::memory_order_relaxed);
    settingsVersion.fetch_add(1, std::memory_order_release);
}

void PeakLimiter::setAttackTime(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0.0) return;
    attackTime_.store(seconds, std::memory_order_relaxed);
    settingsVersion.fetch_add(1, std::memory_order_release);
}

void PeakLimiter::setDecayTime(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0.0) return;
    decayTime_.store(seconds, std::memory_order_relaxed);
    settingsVersion.fetch_add(1, std::memory_order_release);
}

void PeakLimiter::setPreGain(double decibels) {
    if (!std::isfinite(decibels)) return;
    preGain_.store(std::clamp(decibels, kMinPreGainDb, kMaxPreGainDb), std::memory_order_relaxed);
    settingsVersion.fetch_add(1, std::memory_order_release);
}

void PeakLimiter::reset() {
    heldDeficit = 0.0;
    smoothDeficit = 0.0;
    lastApplied = 1.0;
    lastGain.store(1.0f, std::memory_order_relaxed);
}

void PeakLimiter::applySettingsIfChanged() {
    const std::uint32_t version = settingsVersion.load(std::memory_order_acquire);
    if (version == appliedVersion) return;
    appliedVersion = version;
    const double rate = sampleRate();
    preGainFactor = float(std::pow(10.0, preGain() / 20.0));
    // The times are time constants: 1/e of the distance is left after one of them. A time
    // shorter than a sample makes the step 1 (instant), never more. Absurdly long times are
    // capped so that the per-frame products stay far from the subnormal range.
    const double attackFrames = std::min(attackTime() * rate, 1e12);
    const double decayFrames = std::min(decayTime() * rate, 1e12);
    attackStep = -std::expm1(-1.0 / attackFrames);
    decayFactor = std::exp(-1.0 / decayFrames);
}

void PeakLimiter::limitFrame(float* const* channels, std::uint32_t count, std::uint32_t frame) {
    const double g = preGainFactor;
    double y[kMaxChannels];
    double peak = 0.0;
    for (std::uint32_t c = 0; c < count; ++c) {
        const float x = channels[c][frame];
        y[c] = std::isfinite(x) ? double(x) * g : 0.0;
        peak = std::max(peak, std::fabs(y[c]));
    }
    const double needed = peak > kCeilingInDouble ? 1.0 / peak : 1.0;

    heldDeficit *= decayFactor;
    if (heldDeficit < kSnapDeficit) heldDeficit = 0.0;
    heldDeficit = std::max(heldDeficit, 1.0 - needed);
    // Down at the attack rate, up together with the hold. Both are at least 0, and the step
    // never overshoots, so neither goes below 0 nor towards a subnormal.
    if (heldDeficit > smoothDeficit)
        smoothDeficit += (heldDeficit - smoothDeficit) * attackStep;
    else
        smoothDeficit = heldDeficit;

    const double gain = std::min(1.0 - smoothDeficit, needed);
    for (std::uint32_t c = 0; c < count; ++c)
        channels[c][frame] = std::clamp(float(y[c] * gain), -1.0f, 1.0f);
    lastApplied = gain;
}

void PeakLimiter::process(float* const* channels, std::uint32_t channelCount,
                          std::uint32_t frames) {
    applySettingsIfChanged();
    float* used[kMaxChannels];
    std::uint32_t count = 0;
    if (channels != nullptr) {
        for (std::uint32_t c = 0; c < std::min(channelCount, kMaxChannels); ++c)
            if (channels[c] != nullptr) used[count++] = channels[c];
    }
    if (count == 0 || frames == 0) return;

    const float g = preGainFactor;
    for (std::uint32_t begin = 0; begin < frames;) {
        const std::uint32_t end = std::min(frames, begin + kChunk);
        // The per-frame path gives the same bits for such frames; this is only faster.
        if (idle() && belowCeiling(used, count, begin, end, g)) {
            for (std::uint32_t c = 0; c < count; ++c) scale(used[c], begin, end, g);
            lastApplied = 1.0;
        } else {
            for (std::uint32_t i = begin; i < end; ++i) limitFrame(used, count, i);
        }
        begin = end;
    }
    lastGain.store(float(lastApplied), std::memory_order_relaxed);
}

} // namespace sr
