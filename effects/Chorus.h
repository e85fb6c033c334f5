// Stereo modulated delay: each channel reads its own half-second line at a delay the LFO sweeps
// between a base delay and base delay + depth, with feedback, left/right cross-feed, optional
// polarity inversion and panning. Produces the wet signal only.
#pragma once

#include <vector>

#include "effects/Effect.h"
#include "effects/EffectLFO.h"

class Chorus : public InertParameterBase, public Effect {
public:
    Chorus(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);
    ~Chorus() override;

    void process(float* left, float* right) override;
    void cleanup() override;
    void setPreset(unsigned char npreset) override;
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;
    // The lines hold half a second at the new rate, so the longest delay and depth still fit.
    void sampleRateChanged() override;

    // Delay in samples for an LFO value x.
    float getdelay(float x) const;

    static constexpr int kPresetCount = 10;
    static constexpr int kParameterCount = 12;

    unsigned char volumeParam = 0, panningParam = 0, depthParam = 0, delayParam = 0;
    unsigned char feedbackParam = 0, crossParam = 0, flangeMode = 0, subtractOutput = 0;

    EffectLFO lfo;
    float depth = 0.0f;    // seconds
    float delay = 0.0f;    // seconds
    float feedback = 0.0f; // gain
    float crossAmount = 0.0f;
    float panning = 0.0f;
    float leftDelayOld = 0.0f, leftDelayNew = 0.0f;
    float rightDelayOld = 0.0f, rightDelayNew = 0.0f;
    float lfoLeft = 0.0f, lfoRight = 0.0f;
    int insertion;
    int maxDelay;
    int writeLeft = 0, writeRight = 0;

    const std::vector<float>& lineLeftSamples() const { return lineLeft; }

private:
    void setVolume(unsigned char v);
    void setPanning(unsigned char v);
    void setDepth(unsigned char v);
    void setDelay(unsigned char v);
    void setFeedback(unsigned char v);
    void setCross(unsigned char v);

    std::vector<float> lineLeft;
    std::vector<float> lineRight;
};
