// The offline renderer end to end: the built tool is run on generated files, and what it writes
// is read back by a WAV reader of this file's own (or by libsndfile for other containers).
#include <cairo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "audiounit/TAVPreset.h"
#include "cli/MidiFiles.h"
#include "kernel/ParameterTable.h"
#include "kernel/SplitFrequencies.h"
#include "tests/SmfBytes.h"
#include "tests/TestFiles.h"
#include "tests/TestSignals.h"

extern char** environ;

namespace {

using sr::test::allFinite;
using sr::test::bitIdentical;
using sr::test::differenceDb;
using sr::test::kLimiterPreGain;
using sr::test::peak;
using sr::test::scaled;
using Args = std::vector<std::string>;

namespace fs = std::filesystem;

// ---- files ------------------------------------------------------------------------------------

fs::path freshDirectory(const std::string& name) {
    return sr::test::freshDirectory("renderer", name);
}

std::set<std::string> filesIn(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename());
    return names;
}

std::string readText(const fs::path& path) {
    return sr::test::readFile(path);
}

void writeAudio(const fs::path& path, int rate, int channels, const std::vector<float>& samples,
                int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
    SF_INFO info{0, rate, channels, format, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    const auto frames = sf_count_t(samples.size() / std::size_t(channels));
    if (!file || sf_writef_float(file, samples.data(), frames) != frames || sf_close(file) != 0)
        throw std::runtime_error("cannot write " + path.string());
}

std::vector<float> readWithSndfile(const fs::path& path, SF_INFO& info) {
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) throw std::runtime_error("cannot read " + path.string());
    std::vector<float> samples(std::size_t(info.frames * info.channels));
    samples.resize(std::size_t(sf_readf_float(file, samples.data(), info.frames) * info.channels));
    sf_close(file);
    return samples;
}

struct Wav {
    int channels = 0, sampleRate = 0;
    std::vector<float> samples;
    std::size_t frames() const { return samples.size() / std::size_t(channels); }
};

// A plain RIFF walk, so the output is checked without the library that wrote it; nothing unless
// the file is 32-bit IEEE float (tag 3, possibly inside WAVE_FORMAT_EXTENSIBLE).
std::optional<Wav> readFloatWav(const fs::path& path) {
    static_assert(std::endian::native == std::endian::little, "WAV data is little-endian");
    const std::string b = readText(path);
    auto u16 = [&](std::size_t i) { return int(std::uint8_t(b[i]) | std::uint8_t(b[i + 1]) << 8); };
    auto u32 = [&](std::size_t i) { return std::size_t(u16(i)) | std::size_t(u16(i + 2)) << 16; };
    if (b.size() < 12 || b.compare(0, 4, "RIFF") != 0 || b.compare(8, 4, "WAVE") != 0)
        return std::nullopt;
    Wav wav;
    int tag = 0, bits = 0;
    for (std::size_t at = 12; at + 8 <= b.size(); at += 8 + u32(at + 4) + (u32(at + 4) & 1)) {
        const std::size_t size = u32(at + 4), body = at + 8;
        if (body + size > b.size()) return std::nullopt;
        if (b.compare(at, 4, "fmt ") == 0) {
            tag = u16(body) == 0xFFFE && size >= 26 ? u16(body + 24) : u16(body);
            wav.channels = u16(body + 2);
            wav.sampleRate = int(u32(body + 4));
            bits = u16(body + 14);
        } else if (b.compare(at, 4, "data") == 0) {
            wav.samples.resize(size / sizeof(float));
            std::memcpy(wav.samples.data(), b.data() + body, wav.samples.size() * sizeof(float));
        }
    }
    if (tag != 3 || bits != 32 || wav.channels == 0) return std::nullopt;
    return wav;
}

// Tones from low to high plus a little noise; the channels differ in phase so the chorus's
// cross-mixing and panning have something to work on.
std::vector<float> testSignal(int rate, int channels, std::size_t frames, std::uint32_t seed = 1) {
    std::vector<float> samples(frames * std::size_t(channels));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = double(i / std::size_t(channels)) / rate;
        const int c = int(i % std::size_t(channels));
        double v = 0.0;
        for (double hz : {80.0, 330.0, 520.0, 910.0, 1400.0, 6000.0})
            v += 0.1 * std::sin(2.0 * std::numbers::pi * hz * t + 0.7 * c);
        seed = seed * 1664525u + 1013904223u;
        samples[i] = float(v + 0.02 * (double(seed >> 8) / double(1 << 24) - 0.5));
    }
    return samples;
}

// ---- running the tool -------------------------------------------------------------------------

struct ToolRun {
    int exitCode = -1; // -1 when ended by a signal
    std::string out, err;
    bool oneErrorLine() const { return !err.empty() && err.find('\n') == err.size() - 1; }
};

