// Check 9: MIDI passes through in order and at its frames, whatever else is in the stream, and
// the outputs never overflow the room a host offers.
#include "validate/Check.h"
#include "validate/Host.h"

#include <lv2/atom/atom.h>

#include <algorithm>

namespace sr::validate {

namespace {

// A random stream for one call of `frames`: every channel, controllers, notes, pitch bend,
// system exclusive, empty and oversized MIDI atoms, atoms that are not MIDI, crowded frames
// and both ends of the call.
std::vector<InputEvent> randomStream(World& world, std::uint32_t frames, std::mt19937_64& rng) {
    std::vector<InputEvent> events;
    std::uniform_int_distribution<int> byte(0, 127), channel(0, 15), kind(0, 11), count(0, 24);
    std::uniform_int_distribution<std::int64_t> frame(0, frames - 1);
    const LV2_URID intType = world.urid(LV2_ATOM__Int), stringType = world.urid(LV2_ATOM__String);
    const int n = count(rng);
    for (int e = 0; e < n; ++e) {
        InputEvent ev{frame(rng), 0, {}};
        const std::uint8_t ch = std::uint8_t(channel(rng));
        switch (kind(rng)) {
        case 0:
            ev.body = {std::uint8_t(0x90 | ch), std::uint8_t(byte(rng)), std::uint8_t(byte(rng))};
            break;
        case 1:
            ev.body = {std::uint8_t(0x80 | ch), std::uint8_t(byte(rng)), 0};
            break;
        case 2:
            ev.body = {std::uint8_t(0xB0 | ch), std::uint8_t(byte(rng)), std::uint8_t(byte(rng))};
            break;
        case 3:
            ev.body = {std::uint8_t(0xE0 | ch), std::uint8_t(byte(rng)), std::uint8_t(byte(rng))};
            break;
        case 4:
            ev.body = {std::uint8_t(0xC0 | ch), std::uint8_t(byte(rng))};
            break;
        case 5:
            ev.body = {std::uint8_t(0xD0 | ch), std::uint8_t(byte(rng))};
            break;
        case 6: {
            ev.body.push_back(0xF0);
            std::uniform_int_distribution<int> length(1, 300);
            for (int i = length(rng); i > 0; --i) ev.body.push_back(std::uint8_t(byte(rng)));
            ev.body.push_back(0xF7);
            break;
        }
        case 7:
            ev.body = {0xF8};
            break; // clock
        case 8:
            ev.body = {};
            break; // an empty MIDI atom
        case 9:    // larger than any MIDI a plug-in needs to carry
            ev.body.assign(20000, 0x11);
            ev.body.front() = 0xF0;
            ev.body.back() = 0xF7;
            break;
        case 10:
            ev.type = intType;
            ev.body = {1, 2, 3, 4};
            break;
        default:
            ev.type = stringType;
            ev.body = {'h', 'i', 0};
            break;
        }
        events.push_back(std::move(ev));
    }
    // Several events on one frame, and events at both ends of the call.
    for (int i = 0; i < 6; ++i)
        events.push_back({frames / 2, 0, {std::uint8_t(0x90 | i), std::uint8_t(60 + i), 100}});
    events.push_back({0, 0, {0xB0, 7, 100}});
    events.push_back({std::int64_t(frames) - 1, 0, {0x80, 60, 0}});
    std::stable_sort(events.begin(), events.end(),
                     [](const InputEvent& a, const InputEvent& b) { return a.frame < b.frame; });
    return events;
}

// Whether `out` is `in`'s MIDI in the same order, frames and bytes, with some left out.
bool orderedSubset(const std::vector<OutputEvent>& out, const std::vector<InputEvent>& in) {
    std::size_t k = 0;
    for (const auto& o : out) {
        while (k < in.size() &&
               !(in[k].type == 0 && in[k].frame == o.frame && in[k].body == o.bytes))
            ++k;
        if (k == in.size()) return false;
        ++k;
    }
    return true;
}

} // namespace

Result checkMidi(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    if (!world.midiIn || !world.midiOut) {
        result.skipped = true;
        result.figure = "the plug-in has no MIDI input and output";
        return result;
    }
    std::mt19937_64 rng(ctx.seed + 9);
    const int calls = ctx.count(150, 1000);
    std::uniform_int_distribution<std::uint32_t> size(1, 512);
    std::vector<float> inL(512, 0.0f), inR(512, 0.0f), outL(512), outR(512);
    long sent = 0, passed = 0, expected = 0, missing = 0;
    for (std::uint32_t capacity : {64u, 1024u, 32768u}) {
        Instance instance(world);
        instance.midiOut.resize(capacity);
        instance.midiIn.resize(1 << 20); // room for 24 events of 20 KB
        instance.connectDefaults();
        instance.activate();
        for (int call = 0; call < calls; ++call) {
            const std::uint32_t n = size(rng);
            std::vector<InputEvent> stream = randomStream(world, n, rng);
            instance.events = stream;
            instance.run(inL.data(), inR.data(), outL.data(), outR.data(), n);
            if (instance.inputTruncated) {
                result.fail("the validator's MIDI input buffer was too small for its stream");
                break;
            }
            const auto out = instance.midiOutput();
            if (!instance.outputsIntact()) {
                result.fail(format("capacity %u: an output was written past its room", capacity));
                break;
            }
            if (!orderedSubset(out, stream)) {
                result.fail(format("capacity %u, call %d: the MIDI output is not the input's MIDI "
                                   "in order at its frames",
                                   capacity, call));
                break;
            }
            if (capacity < 32768) continue;
            // With room enough, every ordinary MIDI message comes out.
            for (const auto& e : stream) {
                if (e.type != 0) continue;
                ++sent;
                if (e.body.empty() || e.body.size() > 1024) continue;
                ++expected;
                if (std::find(out.begin(), out.end(), OutputEvent{e.frame, e.body}) == out.end())
                    ++missing;
            }
            passed += long(out.size());
        }
    }
    if (missing)
        result.fail(format("%ld of %ld MIDI messages did not come out with 32 KB of room", missing,
                           expected));
    result.figure =
        format("%d calls x 3 capacities (64 B, 1 KB, 32 KB): never overflowed; at 32 KB "
               "%ld of %ld MIDI events through in order at their frames (empty and "
               "20 KB ones dropped)",
               calls, passed, sent);
    return result;
}

} // namespace sr::validate
