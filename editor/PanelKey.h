// Keys as the editor's overlays take them, the same from every window system: the keys a list
// and a text field act on, and typed text as UTF-8.
#pragma once

#include <string>

namespace sr::editor {

enum class PanelKey {
    text, // typed text, in `text` (a space too)
    backspace,
    deleteForward,
    left,
    right,
    up,
    down,
    home,
    end,
    pageUp,
    pageDown,
    enter,
    escape,
    tab,
    other
};

struct PanelKeyEvent {
    PanelKey key = PanelKey::other;
    std::string text;
    bool shift = false;
    bool control = false;
};

// Modifier bits of pointer input (the same bits as X11's state).
enum PanelModifier : unsigned { kModifierShift = 1, kModifierControl = 4 };

} // namespace sr::editor
