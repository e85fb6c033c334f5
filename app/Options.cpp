#include "app/Options.h"

#include <optional>
#include <string_view>

namespace sr::app {

namespace {

// JACK's limit for a client name, less its terminating NUL.
constexpr std::size_t kMaxClientName = 63;

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

} // namespace

Options parseOptions(int argc, const char* const* argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string_view argument = argv[i];
        // "--name value" and "--name=value" are both accepted.
        std::optional<std::string_view> attached;
        if (argument.starts_with("--")) {
            if (const std::size_t equals = argument.find('='); equals != std::string_view::npos) {
                attached = argument.substr(equals + 1);
                argument = argument.substr(0, equals);
            }
        }
        auto value = [&]() -> std::string_view {
            if (attached) return *attached;
            if (i + 1 >= argc) throw UsageError(std::string(argument) + " needs a value");
            return argv[++i];
        };
        auto noValue = [&] {
            if (attached) throw UsageError(std::string(argument) + " takes no value");
        };
        if (argument == "--help" || argument == "-h") {
            noValue();
            options.help = true;
        } else if (argument == "--name") {
            const std::string_view name = value();
            if (name.empty() || name.size() > kMaxClientName ||
                name.find(':') != std::string_view::npos)
                throw UsageError("--name takes 1 to " + std::to_string(kMaxClientName) +
                                 " characters without ':', got " + quoted(name));
            options.clientName = name;
        } else if (argument == "--preset") {
            const std::string_view file = value();
            if (file.empty()) throw UsageError("--preset needs a file");
            options.presetFile = file;
        } else if (argument == "--connect") {
            noValue();
            options.connect = true;
        } else if (argument == "--no-ui") {
            noValue();
            options.noUI = true;
        } else {
            throw UsageError("unknown option " + quoted(argument) + " (see --help)");
        }
    }
    return options;
}

std::string usageText() {
    return "Usage: sr-chorus [--name CLIENT] [--connect] [--preset FILE] [--no-ui] [--help]\n"
           "TAV SR Chorus as a JACK client: stereo audio in and out, MIDI in, and the MIDI\n"
           "output \"TAV SR Chorus MIDI Out\" that repeats everything that comes in.\n"
           "\n"
           "  --name CLIENT   the JACK client's name (default sr-chorus)\n"
           "  --connect       connect to the system's capture and playback ports, and to its\n"
           "                  MIDI ports when there are any\n"
           "  --preset FILE   load a preset (a .aupreset file, or the name of one in the\n"
           "                  documents folder's Presets/ or Presets/User/) after the saved state\n"
           "  --no-ui         run without the panel's window\n"
           "  --help          show this text\n"
           "\n"
           "Every setting is saved on exit to $XDG_DATA_HOME/tav-sr-chorus/sr-chorus-state.plist\n"
           "(~/.local/share/tav-sr-chorus/ by default) and restored at the next start. Needs a\n"
           "running JACK server (jackd, or PipeWire's JACK); it never starts one itself.\n"
           "Ctrl-C or SIGTERM quits, saving the state.\n";
}

} // namespace sr::app
