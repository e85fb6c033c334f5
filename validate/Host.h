// The validator's LV2 host: lilv loads the bundle under test and nothing else; ports are found
// from its metadata, as any host finds them, and driven with buffers this host owns.
#pragma once

#include <lilv/lilv.h>
#include <lv2/atom/atom.h>
#include <lv2/options/options.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace sr::validate {

// The host features an instance is given.
enum class Features { All, NoOptions, MapOnly, None };

struct ControlPort {
    std::uint32_t index;
    std::string symbol;
    float minimum, maximum, defaultValue;
    bool integer, toggled;
};

// One per process: the world with the bundle, its plug-in and the URID table.
class World {
public:
    static World& get(const std::string& bundle);

    LilvWorld* world = nullptr;
    const LilvPlugin* plugin = nullptr;
    std::string uri;
    std::vector<ControlPort> controls;
    std::uint32_t audioIn[2] = {0, 0}, audioOut[2] = {0, 0};
    std::optional<std::uint32_t> midiIn;    // the atom input that takes MIDI
    std::vector<std::uint32_t> atomOutputs; // MIDI out and notify
    std::optional<std::uint32_t> midiOut;
    std::uint32_t portCount = 0;
    std::string error; // why the bundle cannot be driven, when it cannot

    LV2_URID urid(const std::string& uri);
    const char* unmap(LV2_URID id) const;
    LV2_URID_Map map{this, [](void* h, const char* u) { return static_cast<World*>(h)->urid(u); }};
    LV2_URID_Unmap unmapFeature{
        this, [](void* h, LV2_URID u) { return static_cast<const World*>(h)->unmap(u); }};

    // An owned node, freed on scope exit.
    struct Node {
        LilvNode* node;
        explicit Node(LilvNode* n) : node(n) {}
        Node(const Node&) = delete;
        ~Node() { lilv_node_free(node); }
        operator const LilvNode*() const { return node; }
    };
    Node node(const std::string& uri) const { return Node(lilv_new_uri(world, uri.c_str())); }

private:
    explicit World(const std::string& bundle);
    std::deque<std::string> uris;
    std::unordered_map<std::string, LV2_URID> ids;
};

// An atom port buffer: room for the given capacity and a guard zone after it.
class AtomBuffer {
public:
    static constexpr std::size_t kGuardBytes = 256;
    static constexpr std::uint8_t kGuard = 0xA5;
    explicit AtomBuffer(std::uint32_t capacity = 32768) { resize(capacity); }
    void resize(std::uint32_t capacity);
    // An output: header size set to the capacity, the rest filled with the guard pattern.
    void prepareOutput(World& world);
    bool guardIntact() const;
    std::uint32_t capacity() const { return capacity_; }
    LV2_Atom_Sequence* sequence() { return reinterpret_cast<LV2_Atom_Sequence*>(words.data()); }
    const LV2_Atom_Sequence* sequence() const {
        return reinterpret_cast<const LV2_Atom_Sequence*>(words.data());
    }
    std::uint8_t* bytes() { return reinterpret_cast<std::uint8_t*>(words.data()); }

private:
    std::vector<std::uint64_t> words; // 64-bit words keep atoms aligned
    std::uint32_t capacity_ = 0;
};

// An event for the MIDI input: MIDI bytes, or another atom type with its body.
struct InputEvent {
    std::int64_t frame;
    LV2_URID type; // 0 means midi:MidiEvent
    std::vector<std::uint8_t> body;
};

struct OutputEvent {
    std::int64_t frame;
    std::vector<std::uint8_t> bytes;
    bool operator==(const OutputEvent&) const = default;
};

// One plug-in instance with its ports. Control values start at the metadata's defaults.
class Instance {
public:
    Instance(World& world, double rate = 48000.0, Features features = Features::All,
             std::int32_t maxBlock = 16384);
    ~Instance();
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    bool ok() const { return raw != nullptr; }
    void activate();
    void deactivate();
    // Connects the control and atom ports to this instance's own buffers (watched).
    void connectDefaults();
    // Connects the audio ports and runs; the MIDI input holds `events` (cleared after the
    // call), outputs are prepared with their guard zones. Both calls are watched.
    void run(const float* inL, const float* inR, float* outL, float* outR, std::uint32_t n);
    // Out of place over whole signals, in calls of the sizes `next` gives.
    template <typename Sizes>
    void process(const std::vector<float>& inL, const std::vector<float>& inR,
                 std::vector<float>& outL, std::vector<float>& outR, Sizes next) {
        outL.assign(inL.size(), 0.0f);
        outR.assign(inR.size(), 0.0f);
        for (std::size_t at = 0; at < inL.size();) {
            const std::size_t n = std::min<std::size_t>(next(), inL.size() - at);
            run(&inL[at], &inR[at], &outL[at], &outR[at], std::uint32_t(n));
            at += n;
        }
    }

    // MIDI events that came out of the last run.
    std::vector<OutputEvent> midiOutput() const;
    bool outputsIntact() const;

    // State through the plug-in's state interface; the properties it stored, by key.
    struct Property {
        LV2_URID type;
        std::uint32_t flags;
        std::vector<std::uint8_t> value;
        bool operator==(const Property&) const = default;
    };
    using State = std::map<LV2_URID, Property>;
    std::optional<State> save(LV2_State_Status* status = nullptr);
    LV2_State_Status restore(const State& state);
    // lilv's own state handling, as hosts use it.
    LilvState* lilvSave();
    void lilvRestore(const LilvState* state);

    World& world;
    LilvInstance* raw = nullptr;
    std::vector<float> control;
    std::vector<InputEvent> events;
    AtomBuffer midiIn, midiOut, notify;
    bool atomPortsConnected = true;
    bool inputTruncated = false; // the last run's events did not all fit the MIDI input

private:
    void writeInput();
    float sampleRate;
    std::int32_t maxBlock, nominalBlock = 512;
    std::vector<LV2_Options_Option> options;
    LV2_Feature mapF, unmapF, optionsF;
    std::vector<const LV2_Feature*> features;
    bool active = false;
};

// Signals and what is in them.
struct Scan {
    std::size_t nonFinite = 0, subnormal = 0;
    float peak = 0.0f;
    void add(const float* x, std::size_t n);
    void add(const std::vector<float>& x) { add(x.data(), x.size()); }
};

std::vector<float> noise(std::size_t frames, std::mt19937_64& rng, float amplitude = 0.5f);
bool identical(const std::vector<float>& a, const std::vector<float>& b);
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace sr::validate

namespace sr::validate {

// The parameter values a saved state holds, by identifier: a property-list string property
// whose dictionaries pair "identifier" with "value". Empty when there is none.
std::map<std::string, double> parameterValues(World& world, const Instance::State& state);
std::map<std::string, double> parameterValuesFromPlist(const std::string& text);

// The regular files of a folder, sorted by path; empty when there is no such folder.
std::vector<std::string> filesIn(const std::string& folder);

// The local path of a file URI node; empty for anything else.
std::string filePath(const LilvNode* uri);

// Random values within each control port's range (whole numbers on integer ports).
void randomControls(const World& world, std::vector<float>& control, std::mt19937_64& rng);

} // namespace sr::validate
