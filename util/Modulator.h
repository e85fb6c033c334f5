// The modulation-curve tables the filters read. Only the logarithmic frequency ramp is used:
// it maps a 0..1 control onto a 0..1 frequency over ten octaves.
#pragma once

#include <array>

class Modulator {
public:
    static constexpr int kTableSize = 4096;

    // Constructing any Modulator guarantees the tables are filled.
    Modulator();

    // The process-wide ramp: entry i = x * 2^(10x - 10), x = i / 4096. Filled once, thread-safe.
    static const std::array<float, kTableSize>& waveRampLogUp();

    // The ramp at |value|, with the sign of value put back; 0 below, 1 beyond the table.
    static float getValueFrequencyScaled(float value);
};
