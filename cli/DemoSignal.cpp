#include "cli/DemoSignal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace sr::cli {

namespace {

constexpr double kRate = DemoSignal::kSampleRate;
constexpr double kBeat = 0.5; // 120 beats per minute
constexpr int kBars = 6;      // of four beats: 12 s
constexpr double kBarLength = 4 * kBeat;
constexpr double kLength = kBars * kBarLength;
constexpr float kPeak = 0.5f; // -6 dBFS leaves the chorus headroom

// xorshift32: a fixed sequence everywhere, unlike the standard library's distributions.
class Noise {
public:
    explicit Noise(std::uint32_t seed) : state(seed) {}
    // Uniform in [-1, 1).
    float next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return float(double(state) / 2147483648.0 - 1.0);
    }

private:
    std::uint32_t state;
};

struct Stereo {
    std::vector<float> left, right;

    explicit Stereo(std::size_t frames) : left(frames, 0.0f), right(frames, 0.0f) {}
    std::size_t frames() const { return left.size(); }
    void add(std::size_t i, float value, float gainLeft = 1.0f, float gainRight = 1.0f) {
        left[i] += value * gainLeft;
        right[i] += value * gainRight;
    }
};

std::size_t frameAt(double seconds) {
    return std::size_t(std::lround(seconds * kRate));
}

double noteHz(int midiNote) {
    return 440.0 * std::pow(2.0, (midiNote - 69) / 12.0);
}

// 0 → 1 over the last `fade` frames before `end`, to end notes without clicks.
float fadeOut(std::size_t i, std::size_t end, std::size_t fade) {
    const std::size_t left = end - i;
    return left < fade ? float(left) / float(fade) : 1.0f;
}

// Karplus-Strong string: a noise burst circulating through a delay line, a two-point average
// (which dulls the highs as the note rings) and a first-order allpass that tunes the fraction
// of a sample the integer line cannot.
void addPluck(Stereo& out, double start, double stop, double hz, float gain, Noise& noise) {
    const double loop = kRate / hz - 0.5; // the average already delays by half a sample
    const auto length = std::size_t(loop - 0.5);
    const double fraction = loop - double(length); // 0.5 .. 1.5: a well-behaved allpass
    const float c = float((1.0 - fraction) / (1.0 + fraction));
    const float feedback = float(std::pow(10.0, -3.0 / (2.0 * hz))); // -60 dB after 2 s

    std::vector<float> line(length);
    float smooth = 0.0f;
    for (float& s : line) s = smooth += 0.5f * (noise.next() - smooth); // a softer pick
    float mean = 0.0f;
    for (float s : line) mean += s / float(length);
    for (float& s : line) s -= mean; // no offset left ringing in the loop

    const std::size_t first = frameAt(start);
    const std::size_t end = std::min(frameAt(stop), out.frames());
    const std::size_t fade = frameAt(0.03);
    float previous = 0.0f, allpassIn = 0.0f, allpassOut = 0.0f;
    for (std::size_t i = first, k = 0; i < end; ++i) {
        const float x = line[k];
        const float averaged = 0.5f * (x + previous);
        previous = x;
        allpassOut = c * averaged + allpassIn - c * allpassOut;
        allpassIn = averaged;
        line[k] = feedback * allpassOut;
        k = k + 1 == length ? 0 : k + 1;
        out.add(i, x * gain * fadeOut(i, end, fade));
    }
}

// A round bass: fundamental and a quiet octave, quick attack, exponential decay.
void addBassNote(Stereo& out, double start, double stop, double hz, float gain) {
    const std::size_t first = frameAt(start);
    const std::size_t end = std::min(frameAt(stop), out.frames());
    const std::size_t fade = frameAt(0.02);
    for (std::size_t i = first; i < end; ++i) {
        const double t = double(i - first) / kRate;
        const double envelope = std::min(1.0, t / 0.005) * std::exp(-t / 0.4);
        const double phase = 2.0 * std::numbers::pi * hz * t;
        const double value = std::sin(phase) + 0.25 * std::sin(2.0 * phase);
        out.add(i, float(gain * envelope * value) * fadeOut(i, end, fade));
    }
}

// Second-order high-pass (the usual bilinear design), for the hi-hat's noise.
class HighPass {
public:
    HighPass(double hz, double q) {
        const double w = 2.0 * std::numbers::pi * hz / kRate;
        const double alpha = std::sin(w) / (2.0 * q);
        const double cosw = std::cos(w);
        const double a0 = 1.0 + alpha;
        b0 = float((1.0 + cosw) / 2.0 / a0);
        b1 = float(-(1.0 + cosw) / a0);
        b2 = b0;
        a1 = float(-2.0 * cosw / a0);
        a2 = float((1.0 - alpha) / a0);
    }
    float operator()(float x) {
        const float y = b0 * x + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
        x2 = x1;
        x1 = x;
        y2 = y1;
        y1 = y;
        return y;
    }

private:
    float b0, b1, b2, a1, a2;
    float x1 = 0.0f, x2 = 0.0f, y1 = 0.0f, y2 = 0.0f;
};

