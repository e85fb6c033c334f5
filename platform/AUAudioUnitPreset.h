// A preset as hosts list and select it: factory presets have numbers from 0, user presets
// negative numbers.
#pragma once

#include <string>

#include "platform/AudioTypes.h"

struct AUAudioUnitPreset {
    NSInteger number = 0;
    std::string name;
    bool operator==(const AUAudioUnitPreset&) const = default;
};
