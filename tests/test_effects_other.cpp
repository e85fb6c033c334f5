// Echo, phaser and alienwah: factory presets, parameter laws at their ends, and behaviour of
// whole paths through the effect manager.
#include "effects/Alienwah.h"
#include "effects/Echo.h"
#include "effects/EffectManager.h"
#include "effects/Phaser.h"

#include <gtest/gtest.h>

#include "tests/TestSignals.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <initializer_list>
#include <numbers>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace sr::test;

constexpr int kEcho = 2;
constexpr int kPhaser = 4;
constexpr int kAlienwah = 5;

// Factory tables as published for each effect, indices in order.
const std::vector<std::vector<int>> kEchoPresets = {
    {67, 64, 35, 64, 30, 59, 0},    {67, 64, 21, 64, 30, 59, 0},    {67, 75, 60, 64, 30, 59, 10},
    {67, 60, 44, 64, 30, 0, 0},     {67, 60, 102, 50, 30, 82, 48},  {67, 64, 44, 17, 0, 82, 24},
    {81, 60, 46, 118, 100, 68, 18}, {81, 60, 26, 100, 127, 67, 36}, {62, 64, 28, 64, 100, 90, 55},
};
const std::vector<std::vector<int>> kPhaserPresets = {
    {64, 64, 36, 0, 0, 64, 110, 64, 1, 0, 0, 20},  {64, 64, 35, 0, 0, 88, 40, 64, 3, 0, 0, 20},
    {64, 64, 31, 0, 0, 66, 68, 107, 2, 0, 0, 20},  {39, 64, 22, 0, 0, 66, 67, 10, 5, 0, 1, 20},
    {64, 64, 20, 0, 1, 110, 67, 78, 10, 0, 0, 20}, {64, 64, 53, 100, 0, 58, 37, 78, 3, 0, 0, 20},
};
const std::vector<std::vector<int>> kAlienwahPresets = {
    {127, 64, 70, 0, 0, 62, 60, 105, 25, 0, 64},
    {127, 64, 73, 106, 0, 101, 60, 105, 17, 0, 64},
    {127, 64, 63, 0, 1, 100, 112, 105, 31, 0, 42},
    {93, 64, 25, 0, 1, 66, 101, 11, 47, 0, 86},
};

// Engine globals with a silent denormal buffer, so outputs are exactly the formulas' values.
struct Engine {
    explicit Engine(int rate = 48000, int block = 4096) : zeros(4096, 0.0f) {
        globals.SAMPLE_RATE = rate;
        globals.SOUND_BUFFER_SIZE = block;
        globals.denormalkillbuf = zeros.data();
    }
    EffectGlobals globals;
    std::vector<float> zeros;
};

// Sets (index, value) pairs in order on an effect or a manager.
template <typename Target>
void set(Target& target, std::initializer_list<std::pair<int, int>> values) {
    for (auto [index, value] : values) target.setParameterChar(index, (unsigned char)value);
}

// Runs a whole signal through the manager block by block (length a multiple of the block).
Stereo runManager(EffectManager& manager, const EffectGlobals& g, Stereo in) {
    for (size_t at = 0; at < in.left.size(); at += size_t(g.SOUND_BUFFER_SIZE))
        manager.process(in.left.data() + at, in.right.data() + at);
    return in;
}

// Runs a signal through an effect used on its own, collecting its wet output.
Stereo runEffect(Effect& fx, const EffectGlobals& g, Stereo in) {
    Stereo out(in.size());
    const size_t n = size_t(g.SOUND_BUFFER_SIZE);
    for (size_t at = 0; at < in.left.size(); at += n) {
        fx.process(in.left.data() + at, in.right.data() + at);
        std::copy_n(fx.outLeft, n, out.left.begin() + long(at));
        std::copy_n(fx.outRight, n, out.right.begin() + long(at));
    }
    return out;
}

long firstNonZero(const std::vector<float>& v) {
    for (size_t i = 0; i < v.size(); ++i)
        if (v[i] != 0.0f) return long(i);
    return -1;
}

