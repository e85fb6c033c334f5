// sr-chorus-render: renders audio files (or a synthesized demo) offline through the chorus
// kernel, driven as a host drives the audio unit.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "cli/Arguments.h"
#include "cli/DemoSignal.h"
#include "cli/Errors.h"
#include "cli/MidiFiles.h"
#include "cli/OfflineRenderer.h"
#include "cli/ProgressBar.h"
#include "cli/RenderLog.h"
#include "cli/SoundFiles.h"
#include "editor/PanelImage.h"
#include "editor/SpectrumAnalyzer.h"
#include "kernel/SplitFrequencies.h"
#include "platform/AtomicFile.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"

namespace sr::cli {
namespace {

constexpr const char* kProgramName = "sr-chorus-render";

volatile std::sig_atomic_t interrupted = 0;

// Ctrl-C ends the run between chunks, through the normal failure path that removes the
// unfinished output.
void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = 1; };
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void throwIfInterrupted() {
    if (interrupted) throw Error("interrupted");
}

// Frames read and rendered at a time: whole blocks, so only the file's last call is short.
std::size_t chunkFrames(std::uint32_t blockFrames) {
    constexpr std::size_t kAbout = 65536;
    return blockFrames * std::max<std::size_t>(1, kAbout / blockFrames);
}

void renderOrThrow(OfflineRenderer& renderer, const float* input, float* output,
                   std::size_t frames) {
    if (const AUAudioUnitStatus status = renderer.renderInterleaved(input, output, frames);
        status != noErr)
        throw Error("the render call failed with status " + std::to_string(status));
}

// A refusal's one line: what could not be done, and why, as the unit logged it first since the
// step began (its error count then).
Error refusal(const std::string& what, RenderLog& log, std::size_t errorsBefore) {
    const std::string reason = log.firstErrorFrom(errorsBefore);
    return Error(reason.empty() ? what : what + ": " + reason);
}

// The --preset file, then the --set values. Returns the state they make, for the state files
// written once everything else has succeeded.
PropertyList prepareUnit(OfflineRenderer& renderer, const Options& options, RenderLog& log) {
    TAV_SR_Chorus_Extension_AudioUnit& unit = renderer.audioUnit();
    const std::size_t errorsBefore = log.errorCount();
    if (!options.presetFile.empty() && !unit.loadPresetFile(options.presetFile))
        throw refusal("cannot use the preset '" + options.presetFile + "'", log, errorsBefore);
    for (const ParameterSetting& s : options.settings)
        if (!renderer.set(s.parameter->identifier, s.value))
            throw Error("cannot set " + std::string(s.parameter->identifier));
    return unit.fullState().value_or(PropertyList{});
}

// The spectrum of a recording's input (the mean of its first two channels), for the panel.
class InputSpectrum {
public:
    explicit InputSpectrum(double sampleRate) : analyzer(sampleRate) {}
    void add(const float* interleaved, std::size_t frames, std::uint32_t channels) {
        mono.resize(frames);
        const std::uint32_t second = channels > 1 ? 1 : 0;
        for (std::size_t i = 0; i < frames; ++i)
            mono[i] = 0.5f * (interleaved[i * channels] + interleaved[i * channels + second]);
        analyzer.accumulate(mono.data(), frames);
    }
    editor::SpectrumAnalyzer analyzer;

private:
    std::vector<float> mono;
};

// The editor panel as a host would show it for the unit's current settings at `sampleRate`,
// with the spectrum of what was rendered when there is one.
void writePanel(const std::string& path, const Options& options,
                TAV_SR_Chorus_Extension_AudioUnit& unit, RenderLog& log, double sampleRate,
                const InputSpectrum* spectrum = nullptr) {
    float values[kParameterCount];
    for (std::size_t a = 0; a < kParameterCount; ++a)
        values[a] = unit.parameterTree()->parameterWithAddress(a)->value();
    editor::PanelSnapshot snapshot(values, &log.channel());
    editor::AudioUnitViewController& controller = snapshot.controller();
    controller.pluginView.baseClass.isMainVisible = !options.panelLFOPage;
    controller.setSampleRate(sampleRate);
    if (spectrum)
        controller.showSpectrum(spectrum->analyzer.averageDb(), spectrum->analyzer.binHz());
    if (!options.panelOverlay.empty()) {
        controller.performSegue("showPresets");
        // The preset loaded is marked where the browser lists it under the same name.
        if (!options.presetFile.empty()) {
            const std::string listed =
                controller.documentsPath + "Presets/Factory/" +
                std::filesystem::path(options.presetFile).filename().string();
            controller.presetsViewController.currentPath = listed;
            controller.presetsViewController.tableView.selectPath(listed);
            controller.overlays.showBrowser();
        }
        if (options.panelOverlay == "new-preset") controller.alertFileName();
    }
    editor::writePanelPNG(controller, path, options.panelWidth, options.panelHeight);
}

// "48 kHz", "44.1 kHz".
std::string kilohertz(double rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%g kHz", rate / 1000.0);
    return text;
}

// Where the split points divide the bands, when a --set moved one: the figures the panel shows.
void printSplitFrequencies(const Options& options, TAV_SR_Chorus_Extension_AudioUnit& unit,
                           double sampleRate) {
    const bool moved = std::any_of(options.settings.begin(), options.settings.end(),
                                   [](const ParameterSetting& s) {
                                       return s.parameter->address == kFrequencySplitLP ||
                                              s.parameter->address == kFrequencySplitHP;
                                   });
    if (!moved) return;
    AUParameterTree* tree = unit.parameterTree();
    const SplitFrequencies hz =
        splitFrequencies(tree->parameterWithAddress(kFrequencySplitLP)->value(),
                         tree->parameterWithAddress(kFrequencySplitHP)->value(), sampleRate);
    char lower[16], upper[16];
    formatHz(hz.lower, lower, sizeof lower);
    formatHz(hz.upper, upper, sizeof upper);
    std::printf("split points: the bands cross at %s (low/middle) and %s (middle/high) at %s\n",
                lower, upper, kilohertz(sampleRate).c_str());
    std::fflush(stdout);
}

void writeStateFiles(const Options& options, const PropertyList& state, RenderLog& log) {
    if (!options.savePreset.empty()) {
        const std::size_t errorsBefore = log.errorCount();
        TAVPreset preset(log.channel());
        const bool made = preset.makeFrom(state);
        // A preset file carries its own name, as the factory presets do.
        preset.patch->name = std::filesystem::path(options.savePreset).stem().string();
        if (!made || !preset.save(options.savePreset))
            throw refusal("cannot write the preset '" + options.savePreset + "'", log,
                          errorsBefore);
    }
    if (!options.stateOut.empty()) {
        const std::optional<std::string> xml = state.toXML();
        if (!xml) throw Error("cannot serialise the state");
        writeFileAtomically(options.stateOut, *xml);
    }
}

int writeStateOnly(const Options& options, RenderLog& log) {
    OfflineRenderer renderer(DemoSignal::kSampleRate, DemoSignal::kChannels, options.blockFrames,
                             {}, log.channel());
    writeStateFiles(options, prepareUnit(renderer, options, log), log);
    printSplitFrequencies(options, renderer.audioUnit(), DemoSignal::kSampleRate);
    if (!options.panelFile.empty())
        writePanel(options.panelFile, options, renderer.audioUnit(), log, DemoSignal::kSampleRate);
    return 0;
}

void warn(const std::string& message) {
    std::cerr << kProgramName << ": warning: " << message << '\n';
}

void checkChannels(const std::string& path, std::uint32_t channels) {
    if (channels > OfflineRenderer::kMaxChannels)
        throw Error("'" + path + "' has " + std::to_string(channels) + " channels; at most " +
                    std::to_string(OfflineRenderer::kMaxChannels) + " are supported");
    if (channels != 2)
        warn("'" + path + "' has " + std::to_string(channels) +
             (channels == 1 ? " channel" : " channels") +
             "; only stereo goes through the chorus, so it passes through (the output limiter, "
             "when on, still applies)");
}

// The --midi file's messages, read before any output exists so a bad file costs nothing.
std::vector<TimedMidiMessage> midiInput(const Options& options, double sampleRate) {
    if (options.midiInput.empty()) return {};
    return readMidiFile(options.midiInput, sampleRate);
}

void finishMidi(const Options& options, const OfflineRenderer& renderer) {
    if (renderer.midiDropped() > 0)
        warn(std::to_string(renderer.midiDropped()) +
             " MIDI messages were dropped (too many at one frame)");
    if (!options.midiOutput.empty())
        writeMidiFile(options.midiOutput, renderer.midiOutput(), renderer.sampleRate());
}

int renderFile(const Options& options, RenderLog& log) {
    const int format = outputFormatFor(options.output);
    InputFile input(options.input);
    checkChannels(options.input, input.channels());
    OfflineRenderer renderer(input.sampleRate(), input.channels(), options.blockFrames,
                             midiInput(options, input.sampleRate()), log.channel());
    const PropertyList state = prepareUnit(renderer, options, log);
    printSplitFrequencies(options, renderer.audioUnit(), input.sampleRate());
    std::optional<InputSpectrum> spectrum;
    if (!options.panelFile.empty()) spectrum.emplace(input.sampleRate());
    OutputFile output(options.output, format, input.sampleRate(), input.channels());

    const std::size_t chunk = chunkFrames(options.blockFrames);
    std::vector<float> samples(chunk * input.channels());
    ProgressBar progress(input.frames(), input.sampleRate());
    std::int64_t done = 0;
    while (const std::size_t frames = input.read(samples.data(), chunk)) {
        if (spectrum) spectrum->add(samples.data(), frames, input.channels());
        renderOrThrow(renderer, samples.data(), samples.data(), frames);
        output.write(samples.data(), frames);
        done += std::int64_t(frames);
        progress.update(done);
        throwIfInterrupted();
    }
    progress.finish();
    input.close();
    if (spectrum)
        writePanel(options.panelFile, options, renderer.audioUnit(), log, input.sampleRate(),
                   &*spectrum);
    finishMidi(options, renderer);
    writeStateFiles(options, state, log);
    output.commit();
    return 0;
}

void writeWholeFile(const std::string& path, const std::vector<float>& samples) {
    OutputFile file(path, outputFormatFor(path), DemoSignal::kSampleRate, DemoSignal::kChannels);
    file.write(samples.data(), samples.size() / DemoSignal::kChannels);
    file.commit();
}

double peakDbfs(const std::vector<float>& samples) {
    float peak = 0.0f;
    for (float s : samples) peak = std::max(peak, std::fabs(s));
    return peak > 0.0f ? 20.0 * std::log10(double(peak)) : -HUGE_VAL;
}

// The demo through the plug-in; the audio unit is gone (and has logged its last line) on return.
std::vector<float> renderDemo(const Options& options, const DemoSignal& dry,
                              const std::string& panelPath, RenderLog& log) {
    std::vector<float> wet(dry.samples.size());
    OfflineRenderer renderer(DemoSignal::kSampleRate, DemoSignal::kChannels, options.blockFrames,
                             midiInput(options, DemoSignal::kSampleRate), log.channel());
    const PropertyList state = prepareUnit(renderer, options, log);
    printSplitFrequencies(options, renderer.audioUnit(), DemoSignal::kSampleRate);
    InputSpectrum spectrum(DemoSignal::kSampleRate);
    spectrum.add(dry.samples.data(), dry.frames(), DemoSignal::kChannels);
    writePanel(panelPath, options, renderer.audioUnit(), log, DemoSignal::kSampleRate, &spectrum);
    const std::size_t chunk = chunkFrames(options.blockFrames);
    ProgressBar progress(std::int64_t(dry.frames()), DemoSignal::kSampleRate);
    for (std::size_t frame = 0; frame < dry.frames(); frame += chunk) {
        const std::size_t frames = std::min(chunk, dry.frames() - frame);
        const std::size_t offset = frame * DemoSignal::kChannels;
        renderOrThrow(renderer, dry.samples.data() + offset, wet.data() + offset, frames);
        progress.update(std::int64_t(frame + frames));
        throwIfInterrupted();
    }
    progress.finish();
    finishMidi(options, renderer);
    writeStateFiles(options, state, log);
    return wet;
}

int runDemo(const Options& options, RenderLog& log) {
    namespace fs = std::filesystem;
    const fs::path directory(options.demoDirectory);
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw Error("cannot create '" + directory.string() + "': " + error.message());

    const DemoSignal dry = makeDemoSignal();
    const std::string panelPath =
        options.panelFile.empty() ? (directory / "panel.png").string() : options.panelFile;
    const std::vector<float> wet = renderDemo(options, dry, panelPath, log);
    const std::string dryPath = (directory / "demo-dry.wav").string();
    const std::string wetPath = (directory / "demo-wet.wav").string();
    writeWholeFile(dryPath, dry.samples);
    writeWholeFile(wetPath, wet);

    log.channel().flush(); // with --log -, the unit's lines before the summary
    std::printf("demo: %.2f s at %d Hz, stereo: plucked chords (250 Hz to 1.5 kHz), bass below "
                "150 Hz, hi-hat on top\n",
                dry.seconds(), DemoSignal::kSampleRate);
    std::printf("  %-40s peak %6.1f dBFS  (input)\n", dryPath.c_str(), peakDbfs(dry.samples));
    std::printf("  %-40s peak %6.1f dBFS  (%s)\n", wetPath.c_str(), peakDbfs(wet),
                options.settings.empty() ? "default settings" : "with the --set values");
    std::printf("  %-40s the editor panel, %d x %d\n", panelPath.c_str(), options.panelWidth,
                options.panelHeight);
    return 0;
}

const char* unitName(ParameterUnit unit) {
    switch (unit) {
    case ParameterUnit::Generic:
        return "Generic";
    case ParameterUnit::Indexed:
        return "Indexed";
    case ParameterUnit::Boolean:
        return "Boolean";
    }
    return "?";
}

int listParameters() {
    std::printf("%7s  %-30s %-24s %6s %6s %8s  %s\n", "address", "identifier", "name", "min", "max",
                "default", "unit");
    // The split points' defaults with the frequencies they divide the bands at.
    const SplitFrequencies hz =
        splitFrequencies(kParameterTable[kFrequencySplitLP].defaultValue,
                         kParameterTable[kFrequencySplitHP].defaultValue, DemoSignal::kSampleRate);
    for (const ParameterInfo& p : kParameterTable) {
        char crossing[64] = "";
        if (p.address == kFrequencySplitLP || p.address == kFrequencySplitHP) {
            char text[16];
            formatHz(p.address == kFrequencySplitLP ? hz.lower : hz.upper, text, sizeof text);
            std::snprintf(crossing, sizeof crossing, "  (crosses at %s at %s)", text,
                          kilohertz(DemoSignal::kSampleRate).c_str());
        }
        std::printf("%7llu  %-30.*s %-24.*s %6g %6g %8g  %s%s\n",
                    static_cast<unsigned long long>(p.address), int(p.identifier.size()),
                    p.identifier.data(), int(p.name.size()), p.name.data(), double(p.minValue),
                    double(p.maxValue), double(p.defaultValue), unitName(p.unit), crossing);
    }
    return 0;
}

// Errors are one line whatever the text they quote.
void reportError(std::string message) {
    std::replace(message.begin(), message.end(), '\n', ' ');
    std::cerr << kProgramName << ": error: " << message << '\n';
}

int run(int argc, const char* const* argv) {
    try {
        const Options options = parseArguments(argc, argv);
        if (options.help) {
            std::cout << usageText();
            return 0;
        }
        if (options.list) return listParameters();
        installInterruptHandlers();
        RenderLog log(options.logFile);
        if (!options.demoDirectory.empty()) return runDemo(options, log);
        if (options.stateOnly()) return writeStateOnly(options, log);
        return renderFile(options, log);
    } catch (const UsageError& e) {
        reportError(e.what());
        return 2;
    } catch (const std::exception& e) {
        reportError(e.what());
        return 1;
    }
}

} // namespace
} // namespace sr::cli

int main(int argc, char** argv) {
    return sr::cli::run(argc, argv);
}
