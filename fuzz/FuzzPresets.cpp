// Bytes as a preset file or a saved state reach the unit: parsed as a property list, read as a
// preset record, and handed to the audio unit's setFullState. A state the unit accepts must
// give a fullState() that it accepts again, unchanged.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "audiounit/TAVPreset.h"
#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "kernel/ParameterTable.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"

namespace {

struct Fixture {
    sr::DrainedMainQueue mainQueue;
    TAV_SR_Chorus_Extension_AudioUnit unit{kTAVSRChorusComponentDescription, mainQueue};

    Fixture() {
        const AVAudioFormat format(48000.0, 2);
        unit.outputBusses()[0].setFormat(format);
        unit.inputBusses()[0].setFormat(format);
        unit.allocateRenderResources();
    }
    // Every input starts from the defaults, so a saved input replays alone as it ran.
    void restoreDefaults() {
        for (const sr::ParameterInfo& info : sr::kParameterTable)
            unit.setParameter(std::int32_t(info.address), info.defaultValue);
    }
};

Fixture* fixture = nullptr;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "sr-fuzz-presets: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Refused inputs are logged; at thousands a second that is only noise.
    sr::printQueue().setSink([](std::string_view) {});
    fixture = new Fixture; // lives until exit: one unit for every input
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const sr::PropertyListParse parsed =
        sr::PropertyList::parse(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!parsed.value) return 0;

    // The preset record alone, as a preset file is read, and written back.
    TAVPreset preset;
    if (preset.makeFrom(parsed.value) && !preset.getDictionary().toXML())
        fail("an accepted preset cannot be written");

    TAV_SR_Chorus_Extension_AudioUnit& unit = fixture->unit;
    fixture->restoreDefaults();
    if (!unit.setFullState(parsed.value)) return 0;
    const std::optional<sr::PropertyList> state = unit.fullState();
    if (!state) fail("no state after an accepted one");
    if (!unit.setFullState(state)) fail("the unit refuses its own state");
    if (unit.fullState() != state) fail("the unit's own state does not survive a round trip");
    // As a host stores it: written as XML and read back, the same dictionary.
    const std::optional<std::string> xml = state->toXML();
    if (!xml) fail("the unit's state cannot be written");
    if (sr::PropertyList::parse(*xml).value != state) fail("the written state reads back changed");
    return 0;
}
