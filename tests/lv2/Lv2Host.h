// A small LV2 host on lilv for the plug-in's tests. It loads the bundle from the build tree only,
// maps URIDs with its own table and drives the control, audio and atom ports directly.
#pragma once

#include "TestSignals.h"
#include "kernel/ParameterTable.h"

#include <lilv/lilv.h>
#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/log/log.h>
#include <lv2/midi/midi.h>
#include <lv2/options/options.h>
#include <lv2/parameters/parameters.h>
#include <lv2/patch/patch.h>
#include <lv2/urid/urid.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sr::lv2test {

inline const std::string kNs = "urn:tav:sr-chorus#";
inline constexpr double kRate = 48000.0;

enum Port : uint32_t { kInL = 29, kInR, kOutL, kOutR, kMidiIn, kMidiOut, kNotify, kPortCount };

// An owned lilv node.
struct Node {
    LilvNode* node;
    explicit Node(LilvNode* n) : node(n) {}
    Node(const Node&) = delete;
    ~Node() { lilv_node_free(node); }
    operator const LilvNode*() const { return node; }
};

// One world for the process: the bundle under test, the URID table and the host's features.
struct Host {
    LilvWorld* world = lilv_world_new();
    const LilvPlugin* plugin = nullptr;
    std::deque<std::string> uris; // a deque keeps earlier entries' c_str() valid
    LV2_URID_Map map{this,
                     [](void* h, const char* uri) { return static_cast<Host*>(h)->urid(uri); }};
    LV2_URID_Unmap unmap{this, [](void* h, LV2_URID u) { return static_cast<Host*>(h)->uri(u); }};
    float sampleRate = float(kRate);
    int32_t maxBlock = 16384, nominalBlock = 512;
    LV2_Options_Option options[4]{};
    LV2_Feature mapF{LV2_URID__map, &map}, unmapF{LV2_URID__unmap, &unmap},
        optionsF{LV2_OPTIONS__options, options};
    const LV2_Feature* features[4]{&mapF, &unmapF, &optionsF, nullptr};

    static Host& get() {
        static Host host;
        return host;
    }
    LV2_URID urid(const std::string& uri) {
        for (std::size_t i = 0; i < uris.size(); ++i)
            if (uris[i] == uri) return LV2_URID(i + 1);
        uris.push_back(uri);
        return LV2_URID(uris.size());
    }
    const char* uri(LV2_URID u) const {
        return u && u <= uris.size() ? uris[u - 1].c_str() : nullptr;
    }
    Node node(const std::string& uri) { return Node(lilv_new_uri(world, uri.c_str())); }

private:
    Host() {
        const auto opt = [&](const char* key, const char* type, const void* value) {
            return LV2_Options_Option{LV2_OPTIONS_INSTANCE, 0, urid(key), 4, urid(type), value};
        };
        options[0] = opt(LV2_PARAMETERS__sampleRate, LV2_ATOM__Float, &sampleRate);
        options[1] = opt(LV2_BUF_SIZE__maxBlockLength, LV2_ATOM__Int, &maxBlock);
        options[2] = opt(LV2_BUF_SIZE__nominalBlockLength, LV2_ATOM__Int, &nominalBlock);
        // Only the bundle in the build tree, so an installed copy can never answer instead.
        Node bundle(lilv_new_file_uri(world, nullptr, SR_LV2_BUNDLE "/"));
        lilv_world_load_bundle(world, bundle);
        plugin =
            lilv_plugins_get_by_uri(lilv_world_get_all_plugins(world), node("urn:tav:sr-chorus"));
    }
};

// A host's log:log, kept per instance: every line with its level and the thread that wrote it.
// After close() (the host has cleaned the instance up and freed its log) any call is counted.
class HostLog {
public:
    struct Line {
        LV2_URID type;
        std::string text;
        std::thread::id thread;
    };
    explicit HostLog(Host& h) : host(h) {}
    HostLog(const HostLog&) = delete;

    LV2_Log_Log log{this, &HostLog::printf, &HostLog::vprintf};
    LV2_Feature feature{LV2_LOG__log, &log};

    std::vector<Line> lines() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines_;
    }
    // The texts of one level, in order.
    std::vector<std::string> texts(const char* level) {
        std::vector<std::string> out;
        for (const Line& l : lines())
            if (l.type == host.urid(level)) out.push_back(l.text);
        return out;
    }
    void close() {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
    }
    int callsAfterClose() {
        std::lock_guard<std::mutex> lock(mutex);
        return late;
    }

private:
    static int vprintf(LV2_Log_Handle handle, LV2_URID type, const char* fmt, va_list ap) {
        auto* self = static_cast<HostLog*>(handle);
        char text[1024];
        const int n = std::vsnprintf(text, sizeof text, fmt, ap);
        std::lock_guard<std::mutex> lock(self->mutex);
        if (self->closed) {
            ++self->late;
            return 0;
        }
        self->lines_.push_back({type, text, std::this_thread::get_id()});
        return n;
    }
    static int printf(LV2_Log_Handle handle, LV2_URID type, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        const int n = vprintf(handle, type, fmt, ap);
        va_end(ap);
        return n;
    }

    Host& host;
    std::mutex mutex;
    std::vector<Line> lines_;
    bool closed = false;
    int late = 0;
};

