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

} // namespace sr::editor
