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
#include <initializer_list>
#include <memory>
#include <numeric>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using namespace sr::test;

constexpr int kEcho = 2, kPhaser = 4, kAlienwah = 5;

// Factory tables as published for each effect, indices in order.
const std::vector<std::vector<int>> kEchoPresets = {
    {67, 64, 35, 64, 30, 59, 0},    {67, 64, 21, 64, 30, 59, 0},    {67, 75, 60, 64, 30, 59, 10},
    {67, 60, 44, 64, 30, 0, 0},     {67, 60, 102, 50, 30, 82, 48},  {67, 64, 44, 17, 0, 82, 24},
    {81, 60, 46, 118, 100, 68, 18}, {81, 60, 26, 100, 127, 67, 36}, {62, 64, 28, 64, 100, 90, 55}};
const std::vector<std::vector<int>> kPhaserPresets = {
    {64, 64, 36, 0, 0, 64, 110, 64, 1, 0, 0, 20},  {64, 64, 35, 0, 0, 88, 40, 64, 3, 0, 0, 20},
    {64, 64, 31, 0, 0, 66, 68, 107, 2, 0, 0, 20},  {39, 64, 22, 0, 0, 66, 67, 10, 5, 0, 1, 20},
    {64, 64, 20, 0, 1, 110, 67, 78, 10, 0, 0, 20}, {64, 64, 53, 100, 0, 58, 37, 78, 3, 0, 0, 20}};
const std::vector<std::vector<int>> kAlienwahPresets = {
    {127, 64, 70, 0, 0, 62, 60, 105, 25, 0, 64},
    {127, 64, 73, 106, 0, 101, 60, 105, 17, 0, 64},
    {127, 64, 63, 0, 1, 100, 112, 105, 31, 0, 42},
    {93, 64, 25, 0, 1, 66, 101, 11, 47, 0, 86}};

// Sets (index, value) pairs in order on an effect or a manager.
template <typename Target>
void set(Target& target, std::initializer_list<std::pair<int, int>> values) {
    for (auto [index, value] : values) target.setParameterChar(index, (unsigned char)value);
}

// A manager hosting one effect, with a silent denormal buffer so that outputs are exactly the
// formulas' values; run() processes a signal in place, block by block. At insertion volume 127
// the dry part is 0 and the wet factor 1, so the output is the effect's own.
struct Managed {
    Managed(int type, int insertion, int rate = 48000, int block = 4096) {
        globals.SAMPLE_RATE = rate;
        globals.SOUND_BUFFER_SIZE = block;
        globals.denormalkillbuf = zeros.data();
        m = std::make_unique<EffectManager>(globals, 0, insertion);
        m->changeEffect(type);
    }
    EffectGlobals globals;
    std::vector<float> zeros = std::vector<float>(4096, 0.0f);
    std::unique_ptr<EffectManager> m;
    Stereo run(Stereo in) {
        const auto n = size_t(globals.SOUND_BUFFER_SIZE);
        for (size_t at = 0; at < in.size(); at += n) m->process(&in.left[at], &in.right[at]);
        return in;
    }
};

int firstNonZero(const std::vector<float>& v) {
    return int(std::find_if(v.begin(), v.end(), [](float s) { return s != 0.0f; }) - v.begin());
}

} // namespace

// Preset numbers past a table select its last row. The echo halves the Volume for insertion,
// the alienwah for system use, the phaser never. Every preset stays finite on hard inputs.
TEST(EffectPresets, TablesVolumeHalvingAndFiniteOutput) {
    const std::tuple<int, const std::vector<std::vector<int>>*, int> cases[] = {
        {kEcho, &kEchoPresets, 1},
        {kPhaser, &kPhaserPresets, -1},
        {kAlienwah, &kAlienwahPresets, 0}};
    EXPECT_EQ(Managed(9, 1).m->getEffectObject(), nullptr) << "unknown types host nothing";
    const Stereo inputs[] = {noise(3 * 4096, 7, 1.0f), silence(3 * 4096), impulse(3 * 4096, 5000),
                             square(3 * 4096)};
    for (auto [type, table, halvedFor] : cases) {
        for (int insertion : {1, 0}) {
            Managed fx(type, insertion);
            for (int n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 255}) {
                const int row = std::min(n, int(table->size()) - 1);
                const std::vector<int>& values = (*table)[size_t(row)];
                fx.m->changePreset((unsigned char)n);
                EXPECT_EQ(fx.m->getPreset(), row);
                for (size_t i = 0; i <= values.size(); ++i) {
                    const int halve = i == 0 && insertion == halvedFor ? 2 : 1;
                    EXPECT_EQ(fx.m->getParameter_Char(int(i)),
                              i < values.size() ? values[i] / halve : 0)
                        << "type " << type << " insertion " << insertion << " preset " << n
                        << " index " << i;
                }
                for (const Stereo& in : inputs) {
                    const Stereo out = fx.run(in);
                    EXPECT_TRUE(allFinite(out.left) && allFinite(out.right)) << type << " " << n;
                }
            }
        }
    }
}

