// An audio bus with sample storage of its own, sized once when render resources are allocated;
// the input variant pulls the host's input audio into that storage.
#pragma once

#include <memory>

#include "platform/AUAudioUnitBus.h"
#include "platform/HostBlocks.h"

class BufferedAudioBus {
public:
    // Off the render thread.
    void init(const AVAudioFormat& format, std::uint32_t maxChannels);
    void allocateRenderResources(AUAudioFrameCount maxFrames);
    void deallocateRenderResources();

    std::unique_ptr<AUAudioUnitBus> bus;
    AUAudioFrameCount maxFrames = 0;
    std::unique_ptr<AVAudioPCMBuffer> storage;
    const AudioBufferList* allocatedBufferList = nullptr;
    AudioBufferList* mutableBufferList = nullptr;
};

class BufferedInputBus : public BufferedAudioBus {
public:
    // Render thread. kAudioUnitErr_NoConnection without a pull block, else the block's status.
    // Inline: it runs once per render call, and the call around it was a good part of its cost.
    AUAudioUnitStatus pullInput(AudioUnitRenderActionFlags* actionFlags,
                                const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                                NSInteger inputBusNumber, AURenderPullInputBlock pullInputBlock) {
        if (!pullInputBlock) return kAudioUnitErr_NoConnection;
        prepareInputBufferList();
        return pullInputBlock(actionFlags, timestamp, frameCount, inputBusNumber,
                              mutableBufferList);
    }
    // Restores the buffer list a previous pull may have redirected, at full capacity.
    void prepareInputBufferList() {
        if (!allocatedBufferList || !mutableBufferList) return;
        const std::uint32_t count = allocatedBufferList->mNumberBuffers;
        mutableBufferList->mNumberBuffers = count;
        for (std::uint32_t i = 0; i < count; ++i)
            mutableBufferList->mBuffers[i] = {allocatedBufferList->mBuffers[i].mNumberChannels,
                                              maxFrames * std::uint32_t(sizeof(float)),
                                              allocatedBufferList->mBuffers[i].mData};
    }
};
