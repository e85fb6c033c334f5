#include "editor/SplitAxis.h"

#include <algorithm>
#include <cmath>

#include "kernel/SplitFrequencies.h"

namespace sr::editor {

namespace {

std::vector<float> tableValues() {
    std::vector<float> values(SplitAxis::kSteps + 1);
    for (int i = 0; i <= SplitAxis::kSteps; ++i)
        values[std::size_t(i)] = float(i) / SplitAxis::kSteps;
    return values;
}

std::vector<double> logOf(std::vector<double> hz) {
    for (double& h : hz) h = std::log(h);
    return hz;
}

} // namespace

void SplitAxis::update(double lowerValue, double upperValue, double sampleRate) {
    const double a = std::clamp(std::min(lowerValue, upperValue), 0.0, 1.0);
    const double b = std::clamp(std::max(lowerValue, upperValue), 0.0, 1.0);
    if (a == lower && b == upper && sampleRate == rate) return;
    static const std::vector<float> values = tableValues();
    std::vector<double> hz(values.size());
    if (sampleRate != rate || lowerLaw.empty()) {
        lowerCrossings(values.data(), int(values.size()), sampleRate, hz.data());
        lowerLaw = logOf(hz);
        tableLower = -1.0;
    }
    if (a != tableLower || sampleRate != rate) {
        upperCrossings(float(a), values.data(), int(values.size()), sampleRate, hz.data());
        upperLaw = logOf(hz);
        tableLower = a;
    }
    rate = sampleRate;
    lower = a;
    upper = b;
    const SplitFrequencies exact = splitFrequencies(float(a), float(b), rate);
    lowerCrossing = exact.lower;
    upperCrossing = exact.upper;
    lowerFix = std::log(lowerCrossing) - interpolate(lowerLaw, a);
    upperFix = std::log(upperCrossing) - interpolate(upperLaw, b);
    middleRise = std::log(upperCrossing) - (interpolate(lowerLaw, b) + lowerFix);
}

double SplitAxis::interpolate(const std::vector<double>& logHz, double value) {
    const double at = std::clamp(value, 0.0, 1.0) * kSteps;
    const int i = std::min(int(at), kSteps - 1);
    const double t = at - i;
    return logHz[std::size_t(i)] * (1 - t) + logHz[std::size_t(i) + 1] * t;
}

double SplitAxis::hz(double value) const {
    if (lowerLaw.empty()) return 0.0;
    const double v = std::clamp(value, 0.0, 1.0);
    double logHz;
    if (v > upper || (v == upper && upper > lower))
        logHz = interpolate(upperLaw, v) + upperFix;
    else if (v <= lower)
        logHz = interpolate(lowerLaw, v) + lowerFix;
    else
        logHz = interpolate(lowerLaw, v) + lowerFix + middleRise * (v - lower) / (upper - lower);
    return std::exp(logHz);
}

double SplitAxis::value(double target) const {
    if (lowerLaw.empty() || !(target > hz(0.0))) return 0.0;
    if (target > hz(1.0)) return 1.0;
    double lo = 0.0, hi = 1.0;
    for (int i = 0; i < 48; ++i) {
        const double mid = 0.5 * (lo + hi);
        (hz(mid) < target ? lo : hi) = mid;
    }
    return hi;
}

} // namespace sr::editor
