// Standard MIDI files for the renderer: events to feed the plug-in at their sample times, read
// through libsmf, and the plug-in's MIDI output kept as a file, written here directly.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/MidiMessage.h"

namespace sr::cli {

// Bounds on what is read, and on what is written so that it can be read back.
inline constexpr std::size_t kMaxMidiFileBytes = std::size_t(64) << 20;
inline constexpr std::size_t kMaxMidiFileEvents = 1'000'000; // meta events included

// Reads a format 0 or 1 file (tracks merged) and returns its channel and system exclusive
// messages sorted by frame; equal times keep track order, then file order. Tick times follow
// the file's tempo map (120 bpm until the first tempo event), or its SMPTE time code, and are
// rounded to the nearest frame at `sampleRate`. Meta events are skipped. Throws Error, with one
// line naming the file, for anything unreadable, malformed or beyond the bounds above.
std::vector<TimedMidiMessage> readMidiFile(const std::string& path, double sampleRate);

// Writes the messages (any order; equal frames keep their order) as a format 0 file, under a
// temporary name renamed into place when complete. At an integer rate r with
// r / gcd(r, 1000000) <= 32767 (every usual rate) one tick is exactly one frame; otherwise
// ticks are slightly shorter than frames and each message gets the first tick that reads back
// as its frame. Either way readMidiFile at the same rate returns the same messages.
// Throws Error, leaving no file behind, for a message that is not one complete channel or
// system exclusive message, a negative frame, a frame beyond 2^31 ticks, too many messages,
// or a failure to write.
void writeMidiFile(const std::string& path, const std::vector<TimedMidiMessage>& messages,
                   double sampleRate);

} // namespace sr::cli
