// The offline renderer end to end: the built tool is run on generated files, and what it writes
// is read back by a WAV reader of this file's own (or by libsndfile for other containers).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cli/MidiFiles.h"
#include "kernel/ParameterTable.h"
#include "tests/SmfBytes.h"
#include "tests/TestSignals.h"

extern char** environ;

namespace {

using sr::test::allFinite;
using sr::test::bitIdentical;
using sr::test::differenceDb;
using sr::test::kLimiterPreGain;
using sr::test::peak;
using sr::test::scaled;

namespace fs = std::filesystem;

constexpr int kFloatFormatTag = 3;           // WAVE_FORMAT_IEEE_FLOAT
constexpr int kExtensibleFormatTag = 0xFFFE; // WAVE_FORMAT_EXTENSIBLE

// ---- files ------------------------------------------------------------------------------------

// A fresh directory per test, under the build's scratch directory.
fs::path freshDirectory(const std::string& name) {
    const fs::path dir = fs::path(SR_TEST_TMP) / "renderer" / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

std::set<std::string> filesIn(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename());
    return names;
}

void writeAudio(const fs::path& path, int rate, int channels, const std::vector<float>& samples,
                int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file) throw std::runtime_error("cannot write " + path.string());
    const auto frames = sf_count_t(samples.size() / std::size_t(channels));
    const bool ok = sf_writef_float(file, samples.data(), frames) == frames;
    if (sf_close(file) != 0 || !ok) throw std::runtime_error("cannot finish " + path.string());
}

struct Audio {
    SF_INFO info{};
    std::vector<float> samples;
};

Audio readWithSndfile(const fs::path& path) {
    Audio audio;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &audio.info);
    if (!file) throw std::runtime_error("cannot read " + path.string());
    audio.samples.resize(std::size_t(audio.info.frames) * std::size_t(audio.info.channels));
    const sf_count_t got = sf_readf_float(file, audio.samples.data(), audio.info.frames);
    sf_close(file);
    if (got != audio.info.frames) throw std::runtime_error("short read of " + path.string());
    return audio;
}

struct Wav {
    int formatTag = 0;
    int channels = 0;
    int sampleRate = 0;
    int bitsPerSample = 0;
    std::vector<float> samples;
    std::size_t frames() const { return channels ? samples.size() / std::size_t(channels) : 0; }
};

// A plain RIFF walk: the renderer's output is checked without the library that wrote it.
std::optional<Wav> readFloatWav(const fs::path& path) {
    static_assert(std::endian::native == std::endian::little, "WAV data is little-endian");
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto u16 = [&](std::size_t at) {
        return int(std::uint8_t(bytes[at])) | int(std::uint8_t(bytes[at + 1])) << 8;
    };
    auto u32 = [&](std::size_t at) {
        return std::uint32_t(u16(at)) | std::uint32_t(u16(at + 2)) << 16;
    };
    if (bytes.size() < 12 || bytes.compare(0, 4, "RIFF") != 0 || bytes.compare(8, 4, "WAVE") != 0)
        return std::nullopt;
    Wav wav;
    bool haveData = false;
    for (std::size_t at = 12; at + 8 <= bytes.size();) {
        const std::string id = bytes.substr(at, 4);
        const std::size_t size = u32(at + 4);
        const std::size_t body = at + 8;
        if (body + size > bytes.size()) return std::nullopt;
        if (id == "fmt ") {
            wav.formatTag = u16(body);
            wav.channels = u16(body + 2);
            wav.sampleRate = int(u32(body + 4));
            wav.bitsPerSample = u16(body + 14);
            if (wav.formatTag == kExtensibleFormatTag && size >= 26) wav.formatTag = u16(body + 24);
        } else if (id == "data") {
            wav.samples.resize(size / sizeof(float));
            std::memcpy(wav.samples.data(), bytes.data() + body,
                        wav.samples.size() * sizeof(float));
            haveData = true;
        }
        at = body + size + (size & 1);
    }
    if (!haveData || wav.formatTag != kFloatFormatTag || wav.bitsPerSample != 32)
        return std::nullopt;
    return wav;
}

// ---- signals ----------------------------------------------------------------------------------

