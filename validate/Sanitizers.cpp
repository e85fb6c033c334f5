// Checks 13 and 14: the sanitizer builds, run as programs of their own so that a crash or a
// report there is a finding of this check and not the validator's end. The fuzz target
// (address and undefined-behaviour sanitizers) replays the saved crashers and the seed presets,
// and in full mode fuzzes for a while; the thread stress runs under ThreadSanitizer.
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "validate/Check.h"
#include "validate/Host.h"
#include "validate/Process.h"

namespace sr::validate {

namespace {

namespace fs = std::filesystem;

constexpr int kFuzzSeconds = 60;

// What a sanitizer or libFuzzer prints when it finds something.
constexpr std::string_view kReportMarkers[] = {
    "ERROR: AddressSanitizer",  "ERROR: LeakSanitizer",      "ERROR: libFuzzer",
    "runtime error:",           "WARNING: ThreadSanitizer",  "ERROR: ThreadSanitizer",
    "ERROR: UndefinedBehavior", "SUMMARY: UndefinedBehavior"};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// The first report in the output with the lines after it that say where, or empty.
std::string firstReport(const std::string& output, std::size_t context = 12) {
    const std::vector<std::string> all = lines(output);
    for (std::size_t i = 0; i < all.size(); ++i)
        for (std::string_view marker : kReportMarkers)
            if (all[i].find(marker) != std::string::npos) {
                // A crash by signal follows what said why (an assertion, the fuzz target).
                const std::size_t from =
                    i > 0 && all[i].find("deadly signal") != std::string::npos ? i - 1 : i;
                std::string report;
                for (std::size_t k = from; k < std::min(all.size(), i + context); ++k)
                    report += "\n    " + all[k];
                return report;
            }
    return {};
}

std::size_t countOf(const std::string& text, std::string_view what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// The crashers live in <source>/fuzz/crashers, beside the fuzzer's own seeds; the presets the
// plug-in ships are the rest of the seed corpus.
struct FuzzInputs {
    fs::path crashers, seeds, presets, dictionary;
};

FuzzInputs fuzzInputs(const Context& ctx) {
    const fs::path crashers = fs::path(ctx.crashers).lexically_normal();
    const fs::path fuzz = crashers.parent_path();
    return {crashers, fuzz / "seeds", fuzz.parent_path() / "presets", fuzz / "plist.dict"};
}

std::string thousands(unsigned long long n) {
    char text[32];
    if (n >= 10'000'000)
        std::snprintf(text, sizeof text, "%.1fM", double(n) / 1e6);
    else if (n >= 10'000)
        std::snprintf(text, sizeof text, "%lluk", (n + 500) / 1000);
    else
        std::snprintf(text, sizeof text, "%llu", n);
    return text;
}

// libFuzzer's seed is 32 bits and 0 means "random"; runs must repeat.
unsigned fuzzSeed(std::uint64_t seed) {
    const auto s = unsigned(seed & 0x7FFFFFFFu);
    return s ? s : 1u;
}

// Why a sanitizer run failed, or empty when it was clean.
std::string sanitizerFailure(const ProcessResult& run) {
    if (!run.started) return run.output;
    if (std::string report = firstReport(run.output); !report.empty()) return report;
    if (run.exitCode != 0) {
        const std::vector<std::string> all = lines(run.output);
        std::string tail;
        for (std::size_t k = all.size() > 6 ? all.size() - 6 : 0; k < all.size(); ++k)
            tail += "\n    " + all[k];
        return "exit status " + std::to_string(run.exitCode) + tail;
    }
    return {};
}

} // namespace

Result checkFuzzing(const Context& ctx) {
    Result result;
    if (ctx.fuzzReplay.empty() || !haveProgram(ctx.fuzzReplay)) {
        result.figure = "fuzz target not built";
        result.fail("no fuzz target" + (ctx.fuzzReplay.empty() ? "" : " at " + ctx.fuzzReplay) +
                    ": build it with `make sanitizer-builds` (clang, libFuzzer; gives "
                    "build-fuzz/fuzz/sr-fuzz-presets)");
        return result;
    }
    const FuzzInputs inputs = fuzzInputs(ctx);
    std::error_code ec;
    if (ctx.crashers.empty() || !fs::is_directory(inputs.crashers, ec)) {
        result.figure = "no crashers folder";
        result.fail("the folder of saved crashers (" +
                    (ctx.crashers.empty() ? std::string("not given") : ctx.crashers) +
                    ") does not exist");
        return result;
    }
    const std::vector<std::string> crashers = filesIn(inputs.crashers);
    std::vector<std::string> seeds = filesIn(inputs.seeds);
    for (const std::string& preset : filesIn(inputs.presets))
        if (fs::path(preset).extension() == ".aupreset") seeds.push_back(preset);
    if (seeds.empty()) result.fail("no seed presets in " + inputs.presets.string());

    // Replay: libFuzzer runs each file given as an argument once.
    std::vector<std::string> argv = {ctx.fuzzReplay, "-timeout=30"};
    argv.insert(argv.end(), crashers.begin(), crashers.end());
    argv.insert(argv.end(), seeds.begin(), seeds.end());
    const ProcessResult replay = runProcess(argv);
    const std::size_t files = crashers.size() + seeds.size();
    std::size_t executed = 0;
    for (const std::string& line : lines(replay.output))
        if (line.rfind("Executed ", 0) == 0) ++executed;
    std::string replayFigure = "replayed " + std::to_string(crashers.size()) + " crashers + " +
                               std::to_string(seeds.size()) + " seeds: ";
    if (const std::string failure = sanitizerFailure(replay); !failure.empty()) {
        // libFuzzer names each file as it starts it; the last one named is the culprit.
        std::string culprit;
        for (const std::string& line : lines(replay.output))
            if (line.rfind("Running: ", 0) == 0) culprit = line.substr(9);
        result.fail("replaying " + (culprit.empty() ? std::string("the saved inputs") : culprit) +
                    ": " + failure);
        replayFigure += "FAILED";
    } else if (executed != files) {
        result.fail("replay ran " + std::to_string(executed) + " of " + std::to_string(files) +
                    " inputs");
        replayFigure += "incomplete";
    } else {
        replayFigure += "clean";
    }
    result.figure = replayFigure;
    if (!ctx.full) return result;

    // Full mode: fuzz from the same seeds for a fixed time on one core, into a scratch corpus.
    std::string scratch = (fs::temp_directory_path() / "sr-validate-fuzz-XXXXXX").string();
    if (!mkdtemp(scratch.data())) {
        result.fail("cannot create a scratch corpus folder");
        return result;
    }
    argv = {ctx.fuzzReplay,
            scratch,
            inputs.crashers.string(),
            "-max_total_time=" + std::to_string(kFuzzSeconds),
            "-seed=" + std::to_string(fuzzSeed(ctx.seed)),
            "-timeout=10",
            "-print_final_stats=1",
            "-artifact_prefix=" + scratch + "/"};
    for (const fs::path& folder : {inputs.seeds, inputs.presets})
        if (fs::is_directory(folder, ec)) argv.insert(argv.begin() + 3, folder.string());
    if (fs::is_regular_file(inputs.dictionary, ec))
        argv.push_back("-dict=" + inputs.dictionary.string());
    const ProcessResult fuzz = runProcess(argv);
    unsigned long long runs = 0;
    std::smatch match;
    static const std::regex kRuns(R"(stat::number_of_executed_units:\s*(\d+))");
    if (std::regex_search(fuzz.output, match, kRuns)) runs = std::stoull(match[1].str());
    result.figure +=
        "; fuzzed " + std::to_string(kFuzzSeconds) + " s, " + thousands(runs) + " runs: ";
    if (const std::string failure = sanitizerFailure(fuzz); !failure.empty()) {
        // The input is kept with the scratch corpus for a look and for fuzz/crashers/.
        static const std::regex kUnit(R"(Test unit written to (\S+))");
        const std::string unit =
            std::regex_search(fuzz.output, match, kUnit) ? match[1].str() : "in " + scratch;
        result.fail("fuzzing found an input (" + unit + "): " + failure);
        result.figure += "FOUND ONE";
    } else {
        fs::remove_all(scratch, ec);
        result.figure += "clean";
    }
    return result;
}

Result checkThreads(const Context& ctx) {
    Result result;
    if (ctx.tsanStress.empty() || !haveProgram(ctx.tsanStress)) {
        result.figure = "thread stress not built";
        result.fail("no ThreadSanitizer stress" +
                    (ctx.tsanStress.empty() ? "" : " at " + ctx.tsanStress) +
                    ": build it with `make sanitizer-builds` (gives "
                    "build-tsan/validate/tsan/sr-tsan-stress)");
        return result;
    }
    const int rounds = ctx.count(500, 5000);
    std::vector<std::string> argv = {ctx.tsanStress,
                                     "--blocks",
                                     std::to_string(rounds),
                                     "--sets",
                                     std::to_string(rounds),
                                     "--seed",
                                     std::to_string(fuzzSeed(ctx.seed))};
    std::error_code ec;
    if (!ctx.crashers.empty()) {
        const fs::path presets = fuzzInputs(ctx).presets;
        if (fs::is_directory(presets, ec)) {
            argv.push_back("--presets");
            argv.push_back(presets.string());
        }
    }
    // Every report is shown and counted, and any makes the exit status nonzero.
    const ProcessResult run =
        runProcess(argv, {"TSAN_OPTIONS=halt_on_error=0 exitcode=66 second_deadlock_stack=1 "
                          "history_size=4"});
    const std::size_t reports = countOf(run.output, "WARNING: ThreadSanitizer");

    static const std::regex kSummary(
        R"(sr-tsan-stress: (\d+) x (\d+) frames rendered .*?, (\d+) parameter sets, (\d+) preset loads \((\d+) failed\))");
    std::smatch match;
    const bool summarised = std::regex_search(run.output, match, kSummary);
    if (summarised) {
        result.figure = match[1].str() + " × " + match[2].str() + " frames vs " + match[3].str() +
                        " parameter sets + " + match[4].str() +
                        " preset loads: " + std::to_string(reports) +
                        (reports == 1 ? " report" : " reports");
        if (match[5].str() != "0") result.fail(match[5].str() + " preset loads failed");
    } else {
        result.figure = std::to_string(reports) + " reports, no summary";
    }
    if (!run.started) {
        result.fail(run.output);
        return result;
    }
    if (reports > 0) {
        // One line per report says what and where; the full stacks are in the stress's output.
        std::string summaries;
        for (const std::string& line : lines(run.output))
            if (line.rfind("SUMMARY: ThreadSanitizer", 0) == 0) summaries += "\n    " + line;
        result.fail(std::to_string(reports) + " ThreadSanitizer reports (rerun " + ctx.tsanStress +
                    " for the stacks):" + summaries);
    } else if (const std::string failure = sanitizerFailure(run); !failure.empty()) {
        result.fail("the stress failed: " + failure);
    } else if (!summarised) {
        result.fail("the stress printed no summary");
    }
    return result;
}

} // namespace sr::validate
