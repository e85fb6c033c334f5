#include "effects/Chorus.h"

#include <algorithm>
#include <cmath>

namespace {

// Factory presets, parameters 0..11 in index order.
constexpr unsigned char kPresets[Chorus::kPresetCount][Chorus::kParameterCount] = {
    {64, 64, 50, 0, 0, 90, 40, 85, 64, 119, 0, 0},   {64, 64, 45, 0, 0, 98, 56, 90, 64, 19, 0, 0},
    {64, 64, 29, 0, 1, 42, 97, 95, 90, 127, 0, 0},   {64, 64, 26, 0, 0, 42, 115, 18, 90, 127, 0, 0},
    {64, 64, 29, 117, 0, 50, 115, 9, 31, 127, 0, 1}, {64, 64, 57, 0, 0, 60, 23, 3, 62, 0, 0, 0},
    {64, 64, 33, 34, 1, 40, 35, 3, 109, 0, 0, 0},    {64, 64, 53, 34, 1, 94, 35, 3, 54, 0, 0, 1},
    {64, 64, 40, 0, 1, 62, 12, 19, 97, 0, 0, 0},     {64, 64, 55, 105, 0, 24, 39, 19, 17, 0, 0, 1},
};

// One channel of the delay line, state in locals for the hot loop. Returns the new write index.
int processChannel(const float* inMain, const float* inOther, float* out, float* line, int maxDelay,
                   int write, float delayOld, float delayNew, float cross, float feedback, int n) {
    const float fn = float(n);
    const float wrapOffset = 2.0f * float(maxDelay);
    for (int i = 0; i < n; ++i) {
        // The delay glides linearly from its value at the block start to the one at its end.
        const float d = (delayOld * float(n - i) + delayNew * float(i)) / fn;
        if (++write >= maxDelay) write = 0;
        const float pos = (float(write) - d) + wrapOffset;
        int hi = pos > 0.0f ? int(pos) : int(pos - 1.0f);
        hi %= maxDelay;
        const int lo = (hi - 1 + maxDelay) % maxDelay;
        const float w = 1.0f - std::fmod(pos, 1.0f);
        // Read before write: a delay of 0 reads the sample written one step earlier.
        const float o = line[lo] * w + line[hi] * (1.0f - w);
        out[i] = o;
        line[write] = inMain[i] * (1.0f - cross) + inOther[i] * cross + o * feedback;
    }
    return write;
}

} // namespace

namespace {

int halfSecond(const EffectGlobals& globals) {
    return std::max(1, int(float(globals.SAMPLE_RATE) * 0.5f));
}

} // namespace

Chorus::Chorus(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), lfo(globals), insertion(insertion),
      maxDelay(halfSecond(globals)), lineLeft(size_t(maxDelay)), lineRight(size_t(maxDelay)) {
    filterParams = nullptr;
    preset = 0;
    setPreset(0);
    lfo.process(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
    cleanup();
}

Chorus::~Chorus() = default;

void Chorus::cleanup() {
    std::fill(lineLeft.begin(), lineLeft.end(), 0.0f);
    std::fill(lineRight.begin(), lineRight.end(), 0.0f);
    // The next block starts at the delay of the current settings instead of gliding from the
    // ones in force before the clear (the construction preset, at start-up).
    lfo.current(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
}

void Chorus::sampleRateChanged() {
    const int samples = halfSecond(globals);
    if (samples == maxDelay) return;
    maxDelay = samples;
    lineLeft.assign(size_t(maxDelay), 0.0f);
    lineRight.assign(size_t(maxDelay), 0.0f);
    writeLeft = writeRight = 0;
    lfo.current(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
}

float Chorus::getdelay(float x) const {
    float result = flangeMode ? 0.0f : (delay + x * depth) * float(globals.SAMPLE_RATE);
    // Written so that a non-finite delay also lands inside the line.
    if (!(result + 0.5f < float(maxDelay))) result = float(maxDelay - 1);
    return result;
}

void Chorus::process(float* left, float* right) {
    const int n = globals.SOUND_BUFFER_SIZE;
    if (n <= 0) return;
    leftDelayOld = leftDelayNew;
    rightDelayOld = rightDelayNew;
    lfo.process(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);

    writeLeft = processChannel(left, right, outLeft, lineLeft.data(), maxDelay, writeLeft,
                               leftDelayOld, leftDelayNew, crossAmount, feedback, n);
    writeRight = processChannel(right, left, outRight, lineRight.data(), maxDelay, writeRight,
                                rightDelayOld, rightDelayNew, crossAmount, feedback, n);

    const float sign = subtractOutput ? -1.0f : 1.0f;
    const float gainLeft = sign * (1.0f - panning);
    const float gainRight = sign * panning;
    for (int i = 0; i < n; ++i) {
        outLeft[i] *= gainLeft;
        outRight[i] *= gainRight;
    }
}

void Chorus::setPreset(unsigned char npreset) {
    if (npreset >= kPresetCount) npreset = kPresetCount - 1;
    for (int n = 0; n < kParameterCount; ++n) setParameterChar(n, kPresets[npreset][n]);
    preset = npreset;
}

void Chorus::setVolume(unsigned char v) {
    volumeParam = v;
    setLinearVolume(insertion, v);
}

void Chorus::setPanning(unsigned char v) {
    panningParam = v;
    panning = v / 127.0f;
}

void Chorus::setDepth(unsigned char v) {
    depthParam = v;
    depth = float((std::pow(8.0, (v / 127.0) * 2.0) - 1.0) / 1000.0);
}

void Chorus::setDelay(unsigned char v) {
    delayParam = v;
    delay = float((std::pow(10.0, (v / 127.0) * 2.0) - 1.0) / 1000.0);
}

void Chorus::setFeedback(unsigned char v) {
    feedbackParam = v;
    feedback = float((clampByte(v) - 64.0) / 64.1);
}

void Chorus::setCross(unsigned char v) {
    crossParam = v;
    crossAmount = clampByte(v) / 127.0f;
}

void Chorus::setParameterChar(int index, unsigned char value) {
    switch (index) {
    case 0:
        setVolume(value);
        break;
    case 1:
        setPanning(value);
        break;
    case 2: // LFO frequency, randomness, shape, stereo
    case 3:
    case 4:
    case 5:
        lfo.setParameterChar(index - 2, value);
        break;
    case 6:
        setDepth(value);
        break;
    case 7:
        setDelay(value);
        break;
    case 8:
        setFeedback(value);
        break;
    case 9:
        setCross(value);
        break;
    case 10:
        flangeMode = value > 1 ? 1 : value;
        break;
    case 11:
        subtractOutput = value > 1 ? 1 : value;
        break;
    default:
        break;
    }
}

unsigned char Chorus::getParameter_Char(int index) {
    switch (index) {
    case 0:
        return volumeParam;
    case 1:
        return panningParam;
    case 2:
    case 3:
    case 4:
    case 5:
        return lfo.getParameter_Char(index - 2);
    case 6:
        return depthParam;
    case 7:
        return delayParam;
    case 8:
        return feedbackParam;
    case 9:
        return crossParam;
    case 10:
        return flangeMode;
    case 11:
        return subtractOutput;
    default:
        return 0;
    }
}
