// The editor's atom messages, read and written as the plug-in writes and reads them: the
// patch:Get it sends on opening and the patch:Set reports it takes from the notify port.
#include <gtest/gtest.h>

#include <lv2/atom/forge.h>
#include <lv2/patch/patch.h>

#include <cmath>
#include <map>
#include <string>

#include "lv2/PluginURIs.h"
#include "lv2/UIMessages.h"

namespace {

struct Map {
    std::map<std::string, LV2_URID> ids;
    LV2_URID_Map feature{this, [](LV2_URID_Map_Handle h, const char* uri) {
                             auto& ids = static_cast<Map*>(h)->ids;
                             return ids.emplace(uri, LV2_URID(ids.size() + 1)).first->second;
                         }};
    LV2_URID operator()(const std::string& uri) { return feature.map(this, uri.c_str()); }
};

// A patch:Set as the plug-in forges it.
std::vector<std::uint8_t> patchSet(Map& map, const std::string& property, float value,
                                   LV2_URID valueType = 0) {
    std::vector<std::uint8_t> buffer(256);
    LV2_Atom_Forge forge;
    lv2_atom_forge_init(&forge, &map.feature);
    lv2_atom_forge_set_buffer(&forge, buffer.data(), buffer.size());
    LV2_Atom_Forge_Frame frame;
    lv2_atom_forge_object(&forge, &frame, 0, map(LV2_PATCH__Set));
    lv2_atom_forge_key(&forge, map(LV2_PATCH__property));
    lv2_atom_forge_urid(&forge, map(property));
    lv2_atom_forge_key(&forge, map(LV2_PATCH__value));
    if (valueType == map(LV2_ATOM__Int))
        lv2_atom_forge_int(&forge, std::int32_t(value));
    else
        lv2_atom_forge_float(&forge, value);
    lv2_atom_forge_pop(&forge, &frame);
    return buffer;
}

TEST(EditorMessages, ReadsThePlugInsReportsAndNothingElse) {
    Map map;
    sr::lv2::UIMessages messages(&map.feature);
    ASSERT_TRUE(messages.available());
    auto depth = patchSet(map, sr::lv2::parameterPropertyURI("kChorusDepth"), 0.29f);
    auto v = messages.parameterValue(depth.data(), std::uint32_t(depth.size()));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->address, 7u);
    EXPECT_EQ(v->value, 0.29f);
    // A controller number sent as an integer reads too.
    auto cc = patchSet(map, sr::lv2::parameterPropertyURI("kChorusDryWetController"), 24,
                       map(LV2_ATOM__Int));
    v = messages.parameterValue(cc.data(), std::uint32_t(cc.size()));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->address, 28u);
    EXPECT_EQ(v->value, 24.0f);
    // Another plug-in's property, a truncated atom, a non-finite value: nothing.
    auto other = patchSet(map, "urn:other#kChorusDepth", 0.5f);
    EXPECT_FALSE(messages.parameterValue(other.data(), std::uint32_t(other.size())));
    EXPECT_FALSE(messages.parameterValue(depth.data(), 20));
    auto nan = patchSet(map, sr::lv2::parameterPropertyURI("kChorusDepth"), NAN);
    EXPECT_FALSE(messages.parameterValue(nan.data(), std::uint32_t(nan.size())));
}

TEST(EditorMessages, AsksForEveryValueWithAPatchGet) {
    Map map;
    sr::lv2::UIMessages messages(&map.feature);
    const LV2_Atom* request = messages.requestValues();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->type, map(LV2_ATOM__Object));
    const auto* object = reinterpret_cast<const LV2_Atom_Object*>(request);
    EXPECT_EQ(object->body.otype, map(LV2_PATCH__Get));
    EXPECT_EQ(request->size, sizeof(LV2_Atom_Object_Body)); // no property: every value
    EXPECT_EQ(messages.eventTransfer(), map(LV2_ATOM__eventTransfer));

    sr::lv2::UIMessages none(nullptr);
    EXPECT_FALSE(none.available());
    EXPECT_EQ(none.requestValues(), nullptr);
}

} // namespace

namespace {

// An input samples message as the plug-in forges it.
std::vector<std::uint8_t> inputSamples(Map& map, float rate, const std::vector<float>& samples,
                                       LV2_URID childType = 0) {
    std::vector<std::uint8_t> buffer(64 + 4 * samples.size());
    LV2_Atom_Forge forge;
    lv2_atom_forge_init(&forge, &map.feature);
    lv2_atom_forge_set_buffer(&forge, buffer.data(), buffer.size());
    LV2_Atom_Forge_Frame frame;
    lv2_atom_forge_object(&forge, &frame, 0, map(sr::lv2::kInputSamplesURI));
    lv2_atom_forge_key(&forge, map(sr::lv2::kSampleRateURI));
    lv2_atom_forge_float(&forge, rate);
    lv2_atom_forge_key(&forge, map(sr::lv2::kSamplesURI));
    lv2_atom_forge_vector(&forge, sizeof(float), childType ? childType : map(LV2_ATOM__Float),
                          std::uint32_t(samples.size()), samples.data());
    lv2_atom_forge_pop(&forge, &frame);
    return buffer;
}

} // namespace

TEST(EditorMessages, OpensAndClosesTheInputTapAndReadsItsSamples) {
    Map map;
    sr::lv2::UIMessages messages(&map.feature);
    for (const bool open : {true, false}) {
        const LV2_Atom* atom = open ? messages.openInput() : messages.closeInput();
        const char* uri = open ? sr::lv2::kUiOnURI : sr::lv2::kUiOffURI;
        ASSERT_TRUE(atom);
        EXPECT_EQ(atom->type, map(LV2_ATOM__Object));
        EXPECT_EQ(reinterpret_cast<const LV2_Atom_Object*>(atom)->body.otype, map(uri));
        EXPECT_EQ(atom->size, sizeof(LV2_Atom_Object_Body));
    }
    const std::vector<float> samples = {0.5f, -0.25f, 0.125f};
    auto message = inputSamples(map, 44100.0f, samples);
    const auto read = messages.inputSamples(message.data(), std::uint32_t(message.size()));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->sampleRate, 44100.0);
    EXPECT_EQ(std::vector<float>(read->samples, read->samples + read->count), samples);
    // Not a report, and a report is no samples message.
    EXPECT_FALSE(messages.parameterValue(message.data(), std::uint32_t(message.size())));
    auto depth = patchSet(map, sr::lv2::parameterPropertyURI("kChorusDepth"), 0.29f);
    EXPECT_FALSE(messages.inputSamples(depth.data(), std::uint32_t(depth.size())));
    // Integers instead of floats, a truncated atom, an absurd rate: nothing.
    auto ints = inputSamples(map, 48000.0f, samples, map(LV2_ATOM__Int));
    EXPECT_FALSE(messages.inputSamples(ints.data(), std::uint32_t(ints.size())));
    EXPECT_FALSE(messages.inputSamples(message.data(), 40));
    auto zero = inputSamples(map, 0.0f, samples);
    EXPECT_FALSE(messages.inputSamples(zero.data(), std::uint32_t(zero.size())));
}
