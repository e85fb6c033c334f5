// sr-chorus-validate: checks a built LV2 bundle the way the validators hosts trust do, plus this
// plug-in's own risks, and prints one line per check.
#include "validate/Check.h"
#include "validate/Host.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

namespace {

void usage() {
    std::fputs("usage: sr-chorus-validate [--quick | --full] [--only N,N,...] [--seed N]\n"
               "                          [--fuzz-replay BINARY] [--crashers FOLDER]\n"
               "                          [--tsan-stress BINARY] [--log FILE] BUNDLE\n"
               "The plug-in's own log lines go to FILE (default: discarded).\n",
               stderr);
}

std::set<int> parseList(const std::string& text) {
    std::set<int> numbers;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) numbers.insert(std::stoi(item));
    return numbers;
}

} // namespace

int main(int argc, char** argv) {
    using namespace sr::validate;
    Context ctx;
    std::set<int> only;
    std::string logFile = "/dev/null";
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) > 0) ctx.self = self;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            const auto value = [&]() -> std::string {
                if (i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
                return argv[++i];
            };
            if (arg == "--quick")
                ctx.full = false;
            else if (arg == "--full")
                ctx.full = true;
            else if (arg == "--only")
                only = parseList(value());
            else if (arg == "--seed")
                ctx.seed = std::stoull(value());
            else if (arg == "--fuzz-replay")
                ctx.fuzzReplay = value();
            else if (arg == "--crashers")
                ctx.crashers = value();
            else if (arg == "--tsan-stress")
                ctx.tsanStress = value();
            else if (arg == "--log")
                logFile = value();
            else if (!arg.empty() && arg[0] != '-' && ctx.bundle.empty())
                ctx.bundle = arg;
            else
                throw std::invalid_argument("unknown argument " + arg);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "sr-chorus-validate: %s\n", e.what());
        usage();
        return 2;
    }
    if (ctx.bundle.empty()) {
        usage();
        return 2;
    }
    while (ctx.bundle.size() > 1 && ctx.bundle.back() == '/') ctx.bundle.pop_back();
    // The plug-in logs to standard output; the report keeps the original one to itself.
    std::fflush(stdout);
    const int reportFd = dup(STDOUT_FILENO);
    const int logFd = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (reportFd < 0 || logFd < 0) {
        std::fprintf(stderr, "sr-chorus-validate: cannot open %s\n", logFile.c_str());
        return 2;
    }
    dup2(logFd, STDOUT_FILENO);
    close(logFd);
    FILE* report = fdopen(reportFd, "w");
    World& world = World::get(ctx.bundle);
    if (!world.error.empty()) {
        std::fprintf(stderr, "sr-chorus-validate: %s\n", world.error.c_str());
        return 2;
    }

    std::fprintf(report, "sr-chorus-validate (%s mode, seed %llu): %s\n",
                 ctx.full ? "full" : "quick", (unsigned long long)ctx.seed, world.uri.c_str());
    std::fflush(report);
    const auto checks = allChecks();
    std::vector<Result> results(checks.size());
    std::vector<double> seconds(checks.size());
    // The real-time tally covers the MIDI check too, so it is taken after it.
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < checks.size(); ++i)
        if (checks[i].number != 8) order.push_back(i);
    for (std::size_t i = 0; i < order.size(); ++i)
        if (checks[order[i]].number == 9)
            for (std::size_t k = 0; k < checks.size(); ++k)
                if (checks[k].number == 8) order.insert(order.begin() + long(i) + 1, k);
    std::size_t printed = 0;
    std::vector<bool> done(checks.size());
    int passed = 0, failed = 0, skipped = 0;
    // Lines go out in check order as soon as every earlier check is done.
    const auto print = [&] {
        for (; printed < checks.size() && done[printed]; ++printed) {
            if (!only.empty() && !only.count(checks[printed].number)) continue;
            const Result& r = results[printed];
            const char* verdict = !r.passed() ? "FAIL" : r.skipped ? "n/a " : "PASS";
            (!r.passed() ? failed : r.skipped ? skipped : passed)++;
            std::fprintf(report, "%2d %-13s %s  %s (%.1f s)\n", checks[printed].number,
                         checks[printed].name, verdict, r.figure.c_str(), seconds[printed]);
            for (const auto& problem : r.problems)
                std::fprintf(report, "     - %s\n", problem.c_str());
            std::fflush(report);
        }
    };
    for (std::size_t index : order) {
        const Check& check = checks[index];
        if (only.empty() || only.count(check.number)) {
            const auto start = std::chrono::steady_clock::now();
            try {
                results[index] = check.run(ctx);
            } catch (const std::exception& e) {
                results[index].fail(std::string("the check stopped: ") + e.what());
            }
            seconds[index] =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        done[index] = true;
        print();
    }
    std::fprintf(report, "sr-chorus-validate: %d passed, %d failed, %d not applicable\n", passed,
                 failed, skipped);
    return failed ? 1 : 0;
}
