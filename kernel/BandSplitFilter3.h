// Three-band split of a stereo block at two movable points. The high band is a high-pass of
// the input, the low band a low-pass of the rest, the middle band what remains: the three always
// sum back to the input, whatever the filters do. The middle band is processed in place between
// split() and mix().
#pragma once

#include <array>
#include <cstddef>

#include "util/Modulator.h"
#include "util/Simd.h"

// SVFilter4Pole1s of one kind run side by side, filter k in lane k, one sample at a time.
struct SVFilterLanes {
    sr::simd::f32x4 band{}, low{}, f{}, q{}, gain{};

    // One sample of every lane's filter. Each stage is driven by h = x / 2; the stages are not
    // chained and start alike, so they stay alike and one of them stands for all: its high-pass
    // (hp) or low-pass (low) value, times the gain, is the filter's output.
    template <bool HighPass>
    sr::simd::f32x4 process(sr::simd::f32x4 x) {
        const sr::simd::f32x4 h = 0.5f * x;
        const sr::simd::f32x4 lowNext = low + f * band;
        const sr::simd::f32x4 hp = h - lowNext - q * band;
        band = band + f * hp;
        low = lowNext;
        return (HighPass ? hp : lowNext) * gain;
    }
};

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

    // This filter's coefficients and state into one lane, and the state back from it.
    void toLane(SVFilterLanes& lanes, int lane) const {
        lanes.band[lane] = stage[0].band;
        lanes.low[lane] = stage[0].low;
        lanes.f[lane] = f;
        lanes.q[lane] = q;
        lanes.gain[lane] = gain;
    }
    void fromLane(const SVFilterLanes& lanes, int lane) {
        // Every stage that runs sees the same input from the same state: they are all this one.
        for (int k = 0; k < activeStages(); ++k)
            stage[std::size_t(k)] = {lanes.band[lane], lanes.low[lane]};
    }

private:
    struct Stage {
        float band = 0.0f;
        float low = 0.0f;
    };
    template <bool HighPass>
    void processBuffer(const float* in, float* out, float* rest, int frames);
    int activeStages() const {
        return stages > 3.0f ? 4 : stages > 2.0f ? 3 : stages > 1.0f ? 2 : 1;
    }

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

    // The four filters for loops that split a frame at a time, left channel in lane 0 and right
    // in lane 1. Taken with lanes() and handed back with setLanes() when the loop is done.
    struct Lanes {
        SVFilterLanes highPass, lowPass;

        // One frame of split(): high = HP(x), rest = x - high; low = LP(rest), middle = rest -
        // low.
        void split(sr::simd::f32x4 x, sr::simd::f32x4& low, sr::simd::f32x4& middle,
                   sr::simd::f32x4& high) {
            high = highPass.process<true>(x);
            const sr::simd::f32x4 rest = x - high;
            low = lowPass.process<false>(rest);
            middle = rest - low;
        }
    };
    Lanes lanes() const {
        Lanes l;
        hpLeft.toLane(l.highPass, 0);
        hpRight.toLane(l.highPass, 1);
        lpLeft.toLane(l.lowPass, 0);
        lpRight.toLane(l.lowPass, 1);
        return l;
    }
    void setLanes(const Lanes& l) {
        hpLeft.fromLane(l.highPass, 0);
        hpRight.fromLane(l.highPass, 1);
        lpLeft.fromLane(l.lowPass, 0);
        lpRight.fromLane(l.lowPass, 1);
    }
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
