// The DSP building blocks on their own: band split, LFO, chorus and the effect manager's laws.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "RenderHarness.h"
#include "effects/Chorus.h"
#include "effects/EffectLFO.h"
#include "effects/EffectManager.h"
#include "kernel/BandSplitFilter3.h"
#include "util/ExactCos.h"
#include "util/FlushDenormals.h"
#include "util/Simd.h"

namespace {

using sr::test::noise;
using sr::test::Stereo;

// ---------------------------------------------------------------- band split

TEST(BandSplit, BandsSumBackAtEveryCutoffAndStopAt4096Frames) {
    const auto in = noise(5000, 7);
    for (float lp : {0.0f, 0.2f, 0.574f, 0.9f}) {
        for (float hp : {0.3f, 0.812f, 1.0f}) {
            BandSplitFilter3 split;
            split.setCutoff2(hp);
            split.setCutoff1(lp);
            std::vector<float> l(5000, 9.0f), r(5000, 9.0f);
            split.split(in.left.data(), in.right.data(), 5000);
            split.mix(l.data(), r.data(), 5000);
            SCOPED_TRACE(testing::Message() << lp << " / " << hp);
            for (std::size_t i = 0; i < 5000; ++i) {
                ASSERT_NEAR(l[i], i < 4096 ? in.left[i] : 9.0f, 2e-7f) << i;
                ASSERT_NEAR(r[i], i < 4096 ? in.right[i] : 9.0f, 2e-7f) << i;
            }
        }
    }
}

TEST(BandSplit, TonesLandInTheirBandsOnBothSides) {
    // The plug-in's default split points: sqrt(0.33) and sqrt(0.66).
    auto middleShare = [](double hz) {
        BandSplitFilter3 split;
        split.setCutoff2(std::sqrt(0.66f));
        split.setCutoff1(std::sqrt(0.33f));
        std::vector<float> x(4096);
        for (int i = 0; i < 4096; ++i) x[size_t(i)] = float(std::sin(2 * M_PI * hz * i / 48000));
        split.split(x.data(), x.data(), 4096);
        double mid = 0, sum = 0;
        // After the filters settle; the product of both sides needs the band on each.
        for (int i = 2048; i < 4096; ++i) {
            mid += double(split.getBPLeft()[i]) * split.getBPRight()[i];
            sum += double(x[size_t(i)]) * x[size_t(i)];
        }
        return mid / sum;
    };
    EXPECT_GT(middleShare(700.0), 0.5);
    EXPECT_LT(middleShare(40.0), 0.05);
    EXPECT_LT(middleShare(12000.0), 0.05);
}

TEST(BandSplit, CutoffLawsOrderAndReset) {
    SVFilter4Pole1 f;
    // 2^(10x - 10) scaled by x, floored at 0.0012 and capped at 1.
    for (auto [cutoff, expected] : {std::pair{0.0f, 0.0012f}, {1.0f, 1.0f}, {3.0f, 1.0f}}) {
        f.setCutoff(cutoff);
        EXPECT_EQ(f.getF(), expected) << cutoff;
    }
    // No resonance: gain 0.7 + 0.95, q = 1 / (25 (2 - f) 0.05).
    f.setCutoff(0.5f);
    EXPECT_FLOAT_EQ(f.getF(), 0.015625f);
    EXPECT_FLOAT_EQ(f.getGain(), 1.65f);
    EXPECT_FLOAT_EQ(f.getQ(), 1.0f / (1.25f * (2.0f - 0.015625f)));

    // Each split point is held on its side of the other; out-of-range values are ignored. A reset
    // (which 0) keeps both, but every filter runs at 0.5 until the next change.
    BandSplitFilter3 split;
    const float steps[][4] = {{2, 0.66f, 0.333f, 0.66f}, {1, 0.9f, 0.66f, 0.66f},
                              {1, 0.2f, 0.2f, 0.66f},    {2, 0.1f, 0.2f, 0.2f},
                              {1, -0.1f, 0.2f, 0.2f},    {2, 1.5f, 0.2f, 0.2f},
                              {2, 0.9f, 0.2f, 0.9f},     {0, 0, 0.2f, 0.9f}};
    for (auto [which, value, low, high] : steps) {
        which == 0 ? split.reset() : which == 1 ? split.setCutoff1(value) : split.setCutoff2(value);
        EXPECT_EQ(split.getCutoff1(), low) << which << " = " << value;
        EXPECT_EQ(split.getCutoff2(), high) << which << " = " << value;
    }
    for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(split.lowPass(c).getCutoff(), 0.5f);
        EXPECT_FLOAT_EQ(split.highPass(c).getF(), 0.015625f);
    }
}

