// The few path shapes the panels are made of.
#pragma once

#include <cairo.h>

#include "editor/Color.h"
#include "editor/Geometry.h"

namespace sr::editor {

void roundedRect(cairo_t* cr, const CGRect& r, double radius);
// A triangle with its base centred on (x, y), `halfWidth` to each side, its tip `height` above
// the base (negative: below), turned by `degrees` about (x, y).
void triangle(cairo_t* cr, double x, double y, double halfWidth, double height, double degrees);
void circle(cairo_t* cr, double cx, double cy, double radius);
// A recessed field of glass (the display, lists): `fill`, shaded along its top edge over
// `shade` units, with a thin system-grey rim.
void recessedGlass(cairo_t* cr, const CGRect& r, double radius, const UIColor& fill, double shade);

} // namespace sr::editor
