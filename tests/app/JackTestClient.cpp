// sr-jack-test-client: the other side of the app's tests, a plain JACK client of our own.
//   wait-port PORT [SECONDS]       waits until the port exists
//   play APP IN.wav OUT.wav        plays IN into APP's audio inputs and records APP's outputs
//   cc APP CHANNEL CONTROLLER VALUE  sends one control change to APP's MIDI input and waits
//                                  for it on APP's MIDI output
//   midi-system SECONDS            offers a MIDI source and a MIDI destination flagged as
//                                  physical (a system's MIDI ports), in two clients, that long
// Playing and recording are two clients, upstream and downstream of the app, so all three run
// in the same cycle: recorded frame n is what the app made of input frame n. Both count frames
// on the server's timeline from the cycle at which playing began, printed as "from frame T".
#include <jack/jack.h>
#include <jack/midiport.h>
#include <sndfile.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "sr-jack-test-client: %s\n", message.c_str());
    std::exit(1);
}

jack_client_t* open(const char* name) {
    jack_status_t status{};
    jack_client_t* client = jack_client_open(name, JackNoStartServer, &status);
    if (!client) fail(std::string("cannot open the client '") + name + "' (no server?)");
    return client;
}

jack_port_t* port(jack_client_t* client, const char* name, const char* type, unsigned long flags) {
    jack_port_t* p = jack_port_register(client, name, type, flags, 0);
    if (!p) fail(std::string("cannot register the port '") + name + "'");
    return p;
}

void connect(jack_client_t* client, const std::string& from, const std::string& to) {
    const int result = jack_connect(client, from.c_str(), to.c_str());
    if (result != 0 && result != EEXIST) fail("cannot connect " + from + " to " + to);
}

// Waits for `cycles` more process cycles of the server, so connections made before are in
// effect everywhere.
void waitCycles(jack_client_t* client, int cycles) {
    const jack_nframes_t period = jack_get_buffer_size(client);
    const jack_nframes_t start = jack_frame_time(client);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (jack_frame_time(client) - start < jack_nframes_t(cycles) * period) {
        if (std::chrono::steady_clock::now() > deadline) fail("the server's clock stands still");
        std::this_thread::sleep_for(2ms);
    }
}

// ---- wait-port -----------------------------------------------------------------------------

// Waits for the server too: a test calls it right after starting one.
int waitPort(const std::string& name, double seconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::int64_t(seconds * 1000));
    for (;;) {
        jack_status_t status{};
        if (jack_client_t* client = jack_client_open("sr-test-wait", JackNoStartServer, &status)) {
            const bool found = jack_port_by_name(client, name.c_str()) != nullptr;
            jack_client_close(client);
            if (found) return 0;
        }
        if (std::chrono::steady_clock::now() > deadline)
            fail("no port '" + name + "' after " + std::to_string(seconds) + " s");
        std::this_thread::sleep_for(50ms);
    }
}

// ---- play ----------------------------------------------------------------------------------

struct Player {
    jack_client_t* client = nullptr;
    jack_port_t* out[2]{};
    std::vector<float> left, right;
    std::atomic<bool> armed{false};
    std::atomic<bool> started{false};
    std::atomic<jack_nframes_t> startFrame{0};

    static int process(jack_nframes_t frames, void* arg) {
        auto* self = static_cast<Player*>(arg);
        float* l = static_cast<float*>(jack_port_get_buffer(self->out[0], frames));
        float* r = static_cast<float*>(jack_port_get_buffer(self->out[1], frames));
        const jack_nframes_t now = jack_last_frame_time(self->client);
        if (self->armed.load(std::memory_order_acquire) &&
            !self->started.load(std::memory_order_relaxed)) {
            self->startFrame.store(now, std::memory_order_relaxed);
            self->started.store(true, std::memory_order_release);
        }
        const std::size_t length = self->left.size();
        const std::size_t position = self->started.load(std::memory_order_relaxed)
                                         ? std::size_t(now - self->startFrame.load())
                                         : length;
        for (jack_nframes_t i = 0; i < frames; ++i) {
            const std::size_t n = position + i;
            l[i] = n < length ? self->left[n] : 0.0f;
            r[i] = n < length ? self->right[n] : 0.0f;
        }
        return 0;
    }
};

