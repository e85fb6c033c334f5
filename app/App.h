// The standalone app: a JACK client hosting the audio unit, with the main loop that drains the
// unit's main queue, follows the server's sample rate and period, restores the saved state at
// start and saves it on the way out, and pumps the window when there is one.
// Threading: run() and the AppContext members on the main thread; requestQuit() on any.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "app/AppWindow.h"
#include "app/Options.h"
#include "platform/MainQueue.h"

namespace sr::app {

class AudioEngine;
class JackClient;
class StateFile;

class App final : public AppContext {
public:
    // Exit statuses of run().
    enum Status : int {
        kOk = 0,
        kFailed = 1,   // the server or the display went away, the unit could not run, a file
                       // was refused
        kNoServer = 2, // no JACK client could be opened (as for a wrong command line)
    };

    explicit App(Options options);
    ~App() override;
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    // Runs until SIGINT, SIGTERM, SIGHUP, requestQuit(), the window's closing, or the end of
    // the JACK server or of the window's display; returns the exit status.
    int run();
    // Any thread: ends the main loop as SIGTERM does.
    void requestQuit();

    // What a window uses.
    TAV_SR_Chorus_Extension_AudioUnit& audioUnit() override { return *unit; }
    MainQueueExecutor& mainQueue() override { return queue; }
    std::string currentPresetName() const override { return presetName; }
    std::string windowTitle() const override;
    bool loadPresetFile(const std::string& path) override;
    void setCurrentPresetFile(const std::string& path) override;
    void quit() override;
    InputTap& inputTap() override;
    double sampleRate() const override;

private:
    void restoreState();
    void keepStateAside(const std::string& reason);
    bool loadStartPreset();
    void openWindow();
    Status mainLoop();
    // False when the app cannot go on (a server rate the unit refuses).
    bool followServer();
    void reportCounters();
    Status shutDown(Status status);
    void error(const std::string& message);

    Options options;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::atomic<bool> quitRequested{false};

    // Destroyed in reverse: the window, the client (no callback after it), the engine, the
    // unit, and last the queue whose tasks point at them (discarded before).
    DrainedMainQueue queue;
    std::unique_ptr<TAV_SR_Chorus_Extension_AudioUnit> unit;
    std::unique_ptr<AudioEngine> engine;
    std::unique_ptr<JackClient> jack;
    std::unique_ptr<StateFile> stateFile;
    std::unique_ptr<AppWindow> window;

    std::string presetName;
    bool saveState = true;
    std::uint64_t xrunsReported = 0;
    std::uint64_t midiDroppedReported = 0;
    std::chrono::steady_clock::time_point lastReport{};
};

} // namespace sr::app
