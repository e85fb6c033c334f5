// The editor's side of the atom messages it exchanges with the plug-in (PluginURIs.h): the
// patch:Get that asks for every value and the patch:Set reports on the notify port; the uiOn
// and uiOff that open and close the input's tap, and the input samples it then sends. Kept in
// this one place so the vocabulary can change without touching the editor.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include <lv2/atom/atom.h>
#include <lv2/urid/urid.h>

#include "kernel/ParameterTable.h"

namespace sr::lv2 {

class UIMessages {
public:
    struct ParameterValue {
        std::uint32_t address;
        float value;
    };

    // Without a map there are no atoms: available() is false and nothing is read or written.
    explicit UIMessages(LV2_URID_Map* map);

    bool available() const { return eventTransfer_ != 0; }
    // The port protocol of atom messages (atom:eventTransfer).
    LV2_URID eventTransfer() const { return eventTransfer_; }
    // The message that asks the plug-in to report every value, or null.
    const LV2_Atom* requestValues();
    // The value an atom from the notify port reports, if it reports one of ours; `size` is the
    // bytes the host handed over, which the atom must fit in.
    std::optional<ParameterValue> parameterValue(const void* buffer, std::uint32_t size) const;

    // The messages that open and close the plug-in's input tap, or null.
    const LV2_Atom* openInput() { return objectOf(uiOn); }
    const LV2_Atom* closeInput() { return objectOf(uiOff); }
    // The input samples an atom from the notify port carries, if it is such a message; the
    // samples point into `buffer`.
    struct InputSamples {
        double sampleRate;
        const float* samples;
        std::uint32_t count;
    };
    std::optional<InputSamples> inputSamples(const void* buffer, std::uint32_t size) const;

private:
    // [ a otype ], in this object's buffer.
    const LV2_Atom* objectOf(LV2_URID otype);
    // The object of type otype that `size` bytes at `data` hold whole, or null.
    const LV2_Atom_Object* objectIn(const void* data, std::uint32_t size, LV2_URID otype) const;

    LV2_URID eventTransfer_ = 0;
    LV2_URID object = 0, atomURID = 0, atomFloat = 0, atomDouble = 0, atomInt = 0;
    LV2_URID patchGet = 0, patchSet = 0, patchProperty = 0, patchValue = 0;
    LV2_URID atomVector = 0, uiOn = 0, uiOff = 0, samplesMessage = 0, sampleRateKey = 0,
             samplesKey = 0;
    // The property URID of each parameter, by address.
    std::array<LV2_URID, kParameterCount> properties{};
    alignas(8) std::array<std::uint8_t, 64> buffer{};
};

} // namespace sr::lv2
