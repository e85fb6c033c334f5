// The app's JACK process callback allocates nothing: the whole app, its window open on the
// test's X display (with-xvfb.sh), runs under a JACK server of this test's own for 1000 counted
// cycles while a second client sends MIDI into it every cycle (controllers bound to controls,
// which the panel follows, notes, system exclusive) and the cycles copy their input into the tap
// that the window empties for its spectrum. The callback the app registers is
// wrapped here, so each of its calls runs inside an allocation counter: what libjack, the
// engine, the render block and the kernel allocate on that thread during the call is counted.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "JackServer.h"
#include "alloc_counter.h"
#include "app/App.h"
#include "kernel/ParameterTable.h"

// Last: Xlib defines macros (Status, None) that the app's headers would trip over.
#include <X11/Xlib.h>

namespace {

using namespace std::chrono_literals;

const std::string kAppName = "sr-alloc-app";

JackProcessCallback appProcess = nullptr;
void* appArgument = nullptr;
std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
std::atomic<long> countedCycles{0};

int countingProcess(jack_nframes_t frames, void*) {
    if (!counting.load(std::memory_order_acquire)) return appProcess(frames, appArgument);
    long seen = 0;
    int result = 0;
    {
        sr::test::AllocationCounter counter;
        result = appProcess(frames, appArgument);
        seen = counter.count();
    }
    allocations.fetch_add(seen);
    countedCycles.fetch_add(1);
    return result;
}

} // namespace

// Stands in for libjack's: the app's client gets the counting wrapper, every other client its
// own callback.
extern "C" int jack_set_process_callback(jack_client_t* client, JackProcessCallback callback,
                                         void* argument) {
    using Real = int (*)(jack_client_t*, JackProcessCallback, void*);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "jack_set_process_callback"));
    if (kAppName == jack_get_client_name(client)) {
        appProcess = callback;
        appArgument = argument;
        return real(client, countingProcess, nullptr);
    }
    return real(client, callback, argument);
}

namespace {

// The app's window on the test's display: a top-level window, shown, whose title begins with
// the app's name.
bool appWindowShown() {
    Display* display = XOpenDisplay(nullptr);
    if (!display) return false;
    Window root = 0, parent = 0, *children = nullptr;
    unsigned count = 0;
    bool found = false;
    if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count)) {
        for (unsigned i = 0; i < count && !found; ++i) {
            char* name = nullptr;
            XWindowAttributes attributes{};
            if (XFetchName(display, children[i], &name) && name) {
                found = std::string_view(name).starts_with("TAV SR Chorus") &&
                        XGetWindowAttributes(display, children[i], &attributes) &&
                        attributes.map_state == IsViewable;
                XFree(name);
            }
        }
        if (children) XFree(children);
    }
    XCloseDisplay(display);
    return found;
}

// Sends three messages every cycle, and system exclusive every tenth.
struct MidiSender {
    jack_port_t* out = nullptr;
    std::atomic<long> cycles{0};
    std::atomic<long> messages{0};

    static int process(jack_nframes_t frames, void* argument) {
        auto* self = static_cast<MidiSender*>(argument);
        void* buffer = jack_port_get_buffer(self->out, frames);
        jack_midi_clear_buffer(buffer);
        const long cycle = self->cycles.fetch_add(1);
        // Controllers 13 to 24, bound to the twelve controls by default.
        const std::uint8_t cc[] = {0xB0, std::uint8_t(13 + cycle % 12), std::uint8_t(cycle % 128)};
        const std::uint8_t on[] = {0x90, 60, 100};
        const std::uint8_t off[] = {0x80, 60, 0};
        const std::uint8_t sysex[] = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
        long sent = 0;
        sent += jack_midi_event_write(buffer, 0, cc, sizeof cc) == 0;
        sent += jack_midi_event_write(buffer, frames / 2, on, sizeof on) == 0;
        sent += jack_midi_event_write(buffer, frames - 1, off, sizeof off) == 0;
        if (cycle % 10 == 0)
            sent += jack_midi_event_write(buffer, frames - 1, sysex, sizeof sysex) == 0;
        self->messages.fetch_add(sent);
        return 0;
    }
};

TEST(AppAllocation, ProcessCallbackAllocatesNothingOver1000CyclesWithMidi) {
    const std::string server = "sr-app-alloc-" + std::to_string(::getpid());
    const auto documents = std::filesystem::temp_directory_path() / (server + "-data");
    std::filesystem::remove_all(documents);
    ::setenv("XDG_DATA_HOME", documents.c_str(), 1);

    ASSERT_NE(std::getenv("DISPLAY"), nullptr) << "no X display (the test runs under with-xvfb.sh)";
    sr::test::JackServer jackd(server, 64);
    ASSERT_TRUE(jackd.started()) << "jackd could not be started (scripts/install-deps.sh)";
    jack_client_t* midiClient = sr::test::JackServer::openClient("sr-alloc-midi");
    ASSERT_NE(midiClient, nullptr) << "the JACK server did not come up";
    MidiSender sender;
    sender.out = jack_port_register(midiClient, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    ASSERT_NE(sender.out, nullptr);
    jack_set_process_callback(midiClient, MidiSender::process, &sender);
    ASSERT_EQ(jack_activate(midiClient), 0);

    sr::app::Options options;
    options.clientName = kAppName;
    sr::app::App app(options);
    int status = -1;
    std::thread mainLoop([&] { status = app.run(); });

    const std::string appInput = kAppName + ":midi_in";
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (jack_connect(midiClient, jack_port_name(sender.out), appInput.c_str()) != 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(20ms);
    // The window opens before the app's client is activated.
    EXPECT_TRUE(appWindowShown()) << "the app's window is not on the display";
    const long messagesBefore = sender.messages.load();
    counting.store(true, std::memory_order_release);
    // The panel shows the input's spectrum: the cycles copy their input into the tap, which the
    // window empties on the main loop's turns.
    EXPECT_TRUE(app.inputTap().isOpen()) << "the window did not open the input tap";
    std::uint32_t mostWaiting = 0;
    while (countedCycles.load() < 1000 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
        mostWaiting = std::max(mostWaiting, app.inputTap().available());
    }
    counting.store(false, std::memory_order_release);
    const long messages = sender.messages.load() - messagesBefore;

    app.requestQuit();
    mainLoop.join();
    jack_client_close(midiClient);

    EXPECT_EQ(status, 0);
    ASSERT_GE(countedCycles.load(), 1000) << "the app's callback did not run 1000 cycles in 30 s";
    EXPECT_GE(messages, 3000);
    // 1000 cycles of 64 frames: a tap nobody emptied would hold them all.
    EXPECT_LT(mostWaiting, 16384u) << "the window did not take the tap's samples";
    EXPECT_EQ(allocations.load(), 0) << "over " << countedCycles.load() << " cycles";
    // The controllers went through the main loop to the parameters: all twelve moved from
    // their defaults to values the sender sent.
    AUParameterTree& tree = *app.audioUnit().parameterTree();
    int moved = 0;
    for (std::uint64_t a = sr::kFirstControllerAddress - sr::kControllerOffset;
         a < sr::kFirstControllerAddress; ++a)
        moved += tree.parameterWithAddress(a)->value() != sr::kParameterTable[a].defaultValue;
    EXPECT_GE(moved, 10);
    std::printf("process callback: %ld cycles, %ld allocations, %ld MIDI messages in; at most "
                "%u samples waiting in the window's input tap\n",
                countedCycles.load(), allocations.load(), messages, mostWaiting);
    std::filesystem::remove_all(documents);
}

} // namespace