struct MidiEvent {
    int64_t frame;
    std::vector<uint8_t> bytes;
    bool operator==(const MidiEvent&) const = default;
};

// One plug-in instance with its port buffers. Control values start at the table's defaults.
// With a HostLog, the instance is also given that log; it must outlive the instance.
class Instance {
public:
    explicit Instance(bool withFeatures = true, HostLog* log = nullptr) : host_(Host::get()) {
        for (const auto& p : kParameterTable) control[p.address] = p.defaultValue;
        features_ = {&host_.mapF, &host_.unmapF, &host_.optionsF};
        if (log) features_.push_back(&log->feature);
        features_.push_back(nullptr);
        raw =
            lilv_plugin_instantiate(host_.plugin, kRate, withFeatures ? features_.data() : nullptr);
        if (!raw) return;
        for (uint32_t i = 0; i < kParameterCount; ++i)
            lilv_instance_connect_port(raw, i, &control[i]);
        if (withFeatures) {
            lilv_instance_connect_port(raw, kMidiIn, midiIn_.data());
            lilv_instance_connect_port(raw, kMidiOut, midiOut_.data());
            lilv_instance_connect_port(raw, kNotify, notify_.data());
        }
        lilv_instance_activate(raw);
    }
    Instance(const Instance&) = delete;
    explicit Instance(HostLog& log) : Instance(true, &log) {}
    ~Instance() {
        if (!raw) return;
        lilv_instance_deactivate(raw);
        lilv_instance_free(raw);
    }
    const LV2_Feature* const* features() const { return features_.data(); }

    // Queued for the next run(); an empty message is a patch:Get, of every value or of one
    // property.
    void midi(uint32_t frame, std::vector<uint8_t> bytes) { pending_.push_back({frame, bytes}); }
    void requestValues(std::string property = {}) {
        pending_.push_back({0, {}});
        requested_.push_back(std::move(property));
    }
    // An object of this type and no properties (the editor's uiOn and uiOff).
    void object(const std::string& otype) {
        pending_.push_back({0, {}});
        requested_.push_back("object:" + otype);
    }

    // Runs frames [from, from + count) of `in` into the same frames of `out`.
    void run(const test::Stereo& in, test::Stereo& out, std::size_t from, std::size_t count) {
        writeInput();
        prepareOutput(midiOut_, midiOutCapacity);
        prepareOutput(notify_, notifyCapacity);
        lilv_instance_connect_port(raw, kInL, const_cast<float*>(&in.left[from]));
        lilv_instance_connect_port(raw, kInR, const_cast<float*>(&in.right[from]));
        lilv_instance_connect_port(raw, kOutL, &out.left[from]);
        lilv_instance_connect_port(raw, kOutR, &out.right[from]);
        lilv_instance_run(raw, uint32_t(count));
    }

    const LV2_Atom_Sequence* midiOutSequence() const { return sequence(midiOut_); }

    std::vector<MidiEvent> midiOut() const {
        std::vector<MidiEvent> events;
        LV2_ATOM_SEQUENCE_FOREACH(midiOutSequence(), ev) {
            const auto* b = static_cast<const uint8_t*>(LV2_ATOM_BODY_CONST(&ev->body));
            if (ev->body.type == host_.urid(LV2_MIDI__MidiEvent))
                events.push_back({ev->time.frames, {b, b + ev->body.size}});
        }
        return events;
    }

    // Nothing after the output's capacity was touched.
    bool midiOutGuardIntact() const {
        const auto* bytes = reinterpret_cast<const uint8_t*>(midiOut_.data());
        for (std::size_t i = sizeof(LV2_Atom) + midiOutCapacity; i < kBufferBytes; ++i)
            if (bytes[i] != kGuard) return false;
        return true;
    }

    // The patch:Set reports of the last run, as (address, value); a property that names no
    // parameter gives address -1, any other shape of event -2.
    std::vector<std::pair<int, float>> reports() const {
        std::vector<std::pair<int, float>> out;
        LV2_ATOM_SEQUENCE_FOREACH(sequence(notify_), ev) {
            const auto* obj = reinterpret_cast<const LV2_Atom_Object*>(&ev->body);
            const LV2_Atom *property = nullptr, *value = nullptr;
            if (ev->body.type == host_.urid(LV2_ATOM__Object) &&
                obj->body.otype == host_.urid(LV2_PATCH__Set))
                lv2_atom_object_get(obj, host_.urid(LV2_PATCH__property), &property,
                                    host_.urid(LV2_PATCH__value), &value, 0);
            if (!property || !value || property->type != host_.urid(LV2_ATOM__URID) ||
                value->type != host_.urid(LV2_ATOM__Float)) {
                out.emplace_back(-2, 0.0f);
                continue;
            }
            const char* uri = host_.uri(reinterpret_cast<const LV2_Atom_URID*>(property)->body);
            const ParameterInfo* info =
                uri && std::string(uri).starts_with(kNs)
                    ? parameterInfo(std::string_view(uri).substr(kNs.size()))
                    : nullptr;
            out.emplace_back(info ? int(info->address) : -1,
                             reinterpret_cast<const LV2_Atom_Float*>(value)->body);
        }
        return out;
    }

