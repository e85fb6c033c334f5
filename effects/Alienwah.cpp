#include "effects/Alienwah.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr float kPi = 3.1415926536f;

constexpr unsigned char kPresets[Alienwah::kPresetCount][Alienwah::kParameterCount] = {
    {127, 64, 70, 0, 0, 62, 60, 105, 25, 0, 64},
    {127, 64, 73, 106, 0, 101, 60, 105, 17, 0, 64},
    {127, 64, 63, 0, 1, 100, 112, 105, 31, 0, 42},
    {93, 64, 25, 0, 1, 66, 101, 11, 47, 0, 86},
};

using Complex = Alienwah::Complex;

Complex blend(Complex a, Complex b, float x) {
    return {a.re * x + b.re * (1.0f - x), a.im * x + b.im * (1.0f - x)};
}

Complex times(Complex a, Complex b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

} // namespace

Alienwah::Alienwah(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), lfo(globals), insertion(insertion) {
    preset = 0;
    setPreset(0);
    cleanup();
    coefLeftOld = coefRightOld = Complex{feedback, 0.0f};
    position = 0;
}

Alienwah::~Alienwah() = default;

void Alienwah::cleanup() {
    // Clearing the whole arrays also covers a length-0 setting, which runs on one element.
    lineLeft.fill(Complex{});
    lineRight.fill(Complex{});
    position = 0;
}

void Alienwah::setParameterChar(int index, unsigned char value) {
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
    case 7: {
        feedbackParam = clampByte(value);
        // Never below 0.4 in magnitude: the centre 64 still resonates.
        const float f = std::max(std::sqrt(std::fabs((feedbackParam - 64) / 64.1f)), 0.4f);
        feedback = feedbackParam < 64 ? -f : f;
        break;
    }
    case 8:
        delayParam = std::min<unsigned char>(value, kMaxDelay);
        cleanup();
        break;
    case 9:
        crossParam = clampByte(value);
        crossAmount = crossParam / 127.0f;
        break;
    case 10:
        phaseParam = clampByte(value);
        phase = (phaseParam - 64) / 64.0f * kPi;
        break;
    default:
        break;
    }
}

unsigned char Alienwah::getParameter_Char(int index) {
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
        return delayParam;
    case 9:
        return crossParam;
    case 10:
        return phaseParam;
    default:
        return 0;
    }
}

void Alienwah::setPreset(unsigned char npreset) {
    if (npreset >= kPresetCount) npreset = kPresetCount - 1;
    for (int i = 0; i < kParameterCount; ++i) setParameterChar(i, kPresets[npreset][i]);
    // Halved for system effects only, the opposite of the echo's rule; kept as designed.
    if (insertion == 0) setParameterChar(0, kPresets[npreset][0] / 2);
    preset = npreset;
}

void Alienwah::process(float* left, float* right) {
    float lfoLeft = 0.0f;
    float lfoRight = 0.0f;
    lfo.process(&lfoLeft, &lfoRight);
    const float angleL = lfoLeft * depth * 2.0f * kPi + phase;
    const float angleR = lfoRight * depth * 2.0f * kPi + phase;
    const Complex coefL{std::cos(angleL) * feedback, std::sin(angleL) * feedback};
    const Complex coefR{std::cos(angleR) * feedback, std::sin(angleR) * feedback};

    const int n = globals.SOUND_BUFFER_SIZE;
    // A length of 0 runs as a one-element line rather than indexing an empty one.
    const int length = std::max<int>(delayParam, 1);
    const Complex coefLOld = coefLeftOld;
    const Complex coefROld = coefRightOld;
    const float inputGain = 1.0f - std::fabs(feedback);
    const float panL = panning;
    const float panR = 1.0f - panning;
    // The output gain follows the signed feedback.
    const float outGain = 10.0f * (feedback + 0.1f);
    const float k = crossAmount;
    Complex* const lineL = lineLeft.data();
    Complex* const lineR = lineRight.data();
    float* const outL = outLeft;
    float* const outR = outRight;
    int pos = std::min(position, length - 1);

    for (int i = 0; i < n; ++i) {
        const float x = float(i) / float(n);

        Complex oL = times(blend(coefL, coefLOld, x), lineL[pos]);
        oL.re += inputGain * left[i] * panL;
        lineL[pos] = oL;
        const float l = oL.re * outGain;

        Complex oR = times(blend(coefR, coefROld, x), lineR[pos]);
        oR.re += inputGain * right[i] * panR;
        lineR[pos] = oR;
        const float r = oR.re * outGain;

        if (++pos >= length) pos = 0;

        outL[i] = l * (1.0f - k) + r * k;
        outR[i] = r * (1.0f - k) + l * k;
    }

    position = pos;
    coefLeftOld = coefL;
    coefRightOld = coefR;
}