// Echo at 8000 Hz without damping or feedback.
TEST(EchoLaws, PanningCrossDelayEdgesAndLineClearing) {
    Managed fx(kEcho, 1, 8000, 1024);
    auto& echo = *static_cast<Echo*>(fx.m->getEffectObject());
    // Delay 0 gives one-sample lines: an impulse comes back at sample 1 as 2 x the panned input,
    // panning (v + 0.5) / 127; full cross swaps the sides.
    set(echo, {{0, 127}, {2, 0}, {3, 64}, {5, 0}, {6, 0}});
    const int pans[][2] = {{0, 0}, {127, 0}, {127, 127}};
    for (auto [pan, cross] : pans) {
        set(echo, {{1, pan}, {4, cross}});
        const Stereo out = fx.run(impulse(1024));
        const float p = (float(pan) + 0.5f) / 127.0f;
        EXPECT_FLOAT_EQ(out.left[1], 2.0f * (cross ? 1.0f - p : p)) << pan << " " << cross;
        EXPECT_FLOAT_EQ(out.right[1], 2.0f * (cross ? p : 1.0f - p)) << pan << " " << cross;
    }
    // An offset beyond the delay clamps the short side to one sample; the long side is
    // 1 + trunc((2^(63/64 * 9) - 1) / 1000 * 8000) = 1 + 3707.
    set(echo, {{1, 64}, {3, 127}, {4, 0}});
    Stereo out = fx.run(impulse(4096));
    EXPECT_EQ(firstNonZero(out.left), 1);
    EXPECT_EQ(firstNonZero(out.right), 3708);
    // Delay 945 samples, longer than a block: changing a delay (even to its value) or zero
    // volume silences the lines; cross does not.
    echo.setParameterChar(2, 10);
    const int changes[][3] = {{2, 10, 0}, {3, 64, 0}, {0, 0, 0}, {4, 20, 1}, {0, 1, 1}};
    for (auto [index, value, tail] : changes) {
        fx.run(noise(1024, 7, 1.0f));
        set(echo, {{index, value}, {0, 127}});
        out = fx.run(silence(1024));
        EXPECT_EQ(peak(out.left) + peak(out.right) > 0.0f, tail != 0) << index << " " << value;
    }
    // Capacity: 1 + 1.5 s plus the widest offset of 511 ms. After a rise of the rate the
    // longest setting runs at the capacity, never past it.
    EXPECT_EQ(echo.capacity(), 12001 + 4088);
    fx.globals.SAMPLE_RATE = 96000;
    set(echo, {{2, 127}, {3, 0}});
    out = fx.run(impulse(17 * 1024));
    EXPECT_EQ(firstNonZero(out.left), echo.capacity());
    EXPECT_EQ(firstNonZero(out.right), echo.capacity());
}

// Delay 945 samples, offset 30 (v = 80; v = 48 mirrors it), feedback 64 / 128, damping 20: the
// first repeat's low-pass shows as a one-pole decay, the second is inverted and damped again.
// The wet part is scaled by 1 at full insertion volume, (2 v)^2 below half (squared for the
// echo only) and 2 for system use; the reported volume is v for insertion, 4 x 0.01^(1 - v)
// for system use.
TEST(EchoThroughManager, ImpulseReturnsAfterEachSidesLengthInvertedAndLowPassed) {
    const std::tuple<int, int, float> laws[] = {
        {1, 127, 1.0f}, {1, 32, (64.0f / 127.0f) * (64.0f / 127.0f)}, {0, 32, 2.0f}};
    const int sides[][3] = {{80, 915, 975}, {48, 975, 915}};
    for (auto [insertion, volume, wet] : laws) {
        for (auto [lr, lengthL, lengthR] : sides) {
            Managed fx(kEcho, insertion, 8000);
            set(*fx.m, {{0, volume}, {1, 64}, {2, 10}, {3, lr}, {4, 0}, {5, 64}, {6, 20}});
            Stereo out = fx.run(impulse(4096));
            const double v = volume / 127.0;
            EXPECT_NEAR(fx.m->getVolume(), insertion ? v : 4.0 * std::pow(0.01, 1.0 - v), 1e-6);
            EXPECT_EQ(out.left[0], insertion && volume < 64 ? 1.0f : 0.0f) << "dry";
            out.left[0] = out.right[0] = 0.0f;
            const size_t l = size_t(lengthL), r = size_t(lengthR);
            const float d = 1.0f - 20.0f / 127.0f, p = 64.5f / 127.0f;
            EXPECT_EQ(firstNonZero(out.left), lengthL);
            EXPECT_EQ(firstNonZero(out.right), lengthR);
            EXPECT_FLOAT_EQ(out.left[l], wet * 2.0f * p * d) << volume;
            EXPECT_FLOAT_EQ(out.right[r], wet * 2.0f * (1.0f - p) * d) << volume;
            EXPECT_FLOAT_EQ(out.left[l + 1], out.left[l] * (1.0f - d));
            EXPECT_FLOAT_EQ(out.left[2 * l], -0.5f * d * out.left[l]);
            EXPECT_FLOAT_EQ(out.right[2 * r], -0.5f * d * out.right[r]);
        }
    }
}

