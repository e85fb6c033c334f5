// Failures the renderer reports as one line on standard error before it exits.
#pragma once

#include <stdexcept>

namespace sr::cli {

// Something went wrong with the files or the rendering (exit status 1).
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The command line itself is wrong (exit status 2).
struct UsageError : Error {
    using Error::Error;
};

} // namespace sr::cli
