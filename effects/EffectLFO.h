// The slow stereo oscillator of the modulation effects, advanced once per processed block.
// Outputs are in 0..1 (the triangle's corner values can leave that range).
#pragma once

#include "effects/Effect.h"

class EffectLFO : public InertParameterBase {
public:
    explicit EffectLFO(EffectGlobals& globals);

    // Recomputes rate, randomness, shape and the right channel's phase from the parameters.
    void UpdateParameters();
    // The raw waveform at phase x (0..1).
    float getLFOShape(float x) const;
    // Advances both phases by one block and writes the value each channel reaches.
    void process(float* left, float* right);
    // Works out what the next process() will need if the next block is like the last. Called
    // at the end of a block: the long chain of dependent operations then runs alongside the
    // rest of the render call's work instead of holding up the start of the next block.
    void foresee();
    // The values at the current phases, without advancing.
    void current(float* left, float* right) const;

    // The four parameters by number (0 frequency, 1 randomness, 2 shape, 3 stereo), as the
    // modulation effects expose them; setting one updates the oscillator.
    void setParameterChar(int which, unsigned char value);
    unsigned char getParameter_Char(int which) const;

    // Rate in Hz of the current parameters.
    float getFrequency() const { return frequency; }

    // Written by the owning effect, followed by UpdateParameters().
    unsigned char freqParam = 40;
    unsigned char randomnessParam = 0;
    unsigned char shapeParam = 0;   // 0 sine, 1 triangle
    unsigned char stereoParam = 96; // right-channel phase offset, 64 = none

    // Phases in cycles (0..1) and the last block's increment, at most 0.5. Kept in double: at
    // one-frame blocks a float phase would lose a good part of each tiny step to rounding.
    double phaseLeft = 0.0;
    double phaseRight = 0.0;
    double phaseStep = 0.0;
    float ampLeftStart = 1.0f, ampLeftEnd = 1.0f;
    float ampRightStart = 1.0f, ampRightEnd = 1.0f;
    float randomness = 0.0f;
    unsigned char shape = 0;

private:
    // phaseStep for blocks of globals.SOUND_BUFFER_SIZE frames at globals.SAMPLE_RATE.
    void setStepForBlock();
    float newAmplitude();
    void advance(double& phase, float& ampStart, float& ampEnd, double step);
    static void sines(float xLeft, float xRight, float out[2]);
    static float scaled(float shapeValue, float x, float ampStart, float ampEnd);
    float valueAt(double phase, float ampStart, float ampEnd) const;

    EffectGlobals& globals;
    float frequency = 0.0f;
    int stepFrames = 0, stepRate = 0; // what phaseStep was worked out for
    // The sine shape at the phases the next block is expected to reach (NaN: none yet).
    double nextPhase[2] = {__builtin_nan(""), __builtin_nan("")};
    float nextShape[2] = {0.0f, 0.0f};
};
