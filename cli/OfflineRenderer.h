// Runs the kernel offline the way a host runs the audio unit: render resources allocated for one
// format, parameters set on the parameter tree, audio pulled through the render block in calls
// of a fixed size. Everything is sized in the constructor, so rendering allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"
#include "platform/HostBlocks.h"

namespace sr::cli {

// A parameter named by its identifier ("kChorusDryWet") or its address ("16"); null if none.
const ParameterInfo* findParameter(std::string_view id);
// Finite and inside the parameter's [min, max].
bool isValidValue(const ParameterInfo& parameter, float value);

class OfflineRenderer {
public:
    static constexpr std::uint32_t kDefaultBlockFrames = 512;
    static constexpr std::uint32_t kMaxBlockFrames = 16384;
    static constexpr std::uint32_t kMaxChannels = AudioBufferList::kMaxBuffers;

    // Throws std::invalid_argument for a block outside 1..16384, a channel count outside 1..8
    // or a sample rate the busses refuse.
    OfflineRenderer(double sampleRate, std::uint32_t channels,
                    std::uint32_t blockFrames = kDefaultBlockFrames);
    ~OfflineRenderer();
    OfflineRenderer(const OfflineRenderer&) = delete;
    OfflineRenderer& operator=(const OfflineRenderer&) = delete;

    // Sets a parameter on the tree, as a host does; the kernel takes it at the next render
    // call. False for an unknown parameter or an invalid value.
    bool set(std::string_view id, float value);

    // Render `frames` frames in host blocks of blockFrames() (the last one may be shorter),
    // each cut into render calls of at most callFrames(). Interleaved buffers hold channels()
    // samples per frame; planar ones one pointer per channel. Input and output may be the same
    // memory. Returns the first failing render status, or noErr.
    AUAudioUnitStatus renderInterleaved(const float* input, float* output, std::size_t frames);
    AUAudioUnitStatus renderPlanar(const float* const* input, float* const* output,
                                   std::size_t frames);

    double sampleRate() const { return sampleRate_; }
    std::uint32_t channels() const { return channels_; }
    std::uint32_t blockFrames() const { return blockFrames_; }
    std::uint32_t callFrames() const { return callFrames_; }
    // Sample time of the next render call: the frames rendered so far.
    double sampleTime() const { return sampleTime_; }
    AUParameterTree& parameterTree() { return parameters_.parameterTree(); }

private:
    template <typename ReadInput, typename WriteOutput>
    AUAudioUnitStatus renderFrames(std::size_t frames, ReadInput& readInput,
                                   WriteOutput& writeOutput);
    template <typename ReadInput>
    AUAudioUnitStatus renderCall(std::size_t firstFrame, AUAudioFrameCount frames,
                                 ReadInput& readInput);
    void configureBusses();

    double sampleRate_;
    std::uint32_t channels_;
    std::uint32_t blockFrames_;
    std::uint32_t callFrames_ = 0;
    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter_;
    TAV_SR_Chorus_Extension_Parameters parameters_;
    AURenderBlock renderBlock_;
    std::vector<float> outputSamples_;
    AudioBufferList outputList_;
    double sampleTime_ = 0.0;
};

} // namespace sr::cli
