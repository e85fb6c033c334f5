// The validator's checks: each one examines the built bundle and reports one line.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace sr::validate {

// Where things are and how hard to look.
struct Context {
    std::string bundle;     // the bundle folder, e.g. build/lv2/tav-sr-chorus.lv2
    bool full = false;      // full mode; quick mode samples the same cases
    std::uint64_t seed = 1; // every random case derives from it, so failures repeat
    std::string fuzzReplay; // the libFuzzer binary that replays crashers, if built
    std::string crashers;   // the folder of saved crashers-that-were-fixed
    std::string tsanStress; // the ThreadSanitizer stress binary, if built
    std::string self;       // this program, for re-running checks under valgrind

    // quick when sampling, full otherwise.
    int count(int quick, int fullCount) const { return full ? fullCount : quick; }
};

// What one check found: a figure for the report line and every problem, one per entry.
struct Result {
    std::string figure;
    std::vector<std::string> problems;
    bool skipped = false; // nothing to check in this bundle (said in the figure)

    void fail(std::string problem) { problems.push_back(std::move(problem)); }
    bool passed() const { return problems.empty(); }
};

struct Check {
    int number;
    const char* name;
    std::function<Result(const Context&)> run;
};

// The checks in report order.
std::vector<Check> allChecks();

Result checkMetadata(const Context&); // 1
Result checkBinary(const Context&);   // 2
Result checkSampleRates(const Context&);
Result checkBlockSizes(const Context&);
Result checkBuffers(const Context&);
Result checkInputs(const Context&);
Result checkParameters(const Context&);
Result checkRealTime(const Context&);
Result checkMidi(const Context&);
Result checkLifecycle(const Context&);
Result checkState(const Context&);
Result checkPresets(const Context&);
Result checkFuzzing(const Context&);  // 13
Result checkThreads(const Context&);  // 14
Result checkUi(const Context&);       // 15
Result checkValgrind(const Context&); // 16

} // namespace sr::validate
