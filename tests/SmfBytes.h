// Standard MIDI files byte by byte, written and parsed without any MIDI library, so that
// tests can check our MIDI file code (and the renderer's) against an independent reading.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace sr::test::smf {

using Bytes = std::vector<std::uint8_t>;

// ---- an independent writer ----------------------------------------------------------------------

inline void putBigEndian(Bytes& out, std::uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) out.push_back(std::uint8_t(value >> (8 * i)));
}

// Variable-length quantity: seven bits a byte, most significant first, high bit on all but last.
inline void putQuantity(Bytes& out, std::uint32_t value) {
    Bytes groups{std::uint8_t(value & 0x7F)};
    while (value >>= 7) groups.push_back(std::uint8_t(0x80 | (value & 0x7F)));
    out.insert(out.end(), groups.rbegin(), groups.rend());
}

inline Bytes header(int format, int tracks, int division) {
    Bytes out{'M', 'T', 'h', 'd'};
    putBigEndian(out, 6, 4);
    putBigEndian(out, std::uint32_t(format), 2);
    putBigEndian(out, std::uint32_t(tracks), 2);
    putBigEndian(out, std::uint32_t(division), 2);
    return out;
}

// An event: delta time, then bytes as they stand in the file.
inline Bytes event(std::uint32_t delta, const Bytes& bytes) {
    Bytes out;
    putQuantity(out, delta);
    out.insert(out.end(), bytes.begin(), bytes.end());
    return out;
}

inline Bytes tempo(std::uint32_t delta, std::uint32_t usPerQuarter) {
    Bytes bytes{0xFF, 0x51, 0x03};
    putBigEndian(bytes, usPerQuarter, 3);
    return event(delta, bytes);
}

inline const Bytes kEndOfTrack{0x00, 0xFF, 0x2F, 0x00};

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A track chunk around `events`; `lengthError` misstates its length.
inline Bytes track(const Bytes& events, int lengthError = 0) {
    Bytes out{'M', 'T', 'r', 'k'};
    putBigEndian(out, std::uint32_t(int(events.size()) + lengthError), 4);
    out.insert(out.end(), events.begin(), events.end());
    return out;
}

// ---- an independent reader ----------------------------------------------------------------------

struct ParsedEvent {
    std::int64_t tick;
    Bytes bytes; // meta events as FF, type, data (no length); system exclusive as F0 ... F7
};

struct ParsedFile {
    int format = -1, tracks = -1, division = -1;
    std::vector<std::vector<ParsedEvent>> trackEvents;
};

inline std::uint32_t bigEndianAt(const Bytes& b, std::size_t at, int count) {
    if (at + std::size_t(count) > b.size()) throw std::runtime_error("short read");
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i) value = value << 8 | b[at + std::size_t(i)];
    return value;
}

inline std::uint32_t quantityAt(const Bytes& b, std::size_t& at, std::size_t end) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        if (at >= end) throw std::runtime_error("quantity runs off the track");
        const std::uint8_t byte = b[at++];
        value = value << 7 | (byte & 0x7F);
        if (!(byte & 0x80)) return value;
    }
    throw std::runtime_error("quantity longer than four bytes");
}

inline ParsedFile parse(const Bytes& b) {
    ParsedFile file;
    if (b.size() < 14 || std::string(b.begin(), b.begin() + 4) != "MThd" ||
        bigEndianAt(b, 4, 4) != 6)
        throw std::runtime_error("no six-byte MThd chunk");
    file.format = int(bigEndianAt(b, 8, 2));
    file.tracks = int(bigEndianAt(b, 10, 2));
    file.division = int(bigEndianAt(b, 12, 2));
    std::size_t at = 14;
    while (at < b.size()) {
        const std::string id(b.begin() + std::ptrdiff_t(at), b.begin() + std::ptrdiff_t(at + 4));
        const std::size_t end = at + 8 + bigEndianAt(b, at + 4, 4);
        if (id != "MTrk" || end > b.size()) throw std::runtime_error("bad track chunk");
        at += 8;
        std::vector<ParsedEvent>& events = file.trackEvents.emplace_back();
        std::int64_t tick = 0;
        std::uint8_t running = 0;
        while (at < end) {
            tick += quantityAt(b, at, end);
            std::uint8_t status = b.at(at);
            if (status < 0x80) {
                status = running;
            } else {
                ++at;
            }
            Bytes bytes{status};
            if (status >= 0x80 && status < 0xF0) {
                running = status;
                const std::size_t count = (status & 0xE0) == 0xC0 ? 1 : 2;
                for (std::size_t i = 0; i < count; ++i) bytes.push_back(b.at(at++));
            } else if (status == 0xFF) {
                bytes.push_back(b.at(at++));
                const std::uint32_t length = quantityAt(b, at, end);
                bytes.insert(bytes.end(), b.begin() + std::ptrdiff_t(at),
                             b.begin() + std::ptrdiff_t(at + length));
                at += length;
            } else if (status == 0xF0) {
                const std::uint32_t length = quantityAt(b, at, end);
                bytes.insert(bytes.end(), b.begin() + std::ptrdiff_t(at),
                             b.begin() + std::ptrdiff_t(at + length));
                at += length;
            } else {
                throw std::runtime_error("unexpected status byte");
            }
            if (at > end) throw std::runtime_error("event runs off the track");
            events.push_back({tick, bytes});
        }
    }
    return file;
}

} // namespace sr::test::smf
