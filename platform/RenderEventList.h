// A host's list of real-time events for one render call, built without allocation: fixed
// capacity, filled in any order, linked in time order (events of equal time keep the order in
// which they were added). What does not fit is refused and counted.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/AudioTypes.h"

template <std::size_t Capacity = 1024, std::size_t LongDataBytes = 16384>
class RenderEventList {
public:
    void clear() {
        count = 0;
        longUsed = 0;
        head_ = tail = nullptr;
    }

    bool addParameter(AUEventSampleTime time, AUParameterAddress address, AUValue value,
                      AUAudioFrameCount rampFrames = 0) {
        AURenderEvent* e = take();
        if (!e) return false;
        e->parameter = {};
        e->parameter.eventSampleTime = time;
        e->parameter.eventType = rampFrames ? AURenderEventParameterRamp : AURenderEventParameter;
        e->parameter.rampDurationSampleFrames = rampFrames;
        e->parameter.parameterAddress = address;
        e->parameter.value = value;
        link(e);
        return true;
    }

    // Any MIDI message; longer than three bytes (system exclusive) is copied into the list.
    bool addMIDI(AUEventSampleTime time, std::uint8_t cable, const std::uint8_t* bytes,
                 std::uint16_t length) {
        if (length > 3 && longUsed + length > LongDataBytes) {
            ++refused;
            return false;
        }
        AURenderEvent* e = take();
        if (!e) return false;
        e->MIDI = {};
        e->MIDI.eventSampleTime = time;
        e->MIDI.eventType =
            length > 0 && bytes[0] == 0xF0 ? AURenderEventMIDISysEx : AURenderEventMIDI;
        e->MIDI.length = length;
        e->MIDI.cable = cable;
        if (length <= 3) {
            std::memcpy(e->MIDI.data, bytes, length);
        } else {
            std::memcpy(longData.data() + longUsed, bytes, length);
            std::memcpy(e->MIDI.data, bytes, 3);
            e->MIDI.longData = longData.data() + longUsed;
            longUsed += length;
        }
        link(e);
        return true;
    }

    const AURenderEvent* head() const { return head_; }
    std::size_t size() const { return count; }
    std::uint64_t refusedCount() const { return refused; }

private:
    AURenderEvent* take() {
        if (count == Capacity) {
            ++refused;
            return nullptr;
        }
        return &events[count++];
    }

    void link(AURenderEvent* e) {
        e->head.next = nullptr;
        if (!head_) {
            head_ = tail = e;
            return;
        }
        if (tail->head.eventSampleTime <= e->head.eventSampleTime) { // the usual case: in order
            tail->head.next = e;
            tail = e;
            return;
        }
        if (e->head.eventSampleTime < head_->head.eventSampleTime) {
            e->head.next = head_;
            head_ = e;
            return;
        }
        AURenderEvent* p = head_;
        while (p->head.next && p->head.next->head.eventSampleTime <= e->head.eventSampleTime)
            p = p->head.next;
        e->head.next = p->head.next;
        p->head.next = e;
    }

    std::array<AURenderEvent, Capacity> events{};
    std::array<std::uint8_t, LongDataBytes> longData{};
    std::size_t count = 0;
    std::size_t longUsed = 0;
    std::uint64_t refused = 0;
    AURenderEvent* head_ = nullptr;
    AURenderEvent* tail = nullptr;
};