// ---------------------------------------------------------------- LFO

TEST(EffectLFO, RateStepPhaseAndStereoOffset) {
    EffectGlobals g;
    EffectLFO lfo(g);
    const float rates[][2] = {{0, 0.0f}, {40, 0.2362f}, {64, 0.9566f}, {127, 30.69f}};
    for (auto [param, hz] : rates) {
        lfo.freqParam = (unsigned char)param;
        lfo.UpdateParameters();
        EXPECT_NEAR(lfo.getFrequency(), hz, 0.00051f) << param;
    }
    // The phase moves by rate x block / sample rate, and the value is the one reached; the
    // right side leads by (96 - 64) / 127 of a cycle.
    lfo.freqParam = 64;
    lfo.UpdateParameters();
    float l, r;
    for (int frames : {64, 4096}) {
        g.SOUND_BUFFER_SIZE = frames;
        lfo.process(&l, &r);
        EXPECT_DOUBLE_EQ(lfo.phaseStep, double(lfo.getFrequency()) * frames / 48000) << frames;
    }
    const double phase = double(lfo.getFrequency()) * (64 + 4096) / 48000;
    EXPECT_NEAR(lfo.phaseLeft, phase, 1e-5);
    EXPECT_NEAR(l, (std::cos(2 * M_PI * phase) + 1) / 2, 1e-4);
    EXPECT_NEAR(r, (std::cos(2 * M_PI * (phase + 32.0 / 127)) + 1) / 2, 1e-4);

    // 30.69 Hz over 4096 frames is 2.6 cycles: capped at half a cycle, and a phase reaching
    // exactly 1 is not wrapped (the triangle is 0 at 0.5 and 1, but -4 at 0).
    lfo.freqParam = 127;
    lfo.shapeParam = 1;
    lfo.UpdateParameters();
    lfo.phaseLeft = 0.0;
    for (double expected : {0.5, 1.0, 0.5}) {
        lfo.process(&l, &r);
        EXPECT_EQ(lfo.phaseLeft, expected);
        EXPECT_FLOAT_EQ(l, 0.5f);
    }
}

TEST(EffectLFO, WaveformsAndRandomAmplitudes) {
    EffectGlobals g;
    EffectLFO lfo(g);
    // The "sine" is a cosine; the triangle's corners fall into its last branch.
    const float points[][3] = {{0, 0.0f, 1.0f},   {0, 0.5f, -1.0f},  {0, 0.25f, 0.0f},
                               {1, 0.0f, -4.0f},  {1, 0.25f, -3.0f}, {1, 0.75f, -1.0f},
                               {1, 0.125f, 0.5f}, {1, 0.5f, 0.0f},   {1, 0.9f, -0.4f}};
    for (auto [shape, x, value] : points) {
        lfo.shapeParam = (unsigned char)shape;
        lfo.UpdateParameters();
        EXPECT_NEAR(lfo.getLFOShape(x), value, 1e-6f) << shape << " " << x;
    }
    lfo.shapeParam = 7; // unknown shapes become the triangle
    lfo.UpdateParameters();
    EXPECT_EQ(lfo.shape, 1);

    EXPECT_EQ(lfo.ampLeftStart, 1.0f); // no randomness at construction
    EXPECT_EQ(lfo.ampRightEnd, 1.0f);
    lfo.randomnessParam = 127; // full randomness: each cycle's amplitude anywhere in 0..1
    lfo.freqParam = 127;
    lfo.UpdateParameters();
    float lowest = 1, highest = 0, l, r;
    for (int i = 0; i < 400; ++i) {
        lfo.process(&l, &r);
        lowest = std::min(lowest, lfo.ampLeftEnd);
        highest = std::max(highest, lfo.ampLeftEnd);
    }
    EXPECT_GE(lowest, 0.0f);
    EXPECT_LT(lowest, 0.2f);
    EXPECT_GT(highest, 0.8f);
    EXPECT_LE(highest, 1.0f);
}

