// Cuts each render call into event-free segments at the sample times of the host's real-time
// events and applies the events between segments, so changes land sample-accurately.
// Threading: processWithEvents and everything it calls run on the render thread.
#pragma once

#include "platform/AudioTypes.h"
#include "platform/HostBlocks.h"

class DSPKernel {
public:
    virtual void process2(AUAudioFrameCount frameCount, AUAudioFrameCount bufferOffset) = 0;
    virtual void process(AUAudioFrameCount frameCount, AUAudioFrameCount bufferOffset) = 0;
    virtual void setParameterAutomated(AUParameterAddress address, AUValue value,
                                       AUEventSampleTime eventSampleTime) = 0;
    virtual void handleMIDIEvent(const AUMIDIEvent& midiEvent) = 0;

    // Renders frameCount frames, applying every event of the list at its frame. Events stamped
    // before the buffer apply at its start, events past its end apply at its end.
    // Inline for the usual call without events: one segment, and the caller, which knows
    // the kernel's type, calls its process() directly.
    void processWithEvents(const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                           const AURenderEvent* events, const AUMIDIOutputEventBlock* midiOut) {
        midiOutputEventBlock = midiOut;
        if (!events) {
            if (frameCount > 0) process(frameCount, 0);
            return;
        }
        processSegments(timestamp, frameCount, events);
    }

protected:
    DSPKernel() = default;
    ~DSPKernel() = default; // never deleted through the base

    // The MIDI output of the render call in progress; null when the host gave none.
    const AUMIDIOutputEventBlock* midiOutputEventBlock = nullptr;

private:
    void processSegments(const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                         const AURenderEvent* events);
    void performAllSimultaneousEvents(AUEventSampleTime now, const AURenderEvent*& event);
    void handleOneEvent(const AURenderEvent* event);
};
