// Writing a file so that readers see either the old one or the complete new one: the content
// goes to a hidden temporary file in the destination's folder (same file system), which is
// flushed to disk and renamed over the destination only once complete. Nothing is left behind
// when writing fails.
#pragma once

#include <stdexcept>
#include <string>

namespace sr {

struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class AtomicFile {
public:
    // Creates the temporary file (mode from the umask, like a new file). Throws FileError.
    explicit AtomicFile(std::string destination);
    // Removes the temporary file unless committed.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Where to write the content.
    const std::string& temporaryPath() const { return temporary; }
    const std::string& destinationPath() const { return destination; }
    // Flushes the written file to disk and renames it into place. Throws FileError.
    void commit();

private:
    [[noreturn]] void fail(const std::string& reason) const;

    std::string destination;
    std::string temporary;
    bool committed = false;
};

} // namespace sr
