#include "platform/PrintQueue.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace sr {

LogLevel levelOfLine(std::string_view line) {
    if (line.find("ERROR") != std::string_view::npos) return LogLevel::Error;
    if (line.find("WARNING") != std::string_view::npos) return LogLevel::Warning;
    return LogLevel::Note;
}

PrintQueue::PrintQueue() {
    worker = std::thread([this] { run(); });
}

PrintQueue::~PrintQueue() {
    stopping.store(true, std::memory_order_release);
    if (worker.joinable()) worker.join();
}

PrintQueue::ChannelId PrintQueue::open(LevelSink channelSink,
                                       const std::atomic<std::uint64_t>* droppedLines) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    const ChannelId id = nextChannel++;
    channels.push_back({id, std::move(channelSink), droppedLines,
                        droppedLines ? droppedLines->load(std::memory_order_relaxed) : 0});
    return id;
}

void PrintQueue::close(ChannelId id) {
    using namespace std::chrono_literals;
    // A host log that never returns must not keep its instance from going: after a second the
    // rest is dropped.
    waitWritten(pushed.load(std::memory_order_acquire), 1000ms);
    std::lock_guard<std::mutex> lock(sinkMutex);
    const auto found = std::find_if(channels.begin(), channels.end(),
                                    [id](const Channel& c) { return c.id == id; });
    if (found == channels.end()) return;
    reportDrops(*found);
    channels.erase(found);
}

bool PrintQueue::push(ChannelId channel, LogLevel level, std::string_view line) {
    const bool queued = lines.push([&](Line& slot) {
        const std::size_t n = std::min(line.size(), kLineCapacity);
        std::memcpy(slot.text, line.data(), n);
        slot.length = std::uint16_t(n);
        slot.channel = channel;
        slot.level = level;
    });
    if (queued) pushed.fetch_add(1, std::memory_order_relaxed);
    return queued;
}

bool PrintQueue::popOne() {
    const bool got = lines.pop([this](const Line& slot) {
        std::lock_guard<std::mutex> lock(sinkMutex);
        write(slot.channel, slot.level, std::string_view(slot.text, slot.length));
    });
    if (got) written.fetch_add(1, std::memory_order_release);
    return got;
}

void PrintQueue::write(ChannelId id, LogLevel level, std::string_view text) {
    for (const Channel& channel : channels)
        if (channel.id == id) return writeTo(channel, level, text);
    // The channel was closed: its host is gone, and so is the line.
}

void PrintQueue::writeTo(const Channel& channel, LogLevel level, std::string_view text) {
    if (channel.sink) {
        channel.sink(level, text);
    } else if (sink) {
        sink(text);
    } else {
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
    }
}

void PrintQueue::reportDrops(Channel& channel) {
    if (!channel.dropped) return;
    const std::uint64_t d = channel.dropped->load(std::memory_order_acquire);
    if (d == channel.reported) return;
    writeTo(channel, LogLevel::Warning,
            "PrintQueue: " + std::to_string(d - channel.reported) +
                " log lines dropped (queue full)\n");
    channel.reported = d;
}

void PrintQueue::run() {
    using namespace std::chrono_literals;
    for (;;) {
        const bool last = stopping.load(std::memory_order_acquire);
        bool any = false;
        while (popOne()) any = true;
        {
            // Drops counted before this snapshot are in their channels' counts already.
            const std::uint64_t droppedSoFar = dropped.load(std::memory_order_acquire);
            std::lock_guard<std::mutex> lock(sinkMutex);
            for (Channel& channel : channels) reportDrops(channel);
            if (any || droppedSoFar) std::fflush(stdout);
            dropReported.store(droppedSoFar, std::memory_order_release);
        }
        if (last) return;
        // Polling keeps producers free of any wake-up system call.
        if (!any) std::this_thread::sleep_for(2ms);
    }
}

bool PrintQueue::waitWritten(std::uint64_t target, std::chrono::milliseconds limit) {
    using namespace std::chrono_literals;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (written.load(std::memory_order_acquire) < target) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

void PrintQueue::flush() {
    using namespace std::chrono_literals;
    const std::uint64_t target = pushed.load(std::memory_order_acquire);
    const std::uint64_t droppedTarget = dropped.load(std::memory_order_acquire);
    while (!waitWritten(target, 1000ms) ||
           dropReported.load(std::memory_order_acquire) < droppedTarget)
        std::this_thread::sleep_for(1ms);
    std::lock_guard<std::mutex> lock(sinkMutex);
    std::fflush(stdout);
}

void PrintQueue::countDrop() {
    dropped.fetch_add(1, std::memory_order_acq_rel);
}

void PrintQueue::setSink(Sink s) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    sink = std::move(s);
}

PrintQueue& printQueue() {
    static PrintQueue queue;
    return queue;
}

// ---- channels ------------------------------------------------------------------------------

LogChannel::LogChannel() : LogChannel(nullptr) {}

LogChannel::LogChannel(Sink sink)
    : queue(printQueue()), id(queue.open(std::move(sink), &dropped)) {}

LogChannel::~LogChannel() {
    queue.close(id);
}

void LogChannel::print(LogLevel level, std::string_view line) {
    if (queue.push(id, level, line)) return;
    // The channel's count first: the writer reports it once it sees the queue's.
    dropped.fetch_add(1, std::memory_order_acq_rel);
    queue.countDrop();
}

LogChannel& standardLog() {
    static LogChannel channel;
    return channel;
}

void debugprint(std::string_view line) {
    standardLog().debugprint(line);
}
void safeprint(std::string_view line) {
    standardLog().safeprint(line);
}

} // namespace sr
