// A gain that glides to each new target in a fixed time, so automated gain changes make no
// zipper noise. At exactly 1.0 with no glide under way it leaves the signal untouched.
// Threading: render thread only.
#pragma once

#include <algorithm>

class GainRamp {
public:
    static constexpr float kGlideSeconds = 0.01f;

    void setSampleRate(float sampleRate) {
        glideFrames = std::max(1, int(sampleRate * kGlideSeconds));
    }
    // Jumps to the target: for a fresh start, when no glide is wanted.
    void reset(float target) {
        current = goal = target;
        remaining = 0;
    }

    void process(float* left, float* right, int frames, float target) {
        if (target != goal) {
            goal = target;
            remaining = glideFrames;
            step = (goal - current) / float(glideFrames);
        }
        int i = 0;
        for (; i < frames && remaining > 0; ++i) {
            // The last step lands exactly on the goal, free of accumulated rounding.
            current = --remaining == 0 ? goal : current + step;
            left[i] *= current;
            right[i] *= current;
        }
        if (current == 1.0f) return;
        for (; i < frames; ++i) {
            left[i] *= current;
            right[i] *= current;
        }
    }

    float value() const { return current; }
    // Whether process() with this target would leave the signal as it is: at exactly 1.0,
    // no glide under way or about to start.
    bool leaves(float target) const { return target == goal && remaining == 0 && current == 1.0f; }

private:
    int glideFrames = 480;
    int remaining = 0;
    float current = 1.0f;
    float goal = 1.0f;
    float step = 0.0f;
};
