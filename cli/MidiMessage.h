// One MIDI message on the renderer's timeline.
#pragma once

#include <cstdint>
#include <vector>

namespace sr::cli {

struct TimedMidiMessage {
    std::int64_t frame;              // sample frame from the start of the render
    std::vector<std::uint8_t> bytes; // one complete message, status byte first

    bool operator==(const TimedMidiMessage&) const = default;
};

} // namespace sr::cli
