// The seam where the panel's window plugs into the app, with a stand-in window in place of the
// panel: what the main loop asks of a window and what a window may ask of the app. The whole app
// runs under a JACK server of this test's own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "JackServer.h"
#include "app/App.h"
#include "app/StateFile.h"

namespace sr::app {
namespace {

// What the stand-in window saw, kept after the app has destroyed it.
struct WindowLog {
    int created = 0;
    int destroyed = 0;
    int pumps = 0;
    int pumpsAfterWake = 0;
    bool presetLoaded = false;
    std::vector<std::string> titles;
    // The input the window took from the app's tap, and the rate it came at.
    std::size_t inputSamples = 0;
    double sampleRate = 0.0;
};

struct Script {
    std::string presetPath;   // loaded through the app at the third turn
    std::string panelPreset;  // taken by the panel itself at the fifth turn, when given
    int closeAfterPumps = 0;  // the user closes the window then
    bool displayLost = false; // ... or the display drops the connection then
};

WindowLog windowLog;
Script script;

class StandInWindow final : public AppWindow {
public:
    explicit StandInWindow(AppContext& context) : app(context) {
        ++windowLog.created;
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
            events = fds[0];
            feed = fds[1];
        }
        windowLog.titles.push_back(app.windowTitle());
        // A panel showing the spectrum opens the input's tap, as the LV2 editor's uiOn does.
        app.inputTap().open();
        windowLog.sampleRate = app.sampleRate();
    }
    ~StandInWindow() override {
        app.inputTap().close();
        ++windowLog.destroyed;
        ::close(events);
        ::close(feed);
    }
    int eventDescriptor() const override { return events; }
    void pump() override {
        ++windowLog.pumps;
        windowLog.inputSamples +=
            app.inputTap().take(InputTap::kCapacity, [](const float*, auto) {});
        char bytes[16];
        if (::read(events, bytes, sizeof bytes) > 0) ++windowLog.pumpsAfterWake;
        if (windowLog.pumps == 3) {
            windowLog.presetLoaded = app.loadPresetFile(script.presetPath);
            // An event arrives: the next turn comes without waiting for the loop's period.
            [[maybe_unused]] const ssize_t n = ::write(feed, "x", 1);
        }
        if (windowLog.pumps == 5 && !script.panelPreset.empty())
            app.setCurrentPresetFile(script.panelPreset);
        if (windowLog.pumps >= script.closeAfterPumps) {
            if (script.displayLost)
                connectionLost = true;
            else
                closedByUser = true;
        }
    }
    bool closed() const override { return closedByUser; }
    bool lost() const override { return connectionLost; }
    void presetChanged() override { windowLog.titles.push_back(app.windowTitle()); }

private:
    AppContext& app;
    int events = -1;
    int feed = -1;
    bool closedByUser = false;
    bool connectionLost = false;
};

} // namespace

std::unique_ptr<AppWindow> createAppWindow(AppContext& app, std::string&) {
    return std::make_unique<StandInWindow>(app);
}

namespace {

class AppWindowSeam : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server = std::make_unique<sr::test::JackServer>(
            "sr-app-window-" + std::to_string(::getpid()), 256);
        jack_client_t* probe = sr::test::JackServer::openClient("sr-window-probe");
        ASSERT_NE(probe, nullptr) << "the JACK server did not come up";
        jack_client_close(probe);
    }
    static void TearDownTestSuite() { server.reset(); }

    void SetUp() override {
        documents = std::filesystem::temp_directory_path() /
                    ("sr-app-window-" + std::to_string(::getpid()));
        std::filesystem::remove_all(documents);
        ::setenv("XDG_DATA_HOME", documents.c_str(), 1);
        windowLog = {};
    }
    void TearDown() override { std::filesystem::remove_all(documents); }

    static std::unique_ptr<sr::test::JackServer> server;
    std::filesystem::path documents;
};

std::unique_ptr<sr::test::JackServer> AppWindowSeam::server;

TEST_F(AppWindowSeam, TheMainLoopPumpsTheWindowAndClosingItQuitsSavingTheState) {
    script = {std::string(SR_FACTORY_PRESETS) + "/Vocal Shimmer.aupreset",
              "/somewhere/Presets/User/Stage Mix.aupreset", 8};
    Options options;
    options.clientName = "sr-window-app";
    int status = -1;
    {
        App app(options);
        status = app.run();
        EXPECT_EQ(app.currentPresetName(), "Stage Mix");
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(windowLog.created, 1);
    EXPECT_EQ(windowLog.destroyed, 1);
    EXPECT_EQ(windowLog.pumps, 8);
    EXPECT_GE(windowLog.pumpsAfterWake, 1);
    EXPECT_TRUE(windowLog.presetLoaded);
    // The audio cycles copied their input for the window while it was open.
    EXPECT_EQ(windowLog.sampleRate, 48000.0);
    EXPECT_GT(windowLog.inputSamples, 256u);
    const std::vector<std::string> titles = {"TAV SR Chorus", "TAV SR Chorus - Vocal Shimmer",
                                             "TAV SR Chorus - Stage Mix"};
    EXPECT_EQ(windowLog.titles, titles);

    // The state was saved on the way out, the preset named as current.
    StateFile file((documents / "tav-sr-chorus").string() + "/");
    const StateFile::Read saved = file.read();
    ASSERT_EQ(saved.status, StateFile::Read::Loaded) << saved.reason;
    EXPECT_EQ(saved.state.presetName, "Stage Mix");
}

TEST_F(AppWindowSeam, ALostDisplayQuitsWithStatus1SavingTheState) {
    script = {std::string(SR_FACTORY_PRESETS) + "/Vocal Shimmer.aupreset", "", 4, true};
    Options options;
    options.clientName = "sr-window-app";
    int status = -1;
    {
        App app(options);
        status = app.run();
    }
    EXPECT_EQ(status, 1);
    EXPECT_EQ(windowLog.pumps, 4);
    EXPECT_EQ(windowLog.destroyed, 1);
    StateFile file((documents / "tav-sr-chorus").string() + "/");
    const StateFile::Read saved = file.read();
    ASSERT_EQ(saved.status, StateFile::Read::Loaded) << saved.reason;
    EXPECT_EQ(saved.state.presetName, "Vocal Shimmer");
}

TEST_F(AppWindowSeam, WithoutTheUINoWindowIsMade) {
    Options options;
    options.clientName = "sr-window-app";
    options.noUI = true;
    App app(options);
    std::thread quit([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        app.requestQuit();
    });
    EXPECT_EQ(app.run(), 0);
    quit.join();
    EXPECT_EQ(windowLog.created, 0);
    EXPECT_EQ(app.windowTitle(), "TAV SR Chorus");
}

} // namespace
} // namespace sr::app
