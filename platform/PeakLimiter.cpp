#include "platform/PeakLimiter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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
constexpr std::uint32_t kGroup = 8;

// The pass-through path for frames [begin, begin + kGroup) of every channel: each sample times
// the gain, when every product stays within the ceiling (NaN compares false); otherwise nothing
// is written and false is returned. Channels is the count when known at compile time (stereo,
// the usual case, then keeps everything in registers), 0 otherwise.
template <std::uint32_t Channels>
bool scaleBelowCeiling(float* const* channels, std::uint32_t count, std::uint32_t begin,
                       simd::f32x4 gain) {
    if constexpr (Channels != 0) count = Channels;
    simd::f32x4 scaled[Channels != 0 ? Channels : PeakLimiter::kMaxChannels][2];
    simd::i32x4 good = simd::splat(-1);
    for (std::uint32_t c = 0; c < count; ++c)
        for (std::uint32_t h = 0; h < 2; ++h) {
            scaled[c][h] = simd::load(channels[c] + begin + 4 * h) * gain;
            good &= simd::abs(scaled[c][h]) <= 1.0f;
        }
    if (!simd::all(good)) return false;
    for (std::uint32_t c = 0; c < count; ++c)
        for (std::uint32_t h = 0; h < 2; ++h)
            simd::store(channels[c] + begin + 4 * h, scaled[c][h]);
    return true;
}

// The pass-through path of processStereo where the processor has AVX2: whole groups from the
// start of the call, a group of a channel in one eight-lane vector, for as long as every product
// stays within the ceiling (NaN compares false); the same products and comparisons as
// scaleBelowCeiling, so the same bits. Returns the first frame not done (a multiple of kGroup).
[[gnu::target("avx2")]] std::uint32_t scaleIdleGroupsWide(float* left, float* right,
                                                          std::uint32_t frames, float gain) {
    using f32x8 = simd::Vec<8>::f32;
    using i32x8 = simd::Vec<8>::i32;
    static_assert(kGroup == 8);
    const f32x8 g = {gain, gain, gain, gain, gain, gain, gain, gain};
    const i32x8 magnitude = {0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF,
                             0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF};
    const f32x8 ceiling = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
    std::uint32_t begin = 0;
    for (; begin + kGroup <= frames; begin += kGroup) {
        f32x8 l, r;
        std::memcpy(&l, left + begin, sizeof l);
        std::memcpy(&r, right + begin, sizeof r);
        l *= g;
        r *= g;
        // |l| and |r|: the sign bits cleared, as fabs does.
        i32x8 lBits, rBits;
        std::memcpy(&lBits, &l, sizeof l);
        std::memcpy(&rBits, &r, sizeof r);
        lBits &= magnitude;
        rBits &= magnitude;
        f32x8 lAbs, rAbs;
        std::memcpy(&lAbs, &lBits, sizeof lAbs);
        std::memcpy(&rAbs, &rBits, sizeof rAbs);
        const i32x8 good = (lAbs <= ceiling) & (rAbs <= ceiling);
        f32x8 goodBits;
        std::memcpy(&goodBits, &good, sizeof good);
        if (__builtin_ia32_movmskps256(goodBits) != 0xFF) break;
        std::memcpy(left + begin, &l, sizeof l);
        std::memcpy(right + begin, &r, sizeof r);
    }
    return begin;
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

void PeakLimiter::applySettings() {
    appliedVersion = settingsVersion.load(std::memory_order_acquire);
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
    float* used[kMaxChannels];
    std::uint32_t count = 0;
    if (channels != nullptr) {
        for (std::uint32_t c = 0; c < std::min(channelCount, kMaxChannels); ++c)
            if (channels[c] != nullptr) used[count++] = channels[c];
    }
    if (count == 2)
        processChannels<2>(used, count, frames);
    else
        processChannels<0>(used, count, frames);
}

void PeakLimiter::processStereo(float* left, float* right, std::uint32_t frames) {
    if (settingsVersion.load(std::memory_order_acquire) != appliedVersion) applySettings();
    // With AVX2 the idle groups eight lanes wide (the usual call ends with them); the rest, and
    // everything without AVX2, as processChannels does it.
    std::uint32_t begin = 0;
    if (idle() && frames >= kGroup && simd::wideVectors()) {
        begin = scaleIdleGroupsWide(left, right, frames, preGainFactor);
        if (begin > 0) lastApplied = 1.0;
    }
    if (begin == frames) {
        lastGain.store(float(lastApplied), std::memory_order_relaxed);
        return;
    }
    float* const rest[2] = {left + begin, right + begin};
    processChannels<2>(rest, 2, frames - begin);
}

template <std::uint32_t Channels>
void PeakLimiter::processChannels(float* const* used, std::uint32_t count, std::uint32_t frames) {
    if (settingsVersion.load(std::memory_order_acquire) != appliedVersion) applySettings();
    if (count == 0 || frames == 0) return;

    const simd::f32x4 g = simd::splat(preGainFactor);
    for (std::uint32_t begin = 0; begin < frames;) {
        if (idle()) {
            // Whole groups while nothing reaches the ceiling; the per-frame path gives the same
            // bits for such frames, this is only faster.
            const std::uint32_t from = begin;
            while (begin + kGroup <= frames && scaleBelowCeiling<Channels>(used, count, begin, g))
                begin += kGroup;
            if (begin > from) lastApplied = 1.0;
            if (begin == frames) break;
        }
        // A group with a peak, a reduction under way, or the last few frames.
        const std::uint32_t end = std::min(frames, begin + kGroup);
        for (; begin < end; ++begin) limitFrame(used, count, begin);
    }
    lastGain.store(float(lastApplied), std::memory_order_relaxed);
}

} // namespace sr
