// The built plug-in binary's run() allocates nothing: loaded with dlopen, so the hooks of this
// executable see every allocation the bundle's code makes. The calls carry what a host sends:
// moving control ports, MIDI controllers bound to controls (which change values inside the
// plug-in and are reported on the notify port next call), notes, system exclusive, a request
// for every value, and blocks longer than one render call.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/core/lv2.h>
#include <lv2/midi/midi.h>
#include <lv2/patch/patch.h>
#include <lv2/urid/urid.h>

#include "alloc_counter.h"
#include "lv2/PluginURIs.h"

namespace {

struct UridTable {
    std::vector<std::string> uris;
    LV2_URID map(const char* uri) {
        for (std::size_t i = 0; i < uris.size(); ++i)
            if (uris[i] == uri) return LV2_URID(i + 1);
        uris.emplace_back(uri);
        return LV2_URID(uris.size());
    }
    static LV2_URID callback(LV2_URID_Map_Handle handle, const char* uri) {
        return static_cast<UridTable*>(handle)->map(uri);
    }
};

TEST(PluginAllocation, RunAllocatesNothing) {
    void* library = dlopen(SR_LV2_BUNDLE_DIR "/tav-sr-chorus.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto entry = reinterpret_cast<LV2_Descriptor_Function>(dlsym(library, "lv2_descriptor"));
    ASSERT_NE(entry, nullptr);
    const LV2_Descriptor* d = entry(0);

    UridTable table;
    LV2_URID_Map map{&table, UridTable::callback};
    const LV2_Feature mapFeature{LV2_URID__map, &map};
    const LV2_Feature* features[] = {&mapFeature, nullptr};
    LV2_Handle plugin = d->instantiate(d, 48000.0, SR_LV2_BUNDLE_DIR "/", features);
    ASSERT_NE(plugin, nullptr);

    constexpr std::uint32_t kFrames = 6000; // more than one render call
    std::vector<float> controls(sr::kParameterCount), left(kFrames), right(kFrames);
    for (std::size_t i = 0; i < sr::kParameterCount; ++i) {
        controls[i] = sr::kParameterTable[i].defaultValue;
        d->connect_port(plugin, std::uint32_t(i), &controls[i]);
    }
    for (std::uint32_t i = 0; i < kFrames; ++i) left[i] = right[i] = std::sin(float(i) * 0.01f);
    // In place, as many hosts run effects.
    d->connect_port(plugin, sr::lv2::kAudioInLeft, left.data());
    d->connect_port(plugin, sr::lv2::kAudioInRight, right.data());
    d->connect_port(plugin, sr::lv2::kAudioOutLeft, left.data());
    d->connect_port(plugin, sr::lv2::kAudioOutRight, right.data());
    alignas(8) std::uint8_t midiIn[4096], midiOut[8192], notify[8192];
    d->connect_port(plugin, sr::lv2::kMIDIIn, midiIn);
    d->connect_port(plugin, sr::lv2::kMIDIOut, midiOut);
    d->connect_port(plugin, sr::lv2::kNotify, notify);
    d->activate(plugin);

    LV2_Atom_Forge forge;
    lv2_atom_forge_init(&forge, &map);
    const LV2_URID midiEvent = map.map(map.handle, LV2_MIDI__MidiEvent);
    const LV2_URID request = map.map(map.handle, LV2_PATCH__Get);
    const LV2_URID uiOn = map.map(map.handle, sr::lv2::kUiOnURI);
    const LV2_URID inputSamples = map.map(map.handle, sr::lv2::kInputSamplesURI);
    const LV2_URID object = map.map(map.handle, LV2_ATOM__Object);
    long samplesMessages = 0;
    auto fillInput = [&](int call, std::uint32_t frames) {
        LV2_Atom_Forge_Frame sequence;
        lv2_atom_forge_set_buffer(&forge, midiIn, sizeof midiIn);
        lv2_atom_forge_sequence_head(&forge, &sequence, 0);
        const std::uint8_t cc[] = {0xB0, std::uint8_t(13 + call % 12), std::uint8_t(call % 128)};
        const std::uint8_t note[] = {0x90, 60, 100};
        const std::uint8_t sysex[] = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
        for (const auto& [frame, bytes, size] :
             {std::tuple{0u, note, 3u}, {frames / 2, cc, 3u}, {frames - 1, sysex, 6u}}) {
            lv2_atom_forge_frame_time(&forge, frame);
            lv2_atom_forge_atom(&forge, size, midiEvent);
            lv2_atom_forge_write(&forge, bytes, size);
        }
        if (call % 7 == 0) {
            LV2_Atom_Forge_Frame object;
            lv2_atom_forge_frame_time(&forge, 0);
            lv2_atom_forge_object(&forge, &object, 0, request);
            lv2_atom_forge_pop(&forge, &object);
        }
        // An editor showing the input's spectrum: the tap copies, the notify port carries it.
        if (call % 100 == 0) {
            LV2_Atom_Forge_Frame object;
            lv2_atom_forge_frame_time(&forge, 0);
            lv2_atom_forge_object(&forge, &object, 0, uiOn);
            lv2_atom_forge_pop(&forge, &object);
        }
        lv2_atom_forge_pop(&forge, &sequence);
        reinterpret_cast<LV2_Atom*>(midiOut)->size = sizeof midiOut;
        reinterpret_cast<LV2_Atom*>(notify)->size = sizeof notify;
    };

    const std::uint32_t sizes[] = {1, 64, 256, 1000, kFrames};
    fillInput(0, 64);
    d->run(plugin, 64);
    long allocations = 0;
    {
        sr::test::AllocationCounter counter;
        for (int call = 1; call <= 1000; ++call) {
            const std::uint32_t n = sizes[call % 5];
            controls[std::size_t(7 + call % 10)] = float(call % 100) / 100.0f;
            fillInput(call, n);
            d->run(plugin, n);
            LV2_ATOM_SEQUENCE_FOREACH(reinterpret_cast<const LV2_Atom_Sequence*>(notify), ev) {
                const auto* o = reinterpret_cast<const LV2_Atom_Object*>(&ev->body);
                if (ev->body.type == object && o->body.otype == inputSamples) ++samplesMessages;
            }
        }
        allocations = counter.count();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(samplesMessages, 20);
    for (std::uint32_t i = 0; i < kFrames; ++i) ASSERT_TRUE(std::isfinite(left[i])) << i;
    // The run really carried the traffic: the notify port reported values.
    EXPECT_GT(reinterpret_cast<LV2_Atom*>(notify)->size, sizeof(LV2_Atom_Sequence_Body));

    d->cleanup(plugin);
    dlclose(library);
}

} // namespace
