// The real-time signal processor: copies input to output and, for an unbypassed stereo
// signal, splits it into three bands, runs the chorus on the middle band, recombines the bands
// and blends the result with the untouched input by the Chorus Mix parameter.
// Threading: once rendering has started, only the render thread calls anything but
// getParameter (any thread) and the bypass flag (atomic).
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "effects/Chorus.h"
#include "effects/EffectGlobals.h"
#include "effects/EffectManager.h"
#include "kernel/BandSplitFilter3.h"
#include "kernel/DSPKernel.h"
#include "kernel/GainRamp.h"
#include "kernel/ParameterTable.h"
#include "platform/PrintQueue.h"
#include "util/Modulator.h"

class TAV_SR_Chorus_Extension_DSPKernel : public DSPKernel {
public:
    static constexpr int kMaxSlice = BandSplitFilter3::kMaxFrames;

    // Logs on the channel, which must outlive the kernel.
    explicit TAV_SR_Chorus_Extension_DSPKernel(sr::LogChannel& log = sr::standardLog());
    ~TAV_SR_Chorus_Extension_DSPKernel();

    void init(int channelCount, double sampleRate);
    void setSamplerate(float sampleRate);
    float getSamplerate() const { return sampleRate; }
    void reset();
    void setBuffers(AudioBufferList* inBufferList, AudioBufferList* outBufferList, int busNumber);

    void setParameter(AUParameterAddress address, AUValue value);
    // Safe from any thread.
    AUValue getParameter(AUParameterAddress address) const;
    void setParameterAutomated(AUParameterAddress address, AUValue value,
                               AUEventSampleTime eventSampleTime) override;
    void handleMIDIEvent(const AUMIDIEvent& midiEvent) override;

    AUAudioFrameCount getMaximumFramesToRender() const { return maxFramesToRender.load(); }
    void setMaximumFramesToRender(AUAudioFrameCount frames) { maxFramesToRender.store(frames); }
    bool getBypassed() const { return bypassed.load(std::memory_order_relaxed); }
    void setBypassed(bool value) { bypassed.store(value, std::memory_order_relaxed); }
    bool getMidiThrough() const { return midiThrough; }
    sr::LogChannel& log() const { return log_; }
    int getChannelCount() const { return channelCount; }

    void process2(AUAudioFrameCount frameCount, AUAudioFrameCount bufferOffset) override;
    void process(AUAudioFrameCount frameCount, AUAudioFrameCount bufferOffset) override;

    // Whether a stereo slice may run in one pass (the default) or must run its stages one
    // after another; both give the same bits, and tests compare them.
    void setOnePass(bool allowed) { onePass = allowed; }

    // For inspection and tests.
    EffectManager& getEffectManager() { return *effectManager; }
    const BandSplitFilter3& getBandSplitter() const { return bandSplitter; }
    const EffectGlobals& getEffectGlobals() const { return globals; }

private:
    // A stereo slice from the input (which may be the output's memory) to the output.
    void processStereo(const float* inLeft, const float* inRight, float* left, float* right,
                       int frames);
    // The one-pass loops read frame i of the input from in, before they write frame i - 1 of
    // the output: in may be the output itself.
    struct Frames {
        const float* inLeft;
        const float* inRight;
        float* left;
        float* right;
    };
    template <bool NearDelays, bool MixOpen>
    void processInOnePass(Frames io, int n, Chorus::Block& chorus, float dry, float wet, float mix);
    // The same for near delays where the processor has AVX2: the same operations, so the same
    // bits, with the read positions worked out eight frames at a time while the eight frames
    // before them are rendered.
    template <bool MixOpen>
    [[gnu::target("avx2")]] void processInOnePassWide(Frames io, int n, Chorus::Block& chorus,
                                                      float dry, float wet, float mix);
    template <bool NearDelays, bool MixOpen, bool Wide>
    [[gnu::always_inline]] inline void onePassLoop(Frames io, int n, Chorus::Block& chorus,
                                                   float dry, float wet, float mix);
    // The band splitter's cutoffs from the stored split points, each limited by the other.
    void applyLowerSplit();
    void applyUpperSplit();
    void settleSplitPoints();

    sr::LogChannel& log_;
    std::array<float, kMaxSlice> workLeft{};
    std::array<float, kMaxSlice> workRight{};
    int channelCount = 2;
    AudioBufferList* inBufferList = nullptr;
    AudioBufferList* outBufferList = nullptr;
    int busNumber = 0;
    float sampleRate = 48000.0f;
    // Written on the render thread, readable from any.
    std::array<std::atomic<float>, sr::kParameterCount> parameters;
    Modulator modulator;
    BandSplitFilter3 bandSplitter;
    // Which split points were set since audio was last rendered (render thread).
    static constexpr unsigned kLowerSplitSet = 1, kUpperSplitSet = 2;
    unsigned splitPointsSet = 0;
    GainRamp inputGain;
    GainRamp outputGain;
    std::atomic<bool> bypassed{false};
    bool midiThrough = false; // nothing sets it: MIDI reaches the parameters elsewhere
    bool onePass = true;
    std::atomic<AUAudioFrameCount> maxFramesToRender{4096};
    // This instance's effect-engine settings and anti-denormal noise.
    EffectGlobals globals;
    std::vector<float> denormalKill;
    std::unique_ptr<EffectManager> effectManager;
};
