// The effect engine's shared settings. The engine was written against process-wide globals;
// here each kernel owns one set and hands it to its effects, so instances never share state.
#pragma once

#include "util/RandomSource.h"

struct EffectGlobals {
    // Samples per second the effects compute with.
    int SAMPLE_RATE = 48000;
    // Frames in the block being processed; bounded by the buffers' size at construction.
    int SOUND_BUFFER_SIZE = 4096;
    // Tiny noise added to every effect input so feedback never decays into denormals; holds
    // at least SOUND_BUFFER_SIZE entries while an effect runs. Owned by the kernel.
    float* denormalkillbuf = nullptr;
    // The engine's rand(): 0 .. 2^31 - 1.
    sr::RandomSource random;

    int rand() { return random.next(); }
    // Uniform in [0, 1).
    float RND() { return float(random.uniform()); }
};
