// Three-band split of a stereo block at two movable points. The high band is a high-pass of
// the input, the low band a low-pass of the rest, the middle band what remains: the three always
// sum back to the input, whatever the filters do. The middle band is processed in place between
// split() and mix().
#pragma once

#include <array>

#include "util/Modulator.h"

// A state-variable filter of up to four integrator stages, all driven by the same input.
class SVFilter4Pole1 {
public:
    SVFilter4Pole1();

    void setCutoff(float value);
    // The cutoff keeps its frequency in Hz at every rate: see coefficientForRate.
    void setSamplerate(float value);
    void init();
    void reset();
    void processParameters();

    void processSampleHP(float* x);
    void processSampleLP(float* x);
    // *out = filtered *in, then *rest = *in - *out (in and rest may be the same location).
    void processSampleHP(float* in, float* out, float* rest);
    void processSampleLP(float* in, float* out, float* rest);
    void processBufferHP(const float* in, float* out, float* rest, int frames);
    void processBufferLP(const float* in, float* out, float* rest, int frames);

    float getCutoff() const { return cutoff; }
    float getF() const { return f; }
    float getQ() const { return q; }
    float getGain() const { return gain; }

    // The cutoffs are laid out for 48 kHz; at that rate the coefficients are used as they are.
    static constexpr float kReferenceRate = 48000.0f;
    static constexpr double kMinimumCoefficient = 0.0012;
    static constexpr double kStabilityMargin = 0.9;
    // The frequency coefficient that gives, at `rate`, the cutoff in Hz that `coefficient48k`
    // gives at 48 kHz, limited to where a loop of this damping stays stable.
    static float coefficientForRate(float coefficient48k, float damping, float rate);

private:
    struct Stage {
        float band = 0.0f;
        float low = 0.0f;
    };
    template <bool HighPass>
    void processBuffer(const float* in, float* out, float* rest, int frames);

    float stages = 3.0f; // stage k (1-based) runs while stages > k - 1
    float cleared = 0.0f;
    float sampleRate = 48000.0f;
    float cutoff = 0.5f;
    float resonance = 0.0f;
    float cachedFrequency = 0.0f;
    float cachedResonance = 0.0f;
    float cachedSampleRate = 0.0f;
    float gain = 0.0f;
    float f = 0.0f;
    float q = 0.0f;
    std::array<Stage, 4> stage{};
    Modulator modulator;
};

class BandSplitFilter3 {
public:
    static constexpr int kMaxFrames = 4096;

    BandSplitFilter3();

    void setCutoff1(float v);
    void setCutoff2(float v);
    void setSamplerate(float v);
    void init();
    void reset();
    void clear();
    // Splits min(frames, 4096) frames; the inputs are left unchanged.
    void split(const float* left, const float* right, int frames);
    float* getBPLeft() { return midLeft.data(); }
    float* getBPRight() { return midRight.data(); }
    // The outer bands of the last split, for inspection.
    const float* getLowLeft() const { return lowLeft.data(); }
    const float* getHighLeft() const { return highLeft.data(); }
    // Writes low + middle + high for min(frames, 4096) frames.
    void mix(float* outLeft, float* outRight, int frames);

    float getCutoff1() const { return cutoff1; }
    float getCutoff2() const { return cutoff2; }
    const SVFilter4Pole1& lowPass(int channel) const { return channel ? lpRight : lpLeft; }
    const SVFilter4Pole1& highPass(int channel) const { return channel ? hpRight : hpLeft; }

    float gainLow = 1.0f, gainMid = 1.0f, gainHigh = 1.0f;

private:
    using Band = std::array<float, kMaxFrames>;

    float sampleRate = 48000.0f;
    float cutoff1 = 0.33f;
    float cutoff2 = 0.66f;
    Band lowLeft{}, lowRight{}, highLeft{}, highRight{}, midLeft{}, midRight{};
    SVFilter4Pole1 lpLeft, lpRight, hpLeft, hpRight;
};
