// Bounded multi-producer, single-consumer queue. Push and pop never block, allocate or make a
// system call, so either side may be a real-time thread. A producer claims a cell by advancing
// the enqueue position, fills it, and publishes it through the cell's sequence number
// (release); the consumer takes it after seeing that number (acquire).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace sr {

template <typename T, std::size_t Capacity>
class BoundedMPSCQueue {
public:
    BoundedMPSCQueue() : cells(new Cell[Capacity]) {
        for (std::size_t i = 0; i < Capacity; ++i) cells[i].sequence.store(i);
    }

    // fill(T&) writes the element. False when the queue is full.
    template <typename Fill>
    bool push(Fill&& fill) {
        std::size_t pos = enqueuePos.load(std::memory_order_relaxed);
        Cell* cell;
        for (;;) {
            cell = &cells[pos % Capacity];
            const std::size_t seq = cell->sequence.load(std::memory_order_acquire);
            const auto diff = std::intptr_t(seq) - std::intptr_t(pos);
            if (diff == 0) {
                if (enqueuePos.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed))
                    break;
            } else if (diff < 0) {
                return false;
            } else {
                pos = enqueuePos.load(std::memory_order_relaxed);
            }
        }
        fill(cell->value);
        cell->sequence.store(pos + 1, std::memory_order_release);
        return true;
    }

    // Consumer only: whether pop() finds an element, told without taking it.
    bool ready() const {
        return cells[dequeuePos % Capacity].sequence.load(std::memory_order_acquire) ==
               dequeuePos + 1;
    }

    // Consumer only: consume(const T&) reads the oldest element. False when empty.
    template <typename Consume>
    bool pop(Consume&& consume) {
        Cell& cell = cells[dequeuePos % Capacity];
        if (cell.sequence.load(std::memory_order_acquire) != dequeuePos + 1) return false;
        consume(static_cast<const T&>(cell.value));
        cell.sequence.store(dequeuePos + Capacity, std::memory_order_release);
        ++dequeuePos;
        return true;
    }

private:
    struct Cell {
        std::atomic<std::size_t> sequence{0};
        T value{};
    };
    std::unique_ptr<Cell[]> cells;
    alignas(64) std::atomic<std::size_t> enqueuePos{0};
    alignas(64) std::size_t dequeuePos = 0;
};

} // namespace sr
