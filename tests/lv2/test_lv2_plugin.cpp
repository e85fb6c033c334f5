// The LV2 plug-in as a host sees it: its description, the audio path, MIDI, state and presets.
#include "Lv2Host.h"

#include <gtest/gtest.h>
#include <lv2/port-props/port-props.h>
#include <lv2/presets/presets.h>
#include <lv2/resize-port/resize-port.h>
#include <lv2/state/state.h>
#include <plist/plist.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <tuple>

using namespace sr;
using namespace sr::lv2test;
namespace fs = std::filesystem;

namespace {

// Every size from 1 to 64 frames, then large calls up to the announced maximum.
std::vector<uint32_t> varyingBlocks() {
    std::vector<uint32_t> sizes;
    for (uint32_t n = 1; n <= 64; ++n) sizes.push_back(n);
    for (uint32_t n : {4096u, 8191u, 16384u}) sizes.push_back(n);
    return sizes;
}

// Renders all of `in`, cutting it into calls of the given sizes in turn.
test::Stereo render(Instance& p, const test::Stereo& in, const std::vector<uint32_t>& sizes) {
    test::Stereo out(in.size());
    for (std::size_t at = 0, k = 0, n; at < in.size(); at += n, ++k) {
        n = std::min<std::size_t>(sizes[k % sizes.size()], in.size() - at);
        p.run(in, out, at, n);
    }
    return out;
}

// Index of the first frame that differs in [from, from + count), or -1.
long firstDifference(const test::Stereo& a, const test::Stereo& b, std::size_t from = 0,
                     std::size_t count = SIZE_MAX) {
    const std::size_t end = std::min({a.size(), b.size(), from + std::min(count, a.size())});
    for (std::size_t i = from; i < end; ++i)
        if (std::memcmp(&a.left[i], &b.left[i], 4) || std::memcmp(&a.right[i], &b.right[i], 4))
            return long(i);
    return -1;
}

bool reported(const Instance& p, int address, float value, float tolerance = 0.0f) {
    const auto reports = p.reports();
    return std::any_of(reports.begin(), reports.end(), [&](const auto& r) {
        return r.first == address && std::fabs(r.second - value) <= tolerance;
    });
}

TEST(Lv2Plugin, DescriptionFollowsTheParameterTable) {
    Host& h = Host::get();
    const LilvPlugin* plugin = h.plugin;
    ASSERT_NE(plugin, nullptr) << "urn:tav:sr-chorus not found in " SR_LV2_BUNDLE;
    EXPECT_STREQ(lilv_node_as_string(Node(lilv_plugin_get_name(plugin))), "TAV SR Chorus");
    EXPECT_TRUE(lilv_world_ask(h.world, lilv_plugin_get_uri(plugin), h.node(LILV_NS_RDF "type"),
                               h.node(LV2_CORE__ChorusPlugin)));
    // Hosts without any feature (lv2apply) must still be able to load it.
    LilvNodes* required = lilv_plugin_get_required_features(plugin);
    EXPECT_EQ(lilv_nodes_size(required), 0u);
    lilv_nodes_free(required);
    ASSERT_EQ(lilv_plugin_get_num_ports(plugin), uint32_t(kPortCount));

    const auto port = [&](uint32_t index) { return lilv_plugin_get_port_by_index(plugin, index); };
    const auto is = [&](uint32_t index, const std::string& uri) {
        return lilv_port_is_a(plugin, port(index), h.node(uri)) ||
               lilv_port_has_property(plugin, port(index), h.node(uri));
    };
    for (const ParameterInfo& info : kParameterTable) {
        SCOPED_TRACE(std::string(info.identifier));
        const uint32_t i = uint32_t(info.address);
        EXPECT_TRUE(is(i, LV2_CORE__InputPort) && is(i, LV2_CORE__ControlPort));
        EXPECT_EQ(lilv_node_as_string(lilv_port_get_symbol(plugin, port(i))), info.identifier);
        EXPECT_EQ(lilv_node_as_string(Node(lilv_port_get_name(plugin, port(i)))), info.name);
        LilvNode *def = nullptr, *min = nullptr, *max = nullptr;
        lilv_port_get_range(plugin, port(i), &def, &min, &max);
        ASSERT_TRUE(def && min && max);
        EXPECT_EQ(lilv_node_as_float(min), info.minValue);
        EXPECT_EQ(lilv_node_as_float(max), info.maxValue);
        EXPECT_EQ(lilv_node_as_float(def), info.defaultValue);
        lilv_node_free(def), lilv_node_free(min), lilv_node_free(max);
        EXPECT_EQ(is(i, LV2_CORE__toggled), info.unit == ParameterUnit::Boolean);
        const bool controller = info.address >= kFirstControllerAddress;
        EXPECT_EQ(is(i, LV2_CORE__integer), controller);
        // Every parameter is automatable; the LFO shape is a choice of two; the display
        // contrast is saved and automated but not shown by a host's own controls.
        EXPECT_FALSE(is(i, LV2_PORT_PROPS__notAutomatic));
        EXPECT_EQ(is(i, LV2_CORE__enumeration), info.address == kChorusLFOType);
        EXPECT_EQ(is(i, LV2_PORT_PROPS__notOnGUI), info.address == kDisplayContrast);
        std::map<float, std::string> labels;
        LilvScalePoints* points = lilv_port_get_scale_points(plugin, port(i));
        LILV_FOREACH(scale_points, it, points) {
            const LilvScalePoint* p = lilv_scale_points_get(points, it);
            labels[lilv_node_as_float(lilv_scale_point_get_value(p))] =
                lilv_node_as_string(lilv_scale_point_get_label(p));
        }
        lilv_scale_points_free(points);
        using Labels = std::map<float, std::string>;
        const Labels expected = controller ? Labels{{kNoController, "None"}}
                                : info.address == kChorusLFOType
                                    ? Labels{{0.0f, "Sine"}, {1.0f, "Triangle"}}
                                    : Labels{};
        EXPECT_EQ(labels, expected);
    }

    const std::string in = LV2_CORE__InputPort, out = LV2_CORE__OutputPort,
                      audio = LV2_CORE__AudioPort, atom = LV2_ATOM__AtomPort;
    const std::tuple<uint32_t, const char*, std::string, std::string> others[] = {
        {kInL, "in_l", in, audio},      {kInR, "in_r", in, audio},
        {kOutL, "out_l", out, audio},   {kOutR, "out_r", out, audio},
        {kMidiIn, "midi_in", in, atom}, {kMidiOut, "midi_out", out, atom},
        {kNotify, "notify", out, atom},
    };
    for (const auto& [i, symbol, direction, kind] : others) {
        SCOPED_TRACE(symbol);
        EXPECT_STREQ(lilv_node_as_string(lilv_port_get_symbol(plugin, port(i))), symbol);
        EXPECT_TRUE(is(i, direction) && is(i, kind));
        if (kind != atom) continue;
        Node bufferType(lilv_port_get(plugin, port(i), h.node(LV2_ATOM__bufferType)));
        EXPECT_TRUE(bufferType.node && lilv_node_equals(bufferType, h.node(LV2_ATOM__Sequence)));
        EXPECT_TRUE(is(i, LV2_CORE__connectionOptional));
        EXPECT_EQ(lilv_port_supports_event(plugin, port(i), h.node(LV2_MIDI__MidiEvent)),
                  i != kNotify);
        // The editor's patch:Get comes in with the MIDI; no port claims patch messages a host
        // would read itself.
        EXPECT_EQ(lilv_port_supports_event(plugin, port(i), h.node(LV2_PATCH__Message)),
                  i == kMidiIn);
        if (i == kMidiIn) continue;
        // The notify port holds every report and a full message of input samples for the
        // editor's spectrum (8192 floats) besides.
        Node size(lilv_port_get(plugin, port(i), h.node(LV2_RESIZE_PORT__minimumSize)));
        EXPECT_TRUE(size.node && lilv_node_as_int(size) == (i == kNotify ? 45056 : 8192));
    }
    EXPECT_STREQ(lilv_node_as_string(Node(lilv_port_get_name(plugin, port(kMidiOut)))),
                 "TAV SR Chorus MIDI Out");
}

// Full-scale noise through the defaults, in calls of every size, with and without host features.
TEST(Lv2Plugin, DefaultsRenderNoiseFiniteAudibleAndWithinFullScale) {
    const test::Stereo in = test::noise(3 * 48000, 11, 1.0f);
    for (bool withFeatures : {true, false}) {
        SCOPED_TRACE(withFeatures ? "with features" : "without features");
        Instance p(withFeatures);
        ASSERT_NE(p.raw, nullptr);
        const test::Stereo out = render(p, in, varyingBlocks());
        for (const auto* side : {&out.left, &out.right}) {
            EXPECT_TRUE(test::allFinite(*side));
            EXPECT_LE(test::peak(*side), 1.0f); // the limiter is on by default
            EXPECT_GT(test::peak(*side), 0.1f);
        }
        EXPECT_NE(firstDifference(in, out), -1) << "the chorus left the input untouched";
    }
}

TEST(Lv2Plugin, DryMixWithoutLimiterIsBitTransparentFromFrameZeroAtAnyBlockSize) {
    Instance p;
    p.control[kChorusDryWet] = 0.0f;
    p.control[kFinalLimit] = 0.0f;
    const test::Stereo in = test::noise(2 * 31000, 5, 1.0f);
    EXPECT_EQ(firstDifference(in, render(p, in, varyingBlocks())), -1);
}

TEST(Lv2Plugin, NearSilentInputGivesNoSubnormalOutput) {
    // Noise a few steps around the smallest normal float, as a fading host track ends.
    test::Stereo in = test::noise(48000, 21, 4.0f * FLT_MIN);
    for (float feedback : {0.33f, 1.0f}) {
        Instance p;
        p.control[kChorusFeedback] = feedback;
        const test::Stereo out = render(p, in, {256});
        const auto subnormal = [](float v) { return std::fpclassify(v) == FP_SUBNORMAL; };
        EXPECT_EQ(std::count_if(out.left.begin(), out.left.end(), subnormal) +
                      std::count_if(out.right.begin(), out.right.end(), subnormal),
                  0)
            << "feedback " << feedback;
    }
}

TEST(Lv2Plugin, InstantiatesAtEverySampleRateFrom8To384kHz) {
    Host& h = Host::get();
    for (double rate : {8000.0, 44100.5, 384000.0, 7999.0, 384001.0, 0.0}) {
        LilvInstance* instance = lilv_plugin_instantiate(h.plugin, rate, h.features);
        EXPECT_EQ(instance != nullptr, rate >= 8000.0 && rate <= 384000.0) << rate;
        if (instance) lilv_instance_free(instance);
    }
}

TEST(Lv2Plugin, InPlaceAliasedAndEmptyRunsKeepToTheBuffers) {
    const test::Stereo in = test::noise(4096, 9);
    Instance reference, inPlace, aliased;
    const test::Stereo expected = render(reference, in, {256});

    // Input and output on the same memory, with empty runs in between.
    test::Stereo shared = in;
    for (std::size_t at = 0; at < in.size(); at += 256) {
        inPlace.run(shared, shared, at, 0);
        inPlace.run(shared, shared, at, 256);
    }
    EXPECT_EQ(firstDifference(expected, shared), -1);

    // Both outputs on one buffer with a NaN guard behind the call: it ends up holding the right
    // channel as rendered out of place (written last), and nothing past n is touched.
    std::vector<float> out(256 + 16, std::nanf(""));
    for (std::size_t at = 0; at < in.size(); at += 256) {
        test::Stereo scratch(in.size());
        aliased.run(in, scratch, at, 0); // connects the inputs
        lilv_instance_connect_port(aliased.raw, kOutL, out.data());
        lilv_instance_connect_port(aliased.raw, kOutR, out.data());
        lilv_instance_run(aliased.raw, 256);
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + 256, expected.right.begin() + long(at)))
            << "block at " << at;
        ASSERT_TRUE(std::all_of(out.begin() + 256, out.end(), [](float v) { return v != v; }));
    }

    // Each output on the other channel's input, whole or shifted by a third of a block: the
    // input is read before any output is written.
    for (const long skew : {0L, 85L}) {
        Instance crossed;
        for (std::size_t at = 0; at < in.size(); at += 256) {
            std::vector<float> memory(1024, std::nanf(""));
            float* const inLeft = memory.data();
            float* const inRight = memory.data() + 512;
            std::copy_n(in.left.begin() + long(at), 256, inLeft);
            std::copy_n(in.right.begin() + long(at), 256, inRight);
            test::Stereo scratch(in.size());
            crossed.run(in, scratch, at, 0);
            lilv_instance_connect_port(crossed.raw, kInL, inLeft);
            lilv_instance_connect_port(crossed.raw, kInR, inRight);
            lilv_instance_connect_port(crossed.raw, kOutL, inRight - skew);
            lilv_instance_connect_port(crossed.raw, kOutR, inLeft + skew);
            lilv_instance_run(crossed.raw, 256);
            ASSERT_TRUE(
                std::equal(inRight - skew, inRight - skew + 256,
                           expected.left.begin() + long(at)) &&
                std::equal(inLeft + skew, inLeft + skew + 256, expected.right.begin() + long(at)))
                << "skew " << skew << ", block at " << at;
        }
    }

    // Outputs that overlap in part, the right one 3 floats above the left or 5 below it: the
    // memory holds what writing the left channel, then the right one, would leave.
    for (const auto& [leftAt, rightAt] : {std::pair{0, 3}, std::pair{5, 0}}) {
        Instance partial;
        for (std::size_t at = 0; at < in.size(); at += 256) {
            test::Stereo scratch(in.size());
            partial.run(in, scratch, at, 0);
            std::vector<float> shared(256 + 16, std::nanf(""));
            lilv_instance_connect_port(partial.raw, kOutL, shared.data() + leftAt);
            lilv_instance_connect_port(partial.raw, kOutR, shared.data() + rightAt);
            lilv_instance_run(partial.raw, 256);
            std::vector<float> want(256 + 16, std::nanf(""));
            std::copy_n(expected.left.begin() + long(at), 256, want.begin() + leftAt);
            std::copy_n(expected.right.begin() + long(at), 256, want.begin() + rightAt);
            ASSERT_TRUE(std::equal(want.begin(), want.end(), shared.begin(),
                                   [](float a, float b) { return a == b || (a != a && b != b); }))
                << "left at " << leftAt << ", right at " << rightAt << ", block at " << at;
        }
    }
}

