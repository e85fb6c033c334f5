#include "validate/Host.h"

#include "validate/RealTime.h"

#include <lv2/atom/forge.h>
#include <lv2/atom/util.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/midi/midi.h>
#include <lv2/options/options.h>
#include <lv2/parameters/parameters.h>
#include <lv2/port-props/port-props.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <filesystem>

namespace sr::validate {

// ---- world ---------------------------------------------------------------------------------

World& World::get(const std::string& bundle) {
    static World world(bundle);
    return world;
}

World::World(const std::string& bundle) {
    world = lilv_world_new();
    std::string folder = bundle;
    if (folder.empty() || folder.back() != '/') folder += '/';
    Node bundleNode(lilv_new_file_uri(world, nullptr, folder.c_str()));
    lilv_world_load_bundle(world, bundleNode);
    const LilvPlugins* plugins = lilv_world_get_all_plugins(world);
    LILV_FOREACH(plugins, i, plugins) {
        const LilvPlugin* p = lilv_plugins_get(plugins, i);
        if (std::string(lilv_node_as_string(lilv_plugin_get_bundle_uri(p))) ==
            std::string(lilv_node_as_string(bundleNode))) {
            plugin = p;
            break;
        }
    }
    if (!plugin) {
        error = "no plug-in in " + bundle;
        return;
    }
    uri = lilv_node_as_uri(lilv_plugin_get_uri(plugin));
    portCount = lilv_plugin_get_num_ports(plugin);
    Node input = node(LV2_CORE__InputPort), output = node(LV2_CORE__OutputPort),
         controlClass = node(LV2_CORE__ControlPort), audio = node(LV2_CORE__AudioPort),
         atom = node(LV2_ATOM__AtomPort), midiEvent = node(LV2_MIDI__MidiEvent),
         integer = node(LV2_CORE__integer), toggled = node(LV2_CORE__toggled);
    std::vector<std::uint32_t> ins, outs;
    for (std::uint32_t i = 0; i < portCount; ++i) {
        const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
        const bool isInput = lilv_port_is_a(plugin, port, input);
        if (lilv_port_is_a(plugin, port, controlClass) && isInput) {
            LilvNode *def = nullptr, *min = nullptr, *max = nullptr;
            lilv_port_get_range(plugin, port, &def, &min, &max);
            ControlPort c{i,
                          lilv_node_as_string(lilv_port_get_symbol(plugin, port)),
                          min ? lilv_node_as_float(min) : 0.0f,
                          max ? lilv_node_as_float(max) : 1.0f,
                          def ? lilv_node_as_float(def) : 0.0f,
                          lilv_port_has_property(plugin, port, integer),
                          lilv_port_has_property(plugin, port, toggled)};
            lilv_node_free(def);
            lilv_node_free(min);
            lilv_node_free(max);
            controls.push_back(c);
        } else if (lilv_port_is_a(plugin, port, audio)) {
            (isInput ? ins : outs).push_back(i);
        } else if (lilv_port_is_a(plugin, port, atom)) {
            const bool midi = lilv_port_supports_event(plugin, port, midiEvent);
            if (isInput && midi && !midiIn) midiIn = i;
            if (!isInput) {
                atomOutputs.push_back(i);
                if (midi && !midiOut) midiOut = i;
            }
        }
    }
    if (ins.size() != 2 || outs.size() != 2) {
        error = "expected 2 audio inputs and 2 audio outputs";
        return;
    }
    std::copy(ins.begin(), ins.end(), audioIn);
    std::copy(outs.begin(), outs.end(), audioOut);
}

LV2_URID World::urid(const std::string& u) {
    const auto found = ids.find(u);
    if (found != ids.end()) return found->second;
    uris.push_back(u);
    return ids[u] = LV2_URID(uris.size());
}

const char* World::unmap(LV2_URID id) const {
    return id && id <= uris.size() ? uris[id - 1].c_str() : nullptr;
}

// ---- atom buffers --------------------------------------------------------------------------

void AtomBuffer::resize(std::uint32_t capacity) {
    capacity_ = capacity;
    words.assign((sizeof(LV2_Atom) + capacity + kGuardBytes + 7) / 8, 0);
}

void AtomBuffer::prepareOutput(World& world) {
    std::memset(words.data(), kGuard, words.size() * 8);
    // The room offered for the body, as hosts such as jalv set it.
    *reinterpret_cast<LV2_Atom*>(words.data()) = {capacity_, world.urid(LV2_ATOM__Chunk)};
}

bool AtomBuffer::guardIntact() const {
    const auto* b = reinterpret_cast<const std::uint8_t*>(words.data());
    for (std::size_t i = sizeof(LV2_Atom) + capacity_; i < words.size() * 8; ++i)
        if (b[i] != kGuard) return false;
    return true;
}

// ---- instance ------------------------------------------------------------------------------

Instance::Instance(World& w, double rate, Features which, std::int32_t maxBlockFrames)
    : world(w), sampleRate(float(rate)), maxBlock(maxBlockFrames), mapF{LV2_URID__map, &w.map},
      unmapF{LV2_URID__unmap, &w.unmapFeature}, optionsF{LV2_OPTIONS__options, nullptr} {
    if (!w.plugin) return;
    const auto option = [&](const char* key, const char* type, const void* value) {
        return LV2_Options_Option{LV2_OPTIONS_INSTANCE, 0, w.urid(key), 4, w.urid(type), value};
    };
    options = {option(LV2_PARAMETERS__sampleRate, LV2_ATOM__Float, &sampleRate),
               option(LV2_BUF_SIZE__maxBlockLength, LV2_ATOM__Int, &maxBlock),
               option(LV2_BUF_SIZE__nominalBlockLength, LV2_ATOM__Int, &nominalBlock),
               LV2_Options_Option{LV2_OPTIONS_INSTANCE, 0, 0, 0, 0, nullptr}};
    optionsF.data = options.data();
    switch (which) {
    case Features::All:
        features = {&mapF, &unmapF, &optionsF, nullptr};
        break;
    case Features::NoOptions:
        features = {&mapF, &unmapF, nullptr};
        break;
    case Features::MapOnly:
        features = {&mapF, nullptr};
        break;
    case Features::None:
        break;
    }
    for (const auto& c : w.controls) {
        if (control.size() <= c.index) control.resize(c.index + 1, 0.0f);
        control[c.index] = c.defaultValue;
    }
    raw = lilv_plugin_instantiate(w.plugin, rate, features.empty() ? nullptr : features.data());
    if (raw) connectDefaults();
}

Instance::~Instance() {
    if (!raw) return;
    if (active) lilv_instance_deactivate(raw);
    lilv_instance_free(raw);
}

void Instance::activate() {
    lilv_instance_activate(raw);
    active = true;
}

void Instance::deactivate() {
    lilv_instance_deactivate(raw);
    active = false;
}

void Instance::connectDefaults() {
    rt::Watch watch;
    for (const auto& c : world.controls)
        lilv_instance_connect_port(raw, c.index, &control[c.index]);
    const bool atoms = atomPortsConnected;
    if (world.midiIn)
        lilv_instance_connect_port(raw, *world.midiIn, atoms ? midiIn.bytes() : nullptr);
    for (std::uint32_t port : world.atomOutputs)
        lilv_instance_connect_port(raw, port,
                                   !atoms                  ? nullptr
                                   : port == world.midiOut ? midiOut.bytes()
                                                           : notify.bytes());
}

void Instance::writeInput() {
    LV2_Atom_Forge forge;
    lv2_atom_forge_init(&forge, &world.map);
    lv2_atom_forge_set_buffer(&forge, midiIn.bytes(), sizeof(LV2_Atom) + midiIn.capacity());
    LV2_Atom_Forge_Frame frame;
    lv2_atom_forge_sequence_head(&forge, &frame, 0);
    const LV2_URID midiType = world.urid(LV2_MIDI__MidiEvent);
    inputTruncated = false;
    for (const auto& e : events) {
        const auto size = std::uint32_t(e.body.size());
        if (!lv2_atom_forge_frame_time(&forge, e.frame) ||
            !lv2_atom_forge_atom(&forge, size, e.type ? e.type : midiType) ||
            !lv2_atom_forge_write(&forge, e.body.data(), size)) {
            inputTruncated = true;
            break;
        }
    }
    lv2_atom_forge_pop(&forge, &frame);
    events.clear();
}

void Instance::run(const float* inL, const float* inR, float* outL, float* outR, std::uint32_t n) {
    if (atomPortsConnected) {
        writeInput();
        midiOut.prepareOutput(world);
        notify.prepareOutput(world);
    }
    rt::Watch watch;
    lilv_instance_connect_port(raw, world.audioIn[0], const_cast<float*>(inL));
    lilv_instance_connect_port(raw, world.audioIn[1], const_cast<float*>(inR));
    lilv_instance_connect_port(raw, world.audioOut[0], outL);
    lilv_instance_connect_port(raw, world.audioOut[1], outR);
    lilv_instance_run(raw, n);
}

std::vector<OutputEvent> Instance::midiOutput() const {
    std::vector<OutputEvent> out;
    const LV2_Atom_Sequence* seq = midiOut.sequence();
    if (seq->atom.type != world.map.map(world.map.handle, LV2_ATOM__Sequence)) return out;
    const LV2_URID midiType = const_cast<World&>(world).urid(LV2_MIDI__MidiEvent);
    LV2_ATOM_SEQUENCE_FOREACH(seq, ev) {
        if (ev->body.type != midiType) continue;
        const auto* b = static_cast<const std::uint8_t*>(LV2_ATOM_BODY_CONST(&ev->body));
        out.push_back({ev->time.frames, {b, b + ev->body.size}});
    }
    return out;
}

bool Instance::outputsIntact() const {
    const auto fits = [](const AtomBuffer& b) {
        const LV2_Atom* atom = &b.sequence()->atom;
        // Written or left alone: either way never past the room offered.
        return b.guardIntact() && atom->size <= b.capacity();
    };
    return fits(midiOut) && fits(notify);
}

namespace {

LV2_State_Status storeProperty(LV2_State_Handle handle, std::uint32_t key, const void* value,
                               std::size_t size, std::uint32_t type, std::uint32_t flags) {
    auto* state = static_cast<Instance::State*>(handle);
    const auto* b = static_cast<const std::uint8_t*>(value);
    (*state)[key] = {type, flags, std::vector<std::uint8_t>(b, b + size)};
    return LV2_STATE_SUCCESS;
}

const void* retrieveProperty(LV2_State_Handle handle, std::uint32_t key, std::size_t* size,
                             std::uint32_t* type, std::uint32_t* flags) {
    const auto* state = static_cast<const Instance::State*>(handle);
    const auto found = state->find(key);
    if (found == state->end()) return nullptr;
    *size = found->second.value.size();
    *type = found->second.type;
    *flags = found->second.flags;
    return found->second.value.data();
}

const LV2_State_Interface* stateInterface(LilvInstance* raw) {
    return static_cast<const LV2_State_Interface*>(
        lilv_instance_get_extension_data(raw, LV2_STATE__interface));
}

} // namespace

std::optional<Instance::State> Instance::save(LV2_State_Status* status) {
    const LV2_State_Interface* iface = stateInterface(raw);
    if (!iface) return std::nullopt;
    State state;
    const LV2_State_Status s =
        iface->save(lilv_instance_get_handle(raw), storeProperty, &state, LV2_STATE_IS_POD,
                    features.empty() ? nullptr : features.data());
    if (status) *status = s;
    if (s != LV2_STATE_SUCCESS) return std::nullopt;
    return state;
}

LV2_State_Status Instance::restore(const State& state) {
    const LV2_State_Interface* iface = stateInterface(raw);
    if (!iface) return LV2_STATE_ERR_NO_FEATURE;
    return iface->restore(lilv_instance_get_handle(raw), retrieveProperty,
                          const_cast<State*>(&state), 0,
                          features.empty() ? nullptr : features.data());
}

LilvState* Instance::lilvSave() {
    return lilv_state_new_from_instance(
        world.plugin, raw, &world.map, nullptr, nullptr, nullptr, nullptr,
        [](const char* symbol, void* handle, std::uint32_t* size,
           std::uint32_t* type) -> const void* {
            auto* self = static_cast<Instance*>(handle);
            for (const auto& c : self->world.controls)
                if (c.symbol == symbol) {
                    *size = sizeof(float);
                    *type = self->world.urid(LV2_ATOM__Float);
                    return &self->control[c.index];
                }
            return nullptr;
        },
        this, LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE,
        features.empty() ? nullptr : features.data());
}

void Instance::lilvRestore(const LilvState* state) {
    lilv_state_restore(
        state, raw,
        [](const char* symbol, void* handle, const void* value, std::uint32_t size,
           std::uint32_t type) {
            auto* self = static_cast<Instance*>(handle);
            if (size != sizeof(float) || type != self->world.urid(LV2_ATOM__Float)) return;
            for (const auto& c : self->world.controls)
                if (c.symbol == symbol) std::memcpy(&self->control[c.index], value, sizeof(float));
        },
        this, 0, features.empty() ? nullptr : features.data());
}

// ---- signals -------------------------------------------------------------------------------

void Scan::add(const float* x, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const float v = x[i];
        if (!std::isfinite(v)) {
            ++nonFinite;
        } else {
            if (std::fpclassify(v) == FP_SUBNORMAL) ++subnormal;
            peak = std::max(peak, std::fabs(v));
        }
    }
}

