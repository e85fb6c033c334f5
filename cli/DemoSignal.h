// A short arrangement that makes a selective-range chorus audible: plucked chords in the middle
// range (about 250 Hz to 1.5 kHz, where the default split points put the chorus), with a bass
// line below 150 Hz and a hi-hat on top that should come through the effect untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sr::cli {

struct DemoSignal {
    static constexpr int kSampleRate = 48000;
    static constexpr std::uint32_t kChannels = 2;

    std::vector<float> samples; // interleaved stereo

    std::size_t frames() const { return samples.size() / kChannels; }
    double seconds() const { return double(frames()) / kSampleRate; }
};

// About 12 s, peaking at -6 dBFS. Deterministic: the same samples on every run and machine.
DemoSignal makeDemoSignal();

} // namespace sr::cli
