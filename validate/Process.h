// Runs another program and collects what it prints; the validator's outside tools and its
// sanitizer builds run this way, so a crash there is a finding, not the validator's end.
#pragma once

#include <string>
#include <vector>

namespace sr::validate {

struct ProcessResult {
    int exitCode = -1;    // the exit status, or 128 + signal when it was killed
    bool started = false; // false when the program could not be run at all
    std::string output;   // standard output and standard error, interleaved
};

// `environment` entries ("NAME=value") are added to this process's own.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& environment = {});

// True when `program` names an executable file, or one found on PATH.
bool haveProgram(const std::string& program);

} // namespace sr::validate
