// What the split bar shows of the input's spectrum: one level per canvas unit of the bar
// (x = 54 + column), taken from the analyser's bins through the bar's frequency axis, tilted
// by 3 dB per octave about 1 kHz (so that music reads about level), with ballistics: a rise
// shows at once, a fall eases off over a quarter of a second. Also the level of the chorused
// (middle) band against the whole: the input's level through the band's own response.
// Threading: one thread, the owner's.
#pragma once

#include <array>
#include <vector>

#include "editor/SplitAxis.h"

namespace sr::editor {

class SpectrumDisplay {
public:
    static constexpr int kColumns = 920;
    static constexpr double kLeft = 54; // the canvas x of column 0
    // The levels the bar's height spans, after the tilt.
    static constexpr float kTopDb = -12.0f;
    static constexpr float kBottomDb = -90.0f;
    static constexpr double kTiltDbPerOctave = 3.0;
    static constexpr double kAttackSeconds = 0.01;
    static constexpr double kReleaseSeconds = 0.25;

    SpectrumDisplay() { clear(); }

    // A new spectrum (dB per bin of `binHz`), `seconds` after the last one; 0 takes it as it is.
    void update(const std::vector<float>& binsDb, double binHz, const SplitAxis& axis,
                double seconds);
    // Nothing new came for `seconds`: the levels fall as they would with silence.
    void fall(double seconds);
    void clear();
    // Anything stands above the floor.
    bool visible() const { return shown; }

    // A column's level in dB (kBottomDb at the floor), and the chorused band's.
    float input(int column) const { return levels[std::size_t(column)]; }
    float band(int column) const {
        return levels[std::size_t(column)] + bandGain[std::size_t(column)];
    }
    // Follows the axis's split values and rate: the band's gain at each column.
    void follow(const SplitAxis& axis);

    // The frequency of each column's centre, as the last update mapped it.
    double columnHz(int column) const { return centreHz[std::size_t(column)]; }

private:
    std::array<float, kColumns> levels{}, bandGain{};
    std::array<double, kColumns> centreHz{};
    double gainLower = -1, gainUpper = -1, gainRate = 0;
    bool shown = false;
};

} // namespace sr::editor