// A started program with no input; its output and error go to files outside the test's
// directories, so they never count as files the renderer left behind.
struct Process {
    pid_t pid = -1;
    fs::path out, err;

    explicit Process(Args argv, const std::string& program = SR_RENDER_TOOL,
                     const fs::path& cwd = {}) {
        static int counter = 0;
        const fs::path captures = fs::path(SR_TEST_TMP) / "renderer-captures";
        fs::create_directories(captures);
        // ctest runs tests in processes of their own, several at once: the pid keeps them apart.
        const std::string id = std::to_string(getpid()) + "-" + std::to_string(++counter);
        out = captures / ("out" + id);
        err = captures / ("err" + id);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        for (const int fd : {1, 2})
            posix_spawn_file_actions_addopen(&actions, fd, (fd == 1 ? out : err).c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
        argv.insert(argv.begin(), program);
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }

    ToolRun wait() const {
        int status = 0;
        if (pid > 0) ::waitpid(pid, &status, 0);
        return {pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out),
                readText(err)};
    }
};

ToolRun runTool(const Args& args, const fs::path& cwd = {}) {
    return Process(args, SR_RENDER_TOOL, cwd).wait();
}

// The unit's log as the run's --log file holds it.
bool logged(const fs::path& log, const std::string& addressAndValue) {
    return readText(log).find("unit received parameter : " + addressAndValue) != std::string::npos;
}

// ---- rendering ---------------------------------------------------------------------------------

TEST(RendererCli, SettingsThatLeaveTheSignalAloneAreBitIdentical) {
    const fs::path dir = freshDirectory("identity");
    constexpr int kRate = 48000;
    const std::vector<float> input = testSignal(kRate, 2, kRate + 311, 7);
    writeAudio(dir / "in.wav", kRate, 2, input);

    // Chorus Mix 0 by identifier and by address; Effect Bypass at 1 and at any non-zero value,
    // the latter with other controls at the ends of their ranges (accepted, and bypassed);
    // each with the output limiter (address 4) off.
    for (const Args& settings :
         {Args{"--set", "kChorusDryWet=0"}, Args{"--set", "16=0"},
          Args{"--set=kChorusDryWet=0", "--block", "1000"}, Args{"--set", "kBypass=1"},
          Args{"--set", "kBypass=0.5", "--set", "kVolumeIn=2", "--set", "kChorusDepthController=-1",
               "--set", "28=127", "--set", "kChorusDryWet=+1"}}) {
        Args args = {dir / "in.wav", dir / "out.wav", "--set", "4=0"};
        args.insert(args.end(), settings.begin(), settings.end());
        const ToolRun run = runTool(args);
        ASSERT_EQ(run.exitCode, 0) << settings[1] << " " << run.err;
        const std::optional<Wav> output = readFloatWav(dir / "out.wav");
        ASSERT_TRUE(output);
        EXPECT_TRUE(bitIdentical(output->samples, input)) << settings.back();
    }
    // The limiter is on by default: below its threshold it applies only its -0.01 dB pre-gain.
    const ToolRun run = runTool(
        {dir / "in.wav", dir / "out.wav", "--set", "kChorusDryWet=0", "--log", dir / "unit.log"});
    // The value went through the parameter tree, and the kernel's log lines are out before exit.
    EXPECT_TRUE(logged(dir / "unit.log", "address:16, value:0.000000"))
        << readText(dir / "unit.log");
    EXPECT_EQ(run.out, "");
    const std::optional<Wav> limited = readFloatWav(dir / "out.wav");
    ASSERT_TRUE(limited);
    EXPECT_TRUE(bitIdentical(limited->samples, scaled(input, kLimiterPreGain)));
}

// A 16-bit input (its quantization lies far below what is checked) comes out as a float WAV of
// the same rate and length, the chorus heard; any block size renders the same within -40 dB.
TEST(RendererCli, StereoRendersToAFloatWavAlikeForEveryBlockSize) {
    const fs::path dir = freshDirectory("stereo");
    constexpr int kRate = 44100;
    constexpr std::size_t kFrames = 2 * kRate + 123; // no block size divides it
    const std::vector<float> input = testSignal(kRate, 2, kFrames, 3);
    writeAudio(dir / "in.wav", kRate, 2, input, SF_FORMAT_WAV | SF_FORMAT_PCM_16);

    std::optional<Wav> reference;
    // 5000 and 16384 exceed the 4096 frames of one render call and must be cut; 1 is the
    // finest a host can cut.
    for (const std::string block : {"512", "1", "64", "4096", "5000", "16384"}) {
        const ToolRun run = runTool({dir / "in.wav", dir / ("out" + block + ".wav"), "--block",
                                     block, "--set", "kChorusLFORandom=0"});
        ASSERT_EQ(run.exitCode, 0) << "--block " << block << ": " << run.err;
        EXPECT_EQ(run.err, "");
        const std::optional<Wav> output = readFloatWav(dir / ("out" + block + ".wav"));
        ASSERT_TRUE(output) << "not a 32-bit float WAV";
        EXPECT_EQ(std::pair(output->channels, output->sampleRate), std::pair(2, kRate));
        ASSERT_EQ(output->frames(), kFrames) << "--block " << block;
        EXPECT_TRUE(allFinite(output->samples));
        // Mix 0.5 of a chorused middle band: clearly changed, but neither silent nor blown up.
        EXPECT_GT(differenceDb(input, output->samples), -20.0) << "--block " << block;
        EXPECT_GT(peak(output->samples), 0.25f * peak(input));
        EXPECT_LT(peak(output->samples), 2.0f * peak(input));
        if (!reference) reference = output;
        EXPECT_LT(differenceDb(reference->samples, output->samples), -40.0)
            << "--block " << block << " against --block 512";
    }
    EXPECT_EQ(filesIn(dir).size(), 7u) << "files left besides the input and six outputs";
}

