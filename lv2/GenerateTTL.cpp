// Writes the bundle's metadata from the parameter table and the factory preset files, so that
// the ports and presets a host sees can never drift from what the plug-in does:
//   sr-lv2-ttl OUT_DIR PRESET_DIR MINOR MICRO
// OUT_DIR receives manifest.ttl, the plug-in's TTL, presets/<slug>.ttl for every ".aupreset" in
// PRESET_DIR, and factory/ with copies of those files for the documents folder.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "lv2/PluginURIs.h"
#include "platform/AtomicFile.h"
#include "platform/PrintQueue.h"

namespace fs = std::filesystem;
using namespace sr::lv2;

namespace {

constexpr const char* kPrefixes = R"(@prefix atom: <http://lv2plug.in/ns/ext/atom#> .
@prefix bufsz: <http://lv2plug.in/ns/ext/buf-size#> .
@prefix doap: <http://usefulinc.com/ns/doap#> .
@prefix foaf: <http://xmlns.com/foaf/0.1/> .
@prefix log: <http://lv2plug.in/ns/ext/log#> .
@prefix lv2: <http://lv2plug.in/ns/lv2core#> .
@prefix midi: <http://lv2plug.in/ns/ext/midi#> .
@prefix opts: <http://lv2plug.in/ns/ext/options#> .
@prefix param: <http://lv2plug.in/ns/ext/parameters#> .
@prefix patch: <http://lv2plug.in/ns/ext/patch#> .
@prefix pg: <http://lv2plug.in/ns/ext/port-groups#> .
@prefix pprops: <http://lv2plug.in/ns/ext/port-props#> .
@prefix pset: <http://lv2plug.in/ns/ext/presets#> .
@prefix rdf: <http://www.w3.org/1999/02/22-rdf-syntax-ns#> .
@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .
@prefix rsz: <http://lv2plug.in/ns/ext/resize-port#> .
@prefix state: <http://lv2plug.in/ns/ext/state#> .
@prefix ui: <http://lv2plug.in/ns/extensions/ui#> .
@prefix urid: <http://lv2plug.in/ns/ext/urid#> .

)";

struct FactoryPreset {
    std::string name;
    std::string slug;
    fs::path file;
    std::array<float, sr::kParameterCount> values{};
    std::string state;
};

// A Turtle string literal.
std::string turtleString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += c;
        }
    }
    return out + "\"";
}