void expectPreset(EffectManager& m, const std::vector<int>& row, int volume, int preset) {
    EXPECT_EQ(m.getPreset(), preset);
    for (size_t i = 0; i < row.size(); ++i) {
        const int expected = i == 0 ? volume : row[i];
        EXPECT_EQ(m.getParameter_Char(int(i)), expected) << "preset " << preset << " index " << i;
    }
    EXPECT_EQ(m.getParameter_Char(int(row.size())), 0) << "index past the table";
}

// Applies preset numbers across the byte range through managers of both kinds; numbers past the
// table select its last row; `halve(insertion)` tells whether the Volume is halved.
template <typename Halve>
void checkPresetTable(int type, const std::vector<std::vector<int>>& table, Halve halve) {
    for (int insertion : {1, 0}) {
        Engine e;
        EffectManager m(e.globals, insertion ? -1 : -2, insertion);
        m.changeEffect(type);
        for (int n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 200, 255}) {
            const int row = std::min(n, int(table.size()) - 1);
            m.changePreset((unsigned char)n);
            const int volume = halve(insertion) ? table[size_t(row)][0] / 2 : table[size_t(row)][0];
            SCOPED_TRACE(insertion ? "insertion" : "system");
            expectPreset(m, table[size_t(row)], volume, row);
        }
    }
}

} // namespace

TEST(EffectPresets, EchoHalvesVolumeForInsertionAndStopsAtEight) {
    checkPresetTable(kEcho, kEchoPresets, [](int insertion) { return insertion != 0; });
}

TEST(EffectPresets, PhaserKeepsVolumeAndStopsAtFive) {
    checkPresetTable(kPhaser, kPhaserPresets, [](int) { return false; });
}

TEST(EffectPresets, AlienwahHalvesVolumeForSystemAndStopsAtThree) {
    checkPresetTable(kAlienwah, kAlienwahPresets, [](int insertion) { return insertion == 0; });
}

// Echo, on its own: damping 0 (no low-pass), no cross, no feedback, so an impulse comes back
// once as 2 x the panned input.
TEST(EchoLaws, PanningCarriesHalfStepOffsetAndFeedbackDividesBy128) {
    Engine e(8000, 1024);
    std::vector<float> outL(1024), outR(1024);
    Echo echo(e.globals, 1, outL.data(), outR.data());
    set(echo, {{2, 0}, {3, 64}, {4, 0}, {5, 0}, {6, 0}});
    // Delay 0 gives one-sample lines: the impulse is back at sample 1.
    for (int pan : {0, 127}) {
        echo.setParameterChar(1, (unsigned char)pan);
        echo.cleanup();
        const Stereo out = runEffect(echo, e.globals, impulse(1024));
        const float p = (pan + 0.5f) / 127.0f;
        EXPECT_FLOAT_EQ(out.left[1], 2.0f * p) << "panning " << pan;
        EXPECT_FLOAT_EQ(out.right[1], 2.0f * (1.0f - p)) << "panning " << pan;
    }
    // Full cross swaps the sides of the delayed signal.
    echo.setParameterChar(4, 127);
    echo.cleanup();
    Stereo out = runEffect(echo, e.globals, impulse(1024));
    EXPECT_FLOAT_EQ(out.left[1], 2.0f * (1.0f - 127.5f / 127.0f));
    EXPECT_FLOAT_EQ(out.right[1], 2.0f * 127.5f / 127.0f);
    echo.setParameterChar(4, 0);
    // Each repeat is the previous one times -feedback, feedback = v / 128.
    echo.setParameterChar(1, 64);
    for (int fb : {127, 64}) {
        echo.setParameterChar(5, (unsigned char)fb);
        echo.cleanup();
        out = runEffect(echo, e.globals, impulse(1024));
        EXPECT_FLOAT_EQ(out.left[2] / out.left[1], -fb / 128.0f);
        EXPECT_FLOAT_EQ(out.left[3] / out.left[2], -fb / 128.0f);
    }
}

