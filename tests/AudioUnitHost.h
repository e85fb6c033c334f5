// A minimal host of the audio unit for tests: stereo busses in a chosen format, a recording MIDI
// output, render calls with a chosen event list, and a main queue the test drains between calls
// as a host's main thread would. Also captures the print queue's lines.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"
#include "platform/RenderEventList.h"
#include "tests/RenderHarness.h"
#include "tests/TestSignals.h"

namespace sr::test {

// Collects what the print queue writes, line by line, from construction on.
class LogCapture {
public:
    LogCapture() {
        printQueue().flush();
        printQueue().setSink([this](std::string_view text) {
            std::lock_guard<std::mutex> lock(mutex);
            for (std::size_t start = 0; start < text.size();) {
                std::size_t end = text.find('\n', start);
                if (end == std::string_view::npos) end = text.size();
                captured.emplace_back(text.substr(start, end - start));
                start = end + 1;
            }
        });
    }
    ~LogCapture() {
        printQueue().flush();
        printQueue().setSink(nullptr);
    }
    // Every line written so far, after waiting for the queue to drain.
    std::vector<std::string> lines() {
        printQueue().flush();
        std::lock_guard<std::mutex> lock(mutex);
        return captured;
    }
    // Lines containing `text`.
    std::vector<std::string> matching(std::string_view text) {
        std::vector<std::string> found;
        for (const std::string& line : lines())
            if (line.find(text) != std::string::npos) found.push_back(line);
        return found;
    }
    void clear() {
        printQueue().flush();
        std::lock_guard<std::mutex> lock(mutex);
        captured.clear();
    }

private:
    std::mutex mutex;
    std::vector<std::string> captured;
};

// Drops what the print queue writes while it lives (the unit's trace lines, the kernel's
// parameter log), for tests that render a lot and read none of it.
struct QuietLog {
    QuietLog() {
        printQueue().flush();
        printQueue().setSink([](std::string_view) {});
    }
    ~QuietLog() {
        printQueue().flush();
        printQueue().setSink(nullptr);
    }
};

struct SentMIDI {
    AUEventSampleTime time;
    std::uint8_t cable;
    std::vector<std::uint8_t> bytes;
    bool operator==(const SentMIDI&) const = default;
};

class AudioUnitHost {
public:
    struct Options {
        double sampleRate = 48000.0;
        bool midiOutput = true;
        OSStatus midiOutputStatus = noErr;
    };

    AudioUnitHost() : AudioUnitHost(Options{}) {}
    explicit AudioUnitHost(Options options) : unit(kTAVSRChorusComponentDescription, mainQueue) {
        const AVAudioFormat format(options.sampleRate, 2);
        unit.outputBusses()[0].setFormat(format);
        unit.inputBusses()[0].setFormat(format);
        if (options.midiOutput)
            unit.setMIDIOutputEventBlock([this, status = options.midiOutputStatus](
                                             AUEventSampleTime time, std::uint8_t cable,
                                             NSInteger length, const std::uint8_t* bytes) {
                sent.push_back({time, cable, {bytes, bytes + length}});
                return status;
            });
        unit.allocateRenderResources();
        block = unit.renderBlock();
    }
    ~AudioUnitHost() {
        mainQueue.discard();
        unit.deallocateRenderResources();
    }

    AUParameter& parameter(AUParameterAddress address) {
        return *unit.parameterTree()->parameterWithAddress(address);
    }
    // The value the kernel works with.
    AUValue kernelValue(AUParameterAddress address) {
        return unit.kernelAdapter().getParameterEx(std::int32_t(address));
    }

    // One render call of n frames, out of place, on bus `bus`, with the events of `list`.
    AUAudioUnitStatus renderCall(const float* inL, const float* inR, float* outL, float* outR,
                                 AUAudioFrameCount n, const AURenderEvent* events = nullptr,
                                 NSInteger bus = 0) {
        return renderStereoCall(block, time, inL, inR, outL, outR, n, events, bus, &pulls);
    }

    // Renders the whole input in calls of blockSize frames, draining the main queue after each.
    Stereo render(const Stereo& in, std::size_t blockSize) {
        Stereo out(in.size());
        for (std::size_t pos = 0; pos < in.size(); pos += blockSize) {
            const auto n = AUAudioFrameCount(std::min(blockSize, in.size() - pos));
            renderCall(&in.left[pos], &in.right[pos], &out.left[pos], &out.right[pos], n);
            mainQueue.drain();
        }
        return out;
    }

    // A render call of silence carrying `events`, then the main queue drained.
    void renderEvents(const AURenderEvent* events, AUAudioFrameCount n = 256) {
        Stereo in(n), out(n);
        renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), n, events);
        mainQueue.drain();
    }

    DrainedMainQueue mainQueue;
    TAV_SR_Chorus_Extension_AudioUnit unit;
    AURenderBlock block;
    AudioTimeStamp time;
    std::vector<SentMIDI> sent;
    int pulls = 0;
};

// Short MIDI messages for event lists.
inline void addMIDI(RenderEventList<>& list, AUEventSampleTime time,
                    std::initializer_list<std::uint8_t> bytes, std::uint8_t cable = 0) {
    const std::vector<std::uint8_t> data(bytes);
    list.addMIDI(time, cable, data.data(), std::uint16_t(data.size()));
}

} // namespace sr::test
