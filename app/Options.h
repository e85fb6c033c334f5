// The app's command line.
#pragma once

#include <stdexcept>
#include <string>

namespace sr::app {

struct Options {
    std::string clientName = "sr-chorus"; // --name: the JACK client's name
    std::string presetFile;               // --preset: loaded after the saved state
    bool connect = false;                 // --connect: to the system's ports
    bool noUI = false;                    // --no-ui: no window, only the audio
    bool help = false;
};

// The command line itself is wrong; the text is the one line to show.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws UsageError for anything it cannot accept.
Options parseOptions(int argc, const char* const* argv);

std::string usageText();

} // namespace sr::app