TEST(EchoLaws, DelayEdgesClampLinesAndSampleRateRiseStaysInsideTheAllocation) {
    Engine e(8000, 1024);
    std::vector<float> outL(1024), outR(1024);
    Echo echo(e.globals, 1, outL.data(), outR.data());
    // Capacity at 8000 Hz: 1 + 1.5 s, plus the widest offset of 511 ms.
    EXPECT_EQ(echo.capacity(), 12001 + 4088);
    set(echo, {{4, 0}, {5, 0}, {6, 0}});

    // An offset beyond the delay clamps the short side to one sample; the long side is
    // 1 + trunc((2^(63/64 * 9) - 1) / 1000 * 8000) = 1 + 3707.
    echo.setParameterChar(2, 0);
    echo.setParameterChar(3, 127);
    Stereo out = runEffect(echo, e.globals, impulse(4096));
    EXPECT_EQ(firstNonZero(out.left), 1);
    EXPECT_EQ(firstNonZero(out.right), 3708);

    // After a rise of the rate the longest setting runs at the capacity, never past it.
    e.globals.SAMPLE_RATE = 96000;
    echo.setParameterChar(2, 127);
    echo.setParameterChar(3, 0);
    EXPECT_EQ(echo.getLeftLength(), echo.capacity());
    EXPECT_EQ(echo.getRightLength(), echo.capacity());
    out = runEffect(echo, e.globals, impulse(17 * 1024));
    EXPECT_EQ(firstNonZero(out.left), echo.capacity());
    EXPECT_EQ(firstNonZero(out.right), echo.capacity());
}

TEST(EchoLaws, DelayChangesAndZeroVolumeSilenceTheLinesButCrossDoesNot) {
    Engine e(8000, 1024);
    std::vector<float> outL(1024), outR(1024);
    Echo echo(e.globals, 1, outL.data(), outR.data());
    echo.setParameterChar(2, 10); // 945 samples, longer than a block
    auto tailAfter = [&](int index, int value) {
        runEffect(echo, e.globals, noise(1024, 7, 1.0f));
        echo.setParameterChar(index, (unsigned char)value);
        const Stereo out = runEffect(echo, e.globals, silence(1024));
        return firstNonZero(out.left) >= 0 || firstNonZero(out.right) >= 0;
    };
    EXPECT_FALSE(tailAfter(2, 10));
    EXPECT_FALSE(tailAfter(3, 64));
    EXPECT_FALSE(tailAfter(0, 0));
    EXPECT_TRUE(tailAfter(4, 20));
    EXPECT_TRUE(tailAfter(0, 1));
}

// Manager path: delay 945 samples, offset 30 samples (v = 80; v = 48 mirrors it), feedback
// 0.5, damping 20. The first repeat's low-pass shows as a one-pole decay; the second repeat
// is inverted and damped once more.
TEST(EchoThroughManager, ImpulseReturnsAfterEachSidesLengthInvertedAndLowPassed) {
    for (auto [lr, leftLen, rightLen] :
         std::initializer_list<std::tuple<int, int, int>>{{80, 915, 975}, {48, 975, 915}}) {
        Engine e(8000);
        EffectManager m(e.globals, 0, 1);
        m.changeEffect(kEcho);
        set(m, {{0, 127}, {1, 64}, {2, 10}, {3, lr}, {4, 0}, {5, 64}, {6, 20}});
        const Stereo out = runManager(m, e.globals, impulse(4096));

        const float d = 1.0f - 20.0f / 127.0f;
        const float pl = 64.5f / 127.0f;
        EXPECT_EQ(firstNonZero(out.left), leftLen);
        EXPECT_EQ(firstNonZero(out.right), rightLen);
        EXPECT_FLOAT_EQ(out.left[size_t(leftLen)], 2.0f * pl * d);
        EXPECT_FLOAT_EQ(out.right[size_t(rightLen)], 2.0f * (1.0f - pl) * d);
        EXPECT_FLOAT_EQ(out.left[size_t(leftLen) + 1], out.left[size_t(leftLen)] * (1.0f - d));
        EXPECT_FLOAT_EQ(out.left[2 * size_t(leftLen)], -0.5f * d * out.left[size_t(leftLen)]);
        EXPECT_FLOAT_EQ(out.right[2 * size_t(rightLen)], -0.5f * d * out.right[size_t(rightLen)]);
    }
}

