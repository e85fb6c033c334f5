#include "platform/PeakLimiterUnit.h"

#include <cstring>

namespace {

AUAudioUnitBusArray oneBus() {
    std::vector<std::unique_ptr<AUAudioUnitBus>> busses;
    busses.push_back(
        std::make_unique<AUAudioUnitBus>(AVAudioFormat::standardFormatWithSampleRate(48000.0, 2)));
    busses.back()->setMaximumChannelCount(sr::PeakLimiter::kMaxChannels);
    return AUAudioUnitBusArray(std::move(busses));
}

} // namespace

PeakLimiterUnit::PeakLimiterUnit()
    : AUAudioUnit(kDescription), inputBusses_(oneBus()), outputBusses_(oneBus()) {}

void PeakLimiterUnit::allocateRenderResources() {
    const AVAudioFormat& in = inputBusses_[0].format();
    const AVAudioFormat& out = outputBusses_[0].format();
    if (in.channelCount() != out.channelCount() || in.sampleRate() != out.sampleRate())
        throw AUAudioUnitError(kAudioUnitErr_FormatNotSupported,
                               "the limiter's input and output formats differ");
    limiter.setSampleRate(out.sampleRate());
    limiter.reset();
    AUAudioUnit::allocateRenderResources();
}

void PeakLimiterUnit::reset() {
    // Only between renders: the envelope belongs to the render thread.
    if (!renderResourcesAllocated()) limiter.reset();
}

AURenderBlock PeakLimiterUnit::internalRenderBlock() {
    return
        [this](AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
               AUAudioFrameCount frameCount, NSInteger outputBusNumber, AudioBufferList* outputData,
               const AURenderEvent*, AURenderPullInputBlock pullInputBlock) -> AUAudioUnitStatus {
            if (!renderResourcesAllocated()) return kAudioUnitErr_Uninitialized;
            if (frameCount > maximumFramesToRender()) return kAudioUnitErr_TooManyFramesToProcess;
            if (outputBusNumber != 0 || !outputData ||
                outputData->mNumberBuffers > AudioBufferList::kMaxBuffers)
                return kAudioUnitErr_InvalidParameter;
            if (!pullInputBlock) return kAudioUnitErr_NoConnection;
            const AUAudioUnitStatus status =
                pullInputBlock(actionFlags, timestamp, frameCount, 0, outputData);
            if (status != noErr) return status;
            return renderInPlace(frameCount, outputData);
        };
}

AUAudioUnitStatus PeakLimiterUnit::renderInPlace(AUAudioFrameCount frameCount,
                                                 AudioBufferList* outputData) {
    if (!renderResourcesAllocated()) return kAudioUnitErr_Uninitialized;
    if (frameCount > maximumFramesToRender()) return kAudioUnitErr_TooManyFramesToProcess;
    if (!outputData || outputData->mNumberBuffers > AudioBufferList::kMaxBuffers)
        return kAudioUnitErr_InvalidParameter;
    const std::uint32_t count = outputData->mNumberBuffers;
    const std::size_t bytes = frameCount * sizeof(float);
    const auto holds = [bytes](const AudioBuffer& buffer) {
        return buffer.mData && buffer.mDataByteSize >= bytes;
    };
    if (count == 2) {
        // Stereo, the plug-in's own case, without gathering the channels first.
        if (!holds(outputData->mBuffers[0]) || !holds(outputData->mBuffers[1]))
            return kAudioUnitErr_InvalidParameter;
        limiter.processStereo(static_cast<float*>(outputData->mBuffers[0].mData),
                              static_cast<float*>(outputData->mBuffers[1].mData), frameCount);
        return noErr;
    }
    float* channels[AudioBufferList::kMaxBuffers];
    for (std::uint32_t c = 0; c < count; ++c) {
        if (!holds(outputData->mBuffers[c])) return kAudioUnitErr_InvalidParameter;
        channels[c] = static_cast<float*>(outputData->mBuffers[c].mData);
    }
    limiter.process(channels, count, frameCount);
    return noErr;
}