// The sine shape's cosine, worked out without the C library, is the library's rounded to float
// bit for bit: for every 97th float phase in 0..1 as the LFO forms its argument (all of them
// were compared once, see bench/RESULTS.md), for arguments near the zeros and turning points
// of cos, where rounding is closest, and outside 0..7, where the library answers.
TEST(EffectLFO, SineShapeIsTheLibraryCosineRoundedToFloat) {
    const sr::FlushDenormals flush; // as on the render thread
    auto same = [](double x) {
        const float library = float(std::cos(x)), here = sr::cosRoundedToFloat(x);
        return std::memcmp(&library, &here, sizeof here) == 0;
    };
    int differing = 0;
    for (std::uint32_t bits = 0; bits <= 0x3f800000u; bits += 97) {
        float x;
        std::memcpy(&x, &bits, sizeof x);
        const float twoX = 2.0f * x;
        if (!same(twoX * 3.1415926536)) ++differing;
    }
    for (int k = 0; k <= 4; ++k)
        for (double x = k * 1.5707963267948966 - 1e-6; x < k * 1.5707963267948966 + 1e-6;
             x += 1.37e-11)
            if (x >= 0.0 && !same(x)) ++differing;
    EXPECT_EQ(differing, 0);
    for (double x : {-0.5, -7.5, 7.0000001, 100.0, 1e300, double(INFINITY), double(NAN)}) {
        const float library = float(std::cos(x)), here = sr::cosRoundedToFloat(x);
        EXPECT_EQ(std::memcmp(&library, &here, sizeof here), 0) << x;
    }
}

// Both channels at once, with fused multiply-adds in four AVX2 lanes where the processor has
// them, or in SSE2 pairs: the library's floats, for every 97th argument the LFO forms, next to
// the quadrant boundaries, and in a pair with one argument out of range.
TEST(EffectLFO, PairedSinesAreTheLibraryCosinesRoundedToFloat) {
    const sr::FlushDenormals flush;
    std::vector<double> args;
    for (std::uint32_t bits = 0; bits <= 0x3f800000u; bits += 97) {
        float x;
        std::memcpy(&x, &bits, sizeof x);
        const float twoX = 2.0f * x;
        args.push_back(twoX * 3.1415926536);
    }
    for (int k = 0; k <= 4; ++k)
        for (double x = k * 1.5707963267948966 - 1e-9; x < k * 1.5707963267948966 + 1e-9;
             x += 1.37e-12)
            if (x >= 0.0) args.push_back(x);
    args.insert(args.end(), {7.0, 7.0000001, -0.25, double(NAN)});
    for (bool wide : {true, false}) {
        sr::simd::allowWideVectors(wide);
        int differing = 0;
        for (std::size_t i = 0; i + 1 < args.size(); ++i) {
            const double a = args[i], b = args[args.size() - 1 - i];
            float pair[2];
            sr::cosRoundedToFloat2(a, b, pair);
            const float library[2] = {float(std::cos(a)), float(std::cos(b))};
            if (std::memcmp(pair, library, sizeof pair) != 0) ++differing;
        }
        EXPECT_EQ(differing, 0) << "wide " << wide;
    }
    sr::simd::allowWideVectors(true);
}

// ---------------------------------------------------------------- chorus

constexpr unsigned char kChorusPresets[10][12] = {
    {64, 64, 50, 0, 0, 90, 40, 85, 64, 119, 0, 0},   {64, 64, 45, 0, 0, 98, 56, 90, 64, 19, 0, 0},
    {64, 64, 29, 0, 1, 42, 97, 95, 90, 127, 0, 0},   {64, 64, 26, 0, 0, 42, 115, 18, 90, 127, 0, 0},
    {64, 64, 29, 117, 0, 50, 115, 9, 31, 127, 0, 1}, {64, 64, 57, 0, 0, 60, 23, 3, 62, 0, 0, 0},
    {64, 64, 33, 34, 1, 40, 35, 3, 109, 0, 0, 0},    {64, 64, 53, 34, 1, 94, 35, 3, 54, 0, 0, 1},
    {64, 64, 40, 0, 1, 62, 12, 19, 97, 0, 0, 0},     {64, 64, 55, 105, 0, 24, 39, 19, 17, 0, 0, 1},
};

