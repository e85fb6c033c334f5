// Writing a file so that readers see either the old one or the complete new one: the content
// goes to a hidden temporary file in the destination's folder (same file system), which is
// flushed to disk and renamed over the destination only once complete. Nothing is left behind
// when writing fails.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

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
    // Flushes the written file to disk and moves it into place. Throws FileError; with
    // `replace` false also when the destination exists, which is then left untouched.
    void commit(bool replace = true);

private:
    [[noreturn]] void fail(const std::string& reason) const;

    std::string destination;
    std::string temporary;
    bool committed = false;
};

// The whole content of a file, written as above. Throws FileError.
void writeFileAtomically(const std::string& path, std::string_view bytes, bool replace = true);

} // namespace sr
