#include "editor/PanelInput.h"

#include <cmath>

#include "editor/AudioUnitViewController.h"

namespace sr::editor {

PanelInput::PanelInput(AudioUnitViewController& c) : controller(c), pointer(c.pluginView) {
    pointer.onBackgroundDoubleClick = [this] { controller.onDoubleTapGesture(); };
}

void PanelInput::press(CGPoint location, int button, unsigned, double seconds) {
    if (isDragging()) return; // one gesture at a time
    if (button == middle) {
        panning = true;
        panFrom = location;
        return;
    }
    if (button != left) return;
    if (controller.overlays.isOpen()) {
        overlayPressed = true;
        controller.overlays.press(location);
        return;
    }
    pointer.press(location, seconds);
}

void PanelInput::motion(CGPoint location) {
    if (pointer.isDragging()) return pointer.motion(location);
    if (panning) {
        controller.onPanGesture({location.x - panFrom.x, location.y - panFrom.y});
        panFrom = location;
        return;
    }
    if (controller.overlays.isOpen()) controller.overlays.motion(location);
}

void PanelInput::release(CGPoint location, int button) {
    if (button == middle) {
        panning = false;
        return;
    }
    if (button != left) return;
    if (pointer.isDragging()) return pointer.release(location);
    if (overlayPressed) {
        overlayPressed = false;
        controller.overlays.release(location);
    }
}

void PanelInput::wheel(CGPoint location, int steps, unsigned modifiers) {
    if (steps == 0) return;
    if (modifiers & kModifierControl) {
        controller.onPinchGesture(std::pow(kZoomStep, steps), location);
        return;
    }
    if (controller.overlays.isOpen()) return controller.overlays.wheel(location, steps);
    pointer.wheel(location, steps, modifiers & kModifierShift);
}

void PanelInput::grabLost() {
    panning = false;
    if (overlayPressed) {
        overlayPressed = false;
        // Nowhere: a pressed button is not activated.
        controller.overlays.release({-1e9, -1e9});
    }
    pointer.grabLost();
}

bool PanelInput::key(const PanelKeyEvent& event) {
    return controller.overlays.isOpen() && controller.overlays.key(event);
}

PanelCursor PanelInput::cursorAt(CGPoint location) {
    if (panning) return PanelCursor::press;
    if (controller.overlays.isOpen()) return controller.overlays.cursorAt(location);
    return pointer.cursorAt(location);
}

bool PanelInput::wantsKeyboard() const {
    return controller.overlays.wantsKeyboard();
}

} // namespace sr::editor