void addHat(Stereo& out, double start, double decay, float gain, Noise& noise) {
    HighPass highPass(7000.0, 0.7);
    const std::size_t first = frameAt(start);
    const std::size_t end = std::min(first + frameAt(decay * 6.0), out.frames());
    for (std::size_t i = first; i < end; ++i) {
        const double t = double(i - first) / kRate;
        out.add(i, highPass(noise.next()) * gain * float(std::exp(-t / decay)), 0.8f, 1.0f);
    }
}

struct Chord {
    std::array<int, 5> notes; // MIDI notes, low to high: C4 (262 Hz) to G5 (784 Hz)
    int bass;                 // F1 to C2: 44 to 65 Hz, so even the octave stays below 150 Hz
};

constexpr std::array<Chord, 4> kProgression{{
    {{60, 64, 69, 72, 76}, 33}, // A minor
    {{60, 65, 69, 72, 77}, 29}, // F major
    {{60, 64, 67, 72, 76}, 36}, // C major
    {{62, 67, 71, 74, 79}, 31}, // G major
}};

struct Hit {
    double beat;
    float accent;
};

constexpr std::array<Hit, 4> kStrums{{{0.0, 1.0f}, {1.5, 0.55f}, {2.0, 0.85f}, {3.0, 0.7f}}};
constexpr std::array<Hit, 5> kBassNotes{
    {{0.0, 1.0f}, {1.5, 0.7f}, {2.0, 0.9f}, {3.0, 0.8f}, {3.5, 0.7f}}};

// The last bar holds one chord and one bass note until the end.
template <std::size_t N>
void forEachHit(const std::array<Hit, N>& pattern, auto&& play) {
    for (int bar = 0; bar < kBars; ++bar) {
        const double barStart = bar * kBarLength;
        const std::size_t hits = bar + 1 == kBars ? 1 : N;
        for (std::size_t h = 0; h < hits; ++h) {
            const double next = h + 1 < hits ? pattern[h + 1].beat * kBeat : kBarLength;
            play(bar, barStart + pattern[h].beat * kBeat, barStart + next, pattern[h].accent);
        }
    }
}

void addChords(Stereo& out, Noise& noise) {
    forEachHit(kStrums, [&](int bar, double start, double stop, float accent) {
        const Chord& chord = kProgression[std::size_t(bar) % kProgression.size()];
        for (std::size_t s = 0; s < chord.notes.size(); ++s) {
            const double strum = 0.012 * double(s); // a downstroke, low string first
            addPluck(out, start + strum, stop + 0.02, noteHz(chord.notes[s]), 0.16f * accent,
                     noise);
        }
    });
}

void addBass(Stereo& out) {
    forEachHit(kBassNotes, [&](int bar, double start, double stop, float accent) {
        const Chord& chord = kProgression[std::size_t(bar) % kProgression.size()];
        addBassNote(out, start, stop, noteHz(chord.bass), 0.25f * accent);
    });
}

void addHats(Stereo& out, Noise& noise) {
    for (int eighth = 0; eighth < (kBars - 1) * 8 + 1; ++eighth) {
        const bool offBeat = eighth % 2 == 1;
        const bool open = eighth % 8 == 7; // the last eighth of each bar rings longer
        addHat(out, eighth * kBeat / 2.0, open ? 0.12 : 0.025, offBeat ? 0.12f : 0.07f, noise);
    }
}

} // namespace

DemoSignal makeDemoSignal() {
    Stereo mix(frameAt(kLength));
    Noise noise(0x5EED2024u);
    addChords(mix, noise);
    addBass(mix);
    addHats(mix, noise);

    float peak = 0.0f;
    for (std::size_t i = 0; i < mix.frames(); ++i)
        peak = std::max({peak, std::fabs(mix.left[i]), std::fabs(mix.right[i])});
    const float scale = peak > 0.0f ? kPeak / peak : 1.0f;

    DemoSignal demo;
    demo.samples.resize(mix.frames() * DemoSignal::kChannels);
    for (std::size_t i = 0; i < mix.frames(); ++i) {
        demo.samples[2 * i] = mix.left[i] * scale;
        demo.samples[2 * i + 1] = mix.right[i] * scale;
    }
    return demo;
}

} // namespace sr::cli
