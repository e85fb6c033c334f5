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
    AUAudioUnitStatus pullInput(AudioUnitRenderActionFlags* actionFlags,
                                const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                                NSInteger inputBusNumber, AURenderPullInputBlock pullInputBlock);
    // Restores the buffer list a previous pull may have redirected, at full capacity.
    void prepareInputBufferList();
};
