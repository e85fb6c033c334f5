#include "platform/PrintQueue.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace sr {

PrintQueue::PrintQueue() {
    worker = std::thread([this] { run(); });
}

PrintQueue::~PrintQueue() {
    stopping.store(true, std::memory_order_release);
    if (worker.joinable()) worker.join();
}

bool PrintQueue::push(std::string_view line) {
    const bool queued = lines.push([&](Line& slot) {
        const std::size_t n = std::min(line.size(), kLineCapacity);
        std::memcpy(slot.text, line.data(), n);
        slot.length = std::uint16_t(n);
    });
    if (!queued) {
        dropped.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    pushed.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool PrintQueue::popOne() {
    const bool got =
        lines.pop([this](const Line& slot) { write(std::string_view(slot.text, slot.length)); });
    if (got) written.fetch_add(1, std::memory_order_release);
    return got;
}

void PrintQueue::write(std::string_view text) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    if (sink) {
        sink(text);
    } else {
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
    }
}

void PrintQueue::run() {
    using namespace std::chrono_literals;
    // Polling keeps producers free of any wake-up system call. It backs off while nothing comes,
    // so an idle process (an editor that shows nothing new) is not woken 500 times a second.
    auto pause = 2ms;
    for (;;) {
        bool any = false;
        while (popOne()) any = true;
        const std::uint64_t d = dropped.load(std::memory_order_relaxed);
        const std::uint64_t reported = droppedReported.load(std::memory_order_relaxed);
        if (d != reported) {
            write("PrintQueue: " + std::to_string(d - reported) +
                  " log lines dropped (queue full)\n");
            droppedReported.store(d, std::memory_order_release);
        }
        if (any) {
            std::lock_guard<std::mutex> lock(sinkMutex);
            if (!sink) std::fflush(stdout);
        }
        if (stopping.load(std::memory_order_acquire)) {
            while (popOne()) {
            }
            std::fflush(stdout);
            return;
        }
        if (any) {
            pause = 2ms;
        } else {
            std::this_thread::sleep_for(pause);
            pause = std::min<std::chrono::milliseconds>(pause * 2, 64ms);
        }
    }
}

void PrintQueue::flush() {
    using namespace std::chrono_literals;
    const std::uint64_t target = pushed.load(std::memory_order_relaxed);
    const std::uint64_t droppedTarget = dropped.load(std::memory_order_relaxed);
    while (written.load(std::memory_order_acquire) < target ||
           droppedReported.load(std::memory_order_acquire) < droppedTarget)
        std::this_thread::sleep_for(1ms);
    std::lock_guard<std::mutex> lock(sinkMutex);
    std::fflush(stdout);
}

void PrintQueue::setSink(Sink s) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    sink = std::move(s);
}

PrintQueue& printQueue() {
    static PrintQueue queue;
    return queue;
}

void debugprint(std::string_view line) {
    printQueue().push(line);
}
void safeprint(std::string_view line) {
    printQueue().push(line);
}

} // namespace sr
