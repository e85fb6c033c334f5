// Mouse input for the panel, the same in every window system: a left-button press, its drags
// and its release become the panel's touches (a release outside the window is still a release;
// a grab taken away is a cancel); a second press soon after on the same value resets it to its
// default; the wheel steps values; the cursor shows what lies under the pointer.
// Threading: the view's thread.
#pragma once

#include <functional>
#include <string>

#include "editor/TAVSRChorusView.h"

namespace sr::editor {

class PanelPointer {
public:
    // Two presses this close in time and space make a double click.
    static constexpr double kDoubleClickSeconds = 0.4;
    static constexpr double kDoubleClickDistance = 5.0;

    explicit PanelPointer(TAVSRChorusView& view) : view(view) {}

    // Positions in window coordinates (the view's frame is taken off); `seconds` from any
    // steady clock.
    void press(CGPoint location, double seconds);
    void motion(CGPoint location);
    void release(CGPoint location);
    // The window lost the pointer grab (another window took it, the window was unmapped).
    void grabLost();
    // `steps` wheel notches, positive away from the user (up).
    void wheel(CGPoint location, int steps, bool fine);

    bool isDragging() const { return dragging; }
    // A double click where there is no control (the background, or beside the panel).
    std::function<void()> onBackgroundDoubleClick;
    PanelCursor cursorAt(CGPoint location) { return view.cursorAt(inView(location)); }

private:
    CGPoint inView(CGPoint p) const { return {p.x - view.frame.minX(), p.y - view.frame.minY()}; }

    TAVSRChorusView& view;
    bool dragging = false;
    bool havePress = false;
    double lastPressSeconds = 0;
    CGPoint lastPress;
    std::string lastMode;
};

} // namespace sr::editor
