// The panel as an input device: maps presses, drags and releases (in view coordinates) onto
// its controls by hit-testing the drawing object's hotspots, changes their values by the drag
// law, and asks its delegate to set the parameters; takes parameter values from the host
// controller. Also the extras of a desktop panel: reset to default, wheel steps, cursor hints.
// Threading: one thread, the one that owns the view.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <functional>
#include <string>

#include "editor/TAVSRChorusViewBase.h"

namespace sr {
class LogChannel;
}

namespace sr::editor {

class AudioUnitViewController;
class EditorAudioUnit;

class TAVSRChorusViewDelegate {
public:
    virtual ~TAVSRChorusViewDelegate() = default;
    // The panel asks that a parameter be set.
    virtual void onTAVSRChorusViewParameter(std::int64_t address, float value) = 0;
    // A panel event: code 0 carries the display contrast, code 1000 the Presets button.
    virtual void onTAVSRChorusViewOption(std::int64_t address, float value) = 0;
};

// The control events the panel emits, as the platform's bits.
enum UIControlEvents : unsigned {
    UIControlEventTouchDown = 1,
    UIControlEventTouchUpInside = 64,
    UIControlEventTouchUpOutside = 128,
    UIControlEventValueChanged = 4096,
};

// What a pointer over the panel may do there, for the host to show as a cursor.
enum class PanelCursor { arrow, press, dragHorizontal, dragVertical, text };

class TAVSRChorusView {
public:
    static constexpr std::int64_t kOptionContrast = 0;
    static constexpr std::int64_t kOptionPresets = 1000;
    // Drag divisors: the split points move five times slower than knobs and fields.
    static constexpr float kSplitDivisor = 500;
    static constexpr float kKnobDivisor = 100;
    static constexpr double kMinimumSplitGap = 0.05;

    TAVSRChorusView();

    AudioUnitViewController* viewController = nullptr;
    TAVSRChorusViewDelegate* delegate = nullptr;
    TAVSRChorusViewBase baseClass;
    std::string hotspotMode;
    CGPoint startLocation;
    double startValue = 0;
    double scaler = 1.0;
    double savedValue = 0;
    double savedValue2 = 0;
    int lastIndex = 0;

    // Where the view lies in its window, and its own rectangle (origin 0, 0): touch positions
    // are in the view's own coordinates.
    CGRect frame{0, 0, 1024, 400};
    CGRect bounds{0, 0, 1024, 400};
    // Called when the panel needs drawing again.
    std::function<void()> needsDisplay;
    // Receives the control events.
    std::function<void(unsigned)> controlEvents;

    EditorAudioUnit* audioUnit() const;
    // The host controller's log, standard output without one.
    LogChannel& log() const;

    // From the host controller: a parameter's value changed in the unit.
    void setParameter(std::int64_t address, float value);
    void setContrast(double contrast);
    void setFocus(bool) { setNeedsDisplay(); }
    void draw(cairo_t* cr) { baseClass.drawMain(cr, bounds); }

    // Pointer entry points, positions in view coordinates.
    void touchesBegan(CGPoint location);
    void touchesMoved(CGPoint location);
    void touchesEnded(CGPoint location);
    void touchesCancelled();

    // The control under a point in view coordinates, as a press there would find it; nothing
    // changes.
    std::string hotspotAt(CGPoint location);
    PanelCursor cursorAt(CGPoint location);
    // Sets the value or controller under `mode` to its parameter's default, as one gesture.
    // False when the mode names no value or controller.
    bool resetToDefault(const std::string& mode);
    // Moves the value under `mode` by `steps` (positive raises) of 1/127 of its range, or of
    // 1/1270 when `fine`; a controller field moves by whole numbers. One gesture.
    bool nudge(const std::string& mode, int steps, bool fine);

    // One row of the control table (hotspot, held flag, what a drag does, the address).
    struct Control;

    bool isDirty() const { return dirty; }
    void clearDirty() { dirty = false; }
    void setNeedsDisplay();

private:
    static const Control* control(const std::string& mode);
    void setHotspotMode(CGPoint location);
    bool hitTest(CGPoint location, const CGRect& path) const { return path.contains(location); }
    void updateDisplay(std::int64_t address);
    // Applies a new value by the mode's rules (the split gap, the range pair) and sends it.
    void applyValue(const Control& c, double value, double value2);
    void send(std::int64_t address, float value);
    void setTouchesLocked(bool locked);
    void emit(unsigned events);

    bool dirty = true;
};

} // namespace sr::editor
