#include "cli/MidiFiles.h"

// smf.h includes glib.h inside its extern "C" block, where the C++ headers glib pulls in fail
// to compile; included first, glib's include guard keeps it out of that block.
#include <glib.h>
#include <smf.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "platform/AtomicFile.h"

namespace sr::cli {

namespace {

constexpr std::int64_t kMaxTicks = 0x7FFFFFFF;      // libsmf keeps tick times in an int
constexpr std::uint32_t kMaxDelta = 0x0FFFFFFF;     // four-byte variable-length quantity
constexpr std::int64_t kMaxPpqn = 0x7FFF;           // 15 bits of the header's division
constexpr std::int64_t kMaxUsPerQuarter = 0xFFFFFF; // 24 bits of a tempo event
constexpr std::int64_t kMicroseconds = 1'000'000;
constexpr double kMaxSampleRate = 10'000'000.0;

// Why a file is refused; the caller adds the path.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void refuse(const std::string& reason) {
    throw Refusal(reason);
}

std::string hexByte(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFFu);
    return text;
}

void checkSampleRate(double sampleRate) {
    if (!(sampleRate >= 1.0 && sampleRate <= kMaxSampleRate))
        refuse("unusable sample rate " + std::to_string(sampleRate));
}

bool isIntegral(double value) {
    return value == std::floor(value);
}

std::size_t channelDataBytes(std::uint8_t status) {
    const std::uint8_t kind = status & 0xF0;
    return kind == 0xC0 || kind == 0xD0 ? 1 : 2;
}

bool isData(std::uint8_t byte) {
    return byte < 0x80;
}

bool isCompleteMessage(const std::vector<std::uint8_t>& bytes) {
    if (bytes.empty()) return false;
    const std::uint8_t status = bytes.front();
    if (status >= 0x80 && status < 0xF0)
        return bytes.size() == 1 + channelDataBytes(status) &&
               std::all_of(bytes.begin() + 1, bytes.end(), isData);
    if (status == 0xF0)
        return bytes.size() >= 2 && bytes.back() == 0xF7 &&
               std::all_of(bytes.begin() + 1, bytes.end() - 1, isData);
    return false;
}

// ---- time ---------------------------------------------------------------------------------------

// The frame nearest to `units / unitsPerSecond` seconds, halves rounded up. Exact at integer
// rates, so a file written one tick per frame reads back frame for frame.
std::int64_t nearestFrame(std::int64_t units, std::int64_t unitsPerSecond, double sampleRate) {
    if (isIntegral(sampleRate)) {
        const __int128 scaled = __int128(units) * std::int64_t(sampleRate);
        return std::int64_t((2 * scaled + unitsPerSecond) / (2 * __int128(unitsPerSecond)));
    }
    return std::int64_t(
        std::floor(static_cast<long double>(units) * sampleRate / unitsPerSecond + 0.5L));
}

struct Division {
    bool smpte = false;
    std::int64_t ppqn = 0;
    // With SMPTE time code a tick lasts unitsPerTick / unitsPerSecond seconds, tempo aside.
    std::int64_t unitsPerTick = 0;
    std::int64_t unitsPerSecond = 0;
};

// Tick times to frames. Under a tempo map a tick lasts microseconds-per-quarter / ppqn
// microseconds, so times are kept as sums of ticks times microseconds-per-quarter: exact.
class Clock {
public:
    explicit Clock(const Division& d) : division(d) {}

    // Tick times must not go backwards.
    void setTempo(std::int64_t ticks, std::int64_t usPerQuarter) {
        units += (ticks - since) * tempo;
        since = ticks;
        tempo = usPerQuarter;
    }

    std::int64_t frameAt(std::int64_t ticks, double sampleRate) const {
        if (division.smpte)
            return nearestFrame(ticks * division.unitsPerTick, division.unitsPerSecond, sampleRate);
        return nearestFrame(units + (ticks - since) * tempo, division.ppqn * kMicroseconds,
                            sampleRate);
    }

private:
    Division division;
    std::int64_t since = 0;
    std::int64_t units = 0;
    std::int64_t tempo = 500'000; // 120 bpm until a tempo event says otherwise
};