// The shortest text that reads back as the same float, as a Turtle decimal or double.
std::string decimal(float value) {
    char text[32];
    const auto r = std::to_chars(text, text + sizeof text, value);
    std::string s(text, r.ptr);
    if (s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

// Integer-valued ports (switches, controller numbers) take integer literals.
bool isIntegral(const sr::ParameterInfo& p) {
    return p.unit != sr::ParameterUnit::Generic;
}

std::string literal(const sr::ParameterInfo& p, float value) {
    return isIntegral(p) ? std::to_string(long(value)) : decimal(value);
}

std::string slugOf(const std::string& name) {
    std::string slug;
    for (const char c : name) {
        const bool keep = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (keep || (c >= 'A' && c <= 'Z'))
            slug += char(keep ? c : c - 'A' + 'a');
        else if (!slug.empty() && slug.back() != '-')
            slug += '-';
    }
    while (!slug.empty() && slug.back() == '-') slug.pop_back();
    return slug;
}

std::string controlPort(const sr::ParameterInfo& p) {
    std::ostringstream ttl;
    ttl << "[\n        a lv2:InputPort , lv2:ControlPort ;\n"
        << "        lv2:index " << p.address << " ;\n"
        << "        lv2:symbol " << turtleString(p.identifier) << " ;\n"
        << "        lv2:name " << turtleString(p.name) << " ;\n"
        << "        lv2:default " << literal(p, p.defaultValue) << " ;\n"
        << "        lv2:minimum " << literal(p, p.minValue) << " ;\n"
        << "        lv2:maximum " << literal(p, p.maxValue);
    // Every parameter stays automatable: a host may keep automation for any of them, the
    // controller numbers included, and must find it valid when the session loads again.
    const auto scalePoint = [&](std::string_view label, float value) {
        ttl << "[\n            rdfs:label " << turtleString(label) << " ;\n"
            << "            rdf:value " << literal(p, value) << "\n        ]";
    };
    if (p.unit == sr::ParameterUnit::Boolean) ttl << " ;\n        lv2:portProperty lv2:toggled";
    if (p.unit == sr::ParameterUnit::Indexed) {
        // -1 binds nothing.
        ttl << " ;\n        lv2:portProperty lv2:integer ;\n        lv2:scalePoint ";
        scalePoint("None", sr::kNoController);
    }
    if (p.address == sr::kChorusLFOType) {
        ttl << " ;\n        lv2:portProperty lv2:enumeration ;\n        lv2:scalePoint ";
        for (std::size_t i = 0; i < sr::kLFOShapeNames.size(); ++i) {
            if (i) ttl << " , ";
            scalePoint(sr::kLFOShapeNames[i].name, sr::kLFOShapeNames[i].value);
        }
    }
    if (sr::isDisplaySetting(p.address)) ttl << " ;\n        lv2:portProperty pprops:notOnGUI";
    ttl << "\n    ]";
    return ttl.str();
}

std::string audioPort(std::uint32_t index, bool input, bool left) {
    std::ostringstream ttl;
    const char* side = left ? "Left" : "Right";
    ttl << "[\n        a " << (input ? "lv2:InputPort" : "lv2:OutputPort") << " , lv2:AudioPort ;\n"
        << "        lv2:index " << index << " ;\n"
        << "        lv2:symbol \"" << (input ? "in_" : "out_") << (left ? "l" : "r") << "\" ;\n"
        << "        lv2:name \"" << (input ? "Input " : "Output ") << side << "\" ;\n"
        << "        pg:group <" << kPluginURI << (input ? "#in" : "#out") << "> ;\n"
        << "        lv2:designation pg:" << (left ? "left" : "right") << "\n    ]";
    return ttl.str();
}

std::string atomPort(std::uint32_t index, bool input, const char* symbol, const char* name,
                     bool midi, bool control, bool patch, std::uint32_t minimumSize) {
    std::ostringstream ttl;
    ttl << "[\n        a " << (input ? "lv2:InputPort" : "lv2:OutputPort") << " , atom:AtomPort ;\n"
        << "        atom:bufferType atom:Sequence ;\n";
    if (midi) ttl << "        atom:supports midi:MidiEvent ;\n";
    if (patch) ttl << "        atom:supports patch:Message ;\n";
    if (control) ttl << "        lv2:designation lv2:control ;\n";
    if (minimumSize) ttl << "        rsz:minimumSize " << minimumSize << " ;\n";
    ttl << "        lv2:portProperty lv2:connectionOptional ;\n"
        << "        lv2:index " << index << " ;\n"
        << "        lv2:symbol \"" << symbol << "\" ;\n"
        << "        lv2:name " << turtleString(name) << "\n    ]";
    return ttl.str();
}

// The editor: an X11 window the host embeds (or shows on its own), driven by the host's idle
// calls; it follows the notify port and writes the control ports.
std::string uiTTL() {
    std::ostringstream ttl;
    ttl << "<" << kUIURI << ">\n    a ui:X11UI ;\n"
        << "    lv2:requiredFeature ui:idleInterface ;\n"
        << "    lv2:optionalFeature ui:parent , ui:touch , urid:map , opts:options , log:log ;\n"
        << "    lv2:extensionData ui:idleInterface ;\n"
        << "    opts:supportedOption ui:scaleFactor ;\n"
        << "    ui:portNotification [\n        ui:plugin <" << kPluginURI << "> ;\n"
        << "        lv2:symbol \"notify\" ;\n        ui:notifyType atom:Object\n    ] .\n";
    return ttl.str();
}

std::string pluginTTL(int minor, int micro) {
    std::ostringstream ttl;
    const std::string uri = std::string("<") + kPluginURI + ">";
    ttl << kPrefixes;
    ttl << "<" << kPluginURI << "#in>\n    a pg:StereoGroup , pg:InputGroup ;\n"
        << "    lv2:symbol \"in\" ;\n    rdfs:label \"Input\" .\n\n";
    ttl << "<" << kPluginURI << "#out>\n    a pg:StereoGroup , pg:OutputGroup ;\n"
        << "    lv2:symbol \"out\" ;\n    rdfs:label \"Output\" ;\n"
        << "    pg:source <" << kPluginURI << "#in> .\n\n";
    ttl << "<" << kFullStateURI << ">\n    a rdf:Property ;\n"
        << "    rdfs:label \"full state\" ;\n"
        << "    rdfs:comment \"Every setting of the plug-in as one XML property list.\" ;\n"
        << "    rdfs:range atom:String .\n\n";
    ttl << uri << "\n    a lv2:Plugin , lv2:ChorusPlugin , doap:Project ;\n"
        << "    doap:name " << turtleString(kPluginName) << " ;\n"
        << "    doap:license <http://spdx.org/licenses/GPL-2.0-or-later> ;\n"
        << "    doap:maintainer [\n        a foaf:Person ;\n"
        << "        foaf:name \"TAV SR Chorus developers\"\n    ] ;\n"
        << "    rdfs:comment \"A stereo chorus that works only on a selectable middle frequency "
           "band.\" ;\n"
        << "    lv2:minorVersion " << minor << " ;\n"
        << "    lv2:microVersion " << micro << " ;\n"
        << "    lv2:optionalFeature lv2:hardRTCapable , urid:map , opts:options , log:log ;\n"
        << "    opts:supportedOption param:sampleRate , bufsz:maxBlockLength , "
           "bufsz:nominalBlockLength ;\n"
        << "    lv2:extensionData state:interface ;\n"
        << "    ui:ui <" << kUIURI << "> ;\n"
        << "    pg:mainInput <" << kPluginURI << "#in> ;\n"
        << "    pg:mainOutput <" << kPluginURI << "#out> ;\n"
        << "    lv2:port ";
    std::vector<std::string> ports;
    for (const sr::ParameterInfo& p : sr::kParameterTable) ports.push_back(controlPort(p));
    ports.push_back(audioPort(kAudioInLeft, true, true));
    ports.push_back(audioPort(kAudioInRight, true, false));
    ports.push_back(audioPort(kAudioOutLeft, false, true));
    ports.push_back(audioPort(kAudioOutRight, false, false));
    // The editor's patch:Get arrives with the MIDI; the notify port's patch:Set reports are for
    // the editor alone, so it claims no patch support a host would act on (Ardour would take
    // the port for its property messages and warn about every value that is not a file path).
    ports.push_back(atomPort(kMIDIIn, true, "midi_in", "MIDI In", true, true, true, 0));
    ports.push_back(atomPort(kMIDIOut, false, "midi_out",
                             TAV_SR_Chorus_Extension_AudioUnit::kMIDIOutputName, true, false, false,
                             kMIDIOutMinimumSize));
    ports.push_back(
        atomPort(kNotify, false, "notify", "Notify", false, true, false, kNotifyMinimumSize));
    for (std::size_t i = 0; i < ports.size(); ++i) ttl << (i ? " , " : "") << ports[i];
    ttl << " .\n\n";
    ttl << uiTTL();
    return ttl.str();
}

std::string presetTTL(const FactoryPreset& preset) {
    std::ostringstream ttl;
    ttl << kPrefixes;
    ttl << "<" << kPresetURIPrefix << preset.slug << ">\n    a pset:Preset ;\n"
        << "    lv2:appliesTo <" << kPluginURI << "> ;\n"
        << "    rdfs:label " << turtleString(preset.name) << " ;\n    lv2:port ";
    for (std::size_t i = 0; i < sr::kParameterCount; ++i) {
        const sr::ParameterInfo& p = sr::kParameterTable[i];
        ttl << (i ? " , " : "") << "[\n        lv2:symbol " << turtleString(p.identifier)
            << " ;\n        pset:value " << decimal(preset.values[i]) << "\n    ]";
    }
    // The whole state too, so a host that restores it sets every value even where its own
    // port already held the preset's value.
    ttl << " ;\n    state:state [\n        <" << kFullStateURI << "> " << turtleString(preset.state)
        << "\n    ] .\n";
    return ttl.str();
}

std::string manifestTTL(const std::vector<FactoryPreset>& presets) {
    std::ostringstream ttl;
    ttl << kPrefixes;
    ttl << "<" << kPluginURI << ">\n    a lv2:Plugin ;\n"
        << "    lv2:binary <" << kBinaryName << "> ;\n"
        << "    rdfs:seeAlso <tav-sr-chorus.ttl> .\n";
    ttl << "\n<" << kUIURI << ">\n    a ui:X11UI ;\n"
        << "    ui:binary <" << kUIBinaryName << "> ;\n"
        << "    rdfs:seeAlso <tav-sr-chorus.ttl> .\n";
    for (const FactoryPreset& preset : presets)
        ttl << "\n<" << kPresetURIPrefix << preset.slug << ">\n    a pset:Preset ;\n"
            << "    lv2:appliesTo <" << kPluginURI << "> ;\n"
            << "    rdfs:label " << turtleString(preset.name) << " ;\n"
            << "    rdfs:seeAlso <presets/" << preset.slug << ".ttl> .\n";
    return ttl.str();
}

// The values and state a preset file gives the plug-in, read through the unit itself.
bool readPreset(const fs::path& file, FactoryPreset& preset) {
    TAVPreset reader;
    if (!reader.load(file.string()) || !reader.patch) return false;
    preset.file = file;
    preset.name = reader.patch->name;
    preset.slug = slugOf(preset.name);

    sr::DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, queue);
    if (!unit.setFullState(reader.getDictionary())) return false;
    for (std::size_t i = 0; i < sr::kParameterCount; ++i)
        preset.values[i] = unit.parameterTree()->parameterWithAddress(i)->value();
    const std::optional<sr::PropertyList> state = unit.fullState();
    const std::optional<std::string> xml = state ? state->toXML() : std::nullopt;
    if (!xml) return false;
    preset.state = *xml;
    queue.discard();
    return true;
}

bool write(const fs::path& path, const std::string& text) {
    try {
        sr::writeFileAtomically(path.string(), text);
        return true;
    } catch (const std::exception& error) {
        std::cerr << "sr-lv2-ttl: " << error.what() << "\n";
        return false;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: sr-lv2-ttl OUT_DIR PRESET_DIR MINOR MICRO\n";
        return 2;
    }
    const fs::path out = argv[1];
    const fs::path presetDir = argv[2];
    const int minor = std::atoi(argv[3]);
    const int micro = std::atoi(argv[4]);
    // An odd minor version marks a development release, which hosts may refuse to load.
    if (minor % 2 != 0) {
        std::cerr << "sr-lv2-ttl: the minor version " << minor << " must be even\n";
        return 2;
    }

    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(presetDir))
        if (entry.is_regular_file() && entry.path().extension() == ".aupreset")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());

    // The unit's log lines are not this tool's output, unless they say why a preset failed.
    static std::mutex logMutex;
    static std::string unitLog;
    sr::printQueue().setSink([](std::string_view line) {
        std::lock_guard<std::mutex> lock(logMutex);
        unitLog += line;
    });
    std::vector<FactoryPreset> presets;
    for (const fs::path& file : files) {
        FactoryPreset preset;
        if (!readPreset(file, preset)) {
            sr::printQueue().flush();
            std::lock_guard<std::mutex> lock(logMutex);
            std::cerr << unitLog << "sr-lv2-ttl: the factory preset " << file << " does not load\n";
            return 1;
        }
        for (const FactoryPreset& other : presets)
            if (other.slug == preset.slug) {
                std::cerr << "sr-lv2-ttl: two presets share the name '" << preset.slug << "'\n";
                return 1;
            }
        presets.push_back(std::move(preset));
    }

    // Stale presets of an earlier build must not linger in the bundle.
    for (const char* folder : {"presets", "factory"}) {
        fs::remove_all(out / folder);
        fs::create_directories(out / folder);
    }
    bool ok = write(out / "manifest.ttl", manifestTTL(presets)) &&
              write(out / "tav-sr-chorus.ttl", pluginTTL(minor, micro));
    for (const FactoryPreset& preset : presets) {
        ok = ok && write(out / "presets" / (preset.slug + ".ttl"), presetTTL(preset));
        std::error_code error;
        fs::copy_file(preset.file, out / "factory" / preset.file.filename(),
                      fs::copy_options::overwrite_existing, error);
        if (error) {
            std::cerr << "sr-lv2-ttl: cannot copy " << preset.file << ": " << error.message()
                      << "\n";
            ok = false;
        }
    }
    sr::printQueue().flush();
    return ok ? 0 : 1;
}
