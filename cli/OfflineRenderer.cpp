#include "cli/OfflineRenderer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>

#include "util/Simd.h"

namespace sr::cli {

const ParameterInfo* findParameter(std::string_view id) {
    std::uint64_t address = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), address);
    if (!id.empty() && error == std::errc() && end == id.data() + id.size())
        return parameterInfo(address);
    return parameterInfo(id);
}

bool isValidValue(const ParameterInfo& parameter, float value) {
    return std::isfinite(value) && value >= parameter.minValue && value <= parameter.maxValue;
}

OfflineRenderer::OfflineRenderer(double sampleRate, std::uint32_t channels,
                                 std::uint32_t blockFrames, std::vector<TimedMidiMessage> midiInput,
                                 LogChannel& log)
    : sampleRate_(sampleRate), channels_(channels), blockFrames_(blockFrames), mainQueue_(log),
      midiInput_(std::move(midiInput)), events_(std::make_unique<RenderEventList<>>()) {
    if (blockFrames < 1 || blockFrames > kMaxBlockFrames)
        throw std::invalid_argument("block size " + std::to_string(blockFrames) +
                                    " is outside 1.." + std::to_string(kMaxBlockFrames));
    if (channels < 1 || channels > kMaxChannels)
        throw std::invalid_argument(std::to_string(channels) + " channels: 1 to " +
                                    std::to_string(kMaxChannels) + " are supported");
    std::stable_sort(midiInput_.begin(), midiInput_.end(),
                     [](const auto& a, const auto& b) { return a.frame < b.frame; });
    // The unit passes every message through once: room for all of them, recorded without
    // allocating while rendering.
    std::size_t bytes = 0;
    for (const TimedMidiMessage& m : midiInput_) bytes += m.bytes.size();
    recorded_.reserve(midiInput_.size());
    recordedBytes_.reserve(bytes);

    unit_ = std::make_unique<TAV_SR_Chorus_Extension_AudioUnit>(kTAVSRChorusComponentDescription,
                                                                mainQueue_, log);
    configureBusses();
    unit_->setMIDIOutputEventBlock(
        [this](AUEventSampleTime time, std::uint8_t, NSInteger length, const std::uint8_t* data) {
            return recordMidiOutput(time, data, length);
        });
    unit_->allocateRenderResources();
    renderBlock_ = unit_->renderBlock();

    callFrames_ = std::min(blockFrames_, unit_->maximumFramesToRender());
    outputSamples_.assign(std::size_t(channels_) * callFrames_, 0.0f);
    outputList_.mNumberBuffers = channels_;
}

OfflineRenderer::~OfflineRenderer() {
    mainQueue_.discard();
    unit_->deallocateRenderResources();
}

void OfflineRenderer::configureBusses() {
    const AVAudioFormat format =
        AVAudioFormat::standardFormatWithSampleRate(sampleRate_, channels_);
    // Only stereo is processed, but any other layout is carried through: the busses take it.
    if (unit_->outputBusses()[0].setFormat(format) != noErr ||
        unit_->inputBusses()[0].setFormat(format) != noErr) {
        std::ostringstream message;
        message << "the audio unit refuses a sample rate of " << sampleRate_ << " Hz";
        throw std::invalid_argument(message.str());
    }
}

bool OfflineRenderer::set(std::string_view id, float value) {
    const ParameterInfo* info = findParameter(id);
    if (!info || !isValidValue(*info, value)) return false;
    AUParameter* parameter = parameterTree().parameterWithAddress(info->address);
    return parameter && parameter->setValue(value);
}

OSStatus OfflineRenderer::recordMidiOutput(AUEventSampleTime time, const std::uint8_t* bytes,
                                           NSInteger length) {
    // Times at or after "immediate" are offsets into the current call.
    const std::int64_t frame = time >= AUEventSampleTimeImmediate &&
                                       time < AUEventSampleTimeImmediate + (std::int64_t(1) << 31)
                                   ? std::int64_t(sampleTime_) + (time - AUEventSampleTimeImmediate)
                                   : time;
    if (!bytes || length <= 0 || length > 0xFFFF || recorded_.size() == recorded_.capacity() ||
        recordedBytes_.size() + std::size_t(length) > recordedBytes_.capacity()) {
        ++midiDropped_;
        return kAudioUnitErr_InvalidParameter;
    }
    recorded_.push_back({frame, recordedBytes_.size(), std::uint16_t(length)});
    recordedBytes_.insert(recordedBytes_.end(), bytes, bytes + length);
    return noErr;
}

std::vector<TimedMidiMessage> OfflineRenderer::midiOutput() const {
    std::vector<TimedMidiMessage> messages;
    messages.reserve(recorded_.size());
    for (const RecordedMessage& r : recorded_)
        messages.push_back({r.frame,
                            {recordedBytes_.begin() + std::ptrdiff_t(r.offset),
                             recordedBytes_.begin() + std::ptrdiff_t(r.offset + r.length)}});
    return messages;
}

AUAudioFrameCount OfflineRenderer::queueMidi(AUAudioFrameCount frames) {
    events_->clear();
    const auto start = std::int64_t(sampleTime_);
    for (; nextMidi_ < midiInput_.size(); ++nextMidi_) {
        const TimedMidiMessage& m = midiInput_[nextMidi_];
        const std::int64_t frame = std::max(m.frame, start);
        if (frame >= start + std::int64_t(frames)) break;
        if (m.bytes.empty() || m.bytes.size() > 0xFFFF ||
            events_->addMIDI(frame, 0, m.bytes.data(), std::uint16_t(m.bytes.size())))
            continue;
        // The call's list is full: end the call before this message so it leads the next one.
        if (frame > start) return AUAudioFrameCount(frame - start);
        ++midiDropped_;
    }
    return frames;
}

