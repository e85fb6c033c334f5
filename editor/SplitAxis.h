// The split bar's frequency axis. A split value v sits at x = 54 + 919 v on the bar, and the
// axis puts there the frequency at which a split point at v divides the bands, so each handle
// stands exactly on its own crossing: the lower point's law (its crossing does not depend on
// the upper point) holds up to the lower handle, the upper point's law (which depends on where
// the lower point is) from the upper handle on, and between the handles the axis passes from
// the one to the other. It rises with v everywhere, so a frequency has one place on the bar.
// Threading: one thread, the owner's.
#pragma once

#include <vector>

namespace sr::editor {

class SplitAxis {
public:
    // Follows the split values and the rate; recomputes only the laws that changed.
    void update(double lowerValue, double upperValue, double sampleRate);

    // The frequency at split value v (0..1); rising, flat only where the filters reach no lower.
    double hz(double value) const;
    // The smallest split value whose frequency is at least `hz` (0 below the axis, 1 above).
    double value(double hz) const;
    // The two points' crossings, as the filters make them.
    double lowerHz() const { return lowerCrossing; }
    double upperHz() const { return upperCrossing; }
    double sampleRate() const { return rate; }
    // The split values it was made for, lower first.
    double lowerValue() const { return lower; }
    double upperValue() const { return upper; }

    // Values per table step of each law, between which the law is interpolated (in log Hz).
    static constexpr int kSteps = 512;

private:
    static double interpolate(const std::vector<double>& logHz, double value);

    double rate = 0.0;
    double lower = -1.0, upper = -1.0;
    double tableLower = -1.0;               // the lower value the upper law's table was made for
    std::vector<double> lowerLaw, upperLaw; // log Hz at i / kSteps
    double lowerCrossing = 0.0, upperCrossing = 0.0;
    // log of the ratios that make each piece meet the exact crossings.
    double lowerFix = 0.0, upperFix = 0.0, middleRise = 0.0;
};

} // namespace sr::editor
