#include "platform/MainQueue.h"

namespace sr {

bool DrainedMainQueue::async(const MainQueueTask& task) {
    if (tasks.push([&](MainQueueTask& slot) { slot = task; })) return true;
    refused.fetch_add(1, std::memory_order_relaxed);
    return false;
}

std::size_t DrainedMainQueue::drainQueued() {
    std::size_t ran = 0;
    // Copied out before it runs, so the slot is free again if the task queues another.
    MainQueueTask task;
    while (ran < kCapacity && tasks.pop([&](const MainQueueTask& slot) { task = slot; })) {
        task();
        ++ran;
    }
    const std::uint64_t r = refused.load(std::memory_order_relaxed);
    if (r != refusedReported) {
        LineBuilder<> line;
        line << "MainQueue: WARNING: " << (r - refusedReported) << " tasks refused (queue full)\n";
        log.safeprint(line.view());
        refusedReported = r;
    }
    return ran;
}

void DrainedMainQueue::discard() {
    while (tasks.pop([](const MainQueueTask&) {})) {
    }
}

} // namespace sr
