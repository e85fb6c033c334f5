#include "editor/SpectrumDisplay.h"

#include <algorithm>
#include <cmath>

#include "editor/TAVSRChorusViewBase.h"
#include "kernel/SplitFrequencies.h"

namespace sr::editor {

namespace {

// The value at canvas x on the bar.
double valueAt(double x) {
    return (x - TAVSRChorusViewBase::kSplitLeft) / TAVSRChorusViewBase::kSplitWidth;
}

} // namespace

void SpectrumDisplay::clear() {
    levels.fill(kBottomDb);
    shown = false;
}

void SpectrumDisplay::follow(const SplitAxis& axis) {
    if (axis.lowerValue() == gainLower && axis.upperValue() == gainUpper &&
        axis.sampleRate() == gainRate)
        return;
    gainLower = axis.lowerValue();
    gainUpper = axis.upperValue();
    gainRate = axis.sampleRate();
    for (int c = 0; c < kColumns; ++c) {
        const double hz = axis.hz(valueAt(kLeft + c));
        const double gain =
            std::abs(bandResponse(float(gainLower), float(gainUpper), gainRate, hz).middle);
        bandGain[std::size_t(c)] = gain > 1e-9 ? float(20.0 * std::log10(gain)) : -180.0f;
    }
}

void SpectrumDisplay::update(const std::vector<float>& binsDb, double binHz, const SplitAxis& axis,
                             double seconds) {
    follow(axis);
    const double attack = seconds > 0 ? 1.0 - std::exp(-seconds / kAttackSeconds) : 1.0;
    const double release = seconds > 0 ? 1.0 - std::exp(-seconds / kReleaseSeconds) : 1.0;
    const std::size_t last = binsDb.size() - 1;
    // Each column's power: the mean of the bins inside it, or where the column is narrower
    // than a bin, the level between the two bins around its centre.
    std::array<double, kColumns> power;
    double edge = axis.hz(valueAt(kLeft - 0.5));
    for (int c = 0; c < kColumns; ++c) {
        const double centre = axis.hz(valueAt(kLeft + c));
        const double next = axis.hz(valueAt(kLeft + c + 0.5));
        centreHz[std::size_t(c)] = centre;
        const auto from = std::size_t(std::ceil(edge / binHz));
        const auto to = std::min(last, std::size_t(std::floor(next / binHz)));
        edge = next;
        double db;
        if (from <= to) {
            double sum = 0.0;
            for (std::size_t k = from; k <= to; ++k) sum += std::pow(10.0, binsDb[k] / 10.0);
            db = 10.0 * std::log10(sum / double(to - from + 1) + 1e-30);
        } else {
            const double at = std::min(centre / binHz, double(last));
            const auto k = std::min(std::size_t(at), last - 1);
            const double t = at - double(k);
            db = binsDb[k] * (1 - t) + binsDb[k + 1] * t;
        }
        power[std::size_t(c)] = std::pow(10.0, db / 10.0);
    }
    // A little smoothing across the columns, so that noise reads as a band and not as grass;
    // symmetric, so a tone's peak stays where it is.
    constexpr double kKernel[] = {1, 2, 3, 2, 1};
    shown = false;
    for (int c = 0; c < kColumns; ++c) {
        double sum = 0.0, weight = 0.0;
        for (int j = -2; j <= 2; ++j) {
            if (c + j < 0 || c + j >= kColumns) continue;
            sum += kKernel[j + 2] * power[std::size_t(c + j)];
            weight += kKernel[j + 2];
        }
        float db = float(10.0 * std::log10(sum / weight + 1e-30) +
                         kTiltDbPerOctave * std::log2(centreHz[std::size_t(c)] / 1000.0));
        db = std::max(db, kBottomDb);
        float& level = levels[std::size_t(c)];
        level += float((db - level) * (db > level ? attack : release));
        if (level > kBottomDb + 0.05f)
            shown = true;
        else
            level = kBottomDb;
    }
}

void SpectrumDisplay::fall(double seconds) {
    if (!shown) return;
    const double release = 1.0 - std::exp(-seconds / kReleaseSeconds);
    shown = false;
    for (float& level : levels) {
        level += float((kBottomDb - level) * release);
        if (level > kBottomDb + 0.05f)
            shown = true;
        else
            level = kBottomDb;
    }
}

} // namespace sr::editor
