// The renderer's command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/ParameterTable.h"

namespace sr::cli {

struct ParameterSetting {
    const ParameterInfo* parameter;
    float value; // checked against the parameter's range
};

struct Options {
    std::string input;
    std::string output;
    std::string demoDirectory; // set by --demo
    std::string midiInput;     // --midi: a standard MIDI file played into the plug-in
    std::string midiOutput;    // --midi-out: where the plug-in's MIDI output is written
    std::string presetFile;    // --preset: loaded before the --set values
    std::string savePreset;    // --save-preset: the state after --set, as a preset file
    std::string stateOut;      // --state-out: the same state as the host-facing dictionary
    std::string panelFile;     // --panel: the editor panel for the settings, as a PNG
    int panelWidth = 1024;     // --panel-size WxH
    int panelHeight = 400;
    bool panelLFOPage = false; // --page lfo
    std::string panelOverlay;  // --overlay browser|new-preset: what is open over the panel
    std::string logFile;       // --log: where the audio unit's log goes ("-": standard output)
    std::vector<ParameterSetting> settings;
    std::uint32_t blockFrames = 512;
    bool list = false;
    bool help = false;

    // Only state files are asked for: nothing is rendered.
    bool stateOnly() const {
        return input.empty() && demoDirectory.empty() &&
               (!savePreset.empty() || !stateOut.empty() || !panelFile.empty());
    }
};

// Throws UsageError, with the one line to show, for anything it cannot accept.
Options parseArguments(int argc, const char* const* argv);

std::string usageText();

} // namespace sr::cli