    // The input samples messages of the last run, as (rate, samples); a message of that type
    // in another shape gives rate 0.
    std::vector<std::pair<float, std::vector<float>>> inputSamples() const {
        std::vector<std::pair<float, std::vector<float>>> out;
        LV2_ATOM_SEQUENCE_FOREACH(sequence(notify_), ev) {
            const auto* obj = reinterpret_cast<const LV2_Atom_Object*>(&ev->body);
            if (ev->body.type != host_.urid(LV2_ATOM__Object) ||
                obj->body.otype != host_.urid(kNs + "InputSamples"))
                continue;
            const LV2_Atom *rate = nullptr, *samples = nullptr;
            lv2_atom_object_get(obj, host_.urid(kNs + "sampleRate"), &rate,
                                host_.urid(kNs + "samples"), &samples, 0);
            const auto* vector = reinterpret_cast<const LV2_Atom_Vector*>(samples);
            if (!rate || rate->type != host_.urid(LV2_ATOM__Float) || !samples ||
                samples->type != host_.urid(LV2_ATOM__Vector) ||
                vector->body.child_type != host_.urid(LV2_ATOM__Float) ||
                vector->body.child_size != sizeof(float)) {
                out.push_back({0.0f, {}});
                continue;
            }
            const auto* first = reinterpret_cast<const float*>(vector + 1);
            const std::size_t count = (samples->size - sizeof(LV2_Atom_Vector_Body)) / 4;
            out.push_back({reinterpret_cast<const LV2_Atom_Float*>(rate)->body,
                           std::vector<float>(first, first + count)});
        }
        return out;
    }
    // Nothing after the notify port's capacity was touched.
    bool notifyGuardIntact() const {
        const auto* bytes = reinterpret_cast<const uint8_t*>(notify_.data());
        for (std::size_t i = sizeof(LV2_Atom) + notifyCapacity; i < kBufferBytes; ++i)
            if (bytes[i] != kGuard) return false;
        return true;
    }

    LilvInstance* raw = nullptr;
    float control[kParameterCount];
    uint32_t midiOutCapacity = 8192;
    uint32_t notifyCapacity = kCapacity;

private:
    static constexpr uint32_t kCapacity = 45056; // the notify port's minimum size
    static constexpr std::size_t kBufferBytes = sizeof(LV2_Atom) + kCapacity + 256;
    static constexpr uint8_t kGuard = 0xAB;
    using Buffer = std::vector<uint64_t>; // 64-bit words keep the atoms aligned

    static const LV2_Atom_Sequence* sequence(const Buffer& b) {
        return reinterpret_cast<const LV2_Atom_Sequence*>(b.data());
    }

    void writeInput() {
        LV2_Atom_Forge forge;
        lv2_atom_forge_init(&forge, &host_.map);
        lv2_atom_forge_set_buffer(&forge, reinterpret_cast<uint8_t*>(midiIn_.data()), kBufferBytes);
        LV2_Atom_Forge_Frame seq, object;
        lv2_atom_forge_sequence_head(&forge, &seq, 0);
        std::size_t request = 0;
        for (const auto& [frame, bytes] : pending_) {
            lv2_atom_forge_frame_time(&forge, frame);
            if (bytes.empty() && requested_[request].starts_with("object:")) {
                lv2_atom_forge_object(&forge, &object, 0,
                                      host_.urid(requested_[request++].substr(7)));
                lv2_atom_forge_pop(&forge, &object);
            } else if (bytes.empty()) {
                lv2_atom_forge_object(&forge, &object, 0, host_.urid(LV2_PATCH__Get));
                if (const std::string& property = requested_[request++]; !property.empty()) {
                    lv2_atom_forge_key(&forge, host_.urid(LV2_PATCH__property));
                    lv2_atom_forge_urid(&forge, host_.urid(property));
                }
                lv2_atom_forge_pop(&forge, &object);
            } else {
                lv2_atom_forge_atom(&forge, uint32_t(bytes.size()),
                                    host_.urid(LV2_MIDI__MidiEvent));
                lv2_atom_forge_write(&forge, bytes.data(), uint32_t(bytes.size()));
            }
        }
        lv2_atom_forge_pop(&forge, &seq);
        pending_.clear();
        requested_.clear();
    }

    // An output sequence holds its capacity as size on the way in; the rest is a guard pattern.
    void prepareOutput(Buffer& b, uint32_t capacity) {
        std::memset(b.data(), kGuard, kBufferBytes);
        *reinterpret_cast<LV2_Atom*>(b.data()) = {capacity, host_.urid(LV2_ATOM__Chunk)};
    }

    Host& host_;
    std::vector<const LV2_Feature*> features_;
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> pending_;
    std::vector<std::string> requested_;
    Buffer midiIn_ = Buffer(kBufferBytes / 8), midiOut_ = Buffer(kBufferBytes / 8),
           notify_ = Buffer(kBufferBytes / 8);
};

} // namespace sr::lv2test
