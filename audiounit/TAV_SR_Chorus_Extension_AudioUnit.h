// The object a host talks to: answers the capability queries, exposes the busses and the
// parameter tree, allocates render resources, and builds the render block that runs the kernel,
// the optional output limiter, MIDI pass-through and the hand-over of incoming MIDI to the
// controller mapping on the main queue.
// Threading: the render block runs on the host's render thread; it only queues work and logs
// through the print queue. Every other member runs on the host's or the editor's thread (the
// "main queue"), which is also where the host's executor runs the queued MIDI tasks.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audiounit/AUMIDIMonitor.h"
#include "audiounit/AUPeakLimiter.h"
#include "audiounit/TAVPreset.h"
#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"
#include "platform/AUAudioUnit.h"
#include "platform/AUAudioUnitPreset.h"
#include "platform/MainQueue.h"
#include "platform/PeakMeter.h"
#include "platform/PropertyList.h"

// How hosts find the plug-in: an effect ('aufx'), subtype 'srCh' (selective-range chorus),
// manufacturer 'TAVs'. Presets and saved state carry these codes and are checked against them.
inline constexpr AudioComponentDescription kTAVSRChorusComponentDescription{
    kAudioUnitType_Effect, fourCharCode("srCh"), fourCharCode("TAVs"), 0, 0};

// MIDI status nibbles the controller mapping looks at.
enum : std::uint8_t {
    STATUS_CONTROLLER = 0xB0,
    STATUS_PROGRAM = 0xC0,
    STATUS_PITCHBEND = 0xE0,
};

// A size at which a host offers to show the editor.
struct AUAudioUnitViewConfiguration {
    double width = 0;
    double height = 0;
    bool hostHasController = false;
};

class TAV_SR_Chorus_Extension_AudioUnit : public AUAudioUnit, private TAVPresetDelegate {
public:
    static constexpr const char* kMIDIOutputName = "TAV SR Chorus MIDI Out";
    // The name and version written into every saved state.
    static constexpr const char* kStateName = "TAV SR Chorus Preset";
    static constexpr NSInteger kStateVersion = 1;
    // The application folder under the user's data folder, and the file extension of presets.
    static constexpr const char* kDocumentsFolderName = "tav-sr-chorus";
    static constexpr const char* kPresetExtension = ".aupreset";

    // The executor runs the MIDI tasks the render block hands over; it must outlive this object,
    // and its owner drains or discards it before destroying this object. The unit, its kernel,
    // parameter tree and presets log on the channel, which must outlive them all.
    TAV_SR_Chorus_Extension_AudioUnit(const AudioComponentDescription& description,
                                      sr::MainQueueExecutor& mainQueue,
                                      sr::LogChannel& log = sr::standardLog(),
                                      AudioComponentInstantiationOptions options = 0);
    ~TAV_SR_Chorus_Extension_AudioUnit() override;

    // Capability answers.
    double latency() const;
    double tailTime() const;
    bool canPerformInput() const;
    bool canPerformOutput() const;
    bool canProcessInPlace() const;
    bool isMusicDeviceOrEffect() const;
    std::vector<NSInteger> channelCapabilities() const;
    NSInteger virtualMIDICableCount() const;
    std::vector<std::string> MIDIOutputNames() const;
    bool supportsUserPresets() const;

    // The busses are the wrapped limiter's: a host's formats reach it directly.
    AUAudioUnitBusArray& inputBusses() override;
    AUAudioUnitBusArray& outputBusses() override;
    AUParameterTree* parameterTree() override;
    // The tree is built by the plug-in; a host cannot replace it.
    void setParameterTree(AUParameterTree* tree);
    std::vector<AUParameterAddress> parametersForOverview(NSInteger count) const;
    std::vector<std::size_t>
    supportedViewConfigurations(const std::vector<AUAudioUnitViewConfiguration>& offered) const;

    void setMaximumFramesToRender(AUAudioFrameCount frames) override;
    void setShouldBypassEffect(bool bypass) override;
    AUMIDIOutputEventBlock MIDIOutputEventBlock() const override;
    void setMIDIOutputEventBlock(AUMIDIOutputEventBlock block) override;
    void reset() override;

    double getSamplerate();
    // Highest magnitude seen since the last call (input before, output after the limiter).
    float getPeakInput();
    float getPeakOutput();
    // The oldest MIDI event the editor has not seen yet.
    std::optional<AUMIDIEventEx> getMonitorEvents();

    // Throws AUAudioUnitError when the limiter cannot render in the busses' format.
    void allocateRenderResources() override;
    void deallocateRenderResources() override;
    AURenderBlock internalRenderBlock() override;

