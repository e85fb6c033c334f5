#include "kernel/BufferedAudioBus.h"

void BufferedAudioBus::init(const AVAudioFormat& format, std::uint32_t maxChannels) {
    maxFrames = 0;
    storage.reset();
    allocatedBufferList = nullptr;
    mutableBufferList = nullptr;
    bus = std::make_unique<AUAudioUnitBus>(format);
    bus->setMaximumChannelCount(maxChannels);
}

void BufferedAudioBus::allocateRenderResources(AUAudioFrameCount frames) {
    maxFrames = frames;
    storage = std::make_unique<AVAudioPCMBuffer>(bus->format(), maxFrames);
    allocatedBufferList = storage->audioBufferList();
    mutableBufferList = storage->mutableAudioBufferList();
}

void BufferedAudioBus::deallocateRenderResources() {
    storage.reset();
    allocatedBufferList = nullptr;
    mutableBufferList = nullptr;
}
