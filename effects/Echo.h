// Stereo feedback delay (effect type 2): two lines of different lengths around a common delay,
// cross-fed, with input panning and a one-pole low-pass (damping) inside the feedback loop.
// Produces only the wet signal; the manager squares its wet factor for this effect.
#pragma once

#include <memory>

#include "effects/Effect.h"

class Echo : public InertParameterBase, public Effect {
public:
    Echo(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);
    ~Echo() override;

    void process(float* left, float* right) override;
    void cleanup() override;
    void setPreset(unsigned char npreset) override;
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;

    static constexpr int kPresetCount = 9;
    static constexpr int kParameterCount = 7;

    // Samples each line can hold: fixed at construction so parameter changes never allocate.
    int capacity() const { return lineCapacity; }
    int getLeftLength() const { return leftLength; }
    int getRightLength() const { return rightLength; }

private:
    void setVolume(unsigned char v);
    void setDelay(unsigned char v);
    void setLrDelay(unsigned char v);
    // Restarts both lines at the lengths the delay parameters give, silenced.
    void initdelays();

    int insertion;

    unsigned char volumeParam;
    unsigned char panningParam;
    unsigned char delayParam;
    unsigned char lrDelayParam;
    unsigned char crossParam;
    unsigned char feedbackParam;
    unsigned char dampParam;

    float panning = 0.5f;
    float crossAmount = 0.0f;
    float feedback = 0.0f;
    float damp = 1.0f;

    int leftLength = 1;
    int rightLength = 1;
    int delaySamples = 1;
    int lrDelaySamples = 0;

    int lineCapacity = 1;
    std::unique_ptr<float[]> lineLeft;
    std::unique_ptr<float[]> lineRight;

    float lastLeft = 0.0f;
    float lastRight = 0.0f;
    int posLeft = 0;
    int posRight = 0;
};
