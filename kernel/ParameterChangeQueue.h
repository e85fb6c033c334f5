// Parameter changes from other threads on their way to the render thread, which applies them
// at the start of its next render call. Posting never blocks. When the queue is full the change
// is kept in a per-address slot instead (the latest value wins), so no change is ever lost.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "kernel/ParameterTable.h"
#include "util/BoundedMPSCQueue.h"

namespace sr {

class ParameterChangeQueue {
public:
    static constexpr std::size_t kCapacity = 1024;
    static_assert(kParameterCount <= 32, "overflow slots are flagged in one 32-bit mask");

    ParameterChangeQueue() {
        for (auto& c : queued) c.store(0);
    }

    // Any thread. Addresses outside the table are ignored.
    void post(std::uint64_t address, float value) {
        if (address >= kParameterCount) return;
        latest[address].store(value, std::memory_order_relaxed);
        queued[address].fetch_add(1, std::memory_order_relaxed);
        // Once something overflowed, later changes follow it there, keeping their order.
        if (overflowMask.load(std::memory_order_acquire) == 0 && queue.push([&](Change& c) {
                c = {address, value};
            }))
            return;
        queued[address].fetch_sub(1, std::memory_order_relaxed);
        overflowValue[address].store(value, std::memory_order_relaxed);
        overflowMask.fetch_or(1u << address, std::memory_order_release);
    }

    // Render thread: whether drain() has anything to apply (two loads; usually false).
    bool pending() const {
        return queue.ready() || overflowMask.load(std::memory_order_relaxed) != 0;
    }

    // Render thread: apply(address, value) for every change, oldest first.
    template <typename Apply>
    void drain(Apply&& apply) {
        while (queue.pop([&](const Change& c) {
            apply(c.address, c.value);
            queued[c.address].fetch_sub(1, std::memory_order_release);
        })) {
        }
        if (overflowMask.load(std::memory_order_relaxed) == 0) return;
        std::uint32_t mask = overflowMask.exchange(0, std::memory_order_acq_rel);
        for (std::uint64_t a = 0; mask; ++a, mask >>= 1)
            if (mask & 1u) apply(a, overflowValue[a].load(std::memory_order_relaxed));
    }

    // The latest posted value of an address the render thread has not applied yet.
    bool pendingValue(std::uint64_t address, float& value) const {
        if (address >= kParameterCount) return false;
        if (queued[address].load(std::memory_order_acquire) == 0 &&
            !(overflowMask.load(std::memory_order_acquire) & (1u << address)))
            return false;
        value = latest[address].load(std::memory_order_relaxed);
        return true;
    }

private:
    struct Change {
        std::uint64_t address;
        float value;
    };
    BoundedMPSCQueue<Change, kCapacity> queue;
    std::array<std::atomic<float>, kParameterCount> latest{};
    std::array<std::atomic<std::uint32_t>, kParameterCount> queued;
    std::array<std::atomic<float>, kParameterCount> overflowValue{};
    std::atomic<std::uint32_t> overflowMask{0};
};

} // namespace sr