TEST(Lv2Plugin, BoundControllerActsOneRunLaterUntilThePortMoves) {
    constexpr std::size_t n = 512;
    Instance p;
    p.control[kFinalLimit] = 0.0f;
    const test::Stereo in = test::noise(4 * n, 3);
    test::Stereo out(in.size());

    p.midi(5, {0xB6, 24, 0}); // CC 24 on channel 7: bindings listen on every channel
    p.run(in, out, 0, n);
    EXPECT_NE(firstDifference(in, out, 0, n), -1) << "the controller acted in its own run";
    p.run(in, out, n, n);
    EXPECT_TRUE(reported(p, kChorusDryWet, 0.0f));
    p.run(in, out, 2 * n, n);
    EXPECT_EQ(p.control[kChorusDryWet], 0.5f);
    EXPECT_EQ(firstDifference(in, out, n, 2 * n), -1) << "not dry after the controller's change";

    p.control[kChorusDryWet] = 1.0f;
    p.run(in, out, 3 * n, n);
    EXPECT_NE(firstDifference(in, out, 3 * n, n), -1) << "the moved port did not win";
}

TEST(Lv2Plugin, ReportsThatFindNoRoomFollowInLaterCalls) {
    Instance p;
    p.notifyCapacity = 200; // two reports a call
    test::Stereo scratch(64);
    p.requestValues();
    std::map<int, float> seen;
    for (int call = 0; call < 20; ++call) {
        p.run(test::silence(64), scratch, 0, 64);
        EXPECT_LE(p.reports().size(), 2u);
        for (const auto& [address, value] : p.reports()) seen[address] = value;
    }
    EXPECT_EQ(seen.size(), kParameterCount);
    for (const ParameterInfo& info : kParameterTable)
        EXPECT_EQ(seen[int(info.address)], info.defaultValue) << info.identifier;
}

