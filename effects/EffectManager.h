// Hosts one effect at a time, chosen by type number, and applies it to a stereo block in place
// with the insertion (wet/dry) or system law.
// Threading: process, setParameterChar, changePreset and cleanup run on the render thread;
// construction, destruction and changeEffect allocate and run off it.
#pragma once

#include <memory>
#include <vector>

#include "effects/Effect.h"

class Chorus;

class EffectManager : public BaseClass {
public:
    // part >= 0: an instrument part's effects; -1 insertion, -2 system effects.
    EffectManager(EffectGlobals& globals, int part, int insertion);
    ~EffectManager() override;

    void setParameter(int index, float value) override;
    float getParameter(int index) override;

    void defaults();
    void changeEffect(int type);
    void setDryOnly(bool value) { dryOnly = value; }
    int getEffect() const { return effectType; }
    void cleanup();
    // Tells the current effect that SAMPLE_RATE changed. Off the render thread only.
    void sampleRateChanged();
    void changePreset(unsigned char npreset);
    void changePreset_nolock(unsigned char npreset);
    unsigned char getPreset();
    void setParameterChar(int index, unsigned char value);
    void setParameter_nolock(int index, unsigned char value);
    unsigned char getParameter_Char(int index);
    float getVolume();
    float getFrequencyResponse(float freq);
    // Processes SOUND_BUFFER_SIZE samples of both arrays in place.
    void process(float* left, float* right);
    // The chorus when process() runs it as an insertion effect with its output added to the
    // input (not dry-only), with the factors of that law; null otherwise. For a caller that
    // runs the chorus's frames itself, adding the denormal noise first and then the law.
    Chorus* insertedChorus(float& dry, float& wet);

    Effect* getEffectObject() { return effect.get(); }
    float* getOutLeft() { return outLeft.data(); }
    float* getOutRight() { return outRight.data(); }
    // Largest block the output buffers hold.
    int capacity() const { return int(outLeft.size()); }

    int insertion;
    FilterState* filterParams = nullptr;

private:
    // The insertion law's factors for the effect's volume v.
    void insertionGains(float v, float& dry, float& wet) const;

    EffectGlobals& globals;
    std::vector<float> outLeft;
    std::vector<float> outRight;
    int effectType = 0;
    std::unique_ptr<Effect> effect;
    bool dryOnly = false;
};
