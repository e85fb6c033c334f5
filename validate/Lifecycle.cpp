// Checks 10 to 12: the calls around rendering (activation, connection, features) and the
// plug-in's state and presets, as hosts use them.
#include "validate/Check.h"
#include "validate/Host.h"

#include <lv2/atom/atom.h>
#include <lv2/presets/presets.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

namespace sr::validate {

namespace {

constexpr std::uint32_t kBlock = 256;

// A short stretch of noise, the same for every instance of a check.
struct Take {
    std::vector<float> left, right;
    explicit Take(std::uint64_t seed, std::size_t frames = 4 * kBlock) {
        std::mt19937_64 rng(seed);
        left = noise(frames, rng);
        right = noise(frames, rng);
    }
};

// Renders the take and returns both channels one after the other.
std::vector<float> play(Instance& instance, const Take& take) {
    std::vector<float> l, r;
    instance.process(take.left, take.right, l, r, [] { return std::size_t(kBlock); });
    l.insert(l.end(), r.begin(), r.end());
    return l;
}

} // namespace

Result checkLifecycle(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    const Take take(ctx.seed + 10);
    const auto fresh = [&] {
        Instance instance(world);
        instance.activate();
        return play(instance, take);
    };
    const std::vector<float> reference = fresh();
    int cases = 0;
    float restartTail = 0.0f;
    const auto expect = [&](bool ok, const std::string& what) {
        ++cases;
        if (!ok) result.fail(what);
    };
    {
        // Nothing to render: nothing written, nothing broken.
        Instance instance(world);
        instance.activate();
        std::vector<float> out(8, 7.0f);
        instance.run(take.left.data(), take.right.data(), out.data(), out.data() + 4, 0);
        expect(out == std::vector<float>(8, 7.0f) && instance.outputsIntact(),
               "run(0) wrote into the buffers");
        expect(play(instance, take) == reference, "run(0) changed what follows");
    }
    {
        // Ports connected only after activation.
        Instance instance(world);
        for (std::uint32_t p = 0; p < world.portCount; ++p)
            lilv_instance_connect_port(instance.raw, p, nullptr);
        instance.activate();
        instance.connectDefaults();
        expect(play(instance, take) == reference, "connecting after activate changed the sound");
    }
    {
        // A restart clears what the plug-in still held: after loud input, a restart and then
        // silence, nothing audible comes out (the effect's own anti-denormal noise, far below
        // -120 dBFS, is not sound from before). Without the restart the tail is loud.
        const int restarts = ctx.count(20, 100);
        const std::vector<float> silence(take.left.size(), 0.0f);
        const auto tail = [&](Instance& instance, bool restart) {
            std::vector<float> l, r;
            instance.process(take.left, take.right, l, r, [] { return std::size_t(kBlock); });
            if (restart) {
                instance.deactivate();
                instance.activate();
            }
            instance.process(silence, silence, l, r, [] { return std::size_t(kBlock); });
            float peak = 0.0f;
            for (std::size_t k = 0; k < l.size(); ++k)
                peak = std::max({peak, std::fabs(l[k]), std::fabs(r[k])});
            return peak;
        };
        Instance instance(world);
        instance.activate();
        float worst = 0.0f;
        for (int i = 0; i < restarts; ++i) worst = std::max(worst, tail(instance, true));
        Instance unrestarted(world);
        unrestarted.activate();
        const float unreset = tail(unrestarted, false);
        restartTail = worst;
        expect(worst < 1.0e-6f && unreset > 1.0e-3f,
               format("after a restart the tail peaks at %g (limit 1e-6; %g without the restart)",
                      worst, unreset));
    }
    {
        // State restored before activation takes effect on the first block.
        std::mt19937_64 rng(ctx.seed + 100);
        Instance source(world);
        randomControls(world, source.control, rng);
        source.activate();
        play(source, take); // ports are read in run()
        const auto state = source.save();
        Instance target(world);
        const LV2_State_Status status = state ? target.restore(*state) : LV2_STATE_ERR_UNKNOWN;
        target.activate();
        Instance twin(world);
        twin.control = source.control;
        twin.activate();
        expect(status == LV2_STATE_SUCCESS && play(target, take) == play(twin, take),
               "a state restored before activate does not sound like its source");
    }
    {
        // Atom ports left unconnected.
        Instance instance(world);
        instance.atomPortsConnected = false;
        instance.connectDefaults();
        instance.activate();
        expect(play(instance, take) == reference, "unconnected atom ports changed the sound");
    }
    for (Features features : {Features::MapOnly, Features::None}) {
        Instance instance(world, 48000.0, features);
        const char* name = features == Features::MapOnly ? "only urid:map" : "no features";
        if (!instance.ok()) {
            expect(false, std::string("did not instantiate with ") + name);
            continue;
        }
        instance.activate();
        expect(play(instance, take) == reference, std::string("the sound differs with ") + name);
    }
    result.figure = format("%d cases held: run(0) writes nothing; connecting after activate, "
                           "unconnected atom ports, only urid:map and no features sound as the "
                           "default instance; restore before activate takes effect; %d restarts "
                           "leave no tail of earlier input (peak %.1g)",
                           cases, ctx.count(20, 100), restartTail);
    return result;
}

Result checkState(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    const Take take(ctx.seed + 11, 2 * kBlock);
    std::mt19937_64 rng(ctx.seed + 11);
    const int sets = ctx.count(10, 100);
    int identicalSaves = 0;
    for (int s = 0; s < sets; ++s) {
        Instance source(world);
        randomControls(world, source.control, rng);
        source.activate();
        play(source, take);
        const auto saved = source.save();
        if (!saved || saved->empty()) {
            result.fail("save stored nothing");
            break;
        }
        Instance target(world);
        target.activate();
        if (target.restore(*saved) != LV2_STATE_SUCCESS) {
            result.fail(format("set %d: the plug-in refused its own state", s));
            continue;
        }
        play(target, take);
        const auto again = target.save();
        if (!again || *again != *saved) {
            result.fail(format("set %d: save after restore differs from the saved state", s));
            continue;
        }
        ++identicalSaves;
    }

    // Broken states are refused and leave the sound as it was.
    const std::optional<Instance::State> valid = [&] {
        Instance instance(world);
        return instance.save();
    }();
    int refused = 0, kinds = 0;
    if (valid && !valid->empty()) {
        const LV2_URID key = valid->begin()->first;
        const auto& property = valid->begin()->second;
        std::vector<std::pair<std::string, Instance::State>> broken;
        broken.push_back({"no properties", {}});
        for (const char* type : {LV2_ATOM__Int, LV2_ATOM__Float, LV2_ATOM__Chunk, LV2_ATOM__Path}) {
            Instance::State s = *valid;
            s[key].type = world.urid(type);
            broken.push_back({std::string("the state as ") + type, s});
        }
        {
            Instance::State s = *valid;
            s[key].value.resize(s[key].value.size() / 2);
            broken.push_back({"a truncated state", s});
        }
        std::uniform_int_distribution<int> byte(0, 255), printable(32, 126);
        for (int b = 0; b < 3; ++b) {
            Instance::State s = *valid;
            std::vector<std::uint8_t> blob(1 << 20);
            if (b == 2) {
                // Text that starts as a property list and turns into noise.
                const std::string head(property.value.begin(), property.value.begin() + 300);
                for (std::size_t i = 0; i < blob.size(); ++i)
                    blob[i] =
                        i < head.size() ? std::uint8_t(head[i]) : std::uint8_t(printable(rng));
            } else {
                for (auto& v : blob) v = std::uint8_t(b == 0 ? byte(rng) : printable(rng));
            }
            blob.back() = 0;
            s[key].value = std::move(blob);
            broken.push_back({format("1 MB random blob %d", b + 1), s});
        }
        std::mt19937_64 controls(ctx.seed + 111);
        for (const auto& [what, state] : broken) {
            ++kinds;
            Instance subject(world), twin(world);
            randomControls(world, subject.control, controls);
            twin.control = subject.control;
            subject.activate();
            twin.activate();
            play(subject, take);
            play(twin, take);
            const auto before = subject.save();
            if (subject.restore(state) == LV2_STATE_SUCCESS) {
                result.fail(what + " was accepted");
                continue;
            }
            ++refused;
            if (play(subject, take) != play(twin, take)) result.fail(what + " changed the sound");
            const auto after = subject.save();
            if (!before || !after || *before != *after) result.fail(what + " changed the state");
        }
    } else {
        result.fail("the plug-in saves no state");
    }
    result.figure = format("%d of %d random sets saved, restored and saved again byte-identical; "
                           "%d of %d broken states refused (missing, 4 wrong types, truncated, "
                           "3 x 1 MB blobs) with sound and state unchanged",
                           identicalSaves, sets, refused, kinds);
    return result;
}

namespace {

std::vector<std::string> factoryFiles(const std::string& bundle) {
    std::vector<std::string> files;
    for (const std::string& path : filesIn(bundle + "/factory"))
        if (path.size() > 9 && path.compare(path.size() - 9, 9, ".aupreset") == 0)
            files.push_back(path);
    return files;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Whether every control port's value in `values` is `wanted`'s; names those that are not.
std::string mismatches(const World& world, const std::map<std::string, double>& values,
                       const std::map<std::string, double>& wanted) {
    std::string wrong;
    for (const auto& c : world.controls) {
        const auto v = values.find(c.symbol), w = wanted.find(c.symbol);
        if (v == values.end() || w == wanted.end() || float(v->second) != float(w->second))
            wrong += (wrong.empty() ? "" : ", ") + c.symbol;
    }
    return wrong;
}

} // namespace

Result checkPresets(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    const Take take(ctx.seed + 12, 2 * kBlock);
    // LV2 presets, as hosts load them.
    World::Node presetClass = world.node(LV2_PRESETS__Preset);
    LilvNodes* presets = lilv_plugin_get_related(world.plugin, presetClass);
    int lv2Presets = 0;
    std::map<std::string, std::map<std::string, double>> byLabel;
    LILV_FOREACH(nodes, i, presets) {
        const LilvNode* uri = lilv_nodes_get(presets, i);
        lilv_world_load_resource(world.world, uri);
        LilvState* state = lilv_state_new_from_world(world.world, &world.map, uri);
        if (!state) {
            result.fail(std::string("preset ") + lilv_node_as_uri(uri) + " does not load");
            continue;
        }
        ++lv2Presets;
        const std::string label = lilv_state_get_label(state) ? lilv_state_get_label(state) : "";
        // The preset's own port values, read from its data.
        Instance probe(world);
        for (auto& v : probe.control) v = std::numeric_limits<float>::quiet_NaN();
        probe.lilvRestore(state);
        std::map<std::string, double> wanted;
        for (const auto& c : world.controls)
            if (!std::isnan(probe.control[c.index])) wanted[c.symbol] = probe.control[c.index];
        if (wanted.size() != world.controls.size())
            result.fail(format("preset \"%s\" sets %zu of %zu control ports", label.c_str(),
                               wanted.size(), world.controls.size()));
        // Restored into a fresh instance, then checked through the plug-in's own state.
        Instance instance(world);
        instance.activate();
        instance.lilvRestore(state);
        const std::vector<float> sound = play(instance, take);
        const auto saved = instance.save();
        const std::string wrong = saved ? mismatches(world, parameterValues(world, *saved), wanted)
                                        : std::string("all (no state)");
        if (!wrong.empty()) result.fail("preset \"" + label + "\" did not apply: " + wrong);
        // It sounds as its port values do on a fresh instance.
        Instance twin(world);
        for (const auto& c : world.controls)
            if (wanted.count(c.symbol)) twin.control[c.index] = float(wanted[c.symbol]);
        twin.activate();
        if (sound != play(twin, take))
            result.fail("preset \"" + label + "\" does not sound as its port values");
        byLabel[label] = wanted;
        lilv_state_free(state);
    }
    lilv_nodes_free(presets);

    // The factory preset files, each given to the plug-in as its state.
    const auto files = factoryFiles(ctx.bundle);
    int factory = 0;
    const LV2_URID stringType = world.urid(LV2_ATOM__String);
    const auto key = [&]() -> std::optional<LV2_URID> {
        Instance instance(world);
        const auto s = instance.save();
        for (const auto& [k, p] : s.value_or(Instance::State{}))
            if (p.type == stringType) return k;
        return std::nullopt;
    }();
    for (const auto& file : files) {
        const std::string text = readFile(file);
        const auto wanted = parameterValuesFromPlist(text);
        const std::string name =
            file.substr(file.rfind('/') + 1, file.size() - file.rfind('/') - 10);
        if (wanted.size() != world.controls.size()) {
            result.fail(format("%s holds %zu of %zu values", name.c_str(), wanted.size(),
                               world.controls.size()));
            continue;
        }
        if (!key) break;
        Instance instance(world);
        instance.activate();
        Instance::State state;
        state[*key] = {stringType, 0, std::vector<std::uint8_t>(text.begin(), text.end())};
        state[*key].value.push_back(0);
        if (instance.restore(state) != LV2_STATE_SUCCESS) {
            result.fail(name + ".aupreset is refused");
            continue;
        }
        const auto saved = instance.save();
        const std::string wrong = saved ? mismatches(world, parameterValues(world, *saved), wanted)
                                        : std::string("all (no state)");
        if (!wrong.empty()) {
            result.fail(name + ".aupreset did not apply: " + wrong);
            continue;
        }
        const auto lv2 = byLabel.find(name);
        if (lv2 != byLabel.end() && !mismatches(world, lv2->second, wanted).empty())
            result.fail(name + ": the LV2 preset and the .aupreset file disagree");
        ++factory;
    }
    if (lv2Presets == 0) result.fail("no LV2 presets");
    if (files.empty()) result.fail("no factory presets in the bundle");
    result.figure = format("%d LV2 presets and %d of %zu factory .aupreset files applied all %zu "
                           "values; each LV2 preset sounds as its port values",
                           lv2Presets, factory, files.size(), world.controls.size());
    return result;
}

} // namespace sr::validate
