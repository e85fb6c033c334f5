// Plain value types of the host audio API that the render path is written against: buffer
// lists, time stamps, render events and status codes. Header-only, no behaviour, usable from the
// real-time core.
#pragma once

#include <cstddef>
#include <cstdint>

using OSStatus = std::int32_t;
using AUAudioUnitStatus = OSStatus;
using AUAudioFrameCount = std::uint32_t;
using AUEventSampleTime = std::int64_t;
using AUParameterAddress = std::uint64_t;
using AUValue = float;
using NSInteger = std::int64_t;
using AudioUnitRenderActionFlags = std::uint32_t;

// Event times at or after this value mean "as soon as possible, plus (time - this)" frames.
inline constexpr AUEventSampleTime AUEventSampleTimeImmediate = -(AUEventSampleTime(1) << 32);

// Status codes the render path returns.
enum : OSStatus {
    noErr = 0,
    kAudioUnitErr_InvalidProperty = -10879,
    kAudioUnitErr_InvalidParameter = -10878,
    kAudioUnitErr_NoConnection = -10876,
    kAudioUnitErr_FailedInitialization = -10875,
    kAudioUnitErr_TooManyFramesToProcess = -10874,
    kAudioUnitErr_InvalidFile = -10871,
    kAudioUnitErr_FormatNotSupported = -10868,
    kAudioUnitErr_Uninitialized = -10867,
    kAudioUnitErr_InvalidPropertyValue = -10851,
};

struct AudioBuffer {
    std::uint32_t mNumberChannels = 1;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

// Non-interleaved: one buffer per channel. The fixed array bounds the channel count a host
// can hand us; the processing path itself needs exactly two.
struct AudioBufferList {
    static constexpr std::uint32_t kMaxBuffers = 8;
    std::uint32_t mNumberBuffers = 0;
    AudioBuffer mBuffers[kMaxBuffers];
};

enum : std::uint32_t {
    kAudioTimeStampSampleTimeValid = 1u << 0,
    kAudioTimeStampHostTimeValid = 1u << 1,
};

struct AudioTimeStamp {
    double mSampleTime = 0.0;
    std::uint64_t mHostTime = 0;
    double mRateScalar = 1.0;
    std::uint32_t mFlags = kAudioTimeStampSampleTimeValid;
};

enum AURenderEventType : std::uint8_t {
    AURenderEventParameter = 1,
    AURenderEventParameterRamp = 2,
    AURenderEventMIDI = 8,
    AURenderEventMIDISysEx = 9,
};

union AURenderEvent;

// The fields every event starts with.
struct AURenderEventHeader {
    AURenderEvent* next;
    AUEventSampleTime eventSampleTime; // on the timeline of the render call's time stamp
    AURenderEventType eventType;
    std::uint8_t reserved;
};

struct AUParameterEvent {
    AURenderEvent* next;
    AUEventSampleTime eventSampleTime;
    AURenderEventType eventType;
    std::uint8_t reserved[3];
    AUAudioFrameCount rampDurationSampleFrames;
    AUParameterAddress parameterAddress;
    AUValue value;
};

struct AUMIDIEvent {
    AURenderEvent* next;
    AUEventSampleTime eventSampleTime;
    AURenderEventType eventType;
    std::uint8_t reserved;
    std::uint16_t length;
    std::uint8_t cable;
    std::uint8_t data[3];
    // Messages longer than three bytes (system exclusive) live here, owned by the event list.
    const std::uint8_t* longData;

    const std::uint8_t* bytes() const { return length > 3 && longData ? longData : data; }
};

union AURenderEvent {
    AURenderEventHeader head;
    AUParameterEvent parameter;
    AUMIDIEvent MIDI;
};
