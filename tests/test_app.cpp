// The app's pieces that need no JACK server: the audio engine renders what the offline renderer
// renders and carries MIDI through at its frames, also across a reallocation while another
// thread keeps calling it; the saved-state file; the command line.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#include "TestFiles.h"
#include "TestSignals.h"
#include "app/AudioEngine.h"
#include "app/Options.h"
#include "app/StateFile.h"
#include "cli/OfflineRenderer.h"
#include "platform/AtomicFile.h"

namespace sr::app {
namespace {

using sr::test::Stereo;

struct RecordedMidi {
    std::uint32_t cycle;
    std::uint32_t frame;
    std::vector<std::uint8_t> bytes;
    bool operator==(const RecordedMidi&) const = default;
};

class RecordingMidiOutput final : public MidiOutput {
public:
    bool write(std::uint32_t frame, const std::uint8_t* bytes, std::size_t size) override {
        messages.push_back({cycle, frame, {bytes, bytes + size}});
        return true;
    }
    std::uint32_t cycle = 0;
    std::vector<RecordedMidi> messages;
};

struct Message {
    std::uint32_t frame;
    std::vector<std::uint8_t> bytes;
};

// An audio unit driven the way the app's process callback drives it.
struct EngineHost {
    DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit{kTAVSRChorusComponentDescription, queue};
    AudioEngine engine{unit};
    RecordingMidiOutput midiOut;
    double sampleTime = 0;

    ~EngineHost() {
        engine.stop();
        queue.discard();
    }