// ---- libsmf -------------------------------------------------------------------------------------

// Collects what libsmf reports through glib while alive, instead of glib printing it.
class LibsmfLog {
public:
    LibsmfLog()
        : id(g_log_set_handler(
              "libsmf", GLogLevelFlags(G_LOG_LEVEL_MASK | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION),
              &LibsmfLog::collect, this)) {}
    ~LibsmfLog() { g_log_remove_handler("libsmf", id); }
    LibsmfLog(const LibsmfLog&) = delete;
    LibsmfLog& operator=(const LibsmfLog&) = delete;

    // Warnings and worse; debug chatter does not count.
    bool complained() const { return !first.empty(); }
    const std::string& firstComplaint() const { return first; }

private:
    static void collect(const gchar*, GLogLevelFlags level, const gchar* message, gpointer self) {
        auto* log = static_cast<LibsmfLog*>(self);
        if (!(level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING))) return;
        if (!log->first.empty() || !message) return;
        std::string text = message;
        for (const char* prefix : {"SMF error: ", "SMF warning: "})
            if (text.rfind(prefix, 0) == 0) text.erase(0, std::strlen(prefix));
        std::replace(text.begin(), text.end(), '\n', ' ');
        log->first = "libsmf: " + text;
    }

    std::string first;
    guint id;
};

// libsmf frees a track's events one at a time, searching the whole track for each, which takes
// minutes for a million events; here they are detached and freed in a single pass.
void releaseSmf(smf_t* smf) {
    for (int t = 1; t <= smf->number_of_tracks; ++t) {
        smf_track_t* track = smf_get_track_by_number(smf, t);
        GPtrArray* events = track->events_array;
        for (guint i = 0; i < events->len; ++i) {
            auto* event = static_cast<smf_event_t*>(g_ptr_array_index(events, i));
            event->track = nullptr; // so deleting it does not look for it in the track
            smf_event_delete(event);
        }
        g_ptr_array_set_size(events, 0);
        track->number_of_events = 0;
    }
    smf_delete(smf);
}

struct SmfOwner {
    explicit SmfOwner(smf_t* s) : smf(s) {}
    ~SmfOwner() {
        if (smf) releaseSmf(smf);
    }
    SmfOwner(const SmfOwner&) = delete;
    SmfOwner& operator=(const SmfOwner&) = delete;
    smf_t* smf;
};

// ---- reading ------------------------------------------------------------------------------------

struct FileDescriptor {
    explicit FileDescriptor(int f) : fd(f) {}
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int fd;
};

[[noreturn]] void refuseTooLarge() {
    refuse("the file is larger than " + std::to_string(kMaxMidiFileBytes >> 20) + " MB");
}

std::vector<std::uint8_t> readWholeFile(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) refuse(std::strerror(errno));
    struct stat status {};
    if (::fstat(file.fd, &status) != 0) refuse(std::strerror(errno));
    std::vector<std::uint8_t> bytes;
    if (S_ISREG(status.st_mode)) {
        if (std::uintmax_t(status.st_size) > kMaxMidiFileBytes) refuseTooLarge();
        bytes.reserve(std::size_t(status.st_size) + 1); // the extra byte finds the end
    }
    // Read to the end rather than trusting the size, which a pipe does not have.
    for (;;) {
        const std::size_t have = bytes.size();
        if (have > kMaxMidiFileBytes) refuseTooLarge();
        const std::size_t room = bytes.capacity() > have ? bytes.capacity() - have : 1 << 16;
        bytes.resize(have + room);
        const ssize_t got = ::read(file.fd, bytes.data() + have, room);
        if (got < 0 && errno == EINTR) {
            bytes.resize(have);
            continue;
        }
        if (got < 0) refuse(std::strerror(errno));
        bytes.resize(have + std::size_t(got));
        if (got == 0) break;
    }
    return bytes;
}

