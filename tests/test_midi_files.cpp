// MIDI files for the renderer: files built here byte by byte are read with readMidiFile, and
// what writeMidiFile produces is read back both by readMidiFile and by this file's own parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/Errors.h"
#include "cli/MidiFiles.h"
#include "tests/SmfBytes.h"

namespace {

using sr::cli::readMidiFile;
using sr::cli::TimedMidiMessage;
using sr::cli::writeMidiFile;
using namespace sr::test::smf;
namespace fs = std::filesystem;

// ---- files --------------------------------------------------------------------------------------

fs::path freshDirectory(const std::string& name) {
    const fs::path dir = fs::path(SR_TEST_TMP) / "midi" / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

void save(const fs::path& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(out.good());
}

Bytes load(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<TimedMidiMessage> readBytes(const fs::path& dir, const Bytes& bytes,
                                        double rate = 48000) {
    const fs::path path = dir / "in.mid";
    save(path, bytes);
    return readMidiFile(path.string(), rate);
}

// The error message of a read that must fail; glib must have printed nothing meanwhile.
std::string refusalOf(const std::string& path) {
    testing::internal::CaptureStderr();
    std::string message;
    try {
        readMidiFile(path, 48000);
        message = "(accepted)";
    } catch (const sr::cli::Error& error) {
        message = error.what();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << path;
    return message;
}

// ---- reading ------------------------------------------------------------------------------------

TEST(MidiFileRead, Format0TempoChangeRunningStatusAndEveryMessageKind) {
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
        kEndOfTrack,
    });
    const Bytes file = concat({header(0, 1, 480), track(events)});

    const std::vector<TimedMidiMessage> expected48k{
        {0, {0x90, 0x3C, 0x64}},
        {50, {0xB0, 0x40, 0x7F}},
        {400, {0x91, 0x40, 0x50}},
        {12000, {0xC0, 0x05}},
        {24000, {0xE0, 0x00, 0x40}},
        {36000, {0xA0, 0x3C, 0x20}},
        {48000, {0xD0, 0x30}},
        {72000, {0x80, 0x3C, 0x00}},
        {72100, {0x90, 0x3E, 0x64}},
        {72100, {0x90, 0x3E, 0x00}},
        {96100, {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7}},
    };
    EXPECT_EQ(readBytes(dir, file, 48000), expected48k);

    // At 44100 Hz ticks fall between frames: 45.9375 frames a tick, then 91.875 after tick 960;
    // tick 8 is 367.5 frames, a half rounded up.
    const std::vector<std::int64_t> frames44k{0,     46,    368,   11025, 22050, 33075,
                                              44100, 66150, 66242, 66242, 88292};
    const std::vector<TimedMidiMessage> at44k = readBytes(dir, file, 44100);
    ASSERT_EQ(at44k.size(), frames44k.size());
    for (std::size_t i = 0; i < at44k.size(); ++i) {
        EXPECT_EQ(at44k[i].frame, frames44k[i]) << i;
        EXPECT_EQ(at44k[i].bytes, expected48k[i].bytes) << i;
    }
}

TEST(MidiFileRead, Format1TracksMergeUnderOneTempoMap) {
    const fs::path dir = freshDirectory("format1");
    // Conductor track: 60 bpm from tick 960 on, and a message of its own at that tick.
    const Bytes conductor = concat({
        event(0, {0xFF, 0x58, 0x04, 0x04, 0x02, 0x18, 0x08}),
        tempo(0, 500'000),
        tempo(960, 1'000'000),
        event(0, {0xB1, 0x07, 0x64}),
        kEndOfTrack,
    });
    const Bytes notes = concat({
        event(0, {0x90, 0x3C, 0x64}),
        event(960, {0x90, 0x3E, 0x64}), // same tick as the conductor's message: after it
        event(480, {0x80, 0x3C, 0x00}), // 1 s + 1 s
        kEndOfTrack,
    });
    const Bytes file = concat({header(1, 2, 480), track(conductor), track(notes)});
    const std::vector<TimedMidiMessage> expected{
        {0, {0x90, 0x3C, 0x64}},
        {48000, {0xB1, 0x07, 0x64}},
        {48000, {0x90, 0x3E, 0x64}},
        {96000, {0x80, 0x3C, 0x00}},
    };
    EXPECT_EQ(readBytes(dir, file), expected);

    // A tempo event in a later track still times the first; the first track starts late.
    const Bytes late = concat({event(1440, {0x90, 0x30, 0x40}), kEndOfTrack});
    const Bytes slow = concat({tempo(0, 1'000'000), event(960, {0x91, 0x31, 0x40}), kEndOfTrack});
    const std::vector<TimedMidiMessage> expectedLate{
        {96000, {0x91, 0x31, 0x40}},  // 960 ticks at 60 bpm: 2 s
        {144000, {0x90, 0x30, 0x40}}, // 1440 ticks: 3 s
    };
    EXPECT_EQ(readBytes(dir, concat({header(1, 2, 480), track(late), track(slow)})), expectedLate);

    // Unknown chunks are skipped, as is anything after the declared tracks.
    const Bytes other{'X', 'Y', 'Z', 'W', 0, 0, 0, 3, 1, 2, 3};
    EXPECT_EQ(readBytes(dir, concat({header(1, 2, 480), other, track(late), other, track(slow),
                                     Bytes{0x00, 0x01, 0x02}})),
              expectedLate);
}

// libsmf misreads meta events of 128 bytes or more, losing what follows them.
TEST(MidiFileRead, LongMetaAndSystemExclusiveEvents) {
    const fs::path dir = freshDirectory("long-events");
    Bytes text{0xFF, 0x02};
    putQuantity(text, 200);
    text.insert(text.end(), 200, 'c');
    Bytes sysex{0xF0};
    putQuantity(sysex, 300);
    for (int i = 0; i < 299; ++i) sysex.push_back(std::uint8_t(i % 128));
    sysex.push_back(0xF7);
    Bytes paddedTempo{0xFF, 0x51, 0x80, 0x03, 0x0F, 0x42, 0x40}; // 60 bpm, length in two bytes
    const Bytes events = concat({event(0, text), event(0, {0x90, 0x3C, 0x64}), event(480, sysex),
                                 event(0, paddedTempo), event(480, {0x80, 0x3C, 0x00}),
                                 event(0, text), event(1, {0xB0, 0x01, 0x02}), kEndOfTrack});
    const std::vector<TimedMidiMessage> read =
        readBytes(dir, concat({header(0, 1, 480), track(events)}));
    ASSERT_EQ(read.size(), 4u);
    EXPECT_EQ(read[0], (TimedMidiMessage{0, {0x90, 0x3C, 0x64}}));
    EXPECT_EQ(read[1].frame, 24000);
    Bytes message{0xF0};
    message.insert(message.end(), sysex.end() - 300, sysex.end());
    EXPECT_EQ(read[1].bytes, message);
    EXPECT_EQ(read[2], (TimedMidiMessage{72000, {0x80, 0x3C, 0x00}}));
    EXPECT_EQ(read[3], (TimedMidiMessage{72100, {0xB0, 0x01, 0x02}}));
}

TEST(MidiFileRead, SmpteTimeCodeIgnoresTempo) {
    const fs::path dir = freshDirectory("smpte");
    const Bytes events = concat({
        tempo(0, 1'000'000),
        event(1000, {0x90, 0x3C, 0x64}),
        event(2000, {0x80, 0x3C, 0x00}),
        kEndOfTrack,
    });
    // 25 frames per second of 40 ticks: a tick is a millisecond.
    const int division25 = (0x100 - 25) << 8 | 40;
    const std::vector<TimedMidiMessage> expected{{48000, {0x90, 0x3C, 0x64}},
                                                 {144000, {0x80, 0x3C, 0x00}}};
    EXPECT_EQ(readBytes(dir, concat({header(0, 1, division25), track(events)})), expected);

    // 29.97 drop-frame with 100 ticks a frame: 1000 ticks are 1001/3000 s, 16016 frames.
    const int division2997 = (0x100 - 29) << 8 | 100;
    const std::vector<TimedMidiMessage> read =
        readBytes(dir, concat({header(0, 1, division2997), track(events)}));
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].frame, 16016);
    EXPECT_EQ(read[1].frame, 48048);
}

TEST(MidiFileRead, MillionEventsAcceptedQuicklyOneMoreRefused) {
    const fs::path dir = freshDirectory("limit");
    const auto fileOf = [](std::size_t messages) {
        Bytes events{0x00, 0x90, 0x3C, 0x64};
        events.reserve(messages * 3 + 8);
        for (std::size_t i = 1; i < messages; ++i) events.insert(events.end(), {0x01, 0x3C, 0x64});
        events.insert(events.end(), kEndOfTrack.begin(), kEndOfTrack.end());
        return concat({header(0, 1, 480), track(events)});
    };
    // With the end of track, exactly the limit.
    const auto start = std::chrono::steady_clock::now();
    const std::vector<TimedMidiMessage> read =
        readBytes(dir, fileOf(sr::cli::kMaxMidiFileEvents - 1));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(read.size(), sr::cli::kMaxMidiFileEvents - 1);
    EXPECT_EQ(read.back().frame, std::int64_t(sr::cli::kMaxMidiFileEvents - 2) * 50);
    EXPECT_LT(seconds, 10.0); // freeing libsmf's events one by one takes minutes

    save(dir / "over.mid", fileOf(sr::cli::kMaxMidiFileEvents));
    EXPECT_NE(refusalOf((dir / "over.mid").string()).find("more than 1000000 events"),
              std::string::npos);
}

// ---- refusals -----------------------------------------------------------------------------------

TEST(MidiFileRefusal, MalformedFilesNameTheFileAndKeepGlibQuiet) {
    const fs::path dir = freshDirectory("malformed");
    const Bytes notes = concat({event(0, {0x90, 0x3C, 0x64}), event(96, {0x80, 0x3C, 0x00})});
    const Bytes good = concat({header(0, 1, 480), track(concat({notes, kEndOfTrack}))});
    std::mt19937 random(20240611);
    Bytes noise(1 << 20);
    for (std::uint8_t& byte : noise) byte = std::uint8_t(random());

    struct Case {
        const char* name;
        Bytes bytes;
        const char* reason; // part of the message
    };
    const auto inTrack = [&](const Bytes& events) {
        return concat({header(0, 1, 480), track(events)});
    };
    Bytes longGaps = event(0, {0x90, 0x3C, 0x64}); // nine of the longest delta times
    for (int i = 0; i < 9; ++i) longGaps = concat({longGaps, event(0x0FFFFFFF, {0x3C, 0x64})});
    const std::vector<Case> cases{
        {"empty", {}, "empty"},
        {"text",
         {'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '!', '!', '!'},
         "not a MIDI file"},
        {"noise", noise, "not a MIDI file"},
        {"noise-after-header", concat({header(1, 4, 480), noise}), ""},
        {"riff", concat({Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0}, good}), "not a MIDI file"},
        {"short-header",
         concat({Bytes{'M', 'T', 'h', 'd', 0, 0, 0, 4, 0, 0, 0, 1},
                 track(concat({notes, kEndOfTrack}))}),
         "header"},
        {"format-2", concat({header(2, 1, 480), track(concat({notes, kEndOfTrack}))}), "format 2"},
        {"format-0-two-tracks", concat({header(0, 2, 480), track(kEndOfTrack), track(kEndOfTrack)}),
         "format 0"},
        {"three-declared-one-present",
         concat({header(1, 3, 480), track(concat({notes, kEndOfTrack}))}), "3 tracks"},
        {"no-tracks", header(1, 0, 480), "no tracks"},
        {"zero-division", concat({header(0, 1, 0), track(kEndOfTrack)}), "zero ticks"},
        {"chunk-longer-than-file", concat({header(0, 1, 480), track(kEndOfTrack, 100)}),
         "past the end"},
        {"chunk-shorter-than-events", concat({header(0, 1, 480), track(kEndOfTrack, -2)}), ""},
        {"missing-end-of-track", inTrack(notes), "end-of-track"},
        {"data-after-end", inTrack(concat({kEndOfTrack, notes})), "after the end"},
        {"data-without-status", inTrack(concat({event(0, {0x3C, 0x64}), kEndOfTrack})),
         "without a status"},
        {"running-status-after-meta",
         inTrack(concat(
             {notes, event(0, {0xFF, 0x01, 0x01, 'x'}), event(0, {0x3C, 0x00}), kEndOfTrack})),
         "without a status"},
        {"running-status-after-sysex",
         inTrack(concat(
             {notes, event(0, {0xF0, 0x02, 0x01, 0xF7}), event(0, {0x3C, 0x00}), kEndOfTrack})),
         "without a status"},
        {"status-inside-message", inTrack(concat({event(0, {0x90, 0x90, 0x01}), kEndOfTrack})),
         "status byte inside"},
        {"sysex-continued",
         inTrack(concat({event(0, {0xF0, 0x02, 0x7E, 0x01}), event(10, {0xF7, 0x02, 0x02, 0xF7}),
                         kEndOfTrack})),
         "system exclusive"},
        {"escape", inTrack(concat({event(0, {0xF7, 0x01, 0xF8}), kEndOfTrack})), "0xF7"},
        {"realtime-status", inTrack(concat({event(0, {0xF8}), kEndOfTrack})), "0xF8"},
        {"five-byte-delta",
         inTrack(concat({Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x90, 0x3C, 0x64}, kEndOfTrack})),
         "four bytes"},
        {"tempo-of-two-bytes",
         inTrack(concat({event(0, {0xFF, 0x51, 0x02, 0x07, 0xA1}), notes, kEndOfTrack})), "tempo"},
        {"tempo-zero", inTrack(concat({tempo(0, 0), notes, kEndOfTrack})), "tempo"},
        {"meta-past-track", inTrack(Bytes{0x00, 0xFF, 0x01, 0x40, 'x'}), "ends inside"},
        {"huge-sysex-length", inTrack(Bytes{0x00, 0xF0, 0x8F, 0xFF, 0xFF, 0x7F, 0x01}),
         "ends inside"},
        {"past-2^31-ticks", inTrack(concat({longGaps, kEndOfTrack})), "2^31"},
    };
    for (const Case& c : cases) {
        const fs::path path = dir / (std::string(c.name) + ".mid");
        save(path, c.bytes);
        const std::string message = refusalOf(path.string());
        EXPECT_NE(message.find("'" + path.string() + "'"), std::string::npos)
            << c.name << ": " << message;
        EXPECT_NE(message.find(c.reason), std::string::npos) << c.name << ": " << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << c.name;
    }

