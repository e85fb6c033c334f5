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

AUAudioUnitStatus BufferedInputBus::pullInput(AudioUnitRenderActionFlags* actionFlags,
                                              const AudioTimeStamp* timestamp,
                                              AUAudioFrameCount frameCount,
                                              NSInteger inputBusNumber,
                                              AURenderPullInputBlock pullInputBlock) {
    if (!pullInputBlock) return kAudioUnitErr_NoConnection;
    prepareInputBufferList();
    return pullInputBlock(actionFlags, timestamp, frameCount, inputBusNumber, mutableBufferList);
}

void BufferedInputBus::prepareInputBufferList() {
    if (!allocatedBufferList || !mutableBufferList) return;
    mutableBufferList->mNumberBuffers = allocatedBufferList->mNumberBuffers;
    for (std::uint32_t i = 0; i < allocatedBufferList->mNumberBuffers; ++i) {
        mutableBufferList->mBuffers[i].mNumberChannels =
            allocatedBufferList->mBuffers[i].mNumberChannels;
        mutableBufferList->mBuffers[i].mData = allocatedBufferList->mBuffers[i].mData;
        mutableBufferList->mBuffers[i].mDataByteSize = maxFrames * std::uint32_t(sizeof(float));
    }
}