struct Recorder {
    jack_client_t* client = nullptr;
    jack_port_t* in[2]{};
    const Player* player = nullptr;
    // The app's own delay from input to output: recorded frame n is taken that much later.
    std::int64_t latency = 0;
    std::vector<float> left, right;
    std::atomic<std::size_t> recorded{0};
    std::atomic<std::int64_t> firstIndex{-1};

    static int process(jack_nframes_t frames, void* arg) {
        auto* self = static_cast<Recorder*>(arg);
        if (!self->player->started.load(std::memory_order_acquire)) return 0;
        const auto* l = static_cast<const float*>(jack_port_get_buffer(self->in[0], frames));
        const auto* r = static_cast<const float*>(jack_port_get_buffer(self->in[1], frames));
        const std::size_t position =
            jack_last_frame_time(self->client) - self->player->startFrame.load();
        std::int64_t expected = -1;
        self->firstIndex.compare_exchange_strong(expected, std::int64_t(position));
        for (jack_nframes_t i = 0; i < frames; ++i) {
            const std::int64_t at = std::int64_t(position + i) - self->latency;
            if (at < 0) continue;
            const auto n = std::size_t(at);
            if (n >= self->left.size()) break;
            self->left[n] = l[i];
            self->right[n] = r[i];
            self->recorded.fetch_add(1, std::memory_order_release);
        }
        return 0;
    }
};

int play(const std::string& app, const std::string& inPath, const std::string& outPath) {
    SF_INFO info{};
    SNDFILE* in = sf_open(inPath.c_str(), SFM_READ, &info);
    if (!in) fail("cannot read '" + inPath + "': " + sf_strerror(nullptr));
    if (info.channels != 2) fail("'" + inPath + "' is not stereo");
    std::vector<float> interleaved(std::size_t(info.frames) * 2);
    if (sf_readf_float(in, interleaved.data(), info.frames) != info.frames)
        fail("short read from '" + inPath + "'");
    sf_close(in);

    Player player;
    Recorder recorder;
    const std::size_t frames = std::size_t(info.frames);
    player.left.resize(frames);
    player.right.resize(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        player.left[i] = interleaved[2 * i];
        player.right[i] = interleaved[2 * i + 1];
    }
    recorder.left.assign(frames, 0.0f);
    recorder.right.assign(frames, 0.0f);
    recorder.player = &player;

    player.client = open("sr-test-player");
    recorder.client = open("sr-test-recorder");
    const double rate = jack_get_sample_rate(player.client);
    if (int(rate) != info.samplerate)
        fail("the server runs at " + std::to_string(rate) + " Hz, the file at " +
             std::to_string(info.samplerate) + " Hz");
    const char* side[] = {"left", "right"};
    for (int c = 0; c < 2; ++c) {
        player.out[c] = port(player.client, (std::string("out_") + side[c]).c_str(),
                             JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput);
        recorder.in[c] = port(recorder.client, (std::string("in_") + side[c]).c_str(),
                              JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput);
    }
    jack_set_process_callback(player.client, Player::process, &player);
    jack_set_process_callback(recorder.client, Recorder::process, &recorder);
    if (jack_activate(player.client) || jack_activate(recorder.client)) fail("cannot activate");
    for (int c = 0; c < 2; ++c) {
        connect(player.client, jack_port_name(player.out[c]), app + ":in_" + side[c]);
        connect(recorder.client, app + ":out_" + side[c], jack_port_name(recorder.in[c]));
    }
    waitCycles(player.client, 4);

    // What the app adds on its way from input to output (nothing, for an app without latency).
    jack_latency_range_t latency{};
    jack_recompute_total_latencies(player.client);
    jack_port_t* appOut = jack_port_by_name(player.client, (app + ":out_left").c_str());
    jack_port_t* appIn = jack_port_by_name(player.client, (app + ":in_left").c_str());
    if (!appOut || !appIn) fail("the app has no audio ports");
    jack_latency_range_t inLatency{};
    jack_port_get_latency_range(appOut, JackCaptureLatency, &latency);
    jack_port_get_latency_range(appIn, JackCaptureLatency, &inLatency);
    const std::int64_t appLatency = std::int64_t(latency.max) - std::int64_t(inLatency.max);
    recorder.latency = appLatency;

    player.armed.store(true, std::memory_order_release);
    const double seconds = double(frames) / rate;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(std::int64_t(seconds * 1000) + 20000);
    while (recorder.recorded.load(std::memory_order_acquire) < frames) {
        if (std::chrono::steady_clock::now() > deadline) fail("recording did not finish");
        std::this_thread::sleep_for(10ms);
    }
    jack_deactivate(recorder.client);
    jack_deactivate(player.client);
    const jack_nframes_t period = jack_get_buffer_size(player.client);
    jack_client_close(recorder.client);
    jack_client_close(player.client);
    if (recorder.firstIndex.load() != 0)
        fail("the recording began at frame " + std::to_string(recorder.firstIndex.load()) +
             " of the playing, not in the same cycle");

    SF_INFO outInfo{};
    outInfo.samplerate = info.samplerate;
    outInfo.channels = 2;
    outInfo.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* out = sf_open(outPath.c_str(), SFM_WRITE, &outInfo);
    if (!out) fail("cannot write '" + outPath + "'");
    for (std::size_t i = 0; i < frames; ++i) {
        interleaved[2 * i] = recorder.left[i];
        interleaved[2 * i + 1] = recorder.right[i];
    }
    sf_writef_float(out, interleaved.data(), sf_count_t(frames));
    sf_close(out);
    std::printf("play: %zu frames from frame %u (period %u, %d Hz, app latency %lld)\n", frames,
                unsigned(player.startFrame.load()), unsigned(period), info.samplerate,
                static_cast<long long>(appLatency));
    return 0;
}

