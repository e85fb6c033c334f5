// Where the panel plugs into the app. The app owns the audio unit, the main loop and the saved
// state; a window is one more object that the main loop creates (unless --no-ui) and pumps. A
// run with a window and one without differ in nothing else.
// Threading: everything here runs on the main thread, the thread of the main loop, which also
// drains the main queue.
#pragma once

#include <memory>
#include <string>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "platform/InputTap.h"
#include "platform/MainQueue.h"

namespace sr::app {

// What a window may use of the app.
class AppContext {
public:
    virtual ~AppContext() = default;
    // The unit the panel edits: its parameter tree (observers may be added; changes they see
    // on other threads are handed to mainQueue()), presets and documents folder.
    virtual TAV_SR_Chorus_Extension_AudioUnit& audioUnit() = 0;
    // Runs tasks on the main thread, between two turns of the main loop.
    virtual MainQueueExecutor& mainQueue() = 0;
    // The name of the preset last loaded or saved ("Vocal Shimmer"); empty when none.
    virtual std::string currentPresetName() const = 0;
    // "TAV SR Chorus - Vocal Shimmer", or just "TAV SR Chorus" without a current preset.
    virtual std::string windowTitle() const = 0;
    // Loads a preset or state file (the browser's choice) and makes it the current preset;
    // false, with the reason logged and nothing changed, when it is refused.
    virtual bool loadPresetFile(const std::string& path) = 0;
    // The panel loaded, imported or saved this preset file itself (through the parameter
    // tree): it becomes the current preset, named after the file.
    virtual void setCurrentPresetFile(const std::string& path) = 0;
    // Ends the main loop after this turn; the state is saved on the way out.
    virtual void quit() = 0;
    // The input of the app's audio cycles, for the panel's spectrum: open() it while the panel
    // shows the spectrum, close() it when not, and take() its samples on the main thread; they
    // come at sampleRate(). The same tap the LV2 plug-in's editor reads through the plug-in.
    virtual InputTap& inputTap() = 0;
    virtual double sampleRate() const = 0;
};

class AppWindow {
public:
    virtual ~AppWindow() = default;
    // A descriptor that becomes readable when the window has events (the display connection),
    // or -1; the main loop waits on it as well as on its own.
    virtual int eventDescriptor() const = 0;
    // One turn of the main loop: handle what arrived, redraw what changed. Called at least
    // every kMainLoopPeriodMs milliseconds.
    virtual void pump() = 0;
    // True once the user closed the window: the app quits, saving its state.
    virtual bool closed() const = 0;
    // True once the display dropped the connection (its server ended, the window was killed):
    // the app quits as when its JACK server goes away, saving its state.
    virtual bool lost() const = 0;
    // The current preset changed: the title follows AppContext::windowTitle().
    virtual void presetChanged() = 0;
};

// How often, at the least, the main loop turns: it drains the main queue (MIDI controllers
// reach the parameters here) and pumps the window.
inline constexpr int kMainLoopPeriodMs = 10;

// Made by the window side. Null, with the reason in `whyNot`, when no window can be shown
// (no display, or one that cannot be reached).
std::unique_ptr<AppWindow> createAppWindow(AppContext& app, std::string& whyNot);

} // namespace sr::app