// ---- the editor's spectrum: the input tap ------------------------------------------------------

namespace {

const std::string kUiOn = kNs + "uiOn", kUiOff = kNs + "uiOff";

// Runs `in` in calls of `block` frames from frame `from` on; the input samples messages of each
// call, in order, with the frame after the call.
struct Sent {
    std::size_t afterFrame;
    float rate;
    std::vector<float> samples;
};
std::vector<Sent> runCollecting(Instance& p, const test::Stereo& in, std::size_t from,
                                std::size_t frames, std::size_t block) {
    std::vector<Sent> sent;
    test::Stereo out(in.size());
    for (std::size_t at = from, n; at < from + frames; at += n) {
        n = std::min(block, from + frames - at);
        p.run(in, out, at, n);
        EXPECT_TRUE(p.notifyGuardIntact());
        for (auto& [rate, samples] : p.inputSamples()) sent.push_back({at + n, rate, samples});
    }
    return sent;
}

} // namespace

TEST(Lv2Spectrum, NothingIsCopiedOrSentWhileNoEditorAsks) {
    Instance p;
    const test::Stereo in = test::noise(48000, 5);
    EXPECT_TRUE(runCollecting(p, in, 0, 48000, 500).empty());
    // A patch:Get is no uiOn.
    p.requestValues();
    EXPECT_TRUE(runCollecting(p, in, 0, 24000, 500).empty());
}

