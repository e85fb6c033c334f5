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
    nudge();
    if (worker.joinable()) worker.join();
}

void PrintQueue::nudge() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex);
        nudged = true;
    }
    wake.notify_one();
}

PrintQueue::ChannelId PrintQueue::open(LevelSink channelSink,
                                       const std::atomic<std::uint64_t>* queued,
                                       const std::atomic<std::uint64_t>* droppedLines) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    const ChannelId id = nextChannel++;
    channels.push_back({id, std::move(channelSink), queued, droppedLines,
                        queued->load(std::memory_order_relaxed),
                        droppedLines->load(std::memory_order_relaxed)});
    return id;
}

PrintQueue::Channel* PrintQueue::find(ChannelId id) {
    for (Channel& channel : channels)
        if (channel.id == id) return &channel;
    return nullptr;
}

void PrintQueue::close(ChannelId id) {
    using namespace std::chrono_literals;
    // A host log that never returns must not keep its instance from going: after a second the
    // rest is dropped.
    const auto deadline = std::chrono::steady_clock::now() + 1000ms;
    nudge();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(sinkMutex);
            Channel* channel = find(id);
            if (!channel) return;
            const bool done = channel->written >= channel->queued->load(std::memory_order_acquire);
            if (done || std::chrono::steady_clock::now() >= deadline) {
                reportDrops(*channel);
                channels.erase(channels.begin() + (channel - channels.data()));
                return;
            }
        }
        std::this_thread::sleep_for(1ms);
    }
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
    // A closed channel's host is gone, and so is the line.
    Channel* channel = find(id);
    if (!channel) return;
    writeTo(*channel, level, text);
    ++channel->written;
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
    const std::uint64_t d = channel.dropped->load(std::memory_order_acquire);
    if (d == channel.reported) return;
    writeTo(channel, LogLevel::Warning,
            "PrintQueue: " + std::to_string(d - channel.reported) +
                " log lines dropped (queue full)\n");
    channel.reported = d;
}

void PrintQueue::run() {
    using namespace std::chrono_literals;
    // Polling keeps producers free of any wake-up system call. It backs off while nothing comes,
    // so an idle process (an editor that shows nothing new) is not woken 500 times a second.
    auto pause = 2ms;
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
        if (any) {
            pause = 2ms;
        } else {
            // Woken early by whoever waits for the lines (a closing channel, a flush, the end).
            std::unique_lock<std::mutex> lock(wakeMutex);
            wake.wait_for(lock, pause, [this] { return nudged; });
            nudged = false;
            pause = std::min<std::chrono::milliseconds>(pause * 2, 64ms);
        }
    }
}

void PrintQueue::flush() {
    using namespace std::chrono_literals;
    const std::uint64_t target = pushed.load(std::memory_order_acquire);
    const std::uint64_t droppedTarget = dropped.load(std::memory_order_acquire);
    nudge();
    while (written.load(std::memory_order_acquire) < target ||
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
    : queue(printQueue()), id(queue.open(std::move(sink), &queued, &dropped)) {}

LogChannel::~LogChannel() {
    queue.close(id);
}

void LogChannel::print(LogLevel level, std::string_view line) {
    if (queue.push(id, level, line)) {
        queued.fetch_add(1, std::memory_order_release);
        return;
    }
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
