#include "effects/EffectManager.h"

#include <algorithm>

#include "effects/Alienwah.h"
#include "effects/Chorus.h"
#include "effects/Echo.h"
#include "effects/Phaser.h"
#include "effects/SilentEffects.h"

EffectManager::EffectManager(EffectGlobals& globals, int part, int insertion)
    : insertion(insertion), globals(globals) {
    if (part >= 0) {
        SDO::CString p("MASTER/");
        p += "PART";
        p += part;
        p += "/INSTRUMENT/INSTRUMENT_EFFECTS/";
        setName("INSTRUMENT_EFFECTS");
        setPath(p.c_str());
    } else if (part == -1) {
        setName("INSERTION_EFFECTS");
        setPath("MASTER/INSERTION_EFFECTS/");
    } else if (part == -2) {
        setName("SYSTEM_EFFECTS");
        setPath("MASTER/SYSTEM_EFFECTS/");
    }
    registerObject(this);
    const size_t n = size_t(std::max(1, globals.SOUND_BUFFER_SIZE));
    outLeft.assign(n, 0.0f);
    outRight.assign(n, 0.0f);
    filterParams = nullptr;
    dryOnly = false;
    defaults();
}

EffectManager::~EffectManager() {
    unregisterObject(this);
    effect.reset();
}

void EffectManager::setParameter(int /*index*/, float /*value*/) {}
float EffectManager::getParameter(int /*index*/) {
    return 0.0f;
}

void EffectManager::defaults() {
    changeEffect(0);
    setDryOnly(false);
}

void EffectManager::changeEffect(int type) {
    cleanup();
    if (type == effectType) return;
    effectType = type;
    std::fill(outLeft.begin(), outLeft.end(), 0.0f);
    std::fill(outRight.begin(), outRight.end(), 0.0f);
    effect.reset();
    float* l = outLeft.data();
    float* r = outRight.data();
    switch (type) {
    case 1:
        effect = std::make_unique<Reverb>(globals, insertion, l, r);
        break;
    case 2:
        effect = std::make_unique<Echo>(globals, insertion, l, r);
        break;
    case 3:
        effect = std::make_unique<Chorus>(globals, insertion, l, r);
        break;
    case 4:
        effect = std::make_unique<Phaser>(globals, insertion, l, r);
        break;
    case 5:
        effect = std::make_unique<Alienwah>(globals, insertion, l, r);
        break;
    case 6:
        effect = std::make_unique<Distorsion>(globals, insertion, l, r);
        break;
    case 7:
        effect = std::make_unique<EQ>(globals, insertion, l, r);
        break;
    case 8:
        effect = std::make_unique<DynamicFilter>(globals, insertion, l, r);
        break;
    default:
        return;
    }
    filterParams = effect->filterParams;
}

void EffectManager::sampleRateChanged() {
    if (effect) effect->sampleRateChanged();
}

void EffectManager::cleanup() {
    if (effect) effect->cleanup();
}

void EffectManager::changePreset(unsigned char npreset) {
    changePreset_nolock(npreset);
}

void EffectManager::changePreset_nolock(unsigned char npreset) {
    if (effect) effect->setPreset(npreset);
}

unsigned char EffectManager::getPreset() {
    return effect ? effect->preset : 0;
}

void EffectManager::setParameterChar(int index, unsigned char value) {
    setParameter_nolock(index, value);
}

void EffectManager::setParameter_nolock(int index, unsigned char value) {
    if (effect) effect->setParameterChar(index, value);
}

unsigned char EffectManager::getParameter_Char(int index) {
    return effect ? static_cast<unsigned char>(effect->getParameter_Char(index) & 0xFF) : 0;
}

float EffectManager::getVolume() {
    return effect ? effect->outVolume : 1.0f;
}

float EffectManager::getFrequencyResponse(float freq) {
    return effectType == 7 && effect ? effect->getFrequencyResponse(freq) : 0.0f;
}

void EffectManager::insertionGains(float v, float& dry, float& wet) const {
    if (v < 0.5f) {
        dry = 1.0f;
        wet = v * 2.0f;
    } else {
        wet = 1.0f;
        dry = (1.0f - v) * 2.0f;
    }
    // Reverb and echo get a non-linear wet law.
    if (effectType == 1 || effectType == 2) wet *= wet;
}

Chorus* EffectManager::insertedChorus(float& dry, float& wet) {
    if (effectType != 3 || !effect || insertion == 0 || dryOnly) return nullptr;
    insertionGains(effect->volume, dry, wet);
    return static_cast<Chorus*>(effect.get());
}

void EffectManager::process(float* left, float* right) {
    // The buffers were sized at construction; a larger block is a caller's bug we refuse to
    // turn into an overrun.
    const int n = std::min(globals.SOUND_BUFFER_SIZE, capacity());
    if (n <= 0) return;
    float* const ol = outLeft.data();
    float* const orr = outRight.data();
    if (!effect) {
        if (insertion == 0) {
            std::fill_n(left, n, 0.0f);
            std::fill_n(right, n, 0.0f);
            std::fill_n(ol, n, 0.0f);
            std::fill_n(orr, n, 0.0f);
        }
        return;
    }
    if (const float* const noise = globals.denormalkillbuf) {
        for (int i = 0; i < n; ++i) {
            left[i] += noise[i];
            right[i] += noise[i];
        }
    }
    std::fill_n(ol, n, 0.0f);
    std::fill_n(orr, n, 0.0f);
    effect->process(left, right);

    const float v = effect->volume;
    if (effectType == 7) {
        std::copy_n(ol, n, left);
        std::copy_n(orr, n, right);
        return;
    }
    if (insertion != 0) {
        float dry, wet;
        insertionGains(v, dry, wet);
        if (dryOnly) {
            for (int i = 0; i < n; ++i) {
                left[i] *= dry;
                right[i] *= dry;
                ol[i] *= wet;
                orr[i] *= wet;
            }
        } else {
            for (int i = 0; i < n; ++i) {
                left[i] = left[i] * dry + ol[i] * wet;
                right[i] = right[i] * dry + orr[i] * wet;
            }
        }
        return;
    }
    const float gain = 2.0f * v;
    for (int i = 0; i < n; ++i) {
        ol[i] *= gain;
        orr[i] *= gain;
        left[i] = ol[i];
        right[i] = orr[i];
    }
}
