#include "kernel/SplitFrequencies.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "kernel/BandSplitFilter3.h"

namespace sr {

namespace {

// One filter's coefficients as the splitter would set them.
struct Coefficients {
    double f, q, scale; // scale: the input halving times the output gain
};

Coefficients coefficients(float cutoff, double sampleRate) {
    SVFilter4Pole1 filter;
    filter.setSamplerate(float(sampleRate));
    filter.setCutoff(cutoff);
    return {filter.getF(), filter.getQ(), 0.5 * filter.getGain()};
}

// The two outputs of one integrator stage for input h, with D = 1 - z^-1:
//   high = D^2 / den,  low = f^2 z^-1 / den,  den = D^2 + f^2 z^-1 + q f z^-1 D.
// The stages run side by side on the same input, so the last one read answers for all.
struct StageResponse {
    std::complex<double> high, low;
};

StageResponse stage(const Coefficients& c, std::complex<double> zInverse) {
    const std::complex<double> d = 1.0 - zInverse;
    const std::complex<double> den = d * d + c.f * c.f * zInverse + c.q * c.f * zInverse * d;
    return {c.scale * d * d / den, c.scale * c.f * c.f * zInverse / den};
}

struct SplitFilters {
    Coefficients lowPass, highPass;
    double rate;
};

SplitFilters filters(float lowerValue, float upperValue, double sampleRate) {
    // The kernel's limits: each point is held on its side of the other, then square-rooted.
    const float lower = std::clamp(std::min(lowerValue, upperValue), 0.0f, 1.0f);
    const float upper = std::clamp(std::max(lowerValue, upperValue), 0.0f, 1.0f);
    return {coefficients(std::sqrt(lower), sampleRate), coefficients(std::sqrt(upper), sampleRate),
            sampleRate};
}

// The splitter's bands: high = HP(x), rest = x - high, low = LP(rest), middle = rest - low.
BandResponse bands(const SplitFilters& s, double hz) {
    const std::complex<double> zInverse = std::polar(1.0, -2.0 * std::numbers::pi * hz / s.rate);
    const std::complex<double> high = stage(s.highPass, zInverse).high;
    const std::complex<double> rest = 1.0 - high;
    const std::complex<double> low = stage(s.lowPass, zInverse).low * rest;
    return {low, rest - low, high};
}

// The lowest frequency from `from` (1 Hz unless a lower one is known to be passed) up at which
// `above` stops being true.
template <typename Above>
double crossing(const SplitFilters& s, Above above, double from = 1.0) {
    const double nyquist = s.rate / 2;
    double lo = from, hi = from;
    while (above(bands(s, hi))) {
        if (hi >= nyquist) return nyquist;
        lo = hi;
        hi = std::min(hi * 1.02, nyquist);
    }
    if (hi == lo) return hi;
    for (int i = 0; i < 40; ++i) {
        const double mid = std::sqrt(lo * hi);
        (above(bands(s, mid)) ? lo : hi) = mid;
    }
    return std::sqrt(lo * hi);
}

bool lowAboveMiddle(const BandResponse& b) {
    return std::abs(b.low) > std::abs(b.middle);
}

bool middleAboveHigh(const BandResponse& b) {
    return std::abs(b.middle) > std::abs(b.high);
}

// A law's table: crossing(i) for each value in turn, each search from the last crossing
// while the values rise.
template <typename Filters, typename Above>
void crossings(const float* values, int count, Filters filtersAt, Above above, double* hz) {
    double from = 1.0;
    for (int i = 0; i < count; ++i) {
        if (i > 0 && values[i] < values[i - 1]) from = 1.0;
        hz[i] = from = crossing(filtersAt(values[i]), above, from);
    }
}

} // namespace

SplitFrequencies splitFrequencies(float lowerValue, float upperValue, double sampleRate) {
    const SplitFilters s = filters(lowerValue, upperValue, sampleRate);
    return {crossing(s, lowAboveMiddle), crossing(s, middleAboveHigh)};
}

void lowerCrossings(const float* values, int count, double sampleRate, double* hz) {
    crossings(
        values, count, [&](float v) { return filters(v, 1.0f, sampleRate); }, lowAboveMiddle, hz);
}

void upperCrossings(float lowerValue, const float* values, int count, double sampleRate,
                    double* hz) {
    crossings(
        values, count, [&](float v) { return filters(lowerValue, v, sampleRate); }, middleAboveHigh,
        hz);
}

BandResponse bandResponse(float lowerValue, float upperValue, double sampleRate, double hz) {
    return bands(filters(lowerValue, upperValue, sampleRate), hz);
}

void formatHz(double hz, char* text, int size) {
    if (size <= 0) return;
    if (!std::isfinite(hz) || hz < 0.0) hz = 0.0;
    if (hz < 999.5)
        std::snprintf(text, std::size_t(size), "%.0f Hz", hz);
    else if (hz < 9995.0)
        std::snprintf(text, std::size_t(size), "%.2f kHz", hz / 1000.0);
    else
        std::snprintf(text, std::size_t(size), "%.1f kHz", hz / 1000.0);
}

} // namespace sr