    // One cycle of `frames` frames from `offset` of the input.
    void cycle(const Stereo& in, Stereo& out, std::size_t offset, std::uint32_t frames,
               const std::vector<Message>& midi = {}) {
        const float* input[2] = {in.left.data() + offset, in.right.data() + offset};
        float* output[2] = {out.left.data() + offset, out.right.data() + offset};
        auto forEachMidi = [&](auto&& visit) {
            for (const Message& m : midi)
                visit(std::int64_t(m.frame), m.bytes.data(), m.bytes.size());
        };
        engine.process(sampleTime, frames, input, output, forEachMidi, midiOut);
        sampleTime += frames;
        ++midiOut.cycle;
    }
};

TEST(AppEngine, RendersAsTheOfflineRenderer) {
    // A period within one render call, and one that is cut into two (4096 + 1904 frames).
    for (const std::uint32_t period : {256u, 6000u}) {
        const std::size_t frames = std::size_t(period) * 12;
        const Stereo in = sr::test::noise(frames, 7, 0.4f);

        EngineHost host;
        host.engine.configure(48000.0, period);
        host.unit.parameterTree()->parameterWithAddress(kChorusDryWet)->setValue(0.8f);
        host.unit.parameterTree()->parameterWithAddress(kChorusDepth)->setValue(0.7f);
        Stereo out(frames);
        for (std::size_t offset = 0; offset < frames; offset += period)
            host.cycle(in, out, offset, period);

        cli::OfflineRenderer renderer(48000.0, 2, period);
        ASSERT_TRUE(renderer.set("kChorusDryWet", 0.8f));
        ASSERT_TRUE(renderer.set("kChorusDepth", 0.7f));
        Stereo reference(frames);
        const float* input[2] = {in.left.data(), in.right.data()};
        float* output[2] = {reference.left.data(), reference.right.data()};
        ASSERT_EQ(renderer.renderPlanar(input, output, frames), noErr);

        EXPECT_TRUE(sr::test::bitIdentical(out.left, reference.left)) << period;
        EXPECT_TRUE(sr::test::bitIdentical(out.right, reference.right)) << period;
        EXPECT_GT(sr::test::differenceDb(in.left, out.left), -40.0) << "the chorus did nothing";
    }
}

TEST(AppEngine, MidiLeavesAtItsFramesAndMovesBoundControls) {
    EngineHost host;
    host.engine.configure(48000.0, 6000);
    const std::vector<Message> midi = {
        {0, {0x90, 60, 100}},
        {4095, {0xB0, 15, 127}}, // the last frame of the first render call; Depth's controller
        {4096, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
        {5999, {0x80, 60, 0}},
        {9000, {0xE0, 0, 64}}, // stamped past the cycle: it acts at its last frame
    };
    const Stereo in = sr::test::noise(6000);
    Stereo out(6000);
    host.cycle(in, out, 0, 6000, midi);

    const std::vector<RecordedMidi> expected = {{0, 0, {0x90, 60, 100}},
                                                {0, 4095, {0xB0, 15, 127}},
                                                {0, 4096, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
                                                {0, 5999, {0x80, 60, 0}},
                                                {0, 5999, {0xE0, 0, 64}}};
    EXPECT_EQ(host.midiOut.messages, expected);

    // The controller reaches its control once the main loop drains the queue, not before.
    AUParameter* depth = host.unit.parameterTree()->parameterWithAddress(kChorusDepth);
    EXPECT_FLOAT_EQ(depth->value(), 0.33f);
    host.queue.drain();
    EXPECT_FLOAT_EQ(depth->value(), 1.0f);
    EXPECT_EQ(host.engine.midiDropped(), 0u);
}

TEST(AppEngine, ReallocatesWhileTheAudioThreadKeepsCalling) {
    EngineHost host;
    host.engine.configure(48000.0, 256);
    const Stereo in = sr::test::noise(8192, 3);
    std::atomic<bool> running{true};
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<bool> allFinite{true};
    // The server's audio thread: a cycle of 512 frames whatever the unit was allocated for
    // (a period that grew before the main loop followed).
    std::thread audio([&] {
        Stereo out(8192);
        std::size_t offset = 0;
        while (running.load()) {
            host.cycle(in, out, offset, 512);
            for (std::size_t i = offset; i < offset + 512; ++i)
                if (!std::isfinite(out.left[i]) || !std::isfinite(out.right[i])) allFinite = false;
            offset = (offset + 512) % 8192;
            cycles.fetch_add(1);
        }
    });
    const std::pair<double, std::uint32_t> settings[] = {
        {44100.0, 128}, {96000.0, 512}, {8000.0, 64}, {48000.0, 8192}, {48000.0, 256}};
    for (const auto& [rate, period] : settings) {
        const std::uint64_t before = cycles.load();
        host.engine.configure(rate, period);
        EXPECT_EQ(host.unit.getSamplerate(), rate);
        EXPECT_EQ(host.unit.maximumFramesToRender(), std::min<std::uint32_t>(period, 4096));
        while (cycles.load() < before + 20) std::this_thread::yield();
    }
    running = false;
    audio.join();
    EXPECT_TRUE(allFinite.load());

    // Stopped: silence, and the MIDI still goes through, at its frames.
    host.engine.stop();
    const std::uint64_t silentBefore = host.engine.silentCycles();
    Stereo out(512);
    out.left.assign(512, 1.0f);
    host.midiOut.messages.clear();
    host.cycle(in, out, 0, 512, {{100, {0xB0, 15, 0}}});
    EXPECT_EQ(sr::test::peak(out.left), 0.0f);
    EXPECT_EQ(host.engine.silentCycles(), silentBefore + 1);
    ASSERT_EQ(host.midiOut.messages.size(), 1u);
    EXPECT_EQ(host.midiOut.messages[0].frame, 100u);
}

TEST(AppEngine, SilentFromTheServersNewRateUntilItIsFollowed) {
    EngineHost host;
    host.engine.configure(48000.0, 256);
    const Stereo in = sr::test::noise(256);
    Stereo out(256);
    host.engine.serverRateChanged(48000.0); // the same rate: nothing changes
    host.cycle(in, out, 0, 256);
    EXPECT_GT(sr::test::peak(out.left), 0.0f);
    EXPECT_EQ(host.engine.silentCycles(), 0u);

    host.engine.serverRateChanged(96000.0);
    host.cycle(in, out, 0, 256);
    EXPECT_EQ(sr::test::peak(out.left), 0.0f);
    EXPECT_EQ(host.engine.silentCycles(), 1u);

    host.engine.configure(96000.0, 256);
    host.cycle(in, out, 0, 256);
    EXPECT_GT(sr::test::peak(out.left), 0.0f);
    EXPECT_EQ(host.engine.silentCycles(), 1u);
}

TEST(AppEngine, RefusesARateTheUnitCannotRenderAndStaysSilent) {
    EngineHost host;
    EXPECT_THROW(host.engine.configure(1.0e9, 256), AUAudioUnitError);
    const Stereo in = sr::test::noise(256);
    Stereo out(256);
    out.left.assign(256, 1.0f);
    host.cycle(in, out, 0, 256);
    EXPECT_EQ(sr::test::peak(out.left), 0.0f);
}

// ---- the state file ------------------------------------------------------------------------

AppState sampleState() {
    DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, queue);
    unit.parameterTree()->parameterWithAddress(kChorusFeedback)->setValue(0.9f);
    return {*unit.fullState(), "Tape Drift"};
}

TEST(AppStateFile, WritesWhatItReadsBackAndAUnitAccepts) {
    const auto dir = sr::test::freshDirectory("app", "state-roundtrip");
    StateFile file(dir.string() + "/nested/");
    EXPECT_EQ(file.read().status, StateFile::Read::Missing);
    const AppState state = sampleState();
    file.write(state); // creates the missing folder
    const StateFile::Read read = file.read();
    ASSERT_EQ(read.status, StateFile::Read::Loaded) << read.reason;
    EXPECT_EQ(read.state.presetName, "Tape Drift");
    EXPECT_EQ(read.state.fullState, state.fullState);

    DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, queue);
    ASSERT_TRUE(unit.setFullState(read.state.fullState));
    EXPECT_FLOAT_EQ(unit.parameterTree()->parameterWithAddress(kChorusFeedback)->value(), 0.9f);

    // No preset: no key, and an empty name back.
    file.write({state.fullState, ""});
    EXPECT_EQ(sr::test::readFile(file.path()).find(StateFile::kPresetKey), std::string::npos);
    EXPECT_EQ(file.read().state.presetName, "");
}

TEST(AppStateFile, RefusesWhatIsNotTheAppsState) {
    const auto dir = sr::test::freshDirectory("app", "state-refused");
    StateFile file(dir.string() + "/");
    const std::string fullState = *sampleState().fullState.toXML();
    auto wrap = [](const std::string& body) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
               "\n</plist>\n";
    };
    const std::pair<std::string, std::string> cases[] = {
        {"not a property list", "not a property list"},
        {wrap("<array><string>x</string></array>"), "not a dictionary"},
        {wrap("<dict><key>currentPreset</key><string>x</string></dict>"), "no 'fullState'"},
        {wrap("<dict><key>fullState</key><string>x</string></dict>"), "no 'fullState'"},
        {wrap("<dict><key>fullState</key><dict/><key>currentPreset</key><integer>3</integer>"
              "</dict>"),
         "'currentPreset' is not a string"},
    };
    for (const auto& [bytes, reason] : cases) {
        sr::test::writeFile(file.path(), bytes);
        const StateFile::Read read = file.read();
        EXPECT_EQ(read.status, StateFile::Read::Refused) << bytes;
        EXPECT_NE(read.reason.find(reason), std::string::npos) << read.reason;
    }
}

TEST(AppStateFile, KeepsRefusedFilesAsideWithoutEverReplacingOne) {
    const auto dir = sr::test::freshDirectory("app", "state-aside");
    StateFile file(dir.string() + "/");
    std::vector<std::string> kept;
    for (int i = 0; i < 3; ++i) {
        const std::string content = "refused " + std::to_string(i);
        sr::test::writeFile(file.path(), content);
        std::string error;
        const std::string aside = file.keepAside(error);
        ASSERT_FALSE(aside.empty()) << error;
        EXPECT_FALSE(std::filesystem::exists(file.path()));
        EXPECT_EQ(sr::test::readFile(aside), content);
        EXPECT_EQ(std::filesystem::path(aside).parent_path(), dir);
        EXPECT_TRUE(aside.find("sr-chorus-state.refused-") != std::string::npos) << aside;
        kept.push_back(aside);
    }
    // All three within a second or two: distinct names, every content still there.
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(std::unique(kept.begin(), kept.end()), kept.end());
    for (int i = 0; i < 3; ++i) {
        int found = 0;
        for (const std::string& path : kept)
            found += sr::test::readFile(path) == "refused " + std::to_string(i);
        EXPECT_EQ(found, 1);
    }
    std::string error;
    EXPECT_TRUE(file.keepAside(error).empty()); // nothing to move
    EXPECT_FALSE(error.empty());
}

TEST(AppStateFile, AFailedWriteLeavesTheOldFile) {
    const auto dir = sr::test::freshDirectory("app", "state-failed-write");
    StateFile file(dir.string() + "/");
    file.write(sampleState());
    const std::string before = sr::test::readFile(file.path());
    // A folder where the temporary file would go cannot take it.
    std::filesystem::permissions(dir, std::filesystem::perms::owner_read |
                                          std::filesystem::perms::owner_exec);
    if (::access(dir.c_str(), W_OK) == 0) {
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
        GTEST_SKIP() << "running with rights that ignore folder permissions";
    }
    EXPECT_THROW(file.write({PropertyList{}, "x"}), FileError);
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
    EXPECT_EQ(sr::test::readFile(file.path()), before);
}

// ---- the command line ----------------------------------------------------------------------

Options parse(std::vector<const char*> args) {
    args.insert(args.begin(), "sr-chorus");
    return parseOptions(int(args.size()), args.data());
}

TEST(AppOptions, ReadsEveryOption) {
    const Options defaults = parse({});
    EXPECT_EQ(defaults.clientName, "sr-chorus");
    EXPECT_FALSE(defaults.connect || defaults.noUI || defaults.help);
    EXPECT_TRUE(defaults.presetFile.empty());

    const Options all =
        parse({"--name", "live rig", "--connect", "--preset=My Sound.aupreset", "--no-ui"});
    EXPECT_EQ(all.clientName, "live rig");
    EXPECT_EQ(all.presetFile, "My Sound.aupreset");
    EXPECT_TRUE(all.connect && all.noUI);
    EXPECT_TRUE(parse({"-h"}).help);
    EXPECT_EQ(parse({"--name=x"}).clientName, "x");
}

TEST(AppOptions, RefusesWhatItCannotUse) {
    const std::string longName(64, 'n');
    const std::vector<std::vector<const char*>> wrong = {
        {"--bogus"},     {"extra"},         {"--name"},
        {"--name", ""},  {"--name", "a:b"}, {"--name", longName.c_str()},
        {"--preset"},    {"--preset="},     {"--connect=1"},
        {"--no-ui=yes"}, {"--help=me"}};
    for (const auto& args : wrong) EXPECT_THROW(parse(args), UsageError) << args[0];
    EXPECT_NO_THROW(parse({"--name", std::string(63, 'n').c_str()}));
}

} // namespace
} // namespace sr::app