    // Every cut of a good file is refused, however short.
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        const fs::path path = dir / ("cut-" + std::to_string(cut) + ".mid");
        save(path, Bytes(good.begin(), good.begin() + std::ptrdiff_t(cut)));
        EXPECT_NE(refusalOf(path.string()).find(path.string()), std::string::npos) << cut;
    }

    // Not files at all, or too large to be read.
    EXPECT_NE(refusalOf((dir / "missing.mid").string()).find("No such file"), std::string::npos);
    EXPECT_NE(refusalOf(dir.string()).find(dir.string()), std::string::npos);
    const fs::path large = dir / "large.mid";
    save(large, good);
    fs::resize_file(large, sr::cli::kMaxMidiFileBytes + 1); // sparse: nothing is written
    EXPECT_NE(refusalOf(large.string()).find("larger than 64 MB"), std::string::npos);
}

// Damaged copies of a good file are read or refused, never crash, and glib stays quiet.
TEST(MidiFileRefusal, DamagedFilesNeverCrash) {
    const fs::path dir = freshDirectory("damaged");
    const Bytes first = concat({
        event(0, {0xFF, 0x03, 0x02, 'h', 'i'}),
        tempo(0, 600'000),
        event(0, {0x90, 0x3C, 0x64}),
        event(10, {0x3E, 0x64}),
        event(0, {0xF0, 0x03, 0x7E, 0x01, 0xF7}),
        event(20, {0xC1, 0x05}),
        event(5, {0xE0, 0x00, 0x40}),
        event(0, {0xFF, 0x01, 0x81, 0x01}),
        Bytes(129, 'a'),
        event(200, {0xF0, 0x81, 0x00}),
        Bytes(127, 0x11),
        Bytes{0xF7},
        kEndOfTrack,
    });
    const Bytes second = concat({event(3, {0xB2, 0x07, 0x64}), event(3, {0x08, 0x10}),
                                 tempo(100, 400'000), event(1, {0xD3, 0x30}), kEndOfTrack});
    const Bytes good = concat({header(1, 2, 96), track(first), track(second)});
    const Bytes interesting{0x00, 0x01, 0x7F, 0x80, 0x90, 0xF0, 0xF7, 0xFF, 0x2F, 0x51, 0x06};

    std::mt19937 random(7);
    const fs::path path = dir / "damaged.mid";
    int accepted = 0;
    testing::internal::CaptureStderr();
    for (int round = 0; round < 3000; ++round) {
        Bytes bytes = good;
        const int damage = 1 + int(random() % 3);
        for (int d = 0; d < damage; ++d) {
            const std::size_t at = random() % bytes.size();
            switch (random() % 4) {
            case 0:
                bytes[at] = std::uint8_t(random());
                break;
            case 1:
                bytes[at] = interesting[random() % interesting.size()];
                break;
            case 2:
                bytes.erase(bytes.begin() + std::ptrdiff_t(at));
                break;
            default:
                bytes.insert(bytes.begin() + std::ptrdiff_t(at),
                             interesting[random() % interesting.size()]);
            }
        }
        save(path, bytes);
        try {
            const std::vector<TimedMidiMessage> read = readMidiFile(path.string(), 48000);
            ++accepted;
            for (std::size_t i = 1; i < read.size(); ++i)
                ASSERT_LE(read[i - 1].frame, read[i].frame) << round;
            for (const TimedMidiMessage& message : read) {
                ASSERT_FALSE(message.bytes.empty());
                ASSERT_TRUE(message.bytes[0] == 0xF0
                                ? message.bytes.back() == 0xF7
                                : message.bytes[0] >= 0x80 && message.bytes[0] < 0xF0)
                    << round;
            }
        } catch (const sr::cli::Error& error) {
            ASSERT_NE(std::string(error.what()).find(path.string()), std::string::npos);
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GT(accepted, 0); // some damage only changes values
}

// ---- writing ------------------------------------------------------------------------------------

std::vector<TimedMidiMessage> everyKindOfMessage() {
    Bytes longSysex{0xF0};
    for (int i = 0; i < 300; ++i) longSysex.push_back(std::uint8_t(i * 7 % 128));
    longSysex.push_back(0xF7);
    return {
        {0, {0x90, 0x3C, 0x64}},
        {0, {0xB0, 0x07, 0x50}}, // same frame: kept after the note
        {1, {0xC3, 0x11}},
        {479, {0xE0, 0x7F, 0x7F}},
        {480, {0xD5, 0x40}},
        {44100, {0xA0, 0x3C, 0x10}},
        {48001, {0xF0, 0x43, 0x10, 0x4C, 0x00, 0x00, 0x7E, 0x00, 0xF7}},
        {48001, {0x80, 0x3C, 0x00}},
        {960'000, {0xF0, 0xF7}},
        {960'000, longSysex},
        // Three hours at 48 kHz: a gap longer than one delta time can hold.
        {518'400'000, {0xBF, 0x7B, 0x00}},
    };
}

TEST(MidiFileWrite, ReadsBackTheSameMessagesAtEveryRate) {
    const fs::path dir = freshDirectory("round-trip");
    const std::vector<TimedMidiMessage> sorted = everyKindOfMessage();
    // Given out of order, written in frame order with equal frames kept in order.
    std::vector<TimedMidiMessage> shuffled(sorted.rbegin(), sorted.rend());
    std::stable_sort(shuffled.begin(), shuffled.end(),
                     [](const auto& a, const auto& b) { return a.bytes < b.bytes; });
    std::vector<TimedMidiMessage> withTies = shuffled;
    std::stable_sort(withTies.begin(), withTies.end(),
                     [](const auto& a, const auto& b) { return a.frame < b.frame; });

    // The usual rates get one tick per frame; 44101 and 22050.5 Hz cannot, and still round-trip.
    for (const double rate : {44100.0, 48000.0, 96000.0, 8000.0, 192000.0, 44101.0, 22050.5}) {
        const fs::path path = dir / ("out-" + std::to_string(int(rate)) + ".mid");
        writeMidiFile(path.string(), shuffled, rate);
        EXPECT_EQ(readMidiFile(path.string(), rate), withTies) << rate;
    }
    for (const auto& entry : fs::directory_iterator(dir))
        EXPECT_EQ(entry.path().filename().string()[0], 'o') << "left behind: " << entry.path();
}

TEST(MidiFileWrite, OneTickPerFrameAsAnotherReaderSeesIt) {
    const fs::path dir = freshDirectory("independent");
    const std::vector<TimedMidiMessage> messages = everyKindOfMessage();
    for (const std::int64_t rate : {44100, 48000, 96000}) {
        const fs::path path = dir / "out.mid";
        writeMidiFile(path.string(), messages, double(rate));
        const ParsedFile file = parse(load(path));
        EXPECT_EQ(file.format, 0);
        EXPECT_EQ(file.tracks, 1);
        ASSERT_EQ(file.trackEvents.size(), 1u);
        ASSERT_LT(file.division, 0x8000);
        const std::vector<ParsedEvent>& events = file.trackEvents[0];

        // The first event sets the tempo so that a tick is exactly one frame.
        ASSERT_FALSE(events.empty());
        ASSERT_EQ(events[0].bytes.size(), 5u);
        EXPECT_EQ(events[0].tick, 0);
        EXPECT_EQ((Bytes{events[0].bytes.begin(), events[0].bytes.begin() + 2}),
                  (Bytes{0xFF, 0x51}));
        const std::int64_t usPerQuarter = bigEndianAt(events[0].bytes, 2, 3);
        EXPECT_EQ(usPerQuarter * rate, std::int64_t(file.division) * 1'000'000) << rate;

        // Then the messages at their frames, with only meta events between them, and the end.
        std::vector<TimedMidiMessage> found;
        for (std::size_t i = 1; i < events.size(); ++i) {
            if (events[i].bytes[0] != 0xFF) {
                found.push_back({events[i].tick, events[i].bytes});
            } else if (i + 1 < events.size()) {
                EXPECT_EQ(events[i].bytes, (Bytes{0xFF, 0x01})) << i;
            }
        }
        EXPECT_EQ(found, messages) << rate;
        EXPECT_EQ(events.back().bytes, (Bytes{0xFF, 0x2F}));
        EXPECT_EQ(events.back().tick, messages.back().frame);
    }
}

TEST(MidiFileWrite, RefusalsLeaveNothingBehind) {
    const fs::path dir = freshDirectory("write-refusals");
    const fs::path path = dir / "out.mid";
    const Bytes previous{'o', 'l', 'd'};
    save(path, previous);
    const std::vector<std::pair<const char*, TimedMidiMessage>> bad{
        {"empty", {0, {}}},
        {"short note", {0, {0x90, 0x3C}}},
        {"long program change", {0, {0xC0, 0x01, 0x02}}},
        {"data byte first", {0, {0x3C, 0x64}}},
        {"status among data", {0, {0x90, 0x3C, 0x80}}},
        {"unended sysex", {0, {0xF0, 0x7E, 0x01}}},
        {"status inside sysex", {0, {0xF0, 0x90, 0xF7}}},
        {"realtime", {0, {0xF8}}},
        {"before the start", {-1, {0x90, 0x3C, 0x64}}},
        {"past 2^31 ticks", {std::int64_t(1) << 31, {0x90, 0x3C, 0x64}}},
    };
    for (const auto& [name, message] : bad) {
        try {
            writeMidiFile(path.string(), {{0, {0x90, 0x3C, 0x64}}, message}, 48000);
            ADD_FAILURE() << name << " accepted";
        } catch (const sr::cli::Error& error) {
            EXPECT_NE(std::string(error.what()).find("'" + path.string() + "'"), std::string::npos)
                << name << ": " << error.what();
        }
    }
    // Too many to read back, refused before anything is written.
    const std::vector<TimedMidiMessage> tooMany(sr::cli::kMaxMidiFileEvents - 1, {5, {0xC0, 0x00}});
    EXPECT_THROW(writeMidiFile(path.string(), tooMany, 48000), sr::cli::Error);
    EXPECT_THROW(writeMidiFile((dir / "missing" / "out.mid").string(), {}, 48000), sr::cli::Error);

    EXPECT_EQ(load(path), previous);
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir)) ++files;
    EXPECT_EQ(files, 1u);

    // A good write replaces the file whole.
    writeMidiFile(path.string(), {}, 48000);
    EXPECT_EQ(readMidiFile(path.string(), 48000), std::vector<TimedMidiMessage>{});
}

} // namespace
