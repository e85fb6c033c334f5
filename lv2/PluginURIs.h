// What the LV2 plug-in, its generated metadata and its editor agree on: URIs, port indices and
// the messages on the atom ports. Control ports come first so that a port's index is its
// parameter's address.
#pragma once

#include <cstdint>

#include "kernel/ParameterTable.h"

namespace sr::lv2 {

#define SR_LV2_URI "urn:tav:sr-chorus"

inline constexpr const char* kPluginURI = SR_LV2_URI;
inline constexpr const char* kUIURI = SR_LV2_URI "#ui";
inline constexpr const char* kPluginName = "TAV SR Chorus";
inline constexpr const char* kBundleName = "tav-sr-chorus.lv2";
inline constexpr const char* kBinaryName = "tav-sr-chorus.so";
inline constexpr const char* kUIBinaryName = "tav-sr-chorus-ui.so";

// State: the audio unit's full state as one XML property-list string.
inline constexpr const char* kFullStateURI = SR_LV2_URI "#fullState";
// Plug-in to editor, on the notify port: an effective value that changed inside the plug-in,
// as an object of this type with an address (Int) and a value (Float).
inline constexpr const char* kParameterValueURI = SR_LV2_URI "#ParameterValue";
inline constexpr const char* kAddressURI = SR_LV2_URI "#address";
inline constexpr const char* kValueURI = SR_LV2_URI "#value";
// Editor to plug-in, on the MIDI input: report every effective value (an editor that opens).
inline constexpr const char* kRequestValuesURI = SR_LV2_URI "#RequestValues";
// Factory presets: this prefix followed by the preset's slug.
inline constexpr const char* kPresetURIPrefix = SR_LV2_URI "#preset-";

enum PortIndex : std::uint32_t {
    kAudioInLeft = std::uint32_t(kParameterCount),
    kAudioInRight,
    kAudioOutLeft,
    kAudioOutRight,
    kMIDIIn,
    kMIDIOut,
    kNotify,
    kPortCount,
};

// Minimum sizes asked of the host for the atom outputs: room for a dense call of MIDI and for
// reporting every parameter at once.
inline constexpr std::uint32_t kMIDIOutMinimumSize = 8192;
inline constexpr std::uint32_t kNotifyMinimumSize = 8192;

#undef SR_LV2_URI

} // namespace sr::lv2
