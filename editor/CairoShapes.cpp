#include "editor/CairoShapes.h"

#include <algorithm>
#include <numbers>

namespace sr::editor {

void roundedRect(cairo_t* cr, const CGRect& rect, double radius) {
    const CGRect r = rect.standardized();
    const double rad = std::clamp(radius, 0.0, std::min(r.width(), r.height()) / 2);
    const double x0 = r.minX(), y0 = r.minY(), x1 = r.maxX(), y1 = r.maxY();
    constexpr double q = std::numbers::pi / 2;
    cairo_new_sub_path(cr);
    cairo_arc(cr, x1 - rad, y0 + rad, rad, -q, 0);
    cairo_arc(cr, x1 - rad, y1 - rad, rad, 0, q);
    cairo_arc(cr, x0 + rad, y1 - rad, rad, q, 2 * q);
    cairo_arc(cr, x0 + rad, y0 + rad, rad, 2 * q, 3 * q);
    cairo_close_path(cr);
}

void triangle(cairo_t* cr, double x, double y, double halfWidth, double height, double degrees) {
    cairo_save(cr);
    cairo_translate(cr, x, y);
    cairo_rotate(cr, degrees * std::numbers::pi / 180);
    cairo_move_to(cr, -halfWidth, 0);
    cairo_line_to(cr, halfWidth, 0);
    cairo_line_to(cr, 0, -height);
    cairo_close_path(cr);
    cairo_restore(cr);
}

void circle(cairo_t* cr, double cx, double cy, double radius) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, cx, cy, radius, 0, 2 * std::numbers::pi);
    cairo_close_path(cr);
}

void recessedGlass(cairo_t* cr, const CGRect& r, double radius, const UIColor& fill, double shade) {
    roundedRect(cr, r, radius);
    fill.set(cr);
    cairo_fill_preserve(cr);
    cairo_pattern_t* inset = cairo_pattern_create_linear(0, r.minY(), 0, r.maxY());
    UIColor::black().withAlpha(0.22).addStop(inset, 0);
    UIColor::black().withAlpha(0.0).addStop(inset, std::min(1.0, shade / r.height()));
    UIColor::white().withAlpha(0.03).addStop(inset, 1);
    cairo_set_source(cr, inset);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(inset);
    UIColor::systemGray().set(cr);
    cairo_set_line_width(cr, 0.5);
    cairo_stroke(cr);
}

} // namespace sr::editor