// Tones in the low, middle and high range plus a little noise; the channels differ in phase so
// the chorus's cross-mixing and panning have something to work on.
std::vector<float> testSignal(int rate, int channels, std::size_t frames, std::uint32_t seed = 1) {
    constexpr double kTones[] = {80.0, 330.0, 520.0, 910.0, 1400.0, 6000.0};
    std::vector<float> samples(frames * std::size_t(channels));
    std::uint32_t state = seed;
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        for (int c = 0; c < channels; ++c) {
            double v = 0.0;
            for (double hz : kTones) v += 0.1 * std::sin(2.0 * std::numbers::pi * hz * t + 0.7 * c);
            state = state * 1664525u + 1013904223u;
            v += 0.02 * (double(state >> 8) / double(1 << 24) - 0.5);
            samples[i * std::size_t(channels) + std::size_t(c)] = float(v);
        }
    }
    return samples;
}

// ---- running the tool -------------------------------------------------------------------------

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Runs a shell command; its standard output and error are captured outside the test's
// directories so that they never count as files the renderer left behind.
ToolRun runCommand(const std::string& command) {
    static int counter = 0;
    const fs::path captures = fs::path(SR_TEST_TMP) / "renderer-captures";
    fs::create_directories(captures);
    // ctest runs each test in a process of its own, several at once: the pid keeps them apart.
    const std::string id = std::to_string(getpid()) + "-" + std::to_string(++counter);
    const fs::path out = captures / ("out" + id);
    const fs::path err = captures / ("err" + id);
    const std::string redirected =
        command + " </dev/null >" + shellQuoted(out) + " 2>" + shellQuoted(err);
    const int status = std::system(redirected.c_str());
    ToolRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readText(out);
    run.err = readText(err);
    return run;
}

std::string toolCommand(const std::vector<std::string>& args) {
    std::string command = shellQuoted(SR_RENDER_TOOL);
    for (const std::string& a : args) command += " " + shellQuoted(a);
    return command;
}

ToolRun runTool(const std::vector<std::string>& args) {
    return runCommand(toolCommand(args));
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) result.push_back(line);
    return result;
}

// ---- rendering ---------------------------------------------------------------------------------

