// The main queue: work handed from the render thread (or any other) to the thread that owns the
// audio unit's object state. Each host provides an executor and runs its tasks on its own
// schedule (between render calls, at the start of the next plug-in run, in its main loop).
// Handing a task over never blocks, allocates or makes a system call.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>

#include "platform/PrintQueue.h"
#include "util/BoundedMPSCQueue.h"

namespace sr {

// A small callable held by value: it must be trivially copyable (plain data and pointers), so
// tasks can be copied through a lock-free queue without constructors or heap storage.
class MainQueueTask {
public:
    static constexpr std::size_t kStorageBytes = 32;

    MainQueueTask() = default;
    template <typename F,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<F>, MainQueueTask>>>
    MainQueueTask(const F& callable) { // NOLINT: implicit, like a block literal
        static_assert(std::is_trivially_copyable_v<F>, "tasks carry plain data only");
        static_assert(sizeof(F) <= kStorageBytes, "task too large for its inline storage");
        static_assert(alignof(F) <= alignof(std::max_align_t));
        std::memcpy(storage, &callable, sizeof(F));
        invoke = [](const void* s) { (*std::launder(static_cast<const F*>(s)))(); };
    }

    explicit operator bool() const { return invoke != nullptr; }
    void operator()() const {
        if (invoke) invoke(storage);
    }

private:
    alignas(std::max_align_t) unsigned char storage[kStorageBytes]{};
    void (*invoke)(const void*) = nullptr;
};

class MainQueueExecutor {
public:
    virtual ~MainQueueExecutor() = default;
    // Any thread, real-time safe. Tasks run in the order they were handed over. False when the
    // task was refused because the queue is full; the executor reports refusals itself, so
    // callers need not log each one.
    virtual bool async(const MainQueueTask& task) = 0;
};

// An executor whose owner runs the queued tasks by calling drain(). Producers may be any number
// of threads; drain() must always be called from the same one.
class DrainedMainQueue : public MainQueueExecutor {
public:
    static constexpr std::size_t kCapacity = 4096;

    // Refusals are reported on the channel, which must outlive the queue.
    explicit DrainedMainQueue(LogChannel& log = standardLog()) : log(log) {}

    bool async(const MainQueueTask& task) override;
    // Runs the queued tasks in order, at most kCapacity of them so that a task which queues
    // another cannot keep the caller here; returns how many ran. Refused tasks since the last
    // drain are reported through the print queue.
    // Inline, as an owner that drains at the start of every render call mostly finds nothing.
    std::size_t drain() {
        if (!tasks.ready() && refused.load(std::memory_order_relaxed) == refusedReported) return 0;
        return drainQueued();
    }
    // Drops what is queued without running it (before the objects the tasks refer to go away).
    void discard();
    std::uint64_t refusedTasks() const { return refused.load(std::memory_order_relaxed); }

private:
    std::size_t drainQueued();

    LogChannel& log;
    BoundedMPSCQueue<MainQueueTask, kCapacity> tasks;
    std::atomic<std::uint64_t> refused{0};
    std::uint64_t refusedReported = 0;
};

} // namespace sr
