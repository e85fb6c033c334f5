#include "x11/PanelWindow.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/cursorfont.h>
#include <X11/keysym.h>
#include <cairo-xlib.h>
#include <cairo.h>
#include <poll.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <cstdlib>

#include "platform/PrintQueue.h"

namespace sr::x11 {

namespace {

Window asWindow(std::uintptr_t w) {
    return Window(w);
}

unsigned modifiersOf(unsigned state) {
    unsigned m = 0;
    if (state & ShiftMask) m |= editor::kModifierShift;
    if (state & ControlMask) m |= editor::kModifierControl;
    return m;
}

// A key as the editor takes it: the named keys, else the text the key types (as UTF-8, from its
// keysym, so any layout's letters arrive whole).
editor::PanelKeyEvent translateKey(XKeyEvent& event) {
    editor::PanelKeyEvent key;
    key.shift = event.state & ShiftMask;
    key.control = event.state & ControlMask;
    char latin[32];
    KeySym sym = NoSymbol;
    XLookupString(&event, latin, sizeof latin, &sym, nullptr);
    using K = editor::PanelKey;
    switch (sym) {
    case XK_BackSpace:
        key.key = K::backspace;
        return key;
    case XK_Delete:
    case XK_KP_Delete:
        key.key = K::deleteForward;
        return key;
    case XK_Left:
    case XK_KP_Left:
        key.key = K::left;
        return key;
    case XK_Right:
    case XK_KP_Right:
        key.key = K::right;
        return key;
    case XK_Up:
    case XK_KP_Up:
        key.key = K::up;
        return key;
    case XK_Down:
    case XK_KP_Down:
        key.key = K::down;
        return key;
    case XK_Home:
    case XK_KP_Home:
        key.key = K::home;
        return key;
    case XK_End:
    case XK_KP_End:
        key.key = K::end;
        return key;
    case XK_Page_Up:
    case XK_KP_Page_Up:
        key.key = K::pageUp;
        return key;
    case XK_Page_Down:
    case XK_KP_Page_Down:
        key.key = K::pageDown;
        return key;
    case XK_Return:
    case XK_KP_Enter:
        key.key = K::enter;
        return key;
    case XK_Escape:
        key.key = K::escape;
        return key;
    case XK_Tab:
    case XK_ISO_Left_Tab:
        key.key = K::tab;
        return key;
    default:
        break;
    }
    char utf8[16];
    const int n = xkb_keysym_to_utf8(xkb_keysym_t(sym), utf8, sizeof utf8);
    // n counts the terminating NUL; a control character is no text.
    if (n > 1 && static_cast<unsigned char>(utf8[0]) >= 0x20 && utf8[0] != 0x7F) {
        key.key = K::text;
        key.text.assign(utf8, std::size_t(n - 1));
    }
    return key;
}

} // namespace

PanelWindow::PanelWindow(editor::AudioUnitViewController& c, std::uintptr_t parent, int w, int h,
                         const std::string& title, const std::string& windowClass)
    : controller(c), input(c), width_(std::max(w, 1)), height_(std::max(h, 1)),
      nextTimer(std::chrono::steady_clock::now()) {
    const char* name = std::getenv("DISPLAY");
    if (!name || !*name) {
        error_ = "no X display (DISPLAY is not set)";
        return;
    }
    display = XOpenDisplay(nullptr);
    if (!display) {
        error_ = std::string("cannot open the X display '") + name + "'";
        return;
    }
    // Xlib would end the process when the server drops the connection; only the window ends.
    XSetIOErrorExitHandler(display, connectionLost, this);
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
                            ButtonReleaseMask | PointerMotionMask | LeaveWindowMask | KeyPressMask;
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
        setTitle(title);
        if (!windowClass.empty()) {
            XClassHint* classHint = XAllocClassHint();
            std::string instance = windowClass;
            std::string className = windowClass;
            classHint->res_name = instance.data();
            classHint->res_class = className.data();
            XSetClassHint(display, created, classHint);
            XFree(classHint);
        }
        // It takes typed keys: a window manager gives it the keyboard focus.
        XWMHints* wmHints = XAllocWMHints();
        wmHints->flags = InputHint | StateHint;
        wmHints->input = True;
        wmHints->initial_state = NormalState;
        XSetWMHints(display, created, wmHints);
        XFree(wmHints);
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
    cursors[int(editor::PanelCursor::text)] = XCreateFontCursor(display, XC_xterm);
    XMapRaised(display, created);
    XFlush(display);
}

PanelWindow::~PanelWindow() {
    if (!display) return;
    // Freeing anything of a dropped connection (the surface, the display) would talk to it and
    // run into Xlib's error path again: it is left as it is, once.
    if (lost_) return;
    releaseBackBuffer();
    for (std::uintptr_t cursor : cursors)
        if (cursor) XFreeCursor(display, Cursor(cursor));
    if (gc) XFreeGC(display, static_cast<GC>(gc));
    if (window) XDestroyWindow(display, asWindow(window));
    XCloseDisplay(display);
}

int PanelWindow::connectionNumber() const {
    // A dropped connection stays readable (at its end) and would wake a poll at once, forever.
    return display && !lost_ ? ConnectionNumber(display) : -1;
}

void PanelWindow::connectionLost(Display*, void* self) {
    static_cast<PanelWindow*>(self)->lost_ = true;
}

void PanelWindow::setTitle(const std::string& title) {
    if (!ok() || lost_) return;
    const Window w = asWindow(window);
    // Window managers read the UTF-8 name; WM_NAME holds it as Latin-1 text where it can, as
    // compound text where not, for the tools and window managers that read only that.
    const Atom utf8 = XInternAtom(display, "UTF8_STRING", False);
    const auto* bytes = reinterpret_cast<const unsigned char*>(title.data());
    for (const char* property : {"_NET_WM_NAME", "_NET_WM_ICON_NAME"})
        XChangeProperty(display, w, XInternAtom(display, property, False), utf8, 8, PropModeReplace,
                        bytes, int(title.size()));
    std::string copy = title;
    char* list[] = {copy.data()};
    XTextProperty text{};
    if (Xutf8TextListToTextProperty(display, list, 1, XStdICCTextStyle, &text) >= Success) {
        XSetWMName(display, w, &text);
        XSetWMIconName(display, w, &text);
        XFree(text.value);
    }
    XFlush(display);
}

void PanelWindow::idle() {
    if (!ok() || lost_) return;
    controller.mainQueue().drain();
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextTimer) {
        controller.onTimer();
        const auto period = std::chrono::microseconds(
            std::int64_t(editor::AudioUnitViewController::kTimerInterval * 1e6));
        nextTimer += period;
        if (nextTimer < now) nextTimer = now + period;
    }
    processEvents();
}

