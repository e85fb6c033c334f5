// Effect types the manager's table names but this product never selects. Each keeps the full
// effect interface (parameters are stored and read back, Volume acts on the wet/dry law) and
// produces silence as its wet signal.
#pragma once

#include <array>

#include "effects/Effect.h"

class SilentEffect : public InertParameterBase, public Effect {
public:
    SilentEffect(EffectGlobals& globals, int insertion, float* outLeft, float* outRight);

    void process(float* left, float* right) override;
    void setPreset(unsigned char npreset) override { preset = npreset; }
    void setParameterChar(int index, unsigned char value) override;
    unsigned char getParameter_Char(int index) override;

private:
    int insertion;
    std::array<unsigned char, 16> parameters{};
};

// Reverb (type 1): not part of this product; silent.
class Reverb : public SilentEffect {
    using SilentEffect::SilentEffect;
};
// Distortion (type 6): not part of this product; silent.
class Distorsion : public SilentEffect {
    using SilentEffect::SilentEffect;
};
// Equalizer (type 7): not part of this product; silent, flat zero response.
class EQ : public SilentEffect {
    using SilentEffect::SilentEffect;
};
// Envelope-following filter (type 8): not part of this product; silent.
class DynamicFilter : public SilentEffect {
    using SilentEffect::SilentEffect;
};
