// A window's pointer and keys for the editor, the same in every window system: what is open
// over the panel (alerts, the file picker, the preset browser) takes them first; then the
// panel's own gestures: Ctrl + wheel zooms the panel about the pointer, the middle button drags
// it around, a double click beside the controls puts it back; the rest goes to the panel's
// controls (PanelPointer).
// Threading: the view's thread.
#pragma once

#include "editor/PanelKey.h"
#include "editor/PanelPointer.h"

namespace sr::editor {

class AudioUnitViewController;

class PanelInput {
public:
    enum Button { left = 1, middle = 2, right = 3 };
    // One wheel notch with Ctrl held scales the panel by this.
    static constexpr double kZoomStep = 1.1;

    explicit PanelInput(AudioUnitViewController& controller);

    // Positions in window coordinates; `modifiers` of PanelModifier; `seconds` from any steady
    // clock.
    void press(CGPoint location, int button, unsigned modifiers, double seconds);
    void motion(CGPoint location);
    void release(CGPoint location, int button);
    // `steps` notches, positive away from the user.
    void wheel(CGPoint location, int steps, unsigned modifiers);
    // The window lost the pointer grab: drags end as cancelled.
    void grabLost();
    // True when the key was taken.
    bool key(const PanelKeyEvent& event);

    PanelCursor cursorAt(CGPoint location);
    // Something over the panel takes typed keys: the window should ask for the keyboard.
    bool wantsKeyboard() const;
    bool isDragging() const { return pointer.isDragging() || panning || overlayPressed; }

private:
    AudioUnitViewController& controller;
    PanelPointer pointer;
    bool panning = false;
    CGPoint panFrom;
    bool overlayPressed = false;
};

} // namespace sr::editor
