// Audio formats, busses and sample buffers of the host API. Only what the audio path needs:
// 32-bit float, non-interleaved, any sample rate and channel count.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/AudioTypes.h"

class AVAudioFormat {
public:
    AVAudioFormat() = default;
    // The standard format: 32-bit float, non-interleaved.
    AVAudioFormat(double sampleRate, std::uint32_t channels)
        : sampleRate_(sampleRate), channelCount_(channels) {}
    static AVAudioFormat standardFormatWithSampleRate(double sampleRate, std::uint32_t channels) {
        return AVAudioFormat(sampleRate, channels);
    }

    double sampleRate() const { return sampleRate_; }
    std::uint32_t channelCount() const { return channelCount_; }
    bool isInterleaved() const { return false; }
    bool operator==(const AVAudioFormat& o) const = default;

private:
    double sampleRate_ = 48000.0;
    std::uint32_t channelCount_ = 2;
};

class AUAudioUnitBus {
public:
    explicit AUAudioUnitBus(const AVAudioFormat& format) : format_(format) {}

    const AVAudioFormat& format() const { return format_; }
    // Refuses (kAudioUnitErr_FormatNotSupported) rates outside 1 Hz..10 MHz, no channels, or
    // more channels than the bus supports.
    OSStatus setFormat(const AVAudioFormat& format);

    std::uint32_t maximumChannelCount() const { return maximumChannelCount_; }
    void setMaximumChannelCount(std::uint32_t count) { maximumChannelCount_ = count; }
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled) { enabled_ = enabled; }
    bool shouldAllocateBuffer() const { return shouldAllocateBuffer_; }
    void setShouldAllocateBuffer(bool value) { shouldAllocateBuffer_ = value; }

private:
    AVAudioFormat format_;
    std::uint32_t maximumChannelCount_ = AudioBufferList::kMaxBuffers;
    bool enabled_ = true;
    bool shouldAllocateBuffer_ = true;
};

// Sample storage of a fixed frame capacity, one buffer per channel.
class AVAudioPCMBuffer {
public:
    AVAudioPCMBuffer(const AVAudioFormat& format, AUAudioFrameCount frameCapacity);

    const AVAudioFormat& format() const { return format_; }
    AUAudioFrameCount frameCapacity() const { return frameCapacity_; }
    const AudioBufferList* audioBufferList() const { return &list; }
    AudioBufferList* mutableAudioBufferList() { return &mutableList; }

private:
    AVAudioFormat format_;
    AUAudioFrameCount frameCapacity_;
    std::vector<float> samples;
    AudioBufferList list;
    AudioBufferList mutableList;
};
