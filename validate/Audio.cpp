// Checks 3 to 7: the plug-in renders whatever rate, block size, buffer layout, input and
// parameter values a host may hand it, and what comes out is always usable audio.
#include "validate/Check.h"
#include "validate/Host.h"

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <limits>

namespace sr::validate {

namespace {

constexpr double kRate = 48000.0;

// The same stereo signal every render of a check starts from.
struct Signal {
    std::vector<float> left, right;
    Signal(std::size_t frames, std::mt19937_64& rng, float amplitude = 0.5f)
        : left(noise(frames, rng, amplitude)), right(noise(frames, rng, amplitude)) {}
};

struct Render {
    std::vector<float> left, right;
};

template <typename Sizes>
Render render(World& world, const Signal& in, Sizes sizes, Features features = Features::All,
              double rate = kRate) {
    Render out;
    Instance instance(world, rate, features);
    if (!instance.ok()) return out;
    instance.activate();
    instance.process(in.left, in.right, out.left, out.right, sizes);
    return out;
}

auto fixed(std::size_t n) {
    return [n] { return n; };
}

// Usable audio: finite and free of subnormals, with the peak for the report.
void expectClean(Result& result, const Render& out, const std::string& what, float& peak) {
    Scan scan;
    scan.add(out.left);
    scan.add(out.right);
    if (out.left.empty()) result.fail(what + ": the plug-in did not instantiate");
    if (scan.nonFinite)
        result.fail(format("%s: %zu non-finite samples", what.c_str(), scan.nonFinite));
    if (scan.subnormal)
        result.fail(format("%s: %zu subnormal samples", what.c_str(), scan.subnormal));
    peak = std::max(peak, scan.peak);
}

bool same(const Render& a, const Render& b) {
    return identical(a.left, b.left) && identical(a.right, b.right);
}

} // namespace

Result checkSampleRates(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    const double rates[] = {8000,  22050, 44100,  44100.5, 48000,
                            88200, 96000, 176400, 192000,  384000};
    const double seconds = ctx.full ? 2.0 : 0.25;
    float peak = 0.0f;
    std::mt19937_64 rng(ctx.seed + 3);
    for (double rate : rates) {
        const Signal in(std::size_t(rate * seconds), rng);
        const Render out = render(world, in, fixed(512), Features::All, rate);
        expectClean(result, out, format("%.1f Hz", rate), peak);
        if (peak > 1.0f) result.fail(format("%.1f Hz: peak %.3f above full scale", rate, peak));
        if (!out.left.empty() && identical(out.left, in.left))
            result.fail(format("%.1f Hz: the output equals the input at default settings", rate));
    }
    result.figure = format("10 rates 8000-384000 Hz (44100.5 too), %.2f s each: finite, "
                           "no subnormals, peak %.2f",
                           seconds, peak);
    return result;
}

Result checkBlockSizes(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    std::mt19937_64 rng(ctx.seed + 4);
    const std::size_t frames = ctx.full ? 65536 : 16384;
    const Signal in(frames, rng);
    float peak = 0.0f;
    int runs = 0;
    const int calls = ctx.count(60, 200);
    for (Features features : {Features::All, Features::NoOptions}) {
        const char* how = features == Features::All ? "with options" : "without options";
        const auto expect = [&](const Render& out, const std::string& what) {
            ++runs;
            expectClean(result, out, what, peak);
        };
        // Every size from 1 to 64 over the first part of the signal, the rest at 512.
        for (std::size_t n = 1; n <= 64; ++n) {
            std::size_t done = 0;
            const std::size_t head = ctx.full ? 4096 : 1024;
            expect(render(
                       world, in,
                       [&] {
                           const std::size_t size = done < head ? n : 512;
                           done += size;
                           return size;
                       },
                       features),
                   format("blocks of %zu %s", n, how));
        }
        for (std::size_t n : {100, 127, 128, 500, 512, 1000, 1024, 2027, 2048, 4096, 8192, 16384})
            expect(render(world, in, fixed(n), features), format("blocks of %zu %s", n, how));
        std::uniform_int_distribution<std::size_t> size(1, 4096);
        std::bernoulli_distribution one(0.2);
        int made = 0;
        expect(render(
                   world, in,
                   [&]() -> std::size_t {
                       // After the random calls, the rest of the signal in large ones.
                       if (made++ >= calls) return 4096;
                       return one(rng) ? 1 : size(rng);
                   },
                   features),
               format("%d random sizes %s", calls, how));
    }
    result.figure = format("%d renders (every size 1..64, 12 listed sizes up to 16384, %d random "
                           "calls; with and without options): finite, no subnormals, peak %.2f",
                           runs, calls, peak);
    return result;
}

Result checkBuffers(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    std::mt19937_64 rng(ctx.seed + 5);
    const std::uint32_t block = 100;
    const std::size_t frames = ctx.full ? 16000 : 4000; // whole calls only
    const Signal in(frames, rng);
    Signal mono(frames, rng);
    mono.right = mono.left;
    const Render reference = render(world, in, fixed(block));
    const Render monoReference = render(world, mono, fixed(block));

    // Each layout renders `frames` in calls of `block`, through `call`.
    const auto layout = [&](auto&& setup, auto&& call) {
        Instance instance(world);
        instance.activate();
        setup();
        for (std::size_t at = 0; at < frames; at += block) call(instance, at);
    };
    int layouts = 0;
    const auto expect = [&](bool ok, const char* what) {
        ++layouts;
        if (!ok) result.fail(std::string(what) + ": the output differs from out-of-place buffers");
    };

    // In place: each output is its input's buffer.
    {
        Render buffer{in.left, in.right};
        layout([] {},
               [&](Instance& i, std::size_t at) {
                   i.run(&buffer.left[at], &buffer.right[at], &buffer.left[at], &buffer.right[at],
                         block);
               });
        expect(same(buffer, reference), "in place");
    }
    // All four audio ports on one buffer (a mono signal in).
    {
        std::vector<float> buffer = mono.left;
        layout([] {},
               [&](Instance& i, std::size_t at) {
                   i.run(&buffer[at], &buffer[at], &buffer[at], &buffer[at], block);
               });
        expect(identical(buffer, monoReference.left) || identical(buffer, monoReference.right),
               "all audio ports on one buffer");
    }
    // Both outputs on one buffer.
    {
        std::vector<float> buffer(frames);
        layout([] {},
               [&](Instance& i, std::size_t at) {
                   i.run(&in.left[at], &in.right[at], &buffer[at], &buffer[at], block);
               });
        expect(identical(buffer, reference.left) || identical(buffer, reference.right),
               "outputs aliased");
    }
    // Pointers off 16-byte alignment, outputs pre-filled with NaN, a guard zone after each.
    const float guard = 1234.5f;
    const std::size_t guardFrames = 64;
    int unwritten = 0, overrun = 0;
    for (std::size_t offset : {0, 1, 3}) {
        std::vector<float> storage[4];
        for (auto& s : storage) s.assign(frames + offset + guardFrames + block, guard);
        std::copy(in.left.begin(), in.left.end(), storage[0].begin() + long(offset));
        std::copy(in.right.begin(), in.right.end(), storage[1].begin() + long(offset));
        Render out{std::vector<float>(frames), std::vector<float>(frames)};
        layout([] {},
               [&](Instance& i, std::size_t at) {
                   float* outs[2] = {&storage[2][offset + at], &storage[3][offset + at]};
                   for (float* o : outs) {
                       std::fill(o, o + block, std::numeric_limits<float>::quiet_NaN());
                       std::fill(o + block, o + block + guardFrames, guard);
                   }
                   i.run(&storage[0][offset + at], &storage[1][offset + at], outs[0], outs[1],
                         block);
                   for (int c = 0; c < 2; ++c) {
                       for (std::size_t k = 0; k < block; ++k)
                           if (std::isnan(outs[c][k])) ++unwritten;
                       for (std::size_t k = block; k < block + guardFrames; ++k)
                           if (outs[c][k] != guard) ++overrun;
                       std::copy(outs[c], outs[c] + block,
                                 (c ? out.right : out.left).begin() + long(at));
                   }
               });
        expect(same(out, reference), offset ? "pointers offset by floats" : "out of place");
    }
    if (unwritten) result.fail(format("%d output samples left as the NaN they held", unwritten));
    if (overrun) result.fail(format("%d samples written past the end of the output", overrun));
    result.figure =
        format("%d layouts (in place, one buffer for all, aliased outputs, offsets 0/1/3 "
               "floats) match out-of-place; NaN-filled outputs fully written, "
               "guard zones untouched",
               layouts);
    return result;
}

Result checkInputs(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    std::mt19937_64 rng(ctx.seed + 6);
    const std::size_t frames = std::size_t(kRate * (ctx.full ? 2.0 : 0.5));
    const std::uint32_t block = 256;
    float peak = 0.0f;

    struct Case {
        const char* name;
        std::function<float(std::size_t)> sample;
    };
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    const std::vector<float> white = noise(frames, rng, 0.5f);
    const std::vector<float> tiny = noise(frames, rng, FLT_MIN);
    const Case cases[] = {
        {"noise", [&](std::size_t i) { return white[i]; }},
        {"silence", [](std::size_t) { return 0.0f; }},
        {"impulses", [](std::size_t i) { return i % 4800 == 0 ? 1.0f : 0.0f; }},
        {"DC", [](std::size_t) { return 0.5f; }},
        {"full-scale square", [](std::size_t i) { return (i / 240) % 2 ? 1.0f : -1.0f; }},
        {"+-FLT_MIN noise", [&](std::size_t i) { return tiny[i]; }},
    };
    for (const Case& c : cases) {
        Signal in(0, rng);
        in.left.resize(frames);
        for (std::size_t i = 0; i < frames; ++i) in.left[i] = c.sample(i);
        in.right = in.left;
        std::reverse(in.right.begin(), in.right.end());
        expectClean(result, render(world, in, fixed(block)), c.name, peak);
    }

    // One block of NaN or infinity, then normal input again.
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(),
                         -std::numeric_limits<float>::infinity()};
    const char* badNames[] = {"NaN", "+Inf", "-Inf"};
    for (int b = 0; b < 3; ++b) {
        Instance instance(world);
        instance.activate();
        std::vector<float> inL(block), inR(block), outL(block), outR(block);
        for (int call = 0; call < 20; ++call) {
            const bool poisoned = call == 5;
            for (std::uint32_t i = 0; i < block; ++i) {
                inL[i] = poisoned ? bad[b] : white[call * block + i];
                inR[i] = poisoned ? bad[b] : white[(call + 7) * block + i];
            }
            instance.run(inL.data(), inR.data(), outL.data(), outR.data(), block);
            if (poisoned) continue;
            Scan scan;
            scan.add(outL);
            scan.add(outR);
            if (scan.nonFinite)
                result.fail(format("%s block: %zu non-finite samples in block %d%s", badNames[b],
                                   scan.nonFinite, call, call == 6 ? " (the one after it)" : ""));
        }
    }

