#include "effects/SilentEffects.h"

#include <algorithm>

SilentEffect::SilentEffect(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), insertion(insertion) {
    setParameterChar(0, 0);
}

void SilentEffect::process(float* /*left*/, float* /*right*/) {
    const int n = std::max(0, globals.SOUND_BUFFER_SIZE);
    std::fill_n(outLeft, n, 0.0f);
    std::fill_n(outRight, n, 0.0f);
}

void SilentEffect::setParameterChar(int index, unsigned char value) {
    if (index < 0 || index >= int(parameters.size())) return;
    parameters[size_t(index)] = value;
    if (index == 0) setLinearVolume(insertion, value);
}

unsigned char SilentEffect::getParameter_Char(int index) {
    if (index < 0 || index >= int(parameters.size())) return 0;
    return parameters[size_t(index)];
}
