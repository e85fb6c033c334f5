// The app's JACK client: stereo audio in and out, a MIDI input and the MIDI output
// "TAV SR Chorus MIDI Out"; its process callback runs the audio engine.
// Threading: the public members run on the main thread. JACK calls process() on its audio
// thread and the other callbacks on its notification thread; those only store atomics and write
// one byte to the main loop's wake-up descriptor (never from the process callback).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <jack/jack.h>

namespace sr::app {

class AudioEngine;

// No client could be opened; the text is the one line to show.
struct JackUnavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class JackClient {
public:
    static constexpr const char* kMidiOutputName = "TAV SR Chorus MIDI Out";

    // Opens the client (never starting a server) and registers its ports. `wakeFd` is written
    // when something needs the main loop. Throws JackUnavailable.
    JackClient(const std::string& name, int wakeFd);
    // Closes the client: no callback runs after it.
    ~JackClient();
    JackClient(const JackClient&) = delete;
    JackClient& operator=(const JackClient&) = delete;

    // The name the server gave (it may add a number when the name is taken).
    const std::string& name() const { return clientName; }
    double sampleRate() const;
    std::uint32_t bufferSize() const;

    // Starts the process callback with the engine, which must outlive the client.
    void activate(AudioEngine& engine);
    // Connects to the system's (physical) capture and playback ports and MIDI ports; logs each.
    void connectToSystem();

    // The main loop's view of the notifications.
    // True once the server has shut the client down; `reason` says why.
    bool serverGone(std::string& reason) const;
    // The server's sample rate and period as last notified (0 until the first notification).
    std::uint32_t notifiedSampleRate() const { return newRate.load(std::memory_order_acquire); }
    std::uint32_t notifiedBufferSize() const { return newPeriod.load(std::memory_order_acquire); }
    std::uint64_t xruns() const { return xrunCount.load(std::memory_order_relaxed); }

private:
    static int process(jack_nframes_t frames, void* self);
    static int bufferSizeChanged(jack_nframes_t frames, void* self);
    static int sampleRateChanged(jack_nframes_t rate, void* self);
    static int xrun(void* self);
    static void shutdown(jack_status_t code, const char* reason, void* self);
    void wake() const;
    void connect(const char* from, const char* to);

    jack_client_t* client = nullptr;
    std::string clientName;
    int wakeFd;
    std::array<jack_port_t*, 2> audioIn{};
    std::array<jack_port_t*, 2> audioOut{};
    jack_port_t* midiIn = nullptr;
    jack_port_t* midiOut = nullptr;
    // Published before activation; the process callback only reads it.
    std::atomic<AudioEngine*> engine{nullptr};

    std::atomic<std::uint32_t> newRate{0};
    std::atomic<std::uint32_t> newPeriod{0};
    std::atomic<std::uint64_t> xrunCount{0};
    std::atomic<bool> gone{false};
    char goneReason[256]{};
};

} // namespace sr::app
