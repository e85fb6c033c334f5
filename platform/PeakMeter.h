// Peak metering of rendered buffers: the render thread raises a held peak, a reader takes and
// clears it. Lock-free; safe on the render thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>

#include "platform/AudioTypes.h"

namespace sr {

class PeakMeter {
public:
    // Render thread: raises the held peak to the largest magnitude in the first `frames`
    // samples of every buffer of the list.
    void measure(const AudioBufferList* list, AUAudioFrameCount frames) {
        if (!list) return;
        float peak = 0.0f;
        for (std::uint32_t c = 0; c < list->mNumberBuffers && c < AudioBufferList::kMaxBuffers;
             ++c) {
            const auto* samples = static_cast<const float*>(list->mBuffers[c].mData);
            if (!samples || list->mBuffers[c].mDataByteSize < frames * sizeof(float)) continue;
            for (AUAudioFrameCount i = 0; i < frames; ++i)
                peak = std::max(peak, std::fabs(samples[i]));
        }
        float current = held.load(std::memory_order_relaxed);
        while (peak > current &&
               !held.compare_exchange_weak(current, peak, std::memory_order_relaxed)) {
        }
    }
    // Any thread: the peak since the last take.
    float take() { return held.exchange(0.0f, std::memory_order_relaxed); }

private:
    std::atomic<float> held{0.0f};
};

} // namespace sr
