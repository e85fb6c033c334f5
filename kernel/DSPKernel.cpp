#include "kernel/DSPKernel.h"

#include <cmath>

#include "util/SafeConvert.h"

void DSPKernel::processSegments(const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                                const AURenderEvent* events) {
    AUEventSampleTime now =
        timestamp ? sr::truncSaturate<AUEventSampleTime>(timestamp->mSampleTime) : 0;
    AUAudioFrameCount remaining = frameCount;
    const AURenderEvent* event = events;

    while (remaining > 0) {
        if (!event) {
            process(remaining, frameCount - remaining);
            return;
        }
        // Clamped to the buffer: nothing outside the host's buffers is ever touched.
        const AUEventSampleTime ahead = event->head.eventSampleTime - now;
        const AUAudioFrameCount segment =
            ahead <= 0
                ? 0
                : (ahead >= AUEventSampleTime(remaining) ? remaining : AUAudioFrameCount(ahead));
        if (segment > 0) {
            process(segment, frameCount - remaining);
            remaining -= segment;
            now += segment;
        }
        performAllSimultaneousEvents(now, event);
    }
    // Whatever is stamped past the end applies now, in list order.
    for (; event; event = event->head.next) handleOneEvent(event);
}

void DSPKernel::performAllSimultaneousEvents(AUEventSampleTime now, const AURenderEvent*& event) {
    do {
        handleOneEvent(event);
        event = event->head.next;
    } while (event && event->head.eventSampleTime <= now);
}

void DSPKernel::handleOneEvent(const AURenderEvent* event) {
    switch (event->head.eventType) {
    case AURenderEventParameter:
    case AURenderEventParameterRamp:
        // A ramp jumps to its target at its start.
        setParameterAutomated(event->parameter.parameterAddress, event->parameter.value,
                              event->head.eventSampleTime);
        break;
    case AURenderEventMIDI:
    case AURenderEventMIDISysEx:
        handleMIDIEvent(event->MIDI);
        break;
    default:
        break;
    }
}
