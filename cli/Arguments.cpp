#include "cli/Arguments.h"

#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "cli/Errors.h"
#include "cli/OfflineRenderer.h"

namespace sr::cli {

namespace {

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

std::string number(float value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", double(value));
    return text;
}

// The whole text as a float, or nothing. A leading '+' is allowed, as people type it.
std::optional<float> parseFloat(std::string_view text) {
    if (text.starts_with('+')) text.remove_prefix(1);
    float value = 0.0f;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

ParameterSetting parseSetting(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        throw UsageError("--set expects ID=VALUE, got " + quoted(text));
    const std::string_view id = text.substr(0, equals);
    const std::string_view valueText = text.substr(equals + 1);

    const ParameterInfo* parameter = findParameter(id);
    if (!parameter) throw UsageError("unknown parameter " + quoted(id) + " (see --list)");
    const std::optional<float> value = parseFloat(valueText);
    if (!value)
        throw UsageError("value " + quoted(valueText) + " for " +
                         std::string(parameter->identifier) + " is not a number");
    if (!isValidValue(*parameter, *value))
        throw UsageError("value " + std::string(valueText) + " for " +
                         std::string(parameter->identifier) + " is outside " +
                         number(parameter->minValue) + ".." + number(parameter->maxValue));
    return {parameter, *value};
}

std::uint32_t parseBlock(std::string_view text) {
    std::uint32_t frames = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), frames);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || frames < 1 ||
        frames > OfflineRenderer::kMaxBlockFrames)
        throw UsageError("--block takes 1 to " + std::to_string(OfflineRenderer::kMaxBlockFrames) +
                         " frames, got " + quoted(text));
    return frames;
}

// "WxH", each 1 to 16384 pixels.
void parsePanelSize(std::string_view text, Options& options) {
    const std::size_t x = text.find('x');
    int w = 0, h = 0;
    const auto whole = [](std::string_view t, int& v) {
        const auto [end, error] = std::from_chars(t.data(), t.data() + t.size(), v);
        return !t.empty() && error == std::errc() && end == t.data() + t.size() && v >= 1 &&
               v <= 16384;
    };
    if (x == std::string_view::npos || !whole(text.substr(0, x), w) ||
        !whole(text.substr(x + 1), h))
        throw UsageError("--panel-size takes WIDTHxHEIGHT, each 1 to 16384 pixels, got " +
                         quoted(text));
    options.panelWidth = w;
    options.panelHeight = h;
}

// Walks the arguments; "--name value" and "--name=value" are both accepted.
class ArgumentReader {
public:
    ArgumentReader(int argc, const char* const* argv) : argc(argc), argv(argv) {}

    bool done() const { return index >= argc; }
    std::string_view next() { return argv[index++]; }
    std::string_view valueFor(std::string_view option, std::optional<std::string_view> given) {
        if (given) return *given;
        if (done()) throw UsageError(std::string(option) + " needs a value");
        return next();
    }

private:
    int argc;
    const char* const* argv;
    int index = 1;
};

void takeFiles(Options& options, const std::vector<std::string_view>& files) {
    if (options.help || options.list) return;
    if (!options.demoDirectory.empty()) {
        if (!files.empty()) throw UsageError("--demo takes no input or output file");
        return;
    }
    if (files.empty() &&
        (!options.savePreset.empty() || !options.stateOut.empty() || !options.panelFile.empty()))
        return;
    if (files.empty()) throw UsageError("missing input and output files (see --help)");
    if (files.size() == 1) throw UsageError("missing output file (see --help)");
    if (files.size() > 2) throw UsageError("unexpected argument " + quoted(files[2]));
    options.input = files[0];
    options.output = files[1];
}

} // namespace