struct ChorusFixture : ::testing::Test {
    static constexpr int N = 512;
    EffectGlobals g;
    std::vector<float> outL = std::vector<float>(4096), outR = std::vector<float>(4096);
    Chorus chorus{g, 1, outL.data(), outR.data()};
    ChorusFixture() { g.SOUND_BUFFER_SIZE = N; }
};

TEST_F(ChorusFixture, FactoryPresetsAndParameterLaws) {
    for (int n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 255}) { // past the table: the last row
        chorus.setPreset((unsigned char)n);
        EXPECT_EQ(chorus.preset, std::min(n, 9));
        for (int i = 0; i < 12; ++i)
            EXPECT_EQ(chorus.getParameter_Char(i), kChorusPresets[std::min(n, 9)][i]) << n << i;
    }
    struct Law {
        int index;
        unsigned char value;
        float Chorus::*field;
        float expected;
    };
    const Law laws[] = {{6, 0, &Chorus::depth, 0.0f},         {6, 127, &Chorus::depth, 0.063f},
                        {7, 0, &Chorus::delay, 0.0f},         {7, 127, &Chorus::delay, 0.099f},
                        {8, 0, &Chorus::feedback, -0.9984f},  {8, 64, &Chorus::feedback, 0.0f},
                        {8, 127, &Chorus::feedback, 0.9828f}, {0, 127, &Chorus::volume, 1.0f}};
    for (auto [index, value, field, expected] : laws) {
        chorus.setParameterChar(index, value);
        EXPECT_NEAR(chorus.*field, expected, 1e-4f) << index << " = " << int(value);
    }
    chorus.setParameterChar(10, 5); // flags are stored as 0/1
    chorus.setParameterChar(11, 200);
    chorus.setParameterChar(12, 99); // beyond the table: ignored
    EXPECT_EQ(chorus.getParameter_Char(10), 1);
    EXPECT_EQ(chorus.getParameter_Char(11), 1);
    EXPECT_EQ(chorus.getParameter_Char(12), 0);
    EXPECT_EQ(chorus.maxDelay, 24000); // half a second at 48 kHz
}

// At delay 0 (flange mode, or no delay and no depth) each line reads the sample written one step
// earlier, so the wet output is the recursion y[i] = (1-c) x[i-1] + c x'[i-1] + fb y[i-1],
// panned and possibly inverted.
TEST_F(ChorusFixture, ZeroDelayIsAOneSampleRecursionWithFeedbackCrossAndPanning) {
    struct Row {
        int flange, panning, feedback, cross, subtract;
    };
    const auto in = noise(size_t(N) * 4, 11);
    for (auto [flange, panning, feedback, cross, subtract] :
         {Row{1, 0, 64, 0, 0}, {0, 0, 64, 0, 0}, {1, 127, 0, 0, 0}, {1, 40, 127, 90, 1}}) {
        Chorus c(g, 1, outL.data(), outR.data());
        const int settings[][2] = {{1, panning},   {8, feedback}, {9, cross}, {10, flange},
                                   {11, subtract}, {6, 0},        {7, 0},     {2, 127}};
        for (auto [i, v] : settings) c.setParameterChar(i, (unsigned char)v);
        c.cleanup(); // start at the new delay instead of gliding from the preset's
        const float sign = subtract ? -1.0f : 1.0f, pan = float(panning) / 127;
        const float x = float(cross) / 127, fb = float(feedback - 64) / 64.1f;
        float yL = 0, yR = 0;
        auto copy = in;
        for (int b = 0; b < 4; ++b) {
            c.process(&copy.left[size_t(b * N)], &copy.right[size_t(b * N)]);
            for (int i = 0; i < N; ++i) {
                const auto k = size_t(b * N + i);
                ASSERT_NEAR(outL[size_t(i)], sign * (1 - pan) * yL, 1e-4f) << flange << k;
                ASSERT_NEAR(outR[size_t(i)], sign * pan * yR, 1e-4f) << flange << k;
                const float nextL = in.left[k] * (1 - x) + in.right[k] * x + yL * fb;
                yR = in.right[k] * (1 - x) + in.left[k] * x + yR * fb;
                yL = nextL;
            }
        }
        EXPECT_EQ(copy.left, in.left); // the inputs are left untouched
        EXPECT_EQ(copy.right, in.right);
    }
}

// ---------------------------------------------------------------- effect manager

