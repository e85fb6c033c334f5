#include "effects/EffectLFO.h"

#include <cmath>

#include "util/ExactCos.h"

EffectLFO::EffectLFO(EffectGlobals& globals) : globals(globals) {
    freqParam = 40;
    randomnessParam = 0;
    shapeParam = 0;
    stereoParam = 96;
    phaseLeft = phaseRight = 0.0;
    UpdateParameters();
    ampLeftStart = newAmplitude();
    ampLeftEnd = newAmplitude();
    ampRightStart = newAmplitude();
    ampRightEnd = newAmplitude();
}

double EffectLFO::stepForBlock(int frames) const {
    const double step = double(frequency) * frames / globals.SAMPLE_RATE;
    return step > 0.49999999 ? 0.5 : step;
}

void EffectLFO::UpdateParameters() {
    frequency = std::fabs((std::pow(2.0f, freqParam / 127.0f * 10.0f) - 1.0f) * 0.03f);
    phaseStep = stepForBlock(globals.SOUND_BUFFER_SIZE);

    randomness = randomnessParam / 127.0f;
    if (randomness < 0.0f) randomness = 0.0f;
    if (randomness > 1.0f) randomness = 1.0f;

    const auto signedShape = static_cast<signed char>(shapeParam);
    if (signedShape < 0 || signedShape > 1) shapeParam = 1;
    shape = shapeParam;

    phaseRight = std::fmod(phaseLeft + (stereoParam - 64) / 127.0 + 1.0, 1.0);
}

float EffectLFO::getLFOShape(float x) const {
    if (shape == 1) {
        // Strict comparisons on purpose: the corner phases fall into the last branch.
        if (x > 0.0f && x < 0.25f) return 4.0f * x;
        if (x > 0.25f && x < 0.75f) return 2.0f - 4.0f * x;
        return 4.0f * x - 4.0f;
    }
    const float twoX = 2.0f * x;
    // float(std::cos(twoX * 3.1415926536)), bit for bit, without the library's cost.
    return sr::cosRoundedToFloat(twoX * 3.1415926536);
}

float EffectLFO::newAmplitude() {
    return (1.0f - randomness) + randomness * globals.RND();
}

// The phase moves first, so the value a block reports is the one at the block's end: the
// delay a chorus reaches at the end of a block then does not lag by a host-chosen block
// length, and the sound does not depend on how the host cuts the audio.
float EffectLFO::advance(double& phase, float& ampStart, float& ampEnd, double step) {
    phase += step;
    if (phase > 1.0) {
        phase -= 1.0;
        ampStart = ampEnd;
        ampEnd = newAmplitude();
    }
    return valueAt(phase, ampStart, ampEnd);
}

// The amplitude glides across the cycle from the old random value to the new one.
float EffectLFO::valueAt(double phase, float ampStart, float ampEnd) const {
    const auto x = float(phase);
    const float out = getLFOShape(x) * (ampStart + x * (ampEnd - ampStart));
    return (out + 1.0f) * 0.5f;
}

void EffectLFO::current(float* left, float* right) const {
    *left = valueAt(phaseLeft, ampLeftStart, ampLeftEnd);
    *right = valueAt(phaseRight, ampRightStart, ampRightEnd);
}

void EffectLFO::process(float* left, float* right) {
    phaseStep = stepForBlock(globals.SOUND_BUFFER_SIZE);
    *left = advance(phaseLeft, ampLeftStart, ampLeftEnd, phaseStep);
    *right = advance(phaseRight, ampRightStart, ampRightEnd, phaseStep);
}

void EffectLFO::setParameterChar(int which, unsigned char value) {
    switch (which) {
    case 0:
        freqParam = value;
        break;
    case 1:
        randomnessParam = value;
        break;
    case 2:
        shapeParam = value;
        break;
    case 3:
        stereoParam = value;
        break;
    default:
        return;
    }
    UpdateParameters();
}

unsigned char EffectLFO::getParameter_Char(int which) const {
    switch (which) {
    case 0:
        return freqParam;
    case 1:
        return randomnessParam;
    case 2:
        return shapeParam;
    case 3:
        return stereoParam;
    default:
        return 0;
    }
}
