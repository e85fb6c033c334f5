#include "platform/AUAudioUnitBus.h"

#include <algorithm>

OSStatus AUAudioUnitBus::setFormat(const AVAudioFormat& format) {
    if (!(format.sampleRate() >= 1.0 && format.sampleRate() <= 10'000'000.0) ||
        format.channelCount() == 0 || format.channelCount() > maximumChannelCount_)
        return kAudioUnitErr_FormatNotSupported;
    format_ = format;
    return noErr;
}

AVAudioPCMBuffer::AVAudioPCMBuffer(const AVAudioFormat& format, AUAudioFrameCount frameCapacity)
    : format_(format), frameCapacity_(frameCapacity) {
    const std::uint32_t channels = std::min(format.channelCount(), AudioBufferList::kMaxBuffers);
    samples.assign(std::size_t(channels) * frameCapacity, 0.0f);
    list.mNumberBuffers = channels;
    for (std::uint32_t c = 0; c < channels; ++c) {
        list.mBuffers[c].mNumberChannels = 1;
        list.mBuffers[c].mDataByteSize = frameCapacity * std::uint32_t(sizeof(float));
        list.mBuffers[c].mData = samples.data() + std::size_t(c) * frameCapacity;
    }
    mutableList = list;
}
