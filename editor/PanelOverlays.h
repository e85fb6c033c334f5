// What the editor shows over its panel, inside the panel's own window and in the panel's own
// style: the preset browser, the file picker of import and export, and alerts (one at a time,
// above everything). Drawn with Cairo and Pango onto the panel's 1024 x 400 canvas as it fits
// the window (zoom and pan of the panel do not move them); takes the pointer and the keys while
// anything is open, so the panel under them is never touched by accident.
// Threading: the view's thread.
#pragma once

#include <cairo.h>

#include <array>
#include <bitset>
#include <optional>
#include <string>
#include <vector>

#include "editor/FilePicker.h"
#include "editor/Geometry.h"
#include "editor/PanelAlert.h"
#include "editor/PanelKey.h"
#include "editor/PanelText.h"
#include "editor/TAVSRChorusView.h"
#include "kernel/ParameterTable.h"

namespace sr::editor {

class AudioUnitViewController;

class PanelOverlays {
public:
    // Canvas geometry of the browser and picker card and of a list's rows.
    static constexpr CGRect kCard{56, 20, 912, 360};
    static constexpr double kRowHeight = 24;
    static constexpr double kWheelRows = 3;

    explicit PanelOverlays(AudioUnitViewController& controller) : controller(controller) {}

    bool browserShown = false;
    std::optional<FilePicker> picker;
    std::vector<PanelAlert> alerts;

    bool isOpen() const { return browserShown || picker || !alerts.empty(); }
    // Anything open takes typed keys, so the window asks for the keyboard.
    bool wantsKeyboard() const { return isOpen(); }

    void showBrowser();
    void closeBrowser();
    void showPicker(FilePicker p);
    void closePicker();
    void showAlert(PanelAlert alert);
    // Runs an action of the top alert: the alert goes first, then its handler runs (and may
    // show the next alert).
    void runAlertAction(std::size_t index);

    // Draws a veil over `bounds` and what is open on the canvas fitted into `bounds`.
    void draw(cairo_t* cr, const CGRect& bounds);

    // Pointer and keys, in window coordinates, while isOpen().
    void press(CGPoint window);
    void motion(CGPoint window);
    void release(CGPoint window);
    void wheel(CGPoint window, int steps);
    bool key(const PanelKeyEvent& event);
    PanelCursor cursorAt(CGPoint window);

    // A clickable part of the top layer, in canvas units, and what it is called.
    struct Region {
        CGRect rect;
        std::string id;
    };
    std::vector<Region> regions() const;
    // The canvas point of a window point, and back.
    CGPoint toCanvas(CGPoint window) const;
    CGPoint toWindow(CGPoint canvas) const;
    // The centre of a region by id, in window coordinates (for tests and scripted input).
    std::optional<CGPoint> windowPointOf(const std::string& id) const;
    // Where a list row is, in window coordinates, if it is scrolled into view.
    std::optional<CGPoint> windowPointOfRow(std::size_t row) const;

    // The first row shown at the top of the open list, and how many fit.
    double scrollOffset() const;
    static int visibleRows(const CGRect& rowsRect) { return int(rowsRect.height() / kRowHeight); }

private:
    enum class Layer { none, browser, picker, alert };
    Layer top() const;
    std::vector<Region> regions(Layer layer) const;
    // The list of that layer has more rows than fit: it has a scroll bar.
    bool scrolls(Layer layer) const;
    // The rows area of the top list, and its rows.
    CGRect listRowsRect() const;
    static CGRect listRowsRect(Layer layer);
    std::size_t listCount() const;
    std::optional<std::size_t> listSelection() const;
    void setListSelection(std::size_t row);
    void chooseListRow(std::size_t row);
    void ensureVisible(std::size_t row, Layer layer);
    void scrollBy(double rows);
    CGRect alertCard() const;
    CGRect alertFieldRect() const;
    std::vector<Region> alertRegions() const;
    void activate(const std::string& id);
    bool listKey(const PanelKeyEvent& event);
    bool alertKey(const PanelKeyEvent& event);
    void setBrightnessAt(double canvasX);
    void setCaretAt(double canvasX, bool extend);
    void setNeedsDisplay();

    void drawBrowser(cairo_t* cr);
    void drawPicker(cairo_t* cr);
    void drawAlert(cairo_t* cr, const PanelAlert& alert);
    void drawCard(cairo_t* cr, const CGRect& r);
    void drawGlass(cairo_t* cr, const CGRect& r);
    void drawGroove(cairo_t* cr);
    void drawButton(cairo_t* cr, const Region& region, const std::string& label, bool selected,
                    bool enabled);
    void drawList(cairo_t* cr, const CGRect& rows, const std::vector<FileItem>& items,
                  std::optional<std::size_t> selected, double offset, bool ticks);
    void drawScrollbar(cairo_t* cr, const CGRect& rows, std::size_t count, double offset);
    void drawDetails(cairo_t* cr, const CGRect& r);
    void drawSlider(cairo_t* cr, const CGRect& r, double value);
    void drawTextField(cairo_t* cr, const CGRect& r, const TextField& field);

    // What the selected preset file holds, read once per file (and again when it changes), so
    // the browser shows its settings, or why it cannot be loaded, before it is chosen.
    struct Preview {
        std::string path;
        long long stamp = 0;
        bool ok = false;
        std::string reason;
        std::array<float, kParameterCount> values{};
        std::bitset<kParameterCount> has;
    };
    const Preview& previewOf(const std::string& path);

    AudioUnitViewController& controller;
    // Layouts are kept between drawings and measured in const members too.
    mutable PanelText text;
    Preview preview;
    // The canvas fitted into the window at the last drawing.
    CGRect fitted{0, 0, 1024, 400};
    double browserOffset = 0;
    double pickerOffset = 0;
    std::optional<std::size_t> hoverRow;
    std::string hoverId;
    std::string pressedId;
    bool draggingThumb = false;
    double thumbGrab = 0;
    bool draggingSlider = false;
    bool selectingText = false;
    double fieldScroll = 0;
};

} // namespace sr::editor
