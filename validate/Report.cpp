// The checks in order, the real-time tally and the memory check; and the
// program that runs them and prints the report.
#include "validate/Check.h"
#include "validate/Host.h"
#include "validate/Process.h"
#include "validate/RealTime.h"

#include <regex>

namespace sr::validate {

Result checkRealTime(const Context&) {
    Result result;
    // The interposition must reach code in shared objects, or a clean tally means nothing.
    const std::uint64_t seen = rt::probe([] {
        LilvWorld* world = lilv_world_new();
        lilv_world_free(world);
    });
    if (seen == 0) result.fail("the interposed functions are not reached from shared objects");
    const std::uint64_t calls = rt::total();
    if (calls)
        result.fail(format("%llu calls: %s", (unsigned long long)calls, rt::summary().c_str()));
    result.figure = format("%llu watched connect_port/run stretches in checks 3-7 and 9: %llu "
                           "allocations, locks, waits, sleeps or writes (interposition live: %llu "
                           "calls seen in a probe)",
                           (unsigned long long)rt::watched(), (unsigned long long)calls,
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
