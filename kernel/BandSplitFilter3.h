// Three-band split of a stereo block at two movable points. The high band is a high-pass of
// the input, the low band a low-pass of the rest, the middle band what remains: the three always
// sum back to the input, whatever the filters do. The middle band is processed in place between
// split() and mix().
#pragma once

#include <array>
#include <cstddef>

#include "util/Modulator.h"
#include "util/Simd.h"

// SVFilter4Pole1s run side by side, filter k in lane k, one sample at a time.
struct SVFilterLanes {
    sr::simd::f32x4 band{}, low{}, f{}, q{}, gain{};

    // One sample of every lane's filter; returns the high-pass value, `low` holds the
    // low-pass value (both before the gain). Each stage is driven by h = x / 2; the stages are
    // not chained and start alike, so they stay alike and one of them stands for all.
    sr::simd::f32x4 step(sr::simd::f32x4 x) {
        const sr::simd::f32x4 h = 0.5f * x;
        const sr::simd::f32x4 lowNext = low + f * band;
        const sr::simd::f32x4 hp = h - lowNext - q * band;
        band = band + f * hp;
        low = lowNext;
        return hp;
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

    // Four filters side by side, and their state back from the lanes.
    static SVFilterLanes lanes(const SVFilter4Pole1& a, const SVFilter4Pole1& b,
                               const SVFilter4Pole1& c, const SVFilter4Pole1& d) {
        using sr::simd::f32x4;
        return {f32x4{a.stage[0].band, b.stage[0].band, c.stage[0].band, d.stage[0].band},
                f32x4{a.stage[0].low, b.stage[0].low, c.stage[0].low, d.stage[0].low},
                f32x4{a.f, b.f, c.f, d.f}, f32x4{a.q, b.q, c.q, d.q},
                f32x4{a.gain, b.gain, c.gain, d.gain}};
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
    static constexpr int activeStages() {
        return stages > 3.0f ? 4 : stages > 2.0f ? 3 : stages > 1.0f ? 2 : 1;
    }

    static constexpr float stages = 3.0f; // stage k (1-based) runs while stages > k - 1
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
    const SVFilter4Pole1& lowPass(int channel) const {
        releaseLanes();
        return channel ? lpRight : lpLeft;
    }
    const SVFilter4Pole1& highPass(int channel) const {
        releaseLanes();
        return channel ? hpRight : hpLeft;
    }

    // The four filters for loops that split a frame at a time: the high-pass filters (left,
    // right) in lanes 0 and 1, the low-pass filters in lanes 2 and 3. The low-pass filters run
    // one frame behind, on the rest the high-pass filters left at the frame before, so that
    // all four recursions advance in one vector. Channels in lanes 0 and 1 in and out.
    struct Lanes {
        using f32x4 = sr::simd::f32x4;
        SVFilterLanes filters;
        f32x4 high{}, rest{}; // of the frame the high-pass filters took last

        // A block's first frame: its high-pass, the low-pass filters wait.
        void start(f32x4 x) {
            const SVFilterLanes before = filters;
            const f32x4 y = filters.step(x) * filters.gain;
            filters.band = __builtin_shufflevector(filters.band, before.band, 0, 1, 6, 7);
            filters.low = __builtin_shufflevector(filters.low, before.low, 0, 1, 6, 7);
            high = y;
            rest = x - y;
        }
        // The next frame x in; out come the bands of the frame before: high = HP(x'), rest =
        // x' - high; low = LP(rest), middle = rest - low.
        void next(f32x4 x, f32x4& lowOut, f32x4& middleOut, f32x4& highOut) {
            const f32x4 in = __builtin_shufflevector(x, rest, 0, 1, 4, 5);
            const f32x4 hp = filters.step(in);
            const f32x4 y = __builtin_shufflevector(hp, filters.low, 0, 1, 6, 7) * filters.gain;
            const f32x4 r = in - y;
            highOut = high;
            lowOut = __builtin_shufflevector(y, y, 2, 3, 2, 3);
            middleOut = __builtin_shufflevector(r, r, 2, 3, 2, 3);
            high = y;
            rest = r;
        }
        // The block's last frame's bands: its low-pass, the high-pass filters stay.
        void finish(f32x4& lowOut, f32x4& middleOut, f32x4& highOut) {
            const SVFilterLanes before = filters;
            const f32x4 in = __builtin_shufflevector(rest, rest, 0, 1, 0, 1);
            filters.step(in);
            const f32x4 y = filters.low * filters.gain;
            filters.band = __builtin_shufflevector(before.band, filters.band, 0, 1, 6, 7);
            filters.low = __builtin_shufflevector(before.low, filters.low, 0, 1, 6, 7);
            const f32x4 r = in - y;
            highOut = high;
            lowOut = __builtin_shufflevector(y, y, 2, 3, 2, 3);
            middleOut = __builtin_shufflevector(r, r, 2, 3, 2, 3);
        }
    };
    // Between blocks the filters' state stays in the lanes it was left in: gathering it from
    // the four filters and scattering it back costs a short block more than a frame. Anything
    // that reads or changes the filters themselves puts it back first.
    Lanes lanes() const {
        if (!lanesHeld) return {SVFilter4Pole1::lanes(hpLeft, hpRight, lpLeft, lpRight)};
        return held;
    }
    void setLanes(const Lanes& l) {
        held = l;
        lanesHeld = true;
    }

    float gainLow = 1.0f, gainMid = 1.0f, gainHigh = 1.0f;

private:
    // The held lanes' state back into the filters.
    void releaseLanes() const {
        if (!lanesHeld) return;
        hpLeft.fromLane(held.filters, 0);
        hpRight.fromLane(held.filters, 1);
        lpLeft.fromLane(held.filters, 2);
        lpRight.fromLane(held.filters, 3);
        lanesHeld = false;
    }

    using Band = std::array<float, kMaxFrames>;

    float sampleRate = 48000.0f;
    float cutoff1 = 0.33f;
    float cutoff2 = 0.66f;
    Band lowLeft{}, lowRight{}, highLeft{}, highRight{}, midLeft{}, midRight{};
    // The state lives either in the filters or in the held lanes; reading the filters (a
    // const access) brings it back into them. Render thread only, as the rest.
    mutable SVFilter4Pole1 lpLeft, lpRight, hpLeft, hpRight;
    mutable Lanes held;
    mutable bool lanesHeld = false;
};
