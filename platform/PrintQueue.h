// Log output that never blocks its caller. Lines are copied into a bounded lock-free queue and
// written to standard output, in order, by a background thread. A full queue drops the line and
// counts it; the count is reported once the queue has drained. Safe on the render thread:
// pushing neither allocates, locks nor makes a system call.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

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

class PrintQueue {
public:
    static constexpr std::size_t kSlots = 4096;
    static constexpr std::size_t kLineCapacity = 248;
    using Sink = std::function<void(std::string_view)>;

    PrintQueue();
    ~PrintQueue();
    PrintQueue(const PrintQueue&) = delete;
    PrintQueue& operator=(const PrintQueue&) = delete;

    // Any thread, real-time safe. False when the queue was full and the line dropped.
    bool push(std::string_view line);
    // Blocks (never call on the render thread) until everything pushed so far is written,
    // together with the report of any lines dropped before.
    void flush();
    // Where lines go (standard output by default). Not real-time safe.
    void setSink(Sink sink);
    std::uint64_t droppedLines() const { return dropped.load(std::memory_order_relaxed); }

private:
    struct Line {
        std::uint16_t length;
        char text[kLineCapacity];
    };
    bool popOne();
    void run();
    void write(std::string_view text);

    BoundedMPSCQueue<Line, kSlots> lines;
    std::atomic<std::uint64_t> pushed{0};
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> droppedReported{0};
    std::atomic<bool> stopping{false};
    std::mutex sinkMutex;
    Sink sink;
    std::thread worker;
};

// The process's log queue, started on first use. Call it once off the render thread before
// rendering (every audio unit and kernel constructor does).
PrintQueue& printQueue();

// Main-thread and render-thread log calls; both only queue the text.
void debugprint(std::string_view line);
void safeprint(std::string_view line);

} // namespace sr
