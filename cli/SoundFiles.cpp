#include "cli/SoundFiles.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include "cli/Errors.h"
#include "platform/AtomicFile.h"

namespace sr::cli {

namespace {

struct ContainerFormat {
    std::string_view extension;
    int format;
};

constexpr ContainerFormat kOutputFormats[] = {
    {"wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    {"wave", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    {"aiff", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
    {"aif", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
    {"aifc", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
    {"caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
    {"w64", SF_FORMAT_W64 | SF_FORMAT_FLOAT},
    {"rf64", SF_FORMAT_RF64 | SF_FORMAT_FLOAT},
    {"au", SF_FORMAT_AU | SF_FORMAT_FLOAT},
    {"snd", SF_FORMAT_AU | SF_FORMAT_FLOAT},
    {"flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
    {"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {"oga", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {"opus", SF_FORMAT_OGG | SF_FORMAT_OPUS},
    {"mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III},
};

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string extensionOf(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    return lowercase(extension.empty() ? extension : extension.substr(1));
}

bool isPcm(int format) {
    switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
        return true;
    default:
        return false;
    }
}

// The permissions a newly created file gets (mkstemp would leave it private to the user).
} // namespace

int outputFormatFor(const std::string& path) {
    const std::string extension = extensionOf(path);
    if (extension.empty()) return SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    for (const ContainerFormat& f : kOutputFormats)
        if (f.extension == extension) return f.format;
    throw UsageError("cannot tell an output format from '." + extension +
                     "' (use .wav, .aiff, .caf, .w64, .au, .flac, .ogg, .opus or .mp3)");
}

InputFile::InputFile(const std::string& p) : path(p) {
    file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) throw Error("cannot read '" + path + "': " + sf_strerror(nullptr));
}

InputFile::~InputFile() {
    // Only reached with the file still open on a failure already being reported.
    if (file) sf_close(file);
}

std::int64_t InputFile::frames() const {
    return info.frames >= 0 && info.frames < SF_COUNT_MAX ? std::int64_t(info.frames) : -1;
}

std::size_t InputFile::read(float* interleaved, std::size_t frames) {
    std::size_t done = 0;
    while (done < frames) {
        const sf_count_t got =
            sf_readf_float(file, interleaved + done * channels(), sf_count_t(frames - done));
        if (got <= 0) break;
        done += std::size_t(got);
    }
    if (sf_error(file) != SF_ERR_NO_ERROR)
        throw Error("cannot read '" + path + "': " + sf_strerror(file));
    return done;
}

void InputFile::close() {
    SNDFILE* f = file;
    file = nullptr;
    if (!f) return;
    if (const int code = sf_close(f); code != 0)
        throw Error("cannot close '" + path + "': " + sf_error_number(code));
}

OutputFile::OutputFile(std::string p, int format, int sampleRate, std::uint32_t channels)
    : path(std::move(p)) {
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = int(channels);
    info.format = format;
    if (!sf_format_check(&info))
        throw UsageError("cannot write " + std::to_string(channels) + " channel(s) at " +
                         std::to_string(sampleRate) + " Hz as '." + extensionOf(path) + "'");

    try {
        temp = std::make_unique<AtomicFile>(path);
    } catch (const FileError& e) {
        throw Error(e.what());
    }
    file = sf_open(temp->temporaryPath().c_str(), SFM_WRITE, &info);
    if (!file) {
        const std::string reason = sf_strerror(nullptr);
        discard();
        throw Error("cannot write '" + path + "': " + reason);
    }
    // The peak chunk carries a time stamp: without it the same render gives the same bytes.
    sf_command(file, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    // Integer formats clip overs instead of wrapping them around.
    if (isPcm(format) && sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE) != SF_TRUE) {
        discard();
        throw Error("cannot set clipping for '" + path + "'");
    }
}

OutputFile::~OutputFile() {
    if (!committed) discard();
}

void OutputFile::discard() {
    if (file) sf_close(file); // the file is thrown away: how closing went no longer matters
    file = nullptr;
    temp.reset();
}

void OutputFile::write(const float* interleaved, std::size_t frames) {
    if (sf_writef_float(file, interleaved, sf_count_t(frames)) != sf_count_t(frames))
        throw Error("cannot write '" + path + "': " + sf_strerror(file));
}

void OutputFile::commit() {
    SNDFILE* f = file;
    file = nullptr;
    if (const int code = sf_close(f); code != 0)
        throw Error("cannot finish '" + path + "': " + sf_error_number(code));
    try {
        temp->commit();
    } catch (const FileError& e) {
        throw Error(e.what());
    }
    committed = true;
}

} // namespace sr::cli