// ---- cc ------------------------------------------------------------------------------------

struct MidiProbe {
    jack_client_t* sender = nullptr;
    jack_client_t* receiver = nullptr;
    jack_port_t* out = nullptr;
    jack_port_t* in = nullptr;
    std::uint8_t message[3]{};
    static constexpr jack_nframes_t kFrame = 17; // inside the cycle, not at its start
    std::atomic<bool> armed{false};
    std::atomic<bool> sent{false};
    std::atomic<jack_nframes_t> sentCycle{0};
    std::atomic<bool> echoed{false};
    std::atomic<jack_nframes_t> echoCycle{0};
    std::atomic<jack_nframes_t> echoFrame{0};
    std::atomic<bool> echoMatches{false};

    static int send(jack_nframes_t frames, void* arg) {
        auto* self = static_cast<MidiProbe*>(arg);
        void* buffer = jack_port_get_buffer(self->out, frames);
        jack_midi_clear_buffer(buffer);
        if (self->armed.load(std::memory_order_acquire) &&
            !self->sent.load(std::memory_order_relaxed) && frames > kFrame) {
            jack_midi_event_write(buffer, kFrame, self->message, 3);
            self->sentCycle.store(jack_last_frame_time(self->sender));
            self->sent.store(true, std::memory_order_release);
        }
        return 0;
    }

    static int receive(jack_nframes_t frames, void* arg) {
        auto* self = static_cast<MidiProbe*>(arg);
        void* buffer = jack_port_get_buffer(self->in, frames);
        const std::uint32_t count = jack_midi_get_event_count(buffer);
        for (std::uint32_t i = 0; i < count && !self->echoed.load(); ++i) {
            jack_midi_event_t event;
            if (jack_midi_event_get(&event, buffer, i) != 0) continue;
            self->echoFrame.store(event.time);
            self->echoCycle.store(jack_last_frame_time(self->receiver));
            self->echoMatches.store(event.size == 3 &&
                                    std::memcmp(event.buffer, self->message, 3) == 0);
            self->echoed.store(true, std::memory_order_release);
        }
        return 0;
    }
};