    // Subnormal input must not cost much more than normal input.
    const auto cost = [&](const std::vector<float>& x) {
        Instance instance(world);
        instance.activate();
        std::vector<float> outL(frames), outR(frames);
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t at = 0; at + block <= frames; at += block)
            instance.run(&x[at], &x[at], &outL[at], &outR[at], block);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    // The fastest of several interleaved rounds: other load on the machine only slows a round.
    double normal = 1e300, subnormal = 1e300;
    for (int round = 0; round < ctx.count(7, 11); ++round) {
        normal = std::min(normal, cost(white));
        subnormal = std::min(subnormal, cost(tiny));
    }
    const double ratio = subnormal / normal;
    if (ratio > 1.2)
        result.fail(format("subnormal input costs %.2f x normal input (limit 1.2)", ratio));
    result.figure = format("6 signals clean (peak %.2f); NaN/+Inf/-Inf block: finite from the next "
                           "block; subnormal input costs %.2f x normal",
                           peak, ratio);
    return result;
}

Result checkParameters(const Context& ctx) {
    Result result;
    World& world = World::get(ctx.bundle);
    std::mt19937_64 rng(ctx.seed + 7);
    const std::uint32_t block = 256;
    const std::vector<float> white = noise(std::size_t(kRate), rng, 0.5f);
    float peak = 0.0f;
    std::size_t cursor = 0;
    // `blocks` calls of `n` frames of noise, checked.
    const auto play = [&](Instance& instance, int blocks, std::uint32_t n, const char* what) {
        std::vector<float> outL(n), outR(n);
        for (int b = 0; b < blocks; ++b) {
            if (cursor + n > white.size()) cursor = 0;
            instance.run(&white[cursor], &white[white.size() - cursor - n], outL.data(),
                         outR.data(), n);
            cursor += n;
            expectClean(result, Render{outL, outR}, what, peak);
        }
    };

    const int sets = ctx.count(15, 50);
    {
        Instance instance(world);
        instance.activate();
        for (int s = 0; s < sets; ++s) {
            randomControls(world, instance.control, rng);
            play(instance, 5, block, "random values");
        }
    }
    // All at minimum, all at maximum, and random corners.
    const int corners = ctx.count(8, 40);
    for (int c = 0; c < corners + 2; ++c) {
        Instance instance(world);
        instance.activate();
        std::bernoulli_distribution high(0.5);
        for (const auto& p : world.controls)
            instance.control[p.index] = c == 0      ? p.minimum
                                        : c == 1    ? p.maximum
                                        : high(rng) ? p.maximum
                                                    : p.minimum;
        play(instance, 8, block, c == 0 ? "all at minimum" : c == 1 ? "all at maximum" : "corner");
    }
    // Values outside the range, and not numbers at all: ignored or held to the range.
    int outside = 0;
    {
        Instance instance(world);
        instance.activate();
        for (const auto& p : world.controls) {
            const float span = p.maximum - p.minimum;
            for (float v : {p.minimum - span - 1.0f, p.maximum + span + 1.0f, -1.0e30f, 1.0e30f,
                            -FLT_MAX, FLT_MAX, std::numeric_limits<float>::quiet_NaN(),
                            std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity()}) {
                instance.control[p.index] = v;
                play(instance, 2, block, "out-of-range value");
                ++outside;
            }
            instance.control[p.index] = std::numeric_limits<float>::quiet_NaN();
        }
        const auto state = instance.save();
        const auto values =
            state ? parameterValues(world, *state) : std::map<std::string, double>{};
        if (values.empty())
            result.fail("no parameter values in the state after out-of-range values");
        for (const auto& p : world.controls) {
            const auto found = values.find(p.symbol);
            if (found == values.end()) continue;
            if (!(found->second >= p.minimum && found->second <= p.maximum))
                result.fail(format("%s holds %g after out-of-range values (range %g..%g)",
                                   p.symbol.c_str(), found->second, p.minimum, p.maximum));
        }
    }
    // Changes every 1, 10, 100 and 1000 frames.
    const std::size_t span = std::size_t(kRate * (ctx.full ? 1.0 : 0.25));
    for (std::uint32_t every : {1u, 10u, 100u, 1000u}) {
        Instance instance(world);
        instance.activate();
        std::uniform_int_distribution<std::size_t> which(0, world.controls.size() - 1);
        for (std::size_t done = 0; done < span; done += every) {
            const auto& p = world.controls[which(rng)];
            std::uniform_real_distribution<float> d(p.minimum, p.maximum);
            instance.control[p.index] = p.integer || p.toggled ? std::round(d(rng)) : d(rng);
            play(instance, 1, every, "changes");
        }
    }
    result.figure =
        format("%d random sets x 5 blocks, %d extremes and corners, %d out-of-range/NaN "
               "writes (held in range), changes every 1/10/100/1000 frames: finite, "
               "no subnormals, peak %.2f",
               sets, corners + 2, outside, peak);
    return result;
}

} // namespace sr::validate
