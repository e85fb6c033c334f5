// Owns the kernel and its busses and gives the audio unit its render entry points.
// Threading: render(), render2() and the block from internalRenderBlock() run on the render
// thread. Everything else runs on other threads; while render resources are allocated, those
// never touch the kernel directly: parameter changes and resets are queued and applied at the
// start of the next render call.
#pragma once

#include <atomic>

#include "kernel/BufferedAudioBus.h"
#include "kernel/ParameterChangeQueue.h"
#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"
#include "platform/AUParameterTree.h"
#include "platform/PeakMeter.h"

class TAV_SR_Chorus_ExtensionDSPKernelAdapter {
public:
    static constexpr AUAudioFrameCount kDefaultMaximumFramesToRender = 4096;

    // Default format 48 kHz stereo; the kernel is initialised with it. The kernel logs on the
    // channel, which must outlive this object.
    explicit TAV_SR_Chorus_ExtensionDSPKernelAdapter(sr::LogChannel& log = sr::standardLog());

    AUAudioUnitBus& inputBus() { return *inputBus_.bus; }
    AUAudioUnitBus& outputBus() { return *outputBus_; }

    void setParameter(AUParameter* parameter, AUValue value);
    AUValue valueForParameter(AUParameter* parameter) const;
    void setParameterEx(std::int32_t address, AUValue value);
    AUValue getParameterEx(std::int32_t address) const;
    // Render thread: the value the kernel renders with, without looking for one still queued.
    AUValue renderingValue(AUParameterAddress address) const {
        return kernel.getParameter(address);
    }

    AUAudioFrameCount maximumFramesToRender() const { return kernel.getMaximumFramesToRender(); }
    void setMaximumFramesToRender(AUAudioFrameCount frames);
    bool shouldBypassEffect() const { return kernel.getBypassed(); }
    void setShouldBypassEffect(bool bypass) { kernel.setBypassed(bypass); }
    void setBypass(bool bypass) { kernel.setBypassed(bypass); }

    void allocateRenderResources();
    void deallocateRenderResources();
    bool renderResourcesAllocated() const { return allocated.load(std::memory_order_acquire); }
    void reset();
    float getSamplerate() const { return kernel.getSamplerate(); }
    // Highest input magnitude pulled since the last call.
    float getPeakInput() { return inputPeak.take(); }
    void setSamplerate(float sampleRate);

    void setAUMIDIOutputEventBlock(AUMIDIOutputEventBlock block);
    void setAUHostMusicalContextBlock(AUHostMusicalContextBlock block);
    void setAUScheduleMIDIEventBlock(AUScheduleMIDIEventBlock block);
    void setAUHostTransportStateBlock(AUHostTransportStateBlock block);

    // The render block; it holds the MIDI output block in force when it was made.
    AURenderBlock internalRenderBlock();
    // The same path called directly; pulls input only when a pull block is given.
    AUAudioUnitStatus render(AudioUnitRenderActionFlags* actionFlags,
                             const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                             NSInteger outputBusNumber, AudioBufferList* outputData,
                             const AURenderEvent* realtimeEventListHead,
                             AURenderPullInputBlock pullInputBlock);
    AUAudioUnitStatus render2(AUAudioFrameCount frameCount, AudioBufferList* outputData);

    sr::LogChannel& log() const { return kernel.log(); }

    // The kernel, for inspection. Not to be changed from other threads while rendering.
    TAV_SR_Chorus_Extension_DSPKernel& getKernel() { return kernel; }

private:
    AUAudioUnitStatus renderPath(AudioUnitRenderActionFlags* actionFlags,
                                 const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                                 NSInteger outputBusNumber, AudioBufferList* outputData,
                                 const AURenderEvent* events, AURenderPullInputBlock pull,
                                 bool alwaysPull, const AUMIDIOutputEventBlock* midiOut);
    // Queued resets and parameter changes, looked for inline: nearly every call has none.
    void applyPendingChanges() {
        if (resetRequested.load(std::memory_order_relaxed) || pendingChanges.pending())
            applyQueuedChanges();
    }
    void applyQueuedChanges();
    void setKernelParameter(AUParameterAddress address, AUValue value);

    TAV_SR_Chorus_Extension_DSPKernel kernel;
    BufferedInputBus inputBus_;
    std::unique_ptr<AUAudioUnitBus> outputBus_;
    AUMIDIOutputEventBlock midiOutputEventBlock;
    AUHostMusicalContextBlock musicalContextBlock;
    AUScheduleMIDIEventBlock scheduleMIDIEventBlock;
    AUHostTransportStateBlock transportStateBlock;

    std::atomic<bool> allocated{false};
    std::atomic<bool> resetRequested{false};
    sr::PeakMeter inputPeak;
    sr::ParameterChangeQueue pendingChanges;
};

// Defined here, so that the audio unit's render block and this object's own compile the
// per-call checks into their own code, without a call in between.
inline AUAudioUnitStatus TAV_SR_Chorus_ExtensionDSPKernelAdapter::renderPath(
    AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
    AUAudioFrameCount frameCount, NSInteger outputBusNumber, AudioBufferList* outputData,
    const AURenderEvent* events, AURenderPullInputBlock pull, bool alwaysPull,
    const AUMIDIOutputEventBlock* midiOut) {
    if (frameCount > kernel.getMaximumFramesToRender() || frameCount > inputBus_.maxFrames)
        return inputBus_.storage ? kAudioUnitErr_TooManyFramesToProcess
                                 : kAudioUnitErr_Uninitialized;
    if (!outputData || outputData->mNumberBuffers > AudioBufferList::kMaxBuffers)
        return kAudioUnitErr_InvalidParameter;
    applyPendingChanges();

    if (alwaysPull || pull) {
        const AUAudioUnitStatus status =
            inputBus_.pullInput(actionFlags, timestamp, frameCount, 0, pull);
        if (status != noErr) return status;
    }
    AudioBufferList* input = inputBus_.mutableBufferList;
    inputPeak.measure(input, frameCount);
    if (outputData->mNumberBuffers > 0 && outputData->mBuffers[0].mData == nullptr) {
        // In place: the output is rendered into the input storage.
        for (std::uint32_t i = 0; i < outputData->mNumberBuffers; ++i) {
            const bool has = i < input->mNumberBuffers;
            outputData->mBuffers[i].mData = has ? input->mBuffers[i].mData : nullptr;
            outputData->mBuffers[i].mDataByteSize =
                has ? frameCount * std::uint32_t(sizeof(float)) : 0;
        }
    }
    // Never write past what the host handed us.
    for (std::uint32_t i = 0; i < outputData->mNumberBuffers; ++i)
        if (outputData->mBuffers[i].mData &&
            outputData->mBuffers[i].mDataByteSize < frameCount * sizeof(float))
            return kAudioUnitErr_InvalidParameter;

    kernel.setBuffers(input, outputData, int(outputBusNumber));
    kernel.processWithEvents(timestamp, frameCount, events, midiOut);
    return noErr;
}

inline AUAudioUnitStatus TAV_SR_Chorus_ExtensionDSPKernelAdapter::render(
    AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
    AUAudioFrameCount frameCount, NSInteger outputBusNumber, AudioBufferList* outputData,
    const AURenderEvent* realtimeEventListHead, AURenderPullInputBlock pullInputBlock) {
    return renderPath(actionFlags, timestamp, frameCount, outputBusNumber, outputData,
                      realtimeEventListHead, pullInputBlock, false, &midiOutputEventBlock);
}
