// MIDI files for the renderer: files built here byte by byte are read with readMidiFile, and
// what writeMidiFile produces is read back both by readMidiFile and by this file's own parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "cli/Errors.h"
#include "cli/MidiFiles.h"
#include "tests/SmfBytes.h"
#include "tests/TestFiles.h"

namespace {

using namespace sr::cli;
using namespace sr::test::smf;
namespace fs = std::filesystem;
using Messages = std::vector<TimedMidiMessage>;
constexpr auto npos = std::string::npos;

fs::path freshDirectory(const std::string& name) {
    return sr::test::freshDirectory("midi", name);
}

fs::path save(const fs::path& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    EXPECT_TRUE(out.good()) << path;
    return path;
}

Bytes load(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A one-track file of `events` and an end of track.
Bytes oneTrack(const Bytes& events, int division = 480) {
    return concat({header(0, 1, division), track(concat({events, kEndOfTrack}))});
}

Messages readBytes(const fs::path& dir, const Bytes& bytes, double rate = 48000) {
    return readMidiFile(save(dir / "in.mid", bytes).string(), rate);
}

// The messages of a one-track file as the independent parser reads them, at hand-computed frames.
Messages at(const Bytes& file, const std::vector<std::int64_t>& frames) {
    const ParsedFile parsed = parse(file);
    Messages messages;
    for (const ParsedEvent& e : parsed.trackEvents.at(0))
        if (e.bytes[0] != 0xFF) messages.push_back({frames.at(messages.size()), e.bytes});
    EXPECT_EQ(messages.size(), frames.size());
    return messages;
}

// A refused read: one line naming the file and giving `reason`, and not a word from glib.
void expectRefused(const fs::path& path, const std::string& reason) {
    testing::internal::CaptureStderr();
    std::string message = "(accepted)";
    try {
        readMidiFile(path.string(), 48000);
    } catch (const Error& error) {
        message = error.what();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << path;
    EXPECT_NE(message.find("'" + path.string() + "'"), npos) << message;
    EXPECT_NE(message.find(reason), npos) << message;
    EXPECT_EQ(message.find('\n'), npos) << message;
}

// ---- reading ------------------------------------------------------------------------------------

TEST(MidiFileRead, Format0TempoChangeRunningStatusEveryMessageKindAndSmpte) {
    const fs::path dir = freshDirectory("format0");
    // 480 ticks per quarter note: 120 bpm (1/960 s a tick) until tick 960, then 60 bpm (1/480 s).
    const Bytes events = concat({
        event(0, {0x90, 0x3C, 0x64}),                           // tick 0      note on
        event(1, {0xB0, 0x40, 0x7F}),                           // tick 1      controller
        event(7, {0x91, 0x40, 0x50}),                           // tick 8      note on, channel 2
        event(232, {0xC0, 0x05}),                               // tick 240    program change
        event(240, {0xE0, 0x00, 0x40}),                         // tick 480    pitch bend
        event(0, {0xFF, 0x03, 0x04, 'l', 'e', 'a', 'd'}),       // track name, skipped
        event(240, {0xA0, 0x3C, 0x20}),                         // tick 720    key pressure
        tempo(240, 1'000'000),                                  // tick 960    60 bpm
        event(0, {0xD0, 0x30}),                                 // tick 960    channel pressure
        event(240, {0x80, 0x3C, 0x00}),                         // tick 1200   note off
        event(1, {0x90, 0x3E, 0x64}),                           // tick 1201   note on
        event(0, {0x3E, 0x00}),                                 // tick 1201   running status
        event(240, {0xF0, 0x05, 0x7E, 0x7F, 0x09, 0x01, 0xF7}), // tick 1441 system exclusive
    });
    const Bytes file = oneTrack(events);
    EXPECT_EQ(readBytes(dir, file, 48000),
              at(file, {0, 50, 400, 12000, 24000, 36000, 48000, 72000, 72100, 72100, 96100}));
    // At 44100 Hz ticks fall between frames: 45.9375 frames a tick, then 91.875 after tick 960;
    // tick 8 is 367.5 frames, a half rounded up.
    EXPECT_EQ(readBytes(dir, file, 44100),
              at(file, {0, 46, 368, 11025, 22050, 33075, 44100, 66150, 66242, 66242, 88292}));

    // SMPTE time code ignores tempo. 25 frames per second of 40 ticks: a tick is a millisecond.
    const Bytes timed = concat(
        {tempo(0, 1'000'000), event(1000, {0x90, 0x3C, 0x64}), event(2000, {0x80, 0x3C, 0x00})});
    const Bytes file25 = oneTrack(timed, (0x100 - 25) << 8 | 40);
    EXPECT_EQ(readBytes(dir, file25), at(file25, {48000, 144000}));
    // 29.97 drop-frame with 100 ticks a frame: 1000 ticks are 1001/3000 s, 16016 frames.
    const Bytes file2997 = oneTrack(timed, (0x100 - 29) << 8 | 100);
    EXPECT_EQ(readBytes(dir, file2997), at(file2997, {16016, 48048}));
}

TEST(MidiFileRead, Format1TracksMergeUnderOneTempoMap) {
    const fs::path dir = freshDirectory("format1");
    // The first track starts late and is timed by the conductor's tempo map: 240 bpm (1/1920 s a
    // tick) until tick 960, then 60 bpm (1/480 s). At equal ticks, track order.
    const Bytes late = concat({event(1440, {0x90, 0x30, 0x40}), kEndOfTrack});
    const Bytes conductor =
        concat({event(0, {0xFF, 0x58, 0x04, 0x04, 0x02, 0x18, 0x08}), tempo(0, 250'000),
                tempo(960, 1'000'000), event(0, {0xB1, 0x07, 0x64}), kEndOfTrack});
    const Bytes notes = concat({event(0, {0x90, 0x3C, 0x64}), event(960, {0x90, 0x3E, 0x64}),
                                event(480, {0x80, 0x3C, 0x00}), kEndOfTrack});
    const Messages expected{{0, {0x90, 0x3C, 0x64}},
                            {24000, {0xB1, 0x07, 0x64}},
                            {24000, {0x90, 0x3E, 0x64}},
                            {72000, {0x90, 0x30, 0x40}},
                            {72000, {0x80, 0x3C, 0x00}}};
    // Unknown chunks are skipped, as is anything after the declared tracks.
    const Bytes other{'X', 'Y', 'Z', 'W', 0, 0, 0, 3, 1, 2, 3};
    EXPECT_EQ(readBytes(dir, concat({header(1, 3, 480), other, track(late), track(conductor), other,
                                     track(notes), Bytes{0x00, 0x01, 0x02}})),
              expected);
}

// libsmf misreads meta events of 128 bytes or more, losing what follows them.
TEST(MidiFileRead, LongMetaAndSystemExclusiveEvents) {
    const fs::path dir = freshDirectory("long-events");
    Bytes text{0xFF, 0x02, 0x81, 0x48}; // 200 bytes
    text.insert(text.end(), 200, 'c');
    Bytes sysex{0xF0, 0x82, 0x2C}; // 300 bytes
    for (int i = 0; i < 299; ++i) sysex.push_back(std::uint8_t(i % 128));
    sysex.push_back(0xF7);
    const Bytes paddedTempo{0xFF, 0x51, 0x80, 0x03, 0x0F, 0x42, 0x40}; // 60 bpm, length 2 bytes
    const Bytes file = oneTrack(concat(
        {event(0, text), event(0, {0x90, 0x3C, 0x64}), event(480, sysex), event(0, paddedTempo),
         event(480, {0x80, 0x3C, 0x00}), event(0, text), event(1, {0xB0, 0x01, 0x02})}));
    EXPECT_EQ(readBytes(dir, file), at(file, {0, 24000, 72000, 72100}));
}

TEST(MidiFileRead, MillionEventsAcceptedQuicklyOneMoreRefused) {
    const fs::path dir = freshDirectory("limit");
    // Notes a tick apart in running status; with the end of track, one event more.
    const auto fileOf = [](std::size_t messages) {
        Bytes events{0x00, 0x90, 0x3C, 0x64};
        for (std::size_t i = 1; i < messages; ++i) events.insert(events.end(), {0x01, 0x3C, 0x64});
        return oneTrack(events);
    };
    const auto start = std::chrono::steady_clock::now();
    const Messages read = readBytes(dir, fileOf(kMaxMidiFileEvents - 1));
    // Freeing libsmf's events one by one takes minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    ASSERT_EQ(read.size(), kMaxMidiFileEvents - 1);
    EXPECT_EQ(read.back().frame, std::int64_t(kMaxMidiFileEvents - 2) * 50);
    expectRefused(save(dir / "over.mid", fileOf(kMaxMidiFileEvents)), "more than 1000000 events");
}

// ---- refusals -----------------------------------------------------------------------------------

TEST(MidiFileRefusal, MalformedFilesNameTheFileAndKeepGlibQuiet) {
    const fs::path dir = freshDirectory("malformed");
    const Bytes notes = concat({event(0, {0x90, 0x3C, 0x64}), event(96, {0x80, 0x3C, 0x00})});
    const Bytes good = oneTrack(notes);
    Bytes longGaps = event(0, {0x90, 0x3C, 0x64}); // nine of the longest delta times
    for (int i = 0; i < 9; ++i) longGaps = concat({longGaps, event(0x0FFFFFFF, {0x3C, 0x64})});
    const Bytes end = track(kEndOfTrack);

    // One file for each rule, including what would crash libsmf or have it misread the file.
    const std::vector<std::tuple<const char*, Bytes, const char*>> cases{
        {"empty", {}, "empty"},
        {"riff", concat({Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0}, good}), "not a MIDI file"},
        {"header-4", concat({Bytes{'M', 'T', 'h', 'd', 0, 0, 0, 4, 0, 0, 0, 1}, end}),
         "chunk of 4"},
        {"format-2", concat({header(2, 1, 480), end}), "format 2"},
        {"two-tracks-in-format-0", concat({header(0, 2, 480), end, end}), "format 0"},
        {"three-declared-one-present", concat({header(1, 3, 480), end}), "3 tracks"},
        {"no-tracks", header(1, 0, 480), "no tracks"},
        {"zero-division", concat({header(0, 1, 0), end}), "zero ticks"},
        {"garbage-chunk", concat({header(0, 1, 480), Bytes{1, 2, 3, 4, 0, 0, 0, 0}}), "no chunk"},
        {"truncated-chunk", concat({header(0, 1, 480), track(kEndOfTrack, 100)}), "past the end"},
        {"missing-end-of-track", concat({header(0, 1, 480), track(notes)}), "end-of-track"},
        {"data-after-end", oneTrack(concat({kEndOfTrack, notes})), "after the end"},
        {"data-without-status", oneTrack(event(0, {0x3C, 0x64})), "without a status"},
        {"after-meta", oneTrack(concat({notes, Bytes{0, 0xFF, 1, 1, 'x', 0, 0x3C, 0}})), "without"},
        {"after-sysex", oneTrack(concat({notes, Bytes{0, 0xF0, 1, 0xF7, 0, 0x3C, 0}})), "without"},
        {"status-inside-message", oneTrack(event(0, {0x90, 0x90, 0x01})), "status byte inside"},
        {"continued-sysex", oneTrack(Bytes{0, 0xF0, 2, 0x7E, 1, 10, 0xF7, 1, 0xF7}), "exclusive"},
        {"escape", oneTrack(event(0, {0xF7, 0x01, 0xF8})), "0xF7"},
        {"realtime-status", oneTrack(event(0, {0xF8})), "0xF8"},
        {"long-delta", oneTrack(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x90, 0x3C, 0x64}), "four"},
        {"tempo-of-two-bytes", oneTrack(event(0, {0xFF, 0x51, 0x02, 0x07, 0xA1})), "of 2 bytes"},
        {"tempo-zero", oneTrack(concat({tempo(0, 0), notes})), "tempo of zero"},
        {"huge-sysex", oneTrack(Bytes{0x00, 0xF0, 0x8F, 0xFF, 0xFF, 0x7F, 0x01}), "ends inside"},
        {"past-2^31-ticks", oneTrack(longGaps), "2^31"},
    };
    for (const auto& [name, bytes, reason] : cases)
        expectRefused(save(dir / (std::string(name) + ".mid"), bytes), reason);

    // Every cut of a good file, however short; not files at all; too large to be read.
    for (std::size_t cut = 0; cut < good.size(); ++cut)
        expectRefused(save(dir / "cut.mid", Bytes(good.begin(), good.begin() + long(cut))), "");
    expectRefused(dir / "missing.mid", "No such file");
    expectRefused(dir, "");
    const fs::path large = save(dir / "large.mid", good);
    fs::resize_file(large, kMaxMidiFileBytes + 1); // sparse: nothing is written
    expectRefused(large, "larger than 64 MB");
}

// Damaged copies of a good file are read or refused, never crash, and glib stays quiet.
TEST(MidiFileRefusal, DamagedFilesNeverCrash) {
    const fs::path path = freshDirectory("damaged") / "damaged.mid";
    const Bytes first = concat(
        {event(0, {0xFF, 0x03, 0x02, 'h', 'i'}), tempo(0, 600'000), event(0, {0x90, 0x3C, 0x64}),
         event(10, {0x3E, 0x64}), event(0, {0xF0, 0x03, 0x7E, 0x01, 0xF7}), event(20, {0xC1, 0x05}),
         event(0, {0xFF, 0x01, 0x81, 0x01}), Bytes(129, 'a'), event(200, {0xF0, 0x81, 0x00}),
         Bytes(127, 0x11), Bytes{0xF7}, kEndOfTrack});
    const Bytes second = concat({event(3, {0xB2, 0x07, 0x64}), event(3, {0x08, 0x10}),
                                 tempo(100, 400'000), event(1, {0xD3, 0x30}), kEndOfTrack});
    const Bytes good = concat({header(1, 2, 96), track(first), track(second)});
    const Bytes interesting{0x00, 0x01, 0x7F, 0x80, 0x90, 0xF0, 0xF7, 0xFF, 0x2F, 0x51, 0x06};

    std::mt19937 random(7);
    int accepted = 0;
    testing::internal::CaptureStderr();
    for (int round = 0; round < 1000; ++round) {
        Bytes bytes = good;
        for (int damage = 1 + int(random() % 3); damage > 0; --damage) {
            const auto pos = long(random() % bytes.size());
            const auto kind = random() % 4;
            if (kind == 0) bytes[std::size_t(pos)] = std::uint8_t(random());
            if (kind == 1) bytes[std::size_t(pos)] = interesting[random() % interesting.size()];
            if (kind == 2) bytes.erase(bytes.begin() + pos);
            if (kind == 3)
                bytes.insert(bytes.begin() + pos, interesting[random() % interesting.size()]);
        }
        try {
            const Messages read = readMidiFile(save(path, bytes).string(), 48000);
            ++accepted;
            for (std::size_t i = 0; i < read.size(); ++i) {
                const Bytes& m = read[i].bytes; // in time order, each one whole message
                ASSERT_TRUE((i == 0 || read[i - 1].frame <= read[i].frame) && !m.empty() &&
                            (m[0] == 0xF0 ? m.back() == 0xF7 : m[0] >= 0x80 && m[0] < 0xF0))
                    << round;
            }
        } catch (const Error& error) {
            ASSERT_NE(std::string(error.what()).find(path.string()), npos);
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GT(accepted, 0); // some damage only changes values
}

// ---- writing ------------------------------------------------------------------------------------

// Read back by readMidiFile and by the independent parser, which times each tick from the
// file's own tempo and division.
TEST(MidiFileWrite, ReadsBackTheSameMessagesOneTickPerFrameWherePossible) {
    const fs::path dir = freshDirectory("round-trip");
    Bytes longSysex{0xF0};
    for (int i = 0; i < 300; ++i) longSysex.push_back(std::uint8_t(i * 7 % 128));
    longSysex.push_back(0xF7);
    const Messages sorted{
        {0, {0x90, 0x3C, 0x64}},
        {0, {0xB0, 0x07, 0x50}},
        {1, {0xC3, 0x11}},
        {480, {0xE0, 0x7F, 0x7F}},
        {48001, {0xF0, 0x43, 0x10, 0x4C, 0x00, 0x00, 0x7E, 0x00, 0xF7}},
        {48001, {0x80, 0x3C, 0x00}},
        {960'000, {0xF0, 0xF7}},
        {960'000, longSysex},
        // Three hours at 48 kHz: a gap longer than one delta time can hold.
        {518'400'000, {0xBF, 0x7B, 0x00}},
    };
    // Given backwards, written in frame order with equal frames in the order given.
    const Messages given(sorted.rbegin(), sorted.rend());
    Messages expected = given;
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto& a, const auto& b) { return a.frame < b.frame; });

    // 44101 and 22050.5 Hz cannot have one tick per frame, and still round-trip.
    for (const double rate : {44100.0, 48000.0, 44101.0, 22050.5}) {
        const fs::path path = dir / ("out-" + std::to_string(rate) + ".mid");
        writeMidiFile(path.string(), given, rate);
        EXPECT_EQ(readMidiFile(path.string(), rate), expected) << rate;

        const ParsedFile file = parse(load(path));
        ASSERT_EQ(
            std::tuple(file.format, file.tracks, file.trackEvents.size(), file.division < 0x8000),
            std::tuple(0, 1, std::size_t(1), true));
        const std::vector<ParsedEvent>& events = file.trackEvents[0];
        // First the tempo, then the messages with only empty text events between them, then
        // the end of track at the last message's tick.
        ASSERT_GT(events.size(), 2u);
        EXPECT_EQ(events[0].tick, 0);
        EXPECT_EQ(Bytes(events[0].bytes.begin(), events[0].bytes.begin() + 2), (Bytes{0xFF, 0x51}));
        const std::int64_t usPerQuarter = bigEndianAt(events[0].bytes, 2, 3);
        EXPECT_EQ(usPerQuarter * rate == file.division * 1e6, rate == 44100 || rate == 48000);
        Messages found;
        for (std::size_t i = 1; i + 1 < events.size(); ++i) {
            const auto& [tick, bytes] = events[i];
            EXPECT_TRUE(bytes[0] != 0xFF || bytes == Bytes({0xFF, 0x01})) << i;
            const long double frame = static_cast<long double>(tick * usPerQuarter) * rate /
                                      (file.division * 1'000'000LL);
            if (bytes[0] != 0xFF) found.push_back({std::int64_t(std::floor(frame + 0.5L)), bytes});
        }
        EXPECT_EQ(found, expected) << rate;
        EXPECT_EQ(events.back().bytes, (Bytes{0xFF, 0x2F}));
        EXPECT_EQ(events.back().tick, events[events.size() - 2].tick);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 4); // no temporary files left
}

TEST(MidiFileWrite, RefusalsLeaveNothingBehind) {
    const fs::path dir = freshDirectory("write-refusals");
    const fs::path path = save(dir / "out.mid", {'o', 'l', 'd'});
    const std::vector<std::pair<const char*, TimedMidiMessage>> bad{
        {"empty", {0, {}}},
        {"short note", {0, {0x90, 0x3C}}},
        {"long program change", {0, {0xC0, 0x01, 0x02}}},
        {"status among data", {0, {0x90, 0x3C, 0x80}}},
        {"unended sysex", {0, {0xF0, 0x7E, 0x01}}},
        {"status inside sysex", {0, {0xF0, 0x90, 0xF7}}},
        {"realtime", {0, {0xF8}}},
        {"before the start", {-1, {0x90, 0x3C, 0x64}}},
        {"past 2^31 ticks", {std::int64_t(1) << 31, {0x90, 0x3C, 0x64}}}};
    for (const auto& [name, message] : bad) {
        try {
            writeMidiFile(path.string(), {{0, {0x90, 0x3C, 0x64}}, message}, 48000);
            ADD_FAILURE() << name << " accepted";
        } catch (const Error& error) {
            EXPECT_NE(std::string(error.what()).find("'" + path.string() + "'"), npos) << name;
        }
    }
    // Too many to read back, refused before anything is written.
    const Messages tooMany(kMaxMidiFileEvents - 1, {5, {0xC0, 0x00}});
    EXPECT_THROW(writeMidiFile(path.string(), tooMany, 48000), Error);
    EXPECT_THROW(writeMidiFile((dir / "missing" / "out.mid").string(), {}, 48000), Error);
    EXPECT_EQ(load(path), (Bytes{'o', 'l', 'd'}));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);

    // A good write replaces the file whole.
    writeMidiFile(path.string(), {}, 48000);
    EXPECT_EQ(readMidiFile(path.string(), 48000), Messages{});
}

} // namespace
