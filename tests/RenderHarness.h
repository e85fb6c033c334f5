// A minimal host for tests: an allocated adapter with its parameter tree, rendering planar
// stereo buffers through the render block in calls of a chosen size.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"
#include "platform/RenderEventList.h"
#include "tests/TestSignals.h"

namespace sr::test {

// One out-of-place stereo render call of n frames through a render block, on output bus `bus`,
// with `events` stamped on the call's timeline; the time stamp then advances by n. Counts the
// block's input pulls in `pulls` when given.
inline AUAudioUnitStatus renderStereoCall(const AURenderBlock& block, AudioTimeStamp& time,
                                          const float* inL, const float* inR, float* outL,
                                          float* outR, AUAudioFrameCount n,
                                          const AURenderEvent* events = nullptr, NSInteger bus = 0,
                                          int* pulls = nullptr) {
    auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount f,
                    NSInteger, AudioBufferList* in) -> AUAudioUnitStatus {
        if (pulls) ++*pulls;
        std::copy_n(inL, f, static_cast<float*>(in->mBuffers[0].mData));
        if (in->mNumberBuffers > 1) std::copy_n(inR, f, static_cast<float*>(in->mBuffers[1].mData));
        return noErr;
    };
    AudioBufferList out;
    out.mNumberBuffers = 2;
    out.mBuffers[0] = {1, n * 4, outL};
    out.mBuffers[1] = {1, n * 4, outR};
    AudioUnitRenderActionFlags flags = 0;
    const AUAudioUnitStatus status = block(&flags, &time, n, bus, &out, events, pull);
    time.mSampleTime += n;
    return status;
}

class RenderHarness {
public:
    explicit RenderHarness(double sampleRate = 48000.0, std::uint32_t channels = 2)
        : parameters(adapter) {
        adapter.inputBus().setFormat(AVAudioFormat(sampleRate, channels));
        adapter.outputBus().setFormat(AVAudioFormat(sampleRate, channels));
        adapter.allocateRenderResources();
        for (AUParameter* p : parameters.parameterTree().allParameters())
            adapter.setParameter(p, p->value());
        block = adapter.internalRenderBlock();
    }
    ~RenderHarness() { adapter.deallocateRenderResources(); }

    AUParameterTree& tree() { return parameters.parameterTree(); }
    void set(AUParameterAddress address, AUValue value) {
        tree().parameterWithAddress(address)->setValue(value);
    }

    // One render call of n frames out of place; events (if any) are stamped on the call's
    // timeline. Returns the block's status.
    AUAudioUnitStatus renderCall(const float* inL, const float* inR, float* outL, float* outR,
                                 AUAudioFrameCount n, const AURenderEvent* events = nullptr) {
        return renderStereoCall(block, time, inL, inR, outL, outR, n, events);
    }

    // Renders the whole input in calls of blockSize frames.
    Stereo render(const Stereo& in, std::size_t blockSize) {
        Stereo out(in.size());
        for (std::size_t pos = 0; pos < in.size(); pos += blockSize) {
            const auto n = AUAudioFrameCount(std::min(blockSize, in.size() - pos));
            renderCall(&in.left[pos], &in.right[pos], &out.left[pos], &out.right[pos], n);
        }
        return out;
    }

    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter;
    TAV_SR_Chorus_Extension_Parameters parameters;
    AURenderBlock block;
    AudioTimeStamp time;
};

} // namespace sr::test
