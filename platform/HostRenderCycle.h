// One cycle of a real-time host (an LV2 run(), a JACK process callback) through an audio unit's
// render block: the host's stereo buffers are cut into render calls of at most the unit's
// maximumFramesToRender; each call's event list holds the host's parameter changes (at the
// cycle's first frame) and the MIDI messages that fall inside the call, at their frames.
// Everything is sized beforehand (the event list here, the scratch buffer by prepare()): a
// cycle allocates nothing, takes no lock and makes no system call.
// Threading: prepare() while no cycle runs; render() and outputFrame() on the render thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "platform/AudioTypes.h"
#include "platform/HostBlocks.h"
#include "platform/InputTap.h"
#include "platform/RenderEventList.h"

namespace sr {

struct HostParameterChange {
    AUParameterAddress address;
    AUValue value;
};

class HostRenderCycle {
public:
    static constexpr std::uint32_t kChannels = 2;

    HostRenderCycle() : events(std::make_unique<RenderEventList<>>()) {}

    // The block to call (fetched after the unit allocated its render resources) and the longest
    // call it takes.
    void prepare(AURenderBlock renderBlock, AUAudioFrameCount maxCallFrames) {
        block = std::move(renderBlock);
        maxCall = maxCallFrames;
        scratch.assign(maxCall, 0.0f);
    }
    AUAudioFrameCount callFrames() const { return maxCall; }
    // Where each cycle's input is copied for an editor's spectrum (it copies only while an
    // editor has it open); null for none. Set while no cycle runs.
    void setInputTap(InputTap* inputTap) { tap = inputTap; }

    // Renders `frames` frames of `input` into `output`, kChannels planar buffers each; inputs
    // and outputs may share memory, and so may the two outputs. `sampleTime` is the cycle's
    // first frame on the host's timeline. forEachMidi(visit) calls visit(frame, bytes, size)
    // for every MIDI message of the cycle, frame counted from the cycle's start; a message
    // stamped outside the cycle acts at its nearest end. After a failed call the rest of the
    // output is silence and that call's status is returned.
    template <typename ForEachMidi>
    AUAudioUnitStatus render(double sampleTime, std::uint32_t frames, const float* const* input,
                             float* const* output, std::span<const HostParameterChange> changes,
                             ForEachMidi&& forEachMidi) {
        cycleFrames = frames;
        // Before anything is rendered: the host may hand the same memory for input and output.
        if (tap) tap->write(input[0], input[1], frames);
        for (std::uint32_t offset = 0; offset < frames;) {
            const std::uint32_t n = std::min<std::uint32_t>(maxCall, frames - offset);
            const AUAudioUnitStatus status =
                n > 0 && block
                    ? renderCall(sampleTime, offset, n, input, output, changes, forEachMidi)
                    : kAudioUnitErr_Uninitialized;
            if (status != noErr) {
                // Nothing sensible was rendered: silence rather than stale memory.
                for (std::uint32_t c = 0; c < kChannels; ++c)
                    std::fill(output[c] + offset, output[c] + frames, 0.0f);
                return status;
            }
            offset += n;
        }
        return noErr;
    }

    // While a call runs: the frame of the cycle where a MIDI message that the render block
    // sends (stamped "immediate" plus its offset into the call) belongs.
    std::uint32_t outputFrame(AUEventSampleTime time) const {
        const std::int64_t last = cycleFrames > 0 ? std::int64_t(cycleFrames) - 1 : 0;
        return std::uint32_t(
            std::clamp<std::int64_t>(callOffset + (time - AUEventSampleTimeImmediate), 0, last));
    }

    // MIDI messages that found no room in a call's event list, since the start.
    std::uint64_t midiDropped() const { return dropped; }

private:
    template <typename ForEachMidi>
    AUAudioUnitStatus renderCall(double sampleTime, std::uint32_t offset, std::uint32_t frames,
                                 const float* const* input, float* const* output,
                                 std::span<const HostParameterChange> changes,
                                 ForEachMidi& forEachMidi) {
        const auto callTime = AUEventSampleTime(sampleTime) + offset;
        events->clear();
        if (offset == 0)
            for (const HostParameterChange& change : changes)
                events->addParameter(callTime, change.address, change.value);
        const std::int64_t last = std::int64_t(cycleFrames) - 1;
        forEachMidi([&](std::int64_t frame, const void* bytes, std::size_t size) {
            frame = std::clamp<std::int64_t>(frame, 0, last);
            if (frame < offset || frame >= std::int64_t(offset) + frames) return;
            if (!bytes || size == 0 || size > 0xFFFF) return;
            if (!events->addMIDI(callTime + (frame - offset), 0,
                                 static_cast<const std::uint8_t*>(bytes), std::uint16_t(size)))
                ++dropped;
        });

        callOffset = offset;
        const std::uint32_t bytes = frames * std::uint32_t(sizeof(float));
        // The kernel works in its output buffers, left and right together; when a host hands
        // both outputs overlapping memory, the left channel renders into scratch memory. The
        // memory then holds what copying out left, then right, would leave: the right channel
        // where it lies, the left one only in what the right one does not cover.
        float* host[kChannels] = {output[0] + offset, output[1] + offset};
        const bool outputsOverlap = host[0] < host[1] + frames && host[1] < host[0] + frames;
        AudioBufferList& list = callOutput;
        list.mNumberBuffers = kChannels;
        list.mBuffers[0] = {1, bytes, outputsOverlap ? scratch.data() : host[0]};
        list.mBuffers[1] = {1, bytes, host[1]};
        // The input is copied into the unit's own storage before anything is written, so the
        // host may hand the same memory for input and output.
        auto pullInput = [input, offset, frames](AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                                                 AUAudioFrameCount count, NSInteger,
                                                 AudioBufferList* in) -> AUAudioUnitStatus {
            if (count > frames || in->mNumberBuffers < kChannels)
                return kAudioUnitErr_InvalidParameter;
            for (std::uint32_t c = 0; c < kChannels; ++c) {
                AudioBuffer& buffer = in->mBuffers[c];
                if (!buffer.mData || buffer.mDataByteSize < count * sizeof(float))
                    return kAudioUnitErr_InvalidParameter;
                std::memmove(buffer.mData, input[c] + offset, count * sizeof(float));
                buffer.mDataByteSize = count * std::uint32_t(sizeof(float));
            }
            return noErr;
        };
        AudioTimeStamp timestamp;
        timestamp.mSampleTime = double(callTime);
        AudioUnitRenderActionFlags flags = 0;
        const AUAudioUnitStatus status =
            block(&flags, &timestamp, frames, 0, &list, events->head(), pullInput);
        if (outputsOverlap && status == noErr) {
            // Left's frames below the right channel's memory, or above it.
            const std::ptrdiff_t shift = host[1] - host[0];
            if (shift > 0)
                std::copy_n(scratch.data(), shift, host[0]);
            else if (shift < 0)
                std::copy(scratch.data() + (frames + shift), scratch.data() + frames,
                          host[0] + (frames + shift));
        }
        return status;
    }

    AURenderBlock block;
    InputTap* tap = nullptr;
    AUAudioFrameCount maxCall = 0;
    std::unique_ptr<RenderEventList<>> events;
    // The left channel of a call whose outputs overlap.
    std::vector<float> scratch;
    // The output list handed to the render block, kept so that a call fills in only its
    // channels' buffers.
    AudioBufferList callOutput;
    std::uint32_t cycleFrames = 0;
    std::uint32_t callOffset = 0;
    std::uint64_t dropped = 0;
};

} // namespace sr
