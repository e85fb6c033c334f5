// The editor's side of the atom messages it exchanges with the plug-in (PluginURIs.h): the
// request for every value, and the values the plug-in reports on its notify port. Kept in this
// one place so the vocabulary can change without touching the editor.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include <lv2/atom/atom.h>
#include <lv2/urid/urid.h>

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
    // The value an atom from the notify port reports, if it reports one; `size` is the bytes
    // the host handed over, which the atom must fit in.
    std::optional<ParameterValue> parameterValue(const void* buffer, std::uint32_t size) const;

private:
    LV2_URID eventTransfer_ = 0;
    LV2_URID object = 0, atomInt = 0, atomFloat = 0;
    LV2_URID parameterValueType = 0, address = 0, value = 0, requestValuesType = 0;
    alignas(8) std::array<std::uint8_t, 64> buffer{};
};

} // namespace sr::lv2