TEST(RendererCli, StereoRenderIsAFloatWavOfTheSameLengthAndRateThatDiffersFromTheInput) {
    const fs::path dir = freshDirectory("stereo");
    constexpr int kRate = 44100;
    constexpr std::size_t kFrames = 2 * kRate + 77;
    writeAudio(dir / "in.wav", kRate, 2, testSignal(kRate, 2, kFrames),
               SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    const std::vector<float> input = readWithSndfile(dir / "in.wav").samples;

    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    // The kernel's log lines reach standard output before the tool exits.
    EXPECT_NE(run.out.find("unit received parameter : address:16, value:0.500000"),
              std::string::npos);

    const std::optional<Wav> output = readFloatWav(dir / "out.wav");
    ASSERT_TRUE(output) << "not a 32-bit float WAV";
    EXPECT_EQ(output->channels, 2);
    EXPECT_EQ(output->sampleRate, kRate);
    EXPECT_EQ(output->frames(), kFrames);
    EXPECT_TRUE(allFinite(output->samples));
    // Mix 0.5 of a chorused middle band: clearly changed, but neither silent nor blown up.
    EXPECT_GT(differenceDb(input, output->samples), -20.0);
    EXPECT_GT(peak(output->samples), 0.25f * peak(input));
    EXPECT_LT(peak(output->samples), 2.0f * peak(input));
    EXPECT_EQ(filesIn(dir), (std::set<std::string>{"in.wav", "out.wav"}));
}

TEST(RendererCli, SettingsThatLeaveTheSignalAloneAreBitIdentical) {
    const fs::path dir = freshDirectory("identity");
    constexpr int kRate = 48000;
    const std::vector<float> input = testSignal(kRate, 2, kRate + 311, 7);
    writeAudio(dir / "in.wav", kRate, 2, input);

    // Chorus Mix 0 by identifier and by address; Effect Bypass at 1 and at any non-zero value;
    // each with the output limiter off.
    const std::vector<std::vector<std::string>> cases = {
        {"--set", "kChorusDryWet=0"},
        {"--set", "16=0"},
        {"--set=kChorusDryWet=0", "--block", "1000"},
        {"--set", "kBypass=1"},
        {"--set", "kBypass=0.5"},
    };
    for (const auto& settings : cases) {
        std::vector<std::string> args = {dir / "in.wav", dir / "out.wav", "--set", "4=0"};
        args.insert(args.end(), settings.begin(), settings.end());
        const ToolRun run = runTool(args);
        ASSERT_EQ(run.exitCode, 0) << settings[0] << " " << run.err;
        const std::optional<Wav> output = readFloatWav(dir / "out.wav");
        ASSERT_TRUE(output);
        EXPECT_TRUE(bitIdentical(output->samples, input)) << settings.back();
    }
    // The value went through the parameter tree to the kernel.
    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav", "--set", "kChorusDryWet=0"});
    EXPECT_NE(run.out.find("unit received parameter : address:16, value:0.000000"),
              std::string::npos);
    // The limiter is on by default: below its threshold it applies only its -0.01 dB pre-gain.
    const std::optional<Wav> limited = readFloatWav(dir / "out.wav");
    ASSERT_TRUE(limited);
    EXPECT_TRUE(bitIdentical(limited->samples, scaled(input, kLimiterPreGain)));
}

TEST(RendererCli, BlockSizesRenderTheSameWithinMinus40dB) {
    const fs::path dir = freshDirectory("blocks");
    constexpr int kRate = 48000;
    constexpr std::size_t kFrames = 2 * kRate + 123; // no block size divides it
    const std::vector<float> input = testSignal(kRate, 2, kFrames, 3);
    writeAudio(dir / "in.wav", kRate, 2, input);

    std::optional<Wav> reference;
    // 5000 and 16384 exceed the 4096 frames of one render call and must be cut; 1 is the
    // finest a host can cut.
    for (const char* block : {"512", "1", "64", "4096", "5000", "16384"}) {
        const fs::path out = dir / (std::string("out") + block + ".wav");
        const ToolRun run =
            runTool({dir / "in.wav", out, "--block", block, "--set", "kChorusLFORandom=0"});
        ASSERT_EQ(run.exitCode, 0) << "--block " << block << ": " << run.err;
        const std::optional<Wav> output = readFloatWav(out);
        ASSERT_TRUE(output);
        ASSERT_EQ(output->frames(), kFrames) << "--block " << block;
        EXPECT_TRUE(allFinite(output->samples));
        EXPECT_GT(differenceDb(input, output->samples), -20.0) << "--block " << block;
        if (!reference) {
            reference = output;
            continue;
        }
        EXPECT_LT(differenceDb(reference->samples, output->samples), -40.0)
            << "--block " << block << " against --block 512";
    }
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
            ASSERT_EQ(lines(run.err).size(), 1u) << run.err;
            EXPECT_NE(run.err.find("warning"), std::string::npos) << run.err;
            const std::optional<Wav> output = readFloatWav(dir / "out.wav");
            ASSERT_TRUE(output);
            EXPECT_EQ(output->channels, channels);
            EXPECT_EQ(output->sampleRate, kRate);
            EXPECT_TRUE(
                bitIdentical(output->samples, limiter ? scaled(input, kLimiterPreGain) : input))
                << channels << " channels, limiter " << limiter;
        }
    }
}