TEST(RendererCli, NonStereoInputPassesThroughUnchangedWithOneWarning) {
    const fs::path dir = freshDirectory("channels");
    constexpr int kRate = 32000;
    for (int channels : {1, 3, 8}) {
        const std::vector<float> input = testSignal(kRate, channels, kRate / 2 + 5, 11);
        writeAudio(dir / "in.wav", kRate, channels, input);
        // With the limiter off nothing touches the samples; with it on, only its pre-gain.
        for (const bool limiter : {false, true}) {
            const ToolRun run =
                runTool({dir / "in.wav", dir / "out.wav", "--set", limiter ? "4=1" : "4=0"});
            ASSERT_EQ(run.exitCode, 0) << channels << " channels: " << run.err;
            EXPECT_TRUE(run.oneErrorLine() && run.err.find("warning") != std::string::npos)
                << run.err;
            const std::optional<Wav> output = readFloatWav(dir / "out.wav");
            ASSERT_TRUE(output);
            EXPECT_EQ(std::pair(output->channels, output->sampleRate), std::pair(channels, kRate));
            EXPECT_TRUE(
                bitIdentical(output->samples, limiter ? scaled(input, kLimiterPreGain) : input))
                << channels << " channels, limiter " << limiter;
        }
    }
}

TEST(RendererCli, OutputFormatFollowsTheExtension) {
    const fs::path dir = freshDirectory("formats");
    constexpr int kRate = 48000;
    const std::vector<float> input = testSignal(kRate, 2, kRate / 2, 5);
    writeAudio(dir / "in.wav", kRate, 2, input);

    const std::pair<const char*, int> cases[] = {{"out.aiff", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
                                                 {"out.caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
                                                 {"out.w64", SF_FORMAT_W64 | SF_FORMAT_FLOAT},
                                                 {"out.au", SF_FORMAT_AU | SF_FORMAT_FLOAT},
                                                 {"OUT.WAV", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
                                                 {"out.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
                                                 {"out.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS}};
    for (const auto& [name, format] : cases) {
        const ToolRun run = runTool(
            {dir / "in.wav", dir / name, "--set", "kChorusDryWet=0", "--set", "kFinalLimit=0"});
        ASSERT_EQ(run.exitCode, 0) << name << ": " << run.err;
        SF_INFO info{};
        const std::vector<float> output = readWithSndfile(dir / name, info);
        EXPECT_EQ(std::tuple(info.format, info.samplerate, info.channels),
                  std::tuple(format, kRate, 2))
            << name;
        if ((format & SF_FORMAT_SUBMASK) == SF_FORMAT_VORBIS) continue; // lossy, may pad
        ASSERT_EQ(output.size(), input.size()) << name;
        // Float containers keep the samples bit for bit; 24-bit PCM within one step of 2^-23.
        const double tolerance = (format & SF_FORMAT_SUBMASK) == SF_FORMAT_FLOAT ? 0.0 : 1.5e-7;
        for (std::size_t i = 0; i < input.size(); ++i)
            ASSERT_NEAR(output[i], input[i], tolerance) << name << " " << i;
    }
}

// The table itself is checked against the parameter sheet elsewhere; here the listing must
// show every row of it, and help must name the options.
TEST(RendererCli, ListShowsEveryParameterAndHelpTheOptions) {
    const char* kUnits[] = {"Generic", "Indexed", "Boolean"};
    const ToolRun run = runTool({"--list"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    std::istringstream lines(run.out);
    std::string line;
    std::getline(lines, line); // the heading
    for (const sr::ParameterInfo& p : sr::kParameterTable) {
        ASSERT_TRUE(std::getline(lines, line)) << p.identifier;
        std::string address, identifier, unit;
        std::vector<float> values(3);
        std::istringstream(line) >> address >> identifier;
        EXPECT_EQ(address + " " + identifier,
                  std::to_string(p.address) + " " + std::string(p.identifier));
        const std::size_t name = line.find(" " + std::string(p.name) + " ", address.size());
        ASSERT_NE(name, std::string::npos) << line;
        std::istringstream(line.substr(name + p.name.size() + 2)) >> values[0] >> values[1] >>
            values[2] >> unit;
        EXPECT_EQ(values, (std::vector<float>{p.minValue, p.maxValue, p.defaultValue})) << line;
        EXPECT_EQ(unit, kUnits[std::size_t(p.unit)]) << line;
        // The split points' defaults with where they divide the bands, as the panel shows it.
        if (p.address == sr::kFrequencySplitLP || p.address == sr::kFrequencySplitHP) {
            const sr::SplitFrequencies hz = sr::splitFrequencies(0.33f, 0.66f, 48000.0);
            char text[16];
            sr::formatHz(p.address == sr::kFrequencySplitLP ? hz.lower : hz.upper, text,
                         sizeof text);
            EXPECT_TRUE(line.ends_with(std::string("  (crosses at ") + text + " at 48 kHz)"))
                << line;
        }
    }
    EXPECT_FALSE(std::getline(lines, line)) << "more than " << std::size(sr::kParameterTable);

    const ToolRun help = runTool({"--help"});
    EXPECT_TRUE(help.exitCode == 0 && help.err.empty() &&
                help.out.find("--midi-out") != std::string::npos)
        << help.out << help.err;
}

// ---- MIDI ---------------------------------------------------------------------------------------

// Chorus Mix listens to controller 24 by default. A file closes the mix (controller value 0) at
// the start and opens it fully (127) after one second, with a note and a pitch bend besides;
// with the limiter off, the output is the input itself while the mix is closed.
TEST(RendererCli, AMidiFileMovesTheBoundControlAndComesOutUnchanged) {
    namespace smf = sr::test::smf;
    const fs::path dir = freshDirectory("midi");
    constexpr int kRate = 48000;
    constexpr std::size_t kFrames = 2 * kRate;
    const std::vector<float> input = testSignal(kRate, 2, kFrames, 9);
    writeAudio(dir / "in.wav", kRate, 2, input);
    // Format 1: tempo 120 bpm at 480 ticks a beat in the first track, so 960 ticks = 1 s.
    const std::vector<smf::Bytes> messages = {
        {0xB0, 24, 0}, {0x95, 60, 90}, {0xE5, 0x00, 0x50}, {0xBF, 24, 127}};
    const smf::Bytes music =
        smf::concat({smf::event(0, messages[0]), smf::event(480, messages[1]),
                     smf::event(240, messages[2]), smf::event(240, messages[3]), smf::kEndOfTrack});
    const smf::Bytes file = smf::concat(
        {smf::header(1, 2, 480), smf::track(smf::concat({smf::tempo(0, 500000), smf::kEndOfTrack})),
         smf::track(music)});
    std::ofstream(dir / "sweep.mid", std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));

    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav", "--set", "kFinalLimit=0",
                                 "--block", "4096", "--midi", dir / "sweep.mid", "--midi-out",
                                 dir / "out.mid", "--log", dir / "unit.log"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::optional<Wav> output = readFloatWav(dir / "out.wav");
    ASSERT_TRUE(output);
    ASSERT_EQ(output->frames(), kFrames);

    // Changes arrive at the start of the render call (of --block frames) after their event's.
    const auto span = [](const std::vector<float>& s, std::size_t from, std::size_t to) {
        return std::vector<float>(s.data() + 2 * from, s.data() + 2 * to);
    };
    constexpr std::size_t kOpened = 12 * 4096; // the first call start after 1 s
    EXPECT_TRUE(bitIdentical(span(output->samples, 4096, kOpened), span(input, 4096, kOpened)));
    EXPECT_GT(differenceDb(span(input, kOpened, kFrames), span(output->samples, kOpened, kFrames)),
              -10.0);
    EXPECT_TRUE(logged(dir / "unit.log", "address:16, value:1.000000"));

    // What left the MIDI output is what came in, at the same frames.
    EXPECT_EQ(sr::cli::readMidiFile(dir / "out.mid", kRate),
              sr::cli::readMidiFile(dir / "sweep.mid", kRate));
    const std::string written = readText(dir / "out.mid");
    const smf::ParsedFile parsed = smf::parse(smf::Bytes(written.begin(), written.end()));
    EXPECT_EQ(parsed.format, 0);
    ASSERT_EQ(parsed.trackEvents.size(), 1u);
    std::vector<smf::Bytes> out;
    for (const smf::ParsedEvent& e : parsed.trackEvents[0])
        if (e.bytes[0] != 0xFF) out.push_back(e.bytes);
    EXPECT_EQ(out, messages);
}

TEST(RendererCli, APresetLoadsBeforeTheSetValuesAndStateFilesHoldThem) {
    const fs::path dir = freshDirectory("presets");
    const std::vector<float> input = testSignal(48000, 2, 24000, 3);
    writeAudio(dir / "in.wav", 48000, 2, input);
    const ToolRun saved =
        runTool({"in.wav", "a.wav", "--set", "kChorusDepth=0.9", "--set", "kChorusDryWet=0.6",
                 "--save-preset", "p.aupreset", "--state-out", "s.plist"},
                dir);
    ASSERT_EQ(saved.exitCode, 0) << saved.err;
    // The preset and the host's state are the same dictionary but for the preset's name.
    TAVPreset preset, state;
    ASSERT_TRUE(preset.load(dir / "p.aupreset"));
    ASSERT_TRUE(state.load(dir / "s.plist"));
    EXPECT_EQ(state.patch->name, "TAV SR Chorus Preset");
    state.patch->name = "p";
    EXPECT_EQ(state.getDictionary(), preset.getDictionary());
    EXPECT_EQ(preset.patch->groups.at(1)->params.at(0)->value, 0.9f);

    // The preset alone renders the same; a --set after it wins; no audio, just the state.
    ASSERT_EQ(runTool({"in.wav", "b.wav", "--preset", "p.aupreset"}, dir).exitCode, 0);
    EXPECT_TRUE(
        bitIdentical(readFloatWav(dir / "b.wav")->samples, readFloatWav(dir / "a.wav")->samples));
    ASSERT_EQ(runTool({"in.wav", "c.wav", "--preset", "p.aupreset", "--set", "kChorusDryWet=0",
                       "--set", "kFinalLimit=0"},
                      dir)
                  .exitCode,
              0);
    EXPECT_TRUE(bitIdentical(readFloatWav(dir / "c.wav")->samples, input));
    EXPECT_EQ(preset.patch->name, "p");
    fs::create_directory(dir / "again");
    ASSERT_EQ(
        runTool({"--preset", "p.aupreset", "--save-preset", "again/p.aupreset"}, dir).exitCode, 0);
    EXPECT_EQ(readText(dir / "again/p.aupreset"), readText(dir / "p.aupreset"));
}

// ---- failures -----------------------------------------------------------------------------------

// One case per rule; a previous output file must survive every failure untouched.
TEST(RendererCli, BadInputFailsWithOneLineAndLeavesNoFileBehind) {
    const fs::path dir = freshDirectory("bad");
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 4800));
    writeAudio(dir / "nine.wav", 48000, 9, testSignal(48000, 9, 480));
    std::ofstream(dir / "garbage.wav") << "this is not audio\n";
    std::ofstream(dir / "out.wav") << "previous result";
    const std::set<std::string> before = filesIn(dir);

    // Command lines run in the folder, with their exit status.
    std::vector<std::pair<int, std::string>> cases;
    // Runs that fail (the last only after the audio is rendered).
    for (const char* line : {"missing.wav out.wav", "garbage.wav out.wav", "nine.wav out.wav",
                             "in.wav no-such-folder/out.wav", "in.wav out.wav --midi garbage.wav",
                             "in.wav out.wav --midi-out no-such-folder/out.mid",
                             "in.wav out.wav --preset garbage.wav --save-preset p.aupreset",
                             "--preset missing.aupreset --state-out s.plist",
                             "in.wav out.wav --save-preset no-such-folder/p.aupreset"})
        cases.emplace_back(1, line);
    // Misused command lines.
    for (const char* line : {"in.wav out.xyz", "--list=yes", "", "in.wav",
                             "in.wav out.wav third.wav", "--demo demo in.wav"})
        cases.emplace_back(2, line);
    for (const char* option :
         {"--set kNoSuchParameter=1", "--set 29=0", "--set kChorusDryWet=1.5",
          "--set kChorusDepthController=-2", "--set kBypass=2",
          "--set kChorusDryWet=", "--set kChorusDryWet", "--set kChorusDryWet=0.5x",
          "--set kChorusDryWet=nan", "--set", "--block 0", "--block 16385", "--block 1.5",
          "--frobnicate", "--preset", "--save-preset="})
        cases.emplace_back(2, std::string("in.wav out.wav ") + option);
    for (const auto& [exitCode, command] : cases) {
        std::istringstream words(command);
        const Args args{std::istream_iterator<std::string>(words), {}};
        const ToolRun run = runTool(args, dir);
        EXPECT_EQ(run.exitCode, exitCode) << command;
        EXPECT_TRUE(run.oneErrorLine() && run.err.find("error") != std::string::npos)
            << command << "\n"
            << run.err;
        EXPECT_EQ(filesIn(dir), before) << command;
        EXPECT_EQ(readText(dir / "out.wav"), "previous result") << command;
    }
}

// Standard output is the renderer's own: the unit's log goes only where --log sends it, the
// same lines whether to a file or to standard output, as the unit wrote them. A refused preset
// stops the run with one line that gives the unit's reason.
TEST(RendererCli, TheUnitLogGoesOnlyWhereAskedAndRefusalsSayWhy) {
    const fs::path dir = freshDirectory("log");
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 4800));
    const auto render = [&](const Args& more) {
        Args args = {dir / "in.wav", dir / "out.wav", "--set", "kChorusDepth=0.5"};
        args.insert(args.end(), more.begin(), more.end());
        return runTool(args, dir);
    };
    const ToolRun quiet = render({});
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_EQ(quiet.out + quiet.err, "");

    const ToolRun toFile = render({"--log", "unit.log"});
    const ToolRun toOutput = render({"--log", "-"});
    ASSERT_EQ(toFile.exitCode + toOutput.exitCode, 0) << toFile.err << toOutput.err;
    EXPECT_EQ(toFile.out + toFile.err + toOutput.err, "");
    const std::string log = readText(dir / "unit.log");
    EXPECT_EQ(log, toOutput.out);
    std::size_t at = 0;
    for (const char* line :
         {"TAV_SR_Chorus_Extension_AudioUnit::init() aufx srCh TAVs\n",
          "TAV_SR_Chorus_Extension_AudioUnit: WARNING: The property 'musicalContextBlock' is NOT "
          "defined.\n",
          "TAV_SR_Chorus_Extension_AudioUnit: The property 'midiOutputEventBlock' is defined.\n",
          "TAV_SR_Chorus_Extension_AudioUnit: New wrapped unit output samplerate: 48000.0\n",
          "unit received parameter : address:7, value:0.500000\n",
          "TAV_SR_Chorus_Extension_AudioUnit::deallocateRenderResources()\n"}) {
        const std::size_t found = log.find(line, at);
        EXPECT_NE(found, std::string::npos) << "missing or out of order: " << line;
        if (found != std::string::npos) at = found;
    }

    std::ofstream(dir / "garbage.aupreset") << "not a property list\n";
    for (const auto& [preset, reason] :
         {std::pair{"missing.aupreset",
                    "TAVPreset::loadFromFile() : ERROR: The path missing.aupreset does not exist."},
          std::pair{"garbage.aupreset",
                    "TAVPreset::loadFromFile() : ERROR: Could not read the file "
                    "'garbage.aupreset, Format: "}}) {
        const ToolRun refused = render({"--preset", preset});
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(refused.oneErrorLine()) << refused.err;
        EXPECT_NE(refused.err.find(std::string("error: cannot use the preset '") + preset +
                                   "': " + reason),
                  std::string::npos)
            << refused.err;
        EXPECT_EQ(refused.out, "");
    }
}

// The input is a FIFO fed with part of a file, so the tool is caught mid-render, its output
// under way, when it is interrupted.
TEST(RendererCli, AnInterruptedRenderRemovesItsUnfinishedOutput) {
    const fs::path dir = freshDirectory("interrupt");
    const fs::path source = dir.parent_path() / "interrupt-source.wav";
    writeAudio(source, 48000, 2, testSignal(48000, 2, 48000));
    const fs::path fifo = dir / "in.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Open for reading and writing (Linux): no wait for the tool, and no broken pipe if it dies.
    const int fd = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const Process tool({fifo, dir / "out.wav"});
    // The header and some frames, less than a pipe holds; then the tool waits for more.
    [[maybe_unused]] const auto written = ::write(fd, readText(source).data(), 32768);
    bool underWay = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!(underWay = filesIn(dir).size() > 1) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ::kill(tool.pid, SIGINT);
    ::close(fd);
    const ToolRun run = tool.wait();

    EXPECT_TRUE(underWay) << "no output under way when interrupted";
    EXPECT_EQ(run.exitCode, 1) << "not ended through its own cleanup";
    EXPECT_TRUE(run.oneErrorLine() && run.err.find("interrupted") != std::string::npos) << run.err;
    EXPECT_EQ(filesIn(dir), (std::set<std::string>{"in.wav"}));
}

// ---- progress and demo ------------------------------------------------------------------------

TEST(RendererCli, ProgressBarOnlyOnATerminalAndOnlyForLongInputs) {
    const fs::path dir = freshDirectory("progress");
    constexpr int kRate = 8000;
    writeAudio(dir / "long.wav", kRate, 2, testSignal(kRate, 2, 7 * kRate));
    writeAudio(dir / "short.wav", kRate, 2, testSignal(kRate, 2, 3 * kRate));

    const ToolRun piped = runTool({dir / "long.wav", dir / "out.wav"});
    ASSERT_EQ(piped.exitCode, 0);
    EXPECT_EQ(piped.out.find_first_of("%\r"), std::string::npos) << "a bar on a pipe";

    // On a pseudo-terminal, through util-linux's script(1), which runs its command in a shell.
    const auto onTerminal = [&](const fs::path& input) {
        const std::string command = "'" + std::string(SR_RENDER_TOOL) + "' '" + input.string() +
                                    "' '" + dir.string() + "/out.wav'";
        return Process({"-qec", command, "/dev/null"}, "script").wait();
    };
    if (Process({"--version"}, "script").wait().exitCode != 0)
        GTEST_SKIP() << "script(1) is not available";
    const ToolRun longRun = onTerminal(dir / "long.wav");
    ASSERT_EQ(longRun.exitCode, 0) << longRun.out;
    EXPECT_NE(longRun.out.find("100%"), std::string::npos) << longRun.out;
    EXPECT_EQ(onTerminal(dir / "short.wav").out.find('%'), std::string::npos);
}

// Energy below 150 Hz, above 5 kHz and between, by cascaded one-pole filters: coarse, but enough
// to tell a bass, chords and a hi-hat apart. Returns the shares of the total.
std::array<double, 3> bandShares(const std::vector<float>& stereo, double rate) {
    const double aLow = 1.0 - std::exp(-2.0 * std::numbers::pi * 150.0 / rate);
    const double aHigh = 1.0 - std::exp(-2.0 * std::numbers::pi * 5000.0 / rate);
    std::array<double, 3> e{};
    for (std::size_t c = 0; c < 2; ++c) {
        double l1 = 0, l2 = 0, h1 = 0, h2 = 0;
        for (std::size_t i = c; i < stereo.size(); i += 2) {
            l2 += aLow * ((l1 += aLow * (stereo[i] - l1)) - l2);
            h2 += aHigh * ((h1 += aHigh * (stereo[i] - h1)) - h2);
            const double high = stereo[i] - h2;
            e[0] += l2 * l2;
            e[1] += std::pow(stereo[i] - l2 - high, 2);
            e[2] += high * high;
        }
    }
    const double total = e[0] + e[1] + e[2];
    return {e[0] / total, e[1] / total, e[2] / total};
}

TEST(RendererCli, DemoWritesADeterministicDryAndWetPair) {
    const fs::path root = freshDirectory("demo");
    const ToolRun run = runTool({"--demo", root / "a" / "nested"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("demo-dry.wav"), std::string::npos);
    EXPECT_NE(run.out.find("demo-wet.wav"), std::string::npos);

    const std::optional<Wav> dry = readFloatWav(root / "a" / "nested" / "demo-dry.wav");
    const std::optional<Wav> wet = readFloatWav(root / "a" / "nested" / "demo-wet.wav");
    ASSERT_TRUE(dry && wet);
    for (const Wav* w : {&*dry, &*wet}) {
        EXPECT_EQ(std::pair(w->channels, w->sampleRate), std::pair(2, 48000));
        EXPECT_NEAR(double(w->frames()) / 48000.0, 12.0, 1.0);
        EXPECT_TRUE(allFinite(w->samples));
        EXPECT_GT(peak(w->samples), 0.1f);
        EXPECT_LE(peak(w->samples), 1.0f);
    }
    ASSERT_EQ(dry->frames(), wet->frames());
    // A bass, chords in the middle and a hi-hat on top, all clearly present.
    const std::array<double, 3> shares = bandShares(dry->samples, 48000);
    EXPECT_GT(shares[0], 0.05);
    EXPECT_GT(shares[1], 0.2);
    EXPECT_GT(shares[2], 0.002);
    // The chorus is heard: the wet file is not the dry one.
    EXPECT_GT(differenceDb(dry->samples, wet->samples), -30.0);

    // Fixed seeds: a second run writes the same bytes.
    ASSERT_EQ(runTool({"--demo", root / "b"}).exitCode, 0);
    for (const char* name : {"demo-dry.wav", "demo-wet.wav"})
        EXPECT_EQ(readText(root / "a" / "nested" / name), readText(root / "b" / name)) << name;
}

} // namespace

// ---- the editor panel --------------------------------------------------------------------------

namespace {

// Width and height from a PNG's header; 0 x 0 when it is not a PNG.
std::pair<std::uint32_t, std::uint32_t> pngSize(const fs::path& file) {
    const std::string bytes = readText(file);
    if (bytes.size() < 24 || bytes.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0) return {0, 0};
    auto word = [&](std::size_t at) {
        std::uint32_t v = 0;
        for (std::size_t i = 0; i < 4; ++i) v = (v << 8) | std::uint8_t(bytes[at + i]);
        return v;
    };
    return {word(16), word(20)};
}

} // namespace

TEST(RendererCli, PanelDrawsThePanelForTheSettingsWithoutADisplay) {
    const fs::path dir = freshDirectory("panel");
    ASSERT_EQ(runTool({"--panel", dir / "main.png", "--set", "kChorusDepth=0.9"}).exitCode, 0);
    EXPECT_EQ(pngSize(dir / "main.png"), (std::pair<std::uint32_t, std::uint32_t>{1024, 400}));
    ASSERT_EQ(runTool({"--panel", dir / "lfo.png", "--panel-size", "3072x1200", "--page", "lfo"})
                  .exitCode,
              0);
    EXPECT_EQ(pngSize(dir / "lfo.png"), (std::pair<std::uint32_t, std::uint32_t>{3072, 1200}));
    // The panel's lines are the unit's log: kept with --log, not printed otherwise.
    const ToolRun quiet = runTool({"--panel", dir / "q.png"});
    EXPECT_EQ(quiet.out.find("editor received parameter"), std::string::npos);
    ASSERT_EQ(runTool({"--panel", dir / "l.png", "--log", dir / "log.txt"}).exitCode, 0);
    EXPECT_NE(readText(dir / "log.txt").find("editor received parameter : address:7, value:0.33"),
              std::string::npos);

    for (const Args& bad : {Args{"--panel", dir / "x.png", "--page", "side"},
                            Args{"--panel", dir / "x.png", "--panel-size", "0x400"},
                            Args{"--panel", dir / "x.png", "--panel-size", "1024"}}) {
        const ToolRun run = runTool(bad);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_FALSE(fs::exists(dir / "x.png"));
    }
}

namespace {

// "split points: ..." as the renderer prints it for these values at this rate.
std::string splitLine(float lower, float upper, double rate, const char* kilohertz) {
    const sr::SplitFrequencies hz = sr::splitFrequencies(lower, upper, rate);
    char a[16], b[16];
    sr::formatHz(hz.lower, a, sizeof a);
    sr::formatHz(hz.upper, b, sizeof b);
    return std::string("split points: the bands cross at ") + a + " (low/middle) and " + b +
           " (middle/high) at " + kilohertz + "\n";
}

// The pixels of a PNG's split bar (canvas y 90 to 161 at 1024 x 400).
std::vector<std::uint32_t> barPixels(const fs::path& png) {
    cairo_surface_t* s = cairo_image_surface_create_from_png(png.c_str());
    std::vector<std::uint32_t> out;
    if (cairo_surface_status(s) == CAIRO_STATUS_SUCCESS) {
        const auto* data = cairo_image_surface_get_data(s);
        const int stride = cairo_image_surface_get_stride(s);
        for (int y = 90; y < 161; ++y)
            for (int x = 54; x < 974; ++x) {
                std::uint32_t p;
                std::memcpy(&p, data + y * stride + 4 * x, 4);
                out.push_back(p);
            }
    }
    cairo_surface_destroy(s);
    return out;
}

} // namespace

TEST(RendererCli, ASplitPointSetPrintsWhereTheBandsCrossAtTheFilesRate) {
    const fs::path dir = freshDirectory("split");
    writeAudio(dir / "in.wav", 44100, 2, testSignal(44100, 2, 4410));
    const ToolRun run =
        runTool({dir / "in.wav", dir / "out.wav", "--set", "kFrequencySplitLP=0.5"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, splitLine(0.5f, 0.66f, 44100.0, "44.1 kHz"));
    // Without a file, at 48 kHz; a preset's points count, and the --set wins.
    const ToolRun state =
        runTool({"--preset", std::string(SR_FACTORY_PRESETS) + "/Warm Low Mids.aupreset", "--set",
                 "kFrequencySplitHP=0.8", "--state-out", dir / "s.plist"});
    ASSERT_EQ(state.exitCode, 0) << state.err;
    EXPECT_EQ(state.out, splitLine(0.28f, 0.8f, 48000.0, "48 kHz"));
}

TEST(RendererCli, APanelOfARenderShowsTheInputsSpectrum) {
    const fs::path dir = freshDirectory("panel-spectrum");
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 48000));
    ASSERT_EQ(runTool({"--panel", dir / "still.png"}).exitCode, 0);
    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav", "--panel", dir / "render.png"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(pngSize(dir / "render.png"), (std::pair<std::uint32_t, std::uint32_t>{1024, 400}));
    const std::vector<std::uint32_t> still = barPixels(dir / "still.png");
    const std::vector<std::uint32_t> render = barPixels(dir / "render.png");
    ASSERT_EQ(still.size(), render.size());
    ASSERT_FALSE(still.empty());
    std::size_t differ = 0;
    for (std::size_t i = 0; i < still.size(); ++i) differ += still[i] != render[i];
    // The spectrum fills a good part of the bar.
    EXPECT_GT(differ, still.size() / 5) << differ << " of " << still.size();
}
