// The checks in order, the real-time tally and the memory check; and the
// program that runs them and prints the report.
#include "lv2/PluginURIs.h"
#include "validate/Check.h"
#include "validate/Host.h"
#include "validate/Process.h"
#include "validate/RealTime.h"

#include <lv2/atom/util.h>

#include <regex>

namespace sr::validate {

namespace {

// The editor's spectrum open: an instance told uiOn (as its editor says it) renders noise in
// calls of every few sizes, so the tap copies and the notify port carries input samples, all in
// watched calls. The messages seen on the notify port, for the report.
std::size_t runWithInputTap(const Context& ctx) {
    World& world = World::get(ctx.bundle);
    Instance instance(world);
    if (!instance.ok()) return 0;
    instance.activate();
    std::mt19937_64 rng(ctx.seed);
    const std::vector<float> left = noise(4096, rng), right = noise(4096, rng);
    std::vector<float> outL(4096), outR(4096);
    const LV2_URID object = world.urid(LV2_ATOM__Object);
    const LV2_Atom_Object_Body uiOn{0, world.urid(lv2::kUiOnURI)};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&uiOn);
    const std::size_t seconds = std::size_t(ctx.count(2, 10));
    const std::uint32_t sizes[] = {64, 1, 512, 4096, 100, 256};
    const LV2_URID samplesType = world.urid(lv2::kInputSamplesURI);
    std::size_t messages = 0, done = 0;
    for (std::size_t call = 0; done < seconds * 48000; ++call) {
        // Repeated now and then, as an editor repeats it.
        if (call % 200 == 0) instance.events.push_back({0, object, {bytes, bytes + sizeof uiOn}});
        const std::uint32_t n = sizes[call % std::size(sizes)];
        instance.run(left.data(), right.data(), outL.data(), outR.data(), n);
        done += n;
        LV2_ATOM_SEQUENCE_FOREACH(instance.notify.sequence(), ev) {
            const auto* o = reinterpret_cast<const LV2_Atom_Object*>(&ev->body);
            if (ev->body.type == object && o->body.otype == samplesType) ++messages;
        }
    }
    return messages;
}

} // namespace

Result checkRealTime(const Context& ctx) {
    Result result;
    const std::size_t messages = runWithInputTap(ctx);
    if (messages == 0) result.fail("no input samples reached the notify port after uiOn");
    // The interposition must reach code in shared objects, or a clean tally means nothing.
    const std::uint64_t seen = rt::probe([] {
        LilvWorld* world = lilv_world_new();
        lilv_world_free(world);
    });
    if (seen == 0) result.fail("the interposed functions are not reached from shared objects");
    const std::uint64_t calls = rt::total();
    if (calls)
        result.fail(format("%llu calls: %s", (unsigned long long)calls, rt::summary().c_str()));
    result.figure = format("%llu watched connect_port/run stretches in checks 3-7 and 9 and "
                           "with the editor's input tap open (%zu input messages sent): %llu "
                           "allocations, locks, waits, sleeps or writes (interposition live: %llu "
                           "calls seen in a probe)",
                           (unsigned long long)rt::watched(), messages, (unsigned long long)calls,
                           (unsigned long long)seen);
    return result;
}

Result checkValgrind(const Context& ctx) {
    Result result;
    if (!haveProgram("valgrind")) {
        result.fail("valgrind is not installed");
        return result;
    }
    std::vector<std::string> argv = {"valgrind",
                                     "--error-exitcode=99",
                                     "--leak-check=full",
                                     "--errors-for-leak-kinds=definite",
                                     "--show-leak-kinds=definite",
                                     ctx.self,
                                     "--only",
                                     "10,11,12",
                                     "--seed",
                                     std::to_string(ctx.seed),
                                     ctx.full ? "--full" : "--quick",
                                     ctx.bundle};
    const ProcessResult run = runProcess(argv);
    std::smatch m;
    long errors = -1, lost = -1;
    if (std::regex_search(run.output, m, std::regex(R"(ERROR SUMMARY: ([0-9,]+) errors)")))
        errors = std::stol(std::regex_replace(m[1].str(), std::regex(","), ""));
    if (std::regex_search(run.output, m, std::regex(R"(definitely lost: ([0-9,]+) bytes)")))
        lost = std::stol(std::regex_replace(m[1].str(), std::regex(","), ""));
    else if (run.output.find("All heap blocks were freed") != std::string::npos ||
             run.output.find("definitely lost") == std::string::npos)
        lost = 0;
    if (!run.started || errors < 0) {
        result.fail("valgrind did not run: " + run.output.substr(0, 300));
        return result;
    }
    if (errors) result.fail(format("%ld memcheck errors", errors));
    if (lost) result.fail(format("%ld bytes definitely lost", lost));
    if (run.exitCode != 0 && errors == 0)
        result.fail(format("checks 10-12 failed under valgrind (exit %d)", run.exitCode));
    if (!result.passed()) {
        // The first report, so the fault can be found without a rerun.
        const auto first = run.output.find("==\n==");
        result.fail(run.output.substr(first == std::string::npos ? 0 : first, 1500));
    }
    result.figure =
        format("checks 10-12 under memcheck: %ld errors, %ld bytes definitely lost", errors, lost);
    return result;
}

std::vector<Check> allChecks() {
    return {{1, "metadata", checkMetadata},
            {2, "binary", checkBinary},
            {3, "sample rates", checkSampleRates},
            {4, "block sizes", checkBlockSizes},
            {5, "buffers", checkBuffers},
            {6, "input", checkInputs},
            {7, "parameters", checkParameters},
            {8, "real time", checkRealTime},
            {9, "MIDI", checkMidi},
            {10, "lifecycle", checkLifecycle},
            {11, "state", checkState},
            {12, "presets", checkPresets},
            {13, "fuzzing", checkFuzzing},
            {14, "threads", checkThreads},
            {15, "UI", checkUi},
            {16, "valgrind", checkValgrind}};
}

} // namespace sr::validate