TEST(Lv2Spectrum, AnOpenEditorGetsTheInputAtMost30TimesASecondAndNothingAfterUiOff) {
    Instance p;
    const test::Stereo in = test::noise(3 * 48000, 6);
    p.object(kUiOn);
    const std::vector<Sent> sent = runCollecting(p, in, 0, 48000, 256);
    // Every 1600 frames of audio: 30 messages in the second, each taking what came since.
    ASSERT_GE(sent.size(), 29u);
    EXPECT_LE(sent.size(), 30u);
    std::vector<float> joined;
    for (const Sent& s : sent) {
        EXPECT_EQ(s.rate, 48000.0f);
        EXPECT_LE(s.samples.size(), 1600u + 256u);
        joined.insert(joined.end(), s.samples.begin(), s.samples.end());
    }
    // The mean of left and right, every frame from the uiOn's call on, none twice or lost.
    ASSERT_EQ(joined.size(), sent.back().afterFrame);
    for (std::size_t i = 0; i < joined.size(); ++i)
        ASSERT_EQ(joined[i], 0.5f * (in.left[i] + in.right[i])) << i;

    p.object(kUiOff);
    EXPECT_TRUE(runCollecting(p, in, 48000, 48000, 256).empty());
    // Opened again: only what comes from then on, nothing left from before.
    p.object(kUiOn);
    const std::vector<Sent> again = runCollecting(p, in, 96000, 4800, 480);
    ASSERT_FALSE(again.empty());
    EXPECT_EQ(again.front().samples.front(), 0.5f * (in.left[96000] + in.right[96000]));
}

TEST(Lv2Spectrum, StopsByItselfWhenNoEditorRepeatsItsUiOnForFiveSeconds) {
    Instance p;
    const test::Stereo in = test::noise(48000, 7);
    p.object(kUiOn);
    std::size_t lastSent = 0;
    // Seven seconds of audio; the uiOn is repeated during the first two only.
    for (int second = 0; second < 7; ++second) {
        if (second > 0 && second < 3) p.object(kUiOn);
        for (const Sent& s : runCollecting(p, in, 0, 48000, 512))
            lastSent = std::size_t(second) * 48000 + s.afterFrame;
    }
    // The last uiOn came at 96000; five seconds later (336000) it stops.
    EXPECT_GT(lastSent, 330000u);
    EXPECT_LE(lastSent, 336000u + 512u);
}

TEST(Lv2Spectrum, MessagesKeepToTheNotifyPortsRoomAfterTheReports) {
    Instance p;
    p.notifyCapacity = 2048;
    const test::Stereo in = test::noise(48000, 8);
    p.object(kUiOn);
    p.requestValues(); // the reports go first and fill the small port for a few calls
    std::size_t messages = 0;
    test::Stereo out(in.size());
    for (std::size_t at = 0; at + 256 <= in.size(); at += 256) {
        p.run(in, out, at, 256);
        EXPECT_TRUE(p.notifyGuardIntact()) << at;
        for (const auto& [rate, samples] : p.inputSamples()) {
            EXPECT_EQ(rate, 48000.0f);
            // The newest samples that fit: (2048 - the sequence's and message's headers) / 4.
            EXPECT_GT(samples.size(), 400u);
            EXPECT_LE(samples.size(), 500u);
            EXPECT_EQ(samples.back(), 0.5f * (in.left[at + 255] + in.right[at + 255]));
            ++messages;
        }
    }
    EXPECT_GE(messages, 25u);
}

TEST(Lv2Plugin, MidiPassesThroughInOrderAndWithinTheOutputCapacity) {
    constexpr uint32_t n = 256;
    const std::vector<MidiEvent> sent = {
        {0, {0x90, 60, 100}},
        {7, {0xB0, 1, 64}}, // the modulation wheel is bound to nothing
        {7, {0xE3, 0x00, 0x40}},
        {n - 1, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
    };
    Instance p;
    const test::Stereo in = test::silence(n);
    test::Stereo out(n);
    // 8 bytes of sequence header and 24 per event: the first two fit into 64 bytes. An odd
    // capacity must not make the plug-in claim more than it was given.
    for (auto [capacity, fits] : {std::pair{8192u, 4}, std::pair{64u, 2}, std::pair{51u, -1}}) {
        SCOPED_TRACE(capacity);
        for (const MidiEvent& e : sent) p.midi(uint32_t(e.frame), e.bytes);
        p.midiOutCapacity = capacity;
        p.run(in, out, 0, n);
        EXPECT_EQ(p.midiOutSequence()->atom.type, Host::get().urid(LV2_ATOM__Sequence));
        EXPECT_LE(p.midiOutSequence()->atom.size, capacity);
        EXPECT_TRUE(p.midiOutGuardIntact());
        const std::vector<MidiEvent> got = p.midiOut();
        ASSERT_LE(got.size(), sent.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), sent.begin()));
        EXPECT_TRUE(fits < 0 || got.size() == std::size_t(fits)) << got.size() << " events";
    }
}

