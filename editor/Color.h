// Colours of the drawn panels: RGBA components 0..1, as the drawing sets them on Cairo.
#pragma once

#include <cairo.h>

namespace sr::editor {

struct UIColor {
    double red = 0, green = 0, blue = 0, alpha = 1;

    static constexpr UIColor grey(double white, double alpha = 1.0) {
        return {white, white, white, alpha};
    }
    constexpr UIColor withAlpha(double a) const { return {red, green, blue, a}; }
    // Mixed toward `other` by t (0 keeps this colour, 1 gives the other).
    constexpr UIColor mixed(const UIColor& other, double t) const {
        return {red + (other.red - red) * t, green + (other.green - green) * t,
                blue + (other.blue - blue) * t, alpha + (other.alpha - alpha) * t};
    }
    bool operator==(const UIColor&) const = default;

    void set(cairo_t* cr) const { cairo_set_source_rgba(cr, red, green, blue, alpha); }
    void addStop(cairo_pattern_t* pattern, double offset) const {
        cairo_pattern_add_color_stop_rgba(pattern, offset, red, green, blue, alpha);
    }

    // The platform's stock colours the panels use.
    static constexpr UIColor systemGray() { return {0.557, 0.557, 0.576, 1.0}; }
    static constexpr UIColor lightGray() { return grey(2.0 / 3.0); }
    static constexpr UIColor white() { return grey(1.0); }
    static constexpr UIColor black() { return grey(0.0); }
};

} // namespace sr::editor
