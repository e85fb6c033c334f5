// The LV2 plug-in: translates a host's run() calls, control ports, atom ports and state calls
// into the audio unit's render block, parameter tree and full state. Behaviour lives in the
// audio unit; this class only maps one onto the other.
// Threading: run() is the render thread and also runs the unit's main-queue tasks, drained at
// its start. instantiate, activate, deactivate, restore and cleanup never run concurrently with
// run() (LV2's instantiation class); save may, and only reads atomics and its own copies.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <string>

#include <lv2/atom/atom.h>
#include <lv2/atom/forge.h>
#include <lv2/core/lv2.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "lv2/PluginURIs.h"
#include "platform/HostRenderCycle.h"
#include "platform/InputTap.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"

namespace sr::lv2 {

class Plugin {
public:
    // Null when the sample rate is outside 8000..384000 Hz or the unit cannot render.
    static Plugin* create(double sampleRate, const char* bundlePath,
                          const LV2_Feature* const* features);
    ~Plugin();

    void connectPort(std::uint32_t port, void* data);
    void activate();
    void run(std::uint32_t frames);

    LV2_State_Status save(LV2_State_Store_Function store, LV2_State_Handle handle);
    LV2_State_Status restore(LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle);

    // A line of the wrapper's own (prefixed with its name) on the instance's log.
    void log(std::string_view text);

    static constexpr double kMinSampleRate = 8000.0;
    static constexpr double kMaxSampleRate = 384000.0;

private:
    struct URIDs {
        LV2_URID atomSequence = 0, atomObject = 0, atomString = 0, midiEvent = 0;
        LV2_URID atomURID = 0, patchSet = 0, patchGet = 0, patchProperty = 0, patchValue = 0;
        LV2_URID fullState = 0;
        LV2_URID atomFloat = 0, uiOn = 0, uiOff = 0, inputSamples = 0, sampleRate = 0, samples = 0;
        // Each parameter's patch:property, by address.
        std::array<LV2_URID, kParameterCount> parameters{};
    };
    // A host's atom output for one run(): written as a sequence, never past its capacity.
    struct SequenceWriter {
        LV2_Atom_Forge forge{};
        LV2_Atom_Forge_Frame frame{};
        LV2_Atom_Sequence* port = nullptr;
        std::uint32_t capacity = 0;
        bool open = false;
        bool forging = false;
        void begin(LV2_Atom_Sequence* port);
        bool fits(std::uint32_t bodyBytes) const;
        // The forge, after the sequence's head, for the next event.
        LV2_Atom_Forge& events();
        // Bytes left for events.
        std::uint32_t room() const;
        void end();
    };

    Plugin(double sampleRate, const LV2_URID_Map* map, std::uint32_t maxBlock,
           LogChannel::Sink logSink);

    void readPorts();
    // Whether every port's value as last read is still there (the usual case).
    bool portsUnchanged() const;
    // The MIDI input when it holds a sequence this plug-in can read with at least one event;
    // null otherwise.
    const LV2_Atom_Sequence* inputEvents() const;
    // An editor's patch:Get, uiOn and uiOff among the input's events.
    void readRequests(const LV2_Atom_Sequence* input);
    // Every effective value that changed, or was asked for, as a patch:Set on the notify port;
    // run() calls it only when the tree's change count moved or a report is owed.
    void reportEffectiveValues();
    OSStatus sendMIDI(AUEventSampleTime time, NSInteger length, const std::uint8_t* bytes);
    // A log line about dropped MIDI events, at most once a second; run() calls it only when
    // the count moved.
    void reportDrops();
    // An editor's uiOn: the tap copies the input, and keeps doing so for a while.
    void openInputTap();
    // The input since the last message, when an editor has the tap open and it is time.
    void sendInputSamples();

    const LV2_URID_Map* map;
    URIDs uris;
    double sampleRate;

    // Before everything that logs on it, so that it goes last.
    LogChannel logChannel;
    DrainedMainQueue mainQueue;
    std::unique_ptr<TAV_SR_Chorus_Extension_AudioUnit> unit;
    HostRenderCycle cycle;
    AUParameterTree* tree = nullptr;
    std::array<AUParameter*, kParameterCount> parameters{};

    const float* audioIn[2]{};
    float* audioOut[2]{};
    const LV2_Atom_Sequence* midiIn = nullptr;
    LV2_Atom_Sequence* midiOut = nullptr;
    LV2_Atom_Sequence* notify = nullptr;

    // The control ports, and the bits of each as last read. An unconnected port reads
    // kUnconnectedPort, whose bits (a NaN no host writes) every port holds before its first
    // read, so any first value is a change.
    static constexpr float kUnconnectedPort = std::bit_cast<float>(std::uint32_t(0x7FC5C0DE));
    // Rounded up to whole groups of four for the comparison; the extra ones stay unconnected.
    static constexpr std::size_t kControlSlots = (kParameterCount + 3) / 4 * 4;
    std::array<const float*, kControlSlots> controls;
    alignas(16) std::array<std::uint32_t, kControlSlots> portBits;
    // The first control port, when all of them lie in one array in port order (as lilv's
    // lv2bench keeps them): they are then read four at a time. Null otherwise.
    const float* controlArray = nullptr;
    // The effective values the host and the editor have been told about.
    std::array<float, kParameterCount> reported{};
    // After a restore, the ports' next values are taken as they stand, so the restored state
    // stays in effect until the host changes a port.
    bool adoptPorts = false;
    // Values an editor asked for, reported whether they changed or not.
    std::array<bool, kParameterCount> reportRequested{};
    // The tree's change count when every value had been reported, and whether a report is
    // owed regardless (a request, or a notify port that ran out of room).
    std::uint64_t reportedChanges = ~std::uint64_t(0);
    bool reportOwed = true;
    bool audioWarned = false;
    // Port changes of the current run(), applied at its first frame.
    std::array<HostParameterChange, kParameterCount> portChanges{};
    std::size_t portChangeCount = 0;

    double sampleTime = 0.0;
    SequenceWriter midiWriter;
    SequenceWriter notifyWriter;
    std::uint64_t midiDropped = 0;
    std::uint64_t midiDroppedReported = 0;
    double lastDropReport = -1.0e300;

    // The input for an editor's spectrum, and when (in samples of audio) it stops copying
    // unless an editor repeats its uiOn, and when the next message is due.
    InputTap inputTap;
    double inputTapOpenUntil = 0.0;
    double nextInputSamples = 0.0;
};

} // namespace sr::lv2
