#include "editor/PanelPointer.h"

#include <cmath>

namespace sr::editor {

void PanelPointer::press(CGPoint windowLocation, double seconds) {
    if (dragging) return; // a second button during a drag changes nothing
    const CGPoint location = inView(windowLocation);
    const std::string mode = view.hotspotAt(location);
    const bool quick =
        havePress && seconds - lastPressSeconds <= kDoubleClickSeconds &&
        std::hypot(location.x - lastPress.x, location.y - lastPress.y) <= kDoubleClickDistance;
    const bool again = quick && !mode.empty() && mode == lastMode;
    const bool backgroundTwice = quick && mode.empty() && lastMode.empty();
    havePress = !again && !backgroundTwice;
    lastPressSeconds = seconds;
    lastPress = location;
    lastMode = mode;
    // On a value or controller, the second click of a double click resets it; on a button it is
    // just another press.
    if (again && view.resetToDefault(mode)) return;
    if (backgroundTwice && onBackgroundDoubleClick) {
        onBackgroundDoubleClick();
        return;
    }
    view.touchesBegan(location);
    dragging = true;
}

void PanelPointer::motion(CGPoint location) {
    if (dragging) view.touchesMoved(inView(location));
}

void PanelPointer::release(CGPoint location) {
    if (!dragging) return;
    dragging = false;
    view.touchesEnded(inView(location));
}

void PanelPointer::grabLost() {
    if (!dragging) return;
    dragging = false;
    view.touchesCancelled();
}

void PanelPointer::wheel(CGPoint location, int steps, bool fine) {
    if (dragging || steps == 0) return;
    view.nudge(view.hotspotAt(inView(location)), steps, fine);
}

} // namespace sr::editor
