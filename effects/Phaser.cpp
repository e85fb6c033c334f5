#include "effects/Phaser.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr unsigned char kPresets[Phaser::kPresetCount][Phaser::kParameterCount] = {
    {64, 64, 36, 0, 0, 64, 110, 64, 1, 0, 0, 20},  {64, 64, 35, 0, 0, 88, 40, 64, 3, 0, 0, 20},
    {64, 64, 31, 0, 0, 66, 68, 107, 2, 0, 0, 20},  {39, 64, 22, 0, 0, 66, 67, 10, 5, 0, 1, 20},
    {64, 64, 20, 0, 1, 110, 67, 78, 10, 0, 0, 20}, {64, 64, 53, 100, 0, 58, 37, 78, 3, 0, 0, 20},
};

// The LFO value (0..1) bent onto an exponential curve, 0 at 0 and 1 at 1.
float expCurve(float x) {
    return (std::exp(2.0f * x) - 1.0f) / (std::exp(2.0f) - 1.0f);
}

} // namespace

Phaser::Phaser(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), lfo(globals), insertion(insertion) {
    preset = 0;
    setPreset(0);
    cleanup();
}

Phaser::~Phaser() = default;

void Phaser::cleanup() {
    feedbackLeft = feedbackRight = 0.0f;
    gainLeftOld = gainRightOld = 0.0f;
    std::fill_n(stateLeft.begin(), 2 * stagesParam, 0.0f);
    std::fill_n(stateRight.begin(), 2 * stagesParam, 0.0f);
}

void Phaser::setStages(unsigned char v) {
    // A count of 0 or one beyond the state arrays is refused; the current count stays.
    if (v == 0 || v > kMaxStages) return;
    stagesParam = v;
    cleanup();
}

void Phaser::setParameterChar(int index, unsigned char value) {
    switch (index) {
    case 0:
        volumeParam = clampByte(value);
        setLinearVolume(insertion, volumeParam);
        break;
    case 1:
        panningParam = clampByte(value);
        panning = panningParam / 127.0f;
        break;
    case 2: // LFO frequency, randomness, shape, stereo
    case 3:
    case 4:
    case 5:
        lfo.setParameterChar(index - 2, value);
        break;
    case 6:
        depthParam = clampByte(value);
        depth = depthParam / 127.0f;
        break;
    case 7:
        feedbackParam = clampByte(value);
        feedback = (feedbackParam - 64) / 64.1f;
        break;
    case 8:
        setStages(value);
        break;
    case 9:
        crossParam = clampByte(value);
        crossAmount = crossParam / 127.0f;
        break;
    case 10:
        subtractOutput = value > 1 ? 1 : value;
        break;
    case 11:
        phaseParam = clampByte(value);
        phase = phaseParam / 127.0f;
        break;
    default:
        break;
    }
}

unsigned char Phaser::getParameter_Char(int index) {
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
        return feedbackParam;
    case 8:
        return stagesParam;
    case 9:
        return crossParam;
    case 10:
        return subtractOutput;
    case 11:
        return phaseParam;
    default:
        return 0;
    }
}

void Phaser::setPreset(unsigned char npreset) {
    if (npreset >= kPresetCount) npreset = kPresetCount - 1;
    for (int i = 0; i < kParameterCount; ++i) setParameterChar(i, kPresets[npreset][i]);
    preset = npreset;
}

void Phaser::process(float* left, float* right) {
    float lfoLeft = 0.0f;
    float lfoRight = 0.0f;
    lfo.process(&lfoLeft, &lfoRight);

    // The all-pass coefficient sweeps between 1 - phase (no modulation) and lower values as
    // the depth opens; clamped so that the sections stay stable.
    auto coefficient = [this](float lfoValue) {
        const float g = 1.0f - phase * (1.0f - depth) - (1.0f - phase) * expCurve(lfoValue) * depth;
        return std::clamp(g, 0.0f, 1.0f);
    };
    const float gainL = coefficient(lfoLeft);
    const float gainR = coefficient(lfoRight);

    const int n = globals.SOUND_BUFFER_SIZE;
    const int sections = 2 * stagesParam;
    const float gainLOld = gainLeftOld;
    const float gainROld = gainRightOld;
    const float panL = panning;
    const float panR = 1.0f - panning;
    const float k = crossAmount;
    const float fb = feedback;
    float fbL = feedbackLeft;
    float fbR = feedbackRight;
    float* const stateL = stateLeft.data();
    float* const stateR = stateRight.data();
    float* const outL = outLeft;
    float* const outR = outRight;
    // Negation is exact, so inverting while writing equals inverting the finished block.
    const float sign = subtractOutput != 0 ? -1.0f : 1.0f;

    for (int i = 0; i < n; ++i) {
        // The coefficient glides from last block's value to this one's across the block.
        const float x = float(i) / float(n);
        const float cL = gainL * x + gainLOld * (1.0f - x);
        const float cR = gainR * x + gainROld * (1.0f - x);

        float inL = left[i] * panL + fbL;
        float inR = right[i] * panR + fbR;
        for (int j = 0; j < sections; ++j) {
            const float tL = stateL[j];
            stateL[j] = cL * tL + inL;
            inL = tL - cL * stateL[j];
            const float tR = stateR[j];
            stateR[j] = cR * tR + inR;
            inR = tR - cR * stateR[j];
        }

        const float l = inL;
        const float r = inR;
        inL = l * (1.0f - k) + r * k;
        inR = r * (1.0f - k) + l * k;

        fbL = inL * fb;
        fbR = inR * fb;
        outL[i] = sign * inL;
        outR[i] = sign * inR;
    }

    feedbackLeft = fbL;
    feedbackRight = fbR;
    gainLeftOld = gainL;
    gainRightOld = gainR;
}