// The plug-in's own state through its state interface, with our store and retrieve.
struct StateValue {
    std::string bytes;
    uint32_t type = 0, flags = 0;
    bool present = false;
};
constexpr uint32_t kStateFlags = LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE;

const LV2_State_Interface* stateInterface(Instance& p) {
    return static_cast<const LV2_State_Interface*>(
        lilv_instance_get_extension_data(p.raw, LV2_STATE__interface));
}

StateValue saveFullState(Instance& p) {
    std::map<uint32_t, StateValue> stored;
    auto store = [](void* h, uint32_t key, const void* value, size_t size, uint32_t type,
                    uint32_t flags) {
        (*static_cast<std::map<uint32_t, StateValue>*>(h))[key] = {
            std::string(static_cast<const char*>(value), size), type, flags, true};
        return LV2_STATE_SUCCESS;
    };
    EXPECT_EQ(stateInterface(p)->save(lilv_instance_get_handle(p.raw), store, &stored, kStateFlags,
                                      Host::get().features),
              LV2_STATE_SUCCESS);
    EXPECT_EQ(stored.size(), 1u);
    return stored[Host::get().urid(kNs + "fullState")];
}

LV2_State_Status restoreFullState(Instance& p, StateValue v) {
    auto retrieve = [](void* h, uint32_t key, size_t* size, uint32_t* type,
                       uint32_t* flags) -> const void* {
        const auto* v = static_cast<const StateValue*>(h);
        if (key != Host::get().urid(kNs + "fullState") || !v->present) return nullptr;
        *size = v->bytes.size(), *type = v->type, *flags = v->flags;
        return v->bytes.data();
    };
    return stateInterface(p)->restore(lilv_instance_get_handle(p.raw), retrieve, &v, kStateFlags,
                                      Host::get().features);
}

// Port values to lilv from an Instance, and from lilv into a map by symbol.
const void* getPortValue(const char* symbol, void* instance, uint32_t* size, uint32_t* type) {
    const ParameterInfo* info = parameterInfo(std::string_view(symbol));
    if (!info) return nullptr;
    *size = sizeof(float), *type = Host::get().urid(LV2_ATOM__Float);
    return &static_cast<Instance*>(instance)->control[info->address];
}

void setPortValue(const char* symbol, void* values, const void* value, uint32_t, uint32_t type) {
    Host& h = Host::get();
    float v = 0.0f;
    if (type == h.urid(LV2_ATOM__Float))
        v = *static_cast<const float*>(value);
    else if (type == h.urid(LV2_ATOM__Double))
        v = float(*static_cast<const double*>(value));
    else if (type == h.urid(LV2_ATOM__Int))
        v = float(*static_cast<const int32_t*>(value));
    else
        ADD_FAILURE() << symbol << ": a port value of type " << h.uri(type);
    (*static_cast<std::map<std::string, float>*>(values))[symbol] = v;
}

void applyPortValues(const std::map<std::string, float>& values, Instance& p) {
    for (const auto& [symbol, value] : values)
        if (const ParameterInfo* info = parameterInfo(std::string_view(symbol)))
            p.control[info->address] = value;
}

LilvState* snapshot(Instance& p, const fs::path& dir) {
    Host& h = Host::get();
    const char* d = dir.c_str();
    return lilv_state_new_from_instance(h.plugin, p.raw, &h.map, d, d, d, d, getPortValue, &p,
                                        kStateFlags, h.features);
}