std::uint32_t bigEndian(const std::uint8_t* p, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i) value = value << 8 | p[i];
    return value;
}

void appendBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) out.push_back(std::uint8_t(value >> (8 * i)));
}

// Walks one track's events the way libsmf will and copies them for it. Refuses what libsmf
// would crash on (0xF7 events, running status after a system exclusive event, a missing end of
// track), misread (status bytes among data bytes, running status after a meta event, tempo
// events of the wrong length) or silently drop (data after the end of track). libsmf takes the
// first byte of a meta event's length for all of it, so meta events are copied with one-byte
// lengths, and those of 128 bytes or more (text, sequencer data) without their data.
class TrackCopier {
public:
    TrackCopier(const std::uint8_t* data, std::size_t size, int number, std::size_t fileOffset)
        : data(data), size(size), number(number), fileOffset(fileOffset) {}

    // Appends the track's chunk to `out`; counts its events, meta events included.
    void copy(std::vector<std::uint8_t>& out, std::size_t& events) {
        const std::size_t chunk = out.size();
        out.insert(out.end(), {'M', 'T', 'r', 'k', 0, 0, 0, 0});
        std::uint8_t running = 0;
        std::int64_t ticks = 0;
        bool ended = false;
        while (pos < size) {
            at = pos;
            if (ended) fail("data after the end-of-track event");
            ticks += readQuantity("delta time");
            if (ticks > kMaxTicks) fail("the track runs past 2^31 ticks");
            if (++events > kMaxMidiFileEvents)
                refuse("more than " + std::to_string(kMaxMidiFileEvents) + " events");
            std::uint8_t status = take();
            if (isData(status)) {
                if (!running)
                    fail("data byte " + hexByte(status) + " without a status byte before it");
                status = running;
                --pos;
            }
            if (status < 0xF0) {
                for (std::size_t i = 0; i < channelDataBytes(status); ++i)
                    if (!isData(take())) fail("status byte inside a channel message");
                running = status;
            } else if (status == 0xFF) {
                running = 0; // meta and system exclusive events end running status
                const std::uint8_t type = take();
                const std::size_t headEnd = pos;
                const std::uint32_t length = readQuantity("meta event length");
                const std::uint8_t* body = skip(length);
                if (type == 0x2F) {
                    if (length != 0) fail("end-of-track event with data");
                    ended = true;
                } else if (type == 0x51) {
                    if (length != 3) fail("tempo event of " + std::to_string(length) + " bytes");
                    if (bigEndian(body, 3) == 0) fail("tempo of zero microseconds per beat");
                } else if (type == 0x58 && length != 4) {
                    fail("time signature event of " + std::to_string(length) + " bytes");
                }
                out.insert(out.end(), data + at, data + headEnd);
                const std::uint32_t kept = length < 0x80 ? length : 0;
                out.push_back(std::uint8_t(kept));
                out.insert(out.end(), body, body + kept);
                continue;
            } else if (status == 0xF0) {
                running = 0;
                const std::uint32_t length = readQuantity("system exclusive length");
                const std::uint8_t* body = skip(length);
                if (length == 0 || body[length - 1] != 0xF7 ||
                    !std::all_of(body, body + length - 1, isData))
                    fail("system exclusive message split into packets or not ended by 0xF7");
            } else if (status == 0xF7) {
                fail("0xF7 escape or continuation event, which is not supported");
            } else {
                fail("status byte " + hexByte(status) + " is not allowed in a track");
            }
            out.insert(out.end(), data + at, data + pos);
        }
        if (!ended) refuse("track " + std::to_string(number) + " has no end-of-track event");
        const std::size_t length = out.size() - chunk - 8;
        for (int i = 0; i < 4; ++i)
            out[chunk + 4 + std::size_t(i)] = std::uint8_t(length >> (24 - 8 * i));
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        refuse("track " + std::to_string(number) + ", byte " + std::to_string(fileOffset + at) +
               ": " + what);
    }