struct ManagerFixture : ::testing::Test {
    static constexpr int N = 256;
    EffectGlobals g;
    std::vector<float> zeros = std::vector<float>(4096, 0.0f);
    ManagerFixture() { g.denormalkillbuf = zeros.data(); }
};

TEST_F(ManagerFixture, InsertionSystemAndDryOnlyLaws) {
    enum Mode { Insertion, System, DryOnly };
    for (Mode mode : {Insertion, System, DryOnly}) {
        for (float v : {0.0f, 0.5f, 1.0f, 0.25f, 0.75f}) {
            EffectManager fx(g, 0, mode != System);
            fx.changeEffect(3);
            g.SOUND_BUFFER_SIZE = N;
            for (auto [i, value] : {std::pair{10, 1}, {1, 0}, {8, 64}, {9, 0}})
                fx.setParameterChar(i, (unsigned char)value); // one-sample delay, all left
            fx.cleanup();
            fx.getEffectObject()->volume = v;
            fx.setDryOnly(mode == DryOnly);
            const auto in = noise(N, 9);
            auto io = in;
            fx.process(io.left.data(), io.right.data());
            const float dry = v < 0.5f ? 1.0f : 2.0f * (1.0f - v);
            const float wet = v < 0.5f ? 2.0f * v : 1.0f;
            for (std::size_t i = 1; i < N; ++i) {
                const float w = in.left[i - 1];
                const float expected = mode == Insertion ? in.left[i] * dry + w * wet
                                       : mode == System  ? w * 2.0f * v
                                                         : in.left[i] * dry;
                ASSERT_NEAR(io.left[i], expected, 1e-6f) << mode << " v=" << v;
                ASSERT_NEAR(io.right[i], mode == System ? 0.0f : in.right[i] * dry, 1e-6f);
                if (mode == DryOnly) {
                    ASSERT_NEAR(fx.getOutLeft()[i], w * wet, 1e-6f); // the wet part, kept apart
                }
            }
        }
    }
}

TEST_F(ManagerFixture, TypesNamesAndSameTypeOnlyClearingHistory) {
    EffectManager fx(g, 0, 1);
    EXPECT_EQ(fx.getVolume(), 1.0f); // no effect yet
    g.SOUND_BUFFER_SIZE = N;
    const auto in = noise(N, 2);
    for (int type : {0, 9, -1}) { // no effect: insertion passes the input, system silences it
        EffectManager ins(g, 0, 1), sys(g, -2, 0);
        ins.changeEffect(type);
        sys.changeEffect(type);
        EXPECT_EQ(ins.getEffectObject(), nullptr);
        auto a = in, b = in;
        ins.process(a.left.data(), a.right.data());
        sys.process(b.left.data(), b.right.data());
        EXPECT_EQ(a.left, in.left);
        EXPECT_EQ(b.left, std::vector<float>(N, 0.0f));
        EXPECT_EQ(b.right, std::vector<float>(N, 0.0f));
        EXPECT_STREQ(sys.getPath().c_str(), "MASTER/SYSTEM_EFFECTS/");
    }
    EXPECT_STREQ(fx.getName().c_str(), "INSTRUMENT_EFFECTS");
    EXPECT_STREQ(fx.getPath().c_str(), "MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");
    for (int type = 1; type <= 8; ++type) {
        fx.changeEffect(type);
        ASSERT_NE(fx.getEffectObject(), nullptr) << type;
        fx.setParameterChar(0, 100);
        EXPECT_EQ(fx.getParameter_Char(0), 100) << type;
        auto io = in;
        fx.process(io.left.data(), io.right.data());
        EXPECT_TRUE(sr::test::allFinite(io.left)) << type;
        EXPECT_EQ(fx.getFrequencyResponse(1000.0f), 0.0f);
    }
    fx.changeEffect(3);
    Effect* before = fx.getEffectObject();
    fx.setParameterChar(7, 99);
    auto io = in;
    fx.process(io.left.data(), io.right.data());
    fx.changeEffect(3); // the same type: kept, with its settings, only its lines cleared
    EXPECT_EQ(fx.getEffectObject(), before);
    EXPECT_EQ(fx.getParameter_Char(7), 99);
    for (float v : static_cast<Chorus*>(before)->lineLeftSamples()) ASSERT_EQ(v, 0.0f);
}

} // namespace