TEST(Lv2State, SaveRestoreSaveKeepsBytesAndSound) {
    Host& h = Host::get();
    constexpr std::size_t n = 256, warmUp = 8 * n;
    const test::Stereo silence = test::silence(warmUp);
    test::Stereo scratch(warmUp);

    Instance a;
    a.control[kChorusDepth] = 0.8f;
    a.control[kChorusFeedback] = 0.6f;
    a.control[kChorusLFOFrequency] = 0.7f;
    a.control[kChorusDelay + kControllerOffset] = 40.0f; // CC 40 now drives the delay
    a.midi(0, {0xB2, 40, 100});
    bool delayReported = false;
    for (std::size_t at = 0; at < warmUp; at += n) {
        a.run(silence, scratch, at, n);
        delayReported |= reported(a, kChorusDelay, 100.0f / 127.0f, 1e-6f);
    }
    EXPECT_TRUE(delayReported) << "the rebound controller did not reach the delay";

    std::string dirTemplate = (fs::temp_directory_path() / "sr-lv2-state-XXXXXX").string();
    const fs::path dir = mkdtemp(dirTemplate.data());
    LilvState* stateA = snapshot(a, dir);
    ASSERT_NE(stateA, nullptr);
    const StateValue bytesA = saveFullState(a);
    ASSERT_TRUE(bytesA.present);
    EXPECT_EQ(bytesA.type, h.urid(LV2_ATOM__String));
    EXPECT_EQ(bytesA.flags & kStateFlags, kStateFlags);
    EXPECT_NE(bytesA.bytes.find("<plist"), std::string::npos);

    // B gets A's state the way a session does: through a state file written and read by lilv.
    ASSERT_EQ(lilv_state_save(h.world, &h.map, &h.unmap, stateA, nullptr, dir.c_str(), "a.ttl"), 0);
    LilvState* loaded = lilv_state_new_from_file(h.world, &h.map, nullptr, (dir / "a.ttl").c_str());
    ASSERT_NE(loaded, nullptr);
    Instance b;
    std::map<std::string, float> ports;
    lilv_state_restore(loaded, b.raw, setPortValue, &ports, kStateFlags, h.features);
    lilv_state_free(loaded);
    EXPECT_EQ(ports.size(), kParameterCount);
    applyPortValues(ports, b);
    EXPECT_EQ(saveFullState(b).bytes, bytesA.bytes) << "saved again before B's first run";
    // The same silent history as A, so that delay lines and LFO phase match.
    for (std::size_t at = 0; at < warmUp; at += n) b.run(silence, scratch, at, n);
    LilvState* stateB = snapshot(b, dir);
    ASSERT_NE(stateB, nullptr);
    EXPECT_TRUE(lilv_state_equals(stateA, stateB));
    EXPECT_EQ(saveFullState(b).bytes, bytesA.bytes);
    lilv_state_free(stateA);
    lilv_state_free(stateB);
    fs::remove_all(dir);

    const test::Stereo in = test::noise(48000, 9);
    const test::Stereo outA = render(a, in, {n}), outB = render(b, in, {n});
    EXPECT_EQ(firstDifference(outA, outB), -1);
    EXPECT_NE(firstDifference(in, outA), -1);
}

TEST(Lv2State, MalformedOrMissingStateIsRefusedAndChangesNothing) {
    constexpr std::size_t n = 256;
    Instance other;
    other.control[kChorusDryWet] = 1.0f;
    other.control[kChorusDepth] = 1.0f;
    test::Stereo scratch(n);
    other.run(test::silence(n), scratch, 0, n);
    const StateValue valid = saveFullState(other);
    ASSERT_TRUE(valid.present);

    const auto withText = [&](std::string text) {
        StateValue v = valid;
        v.bytes = std::move(text);
        return v;
    };
    std::string wrongKinds = valid.bytes;
    for (auto [from, to] : {std::pair{"<real>", "<string>"}, std::pair{"</real>", "</string>"}})
        for (std::size_t at; (at = wrongKinds.find(from)) != std::string::npos;)
            wrongKinds.replace(at, std::strlen(from), to);
    StateValue wrongType = valid;
    wrongType.type = Host::get().urid(LV2_ATOM__Chunk);
    const std::pair<const char*, StateValue> bad[] = {
        {"missing", StateValue{}},
        {"not a property list", withText("not a property list")},
        {"truncated", withText(valid.bytes.substr(0, valid.bytes.size() / 2))},
        {"not a dictionary", withText("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
                                      "version=\"1.0\"><string>x</string></plist>\n")},
        {"numbers as strings", withText(wrongKinds)},
        {"not an atom:String", wrongType},
    };

    Instance p, twin;
    const test::Stereo in = test::noise(4 * n, 21);
    test::Stereo outP(in.size()), outTwin(in.size());
    p.run(in, outP, 0, n);
    twin.run(in, outTwin, 0, n);
    for (const auto& [what, value] : bad)
        EXPECT_NE(restoreFullState(p, value), LV2_STATE_SUCCESS) << what;
    for (std::size_t at = n; at < in.size(); at += n) {
        p.run(in, outP, at, n);
        EXPECT_TRUE(p.reports().empty());
        twin.run(in, outTwin, at, n);
    }
    EXPECT_EQ(firstDifference(outP, outTwin), -1);
    EXPECT_EQ(saveFullState(p).bytes, saveFullState(twin).bytes);
}