    std::uint8_t take() {
        if (pos >= size) fail("the track ends inside an event");
        return data[pos++];
    }

    const std::uint8_t* skip(std::uint32_t count) {
        if (size - pos < count) fail("the track ends inside an event");
        const std::uint8_t* start = data + pos;
        pos += count;
        return start;
    }

    std::uint32_t readQuantity(const char* what) {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            const std::uint8_t byte = take();
            value = value << 7 | (byte & 0x7F);
            if (!(byte & 0x80)) return value;
        }
        fail(std::string(what) + " longer than four bytes");
    }

    const std::uint8_t* data;
    std::size_t size;
    int number;
    std::size_t fileOffset;
    std::size_t pos = 0;
    std::size_t at = 0; // start of the event being read, for messages
};

struct CheckedFile {
    std::vector<std::uint8_t> smfBytes; // header and track chunks only, for libsmf
    Division division;
    int tracks = 0;
};

// Checks the chunk structure and every track, and rebuilds the file as libsmf handles it: a
// six-byte header, the track chunks only (other chunk kinds are skipped, as the format asks,
// and libsmf would mistake them for tracks), copied as above, and a tick division in place of
// SMPTE time code, which libsmf refuses while its tick times are all that is used here.
CheckedFile checkStructure(const std::vector<std::uint8_t>& file) {
    if (file.empty()) refuse("the file is empty");
    if (file.size() < 8 || std::memcmp(file.data(), "MThd", 4) != 0)
        refuse("not a MIDI file (no MThd header)");
    const std::uint32_t headerLength = bigEndian(&file[4], 4);
    if (headerLength < 6) refuse("header chunk of " + std::to_string(headerLength) + " bytes");
    if (file.size() - 8 < headerLength) refuse("the file ends inside its header");
    const std::uint32_t format = bigEndian(&file[8], 2);
    const std::uint32_t declaredTracks = bigEndian(&file[10], 2);
    const std::uint32_t division = bigEndian(&file[12], 2);
    if (format == 2) refuse("format 2 (independent sequences) is not supported");
    if (format > 2) refuse("unknown format " + std::to_string(format));
    if (declaredTracks == 0) refuse("the header declares no tracks");
    if (format == 0 && declaredTracks != 1)
        refuse("a format 0 file has one track, the header declares " +
               std::to_string(declaredTracks));

    CheckedFile checked;
    if (division & 0x8000) {
        const int framesPerSecond = 256 - int(division >> 8);
        const int ticksPerFrame = int(division & 0xFF);
        if (framesPerSecond != 24 && framesPerSecond != 25 && framesPerSecond != 29 &&
            framesPerSecond != 30)
            refuse("unknown SMPTE frame rate " + std::to_string(framesPerSecond));
        if (ticksPerFrame == 0) refuse("zero ticks per SMPTE frame");
        checked.division.smpte = true;
        // 29 stands for the drop-frame rate of 30000/1001 frames per second.
        const bool dropFrame = framesPerSecond == 29;
        checked.division.unitsPerTick = dropFrame ? 1001 : 1;
        checked.division.unitsPerSecond =
            std::int64_t(dropFrame ? 30000 : framesPerSecond) * ticksPerFrame;
    } else {
        if (division == 0) refuse("zero ticks per quarter note");
        checked.division.ppqn = division;
    }

    std::vector<std::uint8_t>& out = checked.smfBytes;
    out = {'M', 'T', 'h', 'd', 0, 0, 0, 6};
    appendBigEndian(out, format, 2);
    appendBigEndian(out, declaredTracks, 2);
    appendBigEndian(out, checked.division.smpte ? 1 : division, 2);

    std::size_t events = 0;
    std::size_t pos = 8 + std::size_t(headerLength);
    while (checked.tracks < int(declaredTracks)) {
        if (pos == file.size())
            refuse("the header declares " + std::to_string(declaredTracks) +
                   " tracks but the file holds " + std::to_string(checked.tracks));
        if (file.size() - pos < 8) refuse("the file ends inside a chunk header (truncated?)");
        const std::uint8_t* id = &file[pos];
        const std::uint32_t length = bigEndian(&file[pos + 4], 4);
        const std::size_t body = pos + 8;
        const bool isTrack = std::memcmp(id, "MTrk", 4) == 0;
        if (!isTrack &&
            !std::all_of(id, id + 4, [](std::uint8_t c) { return c >= 0x20 && c < 0x7F; }))
            refuse("no chunk starts at byte " + std::to_string(pos));
        if (file.size() - body < length)
            refuse("chunk '" + std::string(id, id + 4) + "' at byte " + std::to_string(pos) +
                   " runs past the end of the file (truncated?)");
        if (isTrack) {
            ++checked.tracks;
            TrackCopier(&file[body], length, checked.tracks, body).copy(out, events);
        }
        pos = body + length;
    }
    // Whatever follows the declared tracks is ignored, as libsmf does.
    return checked;
}

