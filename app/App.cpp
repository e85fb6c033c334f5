#include "app/App.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "app/AudioEngine.h"
#include "app/JackClient.h"
#include "app/StateFile.h"
#include "platform/AtomicFile.h"
#include "platform/PrintQueue.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SR_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SR_SANITIZED 1
#endif
#endif

namespace sr::app {

namespace {

constexpr const char* kAppName = "TAV SR Chorus";

// The signal handler's only business: note the signal and wake the main loop. Lock-free
// atomics, since the handler may run on any of the process's threads.
std::atomic<int> caughtSignal{0};
std::atomic<int> signalWakeFd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void onSignal(int number) {
    caughtSignal.store(number, std::memory_order_relaxed);
    const char byte = 1;
    [[maybe_unused]] const ssize_t written =
        ::write(signalWakeFd.load(std::memory_order_relaxed), &byte, 1);
}

void installSignalHandlers(int wakeFd) {
    signalWakeFd.store(wakeFd, std::memory_order_relaxed);
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    // A closed standard output must not end the app before it saves its state.
    std::signal(SIGPIPE, SIG_IGN);
}

const char* signalName(int number) {
    switch (number) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    default:
        return "a signal";
    }
}

// A log line; one longer than the print queue carries goes on in further lines, split at
// blanks, so no path or reason in it is cut off.
void log(std::string_view text) {
    constexpr std::size_t kWidth = 200;
    const char* prefix = "sr-chorus: ";
    while (text.size() > kWidth) {
        std::size_t cut = text.rfind(' ', kWidth);
        if (cut == std::string_view::npos || cut == 0) cut = kWidth;
        debugprint(prefix + std::string(text.substr(0, cut)) + "\n");
        text.remove_prefix(std::min(text.size(), cut + (text[cut] == ' ' ? 1 : 0)));
        prefix = "sr-chorus:   ";
    }
    debugprint(prefix + std::string(text) + "\n");
}

// Keeps the audio path's memory resident, so a page fault never stalls the audio thread.
// Called once the audio unit is allocated. Memory mapped later is locked too only where no
// limit applies: under a finite limit, locking every future mapping would make an allocation
// fail once the limit is reached.
void lockMemory() {
#ifdef SR_SANITIZED
    // A sanitizer's shadow memory is vast and mostly unmapped: locking it is not an option.
    log("memory is not locked in a sanitizer build");
#else
    rlimit limit{};
    const bool unlimited = ::geteuid() == 0 || (::getrlimit(RLIMIT_MEMLOCK, &limit) == 0 &&
                                                limit.rlim_cur == RLIM_INFINITY);
    if (::mlockall(unlimited ? MCL_CURRENT | MCL_FUTURE : MCL_CURRENT) == 0) {
        log(unlimited ? "memory locked (mlockall)"
                      : "memory locked (mlockall; memory mapped later is not, under the memlock "
                        "limit of " +
                            std::to_string(limit.rlim_cur / 1024) + " KiB)");
        return;
    }
    log(std::string("WARNING: memory could not be locked (mlockall: ") + std::strerror(errno) +
        "); the audio may drop out when memory is paged out. A higher memlock limit (ulimit -l, "
        "as the 'audio' group usually has) allows it");
#endif
}

// The shipped presets: share/tav-sr-chorus/presets/ beside the program's bin/ folder (the
// build tree has the same layout). Empty when there is none.
std::string factoryPresetFolder() {
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path program = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    const fs::path folder =
        program.parent_path().parent_path() / "share" / "tav-sr-chorus" / "presets";
    return fs::is_directory(folder, ec) ? folder.string() + "/" : std::string();
}

} // namespace

App::App(Options opts) : options(std::move(opts)) {}

App::~App() {
    window.reset();
    if (engine) engine->stop();
    jack.reset();
    queue.discard();
    if (wakeRead >= 0) ::close(wakeRead);
    if (wakeWrite >= 0) {
        signalWakeFd.store(-1, std::memory_order_relaxed);
        ::close(wakeWrite);
    }
}

void App::error(const std::string& message) {
    // The log lines that explain it come first.
    printQueue().flush();
    std::cerr << "sr-chorus: error: " << message << std::endl;
}

InputTap& App::inputTap() {
    return engine->inputTap();
}

double App::sampleRate() const {
    return engine ? engine->sampleRate() : 0.0;
}

std::string App::windowTitle() const {
    return presetName.empty() ? kAppName : std::string(kAppName) + " - " + presetName;
}

