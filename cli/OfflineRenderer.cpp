#include "cli/OfflineRenderer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>

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
                                 std::uint32_t blockFrames)
    : sampleRate_(sampleRate), channels_(channels), blockFrames_(blockFrames),
      parameters_(adapter_) {
    if (blockFrames < 1 || blockFrames > kMaxBlockFrames)
        throw std::invalid_argument("block size " + std::to_string(blockFrames) +
                                    " is outside 1.." + std::to_string(kMaxBlockFrames));
    if (channels < 1 || channels > kMaxChannels)
        throw std::invalid_argument(std::to_string(channels) + " channels: 1 to " +
                                    std::to_string(kMaxChannels) + " are supported");
    configureBusses();

    // As the audio unit allocates: resources first, then every stored value to the kernel.
    adapter_.allocateRenderResources();
    for (AUParameter* parameter : parameterTree().allParameters())
        adapter_.setParameter(parameter, parameter->value());
    renderBlock_ = adapter_.internalRenderBlock();

    callFrames_ = std::min(blockFrames_, adapter_.maximumFramesToRender());
    outputSamples_.assign(std::size_t(channels_) * callFrames_, 0.0f);
    outputList_.mNumberBuffers = channels_;
}

OfflineRenderer::~OfflineRenderer() {
    adapter_.deallocateRenderResources();
}

void OfflineRenderer::configureBusses() {
    const AVAudioFormat format =
        AVAudioFormat::standardFormatWithSampleRate(sampleRate_, channels_);
    // The busses admit stereo, but the kernel carries any other layout through untouched;
    // widening them lets such files through instead of refusing them.
    for (AUAudioUnitBus* bus : {&adapter_.outputBus(), &adapter_.inputBus()})
        if (bus->maximumChannelCount() < channels_) bus->setMaximumChannelCount(channels_);
    if (adapter_.outputBus().setFormat(format) != noErr ||
        adapter_.inputBus().setFormat(format) != noErr) {
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

template <typename ReadInput>
AUAudioUnitStatus OfflineRenderer::renderCall(std::size_t firstFrame, AUAudioFrameCount frames,
                                              ReadInput& readInput) {
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
        renderBlock_(&flags, &timestamp, frames, 0, &outputList_, nullptr, pullInput);
    if (status == noErr) sampleTime_ += frames;
    return status;
}

template <typename ReadInput, typename WriteOutput>
AUAudioUnitStatus OfflineRenderer::renderFrames(std::size_t frames, ReadInput& readInput,
                                                WriteOutput& writeOutput) {
    for (std::size_t block = 0; block < frames; block += blockFrames_) {
        const std::size_t blockEnd = std::min(frames, block + blockFrames_);
        // A host block longer than the kernel takes in one call is cut, as host wrappers do.
        for (std::size_t frame = block; frame < blockEnd;) {
            const auto n = AUAudioFrameCount(std::min<std::size_t>(blockEnd - frame, callFrames_));
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
    auto read = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, float* dst) {
        const float* src = input + first * stride + c;
        for (AUAudioFrameCount i = 0; i < n; ++i) dst[i] = src[i * stride];
    };
    auto write = [&](std::size_t first, AUAudioFrameCount n, std::uint32_t c, const float* src) {
        float* dst = output + first * stride + c;
        for (AUAudioFrameCount i = 0; i < n; ++i) dst[i * stride] = src[i];
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