// ---- writing ------------------------------------------------------------------------------------

// Sizes of the fixed parts of a written file, delta times included.
constexpr std::size_t kHeaderBytes = 14;
constexpr std::size_t kTrackHeaderBytes = 8;
constexpr std::size_t kTempoEventBytes = 7;
constexpr std::size_t kEndOfTrackBytes = 4;
constexpr std::size_t kMaxDeltaBytes = 4;
constexpr std::uint8_t kFiller[] = {0xFF, 0x01, 0x00}; // an empty text event

// Tick rate of a written file: ppqn ticks per quarter note of usPerQuarter microseconds.
struct WriteTiming {
    std::int64_t ppqn;
    std::int64_t usPerQuarter;
};

// One tick per frame takes ppqn * 1,000,000 == usPerQuarter * rate; the largest such pair within
// the header's 15 bits lands near a musical tempo at the usual rates (87.9 bpm at 48 kHz). Where
// none fits, ticks are made as fine as the header allows and never longer than a frame.
WriteTiming writeTimingFor(double sampleRate) {
    if (isIntegral(sampleRate)) {
        const auto rate = std::int64_t(sampleRate);
        const std::int64_t common = std::gcd(rate, kMicroseconds);
        const std::int64_t ppqn = rate / common;
        const std::int64_t us = kMicroseconds / common;
        if (ppqn <= kMaxPpqn) {
            const std::int64_t factor = std::min(kMaxPpqn / ppqn, kMaxUsPerQuarter / us);
            return {ppqn * factor, us * factor};
        }
    }
    const auto us = std::int64_t(std::floor(kMaxPpqn * kMicroseconds / sampleRate));
    return {kMaxPpqn, std::min(us, kMaxUsPerQuarter)};
}

std::int64_t frameOfTick(std::int64_t tick, const WriteTiming& timing, double sampleRate) {
    return nearestFrame(tick * timing.usPerQuarter, timing.ppqn * kMicroseconds, sampleRate);
}

// The first tick that reads back as `frame`; one exists as ticks are no longer than frames.
std::int64_t tickForFrame(std::int64_t frame, const WriteTiming& timing, double sampleRate) {
    const long double ticksPerFrame = static_cast<long double>(timing.ppqn * kMicroseconds) /
                                      (static_cast<long double>(timing.usPerQuarter) * sampleRate);
    auto tick = std::int64_t(std::llround(frame * ticksPerFrame));
    while (tick > 0 && frameOfTick(tick - 1, timing, sampleRate) >= frame) --tick;
    while (frameOfTick(tick, timing, sampleRate) < frame) ++tick;
    return tick;
}

