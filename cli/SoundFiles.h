// Audio files through libsndfile. An output file is written under a temporary name next to its
// destination and renamed into place only when complete, so a failed run leaves nothing behind.
#pragma once

#include <sndfile.h>

#include "platform/AtomicFile.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace sr::cli {

// The libsndfile format for a file name's extension: 32-bit float where the container holds
// it, 24-bit PCM for FLAC, Vorbis for Ogg; float WAV without an extension. Throws UsageError
// for an extension that names no writable format.
int outputFormatFor(const std::string& path);

class InputFile {
public:
    // Throws Error when the file cannot be opened or decoded.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    int sampleRate() const { return info.samplerate; }
    std::uint32_t channels() const { return std::uint32_t(info.channels); }
    // The length in frames, or -1 when the file does not tell it.
    std::int64_t frames() const;
    // Reads interleaved frames; fewer than asked only at the end of the file. Throws Error.
    std::size_t read(float* interleaved, std::size_t frames);
    void close();

private:
    std::string path;
    SF_INFO info{};
    SNDFILE* file = nullptr;
};

class OutputFile {
public:
    // Creates the temporary file. Throws Error (or UsageError for an unwritable combination
    // of format, rate and channels).
    OutputFile(std::string path, int format, int sampleRate, std::uint32_t channels);
    // Removes the temporary file unless committed.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const float* interleaved, std::size_t frames);
    // Finishes the file and moves it to its destination. Throws Error.
    void commit();

private:
    void discard();

    std::string path;
    std::unique_ptr<AtomicFile> temp;
    SNDFILE* file = nullptr;
    bool committed = false;
};

} // namespace sr::cli
