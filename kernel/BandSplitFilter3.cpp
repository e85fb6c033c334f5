#include "kernel/BandSplitFilter3.h"

#include <algorithm>
#include <cmath>
#include <numbers>

// --- SVFilter4Pole1 ---

SVFilter4Pole1::SVFilter4Pole1() {
    init();
}

void SVFilter4Pole1::setCutoff(float value) {
    cutoff = value;
    processParameters();
}

void SVFilter4Pole1::init() {
    stage = {};
    gain = f = q = 0.0f;
    reset();
}

void SVFilter4Pole1::setSamplerate(float value) {
    sampleRate = value;
    processParameters();
}

void SVFilter4Pole1::reset() {
    cachedFrequency = cachedResonance = 0.0f;
    gain = f = q = 0.0f;
    cleared = 0.0f;
    stage = {};
    cutoff = 0.5f;
    resonance = 0.0f;
    processParameters();
}

void SVFilter4Pole1::processParameters() {
    const float v = Modulator::getValueFrequencyScaled(cutoff);
    const float r = std::clamp(resonance, 0.0f, 1.0f);
    float freq = v;
    if (double(freq) < kMinimumCoefficient) freq = float(kMinimumCoefficient);
    if (freq > 1.0f) freq = 1.0f;
    if (freq == cachedFrequency && r == cachedResonance && sampleRate == cachedSampleRate) return;
    cachedFrequency = freq;
    cachedResonance = r;
    cachedSampleRate = sampleRate;
    const float r2 = 0.05f + r * r;
    gain = 0.7f + (1.0f - r2);
    q = 1.0f / (25.0f * ((1.0f + (1.0f - freq)) * r2));
    // The damping and gain keep the 48 kHz response's shape; only the frequency moves.
    f = coefficientForRate(freq, q, sampleRate);
}

float SVFilter4Pole1::coefficientForRate(float coefficient48k, float damping, float rate) {
    if (rate == kReferenceRate || !(rate > 0.0f)) return coefficient48k;
    // f = 2 sin(pi fc / fs): the frequency the coefficient stands for at 48 kHz, then the
    // coefficient of that frequency at this rate. Above Nyquist the phase stops at pi / 2.
    const double phase48k = std::asin(0.5 * double(coefficient48k));
    const double phase =
        std::min(phase48k * double(kReferenceRate) / double(rate), std::numbers::pi / 2.0);
    double mapped = 2.0 * std::sin(phase);
    // The two-integrator loop is stable while f^2 + 2 f q < 4; stay well inside that bound so
    // a split near Nyquist at a low rate neither rings nor runs away.
    const double qd = double(damping);
    const double stable = kStabilityMargin * (std::sqrt(qd * qd + 4.0) - qd);
    return float(std::min(mapped, stable));
}

template <bool HighPass>
void SVFilter4Pole1::processBuffer(const float* in, float* out, float* rest, int frames) {
    SVFilterLanes lanes = SVFilter4Pole1::lanes(*this, *this, *this, *this);
    for (int i = 0; i < frames; ++i) {
        const float x = in[i];
        const sr::simd::f32x4 hp = lanes.step(sr::simd::splat(x));
        const float y = (HighPass ? hp[0] : lanes.low[0]) * lanes.gain[0];
        out[i] = y;
        if (rest) rest[i] = x - y;
    }
    fromLane(lanes, 0);
}

void SVFilter4Pole1::processSampleHP(float* x) {
    processBuffer<true>(x, x, nullptr, 1);
}
void SVFilter4Pole1::processSampleLP(float* x) {
    processBuffer<false>(x, x, nullptr, 1);
}

void SVFilter4Pole1::processSampleHP(float* in, float* out, float* rest) {
    processBuffer<true>(in, out, rest, 1);
}

void SVFilter4Pole1::processSampleLP(float* in, float* out, float* rest) {
    processBuffer<false>(in, out, rest, 1);
}

void SVFilter4Pole1::processBufferHP(const float* in, float* out, float* rest, int frames) {
    processBuffer<true>(in, out, rest, frames);
}

void SVFilter4Pole1::processBufferLP(const float* in, float* out, float* rest, int frames) {
    processBuffer<false>(in, out, rest, frames);
}

// --- BandSplitFilter3 ---

BandSplitFilter3::BandSplitFilter3() {
    setSamplerate(48000.0f);
    reset();
    setCutoff1(0.333f);
    setCutoff2(0.666f);
}

void BandSplitFilter3::setCutoff1(float v) {
    releaseLanes();
    if (!(v >= 0.0f && v <= 1.0f)) return;
    cutoff1 = v;
    if (cutoff1 > cutoff2) cutoff1 = cutoff2;
    lpLeft.setCutoff(cutoff1);
    lpRight.setCutoff(cutoff1);
}

void BandSplitFilter3::setCutoff2(float v) {
    releaseLanes();
    if (!(v >= 0.0f && v <= 1.0f)) return;
    cutoff2 = v;
    if (cutoff1 > cutoff2) cutoff2 = cutoff1;
    hpLeft.setCutoff(cutoff2);
    hpRight.setCutoff(cutoff2);
}

void BandSplitFilter3::setSamplerate(float v) {
    releaseLanes();
    sampleRate = v;
    hpLeft.setSamplerate(v);
    hpRight.setSamplerate(v);
    lpLeft.setSamplerate(v);
    lpRight.setSamplerate(v);
}

void BandSplitFilter3::init() {
    releaseLanes();
    clear();
    hpLeft.reset();
    hpRight.reset();
    lpLeft.reset();
    lpRight.reset();
}

// The split points are deliberately not re-applied: the filters run at their reset cutoff
// until the next change of either point.
void BandSplitFilter3::reset() {
    init();
}

void BandSplitFilter3::clear() {
    for (Band* b : {&lowLeft, &lowRight, &highLeft, &highRight, &midLeft, &midRight}) b->fill(0.0f);
}

void BandSplitFilter3::split(const float* left, const float* right, int frames) {
    const int n = std::clamp(frames, 0, kMaxFrames);
    if (n == 0) return;
    // Both channels and both filters a frame at a time: the filters' recursions run side by
    // side instead of one after another.
    Lanes l = lanes();
    l.start(sr::simd::stereo(left[0], right[0]));
    for (int i = 0; i < n; ++i) {
        sr::simd::f32x4 low, middle, high;
        if (i + 1 < n)
            l.next(sr::simd::stereo(left[i + 1], right[i + 1]), low, middle, high);
        else
            l.finish(low, middle, high);
        const auto k = size_t(i);
        highLeft[k] = high[0];
        highRight[k] = high[1];
        lowLeft[k] = low[0];
        lowRight[k] = low[1];
        midLeft[k] = middle[0];
        midRight[k] = middle[1];
    }
    setLanes(l);
}

void BandSplitFilter3::mix(float* outLeft, float* outRight, int frames) {
    const int n = std::clamp(frames, 0, kMaxFrames);
    for (int i = 0; i < n; ++i)
        outLeft[i] = lowLeft[size_t(i)] * gainLow + midLeft[size_t(i)] * gainMid +
                     highLeft[size_t(i)] * gainHigh;
    for (int i = 0; i < n; ++i)
        outRight[i] = lowRight[size_t(i)] * gainLow + midRight[size_t(i)] * gainMid +
                      highRight[size_t(i)] * gainHigh;
}