TEST(RendererCli, OutputFormatFollowsTheExtension) {
    const fs::path dir = freshDirectory("formats");
    constexpr int kRate = 48000;
    constexpr std::size_t kFrames = kRate / 2;
    const std::vector<float> input = testSignal(kRate, 2, kFrames, 5);
    writeAudio(dir / "in.wav", kRate, 2, input);

    struct Case {
        const char* name;
        int format;
        bool exact; // float containers keep the samples bit for bit
    };
    const Case cases[] = {
        {"out.aiff", SF_FORMAT_AIFF | SF_FORMAT_FLOAT, true},
        {"out.caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT, true},
        {"out.w64", SF_FORMAT_W64 | SF_FORMAT_FLOAT, true},
        {"out.au", SF_FORMAT_AU | SF_FORMAT_FLOAT, true},
        {"OUT.WAV", SF_FORMAT_WAV | SF_FORMAT_FLOAT, true},
        {"out.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, false},
        {"out.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, false},
    };
    for (const Case& c : cases) {
        const ToolRun run = runTool(
            {dir / "in.wav", dir / c.name, "--set", "kChorusDryWet=0", "--set", "kFinalLimit=0"});
        ASSERT_EQ(run.exitCode, 0) << c.name << ": " << run.err;
        const Audio output = readWithSndfile(dir / c.name);
        EXPECT_EQ(output.info.format, c.format) << c.name;
        EXPECT_EQ(output.info.samplerate, kRate) << c.name;
        EXPECT_EQ(output.info.channels, 2) << c.name;
        if (c.format == (SF_FORMAT_OGG | SF_FORMAT_VORBIS)) continue; // lossy: length may pad
        ASSERT_EQ(output.samples.size(), input.size()) << c.name;
        if (c.exact) {
            EXPECT_TRUE(bitIdentical(output.samples, input)) << c.name;
        } else {
            // 24-bit PCM: within one step of 2^-23.
            for (std::size_t i = 0; i < input.size(); ++i)
                ASSERT_NEAR(output.samples[i], input[i], 1.5 / 8388608.0) << c.name << " " << i;
        }
    }
}

// ---- parameters
// ----------------------------------------------------------------------------------

// The table itself is checked against the parameter sheet elsewhere; here the listing must
// show every row of it.
TEST(RendererCli, ListShowsTheTwentyNineParametersOfTheTable) {
    const char* kUnits[] = {"Generic", "Indexed", "Boolean"};
    const ToolRun run = runTool({"--list"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    std::vector<std::vector<std::string>> rows;
    for (const std::string& line : lines(run.out)) {
        std::istringstream in(line);
        std::vector<std::string> tokens;
        for (std::string t; in >> t;) tokens.push_back(t);
        if (!tokens.empty() && std::isdigit(static_cast<unsigned char>(tokens[0][0])))
            rows.push_back(tokens);
    }
    ASSERT_EQ(rows.size(), 29u) << run.out;
    for (std::size_t a = 0; a < rows.size(); ++a) {
        const std::vector<std::string>& t = rows[a];
        const sr::ParameterInfo& expected = sr::kParameterTable[a];
        ASSERT_GE(t.size(), 7u);
        std::string name = t[2];
        for (std::size_t i = 3; i + 4 < t.size(); ++i) name += " " + t[i];
        EXPECT_EQ(t[0], std::to_string(a));
        EXPECT_EQ(t[1], expected.identifier);
        EXPECT_EQ(name, expected.name) << t[1];
        EXPECT_FLOAT_EQ(std::stof(t[t.size() - 4]), expected.minValue) << t[1];
        EXPECT_FLOAT_EQ(std::stof(t[t.size() - 3]), expected.maxValue) << t[1];
        EXPECT_FLOAT_EQ(std::stof(t[t.size() - 2]), expected.defaultValue) << t[1];
        EXPECT_EQ(t.back(), kUnits[std::size_t(expected.unit)]) << t[1];
    }
}

TEST(RendererCli, ValuesAtTheEndsOfTheirRangesAreAccepted) {
    const fs::path dir = freshDirectory("edges");
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 4800));
    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav", "--set", "kVolumeIn=2", "--set",
                                 "kChorusDepthController=-1", "--set", "28=127", "--set",
                                 "kChorusDryWet=+1", "--set", "kChorusDepth=0"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const char* line : {"address:2, value:2.000000", "address:19, value:-1.000000",
                             "address:28, value:127.000000", "address:16, value:1.000000",
                             "address:7, value:0.000000"})
        EXPECT_NE(run.out.find(std::string("unit received parameter : ") + line), std::string::npos)
            << line;
    EXPECT_TRUE(readFloatWav(dir / "out.wav"));
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
    const smf::Bytes conductor = smf::concat({smf::tempo(0, 500000), smf::kEndOfTrack});
    const smf::Bytes music = smf::concat(
        {smf::event(0, {0xB0, 24, 0}), smf::event(480, {0x95, 60, 90}),
         smf::event(240, {0xE5, 0x00, 0x50}), smf::event(240, {0xBF, 24, 127}), smf::kEndOfTrack});
    const smf::Bytes file =
        smf::concat({smf::header(1, 2, 480), smf::track(conductor), smf::track(music)});
    std::ofstream(dir / "sweep.mid", std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));

    const ToolRun run = runTool({dir / "in.wav", dir / "out.wav", "--set", "kFinalLimit=0",
                                 "--midi", dir / "sweep.mid", "--midi-out", dir / "out.mid"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::optional<Wav> output = readFloatWav(dir / "out.wav");
    ASSERT_TRUE(output);
    ASSERT_EQ(output->frames(), kFrames);

    // Changes arrive at the start of the render call (512 frames each) after their event's.
    const auto span = [](const std::vector<float>& s, std::size_t from, std::size_t to) {
        return std::vector<float>(s.begin() + std::ptrdiff_t(2 * from),
                                  s.begin() + std::ptrdiff_t(2 * to));
    };
    EXPECT_TRUE(bitIdentical(span(output->samples, 512, kRate), span(input, 512, kRate)));
    EXPECT_GT(differenceDb(span(input, kRate + 1024, kFrames),
                           span(output->samples, kRate + 1024, kFrames)),
              -10.0);
    EXPECT_NE(run.out.find("unit received parameter : address:16, value:1.000000"),
              std::string::npos);

    // What left the MIDI output is what came in, at the same frames.
    const std::vector<sr::cli::TimedMidiMessage> in =
        sr::cli::readMidiFile(dir / "sweep.mid", kRate);
    ASSERT_EQ(in.size(), 4u);
    EXPECT_EQ(in[3].frame, kRate);
    EXPECT_EQ(sr::cli::readMidiFile(dir / "out.mid", kRate), in);
    std::ifstream written(dir / "out.mid", std::ios::binary);
    const smf::Bytes bytes((std::istreambuf_iterator<char>(written)),
                           std::istreambuf_iterator<char>());
    const smf::ParsedFile parsed = smf::parse(bytes);
    EXPECT_EQ(parsed.format, 0);
    ASSERT_EQ(parsed.trackEvents.size(), 1u);
    std::vector<smf::Bytes> messages;
    for (const smf::ParsedEvent& e : parsed.trackEvents[0])
        if (e.bytes[0] != 0xFF) messages.push_back(e.bytes);
    EXPECT_EQ(messages, (std::vector<smf::Bytes>{
                            {0xB0, 24, 0}, {0x95, 60, 90}, {0xE5, 0x00, 0x50}, {0xBF, 24, 127}}));
}

// ---- bad input ----------------------------------------------------------------------------------

TEST(RendererCli, BadInputFailsWithOneLineAndLeavesNoFileBehind) {
    const fs::path dir = freshDirectory("bad");
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 4800));
    writeAudio(dir / "nine.wav", 48000, 9, testSignal(48000, 9, 4800));
    std::ofstream(dir / "garbage.wav") << "this is not audio\n";
    fs::create_directory(dir / "folder");
    const std::set<std::string> before = filesIn(dir);
    const std::string in = dir / "in.wav";
    const std::string out = dir / "out.wav";

    const std::vector<std::vector<std::string>> cases = {
        // files
        {dir / "missing.wav", out},
        {dir / "garbage.wav", out},
        {dir / "folder", out},
        {dir / "nine.wav", out},
        {in, dir / "no-such-folder" / "out.wav"},
        {in, dir / "out.xyz"},
        // parameters
        {in, out, "--set", "kNoSuchParameter=1"},
        {in, out, "--set", "29=0"},
        {in, out, "--set", "=0.5"},
        {in, out, "--set", "kChorusDryWet=1.5"},
        {in, out, "--set", "kChorusDryWet=-0.01"},
        {in, out, "--set", "kVolumeIn=2.01"},
        {in, out, "--set", "kChorusDepthController=-2"},
        {in, out, "--set", "kChorusDepthController=128"},
        {in, out, "--set", "kChorusDryWet=abc"},
        {in, out, "--set", "kChorusDryWet="},
        {in, out, "--set", "kChorusDryWet"},
        {in, out, "--set", "kChorusDryWet=0.5x"},
        {in, out, "--set", "kChorusDryWet=nan"},
        {in, out, "--set", "kChorusDryWet=inf"},
        {in, out, "--set"},
        // block sizes
        {in, out, "--block", "0"},
        {in, out, "--block", "16385"},
        {in, out, "--block", "-1"},
        {in, out, "--block", "1.5"},
        {in, out, "--block", "many"},
        {in, out, "--block"},
        // options and arguments
        {in, out, "--frobnicate"},
        {in, out, "-x"},
        {"--list=yes"},
        {},
        {in},
        {"--set", "kChorusDryWet=0"},
        {in, out, dir / "third.wav"},
        {"--demo", dir / "demo", in},
        // MIDI files: refused before any output exists
        {in, out, "--midi", dir / "garbage.wav"},
        {in, out, "--midi", dir / "missing.mid"},
        {in, out, "--midi"},
        {in, out, "--midi-out", dir / "no-such-folder" / "out.mid"},
    };
    for (const auto& args : cases) {
        std::string shown;
        for (const std::string& a : args) shown += " " + a;
        const ToolRun run = runTool(args);
        EXPECT_NE(run.exitCode, 0) << shown;
        EXPECT_EQ(lines(run.err).size(), 1u) << shown << "\n" << run.err;
        EXPECT_NE(run.err.find("error"), std::string::npos) << shown << "\n" << run.err;
        EXPECT_EQ(filesIn(dir), before) << shown;
    }
}

TEST(RendererCli, AFailedRunKeepsAnExistingOutputFile) {
    const fs::path dir = freshDirectory("keep");
    writeAudio(dir / "nine.wav", 48000, 9, testSignal(48000, 9, 480));
    writeAudio(dir / "in.wav", 48000, 2, testSignal(48000, 2, 480));
    std::ofstream(dir / "out.wav") << "previous result";
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{dir / "nine.wav", dir / "out.wav"},
          std::vector<std::string>{dir / "in.wav", dir / "out.wav", "--set", "kBypass=2"}}) {
        const ToolRun run = runTool(args);
        EXPECT_NE(run.exitCode, 0);
        EXPECT_EQ(readText(dir / "out.wav"), "previous result");
        EXPECT_EQ(filesIn(dir), (std::set<std::string>{"in.wav", "nine.wav", "out.wav"}));
    }
}

