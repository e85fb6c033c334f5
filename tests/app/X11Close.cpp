// sr-x11-close WINDOW: asks a top-level window to close as a window manager does when its close
// button is pressed, with a WM_PROTOCOLS client message naming WM_DELETE_WINDOW. The tests' X
// servers run no window manager. Fails when the window does not take that message (it does not
// list WM_DELETE_WINDOW in its WM_PROTOCOLS), as a window manager would then kill the client.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: sr-x11-close WINDOW_ID\n");
        return 2;
    }
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        std::fprintf(stderr, "sr-x11-close: cannot open the X display\n");
        return 1;
    }
    const Window window = Window(std::strtoul(argv[1], nullptr, 0));
    const Atom protocols = XInternAtom(display, "WM_PROTOCOLS", False);
    const Atom deleteWindow = XInternAtom(display, "WM_DELETE_WINDOW", False);

    Atom* listed = nullptr;
    int count = 0;
    bool takesDelete = false;
    if (XGetWMProtocols(display, window, &listed, &count)) {
        for (int i = 0; i < count; ++i) takesDelete = takesDelete || listed[i] == deleteWindow;
        XFree(listed);
    }
    if (!takesDelete) {
        std::fprintf(stderr, "sr-x11-close: window %s does not take WM_DELETE_WINDOW\n", argv[1]);
        XCloseDisplay(display);
        return 1;
    }

    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = protocols;
    event.xclient.format = 32;
    event.xclient.data.l[0] = long(deleteWindow);
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, window, False, NoEventMask, &event);
    XSync(display, False);
    XCloseDisplay(display);
    return 0;
}
