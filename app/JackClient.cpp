#include "app/JackClient.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <jack/midiport.h>

#include "app/AudioEngine.h"
#include "platform/PrintQueue.h"

namespace sr::app {

namespace {

constexpr const char* kAudioInputNames[] = {"in_left", "in_right"};
constexpr const char* kAudioOutputNames[] = {"out_left", "out_right"};
constexpr const char* kMidiInputName = "midi_in";

// libjack's own messages: dropped while opening (a missing server is reported as one line of
// ours), logged once the client runs.
std::atomic<bool> logJackErrors{false};

void jackError(const char* text) {
    if (!logJackErrors.load(std::memory_order_relaxed) || !text) return;
    LineBuilder<> line;
    line << "sr-chorus: JACK: " << text << "\n";
    safeprint(line.view());
}

void jackInfo(const char*) {}

std::string describe(jack_status_t status) {
    std::string text;
    auto add = [&](jack_status_t bit, const char* what) {
        if (!(status & bit)) return;
        if (!text.empty()) text += ", ";
        text += what;
    };
    add(JackInvalidOption, "invalid option");
    add(JackNameNotUnique, "the name is taken");
    add(JackServerError, "the server reported an error");
    add(JackNoSuchClient, "no such client");
    add(JackLoadFailure, "loading failed");
    add(JackInitFailure, "initialisation failed");
    add(JackShmFailure, "no access to shared memory");
    add(JackVersionError, "the server speaks another protocol version");
    add(JackBackendError, "backend error");
    add(JackClientZombie, "the client was zombified");
    return text.empty() ? "status " + std::to_string(unsigned(status)) : text;
}

// The cycle's MIDI output port buffer.
class JackMidiOutput final : public MidiOutput {
public:
    explicit JackMidiOutput(void* portBuffer) : buffer(portBuffer) {}
    bool write(std::uint32_t frame, const std::uint8_t* bytes, std::size_t size) override {
        return jack_midi_event_write(buffer, frame, bytes, size) == 0;
    }

private:
    void* buffer;
};

} // namespace

JackClient::JackClient(const std::string& name, int fd) : wakeFd(fd) {
    jack_set_error_function(jackError);
    jack_set_info_function(jackInfo);
    jack_status_t status{};
    client = jack_client_open(name.c_str(), JackNoStartServer, &status);
    if (!client) {
        const char* server = std::getenv("JACK_DEFAULT_SERVER");
        const std::string serverName = server && *server ? server : "default";
        if (status & JackServerFailed)
            throw JackUnavailable("no JACK server is running (server '" + serverName +
                                  "'); start one (jackd, or PipeWire's JACK) and try again");
        throw JackUnavailable("cannot open a JACK client on server '" + serverName +
                              "': " + describe(status));
    }
    logJackErrors.store(true, std::memory_order_relaxed);
    clientName = jack_get_client_name(client);

    bool registered = true;
    auto registerPort = [&](const char* portName, const char* type, unsigned long flags) {
        jack_port_t* port = jack_port_register(client, portName, type, flags, 0);
        registered = registered && port;
        return port;
    };
    for (std::size_t c = 0; c < 2; ++c) {
        audioIn[c] = registerPort(kAudioInputNames[c], JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput);
        audioOut[c] = registerPort(kAudioOutputNames[c], JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput);
    }
    midiIn = registerPort(kMidiInputName, JACK_DEFAULT_MIDI_TYPE, JackPortIsInput);
    midiOut = registerPort(kMidiOutputName, JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
    const bool callbacks = jack_set_process_callback(client, process, this) == 0 &&
                           jack_set_buffer_size_callback(client, bufferSizeChanged, this) == 0 &&
                           jack_set_sample_rate_callback(client, sampleRateChanged, this) == 0 &&
                           jack_set_xrun_callback(client, xrun, this) == 0;
    jack_on_info_shutdown(client, shutdown, this);
    if (!registered || !callbacks) {
        jack_client_close(client);
        client = nullptr;
        throw JackUnavailable("the JACK server refused the client's ports or callbacks");
    }
}

JackClient::~JackClient() {
    if (!client) return;
    // After the server has gone, libjack only repeats that it is not running.
    if (gone.load(std::memory_order_acquire)) logJackErrors.store(false, std::memory_order_relaxed);
    jack_client_close(client);
}

double JackClient::sampleRate() const {
    return double(jack_get_sample_rate(client));
}

std::uint32_t JackClient::bufferSize() const {
    return jack_get_buffer_size(client);
}

void JackClient::activate(AudioEngine& audioEngine) {
    engine.store(&audioEngine, std::memory_order_release);
    if (jack_activate(client) != 0)
        throw JackUnavailable("the JACK server refused to activate the client");
}

void JackClient::connect(const char* from, const char* to) {
    const int result = jack_connect(client, from, to);
    LineBuilder<> line;
    if (result == 0 || result == EEXIST)
        line << "sr-chorus: connected " << from << " to " << to << "\n";
    else
        line << "sr-chorus: WARNING: could not connect " << from << " to " << to << "\n";
    debugprint(line.view());
}

void JackClient::connectToSystem() {
    auto physical = [this](const char* type, unsigned long direction) {
        return jack_get_ports(client, nullptr, type, JackPortIsPhysical | direction);
    };
    auto count = [](const char** ports) {
        std::size_t n = 0;
        while (ports && ports[n]) ++n;
        return n;
    };
    // Audio: the first two ports each way; a single one feeds (or takes) both channels.
    if (const char** capture = physical(JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput)) {
        const std::size_t n = count(capture);
        for (std::size_t c = 0; c < 2; ++c)
            connect(capture[std::min(c, n - 1)], jack_port_name(audioIn[c]));
        jack_free(capture);
    } else {
        debugprint("sr-chorus: WARNING: the JACK server has no capture ports to connect to\n");
    }
    if (const char** playback = physical(JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput)) {
        const std::size_t n = count(playback);
        for (std::size_t c = 0; c < 2; ++c)
            connect(jack_port_name(audioOut[c]), playback[std::min(c, n - 1)]);
        jack_free(playback);
    } else {
        debugprint("sr-chorus: WARNING: the JACK server has no playback ports to connect to\n");
    }
    // MIDI, when the system has any: every source in, and the output to every destination.
    if (const char** sources = physical(JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput)) {
        for (std::size_t i = 0; sources[i]; ++i) connect(sources[i], jack_port_name(midiIn));
        jack_free(sources);
    }
    if (const char** destinations = physical(JACK_DEFAULT_MIDI_TYPE, JackPortIsInput)) {
        for (std::size_t i = 0; destinations[i]; ++i)
            connect(jack_port_name(midiOut), destinations[i]);
        jack_free(destinations);
    }
}

bool JackClient::serverGone(std::string& reason) const {
    if (!gone.load(std::memory_order_acquire)) return false;
    reason = goneReason;
    return true;
}

void JackClient::wake() const {
    const char byte = 1;
    // A full pipe already holds a wake-up; nothing is lost by dropping this one.
    [[maybe_unused]] const ssize_t written = ::write(wakeFd, &byte, 1);
}

// ---- callbacks -----------------------------------------------------------------------------

int JackClient::process(jack_nframes_t frames, void* arg) {
    auto* self = static_cast<JackClient*>(arg);
    AudioEngine* audioEngine = self->engine.load(std::memory_order_acquire);
    float* output[2];
    const float* input[2];
    for (std::size_t c = 0; c < 2; ++c) {
        output[c] = static_cast<float*>(jack_port_get_buffer(self->audioOut[c], frames));
        input[c] = static_cast<const float*>(jack_port_get_buffer(self->audioIn[c], frames));
    }
    void* midiInput = jack_port_get_buffer(self->midiIn, frames);
    void* midiOutput = jack_port_get_buffer(self->midiOut, frames);
    jack_midi_clear_buffer(midiOutput);
    if (!audioEngine) {
        for (float* out : output) std::fill(out, out + frames, 0.0f);
        return 0;
    }
    auto forEachMidi = [midiInput](auto&& visit) {
        const std::uint32_t count = jack_midi_get_event_count(midiInput);
        for (std::uint32_t i = 0; i < count; ++i) {
            jack_midi_event_t event;
            if (jack_midi_event_get(&event, midiInput, i) == 0)
                visit(std::int64_t(event.time), event.buffer, event.size);
        }
    };
    JackMidiOutput midi(midiOutput);
    audioEngine->process(double(jack_last_frame_time(self->client)), frames, input, output,
                         forEachMidi, midi);
    return 0;
}

int JackClient::bufferSizeChanged(jack_nframes_t frames, void* arg) {
    auto* self = static_cast<JackClient*>(arg);
    self->newPeriod.store(frames, std::memory_order_release);
    self->wake();
    return 0;
}

int JackClient::sampleRateChanged(jack_nframes_t rate, void* arg) {
    auto* self = static_cast<JackClient*>(arg);
    self->newRate.store(rate, std::memory_order_release);
    if (AudioEngine* audioEngine = self->engine.load(std::memory_order_acquire))
        audioEngine->serverRateChanged(double(rate));
    self->wake();
    return 0;
}

int JackClient::xrun(void* arg) {
    static_cast<JackClient*>(arg)->xrunCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void JackClient::shutdown(jack_status_t, const char* reason, void* arg) {
    auto* self = static_cast<JackClient*>(arg);
    const char* text = reason && *reason ? reason : "no reason given";
    std::strncpy(self->goneReason, text, sizeof self->goneReason - 1);
    self->gone.store(true, std::memory_order_release);
    self->wake();
}

} // namespace sr::app