// Stage counts outside 1..11 are refused; subtract is a flag whose only effect, even with
// feedback, is the output polarity.
TEST(PhaserLaws, StageCountAcceptsOneToElevenAndSubtractIsAFlag) {
    Managed sub(kPhaser, 1), plain(kPhaser, 1);
    const int stages[][2] = {{0, 1}, {12, 1}, {255, 1}, {11, 11}};
    for (auto [value, kept] : stages) {
        sub.m->setParameterChar(8, (unsigned char)value);
        EXPECT_EQ(sub.m->getParameter_Char(8), kept) << value;
    }
    set(*sub.m, {{0, 127}, {7, 107}, {10, 5}});
    EXPECT_EQ(sub.m->getParameter_Char(10), 1);
    set(*plain.m, {{0, 127}, {7, 107}, {8, 11}});
    const Stereo in = noise(2 * 4096, 7, 1.0f);
    EXPECT_EQ(scaled(sub.run(in).left, -1.0f), plain.run(in).left);
}

// LFO rate 0 holds the LFO at phase 0: sine gives 1, triangle -1.5. The coefficient
// c = 1 - phase (1 - depth) - (1 - phase) (e^(2 lfo) - 1) / (e^2 - 1) depth, clamped to 0..1,
// is settled after one block; an impulse then leaves 2 x stages sections as c^(2 stages) at
// sample 0 (each section starts with -c).
TEST(PhaserLaws, CoefficientFollowsDepthPhaseAndLfoWithinZeroToOne) {
    Managed fx(kPhaser, 1);
    set(*fx.m, {{0, 127}, {1, 127}, {2, 0}, {7, 64}, {9, 0}, {10, 0}});
    auto settled = [&](std::initializer_list<std::pair<int, int>> values) {
        set(*fx.m, values);
        fx.run(silence(4096));
        return fx.run(impulse(4096));
    };
    const float depth = 32.0f / 127.0f, phase = 96.0f / 127.0f;
    const float c = 1.0f - phase * (1.0f - depth) - (1.0f - phase) * depth;
    Stereo out = settled({{4, 0}, {6, 32}, {11, 96}, {8, 3}});
    EXPECT_NEAR(out.left[0], std::pow(c, 6.0f), 1e-6);
    EXPECT_EQ(out.right[0], 0.0f) << "panning 127 feeds the left chain only";
    // c = 0: every section is a one-sample delay; full cross moves the result to the right.
    EXPECT_FLOAT_EQ(settled({{6, 0}, {11, 127}, {8, 1}}).left[2], 1.0f);
    out = settled({{9, 127}});
    EXPECT_FLOAT_EQ(out.right[2], 1.0f);
    // Triangle at phase 0 with full depth would give 1 + 0.149; clamped to 1.
    EXPECT_FLOAT_EQ(settled({{9, 0}, {4, 1}, {6, 127}, {11, 0}}).left[0], 1.0f);
    // A new coefficient glides in across the block: half way from 0 to 1, c = 0.5.
    settled({{4, 0}, {6, 0}, {11, 127}});
    fx.m->setParameterChar(11, 0);
    EXPECT_FLOAT_EQ(fx.run(impulse(4096, 2048)).left[2048], 0.25f);
}