// Bytes taken by a variable-length quantity.
std::size_t quantityBytes(std::uint32_t value) {
    std::size_t count = 1;
    while (value >>= 7) ++count;
    return count;
}

// Values must be at most kMaxDelta, which four bytes hold.
void appendQuantity(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 21; shift > 0; shift -= 7)
        if (value >> shift) out.push_back(std::uint8_t(0x80 | (value >> shift & 0x7F)));
    out.push_back(std::uint8_t(value & 0x7F));
}

// Messages go out whole, status byte included (no running status, which every reader takes);
// a system exclusive event also has the length of the rest after its 0xF0.
std::size_t eventBytes(const std::vector<std::uint8_t>& message) {
    if (message.front() != 0xF0) return message.size();
    return 1 + quantityBytes(std::uint32_t(message.size() - 1)) + message.size() - 1;
}

void appendEvent(std::vector<std::uint8_t>& out, const std::vector<std::uint8_t>& message) {
    if (message.front() == 0xF0) {
        out.push_back(0xF0);
        appendQuantity(out, std::uint32_t(message.size() - 1));
        out.insert(out.end(), message.begin() + 1, message.end());
    } else {
        out.insert(out.end(), message.begin(), message.end());
    }
}

// Writes all of `bytes` over the existing, empty file at `path`.
void writeWholeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    FileDescriptor file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (file.fd < 0) refuse(std::strerror(errno));
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t wrote = ::write(file.fd, bytes.data() + done, bytes.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) refuse(std::strerror(errno));
        if (wrote == 0) refuse("the file system took no more data");
        done += std::size_t(wrote);
    }
    // Some file systems only report a failed write when the file is closed.
    if (::close(std::exchange(file.fd, -1)) != 0) refuse(std::strerror(errno));
}

} // namespace

std::vector<TimedMidiMessage> readMidiFile(const std::string& path, double sampleRate) {
    try {
        checkSampleRate(sampleRate);
        const CheckedFile checked = checkStructure(readWholeFile(path));

        LibsmfLog log;
        const SmfOwner owner(
            smf_load_from_memory(checked.smfBytes.data(), int(checked.smfBytes.size())));
        if (!owner.smf || log.complained() || owner.smf->number_of_tracks != checked.tracks)
            refuse(log.complained() ? log.firstComplaint() : "libsmf could not load it");

        // Tracks are merged here rather than with smf_get_next_event, which scans every track
        // for each event and returned nothing at all for some valid format 1 files.
        std::vector<const smf_event_t*> events;
        for (int t = 1; t <= owner.smf->number_of_tracks; ++t) {
            const smf_track_t* track = smf_get_track_by_number(owner.smf, t);
            for (int e = 1; e <= track->number_of_events; ++e)
                events.push_back(smf_track_get_event_by_number(track, e));
        }
        std::stable_sort(events.begin(), events.end(), [](const auto* a, const auto* b) {
            return a->time_pulses < b->time_pulses;
        });

        Clock clock(checked.division);
        std::vector<TimedMidiMessage> messages;
        for (const smf_event_t* event : events) {
            const std::uint8_t* bytes = event->midi_buffer;
            const auto size = std::size_t(event->midi_buffer_length);
            if (size >= 1 && bytes[0] == 0xFF) {
                if (size == 6 && bytes[1] == 0x51)
                    clock.setTempo(event->time_pulses, bigEndian(bytes + 3, 3));
                continue;
            }
            TimedMidiMessage message{clock.frameAt(event->time_pulses, sampleRate),
                                     std::vector<std::uint8_t>(bytes, bytes + size)};
            if (!isCompleteMessage(message.bytes))
                refuse("libsmf returned an incomplete message at tick " +
                       std::to_string(event->time_pulses));
            messages.push_back(std::move(message));
        }
        return messages;
    } catch (const Refusal& refusal) {
        throw Error("cannot read '" + path + "': " + refusal.what());
    }
}

