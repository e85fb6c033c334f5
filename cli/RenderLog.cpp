#include "cli/RenderLog.h"

#include <cerrno>
#include <cstring>

#include "cli/Errors.h"

namespace sr::cli {

RenderLog::RenderLog(const std::string& destination) {
    if (destination == "-") {
        toStandardOutput = true;
    } else if (!destination.empty()) {
        file = std::fopen(destination.c_str(), "w");
        if (!file)
            throw Error("cannot write the log '" + destination + "': " + std::strerror(errno));
    }
    channel_ = std::make_unique<LogChannel>(
        [this](LogLevel level, std::string_view text) { write(level, text); });
}

RenderLog::~RenderLog() {
    channel_.reset();
    if (file) std::fclose(file);
}

void RenderLog::write(LogLevel level, std::string_view text) {
    if (level == LogLevel::Error) {
        std::lock_guard<std::mutex> lock(mutex);
        errors.emplace_back(text.substr(0, text.find_last_not_of('\n') + 1));
    }
    std::FILE* out = toStandardOutput ? stdout : file;
    if (!out) return;
    std::fwrite(text.data(), 1, text.size(), out);
    if (text.empty() || text.back() != '\n') std::fputc('\n', out);
}

std::size_t RenderLog::errorCount() {
    channel_->flush();
    std::lock_guard<std::mutex> lock(mutex);
    return errors.size();
}

std::string RenderLog::firstErrorFrom(std::size_t index) {
    channel_->flush();
    std::lock_guard<std::mutex> lock(mutex);
    return index < errors.size() ? errors[index] : std::string();
}

} // namespace sr::cli