Options parseArguments(int argc, const char* const* argv) {
    Options options;
    std::vector<std::string_view> files;
    ArgumentReader reader(argc, argv);
    bool optionsEnded = false;
    while (!reader.done()) {
        const std::string_view argument = reader.next();
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            files.push_back(argument);
            continue;
        }
        std::string_view option = argument;
        std::optional<std::string_view> inlineValue;
        if (const std::size_t equals = argument.find('=');
            argument.starts_with("--") && equals != std::string_view::npos) {
            option = argument.substr(0, equals);
            inlineValue = argument.substr(equals + 1);
        }

        if (option == "--") {
            optionsEnded = true;
        } else if (option == "--help" || option == "-h") {
            options.help = true;
        } else if (option == "--list") {
            options.list = true;
        } else if (option == "--set") {
            options.settings.push_back(parseSetting(reader.valueFor(option, inlineValue)));
            continue;
        } else if (option == "--block") {
            options.blockFrames = parseBlock(reader.valueFor(option, inlineValue));
            continue;
        } else if (std::string* file = option == "--midi"          ? &options.midiInput
                                       : option == "--midi-out"    ? &options.midiOutput
                                       : option == "--preset"      ? &options.presetFile
                                       : option == "--save-preset" ? &options.savePreset
                                       : option == "--state-out"   ? &options.stateOut
                                       : option == "--panel"       ? &options.panelFile
                                       : option == "--log"         ? &options.logFile
                                                                   : nullptr) {
            const std::string_view path = reader.valueFor(option, inlineValue);
            if (path.empty()) throw UsageError(std::string(option) + " needs a file");
            *file = path;
            continue;
        } else if (option == "--panel-size") {
            parsePanelSize(reader.valueFor(option, inlineValue), options);
            continue;
        } else if (option == "--page") {
            const std::string_view page = reader.valueFor(option, inlineValue);
            if (page != "main" && page != "lfo")
                throw UsageError("--page takes main or lfo, got " + quoted(page));
            options.panelLFOPage = page == "lfo";
            continue;
        } else if (option == "--overlay") {
            const std::string_view overlay = reader.valueFor(option, inlineValue);
            if (overlay != "browser" && overlay != "new-preset")
                throw UsageError("--overlay takes browser or new-preset, got " + quoted(overlay));
            options.panelOverlay = overlay;
            continue;
        } else if (option == "--demo") {
            const std::string_view directory = reader.valueFor(option, inlineValue);
            if (directory.empty()) throw UsageError("--demo needs a directory");
            options.demoDirectory = directory;
            continue;
        } else {
            throw UsageError("unknown option " + quoted(option) + " (see --help)");
        }
        if (inlineValue) throw UsageError(std::string(option) + " takes no value");
    }
    takeFiles(options, files);
    return options;
}

std::string usageText() {
    const std::string maxBlock = std::to_string(OfflineRenderer::kMaxBlockFrames);
    const std::string maxCall =
        std::to_string(TAV_SR_Chorus_ExtensionDSPKernelAdapter::kDefaultMaximumFramesToRender);
    return "usage: sr-chorus-render IN OUT [--preset FILE] [--set ID=VALUE]... [--block N]\n"
           "                        [--midi FILE.mid] [--midi-out FILE.mid]\n"
           "                        [--save-preset FILE] [--state-out FILE] [--log FILE]\n"
           "                        [--panel FILE.png [--panel-size WxH] [--page main|lfo]\n"
           "                         [--overlay browser|new-preset]]\n"
           "       sr-chorus-render --demo DIR [--preset FILE] [--set ID=VALUE]... [--block N]\n"
           "       sr-chorus-render [--preset FILE] [--set ID=VALUE]... --save-preset FILE\n"
           "       sr-chorus-render --list | --help\n"
           "\n"
           "Renders IN (any format libsndfile reads) through TAV SR Chorus into OUT.\n"
           "OUT's extension picks the format: .wav (the default), .aiff, .caf, .w64, .rf64 and\n"
           ".au hold 32-bit float; .flac 24-bit PCM; .ogg Vorbis; .opus; .mp3.\n"
           "\n"
           "  --set ID=VALUE  set a parameter before rendering; ID is an identifier such as\n"
           "                  kChorusDryWet or an address (see --list); repeatable. A split\n"
           "                  point set prints where the bands cross, at IN's rate\n"
           "  --block N       frames per render call, 1 to " +
           maxBlock + " (default 512); longer blocks\n" +
           "                  are cut into calls of at most " + maxCall + " frames\n" +
           "  --midi FILE     play a standard MIDI file (format 0 or 1) into the plug-in\n"
           "                  while rendering: controllers move the controls bound to them\n"
           "  --midi-out FILE write what the plug-in sends on its MIDI output as a MIDI file\n"
           "  --preset FILE   load a preset file (.aupreset, XML or binary property list)\n"
           "                  before the --set values; a refused file stops the run\n"
           "  --save-preset FILE  write the settings (preset, then --set) as a preset file\n"
           "  --state-out FILE    write the same settings as the saved state a host keeps\n"
           "  --panel FILE    draw the editor panel for the settings into a PNG (no display\n"
           "                  needed), with IN's spectrum when it renders; with no IN and\n"
           "                  OUT nothing is rendered\n"
           "  --panel-size WxH  the image's size in pixels (default 1024x400); the panel\n"
           "                  keeps its proportions, centred\n"
           "  --page main|lfo which page of knobs the panel shows (default main)\n"
           "  --overlay browser|new-preset  draw the panel with the preset browser open (the\n"
           "                  presets of the documents folder), or with the New Preset dialog\n"
           "                  over it\n"
           "  --log FILE      write the plug-in's own log lines to FILE ('-': standard output);\n"
           "                  without it they are not kept\n"
           "  --demo DIR      synthesize a demo, render it with the defaults (and any --set)\n"
           "                  and write DIR/demo-dry.wav, DIR/demo-wet.wav and DIR/panel.png\n"
           "  --list          list the parameters with their ranges and defaults (and where\n"
           "                  the split points' defaults divide the bands at 48 kHz)\n"
           "  --help          show this text\n"
           "\n"
           "Only stereo goes through the chorus; other layouts (up to 8 channels) pass through\n"
           "(the output limiter, on by default, still applies its -0.01 dB pre-gain).\n";
}

} // namespace sr::cli