void PanelWindow::resize(int w, int h) {
    if (!ok() || lost_) return;
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
    const int shape = int(input.cursorAt({double(x), double(y)}));
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
        input.grabLost();
        break;
    case ButtonPress: {
        const editor::CGPoint p{double(event.xbutton.x), double(event.xbutton.y)};
        const unsigned modifiers = modifiersOf(event.xbutton.state);
        const unsigned button = event.xbutton.button;
        if (button >= Button1 && button <= Button3)
            input.press(p, int(button), modifiers, double(event.xbutton.time) / 1000.0);
        else if (button == Button4)
            input.wheel(p, 1, modifiers);
        else if (button == Button5)
            input.wheel(p, -1, modifiers);
        if (input.wantsKeyboard()) takeFocus(event.xbutton.time);
        updateCursor(event.xbutton.x, event.xbutton.y);
        break;
    }
    case ButtonRelease:
        // Also outside the window: the press's implicit grab brings the release here.
        if (event.xbutton.button >= Button1 && event.xbutton.button <= Button3)
            input.release({double(event.xbutton.x), double(event.xbutton.y)},
                          int(event.xbutton.button));
        break;
    case MotionNotify:
        input.motion({double(event.xmotion.x), double(event.xmotion.y)});
        if (!input.isDragging()) updateCursor(event.xmotion.x, event.xmotion.y);
        break;
    case LeaveNotify:
        // Another client took the pointer away mid-drag: the drag is cancelled.
        if (event.xcrossing.mode == NotifyGrab) input.grabLost();
        break;
    case KeyPress: {
        // From the server while the window has the focus, or sent on by a host that embeds it.
        XKeyEvent key = event.xkey;
        input.key(translateKey(key));
        break;
    }
    case MappingNotify:
        // xdotool, a layout switch: keys are read with the new keyboard map from now on.
        XRefreshKeyboardMapping(const_cast<XMappingEvent*>(&event.xmapping));
        break;
    case ClientMessage:
        if (deleteAtom && Atom(event.xclient.data.l[0]) == Atom(deleteAtom)) closeRequested_ = true;
        break;
    default:
        break;
    }
}

bool PanelWindow::connectionClosed() const {
    // The server's hang-up shows at once, also behind events not read yet.
    pollfd connection{ConnectionNumber(display), POLLRDHUP, 0};
    return ::poll(&connection, 1, 0) > 0 &&
           (connection.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL));
}

int PanelWindow::processEvents() {
    if (!ok() || lost_) return 0;
    // The server's hang-up seen before Xlib meets it (a server that ended): nothing more is
    // sent. Met inside an Xlib call instead (events that came before it), it reaches
    // connectionLost() through Xlib's error path.
    if (connectionClosed()) {
        lost_ = true;
        input.grabLost();
        return 0;
    }
    int handled = 0;
    while (!lost_ && XPending(display)) {
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
    if (lost_) {
        input.grabLost();
        return handled;
    }
    if (focusTaken && !input.wantsKeyboard()) releaseFocus();
    if (mapped && (sizeChanged || controller.pluginView.isDirty())) redraw();
    XFlush(display);
    return handled;
}

void PanelWindow::takeFocus(unsigned long time) {
    // A top-level window has the keyboard from the window manager.
    if (!parentWindow || !mapped) return;
    Window focus = None;
    int revert = 0;
    XGetInputFocus(display, &focus, &revert);
    if (focus == asWindow(window)) return;
    if (!focusTaken) previousFocus = focus;
    focusTaken = true;
    XSetInputFocus(display, asWindow(window), RevertToParent, Time(time));
}

void PanelWindow::releaseFocus() {
    focusTaken = false;
    Window focus = None;
    int revert = 0;
    XGetInputFocus(display, &focus, &revert);
    if (focus != asWindow(window) || !mapped) return;
    // Back to where it was when that is a window around ours (which exists as long as ours
    // does); otherwise to the host's window that holds ours.
    const std::uintptr_t target = isAncestor(previousFocus) ? previousFocus : parentWindow;
    XSetInputFocus(display, asWindow(target), RevertToParent, CurrentTime);
}

bool PanelWindow::isAncestor(std::uintptr_t candidate) const {
    if (candidate == 0 || candidate == PointerRoot) return false;
    Window current = asWindow(window);
    for (int depth = 0; depth < 64; ++depth) {
        Window root = 0, parent = 0, *children = nullptr;
        unsigned count = 0;
        if (!XQueryTree(display, current, &root, &parent, &children, &count)) return false;
        if (children) XFree(children);
        if (parent == 0 || parent == root) return false;
        if (parent == asWindow(candidate)) return true;
        current = parent;
    }
    return false;
}

} // namespace sr::x11