void writeMidiFile(const std::string& path, const std::vector<TimedMidiMessage>& messages,
                   double sampleRate) {
    try {
        checkSampleRate(sampleRate);
        std::vector<const TimedMidiMessage*> order;
        order.reserve(messages.size());
        for (const TimedMidiMessage& message : messages) order.push_back(&message);
        std::stable_sort(order.begin(), order.end(),
                         [](const auto* a, const auto* b) { return a->frame < b->frame; });

        const WriteTiming timing = writeTimingFor(sampleRate);
        std::vector<std::int64_t> ticks;
        ticks.reserve(order.size());
        std::size_t events = 2; // the tempo and end-of-track events
        std::size_t trackBytes = kTempoEventBytes + kEndOfTrackBytes;
        std::int64_t previous = 0;
        for (const TimedMidiMessage* message : order) {
            const std::string where = "message at frame " + std::to_string(message->frame);
            if (!isCompleteMessage(message->bytes) || message->bytes.size() > kMaxMidiFileBytes)
                refuse(where + " is not one complete channel or system exclusive message");
            if (message->frame < 0) refuse(where + " comes before the start");
            // There are at least as many ticks as frames.
            if (message->frame > kMaxTicks) refuse(where + " is later than a MIDI file can time");
            const std::int64_t tick = tickForFrame(message->frame, timing, sampleRate);
            if (tick > kMaxTicks) refuse(where + " is later than a MIDI file can time");
            if (frameOfTick(tick, timing, sampleRate) != message->frame)
                refuse(where + " cannot be timed exactly at this sample rate");
            const std::int64_t gap = tick - previous;
            // A gap too long for one delta time is bridged with empty text events, which players
            // skip.
            const std::int64_t fillers = gap > 0 ? (gap - 1) / kMaxDelta : 0;
            events += 1 + std::size_t(fillers);
            trackBytes += std::size_t(fillers) * (kMaxDeltaBytes + sizeof kFiller) +
                          quantityBytes(std::uint32_t(gap - fillers * kMaxDelta)) +
                          eventBytes(message->bytes);
            ticks.push_back(tick);
            previous = tick;
        }
        if (events > kMaxMidiFileEvents)
            refuse("more than " + std::to_string(kMaxMidiFileEvents) + " events");
        // A file the reader would refuse is no use: only long system exclusive data gets here.
        if (kHeaderBytes + kTrackHeaderBytes + trackBytes > kMaxMidiFileBytes)
            refuse("it would be larger than " + std::to_string(kMaxMidiFileBytes >> 20) + " MB");

        std::vector<std::uint8_t> out;
        out.reserve(kHeaderBytes + kTrackHeaderBytes + trackBytes);
        out.insert(out.end(), {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1}); // format 0, 1 track
        appendBigEndian(out, std::uint32_t(timing.ppqn), 2);
        out.insert(out.end(), {'M', 'T', 'r', 'k'});
        appendBigEndian(out, std::uint32_t(trackBytes), 4);
        out.insert(out.end(), {0x00, 0xFF, 0x51, 0x03});
        appendBigEndian(out, std::uint32_t(timing.usPerQuarter), 3);
        std::int64_t last = 0;
        for (std::size_t i = 0; i < order.size(); ++i) {
            while (ticks[i] - last > kMaxDelta) {
                last += kMaxDelta;
                appendQuantity(out, kMaxDelta);
                out.insert(out.end(), std::begin(kFiller), std::end(kFiller));
            }
            appendQuantity(out, std::uint32_t(ticks[i] - last));
            appendEvent(out, order[i]->bytes);
            last = ticks[i];
        }
        out.insert(out.end(), {0x00, 0xFF, 0x2F, 0x00});

        AtomicFile temp(path);
        writeWholeFile(temp.temporaryPath(), out);
        temp.commit();
    } catch (const Refusal& refusal) {
        throw Error("cannot write '" + path + "': " + refusal.what());
    } catch (const FileError& e) {
        throw Error(e.what());
    }
}

} // namespace sr::cli
