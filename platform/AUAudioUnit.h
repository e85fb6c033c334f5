// The base of every audio unit: component description, busses, render-resource lifecycle, the
// host's context blocks and the render block. Subclasses override what they answer differently.
// Threading: everything but the render block runs off the render thread.
#pragma once

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/AUAudioUnitBus.h"
#include "platform/AUParameterTree.h"
#include "platform/AudioComponent.h"
#include "platform/HostBlocks.h"

// An error thrown to the host, with its status code.
struct AUAudioUnitError : std::runtime_error {
    AUAudioUnitError(OSStatus status, const std::string& description)
        : std::runtime_error(description), code(status) {}
    OSStatus code;
};

// The busses of one direction. The array owns them.
class AUAudioUnitBusArray {
public:
    AUAudioUnitBusArray() = default;
    explicit AUAudioUnitBusArray(std::vector<std::unique_ptr<AUAudioUnitBus>> busses)
        : busses_(std::move(busses)) {}

    std::size_t count() const { return busses_.size(); }
    AUAudioUnitBus& operator[](std::size_t index) const { return *busses_.at(index); }

private:
    std::vector<std::unique_ptr<AUAudioUnitBus>> busses_;
};

class AUAudioUnit {
public:
    static constexpr AUAudioFrameCount kDefaultMaximumFramesToRender = 4096;

    AUAudioUnit(const AudioComponentDescription& description,
                AudioComponentInstantiationOptions options = 0)
        : componentDescription_(description), options_(options) {}
    virtual ~AUAudioUnit() = default;
    AUAudioUnit(const AUAudioUnit&) = delete;
    AUAudioUnit& operator=(const AUAudioUnit&) = delete;

    const AudioComponentDescription& componentDescription() const { return componentDescription_; }
    AudioComponentInstantiationOptions instantiationOptions() const { return options_; }

    virtual AUAudioUnitBusArray& inputBusses() = 0;
    virtual AUAudioUnitBusArray& outputBusses() = 0;
    virtual AUParameterTree* parameterTree() { return nullptr; }

    // Fixed while render resources are allocated: a set then keeps the current value.
    virtual AUAudioFrameCount maximumFramesToRender() const { return maximumFramesToRender_; }
    virtual void setMaximumFramesToRender(AUAudioFrameCount frames) {
        if (!renderResourcesAllocated() && frames > 0) maximumFramesToRender_ = frames;
    }
    virtual bool shouldBypassEffect() const { return shouldBypassEffect_; }
    virtual void setShouldBypassEffect(bool bypass) { shouldBypassEffect_ = bypass; }

    // Host context blocks; a host sets those it offers before allocating.
    AUHostMusicalContextBlock musicalContextBlock;
    AUHostTransportStateBlock transportStateBlock;
    AUScheduleMIDIEventBlock scheduleMIDIEventBlock;
    virtual AUMIDIOutputEventBlock MIDIOutputEventBlock() const { return midiOutputEventBlock_; }
    virtual void setMIDIOutputEventBlock(AUMIDIOutputEventBlock block) {
        midiOutputEventBlock_ = std::move(block);
    }

    // Throws AUAudioUnitError when the unit cannot render in the busses' formats. Subclasses
    // call the base last, once everything of their own succeeded.
    virtual void allocateRenderResources() { allocated_.store(true, std::memory_order_release); }
    virtual void deallocateRenderResources() { allocated_.store(false, std::memory_order_release); }
    bool renderResourcesAllocated() const { return allocated_.load(std::memory_order_acquire); }
    virtual void reset() {}

    // The block a host renders with; fetch it after allocating.
    virtual AURenderBlock internalRenderBlock() = 0;
    AURenderBlock renderBlock() { return internalRenderBlock(); }

private:
    AudioComponentDescription componentDescription_;
    AudioComponentInstantiationOptions options_;
    AUAudioFrameCount maximumFramesToRender_ = kDefaultMaximumFramesToRender;
    bool shouldBypassEffect_ = false;
    AUMIDIOutputEventBlock midiOutputEventBlock_;
    std::atomic<bool> allocated_{false};
};
