// Stereo modulated delay: each channel reads its own half-second line at a delay the LFO sweeps
// between a base delay and base delay + depth, with feedback, left/right cross-feed, optional
// polarity inversion and panning. Produces the wet signal only.
#pragma once

#include <cstdint>
#include <vector>

#include "effects/Effect.h"
#include "effects/EffectLFO.h"
#include "util/Simd.h"

class Chorus : public InertParameterBase, public Effect {
public:
    Chorus(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);
    ~Chorus() override;

    void process(float* left, float* right) override;
    void cleanup() override;
    void setPreset(unsigned char npreset) override;
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;
    // The lines hold half a second at the new rate, so the longest delay and depth still fit.
    void sampleRateChanged() override;

    // Delay in samples for an LFO value x.
    float getdelay(float x) const;

    static constexpr int kPresetCount = 10;
    static constexpr int kParameterCount = 12;

    unsigned char volumeParam = 0, panningParam = 0, depthParam = 0, delayParam = 0;
    unsigned char feedbackParam = 0, crossParam = 0, flangeMode = 0, subtractOutput = 0;

    EffectLFO lfo;
    float depth = 0.0f;    // seconds
    float delay = 0.0f;    // seconds
    float feedback = 0.0f; // gain
    float crossAmount = 0.0f;
    float panning = 0.0f;
    float leftDelayOld = 0.0f, leftDelayNew = 0.0f;
    float rightDelayOld = 0.0f, rightDelayNew = 0.0f;
    float lfoLeft = 0.0f, lfoRight = 0.0f;
    int insertion;
    int maxDelay;
    int writeLeft = 0, writeRight = 0;

    const std::vector<float>& lineLeftSamples() const { return lineLeft; }

    // One block of process() for loops that take both channels a frame at a time (lane 0 left,
    // lane 1 right): process() itself and the kernel's one-pass render. beginBlock() runs the
    // block's first steps (the delays at its start and end, one LFO step); step() then does one
    // frame of the per-sample steps and the panning; endBlock() keeps the write positions.
    struct Block;
    Block beginBlock();
    void endBlock(const Block& block);

private:
    void setVolume(unsigned char v);
    void setPanning(unsigned char v);
    void setDepth(unsigned char v);
    void setDelay(unsigned char v);
    void setFeedback(unsigned char v);
    void setCross(unsigned char v);
    template <bool NearDelays>
    void processFrames(Block& block, const float* left, const float* right);

    std::vector<float> lineLeft;
    std::vector<float> lineRight;
};

struct Chorus::Block {
    using f32x4 = sr::simd::f32x4;

    // Where the frames of a chunk read and write, worked out ahead of the frames themselves
    // (they depend on the delays and positions only, not on the signal), four frames at a time.
    struct Taps {
        static constexpr int kFrames = 64;
        alignas(16) std::int32_t lo[2][kFrames]; // [channel][frame]
        alignas(16) std::int32_t hi[2][kFrames];
        alignas(16) std::int32_t write[2][kFrames];
        // Per frame: the weights of the samples at lo (left, right), then those at hi.
        alignas(16) float weight[kFrames][4];
    };

    float* lineLeft;
    float* lineRight;
    int maxDelay;
    int write[2];                   // write positions before the next frame
    float delayOld[2], delayNew[2]; // delays in samples at the block's start and end
    int frames;                     // N
    int done;                       // frames of the block whose taps are worked out
    float wrapOffset;               // two line lengths, keeping read positions above 0
    f32x4 keep, cross, feedback;    // 1 - k, k and the feedback gain
    f32x4 panning;                  // sign x (1 - panning) left, sign x panning right
    // Every delay of the block lies between -maxDelay / 2 and maxDelay, and maxDelay >= 16:
    // the read positions then wrap into the line by at most three subtractions.
    bool nearDelays;

    // The next `count` frames' taps (count <= Taps::kFrames): steps 1 to 5 of a frame, the
    // delay's glide, the write position's advance, the read positions and the weight.
    template <bool NearDelays>
    void computeTaps(int count, Taps& taps);

    // Frame k of the chunk whose taps were computed, both channels, the chorus's input being
    // `in`: the interpolated read, then the write of the input with cross-feed and feedback
    // (steps 6 and 7), then polarity and panning. Returns the wet output.
    f32x4 step(const Taps& t, int k, f32x4 in) {
        // Read before write: a delay of 0 reads the sample written one step earlier. The samples
        // at lo in lanes 0 and 1, those at hi in lanes 2 and 3, each times its weight; then
        // lo x w + hi x (1 - w).
        const f32x4 weighted = f32x4{lineLeft[t.lo[0][k]], lineRight[t.lo[1][k]],
                                     lineLeft[t.hi[0][k]], lineRight[t.hi[1][k]]} *
                               *reinterpret_cast<const f32x4*>(t.weight[k]);
        const f32x4 o = weighted + __builtin_shufflevector(weighted, weighted, 2, 3, 2, 3);
        const f32x4 written = in * keep + sr::simd::swapped(in) * cross + o * feedback;
        lineLeft[t.write[0][k]] = written[0];
        lineRight[t.write[1][k]] = written[1];
        return o * panning;
    }
};