int controlChange(const std::string& app, int channel, int controller, int value) {
    if (channel < 1 || channel > 16 || controller < 0 || controller > 127 || value < 0 ||
        value > 127)
        fail("cc takes a channel 1..16, a controller and a value 0..127");
    MidiProbe probe;
    probe.message[0] = std::uint8_t(0xB0 | (channel - 1));
    probe.message[1] = std::uint8_t(controller);
    probe.message[2] = std::uint8_t(value);
    probe.sender = open("sr-test-midi-send");
    probe.receiver = open("sr-test-midi-receive");
    probe.out = port(probe.sender, "midi_out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
    probe.in = port(probe.receiver, "midi_in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput);
    jack_set_process_callback(probe.sender, MidiProbe::send, &probe);
    jack_set_process_callback(probe.receiver, MidiProbe::receive, &probe);
    if (jack_activate(probe.sender) || jack_activate(probe.receiver)) fail("cannot activate");
    connect(probe.sender, jack_port_name(probe.out), app + ":midi_in");
    connect(probe.receiver, app + ":TAV SR Chorus MIDI Out", jack_port_name(probe.in));
    waitCycles(probe.sender, 4);
    probe.armed.store(true, std::memory_order_release);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!probe.echoed.load(std::memory_order_acquire)) {
        if (std::chrono::steady_clock::now() > deadline) fail("no echo on the app's MIDI output");
        std::this_thread::sleep_for(5ms);
    }
    jack_client_close(probe.receiver);
    jack_client_close(probe.sender);
    if (!probe.echoMatches.load()) fail("the echo differs from the message sent");
    const bool sameCycle = probe.echoCycle.load() == probe.sentCycle.load();
    std::printf("cc: sent %02X %02X %02X at frame %u; echoed at frame %u of %s cycle\n",
                probe.message[0], probe.message[1], probe.message[2], unsigned(MidiProbe::kFrame),
                unsigned(probe.echoFrame.load()), sameCycle ? "the same" : "another");
    if (!sameCycle || probe.echoFrame.load() != MidiProbe::kFrame)
        fail("the echo left at another time than the message came in");
    return 0;
}

// ---- midi-system ---------------------------------------------------------------------------

// The source sends nothing: its buffer is cleared every cycle.
int clearMidiOutput(jack_nframes_t frames, void* port) {
    jack_midi_clear_buffer(jack_port_get_buffer(static_cast<jack_port_t*>(port), frames));
    return 0;
}

int midiSystem(double seconds) {
    jack_client_t* capture = open("sr-test-midi-capture");
    jack_client_t* playback = open("sr-test-midi-playback");
    jack_port_t* source = port(capture, "capture", JACK_DEFAULT_MIDI_TYPE,
                               JackPortIsOutput | JackPortIsPhysical | JackPortIsTerminal);
    port(playback, "playback", JACK_DEFAULT_MIDI_TYPE,
         JackPortIsInput | JackPortIsPhysical | JackPortIsTerminal);
    jack_set_process_callback(capture, clearMidiOutput, source);
    if (jack_activate(capture) || jack_activate(playback)) fail("cannot activate");
    // A client that vanishes without closing holds a synchronous server up: SIGTERM ends the
    // wait, and both clients close.
    static std::atomic<bool> stop{false};
    std::signal(SIGTERM, [](int) { stop.store(true); });
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::int64_t(seconds * 1000));
    while (!stop.load() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(20ms);
    jack_client_close(playback);
    jack_client_close(capture);
    return 0;
}

void silent(const char*) {}

} // namespace

int main(int argc, char** argv) {
    jack_set_error_function(silent);
    jack_set_info_function(silent);
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "wait-port" && (argc == 3 || argc == 4))
        return waitPort(argv[2], argc == 4 ? std::atof(argv[3]) : 10.0);
    if (command == "play" && argc == 5) return play(argv[2], argv[3], argv[4]);
    if (command == "cc" && argc == 6)
        return controlChange(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
    if (command == "midi-system" && argc == 3) return midiSystem(std::atof(argv[2]));
    std::fprintf(stderr, "usage: sr-jack-test-client wait-port PORT [SECONDS] | play APP IN OUT | "
                         "cc APP CHANNEL CONTROLLER VALUE | midi-system SECONDS\n");
    return 2;
}