bool App::loadPresetFile(const std::string& path) {
    if (!unit->loadPresetFile(path)) return false;
    presetName = std::filesystem::path(path).stem().string();
    log("loaded the preset '" + presetName + "' from '" + path + "'");
    if (window) window->presetChanged();
    return true;
}

void App::setCurrentPresetFile(const std::string& path) {
    presetName = std::filesystem::path(path).stem().string();
    log("the current preset is '" + presetName + "' ('" + path + "')");
    if (window) window->presetChanged();
}

void App::quit() {
    quitRequested.store(true, std::memory_order_relaxed);
}

void App::requestQuit() {
    quitRequested.store(true, std::memory_order_relaxed);
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeWrite, &byte, 1);
}

// ---- start ---------------------------------------------------------------------------------

void App::restoreState() {
    if (unit->documentsDirectory().empty()) {
        log("WARNING: no documents folder (neither XDG_DATA_HOME nor HOME is set); the "
            "settings are not saved");
        saveState = false;
        return;
    }
    stateFile = std::make_unique<StateFile>(unit->documentsDirectory());
    const StateFile::Read saved = stateFile->read();
    switch (saved.status) {
    case StateFile::Read::Missing:
        log("no saved state in '" + stateFile->path() + "'; starting from the defaults");
        return;
    case StateFile::Read::Refused:
        keepStateAside(saved.reason);
        return;
    case StateFile::Read::Loaded:
        if (!unit->setFullState(saved.state.fullState)) {
            keepStateAside("the audio unit refused its full state, as logged above");
            return;
        }
        presetName = saved.state.presetName;
        log("restored the saved state from '" + stateFile->path() + "'" +
            (presetName.empty() ? "" : " (preset '" + presetName + "')"));
        return;
    }
}

void App::keepStateAside(const std::string& reason) {
    std::string why;
    const std::string aside = stateFile->keepAside(why);
    log("WARNING: the saved state '" + stateFile->path() + "' cannot be used: " + reason);
    if (!aside.empty()) {
        log("the refused state is kept as '" + std::filesystem::path(aside).filename().string() +
            "' in the same folder; starting from the defaults");
        return;
    }
    // Never overwritten: this session's state is not saved instead.
    saveState = false;
    log("ERROR: the refused state cannot be moved aside (" + why +
        "); it is left as it is, and this session's settings will not be saved");
}

bool App::loadStartPreset() {
    namespace fs = std::filesystem;
    std::string path = options.presetFile;
    std::error_code ec;
    // A bare name is looked up among the documents folder's presets, as the browser lists them.
    if (!fs::exists(path, ec) && path.find('/') == std::string::npos) {
        const std::string file = path.ends_with(TAV_SR_Chorus_Extension_AudioUnit::kPresetExtension)
                                     ? path
                                     : path + TAV_SR_Chorus_Extension_AudioUnit::kPresetExtension;
        for (const char* folder : {"Presets/", "Presets/User/"}) {
            const std::string candidate = unit->documentsDirectory() + folder + file;
            if (fs::exists(candidate, ec)) {
                path = candidate;
                break;
            }
        }
    }
    if (!fs::exists(path, ec)) {
        error("the preset '" + options.presetFile +
              "' is neither a file nor a preset in the documents folder");
        return false;
    }
    if (loadPresetFile(path)) return true;
    error("cannot use the preset '" + options.presetFile + "' (see the log above)");
    return false;
}

void App::openWindow() {
    if (options.noUI) return;
    std::string whyNot;
    window = createAppWindow(*this, whyNot);
    if (!window) log(whyNot + "; running without a window, as with --no-ui");
}

// ---- main loop -----------------------------------------------------------------------------

bool App::followServer() {
    const std::uint32_t rate = jack->notifiedSampleRate();
    const std::uint32_t period = jack->notifiedBufferSize();
    const double newRate = rate ? double(rate) : engine->sampleRate();
    const std::uint32_t newPeriod = period ? period : engine->periodFrames();
    if (newRate == engine->sampleRate() && newPeriod == engine->periodFrames()) return true;
    log("the JACK server now runs at " + std::to_string(std::lround(newRate)) + " Hz with " +
        std::to_string(newPeriod) + "-frame periods; reallocating the audio unit");
    try {
        engine->configure(newRate, newPeriod);
        return true;
    } catch (const std::exception& e) {
        log(std::string("ERROR: the audio unit cannot run so: ") + e.what());
        return false;
    }
}

