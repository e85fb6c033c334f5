#include "editor/PluginFrameBaseEx.h"

#include "editor/CairoShapes.h"

namespace sr::editor {

void PluginFrameBaseEx::draw(cairo_t* cr, const CGRect& frame, ResizingBehavior resizing) {
    cairo_save(cr);
    const CGRect design = frame.standardized();
    const CGRect fitted = apply(design, frame, resizing, *this);
    cairo_translate(cr, fitted.minX(), fitted.minY());
    if (design.width() > 0 && design.height() > 0)
        cairo_scale(cr, fitted.width() / design.width(), fitted.height() / design.height());
    const UIColor fill = UIColor::grey(contrast);
    const CGRect box = CGRect(0, 0, design.width(), design.height()).insetBy(2, 2);
    roundedRect(cr, box, 2);
    fill.set(cr);
    cairo_fill_preserve(cr);
    // A hairline a shade away from the fill, so the edge shows on dark and on light frames.
    fill.mixed(mainColor, 0.35).set(cr);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
    cairo_restore(cr);
}

PluginFrameEx::PluginFrameEx() : backgroundColor(UIColor::black()) {}

void PluginFrameEx::draw(cairo_t* cr, const CGRect& bounds) {
    cairo_save(cr);
    backgroundColor.set(cr);
    cairo_rectangle(cr, bounds.minX(), bounds.minY(), bounds.width(), bounds.height());
    cairo_fill(cr);
    cairo_restore(cr);
    baseClass.contrast = double(contrast);
    baseClass.mainColor = mainColor;
    baseClass.draw(cr, bounds);
}

} // namespace sr::editor
