#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "kernel/ParameterTable.h"
#include "platform/DocumentsDirectory.h"
#include "platform/PrintQueue.h"
#include "util/FlushDenormals.h"
#include "util/SafeConvert.h"

namespace {

constexpr const char* kPrefix = "TAV_SR_Chorus_Extension_AudioUnit";

std::atomic<NSInteger> instancesCreated{0};

std::string boolText(bool value) {
    return value ? "true" : "false";
}

// Doubles the way the log has always shown them: shortest form, integral values with ".0".
std::string doubleText(double value) {
    char text[64];
    const auto r = std::to_chars(text, text + sizeof text, value);
    std::string s(text, r.ptr);
    if (std::isfinite(value) && s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

} // namespace

TAV_SR_Chorus_Extension_AudioUnit::TAV_SR_Chorus_Extension_AudioUnit(
    const AudioComponentDescription& description, sr::MainQueueExecutor& queue, sr::LogChannel& log,
    AudioComponentInstantiationOptions options)
    : AUAudioUnit(description, options), instance(++instancesCreated), mainQueue(queue), log_(log),
      documents(sr::userDataDirectory(kDocumentsFolderName)) {
    trace("init() " + fourCharString(description.componentType) + " " +
          fourCharString(description.componentSubType) + " " +
          fourCharString(description.componentManufacturer));
    kernelAdapter_ = std::make_unique<TAV_SR_Chorus_ExtensionDSPKernelAdapter>(log_);
    parameters = std::make_unique<TAV_SR_Chorus_Extension_Parameters>(*kernelAdapter_);
    effect_ = std::make_unique<AUPeakLimiter>();
    effect_->run(kernelAdapter_->outputBus());
}

TAV_SR_Chorus_Extension_AudioUnit::~TAV_SR_Chorus_Extension_AudioUnit() {
    if (renderResourcesAllocated()) deallocateRenderResources();
}

void TAV_SR_Chorus_Extension_AudioUnit::trace(const std::string& member) const {
    log_.trace(std::string(kPrefix) + "::" + member + "\n");
}

void TAV_SR_Chorus_Extension_AudioUnit::log(const std::string& text) const {
    log_.debugprint(text + "\n");
}

// ---- capability answers ------------------------------------------------------------------------

double TAV_SR_Chorus_Extension_AudioUnit::latency() const {
    trace("latency: 0.0");
    return 0.0;
}

double TAV_SR_Chorus_Extension_AudioUnit::tailTime() const {
    trace("tailTime: 4.0");
    return 4.0;
}

bool TAV_SR_Chorus_Extension_AudioUnit::canPerformInput() const {
    trace("canPerformInput: " + boolText(true));
    return true;
}

bool TAV_SR_Chorus_Extension_AudioUnit::canPerformOutput() const {
    trace("canPerformOutput: " + boolText(true));
    return true;
}

bool TAV_SR_Chorus_Extension_AudioUnit::canProcessInPlace() const {
    trace("canProcessInPlace() " + boolText(true));
    return true;
}

bool TAV_SR_Chorus_Extension_AudioUnit::isMusicDeviceOrEffect() const {
    trace("isMusicDeviceOrEffect: " + boolText(true));
    return true;
}

std::vector<NSInteger> TAV_SR_Chorus_Extension_AudioUnit::channelCapabilities() const {
    trace("channelCapabilities() [2, 2]");
    return {2, 2};
}

NSInteger TAV_SR_Chorus_Extension_AudioUnit::virtualMIDICableCount() const {
    trace("virtualMIDICableCount: 1");
    return 1;
}

std::vector<std::string> TAV_SR_Chorus_Extension_AudioUnit::MIDIOutputNames() const {
    const std::vector<std::string> names{kMIDIOutputName};
    std::string shown = "[";
    for (std::size_t i = 0; i < names.size(); ++i) shown += (i ? ", \"" : "\"") + names[i] + "\"";
    trace("midiOutputNames: " + shown + "]");
    return names;
}

bool TAV_SR_Chorus_Extension_AudioUnit::supportsUserPresets() const {
    trace("supportsUserPresets: true");
    return true;
}

// ---- busses, tree, properties ------------------------------------------------------------------

AUAudioUnitBusArray& TAV_SR_Chorus_Extension_AudioUnit::inputBusses() {
    AUAudioUnitBusArray& busses = wrapped().inputBusses();
    trace("inputBusses: " + std::to_string(busses.count()));
    return busses;
}

AUAudioUnitBusArray& TAV_SR_Chorus_Extension_AudioUnit::outputBusses() {
    AUAudioUnitBusArray& busses = wrapped().outputBusses();
    trace("outputBusses: " + std::to_string(busses.count()));
    return busses;
}

AUParameterTree* TAV_SR_Chorus_Extension_AudioUnit::parameterTree() {
    return parameters ? &parameters->parameterTree() : nullptr;
}

void TAV_SR_Chorus_Extension_AudioUnit::setParameterTree(AUParameterTree*) {
    trace("parameterTree (set) !!!");
}

std::vector<AUParameterAddress>
TAV_SR_Chorus_Extension_AudioUnit::parametersForOverview(NSInteger count) const {
    trace("parametersForOverview()");
    // What a host's compact view should offer first: the mix, then the sound, then the band.
    static constexpr AUParameterAddress kOverview[] = {
        sr::kChorusDryWet,   sr::kChorusDepth,      sr::kChorusLFOFrequency, sr::kChorusDelay,
        sr::kChorusFeedback, sr::kFrequencySplitLP, sr::kFrequencySplitHP,   sr::kChorusLFOStereo,
    };
    const auto n = std::size_t(std::clamp<NSInteger>(count, 0, NSInteger(std::size(kOverview))));
    return {std::begin(kOverview), std::begin(kOverview) + n};
}

std::vector<std::size_t> TAV_SR_Chorus_Extension_AudioUnit::supportedViewConfigurations(
    const std::vector<AUAudioUnitViewConfiguration>& offered) const {
    trace("supportedViewConfigurations()");
    // The panel scales to any size, so every offered configuration is accepted.
    std::vector<std::size_t> indices;
    for (std::size_t i = 0; i < offered.size(); ++i) indices.push_back(i);
    return indices;
}

void TAV_SR_Chorus_Extension_AudioUnit::setMaximumFramesToRender(AUAudioFrameCount frames) {
    AUAudioUnit::setMaximumFramesToRender(frames);
    const AUAudioFrameCount value = maximumFramesToRender();
    trace("maximumFramesToRender (did set): " + std::to_string(value));
    kernelAdapter_->setMaximumFramesToRender(value);
    wrapped().setMaximumFramesToRender(value);
}

void TAV_SR_Chorus_Extension_AudioUnit::setShouldBypassEffect(bool bypass) {
    AUAudioUnit::setShouldBypassEffect(bypass);
    trace("shouldBypassEffect (did set)");
    kernelAdapter_->setBypass(shouldBypassEffect());
}

AUMIDIOutputEventBlock TAV_SR_Chorus_Extension_AudioUnit::MIDIOutputEventBlock() const {
    trace("midiOutputEventBlock (get) ");
    return AUAudioUnit::MIDIOutputEventBlock();
}

void TAV_SR_Chorus_Extension_AudioUnit::setMIDIOutputEventBlock(AUMIDIOutputEventBlock block) {
    trace("midiOutputEventBlock (set) ");
    AUAudioUnit::setMIDIOutputEventBlock(block);
    kernelAdapter_->setAUMIDIOutputEventBlock(std::move(block));
}

void TAV_SR_Chorus_Extension_AudioUnit::reset() {
    trace("reset()");
    kernelAdapter_->reset();
    monitor_.clearMonitoring();
}

double TAV_SR_Chorus_Extension_AudioUnit::getSamplerate() {
    return wrapped().outputBusses()[0].format().sampleRate();
}

float TAV_SR_Chorus_Extension_AudioUnit::getPeakInput() {
    return kernelAdapter_->getPeakInput();
}

float TAV_SR_Chorus_Extension_AudioUnit::getPeakOutput() {
    return outputPeak.take();
}

std::optional<AUMIDIEventEx> TAV_SR_Chorus_Extension_AudioUnit::getMonitorEvents() {
    return monitor_.next();
}

// ---- render resources --------------------------------------------------------------------------

void TAV_SR_Chorus_Extension_AudioUnit::propagateFormats() {
    // The kernel renders in the host's format, which the host set on the busses it sees.
    const AVAudioFormat& format = wrapped().outputBusses()[0].format();
    for (AUAudioUnitBus* bus : {&kernelAdapter_->outputBus(), &kernelAdapter_->inputBus()}) {
        if (bus->maximumChannelCount() < format.channelCount())
            bus->setMaximumChannelCount(format.channelCount());
        bus->setFormat(format);
    }
}

void TAV_SR_Chorus_Extension_AudioUnit::setSamplerate() {
    propagateFormats();
    kernelAdapter_->setSamplerate(float(wrapped().outputBusses()[0].format().sampleRate()));
}

void TAV_SR_Chorus_Extension_AudioUnit::allocateRenderResources() {
    trace("allocateRenderResources()");
    PeakLimiterUnit& unit = wrapped();
    setSamplerate();
    AUAudioUnitBusArray& outputs = unit.outputBusses();
    for (std::size_t i = 0; i < outputs.count(); ++i) outputs[i].setShouldAllocateBuffer(true);
    kernelAdapter_->allocateRenderResources();

    auto report = [this](const char* property, bool defined) {
        const std::string line = std::string(kPrefix) +
                                 (defined ? ": The property '" : ": WARNING: The property '") +
                                 property + (defined ? "' is defined.\n" : "' is NOT defined.\n");
        log_.print(hostBlocksAsTrace ? sr::LogLevel::Trace : sr::levelOfLine(line), line);
    };
    kernelAdapter_->setAUHostMusicalContextBlock(musicalContextBlock);
    report("musicalContextBlock", bool(musicalContextBlock));
    kernelAdapter_->setAUHostTransportStateBlock(transportStateBlock);
    report("transportStateBlock", bool(transportStateBlock));
    kernelAdapter_->setAUScheduleMIDIEventBlock(scheduleMIDIEventBlock);
    report("scheduleMIDIEventBlock", bool(scheduleMIDIEventBlock));
    const AUMIDIOutputEventBlock midiOut = AUAudioUnit::MIDIOutputEventBlock();
    kernelAdapter_->setAUMIDIOutputEventBlock(midiOut);
    report("midiOutputEventBlock", bool(midiOut));

    unit.inputBusses()[0].setEnabled(true);
    unit.outputBusses()[0].setEnabled(true);
    auto rates = [&, this](const char* inputText, const char* outputText) {
        log(std::string(kPrefix) + inputText +
            doubleText(unit.inputBusses()[0].format().sampleRate()));
        log(std::string(kPrefix) + outputText +
            doubleText(unit.outputBusses()[0].format().sampleRate()));
    };
    rates(": Native wrapped unit input samplerate (prior): ",
          ": Native wrapped unit output samplerate (prior): ");
    // This unit's output bus is the wrapped unit's own, so the limiter's input follows it.
    const AVAudioFormat format = outputs[0].format();
    if (unit.inputBusses()[0].setFormat(format) != noErr &&
        unit.outputBusses()[0].setFormat(format) != noErr)
        log(std::string(kPrefix) +
            ": WARNING: The format could not be set to the wrapped unit: the limiter does not "
            "support " +
            doubleText(format.sampleRate()) + " Hz with " + std::to_string(format.channelCount()) +
            " channels");
    rates(": New wrapped unit input samplerate: ", ": New wrapped unit output samplerate: ");

    try {
        unit.allocateRenderResources();
    } catch (...) {
        // The host sees the error; the kernel is left as unallocated as the limiter.
        kernelAdapter_->deallocateRenderResources();
        throw;
    }
    effect_->setAttackTime(0.1);
    effect_->setDecayTime(0.1);
    effect_->setPreGain(-0.01);
    AUAudioUnit::allocateRenderResources();
    updateParameters();
}

void TAV_SR_Chorus_Extension_AudioUnit::deallocateRenderResources() {
    trace("deallocateRenderResources()");
    kernelAdapter_->deallocateRenderResources();
    wrapped().deallocateRenderResources();
    AUAudioUnit::deallocateRenderResources();
}

// ---- render block ------------------------------------------------------------------------------

AUAudioUnitStatus
TAV_SR_Chorus_Extension_AudioUnit::renderWithLimiter(AUAudioFrameCount frameCount,
                                                     AudioBufferList* outputData) {
    // The kernel's output is the limiter's input: the limiter would pull into the list it
    // renders in, which already holds that output, so it is called past the pull.
    return wrapped().renderInPlace(frameCount, outputData);
}

void TAV_SR_Chorus_Extension_AudioUnit::forwardEvents(const AURenderEvent* head,
                                                      const AudioTimeStamp* timestamp,
                                                      const AUMIDIOutputEventBlock& midiOut) {
    const AUEventSampleTime start =
        timestamp ? sr::truncSaturate<AUEventSampleTime>(timestamp->mSampleTime) : 0;
    for (const AURenderEvent* event = head; event; event = event->head.next) {
        traceEvent(event, 0, instance);
        const AURenderEventType type = event->head.eventType;
        if (type != AURenderEventMIDI && type != AURenderEventMIDISysEx) continue;
        monitor_.record(AUMIDIEventEx::from(event->MIDI));
        // All MIDI leaves on the one output, at its frame within this call.
        if (midiOut && midiOut(AUEventSampleTimeImmediate + (event->head.eventSampleTime - start),
                               event->MIDI.cable, event->MIDI.length, event->MIDI.bytes()) != noErr)
            log_.safeprint("SENDING MIDI OUT failed!\n");
    }
    // The whole list is handed over once, so each event reaches the mapping once and in order
    // (walking the rest of the list again for every event would multiply the tasks).
    processIncomingEvents(head);
}

void TAV_SR_Chorus_Extension_AudioUnit::logRenderProblem(const char* what, NSInteger code) const {
    sr::LineBuilder<> line;
    line << kPrefix << "::internalRenderBlock : " << what << std::int64_t(code) << "\n";
    log_.safeprint(line.view());
}

AURenderBlock TAV_SR_Chorus_Extension_AudioUnit::internalRenderBlock() {
    TAV_SR_Chorus_ExtensionDSPKernelAdapter* adapter = kernelAdapter_.get();
    auto midiOut =
        std::make_shared<const AUMIDIOutputEventBlock>(AUAudioUnit::MIDIOutputEventBlock());

    // The usual call (no events, nothing wrong) runs straight through; events and log lines
    // are handled out of line.
    return [this, adapter, midiOut](AudioUnitRenderActionFlags* actionFlags,
                                    const AudioTimeStamp* timestamp, AUAudioFrameCount frameCount,
                                    NSInteger outputBusNumber, AudioBufferList* outputData,
                                    const AURenderEvent* realtimeEventListHead,
                                    AURenderPullInputBlock pullInputBlock) -> AUAudioUnitStatus {
        const sr::FlushDenormals flush;
        if (outputBusNumber != 0) [[unlikely]] {
            logRenderProblem("WARNING: We have a got a bus number != 0 : ", outputBusNumber);
            return noErr;
        }
        if (realtimeEventListHead) forwardEvents(realtimeEventListHead, timestamp, *midiOut);

        const AUAudioUnitStatus status =
            adapter->render(actionFlags, timestamp, frameCount, 0, outputData,
                            realtimeEventListHead, pullInputBlock);
        if (status != noErr) [[unlikely]]
            logRenderProblem("ERROR: We have a problem with the kernel! ", status);

        // The value the kernel rendered this call with.
        if (adapter->renderingValue(sr::kFinalLimit) == 1.0f) {
            const AUAudioUnitStatus limited = renderWithLimiter(frameCount, outputData);
            if (limited != noErr) [[unlikely]]
                logRenderProblem("ERROR: We have a problem with the wrapped unit! ", limited);
        }
        if (status == noErr) outputPeak.measure(outputData, frameCount);
        return status;
    };
}

// ---- incoming MIDI -----------------------------------------------------------------------------

void TAV_SR_Chorus_Extension_AudioUnit::processIncomingEvents(const AURenderEvent* event) {
    for (; event; event = event->head.next) {
        if (event->head.eventType != AURenderEventMIDI || event->MIDI.length == 0) continue;
        const std::uint8_t* bytes = event->MIDI.bytes();
        const std::uint8_t status = bytes[0];
        const std::uint8_t data1 = event->MIDI.length > 1 ? bytes[1] : 0;
        const std::uint8_t data2 = event->MIDI.length > 2 ? bytes[2] : 0;
        TAV_SR_Chorus_Extension_AudioUnit* unit = this;
        // A full queue refuses the task; the executor counts and reports that itself.
        mainQueue.async([unit, status, data1, data2] {
            unit->_processIncomingEvents(status & 0xF0, status & 0x0F, data1, data2);
        });
    }
}

void TAV_SR_Chorus_Extension_AudioUnit::_processIncomingEvents(std::uint8_t status,
                                                               std::uint8_t /*channel*/,
                                                               std::uint8_t data1,
                                                               std::uint8_t data2) {
    // Controllers act alike on all sixteen channels.
    switch (status) {
    case STATUS_PITCHBEND:
        break;
    case STATUS_CONTROLLER:
        setController(data1, data2);
        break;
    default:
        break;
    }
}

void TAV_SR_Chorus_Extension_AudioUnit::setController(std::uint8_t controller, std::uint8_t value) {
    // Every pair is tested: one controller may drive several controls.
    for (std::uint64_t c = sr::kFirstControllerAddress; c < sr::kParameterCount; ++c) {
        const AUValue bound = getParameter(std::int32_t(c));
        // -1 (none) and anything that is not a controller number binds nothing.
        if (!std::isfinite(bound) || bound < 0.0f || bound >= 256.0f) continue;
        if (std::uint8_t(bound) != controller) continue;
        const std::uint64_t target = c - sr::kControllerOffset;
        const sr::ParameterInfo& info = sr::kParameterTable[target];
        // The controller sweeps the control from end to end of its range.
        const AUValue scaled =
            info.minValue + AUValue(value) / 127.0f * (info.maxValue - info.minValue);
        setParameter(std::int32_t(target), scaled);
    }
}

void TAV_SR_Chorus_Extension_AudioUnit::setParameter(std::int32_t address, AUValue value) {
    AUParameterTree* tree = parameterTree();
    if (!tree) return;
    AUParameter* parameter = tree->parameterWithAddress(AUParameterAddress(std::int64_t(address)));
    if (!parameter) return;
    if (parameter->value() != value) parameter->setValue(value);
    kernelAdapter_->setParameter(parameter, value);
}

AUValue TAV_SR_Chorus_Extension_AudioUnit::getParameter(std::int32_t address) {
    AUParameterTree* tree = parameterTree();
    if (!tree) {
        log_.debugprint("TAV_SR_Chorus_Extension_AudioUnit::getParameter() : ERROR: The parameter "
                        "tree is nil.\n");
        return 0.0f;
    }
    AUParameter* parameter = tree->parameterWithAddress(AUParameterAddress(std::int64_t(address)));
    if (!parameter) {
        log_.debugprint("TAV_SR_Chorus_Extension_AudioUnit::getParameter() : ERROR: The parameter "
                        "could not be found.\n");
        return 0.0f;
    }
    return kernelAdapter_->valueForParameter(parameter);
}

void TAV_SR_Chorus_Extension_AudioUnit::traceEvent(const AURenderEvent* event,
                                                   NSInteger outputBusNumber, NSInteger number) {
    if (!event || event->head.eventType != AURenderEventMIDI) return;
    const AUMIDIEvent& midi = event->MIDI;
    const std::uint8_t* bytes = midi.bytes();
    const std::uint32_t status = midi.length > 0 ? bytes[0] : 0;
    sr::LineBuilder<> line;
    line << "traceEvent() : " << std::int64_t(outputBusNumber) << "? " << std::int64_t(number)
         << " - time:" << std::int64_t(midi.eventSampleTime)
         << " cable:" << std::uint32_t(midi.cable) << " MIDI = s:" << (status & 0xF0)
         << " c:" << (status & 0x0F) << " d1:" << std::uint32_t(midi.length > 1 ? bytes[1] : 0)
         << " d2:" << std::uint32_t(midi.length > 2 ? bytes[2] : 0)
         << " length: " << std::uint32_t(midi.length) << "\n";
    log_.trace(line.view());
}

void TAV_SR_Chorus_Extension_AudioUnit::updateParameters() {
    AUParameterTree* tree = parameterTree();
    if (!tree) {
        log_.debugprint("TAV_SR_Chorus_Extension_AudioUnit::updateParameters() : ERROR: The "
                        "parameter tree is nil.\n");
        return;
    }
    for (AUParameter* parameter : tree->allParameters())
        setParameter(std::int32_t(parameter->address()), parameter->value());
}
