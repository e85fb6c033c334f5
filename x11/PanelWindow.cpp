#include "x11/PanelWindow.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/cursorfont.h>
#include <cairo-xlib.h>
#include <cairo.h>

#include <algorithm>

#include "platform/PrintQueue.h"

namespace sr::x11 {

namespace {

Window asWindow(std::uintptr_t w) {
    return Window(w);
}

} // namespace

PanelWindow::PanelWindow(editor::AudioUnitViewController& c, std::uintptr_t parent, int w, int h,
                         const std::string& title)
    : controller(c), pointer(c.pluginView), width_(std::max(w, 1)), height_(std::max(h, 1)) {
    display = XOpenDisplay(nullptr);
    if (!display) {
        error_ = "cannot open the X display (is DISPLAY set?)";
        return;
    }
    const int screen = DefaultScreen(display);
    const Window container = parent ? asWindow(parent) : RootWindow(display, screen);
    // The window takes its parent's visual and depth, so the parent may use any.
    XWindowAttributes parentAttributes;
    if (!XGetWindowAttributes(display, container, &parentAttributes)) {
        error_ = "the parent window does not exist";
        XCloseDisplay(display);
        display = nullptr;
        return;
    }
    visual = parentAttributes.visual;
    depth = parentAttributes.depth;

    XSetWindowAttributes attributes{};
    // No background: the server never clears what we are about to copy over anyway.
    attributes.background_pixmap = None;
    attributes.border_pixel = 0;
    attributes.colormap = parentAttributes.colormap;
    attributes.event_mask = ExposureMask | StructureNotifyMask | ButtonPressMask |
                            ButtonReleaseMask | PointerMotionMask | LeaveWindowMask;
    const Window created =
        XCreateWindow(display, container, 0, 0, unsigned(width_), unsigned(height_), 0, depth,
                      InputOutput, static_cast<Visual*>(visual),
                      CWBackPixmap | CWBorderPixel | CWColormap | CWEventMask, &attributes);
    window = created;

    // Any size from the minimum up, any proportion: the panel letterboxes itself.
    XSizeHints* hints = XAllocSizeHints();
    hints->flags = PMinSize | PSize | PBaseSize;
    hints->min_width = kMinimumWidth;
    hints->min_height = kMinimumHeight;
    hints->width = hints->base_width = width_;
    hints->height = hints->base_height = height_;
    XSetWMNormalHints(display, created, hints);
    XFree(hints);

    if (parent) {
        // The editor fills the window the host made for it, at whatever size the host gives
        // that window (some hosts size our window in their own units, not in pixels).
        parentWindow = parent;
        XSelectInput(display, asWindow(parent), StructureNotifyMask);
    } else {
        XStoreName(display, created, title.c_str());
        Atom atom = XInternAtom(display, "WM_DELETE_WINDOW", False);
        deleteAtom = atom;
        XSetWMProtocols(display, created, &atom, 1);
    }
    gc = XCreateGC(display, created, 0, nullptr);
    cursors[int(editor::PanelCursor::arrow)] = XCreateFontCursor(display, XC_left_ptr);
    cursors[int(editor::PanelCursor::press)] = XCreateFontCursor(display, XC_hand2);
    cursors[int(editor::PanelCursor::dragHorizontal)] =
        XCreateFontCursor(display, XC_sb_h_double_arrow);
    cursors[int(editor::PanelCursor::dragVertical)] =
        XCreateFontCursor(display, XC_sb_v_double_arrow);
    XMapRaised(display, created);
    XFlush(display);
}

PanelWindow::~PanelWindow() {
    if (!display) return;
    releaseBackBuffer();
    for (std::uintptr_t cursor : cursors)
        if (cursor) XFreeCursor(display, Cursor(cursor));
    if (gc) XFreeGC(display, static_cast<GC>(gc));
    if (window) XDestroyWindow(display, asWindow(window));
    XCloseDisplay(display);
}

int PanelWindow::connectionNumber() const {
    return display ? ConnectionNumber(display) : -1;
}

void PanelWindow::resize(int w, int h) {
    if (!ok()) return;
    XResizeWindow(display, asWindow(window), unsigned(std::max(w, 1)), unsigned(std::max(h, 1)));
    XFlush(display);
}

void PanelWindow::releaseBackBuffer() {
    if (backSurface) cairo_surface_destroy(backSurface);
    backSurface = nullptr;
    if (pixmap) XFreePixmap(display, Pixmap(pixmap));
    pixmap = 0;
    bufferValid = false;
}

void PanelWindow::ensureBackBuffer() {
    if (backSurface && bufferWidth == width_ && bufferHeight == height_) return;
    releaseBackBuffer();
    pixmap = XCreatePixmap(display, asWindow(window), unsigned(width_), unsigned(height_),
                           unsigned(depth));
    backSurface = cairo_xlib_surface_create(display, Pixmap(pixmap), static_cast<Visual*>(visual),
                                            width_, height_);
    bufferWidth = width_;
    bufferHeight = height_;
}

void PanelWindow::redraw() {
    ensureBackBuffer();
    cairo_t* cr = cairo_create(backSurface);
    controller.draw(cr, {0, 0, double(width_), double(height_)});
    cairo_destroy(cr);
    cairo_surface_flush(backSurface);
    controller.pluginView.clearDirty();
    bufferValid = true;
    sizeChanged = false;
    ++redraws_;
    copyToWindow(0, 0, width_, height_);
}

void PanelWindow::copyToWindow(int x, int y, int w, int h) {
    if (!bufferValid || !mapped) return;
    XCopyArea(display, Pixmap(pixmap), asWindow(window), static_cast<GC>(gc), x, y, unsigned(w),
              unsigned(h), x, y);
}

void PanelWindow::followParent() {
    XWindowAttributes parent;
    if (!parentWindow || !XGetWindowAttributes(display, asWindow(parentWindow), &parent)) return;
    if (parent.width > 1 && parent.height > 1 &&
        (parent.width != width_ || parent.height != height_))
        XResizeWindow(display, asWindow(window), unsigned(parent.width), unsigned(parent.height));
}

void PanelWindow::updateCursor(int x, int y) {
    const int shape = int(pointer.cursorAt({double(x), double(y)}));
    if (shape == cursorShown) return;
    cursorShown = shape;
    XDefineCursor(display, asWindow(window), Cursor(cursors[shape]));
}

void PanelWindow::handle(const void* raw) {
    const XEvent& event = *static_cast<const XEvent*>(raw);
    switch (event.type) {
    case Expose:
        // Only what the server lost is copied again; nothing is drawn.
        copyToWindow(event.xexpose.x, event.xexpose.y, event.xexpose.width, event.xexpose.height);
        break;
    case ConfigureNotify:
        if (parentWindow && event.xconfigure.window == asWindow(parentWindow)) {
            followParent();
            break;
        }
        if (event.xconfigure.window != asWindow(window)) break;
        if (event.xconfigure.width != width_ || event.xconfigure.height != height_) {
            width_ = std::max(event.xconfigure.width, 1);
            height_ = std::max(event.xconfigure.height, 1);
            sizeChanged = true;
            followParent();
        }
        break;
    case MapNotify:
        mapped = true;
        sizeChanged = true;
        break;
    case UnmapNotify:
        mapped = false;
        pointer.grabLost();
        break;
    case ButtonPress: {
        const editor::CGPoint p{double(event.xbutton.x), double(event.xbutton.y)};
        const bool fine = event.xbutton.state & ShiftMask;
        if (event.xbutton.button == Button1)
            pointer.press(p, double(event.xbutton.time) / 1000.0);
        else if (event.xbutton.button == Button4)
            pointer.wheel(p, 1, fine);
        else if (event.xbutton.button == Button5)
            pointer.wheel(p, -1, fine);
        break;
    }
    case ButtonRelease:
        // Also outside the window: the press's implicit grab brings the release here.
        if (event.xbutton.button == Button1)
            pointer.release({double(event.xbutton.x), double(event.xbutton.y)});
        break;
    case MotionNotify:
        if (pointer.isDragging())
            pointer.motion({double(event.xmotion.x), double(event.xmotion.y)});
        else
            updateCursor(event.xmotion.x, event.xmotion.y);
        break;
    case LeaveNotify:
        // Another client took the pointer away mid-drag: the drag is cancelled.
        if (event.xcrossing.mode == NotifyGrab) pointer.grabLost();
        break;
    case ClientMessage:
        if (deleteAtom && Atom(event.xclient.data.l[0]) == Atom(deleteAtom)) closeRequested_ = true;
        break;
    default:
        break;
    }
}

int PanelWindow::processEvents() {
    if (!ok()) return 0;
    int handled = 0;
    while (XPending(display)) {
        XEvent event;
        XNextEvent(display, &event);
        // Of a run of motion events only the last one matters (never one past a release).
        while (event.type == MotionNotify && XPending(display)) {
            XEvent next;
            XPeekEvent(display, &next);
            if (next.type != MotionNotify) break;
            XNextEvent(display, &event);
        }
        handle(&event);
        ++handled;
    }
    if (mapped && (sizeChanged || controller.pluginView.isDirty())) redraw();
    XFlush(display);
    return handled;
}

} // namespace sr::x11