// Opens a FIFO for writing once its reader has it open; -1 after the deadline.
int openFifoForWriting(const fs::path& fifo, std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            return fd;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

bool hasTemporaryOutput(const fs::path& dir) {
    for (const std::string& name : filesIn(dir))
        if (name != "in.wav") return true;
    return false;
}

// The input is a FIFO fed with part of a file, so the tool is caught mid-render, its output
// under way, when it is interrupted.
TEST(RendererCli, AnInterruptedRenderRemovesItsUnfinishedOutput) {
    const fs::path dir = freshDirectory("interrupt");
    const fs::path source = fs::path(SR_TEST_TMP) / "renderer" / "interrupt-source.wav";
    writeAudio(source, 48000, 2, testSignal(48000, 2, 48000));
    const std::string audio = readText(source);
    const fs::path fifo = dir / "in.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const fs::path errPath = fs::path(SR_TEST_TMP) / "renderer" / "interrupt-err.txt";

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::string tool = SR_RENDER_TOOL, in = fifo, out = dir / "out.wav";
    char* argv[] = {tool.data(), in.data(), out.data(), nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(spawned, 0);

    // A tool that died early must not kill the test through a broken pipe.
    struct sigaction ignore {
    }, previous{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &previous);
    const int fd = openFifoForWriting(fifo, std::chrono::seconds(10));
    bool underWay = false;
    if (fd >= 0) {
        // The header and some frames; then the tool waits for more, its output file open.
        [[maybe_unused]] const auto written = ::write(fd, audio.data(), audio.size() / 4);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!(underWay = hasTemporaryOutput(dir)) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::kill(pid, SIGINT);
    if (fd >= 0) ::close(fd);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::sigaction(SIGPIPE, &previous, nullptr);

    ASSERT_GE(fd, 0) << "the tool never opened its input";
    EXPECT_TRUE(underWay) << "no output under way when interrupted";
    ASSERT_TRUE(WIFEXITED(status)) << "ended by a signal, not by its own cleanup";
    EXPECT_NE(WEXITSTATUS(status), 0);
    const std::string err = readText(errPath);
    EXPECT_EQ(lines(err).size(), 1u) << err;
    EXPECT_NE(err.find("interrupted"), std::string::npos) << err;
    EXPECT_EQ(filesIn(dir), (std::set<std::string>{"in.wav"}));
}

TEST(RendererCli, HelpIsShownWithoutError) {
    const ToolRun run = runTool({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("--block"), std::string::npos);
    EXPECT_NE(run.out.find("--demo"), std::string::npos);
}

// ---- progress ----------------------------------------------------------------------------------

// Runs the tool on a pseudo-terminal, through util-linux's script(1).
std::optional<ToolRun> runOnTerminal(const std::vector<std::string>& args) {
    if (std::system("script --version >/dev/null 2>&1") != 0) return std::nullopt;
    return runCommand("script -qec " + shellQuoted(toolCommand(args)) + " /dev/null");
}

TEST(RendererCli, ProgressBarOnlyOnATerminalAndOnlyForLongInputs) {
    const fs::path dir = freshDirectory("progress");
    constexpr int kRate = 8000;
    writeAudio(dir / "long.wav", kRate, 2, testSignal(kRate, 2, 7 * kRate));
    writeAudio(dir / "short.wav", kRate, 2, testSignal(kRate, 2, 3 * kRate));

    const ToolRun piped = runTool({dir / "long.wav", dir / "out.wav"});
    ASSERT_EQ(piped.exitCode, 0);
    EXPECT_EQ(piped.out.find('%'), std::string::npos) << "a bar on a pipe";
    EXPECT_EQ(piped.out.find('\r'), std::string::npos) << "a bar on a pipe";

    const std::optional<ToolRun> longRun = runOnTerminal({dir / "long.wav", dir / "out.wav"});
    if (!longRun) GTEST_SKIP() << "script(1) is not available";
    EXPECT_NE(longRun->out.find("100%"), std::string::npos) << longRun->out;
    const std::optional<ToolRun> shortRun = runOnTerminal({dir / "short.wav", dir / "out.wav"});
    EXPECT_EQ(shortRun->out.find('%'), std::string::npos) << shortRun->out;
}

// ---- demo
// ----------------------------------------------------------------------------------------

// Energy below, inside and above a band, by cascaded one-pole filters: coarse, but enough to
// tell a bass, chords and a hi-hat apart.
struct Bands {
    double low = 0, mid = 0, high = 0;
};

Bands bandEnergies(const std::vector<float>& stereo, double rate, double lowHz, double highHz) {
    const double aLow = 1.0 - std::exp(-2.0 * std::numbers::pi * lowHz / rate);
    const double aHigh = 1.0 - std::exp(-2.0 * std::numbers::pi * highHz / rate);
    Bands bands;
    for (int c = 0; c < 2; ++c) {
        double l1 = 0, l2 = 0, h1 = 0, h2 = 0;
        for (std::size_t i = std::size_t(c); i < stereo.size(); i += 2) {
            const double x = stereo[i];
            l1 += aLow * (x - l1);
            l2 += aLow * (l1 - l2);
            h1 += aHigh * (x - h1);
            h2 += aHigh * (h1 - h2);
            const double high = x - h2;
            bands.low += l2 * l2;
            bands.high += high * high;
            bands.mid += std::pow(x - l2 - high, 2);
        }
    }
    return bands;
}

TEST(RendererCli, DemoWritesADeterministicDryAndWetPair) {
    const fs::path root = freshDirectory("demo");
    const ToolRun run = runTool({"--demo", root / "a" / "nested"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("demo-dry.wav"), std::string::npos);
    EXPECT_NE(run.out.find("demo-wet.wav"), std::string::npos);
    EXPECT_EQ(run.out.find('\r'), std::string::npos) << "a progress bar on a pipe";

    const std::optional<Wav> dry = readFloatWav(root / "a" / "nested" / "demo-dry.wav");
    const std::optional<Wav> wet = readFloatWav(root / "a" / "nested" / "demo-wet.wav");
    ASSERT_TRUE(dry && wet);
    for (const Wav* w : {&*dry, &*wet}) {
        EXPECT_EQ(w->sampleRate, 48000);
        EXPECT_EQ(w->channels, 2);
        EXPECT_NEAR(double(w->frames()) / 48000.0, 12.0, 1.0);
        EXPECT_TRUE(allFinite(w->samples));
        EXPECT_GT(peak(w->samples), 0.1f);
        EXPECT_LE(peak(w->samples), 1.0f);
    }
    ASSERT_EQ(dry->frames(), wet->frames());

    // A bass below 150 Hz, chords in the middle and a hi-hat on top, all clearly present.
    const Bands d = bandEnergies(dry->samples, 48000, 150, 5000);
    const double total = d.low + d.mid + d.high;
    EXPECT_GT(d.low / total, 0.05);
    EXPECT_GT(d.mid / total, 0.2);
    EXPECT_GT(d.high / total, 0.002);
    // The chorus is heard: the wet file is not the dry one.
    EXPECT_GT(differenceDb(dry->samples, wet->samples), -30.0);

    // Fixed seeds: a second run writes the same bytes.
    ASSERT_EQ(runTool({"--demo", root / "b"}).exitCode, 0);
    for (const char* name : {"demo-dry.wav", "demo-wet.wav"})
        EXPECT_EQ(readText(root / "a" / "nested" / name), readText(root / "b" / name)) << name;
}

} // namespace
