// The app's real-time side, apart from any audio API: runs the audio unit for each cycle of
// the audio server, and lets the main thread reallocate the unit (a new sample rate or period)
// while the server keeps calling.
// Threading: the constructor, configure(), stop() and the destructor run on the main thread;
// process() on the audio thread. The two meet only in one atomic state: process() renders only
// after taking it from idle to rendering, and outputs silence (passing MIDI straight through)
// whenever the main thread holds it suspended. The audio thread never waits for anything.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <span>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "platform/HostRenderCycle.h"
#include "platform/PrintQueue.h"

namespace sr::app {

// Where the cycle's MIDI output goes (the audio server's output buffer). Audio thread.
class MidiOutput {
public:
    // False when the message found no room.
    virtual bool write(std::uint32_t frame, const std::uint8_t* bytes, std::size_t size) = 0;

protected:
    ~MidiOutput() = default;
};

class AudioEngine {
public:
    // The unit must outlive the engine. Its MIDI output is routed to process()'s MidiOutput.
    explicit AudioEngine(TAV_SR_Chorus_Extension_AudioUnit& unit);
    ~AudioEngine();
    AudioEngine(const AudioEngine&) = delete;
    AudioEngine& operator=(const AudioEngine&) = delete;

    // (Re)allocates the unit for a sample rate and a server period; the audio thread outputs
    // silence meanwhile. Returns once the unit renders again. Throws AUAudioUnitError (the unit
    // cannot render at that rate); the engine then stays silent.
    void configure(double sampleRate, std::uint32_t periodFrames);
    // From now on the audio thread leaves the unit alone; returns once a cycle in progress ends.
    void stop();
    // Any thread but the audio thread's: the server now runs at another rate. The unit would
    // render at the wrong one, so cycles are silent until configure() follows.
    void serverRateChanged(double sampleRate);

    double sampleRate() const { return rate; }
    // Each cycle's input, copied while a panel has the tap open (AppContext::inputTap()).
    InputTap& inputTap() { return tap; }
    std::uint32_t periodFrames() const { return period; }
    // The unit renders in calls of at most this many frames: the period, up to the unit's
    // default maximum (longer cycles are cut into calls).
    static std::uint32_t callFramesFor(std::uint32_t periodFrames);

    // Audio thread. Renders one cycle starting at `sampleTime` on the server's timeline.
    // forEachMidi(visit) calls visit(frame, bytes, size) for each incoming MIDI message.
    template <typename ForEachMidi>
    void process(double sampleTime, std::uint32_t frames, const float* const* input,
                 float* const* output, ForEachMidi&& forEachMidi, MidiOutput& midiOut);

    // Cycles rendered silent because the unit was being reallocated or was stopped, and MIDI
    // messages that found no room; read by the main thread for its report.
    std::uint64_t silentCycles() const { return silent.load(std::memory_order_relaxed); }
    std::uint64_t midiDropped() const {
        return droppedSilent.load(std::memory_order_relaxed) +
               droppedRendering.load(std::memory_order_relaxed);
    }

private:
    enum State : int { kSuspended, kIdle, kRendering };

    void suspend();
    void resume();
    OSStatus sendMIDI(AUEventSampleTime time, NSInteger length, const std::uint8_t* bytes);
    void announce(double sampleTime);

    TAV_SR_Chorus_Extension_AudioUnit& unit;
    std::atomic<int> state{kSuspended};
    std::atomic<bool> wrongRate{false};
    std::atomic<double> configuredRate{0.0};
    double rate = 0.0;
    std::uint32_t period = 0;

    InputTap tap;
    // The audio thread's, handed over with `state`.
    HostRenderCycle cycle;
    MidiOutput* currentMidiOut = nullptr;
    bool announcePending = false;
    std::uint64_t outputDropped = 0;

    std::atomic<std::uint64_t> silent{0};
    std::atomic<std::uint64_t> droppedSilent{0};
    std::atomic<std::uint64_t> droppedRendering{0};
};

template <typename ForEachMidi>
void AudioEngine::process(double sampleTime, std::uint32_t frames, const float* const* input,
                          float* const* output, ForEachMidi&& forEachMidi, MidiOutput& midiOut) {
    int expected = kIdle;
    if (wrongRate.load(std::memory_order_acquire) ||
        !state.compare_exchange_strong(expected, kRendering, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        // Being reallocated, or stopped: silence, and MIDI keeps flowing to whoever listens.
        for (std::uint32_t c = 0; c < HostRenderCycle::kChannels; ++c)
            std::fill(output[c], output[c] + frames, 0.0f);
        std::uint64_t lost = 0;
        forEachMidi([&](std::int64_t frame, const void* bytes, std::size_t size) {
            const std::int64_t last = frames > 0 ? std::int64_t(frames) - 1 : 0;
            const auto at = std::uint32_t(std::clamp<std::int64_t>(frame, 0, last));
            if (!midiOut.write(at, static_cast<const std::uint8_t*>(bytes), size)) ++lost;
        });
        if (lost) droppedSilent.fetch_add(lost, std::memory_order_relaxed);
        silent.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (announcePending) announce(sampleTime);
    currentMidiOut = &midiOut;
    cycle.render(sampleTime, frames, input, output, std::span<const HostParameterChange>(),
                 forEachMidi);
    currentMidiOut = nullptr;
    droppedRendering.store(outputDropped + cycle.midiDropped(), std::memory_order_relaxed);
    state.store(kIdle, std::memory_order_release);
}

} // namespace sr::app
