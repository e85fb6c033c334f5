// An X11 window showing the editor: Xlib and cairo-xlib, double-buffered through a pixmap that
// is drawn again only when the panel changed (an expose copies from it), pointer and keys mapped
// onto the editor (PanelInput), cursor hints. Embedded into a parent window (a plug-in host's) or
// top-level (the standalone app). Nothing runs by itself: the owner calls processEvents() when the
// display connection has input (connectionNumber()) or on its idle tick, never in a busy loop.
// Each window has its own display connection, so several windows in one process are
// independent. A connection the X server drops (the server ended, the window was killed) ends
// nothing but the window: lost() turns true and every call does nothing from then on.
// Threading: one thread, the owner's.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "editor/AudioUnitViewController.h"
#include "editor/PanelInput.h"

typedef struct _XDisplay Display;
typedef struct _cairo_surface cairo_surface_t;

namespace sr::x11 {

class PanelWindow {
public:
    // The smallest size the window asks for; it may be resized freely above it.
    static constexpr int kMinimumWidth = 256;
    static constexpr int kMinimumHeight = 100;

    // `parent` 0 makes a top-level window titled `title` (UTF-8), of the window class
    // `windowClass` when one is given (what desktop files match it by). After construction
    // check ok().
    PanelWindow(editor::AudioUnitViewController& controller, std::uintptr_t parent, int width,
                int height, const std::string& title, const std::string& windowClass = {});
    ~PanelWindow();
    PanelWindow(const PanelWindow&) = delete;
    PanelWindow& operator=(const PanelWindow&) = delete;

    bool ok() const { return window != 0; }
    const std::string& error() const { return error_; }
    std::uintptr_t windowId() const { return window; }
    // The display connection's file descriptor, for a poll() of the owner's; -1 once lost.
    int connectionNumber() const;
    // The X server dropped the connection.
    bool lost() const { return lost_; }
    int width() const { return width_; }
    int height() const { return height_; }

    // Handles every pending event without waiting, then draws what changed. Returns how many
    // events it handled.
    int processEvents();
    // One turn of the owner's loop: the controller's main queue (values the unit changed), its
    // poll of the unit when kTimerInterval has passed since the last one, then processEvents().
    // Called often enough (the LV2 host's idle calls, the app's main loop), it never waits.
    void idle();
    void resize(int width, int height);
    // A top-level window's title, in UTF-8.
    void setTitle(const std::string& title);
    // A top-level window's close button was pressed.
    bool closeRequested() const { return closeRequested_; }
    // Back-buffer redraws so far (for tests of what an idle window does).
    std::uint64_t redraws() const { return redraws_; }

private:
    void handle(const void* event);
    void ensureBackBuffer();
    void releaseBackBuffer();
    void redraw();
    void copyToWindow(int x, int y, int w, int h);
    void updateCursor(int x, int y);
    void followParent();
    // An embedded window gets keys only when it asks for the keyboard focus: it does while
    // something over the panel takes typed keys, and gives the focus back after.
    void takeFocus(unsigned long time);
    void releaseFocus();
    bool isAncestor(std::uintptr_t candidate) const;
    static void connectionLost(Display* display, void* self);
    // The server closed the connection (seen on the socket, without Xlib).
    bool connectionClosed() const;

    editor::AudioUnitViewController& controller;
    editor::PanelInput input;
    Display* display = nullptr;
    std::uintptr_t window = 0;
    std::uintptr_t parentWindow = 0; // when embedded
    std::uintptr_t pixmap = 0;
    void* gc = nullptr;
    void* visual = nullptr;
    int depth = 0;
    cairo_surface_t* backSurface = nullptr;
    int width_ = 0, height_ = 0;
    int bufferWidth = 0, bufferHeight = 0;
    bool bufferValid = false;
    bool sizeChanged = true;
    std::uintptr_t cursors[5] = {};
    bool focusTaken = false;
    std::uintptr_t previousFocus = 0;
    int cursorShown = -1;
    std::uintptr_t deleteAtom = 0;
    bool closeRequested_ = false;
    bool mapped = false;
    bool lost_ = false;
    std::chrono::steady_clock::time_point nextTimer;
    std::uint64_t redraws_ = 0;
    std::string error_;
};

} // namespace sr::x11
