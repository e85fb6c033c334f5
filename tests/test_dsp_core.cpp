// The DSP building blocks on their own: band split, LFO, chorus and the effect manager's laws.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "RenderHarness.h"
#include "effects/Chorus.h"
#include "effects/EffectLFO.h"
#include "effects/EffectManager.h"
#include "kernel/BandSplitFilter3.h"

namespace {

using sr::test::noise;

// ---------------------------------------------------------------- band split

TEST(BandSplit, BandsSumBackToTheInputAtEveryCutoff) {
    const auto in = noise(4096, 7);
    for (float lp : {0.0f, 0.2f, 0.574f, 0.9f}) {
        for (float hp : {0.3f, 0.812f, 1.0f}) {
            BandSplitFilter3 split;
            split.setCutoff2(hp);
            split.setCutoff1(lp);
            std::vector<float> outL(4096), outR(4096);
            split.split(in.left.data(), in.right.data(), 4096);
            split.mix(outL.data(), outR.data(), 4096);
            for (int i = 0; i < 4096; ++i) {
                ASSERT_NEAR(outL[i], in.left[i], 2e-7f) << lp << " " << hp << " @" << i;
                ASSERT_NEAR(outR[i], in.right[i], 2e-7f) << lp << " " << hp << " @" << i;
            }
        }
    }
}

TEST(BandSplit, TonesLandInTheirBands) {
    // Default split points of the plug-in: sqrt(0.33) and sqrt(0.66).
    auto bandEnergies = [](double hz) {
        BandSplitFilter3 split;
        split.setCutoff2(std::sqrt(0.66f));
        split.setCutoff1(std::sqrt(0.33f));
        std::vector<float> x(4096);
        for (int i = 0; i < 4096; ++i) x[size_t(i)] = float(std::sin(2 * M_PI * hz * i / 48000));
        split.split(x.data(), x.data(), 4096);
        std::vector<float> low(4096), outR(4096);
        split.mix(low.data(), outR.data(), 4096); // the sum, to get the low band by difference
        double mid = 0, sum = 0;
        for (int i = 2048; i < 4096; ++i) { // after the filters settle
            mid += double(split.getBPLeft()[i]) * split.getBPLeft()[i];
            sum += double(x[size_t(i)]) * x[size_t(i)];
        }
        return mid / sum;
    };
    EXPECT_GT(bandEnergies(700.0), 0.5);    // inside the range: mostly in the middle band
    EXPECT_LT(bandEnergies(40.0), 0.05);    // bass stays out of it
    EXPECT_LT(bandEnergies(12000.0), 0.05); // so does the air
}

TEST(BandSplit, NeverTouchesMoreThan4096Frames) {
    BandSplitFilter3 split;
    const auto in = noise(5000, 3);
    std::vector<float> outL(5000, 9.0f), outR(5000, 9.0f);
    split.split(in.left.data(), in.right.data(), 5000);
    split.mix(outL.data(), outR.data(), 5000);
    for (int i = 4096; i < 5000; ++i) {
        ASSERT_EQ(outL[size_t(i)], 9.0f);
        ASSERT_EQ(outR[size_t(i)], 9.0f);
    }
    EXPECT_NE(outL[4095], 9.0f);
}

TEST(BandSplit, CutoffSettersKeepTheOrderAndIgnoreOutOfRange) {
    BandSplitFilter3 split; // 0.333 / 0.666
    split.setCutoff2(0.66f);
    split.setCutoff1(0.9f);
    EXPECT_EQ(split.getCutoff1(), 0.66f);
    split.setCutoff1(0.33f);
    split.setCutoff2(0.2f);
    EXPECT_EQ(split.getCutoff2(), 0.33f);
    split.setCutoff2(0.66f);
    split.setCutoff1(-0.1f);
    split.setCutoff2(1.5f);
    EXPECT_EQ(split.getCutoff1(), 0.33f);
    EXPECT_EQ(split.getCutoff2(), 0.66f);
}

TEST(BandSplit, FrequencyMappingEndsAndResetCutoff) {
    SVFilter4Pole1 f;
    f.setCutoff(0.0f);
    EXPECT_EQ(f.getF(), 0.0012f);
    f.setCutoff(1.0f);
    EXPECT_EQ(f.getF(), 1.0f);
    f.setCutoff(3.0f);
    EXPECT_EQ(f.getF(), 1.0f);
    // 0.5 -> 0.5 * 2^(5 - 10); with no resonance the gain is 0.7 + 0.95 and q = 1/(25(2-f)0.05).
    f.setCutoff(0.5f);
    EXPECT_FLOAT_EQ(f.getF(), 0.015625f);
    EXPECT_FLOAT_EQ(f.getGain(), 1.65f);
    EXPECT_FLOAT_EQ(f.getQ(), 1.0f / (1.25f * (2.0f - 0.015625f)));

    BandSplitFilter3 split;
    split.setCutoff1(0.2f);
    split.setCutoff2(0.9f);
    split.reset();
    EXPECT_EQ(split.getCutoff1(), 0.2f); // still held...
    EXPECT_EQ(split.getCutoff2(), 0.9f);
    for (int c = 0; c < 2; ++c) { // ...but every filter runs at 0.5 until the next change
        EXPECT_EQ(split.lowPass(c).getCutoff(), 0.5f);
        EXPECT_EQ(split.highPass(c).getCutoff(), 0.5f);
        EXPECT_FLOAT_EQ(split.highPass(c).getF(), 0.015625f);
    }
}

// ---------------------------------------------------------------- LFO

TEST(EffectLFO, RateOfTheFrequencyParameter) {
    EffectGlobals g;
    EffectLFO lfo(g);
    const std::pair<unsigned char, float> rates[] = {
        {0, 0.0f}, {40, 0.2362f}, {64, 0.9566f}, {127, 30.69f}};
    for (auto [param, hz] : rates) {
        lfo.freqParam = param;
        lfo.UpdateParameters();
        EXPECT_NEAR(lfo.getFrequency(), hz, 0.00051f) << int(param);
    }
}

TEST(EffectLFO, StepFollowsTheBlockAndIsCappedAtHalfACycle) {
    EffectGlobals g;
    EffectLFO lfo(g);
    float l, r;
    lfo.freqParam = 64;
    lfo.UpdateParameters();
    g.SOUND_BUFFER_SIZE = 64;
    lfo.process(&l, &r);
    EXPECT_DOUBLE_EQ(lfo.phaseStep, double(lfo.getFrequency()) * 64 / 48000);
    g.SOUND_BUFFER_SIZE = 4096;
    lfo.process(&l, &r);
    EXPECT_DOUBLE_EQ(lfo.phaseStep, double(lfo.getFrequency()) * 4096 / 48000);

    lfo.freqParam = 127; // 30.69 Hz over 4096 frames is 2.6 cycles: capped
    lfo.UpdateParameters();
    EXPECT_EQ(lfo.phaseStep, 0.5);

    lfo.freqParam = 0; // frozen
    lfo.UpdateParameters();
    float l1, r1, l2, r2;
    lfo.process(&l1, &r1);
    lfo.process(&l2, &r2);
    EXPECT_EQ(lfo.phaseStep, 0.0);
    EXPECT_EQ(l1, l2);
    EXPECT_EQ(r1, r2);
}

TEST(EffectLFO, WaveformsAndTheirCornerValues) {
    EffectGlobals g;
    EffectLFO lfo(g);
    EXPECT_FLOAT_EQ(lfo.getLFOShape(0.0f), 1.0f); // the "sine" is a cosine
    EXPECT_FLOAT_EQ(lfo.getLFOShape(0.5f), -1.0f);
    EXPECT_NEAR(lfo.getLFOShape(0.25f), 0.0f, 1e-6f);

    lfo.shapeParam = 1;
    lfo.UpdateParameters();
    EXPECT_EQ(lfo.getLFOShape(0.0f), -4.0f); // corners fall into the last branch
    EXPECT_EQ(lfo.getLFOShape(0.25f), -3.0f);
    EXPECT_EQ(lfo.getLFOShape(0.75f), -1.0f);
    EXPECT_FLOAT_EQ(lfo.getLFOShape(0.125f), 0.5f);
    EXPECT_FLOAT_EQ(lfo.getLFOShape(0.5f), 0.0f);
    EXPECT_FLOAT_EQ(lfo.getLFOShape(0.9f), -0.4f);

    lfo.shapeParam = 7; // unknown shapes become the triangle
    lfo.UpdateParameters();
    EXPECT_EQ(lfo.shapeParam, 1);
    EXPECT_EQ(lfo.shape, 1);
}

TEST(EffectLFO, PhaseReachingExactlyOneIsNotWrapped) {
    EffectGlobals g;
    EffectLFO lfo(g);
    lfo.freqParam = 127; // capped step: exactly half a cycle per block
    lfo.shapeParam = 1;
    lfo.UpdateParameters();
    float l, r;
    lfo.process(&l, &r);
    EXPECT_EQ(lfo.phaseLeft, 0.5);
    lfo.process(&l, &r);
    EXPECT_EQ(lfo.phaseLeft, 1.0);
    EXPECT_FLOAT_EQ(l, 0.5f); // triangle at 1.0: 4 - 4 = 0 -> (0 + 1) / 2
    lfo.process(&l, &r);
    EXPECT_EQ(lfo.phaseLeft, 0.5);
}

TEST(EffectLFO, StereoOffsetAndRandomAmplitudes) {
    EffectGlobals g;
    EffectLFO lfo(g);
    EXPECT_DOUBLE_EQ(lfo.phaseRight, 32.0 / 127.0); // default 96: right leads
    lfo.stereoParam = 64;
    lfo.UpdateParameters();
    EXPECT_EQ(lfo.phaseRight, lfo.phaseLeft);
    EXPECT_EQ(lfo.ampLeftStart, 1.0f); // no randomness at construction
    EXPECT_EQ(lfo.ampRightEnd, 1.0f);

    lfo.randomnessParam = 127;
    lfo.freqParam = 127;
    lfo.UpdateParameters();
    float minOut = 1, maxOut = 0, l, r;
    for (int i = 0; i < 400; ++i) {
        lfo.process(&l, &r);
        ASSERT_GE(lfo.ampLeftEnd, 0.0f);
        ASSERT_LE(lfo.ampLeftEnd, 1.0f);
        minOut = std::min(minOut, l);
        maxOut = std::max(maxOut, l);
    }
    EXPECT_LT(maxOut - minOut, 1.0f + 1e-6f);
    EXPECT_GT(maxOut - minOut, 0.0f);
}

// ---------------------------------------------------------------- chorus

struct ChorusFixture : ::testing::Test {
    static constexpr int N = 512;
    EffectGlobals g;
    std::vector<float> outL = std::vector<float>(4096), outR = std::vector<float>(4096);
    Chorus chorus{g, 1, outL.data(), outR.data()};
    ChorusFixture() { g.SOUND_BUFFER_SIZE = N; }
};

TEST_F(ChorusFixture, FactoryPresetRows) {
    const unsigned char rows[10][12] = {
        {64, 64, 50, 0, 0, 90, 40, 85, 64, 119, 0, 0},
        {64, 64, 45, 0, 0, 98, 56, 90, 64, 19, 0, 0},
        {64, 64, 29, 0, 1, 42, 97, 95, 90, 127, 0, 0},
        {64, 64, 26, 0, 0, 42, 115, 18, 90, 127, 0, 0},
        {64, 64, 29, 117, 0, 50, 115, 9, 31, 127, 0, 1},
        {64, 64, 57, 0, 0, 60, 23, 3, 62, 0, 0, 0},
        {64, 64, 33, 34, 1, 40, 35, 3, 109, 0, 0, 0},
        {64, 64, 53, 34, 1, 94, 35, 3, 54, 0, 0, 1},
        {64, 64, 40, 0, 1, 62, 12, 19, 97, 0, 0, 0},
        {64, 64, 55, 105, 0, 24, 39, 19, 17, 0, 0, 1},
    };
    for (int n = 0; n < 10; ++n) {
        chorus.setPreset((unsigned char)n);
        EXPECT_EQ(chorus.preset, n);
        for (int i = 0; i < 12; ++i)
            EXPECT_EQ(chorus.getParameter_Char(i), rows[n][i]) << "preset " << n << " index " << i;
    }
    for (int n : {10, 200, 255}) {
        chorus.setPreset((unsigned char)n);
        EXPECT_EQ(chorus.preset, 9);
        EXPECT_EQ(chorus.getParameter_Char(8), 17);
    }
}

TEST_F(ChorusFixture, ParameterLawsAtTheirEnds) {
    chorus.setParameterChar(6, 0);
    EXPECT_EQ(chorus.depth, 0.0f);
    chorus.setParameterChar(6, 127);
    EXPECT_FLOAT_EQ(chorus.depth, 0.063f);
    chorus.setParameterChar(7, 0);
    EXPECT_EQ(chorus.delay, 0.0f);
    chorus.setParameterChar(7, 127);
    EXPECT_FLOAT_EQ(chorus.delay, 0.099f);
    chorus.setParameterChar(8, 0);
    EXPECT_NEAR(chorus.feedback, -0.9984f, 1e-4f);
    chorus.setParameterChar(8, 64);
    EXPECT_EQ(chorus.feedback, 0.0f);
    chorus.setParameterChar(8, 127);
    EXPECT_NEAR(chorus.feedback, 0.9828f, 1e-4f);
    chorus.setParameterChar(0, 127);
    EXPECT_EQ(chorus.volume, 1.0f);
    chorus.setParameterChar(10, 5); // flags are stored as 0/1
    EXPECT_EQ(chorus.getParameter_Char(10), 1);
    chorus.setParameterChar(11, 200);
    EXPECT_EQ(chorus.getParameter_Char(11), 1);
    chorus.setParameterChar(12, 99); // beyond the table: ignored
    EXPECT_EQ(chorus.getParameter_Char(12), 0);
    EXPECT_EQ(chorus.maxDelay, 24000); // half a second at 48 kHz
}

// The wet signal of a one-sample delay: panning 0 sends it all to the left.
void expectOneSampleDelay(Chorus& chorus, std::vector<float>& outL, int n) {
    const auto in = noise(size_t(n) * 4, 11);
    std::vector<float> prev(1, 0.0f);
    for (int b = 0; b < 4; ++b) {
        const float* l = &in.left[size_t(b * n)];
        const float* r = &in.right[size_t(b * n)];
        chorus.process(const_cast<float*>(l), const_cast<float*>(r));
        for (int i = 0; i < n; ++i) {
            const float expected = (b == 0 && i == 0) ? 0.0f : in.left[size_t(b * n + i - 1)];
            ASSERT_FLOAT_EQ(outL[size_t(i)], expected) << b << ":" << i;
        }
    }
}

TEST_F(ChorusFixture, FlangeModeAndZeroDelayAreOneSampleDelays) {
    chorus.setParameterChar(1, 0);  // all wet to the left
    chorus.setParameterChar(8, 64); // no feedback
    chorus.setParameterChar(9, 0);  // no cross-feed
    chorus.setParameterChar(10, 1); // flange: the LFO has no say
    chorus.setParameterChar(2, 127);
    chorus.cleanup();
    expectOneSampleDelay(chorus, outL, N);

    Chorus plain(g, 1, outL.data(), outR.data());
    for (auto [i, v] : {std::pair{1, 0}, {8, 64}, {9, 0}, {6, 0}, {7, 0}})
        plain.setParameterChar(i, (unsigned char)v);
    plain.process(outR.data(), outR.data()); // move the LFO on once; lines cleared below
    plain.cleanup();
    plain.writeLeft = 0;
    expectOneSampleDelay(plain, outL, N);
}

TEST_F(ChorusFixture, StrongestNegativeFeedbackStaysBoundedAndInputsUntouched) {
    chorus.setParameterChar(8, 0); // -0.9984
    chorus.setParameterChar(10, 1);
    auto in = noise(N, 5);
    const auto copy = in;
    float peak = 0;
    for (int b = 0; b < 48000 * 10 / N; ++b) {
        chorus.process(in.left.data(), in.right.data());
        for (int i = 0; i < N; ++i)
            peak = std::max({peak, std::fabs(outL[size_t(i)]), std::fabs(outR[size_t(i)])});
    }
    EXPECT_TRUE(std::isfinite(peak));
    EXPECT_LT(peak, 400.0f); // a loop gain below 1 keeps it bounded
    EXPECT_EQ(in.left, copy.left);
    EXPECT_EQ(in.right, copy.right);
}

// ---------------------------------------------------------------- effect manager

struct ManagerFixture : ::testing::Test {
    static constexpr int N = 256;
    EffectGlobals g;
    std::vector<float> zeros = std::vector<float>(4096, 0.0f);
    ManagerFixture() { g.denormalkillbuf = zeros.data(); }
};

TEST_F(ManagerFixture, InsertionAndSystemLaws) {
    for (int insertion : {1, 0}) {
        for (float v : {0.0f, 0.5f, 1.0f, 0.25f, 0.75f}) {
            EffectManager fx(g, 0, insertion);
            fx.changeEffect(3);
            g.SOUND_BUFFER_SIZE = N;
            fx.setParameterChar(10, 1); // one-sample delay, all to the left, no feedback
            fx.setParameterChar(1, 0);
            fx.setParameterChar(8, 64);
            fx.setParameterChar(9, 0);
            fx.cleanup(); // start at the new delay instead of gliding from the preset's
            fx.getEffectObject()->volume = v;
            auto in = noise(N, 9);
            auto io = in;
            fx.process(io.left.data(), io.right.data());
            const float dry = v < 0.5f ? 1.0f : 2.0f * (1.0f - v);
            const float wet = v < 0.5f ? 2.0f * v : 1.0f;
            for (int i = 1; i < N; ++i) {
                const float w = in.left[size_t(i - 1)];
                const float expected =
                    insertion ? in.left[size_t(i)] * dry + w * wet : w * 2.0f * v;
                ASSERT_NEAR(io.left[size_t(i)], expected, 1e-6f) << insertion << " v=" << v;
                if (insertion) {
                    ASSERT_NEAR(io.right[size_t(i)], in.right[size_t(i)] * dry, 1e-6f);
                }
            }
        }
    }
}

TEST_F(ManagerFixture, DryOnlyHandsBackBothPartsSeparately) {
    EffectManager fx(g, 0, 1);
    fx.changeEffect(3);
    g.SOUND_BUFFER_SIZE = N;
    fx.setParameterChar(10, 1);
    fx.setParameterChar(1, 0);
    fx.setParameterChar(8, 64);
    fx.setParameterChar(9, 0);
    fx.cleanup();
    fx.getEffectObject()->volume = 0.75f; // dry 0.5, wet 1
    fx.setDryOnly(true);
    auto in = noise(N, 4);
    auto io = in;
    fx.process(io.left.data(), io.right.data());
    for (int i = 1; i < N; ++i) {
        ASSERT_FLOAT_EQ(io.left[size_t(i)], in.left[size_t(i)] * 0.5f);
        ASSERT_FLOAT_EQ(fx.getOutLeft()[i], in.left[size_t(i - 1)]);
    }
}

TEST_F(ManagerFixture, NoEffectAndUnknownTypes) {
    EffectManager insertionFx(g, 0, 1);
    EXPECT_EQ(insertionFx.getEffect(), 0);
    EXPECT_EQ(insertionFx.getParameter_Char(0), 0);
    EXPECT_EQ(insertionFx.getPreset(), 0);
    EXPECT_EQ(insertionFx.getVolume(), 1.0f);
    insertionFx.setParameter(1, 0.7f);
    EXPECT_EQ(insertionFx.getParameter(1), 0.0f);

    for (int type : {9, -1}) {
        EffectManager ins(g, 0, 1), sys(g, -2, 0);
        ins.changeEffect(type);
        sys.changeEffect(type);
        EXPECT_EQ(ins.getEffect(), type);
        EXPECT_EQ(ins.getEffectObject(), nullptr);
        g.SOUND_BUFFER_SIZE = N;
        auto in = noise(N, 2);
        auto a = in, b = in;
        ins.process(a.left.data(), a.right.data());
        sys.process(b.left.data(), b.right.data());
        EXPECT_EQ(a.left, in.left);                     // insertion: untouched
        EXPECT_EQ(b.left, std::vector<float>(N, 0.0f)); // system: silenced
        EXPECT_EQ(b.right, std::vector<float>(N, 0.0f));
    }
}

TEST_F(ManagerFixture, SameTypeOnlyClearsHistoryAndNamesFollowThePart) {
    EffectManager fx(g, 0, 1);
    EXPECT_STREQ(fx.getName().c_str(), "INSTRUMENT_EFFECTS");
    EXPECT_STREQ(fx.getPath().c_str(), "MASTER/PART0/INSTRUMENT/INSTRUMENT_EFFECTS/");
    EffectManager sys(g, -2, 0);
    EXPECT_STREQ(sys.getPath().c_str(), "MASTER/SYSTEM_EFFECTS/");

    fx.changeEffect(3);
    Effect* before = fx.getEffectObject();
    fx.setParameterChar(7, 99);
    g.SOUND_BUFFER_SIZE = N;
    auto in = noise(N, 1);
    fx.process(in.left.data(), in.right.data());
    fx.changeEffect(3);
    EXPECT_EQ(fx.getEffectObject(), before);
    EXPECT_EQ(fx.getParameter_Char(7), 99);
    for (float s : static_cast<Chorus*>(before)->lineLeftSamples()) ASSERT_EQ(s, 0.0f);
}

TEST_F(ManagerFixture, EveryTypeConstructsAnEffectWithTheInterface) {
    EffectManager fx(g, 0, 1);
    for (int type = 1; type <= 8; ++type) {
        fx.changeEffect(type);
        ASSERT_NE(fx.getEffectObject(), nullptr) << type;
        fx.setParameterChar(0, 100);
        EXPECT_EQ(fx.getParameter_Char(0), 100) << type;
        g.SOUND_BUFFER_SIZE = N;
        auto in = noise(N, unsigned(type));
        fx.process(in.left.data(), in.right.data());
        for (float v : in.left) ASSERT_TRUE(std::isfinite(v)) << type;
        EXPECT_EQ(fx.getFrequencyResponse(1000.0f), 0.0f);
    }
}

} // namespace