// Volume 32 gives wet = 2 * 32/127 over a dry factor of 1; only the echo squares the wet part.
TEST(EffectManagerLaw, InsertionSquaresWetForEchoButNotForPhaser) {
    for (auto [type, expected] :
         std::initializer_list<std::pair<int, double>>{{kEcho, 0.253953}, {kPhaser, 0.503937}}) {
        Engine e;
        EffectManager full(e.globals, 0, 1), part(e.globals, 0, 1);
        for (EffectManager* m : {&full, &part}) {
            m->changeEffect(type);
            if (type == kEcho) m->setParameterChar(2, 2); // 1134 samples: echoes within the run
        }
        full.setParameterChar(0, 127);
        part.setParameterChar(0, 32);
        const Stereo in = noise(3 * 4096, 7, 1.0f);
        const Stereo wet = runManager(full, e.globals, in);
        const Stereo mixed = runManager(part, e.globals, in);
        double num = 0, den = 0;
        for (size_t i = 0; i < in.left.size(); ++i) {
            num += double(mixed.left[i] - in.left[i]) * wet.left[i];
            den += double(wet.left[i]) * wet.left[i];
        }
        ASSERT_GT(den, 1.0) << "type " << type;
        EXPECT_NEAR(num / den, expected, 2e-4) << "type " << type;
    }
}

TEST(PhaserLaws, StageCountAcceptsOneToElevenAndSubtractIsAFlag) {
    Engine e;
    std::vector<float> outL(4096), outR(4096);
    Phaser phaser(e.globals, 1, outL.data(), outR.data());
    EXPECT_EQ(phaser.getParameter_Char(8), 1);
    for (int refused : {0, 12, 255}) {
        phaser.setParameterChar(8, (unsigned char)refused);
        EXPECT_EQ(phaser.getParameter_Char(8), 1) << refused;
    }
    phaser.setParameterChar(8, 11);
    EXPECT_EQ(phaser.getParameter_Char(8), 11);
    phaser.setParameterChar(10, 5);
    EXPECT_EQ(phaser.getParameter_Char(10), 1);

    // Inverting polarity is the only difference subtract makes.
    std::vector<float> outL2(4096), outR2(4096);
    Phaser plain(e.globals, 1, outL2.data(), outR2.data());
    plain.setParameterChar(8, 11);
    const Stereo in = noise(2 * 4096, 7, 1.0f);
    const Stereo a = runEffect(phaser, e.globals, in);
    const Stereo b = runEffect(plain, e.globals, in);
    for (size_t i = 0; i < a.left.size(); i += 97) EXPECT_EQ(a.left[i], -b.left[i]);
}

// LFO rate 0 holds the LFO at phase 0: sine gives 1, triangle -1.5. The coefficient
// c = 1 - phase (1 - depth) - (1 - phase) (e^(2 lfo) - 1) / (e^2 - 1) depth, clamped to 0..1,
// is settled after one block; an impulse then leaves 2 x stages sections as c^(2 stages) at
// sample 0 (each section starts with -c).
TEST(PhaserLaws, CoefficientFollowsDepthPhaseAndLfoWithinZeroToOne) {
    Engine e;
    std::vector<float> outL(4096), outR(4096);
    Phaser phaser(e.globals, 1, outL.data(), outR.data());
    set(phaser, {{1, 127}, {2, 0}, {7, 64}, {9, 0}, {10, 0}});
    auto impulseAfterSettling = [&](std::initializer_list<std::pair<int, int>> values) {
        set(phaser, values);
        runEffect(phaser, e.globals, silence(4096));
        return runEffect(phaser, e.globals, impulse(4096));
    };

    const float depth = 32.0f / 127.0f, phase = 96.0f / 127.0f;
    const float c = 1.0f - phase * (1.0f - depth) - (1.0f - phase) * depth;
    Stereo out = impulseAfterSettling({{4, 0}, {6, 32}, {11, 96}, {8, 3}});
    EXPECT_NEAR(out.left[0], std::pow(c, 6.0f), 1e-6);
    EXPECT_EQ(out.right[0], 0.0f) << "panning 127 feeds the left chain only";

    // c = 0: every section is a one-sample delay; full cross moves the result to the right.
    out = impulseAfterSettling({{6, 0}, {11, 127}, {8, 1}});
    EXPECT_EQ(out.left[0], 0.0f);
    EXPECT_FLOAT_EQ(out.left[2], 1.0f);
    out = impulseAfterSettling({{9, 127}});
    EXPECT_FLOAT_EQ(out.right[2], 1.0f);
    EXPECT_EQ(out.left[2], 0.0f);

    // Triangle at phase 0 with full depth would give 1 + 0.149; clamped to 1.
    out = impulseAfterSettling({{9, 0}, {4, 1}, {6, 127}, {11, 0}});
    EXPECT_FLOAT_EQ(out.left[0], 1.0f);

    // A new coefficient glides in across the block: half way from 0 to 1, c = 0.5.
    impulseAfterSettling({{4, 0}, {6, 0}, {11, 127}});
    phaser.setParameterChar(11, 0);
    out = runEffect(phaser, e.globals, impulse(4096, 2048));
    EXPECT_FLOAT_EQ(out.left[2048], 0.25f);
}

