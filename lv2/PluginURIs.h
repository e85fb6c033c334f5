// What the LV2 plug-in, its generated metadata and its editor agree on: URIs, port indices and
// the messages on the atom ports. Control ports come first so that a port's index is its
// parameter's address.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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

// Messages on the atom ports use the LV2 patch vocabulary (http://lv2plug.in/ns/ext/patch#),
// which hosts already read, so none of them reports an unknown message:
//
// Plug-in to editor, on the notify port (index kNotify), one event per value:
//     [ a patch:Set ;
//       patch:property <urn:tav:sr-chorus#kChorusDepth> ;   (an atom:URID)
//       patch:value 0.33 ]                                   (an atom:Float)
//   sent whenever a parameter's effective value changed inside the plug-in (a bound MIDI
//   controller, a restored state or preset), and for every parameter asked for by a patch:Get.
//   The property is parameterPropertyURI(identifier) of the parameter table's identifier.
//   These properties are deliberately not declared as lv2:Parameter in the bundle: the values
//   are the control ports', which hosts already show; a host that does not know a property
//   ignores the message (jalv, Ardour), while the editor maps it back to its address.
//
// Editor to plug-in, on the MIDI input (index kMIDIIn, the lv2:control port):
//     [ a patch:Get ]                                        (no property: every value)
//     [ a patch:Get ; patch:property <urn:tav:sr-chorus#kChorusDepth> ]   (that one value)
//   answered in the next run() with patch:Set messages on the notify port; an editor sends
//   the first when it opens, so that it shows what the plug-in really uses.
//
// The editor's spectrum of the plug-in's input (the ui-on / ui-off messages of fil4 and other
// x42 plug-ins). Editor to plug-in, on the MIDI input:
//     [ a <urn:tav:sr-chorus#uiOn> ]
//   an editor shows the spectrum: from the next run() on, the plug-in copies its input (the
//   mean of left and right) and sends it. The editor repeats it every kUiOnRepeatSeconds; the
//   plug-in stops by itself when none came for kUiOnTimeoutSeconds of audio (a host may drop
//   an editor without its last message).
//     [ a <urn:tav:sr-chorus#uiOff> ]
//   the editor closes: nothing is copied or sent any more (unless another editor is open and
//   repeats its uiOn).
// Plug-in to editor, on the notify port, at most kInputSamplesPerSecond times per second of
// audio, and only when the message fits the port's capacity (after the patch:Set reports):
//     [ a <urn:tav:sr-chorus#InputSamples> ;
//       <urn:tav:sr-chorus#sampleRate> 48000.0 ;            (an atom:Float, the plug-in's rate)
//       <urn:tav:sr-chorus#samples> "..." ]                 (an atom:Vector of atom:Float)
//   the input's samples since the last message, oldest first, at most kInputSamplesPerMessage
//   of the newest; samples that found no room are dropped, not sent later.
// Hosts pass these objects between plug-in and editor without reading them (jalv, Ardour).
inline constexpr const char* kUiOnURI = SR_LV2_URI "#uiOn";
inline constexpr const char* kUiOffURI = SR_LV2_URI "#uiOff";
inline constexpr const char* kInputSamplesURI = SR_LV2_URI "#InputSamples";
inline constexpr const char* kSampleRateURI = SR_LV2_URI "#sampleRate";
inline constexpr const char* kSamplesURI = SR_LV2_URI "#samples";
inline constexpr double kUiOnRepeatSeconds = 1.0;
inline constexpr double kUiOnTimeoutSeconds = 5.0;
inline constexpr double kInputSamplesPerSecond = 30.0;
inline constexpr std::uint32_t kInputSamplesPerMessage = 8192;

inline constexpr const char* kParameterPropertyPrefix = SR_LV2_URI "#";
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

// Minimum sizes asked of the host for the atom outputs: room for a dense call of MIDI, and on
// the notify port for reporting every parameter at once and a full message of input samples.
inline constexpr std::uint32_t kMIDIOutMinimumSize = 8192;
inline constexpr std::uint32_t kNotifyMinimumSize = 8192 + 4 * kInputSamplesPerMessage + 4096;

// The property URI of a parameter, e.g. "urn:tav:sr-chorus#kChorusDepth".
inline std::string parameterPropertyURI(std::string_view identifier) {
    return std::string(kParameterPropertyPrefix) + std::string(identifier);
}

#undef SR_LV2_URI

} // namespace sr::lv2
