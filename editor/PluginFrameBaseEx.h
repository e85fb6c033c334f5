// The plain frame view and its drawing object: a grey rounded rectangle filling whatever the
// host gives, behind the letterboxed panel.
#pragma once

#include <cairo.h>

#include "editor/Color.h"
#include "editor/ResizingBehavior.h"

namespace sr::editor {

class PluginFrameBaseEx {
public:
    using ResizingBehavior = editor::ResizingBehavior;

    double contrast = 0.25;
    UIColor mainColor = UIColor::lightGray();
    CGSize viewScale{1, 1};

    static CGRect apply(const CGRect& rect, const CGRect& target, ResizingBehavior behavior,
                        PluginFrameBaseEx& instance) {
        return applyResizing(behavior, rect, target, instance.viewScale);
    }
    // The frame has no design size of its own: it is drawn to the rectangle it is given.
    void draw(cairo_t* cr, const CGRect& frame,
              ResizingBehavior resizing = ResizingBehavior::aspectFit);
};

class PluginFrameEx {
public:
    PluginFrameEx();

    float contrast = 0.15f;
    UIColor mainColor = UIColor::lightGray();
    UIColor backgroundColor;
    PluginFrameBaseEx baseClass;

    // Fills `bounds` with the background colour, then draws the frame over it.
    void draw(cairo_t* cr, const CGRect& bounds);
};

} // namespace sr::editor
