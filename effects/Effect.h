// Interface of every effect the effect manager can host. Effects produce only their wet signal,
// in the manager's two output buffers; the manager applies the wet/dry law.
// Threading: all operations run on one thread at a time (the render thread in the plug-in);
// construction and destruction may allocate and so happen off the render thread.
#pragma once

#include "effects/EffectGlobals.h"
#include "util/BaseClass.h"

class FilterState; // filter settings of the filter-based effects; none of ours has one

class Effect {
public:
    Effect(EffectGlobals& globals, float* outLeft, float* outRight)
        : outLeft(outLeft), outRight(outRight), globals(globals) {}
    virtual ~Effect() = default;
    Effect(const Effect&) = delete;
    Effect& operator=(const Effect&) = delete;

    // Reads SOUND_BUFFER_SIZE samples of each input, writes the wet signal to outLeft/outRight.
    virtual void process(float* /*left*/, float* /*right*/) {}
    // Clears the history (delay lines, filter states).
    virtual void cleanup() {}
    virtual void setPreset(unsigned char /*npreset*/) {}
    virtual void setParameterChar(int /*index*/, unsigned char /*value*/) {}
    virtual unsigned char getParameter_Char(int /*index*/) { return 0; }
    virtual float getFrequencyResponse(float /*freq*/) { return 0.0f; }
    // SAMPLE_RATE changed: storage sized in samples follows. May allocate, so never called
    // while rendering.
    virtual void sampleRateChanged() {}

    unsigned char preset = 0;
    float* outLeft;
    float* outRight;
    // The Volume parameter / 127.
    float outVolume = 0.0f;
    // What the manager's wet/dry law uses: outVolume for insertion effects, 1.0 otherwise.
    float volume = 0.0f;
    FilterState* filterParams = nullptr;

protected:
    // Effect bytes come from 0..127 controls; above that several laws (feedback, cross,
    // damping) would turn a loop unstable, so such bytes count as 127.
    static unsigned char clampByte(unsigned char v) { return v > 127 ? 127 : v; }

    // Volume setter shared by the effects whose volume is plain v / 127.
    void setLinearVolume(int insertion, unsigned char v) {
        outVolume = v / 127.0f;
        volume = insertion != 0 ? outVolume : 1.0f;
    }

    EffectGlobals& globals;
};

// The float parameter pair of the object root is inert on the effect side: all control goes
// through the 8-bit interface.
class InertParameterBase : public BaseClass {
public:
    void setParameter(int /*index*/, float /*value*/) override {}
    float getParameter(int /*index*/) override { return 0.0f; }
};
