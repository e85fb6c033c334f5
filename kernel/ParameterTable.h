// The one definition of the plug-in's 29 parameters. The parameter tree, the kernel's
// behaviour by address, and every host-facing list (ports, presets, panel bindings, the
// renderer's --list) are built from this table, so a change is made here once.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace sr {

enum class ParameterUnit : std::uint32_t { Generic = 0, Indexed = 1, Boolean = 2 };

struct ParameterGroupInfo {
    std::string_view identifier;
    std::string_view name;
    std::uint64_t firstAddress;
    std::uint64_t lastAddress;
};

struct ParameterInfo {
    std::uint64_t address;
    std::string_view identifier;
    std::string_view name;
    float minValue;
    float maxValue;
    float defaultValue;
    ParameterUnit unit;
};

inline constexpr std::size_t kParameterCount = 29;

// Addresses by name, for code that acts on one parameter.
enum ParameterAddress : std::uint64_t {
    kDisplayContrast = 0,
    kBypass = 1,
    kVolumeIn = 2,
    kVolumeOut = 3,
    kFinalLimit = 4,
    kFrequencySplitLP = 5,
    kFrequencySplitHP = 6,
    kChorusDepth = 7,
    kChorusDelay = 8,
    kChorusFeedback = 9,
    kChorusCross = 10,
    kChorusPanning = 11,
    kChorusLFOFrequency = 12,
    kChorusLFORandom = 13,
    kChorusLFOType = 14,
    kChorusLFOStereo = 15,
    kChorusDryWet = 16,
    kFrequencySplitLPController = 17,
    kChorusDryWetController = 28,
};

// Controller parameters 17..28 hold the MIDI controller of value parameters 5..16.
inline constexpr std::uint64_t kFirstControllerAddress = 17;
inline constexpr std::uint64_t kControllerOffset = 12;
inline constexpr float kNoController = -1.0f;

inline constexpr std::array<ParameterGroupInfo, 3> kParameterGroups{{
    {"kGlobal", "TAV SR Chorus Global", 0, 6},
    {"kParameters", "TAV SR Chorus Parameters", 7, 16},
    {"kControllers", "TAV SR Chorus Controllers", 17, 28},
}};

using U = ParameterUnit;
inline constexpr std::array<ParameterInfo, kParameterCount> kParameterTable{{
    {0, "kDisplayContrast", "Display Contrast", 0, 1, 0.15f, U::Generic},
    {1, "kBypass", "Effect Bypass", 0, 1, 0, U::Boolean},
    {2, "kVolumeIn", "Input Gain", 0, 2, 1, U::Generic},
    {3, "kVolumeOut", "Output Gain", 0, 2, 1, U::Generic},
    {4, "kFinalLimit", "Output Limiter", 0, 1, 1, U::Boolean},
    {5, "kFrequencySplitLP", "Frequency Split LP", 0, 1, 0.33f, U::Generic},
    {6, "kFrequencySplitHP", "Frequency Split HP", 0, 1, 0.66f, U::Generic},
    {7, "kChorusDepth", "Chorus Depth", 0, 1, 0.33f, U::Generic},
    {8, "kChorusDelay", "Chorus Delay", 0, 1, 0.25f, U::Generic},
    {9, "kChorusFeedback", "Chorus Feedback", 0, 1, 0.33f, U::Generic},
    {10, "kChorusCross", "Chorus Xmod", 0, 1, 0.5f, U::Generic},
    {11, "kChorusPanning", "Chorus Panning", 0, 1, 0.5f, U::Generic},
    {12, "kChorusLFOFrequency", "LFO Frequency", 0, 1, 0.25f, U::Generic},
    {13, "kChorusLFORandom", "LFO Randomness", 0, 1, 0.33f, U::Generic},
    {14, "kChorusLFOType", "LFO Shape", 0, 1, 0, U::Generic},
    {15, "kChorusLFOStereo", "LFO Stereo", 0, 1, 0.5f, U::Generic},
    {16, "kChorusDryWet", "Chorus Mix", 0, 1, 0.5f, U::Generic},
    {17, "kFrequencySplitLPController", "Frequency Split LP CCO", -1, 127, 13, U::Indexed},
    {18, "kFrequencySplitHPController", "Frequency Split HP CCO", -1, 127, 14, U::Indexed},
    {19, "kChorusDepthController", "Chorus Depth CCO", -1, 127, 15, U::Indexed},
    {20, "kChorusDelayController", "Chorus Delay CCO", -1, 127, 16, U::Indexed},
    {21, "kChorusFeedbackController", "Chorus Feedback CCO", -1, 127, 17, U::Indexed},
    {22, "kChorusCrossController", "Chorus Cross CCO", -1, 127, 18, U::Indexed},
    {23, "kChorusPanningController", "Chorus Panning CCO", -1, 127, 19, U::Indexed},
    {24, "kChorusLFOFrequencyController", "LFO Frequency CCO", -1, 127, 20, U::Indexed},
    {25, "kChorusLFORandomController", "LFO Randomness CCO", -1, 127, 21, U::Indexed},
    {26, "kChorusLFOTypeController", "Chorus Shape CCO", -1, 127, 22, U::Indexed},
    {27, "kChorusLFOStereoController", "Chorus Stereo CCO", -1, 127, 23, U::Indexed},
    {28, "kChorusDryWetController", "Chorus Mix CCO", -1, 127, 24, U::Indexed},
}};

// The LFO's two shapes: only the exact end of LFO Shape's range picks the triangle, so hosts
// offer the two values by name rather than a range.
struct ParameterValueName {
    float value;
    std::string_view name;
};
inline constexpr std::array<ParameterValueName, 2> kLFOShapeNames{{{0, "Sine"}, {1, "Triangle"}}};

// The display contrast sets how the editor looks, not how anything sounds: saved and
// automatable like every parameter, but not a control a host's own view needs to show.
inline constexpr bool isDisplaySetting(std::uint64_t address) {
    return address == kDisplayContrast;
}

inline const ParameterInfo* parameterInfo(std::uint64_t address) {
    return address < kParameterCount ? &kParameterTable[address] : nullptr;
}

inline const ParameterInfo* parameterInfo(std::string_view identifier) {
    for (const auto& p : kParameterTable)
        if (p.identifier == identifier) return &p;
    return nullptr;
}

inline float clampToRange(const ParameterInfo& p, float v) {
    return v < p.minValue ? p.minValue : (v > p.maxValue ? p.maxValue : v);
}

} // namespace sr
