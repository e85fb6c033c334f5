// Callbacks the host hands to the audio unit. Owning ones are set and stored off the render
// thread; the render thread only calls them.
#pragma once

#include <functional>

#include "platform/AudioTypes.h"
#include "platform/BlockRef.h"

// Sends MIDI bytes to the plug-in's MIDI output at a sample time.
using AUMIDIOutputEventBlock = std::function<OSStatus(
    AUEventSampleTime eventSampleTime, std::uint8_t cable, NSInteger length, const std::uint8_t*)>;

// Fills the buffer list with the input audio of a render call.
using AURenderPullInputBlock = BlockRef<AUAudioUnitStatus(
    AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
    AUAudioFrameCount frameCount, NSInteger inputBusNumber, AudioBufferList* inputData)>;

// The render entry point a host calls.
using AURenderBlock = std::function<AUAudioUnitStatus(
    AudioUnitRenderActionFlags* actionFlags, const AudioTimeStamp* timestamp,
    AUAudioFrameCount frameCount, NSInteger outputBusNumber, AudioBufferList* outputData,
    const AURenderEvent* realtimeEventListHead, AURenderPullInputBlock pullInputBlock)>;

// Tempo and position of the host's musical timeline; false when unknown.
using AUHostMusicalContextBlock =
    std::function<bool(double* currentTempo, double* timeSignatureNumerator,
                       NSInteger* timeSignatureDenominator, double* currentBeatPosition,
                       NSInteger* sampleOffsetToNextBeat, double* currentMeasureDownbeatPosition)>;

// Transport state of the host; false when unknown.
using AUHostTransportStateBlock =
    std::function<bool(std::uint32_t* transportStateFlags, double* currentSamplePosition,
                       double* cycleStartBeat, double* cycleEndBeat)>;

// Schedules MIDI to the host's MIDI destination.
using AUScheduleMIDIEventBlock = std::function<void(
    AUEventSampleTime eventSampleTime, std::uint8_t cable, NSInteger length, const std::uint8_t*)>;
