// The output limiter: the 0 dBFS ceiling, the untouched path below it, attack and decay timing,
// and the edges (non-finite input, linked channels, bad settings, block sizes).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "TestSignals.h"
#include "platform/PeakLimiter.h"
#include "util/Simd.h"

namespace {

using sr::PeakLimiter;
using sr::test::Stereo;

float preGainFactor(double decibels) {
    return float(std::pow(10.0, decibels / 20.0));
}

Stereo sine(std::size_t n, double hz, double rate, float amplitude) {
    Stereo s(n);
    for (std::size_t i = 0; i < n; ++i)
        s.left[i] = s.right[i] = float(amplitude * std::sin(2 * M_PI * hz * double(i) / rate));
    return s;
}

Stereo concat(Stereo a, const Stereo& b) {
    a.left.insert(a.left.end(), b.left.begin(), b.left.end());
    a.right.insert(a.right.end(), b.right.begin(), b.right.end());
    return a;
}

// Runs `in` through the limiter in blocks whose sizes cycle through `sizes`.
Stereo run(PeakLimiter& limiter, Stereo in, std::vector<std::size_t> sizes) {
    for (std::size_t at = 0, k = 0; at < in.size(); ++k) {
        const std::size_t n = std::min(sizes[k % sizes.size()], in.size() - at);
        float* const channels[] = {in.left.data() + at, in.right.data() + at};
        limiter.process(channels, 2, std::uint32_t(n));
        at += n;
    }
    return in;
}

// The same through the two-channel entry the plug-in uses.
Stereo runStereo(PeakLimiter& limiter, Stereo in, std::vector<std::size_t> sizes) {
    for (std::size_t at = 0, k = 0; at < in.size(); ++k) {
        const std::size_t n = std::min(sizes[k % sizes.size()], in.size() - at);
        limiter.processStereo(in.left.data() + at, in.right.data() + at, std::uint32_t(n));
        at += n;
    }
    return in;
}

// The largest input whose product with `g` still rounds to at most 1.0f: the very edge of the
// pass-through path. Its exact product may be slightly above 1.
float largestPassing(float g) {
    float edge = 1.0f / g;
    while (edge * g > 1.0f) edge = std::nextafter(edge, 0.0f);
    while (std::nextafter(edge, 2 * edge) * g <= 1.0f) edge = std::nextafter(edge, 2 * edge);
    return edge;
}

TEST(PeakLimiter, NothingLeavesAboveFullScaleWhateverTheInputRateOrBlock) {
    for (double rate : {8000.0, 48000.0, 384000.0}) {
        const auto n = std::size_t(rate * 0.15);
        auto spikes = sr::test::noise(n, 9, 0.01f);
        for (std::size_t i = 100; i < n; i += n / 7)
            spikes.left[i] = spikes.right[i + 1] = -FLT_MAX;
        const std::pair<Stereo, double> cases[] = {
            {sr::test::noise(n, 2, 100.0f), -0.01},     // +40 dB
            {sine(n, rate / 3.1, rate, 3.981f), -0.01}, // +12 dB, peaks land anywhere
            {spikes, 40.0},
        };
        for (const auto& [in, db] : cases) {
            for (std::size_t block : {1, 4096}) {
                PeakLimiter limiter;
                limiter.setSampleRate(rate);
                limiter.setPreGain(db);
                const auto out = run(limiter, in, {block});
                EXPECT_LE(std::max(sr::test::peak(out.left), sr::test::peak(out.right)), 1.0f)
                    << rate << " " << db << " " << block;
                EXPECT_TRUE(sr::test::allFinite(out.left) && sr::test::allFinite(out.right));
            }
        }
    }
}

TEST(PeakLimiter, BelowTheCeilingOnlyThePreGainIsAppliedBitExactly) {
    for (double db : {-0.01, 6.0, 40.0}) {
        const float g = preGainFactor(db);
        const float edge = largestPassing(g);
        auto in = sr::test::noise(20000, 4, edge);
        for (std::size_t i = 0; i < in.size(); i += 997) in.left[i] = in.right[i + 3] = -edge;
        PeakLimiter limiter;
        limiter.setPreGain(db);
        const auto out = run(limiter, in, {512});
        EXPECT_TRUE(sr::test::bitIdentical(out.left, sr::test::scaled(in.left, g)) &&
                    sr::test::bitIdentical(out.right, sr::test::scaled(in.right, g)))
            << db;
        EXPECT_EQ(limiter.currentGain(), 1.0f) << db;
        EXPECT_EQ(sr::test::peak(out.left), 1.0f) << db << ": the edge sample was not reached";
    }
}

TEST(PeakLimiter, AttackAndDecayFollowTheirTimeConstantsThenTheExactPathReturns) {
    const double rate = 44100.0, attack = 0.1, decay = 0.1;
    const float g = preGainFactor(-0.01);
    // +6 dB after the pre-gain, so half the gain is needed; then quiet material, then silence.
    const auto loud = sine(std::size_t(rate), 1000.0, rate, 2.0f / g);
    const auto in = concat(concat(loud, sr::test::noise(std::size_t(rate * 2), 6, 0.5f)),
                           sr::test::silence(std::size_t(rate / 2)));
    PeakLimiter limiter;
    limiter.setSampleRate(rate);
    const auto out = run(limiter, in, {100});

    // The smoothed gain, read where the input is big enough to measure and small enough that
    // the instantaneous cap is not involved: the last such frame up to `seconds`.
    auto gainAt = [&](double seconds) {
        for (auto i = std::size_t(seconds * rate) + 1; i-- > 0;) {
            const double y = double(in.left[i]) * g;
            if (std::fabs(y) >= 0.05 && std::fabs(y) <= 0.9) return out.left[i] / y;
        }
        return std::nan("");
    };
    const double settled = gainAt(1.0 - 1 / rate);
    EXPECT_NEAR(settled, 0.5, 0.01);
    EXPECT_GT(gainAt(0.01), 0.9);
    // One time constant leaves 1/e of the way; three come within a few % of the end.
    EXPECT_NEAR((gainAt(attack) - settled) / (1.0 - settled), std::exp(-1.0), 0.03);
    EXPECT_GT(gainAt(3 * attack) / settled - 1.0, 0.0);
    EXPECT_LT(gainAt(3 * attack) / settled - 1.0, 0.06);

    const double deficit0 = 1.0 - gainAt(1.0);
    ASSERT_GT(deficit0, 0.45);
    auto deficitAfter = [&](double seconds) { return 1.0 - gainAt(1.0 + seconds); };
    EXPECT_NEAR(deficitAfter(decay) / deficit0, std::exp(-1.0), 0.03);
    // Within 1 % of unity after ln(deficit / 1 %) decay times, not noticeably sooner.
    const double within1 = decay * std::log(deficit0 / 0.01);
    EXPECT_LE(deficitAfter(within1 * 1.05), 0.01);
    EXPECT_GT(deficitAfter(within1 * 0.95), 0.01);
    // Exactly the pre-gain path after 15 decay times, with no subnormal anywhere.
    for (auto i = loud.size() + std::size_t(15 * decay * rate); i < in.size(); ++i) {
        ASSERT_EQ(out.left[i], in.left[i] * g) << i;
        ASSERT_EQ(out.right[i], in.right[i] * g) << i;
    }
    for (const auto* side : {&out.left, &out.right})
        for (float s : *side) ASSERT_NE(std::fpclassify(s), FP_SUBNORMAL);
    EXPECT_EQ(limiter.currentGain(), 1.0f);
}

TEST(PeakLimiter, NonFiniteSamplesBecomeSilenceAndChannelsShareOneGain) {
    const float g = preGainFactor(-0.01);
    const float inf = HUGE_VALF, nan = NAN;
    // Right: quiet, +12 dB, quiet again; left: quiet throughout, so only the link limits it.
    auto in = concat(concat(sr::test::noise(12000, 10, 0.5f), sine(24000, 440.0, 48000.0, 3.981f)),
                     sr::test::noise(96000, 12, 0.5f));
    in.left = sine(in.size(), 1234.0, 48000.0, 0.1f).left;
    auto bad = in, zeroed = in;
    for (std::size_t i = 333; i + 2 < in.size(); i += 4321) {
        const float value = (i / 4321) % 3 == 0 ? nan : (i / 4321) % 3 == 1 ? inf : -inf;
        bad.left[i] = bad.right[i + 1] = bad.left[i + 2] = bad.right[i + 2] = value;
        zeroed.left[i] = zeroed.right[i + 1] = zeroed.left[i + 2] = zeroed.right[i + 2] = 0.0f;
    }
    PeakLimiter a, b;
    const auto out = run(a, bad, {64});
    const auto outZeroed = run(b, zeroed, {64});
    EXPECT_TRUE(sr::test::bitIdentical(out.left, outZeroed.left) &&
                sr::test::bitIdentical(out.right, outZeroed.right));
    EXPECT_EQ(a.currentGain(), 1.0f);

    double lowest = 1.0;
    for (std::size_t i = 0; i < in.size(); ++i) {
        const double yLeft = double(zeroed.left[i]) * g, yRight = double(zeroed.right[i]) * g;
        if (std::fabs(yLeft) < 0.01 || std::fabs(yRight) < 0.01) continue;
        ASSERT_NEAR(out.left[i] / yLeft, out.right[i] / yRight, 1e-5) << i;
        lowest = std::min(lowest, out.left[i] / yLeft);
    }
    EXPECT_LT(lowest, 0.3);

    // A ninth channel and a null pointer take no part; the first eight are otherwise linked.
    std::vector<std::vector<float>> many(9, in.left);
    many[8] = in.right;
    float* pointers[9];
    for (std::size_t c = 0; c < 9; ++c) pointers[c] = many[c].data();
    pointers[3] = nullptr;
    a.process(pointers, 9, std::uint32_t(in.size()));
    EXPECT_TRUE(sr::test::bitIdentical(many[0], sr::test::scaled(in.left, g)));
    EXPECT_TRUE(sr::test::bitIdentical(many[8], in.right));
    a.process(nullptr, 2, 64);
}

TEST(PeakLimiter, SettingsRefuseBadValuesAndTakeEffectAtTheNextBlock) {
    PeakLimiter limiter;
    const double nan = std::nan(""), inf = HUGE_VAL;
    for (double bad : {0.0, -0.1, 0.999, 10'000'001.0, nan, inf, -inf}) limiter.setSampleRate(bad);
    EXPECT_EQ(limiter.sampleRate(), 48000.0);
    for (double ok : {1.0, 10'000'000.0}) {
        limiter.setSampleRate(ok);
        EXPECT_EQ(limiter.sampleRate(), ok);
    }
    for (double bad : {0.0, -0.1, nan, inf, -inf}) {
        limiter.setAttackTime(bad);
        limiter.setDecayTime(bad);
    }
    for (double bad : {nan, inf, -inf}) limiter.setPreGain(bad);
    EXPECT_EQ(limiter.attackTime(), 0.1);
    EXPECT_EQ(limiter.decayTime(), 0.1);
    EXPECT_EQ(limiter.preGain(), -0.01);
    limiter.setPreGain(100.0);
    EXPECT_EQ(limiter.preGain(), 40.0);
    limiter.setPreGain(-1000.0);
    EXPECT_EQ(limiter.preGain(), -40.0);

    const auto in = sr::test::noise(256, 13, 0.9f);
    limiter.setPreGain(-6.0);
    EXPECT_EQ(run(limiter, in, {256}).left[17], in.left[17] * preGainFactor(-6.0));
    limiter.setPreGain(0.0);
    EXPECT_EQ(run(limiter, in, {256}).left[17], in.left[17]);
}

TEST(PeakLimiter, BlockSizeAndResetDoNotChangeTheOutput) {
    const float g = preGainFactor(6.0);
    auto in = concat(concat(sr::test::noise(30000, 15, 0.35f), sr::test::noise(9000, 16, 3.0f)),
                     sr::test::noise(60000, 17, 0.35f));
    in.left[31000] = NAN;
    // Edge samples (exact product just above 1, rounded product exactly 1) right before the
    // burst: processed whole, they share a stretch with the burst; frame by frame they do not.
    const float edge = largestPassing(g);
    ASSERT_GT(double(edge) * g, 1.0);
    for (std::size_t i = 29990; i < 30000; ++i) in.left[i] = in.right[i] = edge;
    PeakLimiter whole, single, used;
    for (auto* l : {&whole, &single, &used}) l->setPreGain(6.0);
    const auto reference = run(whole, in, {4096});
    const auto bySample = run(single, in, {1});
    EXPECT_TRUE(sr::test::bitIdentical(reference.left, bySample.left) &&
                sr::test::bitIdentical(reference.right, bySample.right));
    EXPECT_EQ(reference.left[29995], 1.0f);

    // Irregular blocks, after a reset in the middle of heavy limiting.
    run(used, sr::test::noise(5000, 18, 50.0f), {64});
    EXPECT_LT(used.currentGain(), 0.1f);
    used.reset();
    EXPECT_EQ(used.currentGain(), 1.0f);
    const auto out = run(used, in, {1, 7, 64, 333, 31, 4096, 2});
    EXPECT_TRUE(sr::test::bitIdentical(reference.left, out.left) &&
                sr::test::bitIdentical(reference.right, out.right));

    // The two-channel entry, in blocks that start idle groups, peaks and recoveries at every
    // offset within a group (an empty call changes nothing), with its eight-lane pass-through
    // where the processor has one and with the four-lane one.
    for (bool wide : {true, false}) {
        sr::simd::allowWideVectors(wide);
        PeakLimiter stereo;
        stereo.setPreGain(6.0);
        const auto viaStereo = runStereo(stereo, in, {16, 8, 3, 0, 64, 13, 512, 1, 4096});
        EXPECT_TRUE(sr::test::bitIdentical(reference.left, viaStereo.left) &&
                    sr::test::bitIdentical(reference.right, viaStereo.right))
            << "wide " << wide;
        EXPECT_EQ(stereo.currentGain(), whole.currentGain());
    }
    sr::simd::allowWideVectors(true);
}

} // namespace