// With depth 0 the coefficient holds still at 1 - phase; without feedback or cross the chain is
// all-pass, so the impulse response's magnitude is the input's panning gain at every frequency.
TEST(PhaserThroughManager, IsAllPassWithoutDepthOrFeedback) {
    auto spectrum = [](const std::vector<float>& h) {
        std::vector<double> mags;
        for (int k = 1; k < 2048; k += 53) {
            std::complex<double> sum = 0;
            for (size_t t = 0; t < h.size(); ++t)
                sum += double(h[t]) *
                       std::polar(1.0, -2.0 * std::numbers::pi * k * double(t) / h.size());
            mags.push_back(std::abs(sum));
        }
        return mags;
    };
    for (int stages : {1, 5, 11}) {
        Engine e;
        EffectManager m(e.globals, 0, 1);
        m.changeEffect(kPhaser);
        set(m, {{0, 127}, {1, 40}, {6, 0}, {7, 64}, {8, stages}, {9, 0}, {10, 0}, {11, 64}});
        runManager(m, e.globals, silence(4096)); // the coefficient glides in over one block
        Stereo out = runManager(m, e.globals, impulse(4096));
        const double c = 1.0 - 64.0 / 127.0;
        EXPECT_NEAR(out.left[0], 40.0 / 127.0 * std::pow(c, 2 * stages), 1e-6) << stages;
        for (double mag : spectrum(out.left)) EXPECT_NEAR(mag, 40.0 / 127.0, 1e-4) << stages;
        for (double mag : spectrum(out.right)) EXPECT_NEAR(mag, 87.0 / 127.0, 1e-4) << stages;

        // Feedback v = 107 (+0.67) around the all-pass colours the spectrum strongly.
        m.setParameterChar(7, 107);
        runManager(m, e.globals, silence(4096));
        out = runManager(m, e.globals, impulse(4096));
        const auto mags = spectrum(out.left);
        EXPECT_GT(*std::max_element(mags.begin(), mags.end()) /
                      *std::min_element(mags.begin(), mags.end()),
                  2.0)
            << stages;
    }
}

// Depth 0 and phase 64 leave the coefficient at (feedback, 0): with full left panning an impulse
// enters as (1 - |f|), leaves times 10 (f + 0.1), and each pass round the line multiplies by f.
TEST(AlienwahLaws, FeedbackSignsFloorAndDelayClamp) {
    const float top = std::sqrt(63.0f / 64.1f);
    const float bottom = -std::sqrt(64.0f / 64.1f); // -0.9992
    Engine e(48000, 256);
    std::vector<float> outL(256), outR(256);
    Alienwah wah(e.globals, 1, outL.data(), outR.data());
    set(wah, {{1, 127}, {6, 0}, {8, 20}, {9, 0}, {10, 64}});
    for (auto [v, f] : std::initializer_list<std::pair<int, float>>{
             {0, bottom}, {63, -0.4f}, {64, 0.4f}, {127, top}}) {
        wah.setParameterChar(7, (unsigned char)v);
        runEffect(wah, e.globals, silence(256)); // the coefficient glides in over one block
        wah.cleanup();
        const Stereo out = runEffect(wah, e.globals, impulse(256));
        EXPECT_FLOAT_EQ(out.left[0], (1.0f - std::fabs(f)) * 10.0f * (f + 0.1f)) << v;
        EXPECT_FLOAT_EQ(out.left[20] / out.left[0], f) << v;
        EXPECT_FLOAT_EQ(out.left[40] / out.left[20], f) << v;
        EXPECT_EQ(out.right[0], 0.0f);
    }
    // Full cross sends the left line to the right output.
    wah.setParameterChar(9, 127);
    Stereo crossed = runEffect(wah, e.globals, impulse(256));
    EXPECT_EQ(crossed.left[0], 0.0f);
    EXPECT_FLOAT_EQ(crossed.right[20] / crossed.right[0], top);
    wah.setParameterChar(9, 0);

    // A new coefficient glides in across the block: from (f, 0) to (-f, 0) (phase 0 turns it
    // by -pi), so one pass round a one-sample line at x = 65/256 multiplies by f (1 - 2x).
    wah.setParameterChar(8, 1);
    wah.setParameterChar(10, 0);
    Stereo glide = runEffect(wah, e.globals, impulse(256, 64));
    EXPECT_NEAR(glide.left[65] / glide.left[64], top * (1.0f - 2.0f * 65.0f / 256.0f), 1e-5);

    wah.setParameterChar(10, 64);
    wah.setParameterChar(8, 200);
    EXPECT_EQ(wah.getParameter_Char(8), 100);
    Stereo out = runEffect(wah, e.globals, impulse(256));
    EXPECT_EQ(firstNonZero(std::vector<float>(out.left.begin() + 1, out.left.end())), 99);
    // A length of 0 is kept as set and runs as a one-sample line.
    wah.setParameterChar(8, 0);
    EXPECT_EQ(wah.getParameter_Char(8), 0);
    out = runEffect(wah, e.globals, impulse(256));
    EXPECT_FLOAT_EQ(out.left[1] / out.left[0], top);
    EXPECT_FLOAT_EQ(out.left[2] / out.left[1], top);
}