// Reads a factory ".aupreset" on its own: its name and its groups of {address, value}.
std::pair<std::string, std::map<uint64_t, double>> readAupreset(const fs::path& file) {
    std::ifstream f(file, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    plist_t root = nullptr;
    plist_from_memory(text.data(), uint32_t(text.size()), &root);
    const auto item = [](plist_t dict, const std::string& key) {
        return plist_dict_get_item(dict, key.c_str());
    };
    const auto integer = [](plist_t node) {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return v;
    };
    char* name = nullptr;
    plist_get_string_val(item(root, "name"), &name);
    std::pair<std::string, std::map<uint64_t, double>> preset{name ? name : "", {}};
    std::free(name);
    for (uint64_t g = 0, groups = integer(item(root, "count")); g < groups; ++g) {
        plist_t group = item(root, "group " + std::to_string(g));
        for (uint64_t i = 0, count = integer(item(group, "count")); i < count; ++i) {
            plist_t param = item(group, "param " + std::to_string(i)), value = item(param, "value");
            double v = double(int64_t(integer(value)));
            plist_get_real_val(value, &v); // leaves v alone unless it is a real
            preset.second[integer(item(param, "address"))] = v;
        }
    }
    plist_free(root);
    return preset;
}

TEST(Lv2Presets, EveryPresetRestoresItsFactoryFile) {
    Host& h = Host::get();
    std::map<std::string, std::map<uint64_t, double>> factory;
    for (const auto& entry : fs::directory_iterator(SR_FACTORY_PRESETS))
        if (entry.path().extension() == ".aupreset") {
            auto [name, values] = readAupreset(entry.path());
            EXPECT_EQ(values.size(), kParameterCount) << entry.path();
            factory[name] = values;
        }
    ASSERT_EQ(factory.size(), 10u);

    LilvNodes* presets = lilv_plugin_get_related(h.plugin, h.node(LV2_PRESETS__Preset));
    ASSERT_NE(presets, nullptr);
    EXPECT_EQ(lilv_nodes_size(presets), 10u);
    std::size_t matched = 0;
    LILV_FOREACH(nodes, it, presets) {
        const LilvNode* preset = lilv_nodes_get(presets, it);
        SCOPED_TRACE(lilv_node_as_uri(preset));
        // Usually loaded with the plug-in's data already; a file that does not parse shows
        // below as missing port values.
        lilv_world_load_resource(h.world, preset);
        Node label(lilv_world_get(h.world, preset, h.node(LILV_NS_RDFS "label"), nullptr));
        ASSERT_NE(label.node, nullptr);
        const auto found = factory.find(lilv_node_as_string(label));
        ASSERT_NE(found, factory.end()) << "no factory file named " << lilv_node_as_string(label);
        ++matched;
        std::string slug = found->first;
        for (char& c : slug) c = c == ' ' ? '-' : char(std::tolower(c));
        EXPECT_EQ(lilv_node_as_uri(preset), kNs + "preset-" + slug);

        LilvState* state = lilv_state_new_from_world(h.world, &h.map, preset);
        ASSERT_NE(state, nullptr);
        Instance p;
        std::map<std::string, float> ports;
        lilv_state_restore(state, p.raw, setPortValue, &ports, 0, h.features);
        lilv_state_free(state);
        ASSERT_EQ(ports.size(), kParameterCount) << "the preset's data file did not parse";
        for (const ParameterInfo& info : kParameterTable)
            EXPECT_EQ(ports[std::string(info.identifier)], float(found->second[info.address]))
                << info.identifier;
        // The restored ports become the plug-in's effective values.
        applyPortValues(ports, p);
        test::Stereo scratch(64);
        // Restored inside the plug-in: every value that moved is reported unasked.
        p.run(test::silence(64), scratch, 0, 64);
        for (const ParameterInfo& info : kParameterTable) {
            const float value = float(found->second[info.address]);
            if (value != info.defaultValue) {
                EXPECT_TRUE(reported(p, int(info.address), value)) << info.identifier;
            }
        }
        p.requestValues();
        p.run(test::silence(64), scratch, 0, 64);
        const auto reports = p.reports();
        const std::map<int, float> effective(reports.begin(), reports.end());
        EXPECT_EQ(effective.size(), kParameterCount);
        for (const auto& [address, value] : effective)
            EXPECT_EQ(value, float(found->second[uint64_t(address)])) << "address " << address;

        // The same values set on the ports alone sound the same, split points that move past
        // each other included.
        Instance q;
        applyPortValues(ports, q);
        for (int i = 0; i < 2; ++i) q.run(test::silence(64), scratch, 0, 64);
        const test::Stereo in = test::noise(8192, 11);
        EXPECT_EQ(firstDifference(render(p, in, {512}), render(q, in, {512})), -1);
    }
    lilv_nodes_free(presets);
    EXPECT_EQ(matched, factory.size());
}

// ---- the host's log ---------------------------------------------------------------------------

// Standard output of the whole process, redirected to a file while it lives.
class StdoutCapture {
public:
    StdoutCapture() : file(std::tmpfile()) {
        std::fflush(stdout);
        saved = dup(STDOUT_FILENO);
        dup2(fileno(file), STDOUT_FILENO);
    }
    ~StdoutCapture() { finish(); }
    std::string finish() {
        if (saved < 0) return text;
        std::fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        saved = -1;
        std::rewind(file);
        for (int c; (c = std::fgetc(file)) != EOF;) text += char(c);
        std::fclose(file);
        return text;
    }

private:
    std::FILE* file;
    int saved = -1;
    std::string text;
};

// A saved state of another component: the same dictionary with another subtype.
StateValue stateOfAnotherPlugin() {
    Instance source;
    StateValue v = saveFullState(source);
    const std::string ours = "<integer>1936868200</integer>"; // 'srCh'
    const std::size_t at = v.bytes.find(ours);
    EXPECT_NE(at, std::string::npos);
    if (at != std::string::npos) v.bytes.replace(at, ours.size(), "<integer>1936868201</integer>");
    return v;
}

// What an instance logs in a short life: its start, a refused port value, a bound controller
// that moves the delay (CC 16), a refused state of another plug-in; then it is cleaned up.
void shortLife(Instance& p, const StateValue& foreign) {
    constexpr std::size_t n = 256;
    test::Stereo scratch(n);
    p.control[kChorusDepth] = NAN;
    p.midi(3, {0xB0, 16, 64});
    p.run(test::silence(n), scratch, 0, n);
    p.run(test::silence(n), scratch, 0, n);
    EXPECT_NE(restoreFullState(p, foreign), LV2_STATE_SUCCESS);
}

const char* const kInit = "TAV_SR_Chorus_Extension_AudioUnit::init() aufx srCh TAVs\n";
const char* const kNotDefined =
    "TAV_SR_Chorus_Extension_AudioUnit: WARNING: The property 'musicalContextBlock' is NOT "
    "defined.\n";
const char* const kRate48k =
    "TAV_SR_Chorus_Extension_AudioUnit: Native wrapped unit input samplerate (prior): 48000.0\n";
const char* const kDelayReceived = "unit received parameter : address:8, value:0.503937\n";
const char* const kNonFinite =
    "TAV SR Chorus (LV2): WARNING: a non-finite value on port 'kChorusDepth' is ignored\n";
const char* const kForeign = "TAV_SR_Chorus_Extension_AudioUnit::fullState : ERROR: The component "
                             "description of the patch does not match.\n";

// The level a line is meant to have: trace for the unit's member and context-block lines, each
// received parameter and each traced event; otherwise by the words the line carries.
const char* expectedLevel(const std::string& line) {
    const bool member = line.starts_with("TAV_SR_Chorus_Extension_AudioUnit::");
    const bool errorOrWarning =
        line.find("ERROR") != std::string::npos || line.find("WARNING") != std::string::npos;
    if ((member && !errorOrWarning) || line.starts_with("unit received parameter") ||
        line.starts_with("traceEvent() : ") || line.find(": The property '") != std::string::npos ||
        line.find(": WARNING: The property '") != std::string::npos)
        return LV2_LOG__Trace;
    if (line.find("ERROR") != std::string::npos) return LV2_LOG__Error;
    if (line.find("WARNING") != std::string::npos) return LV2_LOG__Warning;
    return LV2_LOG__Note;
}

TEST(Lv2Log, EveryLineReachesTheHostLogAtItsLevelFromTheQueueThreadAndNoneStandardOutput) {
    Host& h = Host::get();
    const StateValue foreign = stateOfAnotherPlugin();
    HostLog log(h);
    StdoutCapture out;
    {
        Instance p(log);
        shortLife(p, foreign);
    }
    log.close();
    EXPECT_EQ(out.finish(), "");

    const std::vector<HostLog::Line> lines = log.lines();
    ASSERT_GT(lines.size(), 40u);
    for (const HostLog::Line& line : lines) {
        EXPECT_EQ(h.uri(line.type), std::string(expectedLevel(line.text))) << line.text;
        EXPECT_NE(line.thread, std::this_thread::get_id()) << "written from run(): " << line.text;
        EXPECT_TRUE(line.text.ends_with("\n") && line.text.find('\n') == line.text.size() - 1)
            << "not one line: " << line.text;
    }
    const auto has = [&](const char* level, const char* text) {
        const auto texts = log.texts(level);
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    };
    EXPECT_TRUE(has(LV2_LOG__Trace, kInit));
    EXPECT_TRUE(has(LV2_LOG__Trace, kNotDefined));
    EXPECT_TRUE(has(LV2_LOG__Trace, kDelayReceived));
    EXPECT_TRUE(has(LV2_LOG__Note, kRate48k));
    EXPECT_TRUE(has(LV2_LOG__Warning, kNonFinite));
    EXPECT_TRUE(has(LV2_LOG__Error, kForeign));
    EXPECT_EQ(log.texts(LV2_LOG__Error).size(), 1u);
    const auto traced = log.texts(LV2_LOG__Trace);
    EXPECT_EQ(
        std::count_if(traced.begin(), traced.end(),
                      [](const std::string& t) { return t.starts_with("traceEvent() : 0? "); }),
        1);
}

TEST(Lv2Log, WithoutAHostLogTheLinesGoToStandardOutputAsBefore) {
    const StateValue foreign = stateOfAnotherPlugin();
    StdoutCapture out;
    {
        Instance p;
        shortLife(p, foreign);
    }
    const std::string text = out.finish();
    for (const char* line : {kInit, kNotDefined, kRate48k, kDelayReceived, kNonFinite, kForeign})
        EXPECT_NE(text.find(line), std::string::npos) << line << "in:\n" << text;
}

TEST(Lv2Log, InstancesInOneProcessEachReachTheirOwnLog) {
    Host& h = Host::get();
    HostLog logA(h), logB(h);
    {
        Instance a(logA), b(logB);
        test::Stereo scratch(64);
        for (int call = 0; call < 8; ++call) {
            a.midi(1, {0x90, 60, 100});
            b.midi(1, {0x90, 61, 100});
            a.run(test::silence(64), scratch, 0, 64);
            b.run(test::silence(64), scratch, 0, 64);
        }
    }
    logA.close();
    logB.close();
    for (auto [log, mine, other] :
         {std::tuple{&logA, " d1:60 ", " d1:61 "}, std::tuple{&logB, " d1:61 ", " d1:60 "}}) {
        const auto traced = log->texts(LV2_LOG__Trace);
        EXPECT_EQ(std::count_if(traced.begin(), traced.end(),
                                [&](const std::string& t) { return t.find(mine) != t.npos; }),
                  8);
        EXPECT_EQ(std::count_if(traced.begin(), traced.end(),
                                [&](const std::string& t) { return t.find(other) != t.npos; }),
                  0);
    }
}

// An instance cleaned up right after a run that logged many lines: what it queued is written
// before cleanup returns, and the host's log, freed then, is never called again.
TEST(Lv2Log, LinesQueuedAtCleanupNeverReachAFreedLog) {
    Host& h = Host::get();
    auto log = std::make_unique<HostLog>(h);
    {
        Instance p(*log);
        test::Stereo scratch(512);
        for (uint32_t e = 0; e < 200; ++e) p.midi(e, {0x90, uint8_t(e % 128), 1});
        p.run(test::silence(512), scratch, 0, 512);
    }
    log->close();
    const auto traced = log->texts(LV2_LOG__Trace);
    EXPECT_EQ(std::count_if(traced.begin(), traced.end(),
                            [](const std::string& t) { return t.starts_with("traceEvent()"); }),
              200);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(log->callsAfterClose(), 0);
}

} // namespace
