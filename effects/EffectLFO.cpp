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

void EffectLFO::setStepForBlock() {
    stepFrames = globals.SOUND_BUFFER_SIZE;
    stepRate = globals.SAMPLE_RATE;
    const double step = double(frequency) * stepFrames / stepRate;
    phaseStep = step > 0.49999999 ? 0.5 : step;
}

void EffectLFO::UpdateParameters() {
    frequency = std::fabs((std::pow(2.0f, freqParam / 127.0f * 10.0f) - 1.0f) * 0.03f);
    setStepForBlock();

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
void EffectLFO::advance(double& phase, float& ampStart, float& ampEnd, double step) {
    phase += step;
    if (phase > 1.0) {
        phase -= 1.0;
        ampStart = ampEnd;
        ampEnd = newAmplitude();
    }
}

// The amplitude glides across the cycle from the old random value to the new one.
float EffectLFO::scaled(float shapeValue, float x, float ampStart, float ampEnd) {
    const float out = shapeValue * (ampStart + x * (ampEnd - ampStart));
    return (out + 1.0f) * 0.5f;
}

float EffectLFO::valueAt(double phase, float ampStart, float ampEnd) const {
    const auto x = float(phase);
    return scaled(getLFOShape(x), x, ampStart, ampEnd);
}

void EffectLFO::current(float* left, float* right) const {
    *left = valueAt(phaseLeft, ampLeftStart, ampLeftEnd);
    *right = valueAt(phaseRight, ampRightStart, ampRightEnd);
}

// The sine shape at phases x (both channels), as getLFOShape works each out.
void EffectLFO::sines(float xLeft, float xRight, float out[2]) {
    const float twoLeft = 2.0f * xLeft, twoRight = 2.0f * xRight;
    sr::cosRoundedToFloat2(twoLeft * 3.1415926536, twoRight * 3.1415926536, out);
}

void EffectLFO::process(float* left, float* right) {
    // The step changes with the block length, the rate and the frequency; hosts keep the first
    // two and a division is worth saving on every block.
    if (globals.SOUND_BUFFER_SIZE != stepFrames || globals.SAMPLE_RATE != stepRate)
        setStepForBlock();
    advance(phaseLeft, ampLeftStart, ampLeftEnd, phaseStep);
    advance(phaseRight, ampRightStart, ampRightEnd, phaseStep);
    const auto xLeft = float(phaseLeft), xRight = float(phaseRight);
    float shapes[2];
    if (shape == 1) {
        shapes[0] = getLFOShape(xLeft);
        shapes[1] = getLFOShape(xRight);
    } else if (phaseLeft == nextPhase[0] && phaseRight == nextPhase[1]) {
        // Foreseen at the end of the block before: the block does not start by waiting for
        // the cosines.
        shapes[0] = nextShape[0];
        shapes[1] = nextShape[1];
    } else {
        sines(xLeft, xRight, shapes);
    }
    *left = scaled(shapes[0], xLeft, ampLeftStart, ampLeftEnd);
    *right = scaled(shapes[1], xRight, ampRightStart, ampRightEnd);
}

void EffectLFO::foresee() {
    if (shape == 1) return;
    // The phases advance() will reach if the next block is as long as the last one and the
    // settings stay; if it is not, process() works the sines out itself.
    for (int c = 0; c < 2; ++c) {
        nextPhase[c] = (c == 0 ? phaseLeft : phaseRight) + phaseStep;
        if (nextPhase[c] > 1.0) nextPhase[c] -= 1.0;
    }
    sines(float(nextPhase[0]), float(nextPhase[1]), nextShape);
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
