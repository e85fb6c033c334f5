#include "util/Modulator.h"

#include <cmath>

#include "util/SafeConvert.h"

Modulator::Modulator() {
    (void)waveRampLogUp();
}

const std::array<float, Modulator::kTableSize>& Modulator::waveRampLogUp() {
    static const std::array<float, kTableSize> table = [] {
        std::array<float, kTableSize> t{};
        for (int i = 0; i < kTableSize; ++i) {
            const double x = double(i) / kTableSize;
            t[i] = float(x * (440.0 * std::pow(2.0, 10.0 * x - 5.0)) / (440.0 * 32.0));
        }
        return t;
    }();
    return table;
}

float Modulator::getValueFrequencyScaled(float value) {
    const auto i = sr::truncSaturate<long long>(std::fabs(value) * float(kTableSize));
    float v;
    if (i < 0) {
        v = 0.0f;
    } else if (i >= kTableSize) {
        v = 1.0f;
    } else {
        v = waveRampLogUp()[size_t(i)];
    }
    return value < 0.0f ? -v : v;
}
