// Golden renders: the audio unit's whole render block (event frame, gains, band split, chorus,
// mix, dry/wet, limiter) must keep producing the same output bits. Each case renders a fixed
// signal with parameter, ramp and MIDI events through one fresh unit and hashes the output;
// the hashes of every case at 44.1, 48 and 96 kHz and host blocks of 1, 16, 64, 512 and 4096
// frames are kept in tests/golden/render-hashes.txt.
//
// The hashes hold for one compiler and one set of build flags (the default build). After a
// deliberate change of the sound, record them again with the test binary itself:
//   SR_GOLDEN_UPDATE=1 build/tests/sr_tests --gtest_filter='GoldenRender.*'
// (SR_GOLDEN_UPDATE=48000 records one rate and keeps the others' lines.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/ParameterTable.h"
#include "tests/AudioUnitHost.h"
#include "util/Simd.h"

namespace {

namespace fs = std::filesystem;
using sr::test::AudioUnitHost;
using sr::test::Stereo;

constexpr std::size_t kFrames = 16384 + 77; // the last call of every block size is a short one
constexpr AUAudioFrameCount kBlocks[] = {1, 16, 64, 512, 4096};
constexpr double kRates[] = {44100.0, 48000.0, 96000.0};

// Low, middle and high partials and noise, swelling past full scale in the middle (the limiter
// works there) and ending in a subnormal tail.
Stereo testSignal() {
    Stereo s(kFrames);
    std::uint32_t state = 12345;
    auto noise = [&state] {
        state = state * 1664525u + 1013904223u;
        return float(state >> 8) / float(1 << 24) - 0.5f;
    };
    for (std::size_t i = 0; i < kFrames; ++i) {
        const double t = double(i);
        const double swell = i < 6000 ? 0.3 : i < 10000 ? 1.6 : i < 15000 ? 0.5 : 0.0;
        const double l = 0.4 * std::sin(t * 0.031) + 0.3 * std::sin(t * 0.17) +
                         0.2 * std::sin(t * 0.9) + 0.2 * noise();
        const double r = 0.4 * std::sin(t * 0.027 + 1.0) + 0.3 * std::sin(t * 0.21) +
                         0.2 * std::sin(t * 1.3) + 0.2 * noise();
        s.left[i] = i < 15000 ? float(swell * l) : noise() * 1e-38f;
        s.right[i] = i < 15000 ? float(swell * r) : noise() * 1e-38f;
    }
    return s;
}

struct TimedEvent {
    AUEventSampleTime frame;
    bool midi;
    AUParameterAddress address;
    AUValue value;
    AUAudioFrameCount ramp;
    std::vector<std::uint8_t> bytes;
};

// Parameter changes at their frames (one as a ramp), controller moves that the mapping applies
// from the next call on, and MIDI that only passes through.
std::vector<TimedEvent> testEvents() {
    return {
        {1, false, sr::kChorusDepth, 0.8f, 0, {}},
        {2500, false, sr::kChorusFeedback, 0.9f, 0, {}},
        {2500, false, sr::kChorusDelay, 0.05f, 0, {}},
        {4000, true, 0, 0, 0, {0x90, 60, 100}},
        {5000, false, sr::kChorusDryWet, 0.9f, 100, {}},
        {6000, true, 0, 0, 0, {0xB0, 13, 40}},
        {7001, true, 0, 0, 0, {0xB3, 20, 127}},
        {9000, false, sr::kFrequencySplitHP, 0.8f, 0, {}},
        {11000, false, sr::kChorusLFOType, 1.0f, 0, {}},
        {12000, false, sr::kVolumeOut, 1.5f, 0, {}},
        {13000, true, 0, 0, 0, {0xB0, 24, 10}},
    };
}

struct Case {
    std::string name;
    std::function<void(AudioUnitHost&)> setUp;
};

void setAll(AudioUnitHost& host, std::initializer_list<std::pair<AUParameterAddress, AUValue>> v) {
    for (const auto& [address, value] : v) host.parameter(address).setValue(value);
}

std::vector<Case> cases() {
    std::vector<Case> list{
        {"defaults", [](AudioUnitHost&) {}},
        {"extremes",
         [](AudioUnitHost& h) {
             setAll(h, {{sr::kFrequencySplitLP, 0.0f},
                        {sr::kFrequencySplitHP, 1.0f},
                        {sr::kChorusDepth, 1.0f},
                        {sr::kChorusDelay, 0.0f},
                        {sr::kChorusFeedback, 0.0f},
                        {sr::kChorusCross, 1.0f},
                        {sr::kChorusPanning, 0.0f},
                        {sr::kChorusLFOFrequency, 1.0f},
                        {sr::kChorusLFORandom, 1.0f},
                        {sr::kChorusLFOType, 1.0f},
                        {sr::kChorusLFOStereo, 1.0f},
                        {sr::kChorusDryWet, 1.0f}});
         }},
        {"short-delay-hot",
         [](AudioUnitHost& h) {
             setAll(h, {{sr::kVolumeIn, 2.0f},
                        {sr::kVolumeOut, 0.7f},
                        {sr::kChorusDepth, 0.0f},
                        {sr::kChorusDelay, 0.0f},
                        {sr::kChorusFeedback, 1.0f},
                        {sr::kChorusPanning, 1.0f},
                        {sr::kChorusDryWet, 0.7f},
                        {sr::kFrequencySplitLP, 0.05f},
                        {sr::kFrequencySplitHP, 0.95f}});
         }},
        {"no-limiter",
         [](AudioUnitHost& h) {
             setAll(h, {{sr::kFinalLimit, 0.0f},
                        {sr::kVolumeIn, 1.5f},
                        {sr::kVolumeOut, 1.7f},
                        {sr::kChorusLFOType, 1.0f},
                        {sr::kChorusLFOFrequency, 0.7f},
                        {sr::kChorusDryWet, 1.0f},
                        {sr::kFrequencySplitLP, 0.5f},
                        {sr::kFrequencySplitHP, 0.5f}});
         }},
    };
    std::vector<fs::path> presets;
    for (const auto& e : fs::directory_iterator(SR_FACTORY_PRESETS))
        if (e.path().extension() == ".aupreset") presets.push_back(e.path());
    std::sort(presets.begin(), presets.end());
    for (const fs::path& p : presets)
        list.push_back({"preset:" + p.stem().string(), [p](AudioUnitHost& h) {
                            ASSERT_TRUE(h.unit.loadPresetFile(p.string())) << p;
                        }});
    return list;
}

// FNV-1a over the output's bits, left channel then right.
std::uint64_t hashOf(const Stereo& s) {
    std::uint64_t h = 1469598103934665603ull;
    for (const std::vector<float>* channel : {&s.left, &s.right})
        for (float v : *channel) {
            std::uint32_t bits;
            std::memcpy(&bits, &v, sizeof bits);
            for (int b = 0; b < 4; ++b) {
                h ^= (bits >> (8 * b)) & 0xFF;
                h *= 1099511628211ull;
            }
        }
    return h;
}

Stereo render(const Case& c, double rate, AUAudioFrameCount block, const Stereo& in) {
    AudioUnitHost host({.sampleRate = rate});
    c.setUp(host);
    const std::vector<TimedEvent> events = testEvents();
    RenderEventList<> list;
    Stereo out(kFrames);
    std::size_t next = 0;
    for (std::size_t pos = 0; pos < kFrames; pos += block) {
        const auto n = AUAudioFrameCount(std::min<std::size_t>(block, kFrames - pos));
        list.clear();
        for (; next < events.size() && events[next].frame < AUEventSampleTime(pos + n); ++next) {
            const TimedEvent& e = events[next];
            if (e.midi)
                list.addMIDI(e.frame, 0, e.bytes.data(), std::uint16_t(e.bytes.size()));
            else
                list.addParameter(e.frame, e.address, e.value, e.ramp);
        }
        EXPECT_EQ(host.renderCall(&in.left[pos], &in.right[pos], &out.left[pos], &out.right[pos], n,
                                  list.head()),
                  noErr);
        host.mainQueue.drain();
    }
    return out;
}

std::string key(double rate, AUAudioFrameCount block, const std::string& name) {
    std::ostringstream k;
    k << std::int64_t(rate) << ' ' << block << ' ' << name;
    return k.str();
}

// "rate block case" -> hash, as recorded.
std::map<std::string, std::string> readGoldens() {
    std::map<std::string, std::string> goldens;
    std::ifstream file(SR_GOLDEN_FILE);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t split = line.rfind(' ');
        if (split != std::string::npos) goldens[line.substr(0, split)] = line.substr(split + 1);
    }
    return goldens;
}

