// Runs the audio unit offline the way a host runs it: busses set to the file's format, render
// resources allocated, parameters set on its parameter tree, audio pulled through its render
// block in calls of a fixed size with the MIDI of each call as render events, and the main queue
// drained between calls. Everything the render calls use is sized beforehand, so rendering
// allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "cli/MidiMessage.h"
#include "kernel/ParameterTable.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"
#include "platform/RenderEventList.h"

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
    // or a sample rate the busses refuse, and AUAudioUnitError when the unit cannot allocate.
    // The MIDI messages (sorted by frame) are fed to the unit at their frames. The unit logs on
    // the channel, which must outlive the renderer.
    OfflineRenderer(double sampleRate, std::uint32_t channels,
                    std::uint32_t blockFrames = kDefaultBlockFrames,
                    std::vector<TimedMidiMessage> midiInput = {}, LogChannel& log = standardLog());
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

    // What the unit sent on its MIDI output so far, with frames on the render's timeline.
    std::vector<TimedMidiMessage> midiOutput() const;
    // MIDI messages that could not be delivered (more in one frame than a call can carry) or
    // recorded.
    std::uint64_t midiDropped() const { return midiDropped_; }

    double sampleRate() const { return sampleRate_; }
    std::uint32_t channels() const { return channels_; }
    std::uint32_t blockFrames() const { return blockFrames_; }
    std::uint32_t callFrames() const { return callFrames_; }
    // Sample time of the next render call: the frames rendered so far.
    double sampleTime() const { return sampleTime_; }
    AUParameterTree& parameterTree() { return *unit_->parameterTree(); }
    TAV_SR_Chorus_Extension_AudioUnit& audioUnit() { return *unit_; }

private:
    struct RecordedMessage {
        std::int64_t frame;
        std::size_t offset;
        std::uint16_t length;
    };

    template <typename ReadInput, typename WriteOutput>
    AUAudioUnitStatus renderFrames(std::size_t frames, ReadInput& readInput,
                                   WriteOutput& writeOutput);
    template <typename ReadInput>
    AUAudioUnitStatus renderCall(std::size_t firstFrame, AUAudioFrameCount& frames,
                                 ReadInput& readInput);
    AUAudioFrameCount queueMidi(AUAudioFrameCount frames);
    OSStatus recordMidiOutput(AUEventSampleTime time, const std::uint8_t* bytes, NSInteger length);
    void configureBusses();

    double sampleRate_;
    std::uint32_t channels_;
    std::uint32_t blockFrames_;
    std::uint32_t callFrames_ = 0;
    DrainedMainQueue mainQueue_;
    std::unique_ptr<TAV_SR_Chorus_Extension_AudioUnit> unit_;
    AURenderBlock renderBlock_;
    std::vector<float> outputSamples_;
    AudioBufferList outputList_;
    double sampleTime_ = 0.0;

    std::vector<TimedMidiMessage> midiInput_;
    std::size_t nextMidi_ = 0;
    std::unique_ptr<RenderEventList<>> events_;
    std::vector<RecordedMessage> recorded_;
    std::vector<std::uint8_t> recordedBytes_;
    std::uint64_t midiDropped_ = 0;
};

} // namespace sr::cli
