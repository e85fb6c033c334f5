#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"

#include <cmath>
#include <memory>

TAV_SR_Chorus_ExtensionDSPKernelAdapter::TAV_SR_Chorus_ExtensionDSPKernelAdapter(
    sr::LogChannel& log)
    : kernel(log) {
    const AVAudioFormat format = AVAudioFormat::standardFormatWithSampleRate(48000.0, 2);
    kernel.init(int(format.channelCount()), format.sampleRate());
    inputBus_.init(format, 2);
    outputBus_ = std::make_unique<AUAudioUnitBus>(format);
    outputBus_->setMaximumChannelCount(2);
    kernel.setMaximumFramesToRender(kDefaultMaximumFramesToRender);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setKernelParameter(AUParameterAddress address,
                                                                 AUValue value) {
    if (renderResourcesAllocated())
        pendingChanges.post(address, value);
    else
        kernel.setParameter(address, value); // no render thread yet: this thread owns the kernel
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setParameter(AUParameter* parameter, AUValue value) {
    if (parameter) setKernelParameter(parameter->address(), value);
}

AUValue TAV_SR_Chorus_ExtensionDSPKernelAdapter::valueForParameter(AUParameter* parameter) const {
    return parameter ? getParameterEx(std::int32_t(parameter->address())) : 0.0f;
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setParameterEx(std::int32_t address, AUValue value) {
    // Sign-extended: a negative address becomes a huge one, which the kernel ignores.
    setKernelParameter(AUParameterAddress(std::int64_t(address)), value);
}

AUValue TAV_SR_Chorus_ExtensionDSPKernelAdapter::getParameterEx(std::int32_t address) const {
    const auto a = AUParameterAddress(std::int64_t(address));
    float pending;
    if (pendingChanges.pendingValue(a, pending)) {
        // Not applied yet: report it as the kernel will store it.
        const sr::ParameterInfo* info = sr::parameterInfo(a);
        return info && std::isfinite(pending) ? sr::clampToRange(*info, pending)
                                              : kernel.getParameter(a);
    }
    return kernel.getParameter(a);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setMaximumFramesToRender(AUAudioFrameCount frames) {
    // Fixed while rendering: the input storage was sized for it.
    if (!renderResourcesAllocated() && frames > 0) kernel.setMaximumFramesToRender(frames);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::allocateRenderResources() {
    inputBus_.allocateRenderResources(kernel.getMaximumFramesToRender());
    kernel.init(int(outputBus_->format().channelCount()), outputBus_->format().sampleRate());
    kernel.reset();
    allocated.store(true, std::memory_order_release);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::deallocateRenderResources() {
    allocated.store(false, std::memory_order_release);
    // Rendering has stopped: what was still queued is applied here.
    applyPendingChanges();
    inputBus_.deallocateRenderResources();
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::reset() {
    if (renderResourcesAllocated())
        resetRequested.store(true, std::memory_order_release);
    else
        kernel.reset();
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setSamplerate(float sampleRate) {
    // Only between renders: the band splitter's state is the render thread's.
    if (!renderResourcesAllocated()) kernel.setSamplerate(sampleRate);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setAUMIDIOutputEventBlock(AUMIDIOutputEventBlock b) {
    midiOutputEventBlock = std::move(b);
}
void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setAUHostMusicalContextBlock(
    AUHostMusicalContextBlock b) {
    musicalContextBlock = std::move(b);
}
void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setAUScheduleMIDIEventBlock(
    AUScheduleMIDIEventBlock b) {
    scheduleMIDIEventBlock = std::move(b);
}
void TAV_SR_Chorus_ExtensionDSPKernelAdapter::setAUHostTransportStateBlock(
    AUHostTransportStateBlock b) {
    transportStateBlock = std::move(b);
}

void TAV_SR_Chorus_ExtensionDSPKernelAdapter::applyQueuedChanges() {
    // A plain load first: the exchange is a locked instruction, and often unneeded here.
    if (resetRequested.load(std::memory_order_relaxed) &&
        resetRequested.exchange(false, std::memory_order_acq_rel))
        kernel.reset();
    pendingChanges.drain(
        [this](std::uint64_t address, float value) { kernel.setParameter(address, value); });
}

AURenderBlock TAV_SR_Chorus_ExtensionDSPKernelAdapter::internalRenderBlock() {
    auto midiOut = std::make_shared<const AUMIDIOutputEventBlock>(midiOutputEventBlock);
    return [this, midiOut](AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
                           AUAudioFrameCount frameCount, NSInteger /*outputBusNumber*/,
                           AudioBufferList* outputData, const AURenderEvent* events,
                           AURenderPullInputBlock pull) {
        return renderPath(actionFlags, timestamp, frameCount, 0, outputData, events, pull, true,
                          midiOut.get());
    };
}

AUAudioUnitStatus TAV_SR_Chorus_ExtensionDSPKernelAdapter::render2(AUAudioFrameCount frameCount,
                                                                   AudioBufferList* outputData) {
    kernel.setBuffers(inputBus_.mutableBufferList, outputData, 0);
    kernel.process2(frameCount, 0);
    return noErr;
}