void App::reportCounters() {
    // At most once a second, so a struggling system is not flooded.
    const auto now = std::chrono::steady_clock::now();
    if (now - lastReport < std::chrono::seconds(1)) return;
    const std::uint64_t xruns = jack->xruns();
    const std::uint64_t dropped = engine->midiDropped();
    if (xruns == xrunsReported && dropped == midiDroppedReported) return;
    if (xruns != xrunsReported)
        log("WARNING: " + std::to_string(xruns - xrunsReported) +
            " xruns reported by the JACK server (" + std::to_string(xruns) + " so far)");
    if (dropped != midiDroppedReported)
        log("WARNING: " + std::to_string(dropped - midiDroppedReported) +
            " MIDI messages dropped (no room in a render call's event list or the MIDI output)");
    xrunsReported = xruns;
    midiDroppedReported = dropped;
    lastReport = now;
}

App::Status App::mainLoop() {
    for (;;) {
        pollfd fds[2] = {{wakeRead, POLLIN, 0},
                         {window ? window->eventDescriptor() : -1, POLLIN, 0}};
        const nfds_t count = fds[1].fd >= 0 ? 2 : 1;
        ::poll(fds, count, kMainLoopPeriodMs);
        char bytes[64];
        while (::read(wakeRead, bytes, sizeof bytes) > 0) {
        }

        if (const int number = caughtSignal.load(std::memory_order_relaxed)) {
            log(std::string(signalName(number)) + " received; quitting");
            return kOk;
        }
        if (quitRequested.load(std::memory_order_relaxed)) {
            log("quitting");
            return kOk;
        }
        if (std::string reason; jack->serverGone(reason)) {
            log("ERROR: the JACK server went away (" + reason + "); quitting");
            return kFailed;
        }
        if (!followServer()) return kFailed;
        // Mapped MIDI controllers reach the parameters here.
        queue.drain();
        reportCounters();
        if (window) {
            window->pump();
            if (window->closed()) {
                log("the window was closed; quitting");
                return kOk;
            }
            if (window->lost()) {
                log("ERROR: the connection to the window's X display was lost; quitting");
                return kFailed;
            }
        }
    }
}

App::Status App::shutDown(Status status) {
    // The audio thread leaves the unit alone, then no callback runs any more.
    engine->stop();
    jack.reset();
    // The last controller changes the audio thread handed over take effect before saving.
    queue.drain();
    if (saveState && stateFile) {
        try {
            stateFile->write({unit->fullState().value_or(PropertyList{}), presetName});
            log("saved the state to '" + stateFile->path() + "'");
        } catch (const FileError& e) {
            log(std::string("ERROR: the state could not be saved: ") + e.what());
            status = kFailed;
        }
    }
    window.reset();
    queue.discard();
    return status;
}

int App::run() {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC) != 0) {
        error(std::string("cannot create a pipe: ") + std::strerror(errno));
        return kFailed;
    }
    wakeRead = pipeFds[0];
    wakeWrite = pipeFds[1];
    installSignalHandlers(wakeWrite);

    // The server comes first: without one, one line says so and nothing else happens.
    try {
        jack = std::make_unique<JackClient>(options.clientName, wakeWrite);
    } catch (const JackUnavailable& e) {
        error(e.what());
        return kNoServer;
    }

    try {
        unit = std::make_unique<TAV_SR_Chorus_Extension_AudioUnit>(kTAVSRChorusComponentDescription,
                                                                   queue);
        unit->setFactoryPresetSource(factoryPresetFolder());
        // Lists the presets, installing the shipped ones in the documents folder first.
        unit->factoryPresets();
        engine = std::make_unique<AudioEngine>(*unit);
        engine->configure(jack->sampleRate(), jack->bufferSize());
    } catch (const std::exception& e) {
        error(std::string("the audio unit cannot run: ") + e.what());
        return kFailed;
    }
    lockMemory();
    // Settings are in place before the first cycle renders.
    restoreState();
    if (!options.presetFile.empty() && !loadStartPreset()) return kFailed;
    openWindow();

    try {
        jack->activate(*engine);
    } catch (const JackUnavailable& e) {
        error(e.what());
        return kFailed;
    }
    if (options.connect) jack->connectToSystem();
    log("running as JACK client '" + jack->name() + "' at " +
        std::to_string(std::lround(jack->sampleRate())) + " Hz, " +
        std::to_string(jack->bufferSize()) + " frames a period; Ctrl-C quits");
    return shutDown(mainLoop());
}

} // namespace sr::app