std::vector<float> noise(std::size_t frames, std::mt19937_64& rng, float amplitude) {
    std::uniform_real_distribution<float> d(-amplitude, amplitude);
    std::vector<float> x(frames);
    for (float& v : x) v = d(rng);
    return x;
}

bool identical(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

std::string format(const char* fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

} // namespace sr::validate

#include <plist/plist.h>

namespace sr::validate {

namespace {

void collectValues(plist_t node, std::map<std::string, double>& out) {
    if (plist_get_node_type(node) == PLIST_ARRAY) {
        for (uint32_t i = 0; i < plist_array_get_size(node); ++i)
            collectValues(plist_array_get_item(node, i), out);
        return;
    }
    if (plist_get_node_type(node) != PLIST_DICT) return;
    plist_t identifier = plist_dict_get_item(node, "identifier");
    plist_t value = plist_dict_get_item(node, "value");
    if (identifier && value && plist_get_node_type(identifier) == PLIST_STRING) {
        char* name = nullptr;
        plist_get_string_val(identifier, &name);
        double v = 0.0;
        if (plist_get_node_type(value) == PLIST_REAL) {
            plist_get_real_val(value, &v);
        } else if (plist_get_node_type(value) == PLIST_UINT) {
            uint64_t u = 0;
            plist_get_uint_val(value, &u);
            v = double(int64_t(u));
        }
        if (name) out[name] = v;
        std::free(name);
    }
    plist_dict_iter it = nullptr;
    plist_dict_new_iter(node, &it);
    for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        std::free(key);
        if (!item) break;
        collectValues(item, out);
    }
    std::free(it);
}

} // namespace

std::map<std::string, double> parameterValuesFromPlist(const std::string& text) {
    std::map<std::string, double> out;
    plist_t root = nullptr;
    plist_from_memory(text.data(), uint32_t(text.size()), &root);
    if (!root) return out;
    collectValues(root, out);
    plist_free(root);
    return out;
}

std::map<std::string, double> parameterValues(World& world, const Instance::State& state) {
    const LV2_URID string = world.urid(LV2_ATOM__String);
    for (const auto& [key, property] : state) {
        if (property.type != string) continue;
        const auto* text = reinterpret_cast<const char*>(property.value.data());
        auto values =
            parameterValuesFromPlist(std::string(text, strnlen(text, property.value.size())));
        if (!values.empty()) return values;
    }
    return {};
}

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
         it.increment(ec))
        if (it->is_regular_file(ec)) files.push_back(it->path().string());
    std::sort(files.begin(), files.end());
    return files;
}

std::string filePath(const LilvNode* uri) {
    if (!uri || !lilv_node_is_uri(uri)) return {};
    char* path = lilv_file_uri_parse(lilv_node_as_uri(uri), nullptr);
    std::string out = path ? path : "";
    lilv_free(path);
    return out;
}

void randomControls(const World& world, std::vector<float>& control, std::mt19937_64& rng) {
    for (const auto& c : world.controls) {
        std::uniform_real_distribution<float> d(c.minimum, c.maximum);
        float v = d(rng);
        if (c.integer || c.toggled) v = std::round(v);
        control[c.index] = std::clamp(v, c.minimum, c.maximum);
    }
}

} // namespace sr::validate