void writeGoldens(const std::map<std::string, std::string>& goldens) {
    std::ofstream file(SR_GOLDEN_FILE, std::ios::trunc);
    file << "# Output hashes of tests/test_golden_render.cpp: rate, host block, case, FNV-1a of "
            "the output bits.\n";
    for (const auto& [k, hash] : goldens) file << k << ' ' << hash << '\n';
}

std::string hex(std::uint64_t h) {
    std::ostringstream s;
    s << std::hex << h;
    return s.str();
}

void checkRate(double rate) {
    const sr::test::QuietLog quiet;
    const Stereo in = testSignal();
    const char* update = std::getenv("SR_GOLDEN_UPDATE");
    const bool updating = update && (std::string(update) == "1" ||
                                     std::string(update) == std::to_string(std::int64_t(rate)));
    std::map<std::string, std::string> goldens = readGoldens();
    std::vector<std::string> changed;
    for (const Case& c : cases())
        for (AUAudioFrameCount block : kBlocks) {
            const std::string k = key(rate, block, c.name);
            const std::string hash = hex(hashOf(render(c, rate, block, in)));
            if (updating)
                goldens[k] = hash;
            else if (goldens[k] != hash)
                changed.push_back(k + ": " + hash + ", recorded " +
                                  (goldens[k].empty() ? "nothing" : goldens[k]));
        }
    if (updating) {
        writeGoldens(goldens);
        GTEST_SKIP() << "recorded the hashes at " << rate << " Hz";
    }
    std::string report;
    for (const std::string& c : changed) report += "\n  " + c;
    EXPECT_TRUE(changed.empty()) << changed.size()
                                 << " renders differ from the recorded bits:" << report;
}

TEST(GoldenRender, At44100Hz) {
    checkRate(44100.0);
}
TEST(GoldenRender, At48000Hz) {
    checkRate(48000.0);
}
TEST(GoldenRender, At96000Hz) {
    checkRate(96000.0);
}

// Where the processor has AVX2 some loops run eight-lane versions; the baseline versions, which
// other processors run, must give the same bits.
TEST(GoldenRender, BaselineLoopsGiveTheSameBits) {
    if (!sr::simd::wideVectors()) GTEST_SKIP() << "no AVX2 here: the tests above ran the baseline";
    sr::simd::allowWideVectors(false);
    for (double rate : kRates) checkRate(rate);
    sr::simd::allowWideVectors(true);
}

// Nothing in the path depends on the run (the random sources are the instance's own): two
// renders of one case are identical, so the recorded hashes can mean something.
TEST(GoldenRender, RendersAreRepeatable) {
    const sr::test::QuietLog quiet;
    const Stereo in = testSignal();
    const Case c = cases()[1];
    EXPECT_EQ(hashOf(render(c, 48000.0, 64, in)), hashOf(render(c, 48000.0, 64, in)));
}

} // namespace
