// Where the renderer puts the audio unit's log: nowhere by default, so that standard output holds
// the renderer's own report only; a file, or standard output, when asked (--log FILE, --log -).
// Error lines are kept whatever the choice, so that a refusal that stops the run can say why in
// its one line on standard error.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/PrintQueue.h"

namespace sr::cli {

class RenderLog {
public:
    // "" discards the lines, "-" writes them to standard output, anything else is a file
    // (created or emptied). Throws Error when the file cannot be opened.
    explicit RenderLog(const std::string& destination);
    ~RenderLog();
    RenderLog(const RenderLog&) = delete;
    RenderLog& operator=(const RenderLog&) = delete;

    LogChannel& channel() { return *channel_; }
    // How many error lines were logged so far, and the first of those from the index-th on
    // (without its line feed; empty when there is none): what went wrong first in a step.
    std::size_t errorCount();
    std::string firstErrorFrom(std::size_t index);

private:
    void write(LogLevel level, std::string_view text);

    std::FILE* file = nullptr;
    bool toStandardOutput = false;
    std::mutex mutex;
    std::vector<std::string> errors;
    // Last, so that it is closed (its lines written) before the file.
    std::unique_ptr<LogChannel> channel_;
};

} // namespace sr::cli
