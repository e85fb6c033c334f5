// What the editor shows of incoming MIDI: each event the render thread saw, as a fixed-size
// record, handed over through a bounded lock-free queue. Recording never blocks or allocates;
// when the reader falls behind, new events are dropped and counted.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/AudioTypes.h"
#include "util/BoundedMPSCQueue.h"

// One incoming MIDI message with its time. Messages longer than three bytes (system exclusive)
// keep their first three bytes and their full length.
struct AUMIDIEventEx {
    AUEventSampleTime eventSampleTime = 0;
    std::uint8_t cable = 0;
    std::uint16_t length = 0;
    std::uint8_t data[3] = {0, 0, 0};

    static AUMIDIEventEx from(const AUMIDIEvent& event) {
        AUMIDIEventEx record;
        record.eventSampleTime = event.eventSampleTime;
        record.cable = event.cable;
        record.length = event.length;
        const std::uint8_t* bytes = event.bytes();
        for (std::uint16_t i = 0; i < 3 && i < event.length; ++i) record.data[i] = bytes[i];
        return record;
    }
};

class AUMIDIMonitor {
public:
    static constexpr std::size_t kCapacity = 256;

    // Render thread.
    void record(const AUMIDIEventEx& event) {
        if (!events.push([&](AUMIDIEventEx& slot) { slot = event; }))
            dropped.fetch_add(1, std::memory_order_relaxed);
    }
    // Reader thread (one): the oldest event not yet taken.
    std::optional<AUMIDIEventEx> next() {
        std::optional<AUMIDIEventEx> event;
        events.pop([&](const AUMIDIEventEx& slot) { event = slot; });
        return event;
    }
    // Reader thread: forgets what was recorded.
    void clearMonitoring() {
        while (events.pop([](const AUMIDIEventEx&) {})) {
        }
    }
    std::uint64_t droppedEvents() const { return dropped.load(std::memory_order_relaxed); }

private:
    sr::BoundedMPSCQueue<AUMIDIEventEx, kCapacity> events;
    std::atomic<std::uint64_t> dropped{0};
};