template <typename ReadInput>
AUAudioUnitStatus OfflineRenderer::renderCall(std::size_t firstFrame, AUAudioFrameCount& frames,
                                              ReadInput& readInput) {
    frames = queueMidi(frames);
    auto pullInput = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                         AUAudioFrameCount count, NSInteger,
                         AudioBufferList* input) -> AUAudioUnitStatus {
        if (count > frames || input->mNumberBuffers < channels_)
            return kAudioUnitErr_InvalidParameter;
        const auto bytes = count * std::uint32_t(sizeof(float));
        for (std::uint32_t c = 0; c < channels_; ++c) {
            AudioBuffer& buffer = input->mBuffers[c];
            if (!buffer.mData || buffer.mDataByteSize < bytes)
                return kAudioUnitErr_InvalidParameter;
            readInput(firstFrame, count, c, static_cast<float*>(buffer.mData));
            buffer.mDataByteSize = bytes;
        }
        return noErr;
    };

    // Reset every call: the render path may redirect the list for in-place processing.
    for (std::uint32_t c = 0; c < channels_; ++c)
        outputList_.mBuffers[c] = {1, frames * std::uint32_t(sizeof(float)),
                                   outputSamples_.data() + std::size_t(c) * callFrames_};
    AudioTimeStamp timestamp;
    timestamp.mSampleTime = sampleTime_;
    AudioUnitRenderActionFlags flags = 0;
    const AUAudioUnitStatus status =
        renderBlock_(&flags, &timestamp, frames, 0, &outputList_, events_->head(), pullInput);
    if (status == noErr) sampleTime_ += frames;
    // What the render call handed to the main queue runs before the next call, as a host's
    // main thread would between two audio cycles.
    mainQueue_.drain();
    return status;
}

template <typename ReadInput, typename WriteOutput>
AUAudioUnitStatus OfflineRenderer::renderFrames(std::size_t frames, ReadInput& readInput,
                                                WriteOutput& writeOutput) {
    for (std::size_t block = 0; block < frames; block += blockFrames_) {
        const std::size_t blockEnd = std::min(frames, block + blockFrames_);
        // A host block longer than the kernel takes in one call is cut, as host wrappers do.
        for (std::size_t frame = block; frame < blockEnd;) {
            auto n = AUAudioFrameCount(std::min<std::size_t>(blockEnd - frame, callFrames_));
            if (const AUAudioUnitStatus status = renderCall(frame, n, readInput); status != noErr)
                return status;
            for (std::uint32_t c = 0; c < channels_; ++c)
                writeOutput(frame, n, c, static_cast<const float*>(outputList_.mBuffers[c].mData));
            frame += n;
        }
    }
    return noErr;
}

AUAudioUnitStatus OfflineRenderer::renderInterleaved(const float* input, float* output,
                                                     std::size_t frames) {
    const std::size_t stride = channels_;
    // Stereo, the usual case, four frames at a time: two vectors of left-right pairs become a
    // vector of each channel (and back), a few instructions instead of one per sample.
    auto read = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, float* dst) {
        const float* pairs = input + first * stride;
        AUAudioFrameCount i = 0;
        if (stride == 2)
            for (; i + 4 <= n; i += 4) {
                const simd::f32x4 a = simd::load(pairs + 2 * i), b = simd::load(pairs + 2 * i + 4);
                simd::store(dst + i, c == 0 ? __builtin_shufflevector(a, b, 0, 2, 4, 6)
                                            : __builtin_shufflevector(a, b, 1, 3, 5, 7));
            }
        for (; i < n; ++i) dst[i] = pairs[i * stride + c];
    };
    auto write = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, const float* src) {
        float* dst = output + first * stride + c;
        AUAudioFrameCount i = 0;
        if (stride == 2 && c == 1) { // both channels are in: interleave them in one pass
            const auto* left = static_cast<const float*>(outputList_.mBuffers[0].mData);
            float* pair = output + first * stride;
            for (; i + 4 <= n; i += 4) {
                const simd::f32x4 l = simd::load(left + i), r = simd::load(src + i);
                simd::store(pair + 2 * i, __builtin_shufflevector(l, r, 0, 4, 1, 5));
                simd::store(pair + 2 * i + 4, __builtin_shufflevector(l, r, 2, 6, 3, 7));
            }
            for (; i < n; ++i) {
                pair[2 * i] = left[i];
                pair[2 * i + 1] = src[i];
            }
            return;
        } else if (stride == 2) {
            return; // written together with the right channel
        }
        for (; i < n; ++i) dst[i * stride] = src[i];
    };
    return renderFrames(frames, read, write);
}

AUAudioUnitStatus OfflineRenderer::renderPlanar(const float* const* input, float* const* output,
                                                std::size_t frames) {
    auto read = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, float* dst) {
        std::copy_n(input[c] + first, n, dst);
    };
    auto write = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, const float* src) {
        std::copy_n(src, n, output[c] + first);
    };
    return renderFrames(frames, read, write);
}

} // namespace sr::cli
