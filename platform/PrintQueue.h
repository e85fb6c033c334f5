// Log output that never blocks its caller. Lines are copied into a bounded lock-free queue and
// written, in order, by a background thread: each to the channel it was printed on, which
// belongs to one host object (an audio unit and everything it owns) and writes where that host
// keeps its log (an LV2 host's log, a file, standard output). A full queue drops the line and
// counts it for its channel; the count is reported on the channel once the queue has drained.
// Safe on the render thread: printing neither allocates, locks nor makes a system call.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "util/BoundedMPSCQueue.h"

namespace sr {

// Builds one line in a fixed buffer; truncates instead of growing.
template <std::size_t Capacity = 256>
class LineBuilder {
public:
    LineBuilder& operator<<(std::string_view text) {
        const std::size_t n = std::min(text.size(), Capacity - length);
        std::memcpy(buffer.data() + length, text.data(), n);
        length += n;
        return *this;
    }
    LineBuilder& operator<<(const char* text) {
        return *this << std::string_view(text ? text : "");
    }
    LineBuilder& operator<<(char c) { return *this << std::string_view(&c, 1); }
    LineBuilder& operator<<(std::uint64_t v) { return number(v); }
    LineBuilder& operator<<(std::int64_t v) { return number(v); }
    LineBuilder& operator<<(std::uint32_t v) { return number(v); }
    LineBuilder& operator<<(std::int32_t v) { return number(v); }
    // Fixed notation with six decimals, as printf's %f.
    LineBuilder& fixed(double v) {
        if (v != v) return *this << (std::signbit(v) ? "-nan" : "nan");
        if (v == HUGE_VAL) return *this << "inf";
        if (v == -HUGE_VAL) return *this << "-inf";
        char digits[400];
        const auto r =
            std::to_chars(digits, digits + sizeof digits, v, std::chars_format::fixed, 6);
        return *this << std::string_view(digits, std::size_t(r.ptr - digits));
    }
    std::string_view view() const { return {buffer.data(), length}; }

private:
    template <typename T>
    LineBuilder& number(T v) {
        char digits[24];
        const auto r = std::to_chars(digits, digits + sizeof digits, v);
        return *this << std::string_view(digits, std::size_t(r.ptr - digits));
    }
    std::array<char, Capacity> buffer{};
    std::size_t length = 0;
};

// How much a line matters to whoever reads the log. Trace lines follow every step of the unit
// (member calls, each parameter the kernel receives, each MIDI event); hosts that keep levels
// usually hide them.
enum class LogLevel : std::uint8_t { Trace, Note, Warning, Error };

// The level a line's own text gives it: "ERROR" makes an error, "WARNING" a warning, anything
// else a note.
LogLevel levelOfLine(std::string_view line);

class PrintQueue {
public:
    static constexpr std::size_t kSlots = 4096;
    static constexpr std::size_t kLineCapacity = 248;
    using Sink = std::function<void(std::string_view)>;
    using LevelSink = std::function<void(LogLevel, std::string_view)>;
    using ChannelId = std::uint32_t;

    PrintQueue();
    ~PrintQueue();
    PrintQueue(const PrintQueue&) = delete;
    PrintQueue& operator=(const PrintQueue&) = delete;

    // A channel whose lines go to `sink` (called on the queue's thread), or, with no sink, to
    // standard output (or what setSink() names). The channel's owner counts the lines it
    // queued and those the queue had no room for; both counters must outlive the channel. Not
    // real-time safe.
    ChannelId open(LevelSink sink, const std::atomic<std::uint64_t>* queued,
                   const std::atomic<std::uint64_t>* dropped);
    // Waits (up to a second) until the channel's lines queued so far are written, then forgets
    // the channel: its sink is never called again, and lines still arriving are dropped.
    void close(ChannelId channel);

    // Any thread, real-time safe. False when the queue was full and the line dropped.
    bool push(ChannelId channel, LogLevel level, std::string_view line);
    // Blocks (never call on the render thread) until everything pushed so far is written,
    // together with the report of any lines dropped before.
    void flush();
    // Where lines of channels without a sink go (standard output by default). Not real-time
    // safe.
    void setSink(Sink sink);
    std::uint64_t droppedLines() const { return dropped.load(std::memory_order_relaxed); }
    // Counts a line a channel could not push, after the channel's own count.
    void countDrop();

private:
    struct Line {
        ChannelId channel;
        LogLevel level;
        std::uint16_t length;
        char text[kLineCapacity];
    };
    struct Channel {
        ChannelId id;
        LevelSink sink;
        const std::atomic<std::uint64_t>* queued;
        const std::atomic<std::uint64_t>* dropped;
        std::uint64_t written;
        std::uint64_t reported;
    };
    // With sinkMutex held.
    Channel* find(ChannelId id);
    bool popOne();
    void run();
    // With sinkMutex held.
    void write(ChannelId channel, LogLevel level, std::string_view text);
    void writeTo(const Channel& channel, LogLevel level, std::string_view text);
    void reportDrops(Channel& channel);

    BoundedMPSCQueue<Line, kSlots> lines;
    std::atomic<std::uint64_t> pushed{0};
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> dropped{0};
    // The drops the writer has reported on their channels.
    std::atomic<std::uint64_t> dropReported{0};
    std::atomic<bool> stopping{false};
    std::mutex sinkMutex;
    // The writer's sleep between polls, cut short by nudge() (never from the render thread:
    // producers only push).
    void nudge();
    std::mutex wakeMutex;
    std::condition_variable wake;
    bool nudged = false;
    Sink sink;
    std::vector<Channel> channels;
    ChannelId nextChannel = 1;
    std::thread worker;
};

// The process's log queue, started on first use. Call it once off the render thread before
// rendering (every log channel's constructor does).
PrintQueue& printQueue();

// One host object's log: what it prints reaches its own host's log. The owner creates it before
// the objects that print on it and destroys it after them; lines still queued then are written
// first (or dropped once the queue has taken a second), never handed to a sink that is gone.
class LogChannel {
public:
    using Sink = PrintQueue::LevelSink;

    // Standard output: the choice of a host that keeps no log of its own.
    LogChannel();
    // The host's log, called on the print queue's thread with each line as it was printed
    // (ending with a line feed).
    explicit LogChannel(Sink sink);
    ~LogChannel();
    LogChannel(const LogChannel&) = delete;
    LogChannel& operator=(const LogChannel&) = delete;

    // Any thread, real-time safe: they only queue the text. The level comes from the text.
    void debugprint(std::string_view line) { print(levelOfLine(line), line); }
    void safeprint(std::string_view line) { print(levelOfLine(line), line); }
    // A trace line, whatever its text.
    void trace(std::string_view line) { print(LogLevel::Trace, line); }
    void print(LogLevel level, std::string_view line);

    // Not on the render thread: waits until everything queued so far is written.
    void flush() { queue.flush(); }
    std::uint64_t droppedLines() const { return dropped.load(std::memory_order_relaxed); }

private:
    PrintQueue& queue;
    std::atomic<std::uint64_t> queued{0};
    std::atomic<std::uint64_t> dropped{0};
    PrintQueue::ChannelId id;
};

// The process's standard-output channel, for code that belongs to no host object (tools, and
// tests that build parts of the unit alone).
LogChannel& standardLog();

// Lines on the standard channel; both only queue the text.
void debugprint(std::string_view line);
void safeprint(std::string_view line);

} // namespace sr
