// Alienwah (effect type 5): a short complex-valued feedback delay per channel whose complex
// feedback coefficient an LFO rotates, giving a vowel-like sweep. Produces only the wet signal.
#pragma once

#include <array>

#include "effects/Effect.h"
#include "effects/EffectLFO.h"

class Alienwah : public InertParameterBase, public Effect {
public:
    Alienwah(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);
    ~Alienwah() override;

    void process(float* left, float* right) override;
    void cleanup() override;
    void setPreset(unsigned char npreset) override;
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;

    static constexpr int kPresetCount = 4;
    static constexpr int kParameterCount = 11;
    static constexpr int kMaxDelay = 100;

    struct Complex {
        float re = 0.0f;
        float im = 0.0f;
    };

private:
    unsigned char volumeParam = 0;
    unsigned char panningParam = 0;
    unsigned char depthParam = 0;
    unsigned char feedbackParam = 0;
    unsigned char crossParam = 0;
    unsigned char delayParam = 0; // line length in use, at most kMaxDelay
    unsigned char phaseParam = 0;

    EffectLFO lfo;
    int insertion;

    float panning = 0.0f;
    float feedback = 0.0f;
    float depth = 0.0f;
    float crossAmount = 0.0f;
    float phase = 0.0f;

    std::array<Complex, kMaxDelay> lineLeft{};
    std::array<Complex, kMaxDelay> lineRight{};
    Complex coefLeftOld;
    Complex coefRightOld;
    int position = 0;
};