    // Incoming MIDI and the controller mapping.
    void processIncomingEvents(const AURenderEvent* event);
    void _processIncomingEvents(std::uint8_t status, std::uint8_t channel, std::uint8_t data1,
                                std::uint8_t data2);
    void setController(std::uint8_t controller, std::uint8_t value);
    void setParameter(std::int32_t address, AUValue value);
    AUValue getParameter(std::int32_t address);
    void traceEvent(const AURenderEvent* event, NSInteger outputBusNumber, NSInteger instance);

    // Pushes every parameter of the tree to the kernel.
    void updateParameters();

    // State and presets (main thread only). A refused state or preset file is logged and
    // leaves every parameter as it was.
    std::optional<sr::PropertyList> fullState();
    // False when the state was refused (malformed, or of another component).
    bool setFullState(const std::optional<sr::PropertyList>& state);
    // The ".aupreset" files of "Presets/", numbered by their place in the folder's listing.
    std::vector<AUAudioUnitPreset> factoryPresets();
    std::optional<AUAudioUnitPreset> currentPreset() const { return _currentPreset; }
    void setCurrentPreset(const std::optional<AUAudioUnitPreset>& preset);
    // The state stored for a preset; throws AUAudioUnitError when its file is missing.
    sr::PropertyList presetState(const AUAudioUnitPreset& preset);
    // User presets by name, in "Presets/User/".
    bool savePreset(const std::string& filename);
    bool loadPreset(const std::string& filename);
    bool loadPresetFile(const std::string& path);
    // The current state as a preset file at any path.
    bool savePresetFile(const std::string& path);

    // The documents folder ($XDG_DATA_HOME/tav-sr-chorus/ unless set), ending with '/'.
    const std::string& documentsDirectory() const { return documents; }
    void setDocumentsDirectory(std::string path);
    // A folder of shipped ".aupreset" files, copied into the documents folder where missing.
    void setFactoryPresetSource(std::string path) { factorySource = std::move(path); }

    TAV_SR_Chorus_ExtensionDSPKernelAdapter& kernelAdapter() { return *kernelAdapter_; }
    AUPeakLimiter& effect() { return *effect_; }
    PeakLimiterUnit& wrapped() { return effect_->audioUnit(); }
    AUMIDIMonitor& monitor() { return monitor_; }
    // This object's number among the audio units created in the process, from 1.
    NSInteger instanceNumber() const { return instance; }

    sr::LogChannel& logChannel() const { return log_; }
    // The lines that say which host context blocks (musical context, transport state, MIDI
    // scheduling and output) were supplied, as trace lines: for hosts whose API has no such
    // blocks, where a missing one is no warning. Before allocateRenderResources().
    void setHostBlocksReportedAsTrace(bool trace) { hostBlocksAsTrace = trace; }

private:
    // A member operation's trace line, and any other line (its level from its text).
    void trace(const std::string& member) const;
    void log(const std::string& text) const;

    void onFoundParameter(NSInteger group, const std::string& identifier, std::uint64_t address,
                          float value) override;
    // "Presets/" with its sub-folders, and the shipped presets where missing.
    bool ensurePresetFolders();
    // The path of a preset by name in a sub-folder of the documents folder; empty for a name
    // that is not a plain file name.
    std::string presetPath(const std::string& folder, const std::string& name) const;
    // Same in "Presets/User/", which is created when missing; empty when it cannot be.
    std::string userPresetPath(const std::string& filename) const;

    void setSamplerate();
    void propagateFormats();
    // The output limiter on the kernel's output, in place.
    AUAudioUnitStatus renderWithLimiter(AUAudioFrameCount frameCount, AudioBufferList* outputData);
    // A call's events: traced, recorded for the monitor, MIDI sent on, controllers mapped.
    [[gnu::noinline]] void forwardEvents(const AURenderEvent* head, const AudioTimeStamp* timestamp,
                                         const AUMIDIOutputEventBlock& midiOut);
    // A render block's log line: the text, then the number.
    [[gnu::noinline, gnu::cold]] void logRenderProblem(const char* what, NSInteger code) const;

    const NSInteger instance;
    sr::MainQueueExecutor& mainQueue;
    sr::LogChannel& log_;
    bool hostBlocksAsTrace = false;
    std::unique_ptr<TAV_SR_Chorus_ExtensionDSPKernelAdapter> kernelAdapter_;
    std::unique_ptr<TAV_SR_Chorus_Extension_Parameters> parameters;
    std::unique_ptr<AUPeakLimiter> effect_;
    AUMIDIMonitor monitor_;
    sr::PeakMeter outputPeak;

    std::optional<sr::PropertyList> _fullState;
    std::vector<AUAudioUnitPreset> presets;
    std::optional<AUAudioUnitPreset> _currentPreset;
    std::string documents;
    std::string factorySource;
};
