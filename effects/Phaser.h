// Phaser (effect type 4): per channel a chain of first-order all-pass sections sharing one
// coefficient that an LFO sweeps, with feedback into the chain, left/right cross-mixing and an
// optional polarity inversion. Produces only the wet signal.
#pragma once

#include <array>

#include "effects/Effect.h"
#include "effects/EffectLFO.h"

class Phaser : public InertParameterBase, public Effect {
public:
    Phaser(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);
    ~Phaser() override;

    void process(float* left, float* right) override;
    void cleanup() override;
    void setPreset(unsigned char npreset) override;
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;

    static constexpr int kPresetCount = 6;
    static constexpr int kParameterCount = 12;
    static constexpr int kMaxStages = 11;

private:
    void setStages(unsigned char v);

    unsigned char volumeParam = 0;
    unsigned char panningParam = 0;
    unsigned char depthParam = 0;
    unsigned char feedbackParam = 0;
    unsigned char crossParam = 0;
    unsigned char stagesParam = 0;
    unsigned char subtractOutput = 0;
    unsigned char phaseParam = 0;

    EffectLFO lfo;
    int insertion;

    float panning = 0.0f;
    float feedback = 0.0f;
    float depth = 0.0f;
    float crossAmount = 0.0f;
    float feedbackLeft = 0.0f;
    float feedbackRight = 0.0f;
    float phase = 0.0f;

    // All-pass states, two sections per stage; room for the largest count.
    std::array<float, 24> stateLeft{};
    std::array<float, 24> stateRight{};

    float gainLeftOld = 0.0f;
    float gainRightOld = 0.0f;
};