// With depth 0 the coefficient holds still at 1 - phase; without feedback or cross the chain is
// all-pass: the wet impulse response's autocorrelation is zero at every lag but 0, where it is
// the squared gain (panning times the insertion wet factor 2 x 32/127, not squared).
TEST(PhaserThroughManager, IsAllPassWithoutDepthOrFeedback) {
    auto lag = [](const std::vector<float>& h, long k) {
        return std::inner_product(h.begin() + k, h.end(), h.begin(), 0.0);
    };
    const double gainL = 64.0 / 127.0 * 40.0 / 127.0, gainR = 64.0 / 127.0 * 87.0 / 127.0;
    for (int stages : {1, 5, 11}) {
        Managed fx(kPhaser, 1);
        set(*fx.m, {{0, 32}, {1, 40}, {6, 0}, {7, 64}, {8, stages}, {9, 0}, {10, 0}, {11, 64}});
        auto response = [&] {
            fx.run(silence(4096)); // the coefficient glides in over one block
            Stereo out = fx.run(impulse(4096));
            out.left[0] -= 1.0f; // the dry impulse
            out.right[0] -= 1.0f;
            return out;
        };
        const Stereo out = response();
        EXPECT_NEAR(out.left[0], gainL * std::pow(63.0 / 127.0, 2 * stages), 1e-6);
        for (long k = 0; k < 8; ++k) {
            EXPECT_NEAR(lag(out.left, k), k ? 0.0 : gainL * gainL, 1e-6) << k;
            EXPECT_NEAR(lag(out.right, k), k ? 0.0 : gainR * gainR, 1e-6) << k;
        }
        // Feedback f = +0.67 around the all-pass raises the energy towards 1 / (1 - f^2).
        fx.m->setParameterChar(7, 107);
        EXPECT_GT(lag(response().left, 0), 1.5 * gainL * gainL) << stages;
    }
}

// Depth 0 and phase 64 leave the coefficient at (feedback, 0): with full left panning an impulse
// enters as (1 - |f|), leaves times 10 (f + 0.1), and each pass round the line multiplies by f.
TEST(AlienwahLaws, FeedbackSignsFloorCrossGlideAndDelayClamp) {
    const float top = std::sqrt(63.0f / 64.1f), bottom = -std::sqrt(64.0f / 64.1f);
    Managed fx(kAlienwah, 1, 48000, 256);
    set(*fx.m, {{0, 127}, {1, 127}, {6, 0}, {8, 20}, {9, 0}, {10, 64}});
    for (auto [v, f] :
         {std::pair{0, bottom}, std::pair{63, -0.4f}, std::pair{64, 0.4f}, std::pair{127, top}}) {
        fx.m->setParameterChar(7, (unsigned char)v);
        fx.run(silence(256)); // the coefficient glides in over one block
        fx.m->cleanup();
        const Stereo out = fx.run(impulse(256));
        EXPECT_FLOAT_EQ(out.left[0], (1.0f - std::fabs(f)) * 10.0f * (f + 0.1f)) << v;
        EXPECT_FLOAT_EQ(out.left[20] / out.left[0], f) << v;
    }
    fx.m->setParameterChar(9, 127); // full cross: the left line goes to the right output
    Stereo out = fx.run(impulse(256));
    EXPECT_EQ(out.left[0], 0.0f);
    EXPECT_FLOAT_EQ(out.right[20] / out.right[0], top);
    // Phase 0 turns the coefficient by -pi to (-f, 0), gliding in across the block: one pass
    // round a one-sample line at x = 65/256 multiplies by f (1 - 2x).
    set(*fx.m, {{9, 0}, {8, 1}, {10, 0}});
    out = fx.run(impulse(256, 64));
    EXPECT_NEAR(out.left[65] / out.left[64], top * (1.0f - 2.0f * 65.0f / 256.0f), 1e-5);
    // Lengths clamp to 100; 0 is kept and runs as a one-sample line.
    set(*fx.m, {{10, 64}, {8, 200}});
    out = fx.run(impulse(256));
    EXPECT_EQ(firstNonZero({out.left.begin() + 1, out.left.end()}), 99);
    fx.m->setParameterChar(8, 0);
    out = fx.run(impulse(256));
    EXPECT_FLOAT_EQ(out.left[1] / out.left[0], top);
}

// |coefficient| <= |f| keeps each line's magnitude at or below the input's, so the output
// never exceeds 10 |f + 0.1| for full-scale input, whatever the LFO does.
TEST(AlienwahThroughManager, StaysBoundedOverTenSecondsOfNoiseAtStrongestFeedback) {
    for (int fb : {0, 127}) {
        Managed fx(kAlienwah, 1);
        set(*fx.m, {{0, 127}, {2, 110}, {6, 127}, {7, fb}, {8, 100}, {9, 64}});
        const float f = fb == 0 ? -std::sqrt(64.0f / 64.1f) : std::sqrt(63.0f / 64.1f);
        const Stereo out = fx.run(noise(118 * 4096, 3, 1.0f));
        ASSERT_TRUE(allFinite(out.left) && allFinite(out.right)) << fb;
        EXPECT_LE(std::max(peak(out.left), peak(out.right)), 10.0f * std::fabs(f + 0.1f) + 1e-3f);
        EXPECT_GT(peak(out.left), 0.1f) << fb << ": the output must not be silent";
    }
}
