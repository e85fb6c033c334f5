// The system's peak limiter as an audio unit of its own: one input and one output bus of the
// same format, processed in place by a zero-latency brick-wall limiter.
#pragma once

#include "platform/AUAudioUnit.h"
#include "platform/PeakLimiter.h"

class PeakLimiterUnit final : public AUAudioUnit {
public:
    static constexpr AudioComponentDescription kDescription{
        kAudioUnitType_Effect, fourCharCode("lmtr"), fourCharCode("TAVs"), 0, 0};

    PeakLimiterUnit();

    AUAudioUnitBusArray& inputBusses() override { return inputBusses_; }
    AUAudioUnitBusArray& outputBusses() override { return outputBusses_; }

    // Seconds, seconds, decibels. Take effect at the next render call.
    double attackTime() const { return limiter.attackTime(); }
    void setAttackTime(double seconds) { limiter.setAttackTime(seconds); }
    double decayTime() const { return limiter.decayTime(); }
    void setDecayTime(double seconds) { limiter.setDecayTime(seconds); }
    double preGain() const { return limiter.preGain(); }
    void setPreGain(double decibels) { limiter.setPreGain(decibels); }

    // Throws kAudioUnitErr_FormatNotSupported when input and output formats differ.
    void allocateRenderResources() override;
    void reset() override;

    // Pulls the input into the output buffers (in place) and limits them there.
    AURenderBlock internalRenderBlock() override;
    // What that block does once its input is in outputData (an owner that rendered there
    // itself calls this directly): the same checks, the same status codes.
    AUAudioUnitStatus renderInPlace(AUAudioFrameCount frameCount, AudioBufferList* outputData);

    // Gain applied to the last frame rendered, 1.0 when idle.
    float currentGain() const { return limiter.currentGain(); }

private:
    AUAudioUnitBusArray inputBusses_;
    AUAudioUnitBusArray outputBusses_;
    sr::PeakLimiter limiter;
};
