#include "lv2/Plugin.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <lv2/atom/util.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/log/log.h>
#include <lv2/midi/midi.h>
#include <lv2/options/options.h>
#include <lv2/patch/patch.h>

#include "lv2/Features.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"
#include "util/Simd.h"

namespace sr::lv2 {

namespace {

constexpr const char* kLogPrefix = "TAV SR Chorus (LV2): ";

bool sameBits(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

std::uint32_t bitsOf(float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

// The host's largest block, when it says; 0 when it does not.
std::uint32_t maxBlockLength(const LV2_Options_Option* options, LV2_URID_Map* map) {
    if (!options || !map) return 0;
    const LV2_URID key = map->map(map->handle, LV2_BUF_SIZE__maxBlockLength);
    const LV2_URID atomInt = map->map(map->handle, LV2_ATOM__Int);
    for (const LV2_Options_Option* o = options; o->key; ++o)
        if (o->key == key && o->type == atomInt && o->size == sizeof(std::int32_t) && o->value) {
            const std::int32_t frames = *static_cast<const std::int32_t*>(o->value);
            return frames > 0 ? std::uint32_t(frames) : 0;
        }
    return 0;
}

// A notify event: the event header, an object body and two properties of 32-bit scalars (the
// patch:Set's property URID and its value).
constexpr std::uint32_t kNotifyEventBytes = sizeof(LV2_Atom_Event) + sizeof(LV2_Atom_Object_Body) +
                                            2 * (sizeof(LV2_Atom_Property_Body) + 8);

} // namespace

// ---- atom output ---------------------------------------------------------------------------

void Plugin::SequenceWriter::begin(LV2_Atom_Sequence* to) {
    open = forging = false;
    // The host sets the size to the room it offers; too little for an empty sequence is left
    // alone rather than overrun.
    if (!to || to->atom.size < sizeof(LV2_Atom_Sequence)) return;
    // Most calls write nothing: the empty sequence directly, the forge only for an event.
    port = to;
    capacity = to->atom.size;
    to->atom.type = forge.Sequence;
    to->atom.size = sizeof(LV2_Atom_Sequence_Body);
    to->body.unit = 0;
    to->body.pad = 0;
    open = true;
}

bool Plugin::SequenceWriter::fits(std::uint32_t eventBytes) const {
    return open && (forging ? forge.offset : sizeof(LV2_Atom_Sequence)) + eventBytes <= capacity;
}

std::uint32_t Plugin::SequenceWriter::room() const {
    if (!open) return 0;
    const std::uint32_t used = forging ? forge.offset : std::uint32_t(sizeof(LV2_Atom_Sequence));
    return capacity > used ? capacity - used : 0;
}

LV2_Atom_Forge& Plugin::SequenceWriter::events() {
    if (!forging) {
        lv2_atom_forge_set_buffer(&forge, reinterpret_cast<std::uint8_t*>(port), capacity);
        lv2_atom_forge_sequence_head(&forge, &frame, 0);
        forging = true;
    }
    return forge;
}

void Plugin::SequenceWriter::end() {
    if (open && forging) lv2_atom_forge_pop(&forge, &frame);
    open = forging = false;
}

// ---- life cycle ----------------------------------------------------------------------------

Plugin* Plugin::create(double sampleRate, const char* bundlePath,
                       const LV2_Feature* const* features) {
    auto* map = static_cast<LV2_URID_Map*>(const_cast<void*>(findFeature(features, LV2_URID__map)));
    // The atom types of every atom port buffer, mapped before anything else: a host that keeps
    // its URIs in a list searched in order finds them first. lilv's lv2bench looks both up on
    // every run() call, and each URI mapped ahead of them cost it one more string comparison
    // (about 90 ns per call for the 50 this plug-in maps).
    if (map) {
        map->map(map->handle, LV2_ATOM__Sequence);
        map->map(map->handle, LV2_ATOM__Chunk);
    }
    const auto* options =
        static_cast<const LV2_Options_Option*>(findFeature(features, LV2_OPTIONS__options));
    const LogChannel::Sink sink =
        hostLog(static_cast<const LV2_Log_Log*>(findFeature(features, LV2_LOG__log)), map);
    // Refusals before there is an instance go to the host's log all the same.
    const auto refuse = [&sink](std::string_view text) {
        LogChannel channel(sink);
        channel.debugprint(text);
    };
    if (!(sampleRate >= kMinSampleRate && sampleRate <= kMaxSampleRate)) {
        LineBuilder<> line;
        line << kLogPrefix << "ERROR: a sample rate of ";
        line.fixed(sampleRate) << " Hz is outside 8000 to 384000 Hz; not instantiated\n";
        refuse(line.view());
        return nullptr;
    }
    try {
        auto* plugin = new Plugin(sampleRate, map, maxBlockLength(options, map), sink);
        if (bundlePath) {
            std::string folder = bundlePath;
            if (!folder.empty() && folder.back() != '/') folder += '/';
            plugin->unit->setFactoryPresetSource(folder + "factory/");
        }
        return plugin;
    } catch (const AUAudioUnitError& error) {
        LineBuilder<> line;
        line << kLogPrefix << "ERROR: the audio unit cannot render (" << std::int32_t(error.code)
             << "); not instantiated\n";
        refuse(line.view());
    } catch (const std::exception& error) {
        refuse(std::string(kLogPrefix) + "ERROR: not instantiated: " + error.what() + "\n");
    }
    return nullptr;
}

Plugin::Plugin(double rate, const LV2_URID_Map* urids, std::uint32_t maxBlock,
               LogChannel::Sink logSink)
    : map(urids), sampleRate(rate), logChannel(std::move(logSink)), mainQueue(logChannel) {
    controls.fill(&kUnconnectedPort);
    portBits.fill(bitsOf(kUnconnectedPort));
    if (map) {
        auto id = [this](const char* uri) { return map->map(map->handle, uri); };
        uris.atomSequence = id(LV2_ATOM__Sequence);
        uris.atomObject = id(LV2_ATOM__Object);
        uris.atomString = id(LV2_ATOM__String);
        uris.midiEvent = id(LV2_MIDI__MidiEvent);
        uris.atomURID = id(LV2_ATOM__URID);
        uris.patchSet = id(LV2_PATCH__Set);
        uris.patchGet = id(LV2_PATCH__Get);
        uris.patchProperty = id(LV2_PATCH__property);
        uris.patchValue = id(LV2_PATCH__value);
        for (const ParameterInfo& p : kParameterTable)
            uris.parameters[p.address] = id(parameterPropertyURI(p.identifier).c_str());
        uris.fullState = id(kFullStateURI);
        uris.atomFloat = id(LV2_ATOM__Float);
        uris.uiOn = id(kUiOnURI);
        uris.uiOff = id(kUiOffURI);
        uris.inputSamples = id(kInputSamplesURI);
        uris.sampleRate = id(kSampleRateURI);
        uris.samples = id(kSamplesURI);
        auto* mutableMap = const_cast<LV2_URID_Map*>(map);
        lv2_atom_forge_init(&midiWriter.forge, mutableMap);
        lv2_atom_forge_init(&notifyWriter.forge, mutableMap);
    }

    unit = std::make_unique<TAV_SR_Chorus_Extension_AudioUnit>(kTAVSRChorusComponentDescription,
                                                               mainQueue, logChannel);
    // LV2 hosts have no such blocks: that they are missing is no news to anyone.
    unit->setHostBlocksReportedAsTrace(true);
    const AVAudioFormat format = AVAudioFormat::standardFormatWithSampleRate(sampleRate, 2);
    if (unit->outputBusses()[0].setFormat(format) != noErr ||
        unit->inputBusses()[0].setFormat(format) != noErr)
        throw AUAudioUnitError(kAudioUnitErr_FormatNotSupported, "the busses refuse the format");
    // Longer host blocks are cut into calls of this size; a host that promises smaller blocks
    // saves the memory.
    if (maxBlock > 0 && maxBlock < unit->maximumFramesToRender())
        unit->setMaximumFramesToRender(maxBlock);
    unit->setMIDIOutputEventBlock(
        [this](AUEventSampleTime time, std::uint8_t, NSInteger length, const std::uint8_t* bytes) {
            return sendMIDI(time, length, bytes);
        });
    unit->allocateRenderResources();
    cycle.prepare(unit->renderBlock(), unit->maximumFramesToRender());
    cycle.setInputTap(&inputTap);

    tree = unit->parameterTree();
    for (std::size_t i = 0; i < kParameterCount; ++i) {
        parameters[i] = tree->parameterWithAddress(i);
        reported[i] = parameters[i]->value();
    }
}

Plugin::~Plugin() {
    // Queued tasks point at the unit: drop them before it goes.
    mainQueue.discard();
    unit.reset();
}

void Plugin::connectPort(std::uint32_t port, void* data) {
    if (port < kParameterCount) {
        controls[port] = data ? static_cast<const float*>(data) : &kUnconnectedPort;
        const auto first = reinterpret_cast<std::uintptr_t>(controls[0]);
        controlArray = controls[0];
        for (std::size_t i = 0; i < kParameterCount && controlArray; ++i)
            if (controls[i] == &kUnconnectedPort ||
                reinterpret_cast<std::uintptr_t>(controls[i]) != first + i * sizeof(float))
                controlArray = nullptr;
        return;
    }
    switch (port) {
    case kAudioInLeft:
    case kAudioInRight:
        audioIn[port - kAudioInLeft] = static_cast<const float*>(data);
        break;
    case kAudioOutLeft:
    case kAudioOutRight:
        audioOut[port - kAudioOutLeft] = static_cast<float*>(data);
        break;
    case kMIDIIn:
        midiIn = static_cast<const LV2_Atom_Sequence*>(data);
        break;
    case kMIDIOut:
        midiOut = static_cast<LV2_Atom_Sequence*>(data);
        break;
    case kNotify:
        notify = static_cast<LV2_Atom_Sequence*>(data);
        break;
    default:
        break;
    }
}

void Plugin::activate() {
    // A fresh start: silence in the delay lines, and every parameter pushed again so the band
    // split follows the tree rather than the reset's cutoffs.
    unit->reset();
    unit->updateParameters();
}

// ---- run -----------------------------------------------------------------------------------

bool Plugin::portsUnchanged() const {
    simd::i32x4 differs{};
    simd::i32x4 nowBits, before;
    if (controlArray) {
        std::size_t i = 0;
#pragma GCC unroll 8
        for (; i + 4 <= kParameterCount; i += 4) {
            std::memcpy(&nowBits, controlArray + i, sizeof nowBits);
            std::memcpy(&before, &portBits[i], sizeof before);
            differs |= nowBits ^ before;
        }
        for (; i < kParameterCount; ++i) differs[0] |= bitsOf(controlArray[i]) ^ portBits[i];
    } else {
        for (std::size_t i = 0; i < kControlSlots; i += 4) {
            const simd::f32x4 now{*controls[i], *controls[i + 1], *controls[i + 2],
                                  *controls[i + 3]};
            std::memcpy(&nowBits, &now, sizeof now);
            std::memcpy(&before, &portBits[i], sizeof before);
            differs |= nowBits ^ before;
        }
    }
    // Every lane zero, told by one comparison and one mask.
    return simd::all(differs == 0);
}

void Plugin::readPorts() {
    // The usual case, told cheaply: every port holds what it held at the last call.
    if (portsUnchanged()) {
        adoptPorts = false;
        return;
    }
    for (std::size_t i = 0; i < kParameterCount; ++i) {
        const float v = *controls[i];
        if (bitsOf(v) == portBits[i]) continue;
        portBits[i] = bitsOf(v);
        if (adoptPorts || controls[i] == &kUnconnectedPort) continue;
        if (!std::isfinite(v)) {
            LineBuilder<> line;
            line << kLogPrefix << "WARNING: a non-finite value on port '"
                 << kParameterTable[i].identifier << "' is ignored\n";
            logChannel.safeprint(line.view());
            continue;
        }
        const float value = clampToRange(kParameterTable[i], v);
        // The tree follows the host; the kernel takes the change at the call's first frame.
        parameters[i]->setValueFromImplementor(value);
        portChanges[portChangeCount++] = {i, value};
        reported[i] = value;
    }
    adoptPorts = false;
}

const LV2_Atom_Sequence* Plugin::inputEvents() const {
    return midiIn && map && midiIn->atom.type == uris.atomSequence &&
                   midiIn->atom.size > sizeof(LV2_Atom_Sequence_Body)
               ? midiIn
               : nullptr;
}

void Plugin::readRequests(const LV2_Atom_Sequence* input) {
    LV2_ATOM_SEQUENCE_FOREACH(input, ev) {
        if (ev->body.type != uris.atomObject || ev->body.size < sizeof(LV2_Atom_Object_Body))
            continue;
        const auto* object = reinterpret_cast<const LV2_Atom_Object*>(&ev->body);
        if (object->body.otype == uris.uiOn) openInputTap();
        if (object->body.otype == uris.uiOff) inputTap.close();
        if (object->body.otype != uris.patchGet) continue;
        const LV2_Atom* property = nullptr;
        lv2_atom_object_get(object, uris.patchProperty, &property, 0);
        if (!property) {
            reportRequested.fill(true);
            reportOwed = true;
            continue;
        }
        // One value, when the property is one of ours; anything else is not ours to answer.
        if (property->type != uris.atomURID || property->size < sizeof(LV2_URID)) continue;
        const LV2_URID key = reinterpret_cast<const LV2_Atom_URID*>(property)->body;
        const auto found = std::find(uris.parameters.begin(), uris.parameters.end(), key);
        if (found != uris.parameters.end()) {
            reportRequested[std::size_t(found - uris.parameters.begin())] = true;
            reportOwed = true;
        }
    }
}

void Plugin::reportEffectiveValues() {
    const std::uint64_t changes = tree->valueChangeCount();
    if (changes == reportedChanges && !reportOwed) return;
    reportOwed = true; // until every value found room
    for (std::size_t i = 0; i < kParameterCount; ++i) {
        const float value = parameters[i]->value();
        if (!reportRequested[i] && sameBits(value, reported[i])) continue;
        if (notifyWriter.open) {
            // What finds no room is reported next call.
            if (!notifyWriter.fits(kNotifyEventBytes)) return;
            LV2_Atom_Forge& forge = notifyWriter.events();
            LV2_Atom_Forge_Frame object;
            lv2_atom_forge_frame_time(&forge, 0);
            lv2_atom_forge_object(&forge, &object, 0, uris.patchSet);
            lv2_atom_forge_key(&forge, uris.patchProperty);
            lv2_atom_forge_urid(&forge, uris.parameters[i]);
            lv2_atom_forge_key(&forge, uris.patchValue);
            lv2_atom_forge_float(&forge, value);
            lv2_atom_forge_pop(&forge, &object);
        }
        reported[i] = value;
        reportRequested[i] = false;
    }
    reportedChanges = changes;
    reportOwed = false;
}

OSStatus Plugin::sendMIDI(AUEventSampleTime time, NSInteger length, const std::uint8_t* bytes) {
    if (!midiWriter.open) return noErr; // nobody listens: not an error
    const std::uint32_t size = length > 0 ? std::uint32_t(length) : 0;
    if (!bytes || size == 0 ||
        !midiWriter.fits(std::uint32_t(sizeof(LV2_Atom_Event)) + lv2_atom_pad_size(size))) {
        ++midiDropped;
        return noErr;
    }
    LV2_Atom_Forge& forge = midiWriter.events();
    lv2_atom_forge_frame_time(&forge, cycle.outputFrame(time));
    lv2_atom_forge_atom(&forge, size, uris.midiEvent);
    lv2_atom_forge_write(&forge, bytes, size);
    return noErr;
}

void Plugin::openInputTap() {
    if (!inputTap.isOpen()) {
        inputTap.open();
        nextInputSamples = sampleTime + sampleRate / kInputSamplesPerSecond;
    }
    inputTapOpenUntil = sampleTime + kUiOnTimeoutSeconds * sampleRate;
}

void Plugin::sendInputSamples() {
    if (!inputTap.isOpen()) return;
    // No editor said it is still there: it may be gone without a word.
    if (sampleTime > inputTapOpenUntil) {
        inputTap.close();
        return;
    }
    if (sampleTime < nextInputSamples) return;
    // On a fixed schedule, so that no second of audio carries more than its share.
    const double interval = sampleRate / kInputSamplesPerSecond;
    nextInputSamples += interval;
    if (nextInputSamples <= sampleTime) nextInputSamples = sampleTime + interval;

    // The event, the object, the rate (a float, padded) and the vector's headers.
    constexpr std::uint32_t kHeaderBytes =
        sizeof(LV2_Atom_Event) + sizeof(LV2_Atom_Object_Body) + sizeof(LV2_Atom_Property_Body) + 8 +
        sizeof(LV2_Atom_Property_Body) + sizeof(LV2_Atom_Vector_Body);
    const std::uint32_t room = notifyWriter.room();
    if (room < kHeaderBytes + 8 * sizeof(float)) return;
    // Whole pairs of samples, so that the padding never takes room the count did not allow.
    const std::uint32_t fit = (room - kHeaderBytes) / 8 * 2;
    const std::uint32_t count = std::min({inputTap.available(), fit, kInputSamplesPerMessage});
    if (count == 0) return;
    LV2_Atom_Forge& forge = notifyWriter.events();
    LV2_Atom_Forge_Frame object, vector;
    lv2_atom_forge_frame_time(&forge, 0);
    lv2_atom_forge_object(&forge, &object, 0, uris.inputSamples);
    lv2_atom_forge_key(&forge, uris.sampleRate);
    lv2_atom_forge_float(&forge, float(sampleRate));
    lv2_atom_forge_key(&forge, uris.samples);
    lv2_atom_forge_vector_head(&forge, &vector, sizeof(float), uris.atomFloat);
    inputTap.take(count, [&forge](const float* samples, std::uint32_t n) {
        lv2_atom_forge_raw(&forge, samples, n * std::uint32_t(sizeof(float)));
    });
    lv2_atom_forge_pop(&forge, &vector);
    lv2_atom_forge_pad(&forge, count * std::uint32_t(sizeof(float)));
    lv2_atom_forge_pop(&forge, &object);
}

void Plugin::reportDrops() {
    // At most once a second of audio, so a host that starves the output is not flooded.
    const std::uint64_t dropped = midiDropped + cycle.midiDropped();
    if (dropped == midiDroppedReported || sampleTime - lastDropReport < sampleRate) return;
    LineBuilder<> line;
    line << kLogPrefix << "WARNING: " << (dropped - midiDroppedReported)
         << " MIDI events dropped (no room in the call's event list or MIDI output)\n";
    logChannel.safeprint(line.view());
    midiDroppedReported = dropped;
    lastDropReport = sampleTime;
}

void Plugin::run(std::uint32_t frames) {
    // What the last call handed to the main queue (mapped controllers) happens first.
    mainQueue.drain();
    midiWriter.begin(map ? midiOut : nullptr);
    notifyWriter.begin(map ? notify : nullptr);
    // Most calls bring no events: the sequence is then not walked at all.
    const LV2_Atom_Sequence* input = inputEvents();
    if (input) readRequests(input);

    const bool audio = audioIn[0] && audioIn[1] && audioOut[0] && audioOut[1];
    portChangeCount = 0;
    // Without audio there is no call for port changes to ride on: they wait for the next run.
    if (frames > 0 && audio) readPorts();
    // Nothing to tell while no value changed since all was told and nobody asked.
    if (reportOwed || tree->valueChangeCount() != reportedChanges) reportEffectiveValues();

    if (frames > 0 && audio) {
        auto forEachMidi = [this, input](auto&& visit) {
            if (!input) return;
            LV2_ATOM_SEQUENCE_FOREACH(input, ev) {
                if (ev->body.type == uris.midiEvent)
                    visit(ev->time.frames, LV2_ATOM_BODY_CONST(&ev->body), ev->body.size);
            }
        };
        cycle.render(sampleTime, frames, audioIn, audioOut,
                     std::span(portChanges.data(), portChangeCount), forEachMidi);
        sampleTime += frames;
    } else if (frames > 0 && !audioWarned) {
        audioWarned = true;
        log("WARNING: run() without all four audio ports connected renders nothing");
    }
    if (inputTap.isOpen()) sendInputSamples();
    if (midiDropped + cycle.midiDropped() != midiDroppedReported) reportDrops();
    midiWriter.end();
    notifyWriter.end();
}

void Plugin::log(std::string_view text) {
    LineBuilder<> line;
    line << kLogPrefix << text << "\n";
    logChannel.debugprint(line.view());
}

// ---- state ---------------------------------------------------------------------------------

LV2_State_Status Plugin::save(LV2_State_Store_Function store, LV2_State_Handle handle) {
    if (!map) return LV2_STATE_ERR_NO_FEATURE;
    const std::optional<PropertyList> state = unit->fullState();
    const std::optional<std::string> xml = state ? state->toXML() : std::nullopt;
    if (!xml) {
        log("ERROR: the state could not be written");
        return LV2_STATE_ERR_UNKNOWN;
    }
    return store(handle, uris.fullState, xml->c_str(), xml->size() + 1, uris.atomString,
                 LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
}

LV2_State_Status Plugin::restore(LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle) {
    if (!map) return LV2_STATE_ERR_NO_FEATURE;
    std::size_t size = 0;
    std::uint32_t type = 0;
    std::uint32_t flags = 0;
    const void* data = retrieve(handle, uris.fullState, &size, &type, &flags);
    if (!data) {
        log("no saved state to restore; the current settings stay");
        return LV2_STATE_ERR_NO_PROPERTY;
    }
    if (type != uris.atomString) {
        log("ERROR: the saved state is not a string; it is refused");
        return LV2_STATE_ERR_BAD_TYPE;
    }
    const auto* text = static_cast<const char*>(data);
    const PropertyListParse parsed =
        PropertyList::parse(std::string_view(text, strnlen(text, size)));
    if (!parsed.value) {
        log("ERROR: the saved state is refused: " + parsed.error);
        return LV2_STATE_ERR_UNKNOWN;
    }
    if (!unit->setFullState(parsed.value)) return LV2_STATE_ERR_UNKNOWN;
    adoptPorts = true;
    return LV2_STATE_SUCCESS;
}

// ---- C entry points ------------------------------------------------------------------------

namespace {

Plugin* self(LV2_Handle handle) {
    return static_cast<Plugin*>(handle);
}

LV2_Handle instantiate(const LV2_Descriptor*, double rate, const char* bundle,
                       const LV2_Feature* const* features) {
    return Plugin::create(rate, bundle, features);
}

void connectPort(LV2_Handle handle, std::uint32_t port, void* data) {
    self(handle)->connectPort(port, data);
}

void activate(LV2_Handle handle) {
    self(handle)->activate();
}

void run(LV2_Handle handle, std::uint32_t frames) {
    self(handle)->run(frames);
}

void deactivate(LV2_Handle) {}

void cleanup(LV2_Handle handle) {
    delete self(handle);
}

// No exception leaves the plug-in: a state call that fails says so and reports an error.
template <typename Call>
LV2_State_Status guarded(LV2_Handle handle, const char* failure, Call call) {
    try {
        return call();
    } catch (...) {
        self(handle)->log(failure);
        return LV2_STATE_ERR_UNKNOWN;
    }
}

LV2_State_Status saveState(LV2_Handle handle, LV2_State_Store_Function store,
                           LV2_State_Handle state, std::uint32_t, const LV2_Feature* const*) {
    return guarded(handle, "ERROR: the state could not be saved",
                   [&] { return self(handle)->save(store, state); });
}

LV2_State_Status restoreState(LV2_Handle handle, LV2_State_Retrieve_Function retrieve,
                              LV2_State_Handle state, std::uint32_t, const LV2_Feature* const*) {
    return guarded(handle, "ERROR: the state could not be restored",
                   [&] { return self(handle)->restore(retrieve, state); });
}

const LV2_State_Interface stateInterface{saveState, restoreState};

const void* extensionData(const char* uri) {
    if (uri && std::strcmp(uri, LV2_STATE__interface) == 0) return &stateInterface;
    return nullptr;
}

const LV2_Descriptor descriptor{kPluginURI, instantiate, connectPort, activate,
                                run,        deactivate,  cleanup,     extensionData};

} // namespace

} // namespace sr::lv2

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(std::uint32_t index) {
    return index == 0 ? &sr::lv2::descriptor : nullptr;
}