// |coefficient| <= |f| keeps each line's magnitude at or below the input's, so the output
// never exceeds 10 |f + 0.1| for full-scale input, whatever the LFO does.
TEST(AlienwahThroughManager, StaysBoundedOverTenSecondsOfNoiseAtStrongestFeedback) {
    for (int fb : {0, 127}) {
        Engine e;
        EffectManager m(e.globals, 0, 1);
        m.changeEffect(kAlienwah);
        set(m, {{0, 127}, {2, 110}, {6, 127}, {7, fb}, {8, 100}, {9, 64}});
        const float f = fb == 0 ? -std::sqrt(64.0f / 64.1f) : std::sqrt(63.0f / 64.1f);
        const float bound = 10.0f * std::fabs(f + 0.1f) + 1e-3f;
        float peak = 0.0f;
        double energy = 0.0;
        const int blocks = 10 * 48000 / 4096 + 1;
        for (int b = 0; b < blocks; ++b) {
            Stereo s = noise(4096, unsigned(b), 1.0f);
            m.process(s.left.data(), s.right.data());
            for (size_t i = 0; i < 4096; ++i) {
                ASSERT_TRUE(std::isfinite(s.left[i]) && std::isfinite(s.right[i]));
                peak = std::max({peak, std::fabs(s.left[i]), std::fabs(s.right[i])});
                energy += double(s.left[i]) * s.left[i];
            }
        }
        EXPECT_LE(peak, bound) << fb;
        EXPECT_GT(energy / (blocks * 4096.0), 1e-5) << fb << ": the output must not be silent";
    }
}

TEST(EffectRobustness, EveryPresetStaysFiniteForNoiseSilenceImpulsesAndSquare) {
    const std::pair<int, int> types[] = {{kEcho, 9}, {kPhaser, 6}, {kAlienwah, 4}};
    const Stereo inputs[] = {noise(12 * 4096, 7, 1.0f), silence(12 * 4096),
                             impulse(12 * 4096, 5000), square(12 * 4096)};
    for (auto [type, presets] : types) {
        for (int insertion : {1, 0}) {
            for (int n = 0; n < presets; ++n) {
                for (const Stereo& in : inputs) {
                    Engine e;
                    EffectManager m(e.globals, 0, insertion);
                    m.changeEffect(type);
                    m.changePreset((unsigned char)n);
                    const Stereo out = runManager(m, e.globals, in);
                    bool finite = true;
                    for (size_t i = 0; i < out.left.size(); ++i)
                        finite =
                            finite && std::isfinite(out.left[i]) && std::isfinite(out.right[i]);
                    EXPECT_TRUE(finite)
                        << "type " << type << " preset " << n << " insertion " << insertion;
                }
            }
        }
    }
}
