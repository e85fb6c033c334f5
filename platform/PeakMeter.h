// Peak metering of rendered buffers: the render thread raises a held peak, a reader takes and
// clears it. Lock-free; safe on the render thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>

#include "platform/AudioTypes.h"
#include "util/Simd.h"

namespace sr {

class PeakMeter {
public:
    // Render thread: raises the held peak to the largest magnitude in the first `frames`
    // samples of every buffer of the list. Only once the meter has been read: until then
    // rendering does not pay for it.
    void measure(const AudioBufferList* list, AUAudioFrameCount frames) {
        if (!list || !read.load(std::memory_order_relaxed)) return;
        // Two running maxima four lanes wide for all channels, so the comparisons do not wait
        // on each other; one reduction at the end.
        using sr::simd::f32x4;
        f32x4 a{}, b{};
        float peak = 0.0f;
        const std::uint32_t count = std::min(list->mNumberBuffers, AudioBufferList::kMaxBuffers);
        for (std::uint32_t c = 0; c < count; ++c) {
            const auto* samples = static_cast<const float*>(list->mBuffers[c].mData);
            if (!samples || list->mBuffers[c].mDataByteSize < frames * sizeof(float)) continue;
            AUAudioFrameCount i = 0;
            for (; i + 8 <= frames; i += 8) {
                a = simd::maxOf(simd::abs(simd::load(samples + i)), a);
                b = simd::maxOf(simd::abs(simd::load(samples + i + 4)), b);
            }
            for (; i < frames; ++i) peak = std::max(peak, std::fabs(samples[i]));
        }
        peak = std::max(peak, simd::maxLane(simd::maxOf(a, b)));
        float current = held.load(std::memory_order_relaxed);
        while (peak > current &&
               !held.compare_exchange_weak(current, peak, std::memory_order_relaxed)) {
        }
    }
    // Any thread: the peak since the last take (the first take starts the measuring and
    // returns 0).
    float take() {
        read.store(true, std::memory_order_relaxed);
        return held.exchange(0.0f, std::memory_order_relaxed);
    }

private:
    std::atomic<float> held{0.0f};
    std::atomic<bool> read{false};
};

} // namespace sr
