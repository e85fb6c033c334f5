// The app's window: the panel with its preset browser in a top-level window of the shared X11
// window class, editing the app's own audio unit in this process. Its controller works on the
// unit's parameter tree: the panel's changes reach the audio thread through the unit's queued
// path, and the tree's observers bring what changed elsewhere (a MIDI controller on the main
// queue, a restored state, a preset) to the panel on the main thread. The spectrum behind the
// split bar comes from the app's input tap, which the audio cycles fill while the window is open.
#include <X11/Xlib.h>

#include <memory>
#include <string>

#include "app/AppWindow.h"
#include "editor/AudioUnitViewController.h"
#include "editor/HostedAudioUnit.h"
#include "platform/PrintQueue.h"
#include "x11/PanelWindow.h"

namespace sr::app {

namespace {

// The panel at scale 1; the window may be resized freely, the panel letterboxed in it.
constexpr int kDefaultWidth = 1024;
constexpr int kDefaultHeight = 400;
// What the desktop entry names (StartupWMClass), so a desktop puts the window under its icon.
constexpr const char* kWindowClass = "sr-chorus";

// Xlib's own handler would end the app, unsaved, over a request the server refused.
int logXError(Display* display, XErrorEvent* event) {
    char text[160] = {};
    XGetErrorText(display, event->error_code, text, sizeof text);
    LineBuilder<> line;
    line << "sr-chorus: WARNING: the X server refused a request of the window (" << text
         << ", request " << int(event->request_code) << "." << int(event->minor_code) << ")\n";
    debugprint(line.view());
    return 0;
}

// Xlib's own handler would end the app, unsaved, when the display drops the connection; the
// window notices it (PanelWindow::lost()) and the main loop quits, saving the state.
int ignoreConnectionLoss(Display*) {
    return 0;
}

class PanelAppWindow final : public AppWindow {
public:
    explicit PanelAppWindow(AppContext& context)
        : app(context), hosted(context.audioUnit()),
          window(controller, 0, kDefaultWidth, kDefaultHeight, context.windowTitle(),
                 kWindowClass) {
        if (!window.ok()) return;
        // The browser lists the presets where the unit installed the shipped ones.
        controller.documentsPath = app.audioUnit().documentsDirectory();
        controller.presetChanged = [this](const std::string& path) {
            app.setCurrentPresetFile(path);
        };
        controller.viewDidLoad();
        controller.setAudioUnit(&hosted);
        controller.mainQueue().drain(); // connects the panel to the unit's tree
        app.inputTap().open();
    }
    ~PanelAppWindow() override {
        if (window.ok()) app.inputTap().close();
    }
    PanelAppWindow(const PanelAppWindow&) = delete;
    PanelAppWindow& operator=(const PanelAppWindow&) = delete;

    bool ok() const { return window.ok(); }
    const std::string& error() const { return window.error(); }

    int eventDescriptor() const override { return window.connectionNumber(); }
    void pump() override {
        if (!window.lost()) controller.takeInput(app.inputTap(), app.sampleRate());
        window.idle();
    }
    bool closed() const override { return window.closeRequested(); }
    bool lost() const override { return window.lost(); }
    void presetChanged() override { window.setTitle(app.windowTitle()); }

private:
    AppContext& app;
    editor::HostedAudioUnit hosted;
    editor::AudioUnitViewController controller;
    // Gone first: it draws the controller's panel.
    x11::PanelWindow window;
};

} // namespace

std::unique_ptr<AppWindow> createAppWindow(AppContext& app, std::string& whyNot) {
    // Process-wide handlers: the app's own process, with this one window.
    XSetErrorHandler(logXError);
    XSetIOErrorHandler(ignoreConnectionLoss);
    auto window = std::make_unique<PanelAppWindow>(app);
    if (!window->ok()) {
        whyNot = window->error();
        return nullptr;
    }
    return window;
}

} // namespace sr::app
