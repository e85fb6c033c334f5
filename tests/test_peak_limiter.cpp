// The output limiter: the 0 dBFS ceiling under any input, rate and block size, the untouched
// path below it, attack and decay timing, and the edges (non-finite input, subnormals, bad
// settings, linked channels).
#include <gtest/gtest.h>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "TestSignals.h"
#include "platform/PeakLimiter.h"

namespace {

using sr::PeakLimiter;
using sr::test::Stereo;

float preGainFactor(double decibels) {
    return float(std::pow(10.0, decibels / 20.0));
}

// The same sine on both sides.
Stereo sine(std::size_t n, double hz, double rate, float amplitude) {
    Stereo s(n);
    for (std::size_t i = 0; i < n; ++i) {
        s.left[i] = float(amplitude * std::sin(2 * M_PI * hz * double(i) / rate));
        s.right[i] = s.left[i];
    }
    return s;
}

// Runs `in` through the limiter in blocks of `block` frames and returns the output.
Stereo run(PeakLimiter& limiter, Stereo in, std::size_t block) {
    for (std::size_t at = 0; at < in.size(); at += block) {
        float* const channels[] = {in.left.data() + at, in.right.data() + at};
        limiter.process(channels, 2, std::uint32_t(std::min(block, in.size() - at)));
    }
    return in;
}

Stereo concat(const Stereo& a, const Stereo& b) {
    Stereo s = a;
    s.left.insert(s.left.end(), b.left.begin(), b.left.end());
    s.right.insert(s.right.end(), b.right.begin(), b.right.end());
    return s;
}

// The smoothed gain at each frame, read back from the left channel where the input is big
// enough to measure and small enough that the instantaneous cap cannot be involved; NaN
// elsewhere.
std::vector<double> smoothedGains(const Stereo& in, const Stereo& out, float g) {
    std::vector<double> gains(in.size(), std::nan(""));
    for (std::size_t i = 0; i < in.size(); ++i) {
        const double y = double(in.left[i]) * g;
        if (std::fabs(y) >= 0.05 && std::fabs(y) <= 0.9) gains[i] = out.left[i] / y;
    }
    return gains;
}

// The last measurable gain at or before `frame`.
double gainAt(const std::vector<double>& gains, std::size_t frame) {
    for (std::size_t i = std::min(frame + 1, gains.size()); i-- > 0;)
        if (!std::isnan(gains[i])) return gains[i];
    return std::nan("");
}

// The largest input whose product with `g` still rounds to at most 1.0f: the very edge of the
// pass-through path. Its exact product may be slightly above 1.
float largestPassing(float g) {
    float edge = 1.0f / g;
    while (edge * g > 1.0f) edge = std::nextafter(edge, 0.0f);
    while (std::nextafter(edge, 2 * edge) * g <= 1.0f) edge = std::nextafter(edge, 2 * edge);
    return edge;
}

bool hasSubnormal(const std::vector<float>& samples) {
    for (float s : samples)
        if (std::fpclassify(s) == FP_SUBNORMAL) return true;
    return false;
}

// ---------------------------------------------------------------- ceiling

TEST(PeakLimiterCeiling, NothingLeavesAboveFullScaleWhateverTheInputRateOrBlock) {
    for (double rate : {8000.0, 44100.0, 48000.0, 192000.0, 384000.0}) {
        const auto n = std::size_t(rate * 0.15);
        auto spikes = sr::test::noise(n, 9, 0.01f);
        for (std::size_t i = 100; i < n; i += n / 7) {
            spikes.left[i] = FLT_MAX;
            spikes.right[i + 1] = -FLT_MAX;
            spikes.left[i + 50] = 1e6f;
        }
        struct Case {
            const char* name;
            Stereo in;
            double preGainDb;
        };
        const Case cases[] = {
            {"+12 dB noise", sr::test::noise(n, 1, 3.981f), -0.01},
            {"+40 dB noise", sr::test::noise(n, 2, 100.0f), -0.01},
            {"+12 dB low sine", sine(n, 40.0, rate, 3.981f), -0.01},
            {"+12 dB high sine", sine(n, rate / 3.1, rate, 3.981f), -0.01},
            {"full-scale square, +40 dB pre-gain", sr::test::square(n, 37), 40.0},
            {"spikes, +40 dB pre-gain", spikes, 40.0},
        };
        for (const auto& c : cases) {
            for (std::size_t block : {1, 7, 64, 4096}) {
                PeakLimiter limiter;
                limiter.setSampleRate(rate);
                limiter.setPreGain(c.preGainDb);
                const auto out = run(limiter, c.in, block);
                EXPECT_LE(sr::test::peak(out.left), 1.0f) << c.name << " " << rate << " " << block;
                EXPECT_LE(sr::test::peak(out.right), 1.0f) << c.name << " " << rate << " " << block;
                EXPECT_TRUE(sr::test::allFinite(out.left) && sr::test::allFinite(out.right));
            }
        }
    }
}

TEST(PeakLimiterCeiling, BelowItOnlyThePreGainIsAppliedBitExactly) {
    for (double db : {-0.01, 0.0, 6.0, -20.0, 40.0, -40.0}) {
        const float g = preGainFactor(db);
        const float edge = largestPassing(g);
        auto in = sr::test::noise(20000, 4, edge);
        for (std::size_t i = 0; i < in.size(); i += 997) {
            in.left[i] = edge;
            in.right[i + 3] = -edge;
        }
        PeakLimiter limiter;
        limiter.setPreGain(db);
        const auto out = run(limiter, in, 512);
        Stereo expected(in.size());
        for (std::size_t i = 0; i < in.size(); ++i) {
            expected.left[i] = in.left[i] * g;
            expected.right[i] = in.right[i] * g;
        }
        EXPECT_TRUE(sr::test::bitIdentical(out.left, expected.left)) << db;
        EXPECT_TRUE(sr::test::bitIdentical(out.right, expected.right)) << db;
        EXPECT_EQ(limiter.currentGain(), 1.0f) << db;
        EXPECT_EQ(sr::test::peak(out.left), 1.0f) << db << ": the edge sample was not reached";
    }
}

// ---------------------------------------------------------------- timing

TEST(PeakLimiterTiming, GainComesDownWithTheAttackTimeAndSettlesCleanly) {
    const double rate = 48000.0;
    const float g = preGainFactor(-0.01);
    // +6 dB after the pre-gain: half the gain is needed.
    const auto in = sine(std::size_t(rate * 2), 1000.0, rate, 2.0f / g);
    for (double attack : {0.1, 0.02}) {
        PeakLimiter limiter;
        limiter.setAttackTime(attack);
        const auto out = run(limiter, in, 256);
        const auto gains = smoothedGains(in, out, g);
        const double settled = gainAt(gains, in.size() - 1);
        EXPECT_NEAR(settled, 0.5, 0.01) << attack;
        // One attack time: 1/e of the way left; three: within a few % of the settled gain.
        const double afterOne = gainAt(gains, std::size_t(attack * rate));
        EXPECT_NEAR((afterOne - settled) / (1.0 - settled), std::exp(-1.0), 0.03) << attack;
        const double afterThree = gainAt(gains, std::size_t(3 * attack * rate));
        EXPECT_LT(afterThree / settled - 1.0, 0.06) << attack;
        EXPECT_GT(afterThree / settled - 1.0, 0.0) << attack;
        if (attack == 0.1) {
            EXPECT_GT(gainAt(gains, std::size_t(0.01 * rate)), 0.9);
        }
        // Once settled, the output is the input at the settled gain with little distortion.
        const std::size_t from = std::size_t(rate);
        std::vector<float> reference, settledOut;
        for (std::size_t i = from; i < in.size(); ++i) {
            reference.push_back(float(in.left[i] * g * settled));
            settledOut.push_back(out.left[i]);
        }
        EXPECT_LT(sr::test::differenceDb(reference, settledOut), -40.0) << attack;
        EXPECT_EQ(sr::test::peak(out.left), 1.0f);
    }
}

TEST(PeakLimiterTiming, RecoversWithTheDecayTimeThenReturnsToTheExactPath) {
    struct Case {
        double rate, decay;
    };
    for (const auto c : {Case{48000, 0.1}, Case{8000, 0.1}, Case{384000, 0.1}, Case{48000, 0.03}}) {
        const float g = preGainFactor(-0.01);
        const auto burst = sr::test::noise(std::size_t(c.rate * 0.5), 5, 3.981f);
        const auto quiet = sr::test::noise(std::size_t(c.rate * 2), 6, 0.5f);
        const auto in = concat(burst, quiet);
        PeakLimiter limiter;
        limiter.setSampleRate(c.rate);
        limiter.setDecayTime(c.decay);
        const auto out = run(limiter, in, 100);
        const auto gains = smoothedGains(in, out, g);
        const std::size_t start = burst.size();
        const double deficit0 = 1.0 - gainAt(gains, start);
        ASSERT_GT(deficit0, 0.6) << c.rate << " " << c.decay; // about 12 dB were taken off
        auto deficitAfter = [&](double seconds) {
            return 1.0 - gainAt(gains, start + std::size_t(seconds * c.rate));
        };
        EXPECT_NEAR(deficitAfter(c.decay) / deficit0, std::exp(-1.0), 0.03)
            << c.rate << " " << c.decay;
        // Within 1 % of unity after ln(deficit / 1 %) decay times, not noticeably sooner.
        const double within1 = c.decay * std::log(deficit0 / 0.01);
        EXPECT_LT(within1, 5 * c.decay);
        EXPECT_LE(deficitAfter(within1 * 1.05), 0.01) << c.rate << " " << c.decay;
        EXPECT_GT(deficitAfter(within1 * 0.95), 0.01) << c.rate << " " << c.decay;
        // Exactly unity, and exactly the pre-gain path, after 15 decay times.
        const std::size_t exactFrom = start + std::size_t(15 * c.decay * c.rate);
        for (std::size_t i = exactFrom; i < in.size(); ++i) {
            ASSERT_EQ(out.left[i], in.left[i] * g) << c.rate << " " << c.decay << " @" << i;
            ASSERT_EQ(out.right[i], in.right[i] * g) << c.rate << " " << c.decay << " @" << i;
        }
        EXPECT_EQ(limiter.currentGain(), 1.0f);
    }
}

// ---------------------------------------------------------------- edges

TEST(PeakLimiterEdges, LongQuietTailAfterABurstLeavesNoSubnormals) {
    const float g = preGainFactor(-0.01);
    for (double rate : {48000.0, 384000.0}) {
        const auto burst = sr::test::noise(std::size_t(rate * 0.2), 7, 100.0f);
        const auto tail = concat(sr::test::noise(std::size_t(rate * 5), 8, 1e-3f),
                                 sr::test::silence(std::size_t(rate * 5)));
        const auto in = concat(burst, tail);
        PeakLimiter limiter;
        limiter.setSampleRate(rate);
        const auto out = run(limiter, in, 512);
        EXPECT_FALSE(hasSubnormal(out.left) || hasSubnormal(out.right)) << rate;
        EXPECT_EQ(limiter.currentGain(), 1.0f) << rate;
        for (std::size_t i = in.size() - tail.size() / 2; i < in.size(); i += 101)
            ASSERT_EQ(out.left[i], in.left[i] * g);
        // The state is clean too: new quiet material passes exactly.
        auto again = sr::test::noise(4096, 9, 0.9f);
        const auto outAgain = run(limiter, again, 64);
        for (std::size_t i = 0; i < again.size(); ++i)
            ASSERT_EQ(outAgain.left[i], again.left[i] * g);
    }
}

TEST(PeakLimiterEdges, NonFiniteSamplesBecomeSilenceAndLeaveNoTrace) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // Quiet, then loud, then quiet again: bad samples land in every phase.
    const auto in =
        concat(concat(sr::test::noise(20000, 10, 0.5f), sr::test::noise(20000, 11, 4.0f)),
               sr::test::noise(100000, 12, 0.5f));
    auto bad = in, zeroed = in;
    for (std::size_t i = 333; i < in.size(); i += 4321) {
        const float value = (i / 4321) % 3 == 0 ? nan : (i / 4321) % 3 == 1 ? inf : -inf;
        bad.left[i] = value;
        bad.right[i + 1] = value;
        bad.left[i + 2] = bad.right[i + 2] = value;
        zeroed.left[i] = zeroed.right[i + 1] = zeroed.left[i + 2] = zeroed.right[i + 2] = 0.0f;
    }
    PeakLimiter a, b;
    const auto outBad = run(a, bad, 64);
    const auto outZeroed = run(b, zeroed, 64);
    EXPECT_TRUE(sr::test::bitIdentical(outBad.left, outZeroed.left));
    EXPECT_TRUE(sr::test::bitIdentical(outBad.right, outZeroed.right));
    EXPECT_TRUE(sr::test::allFinite(outBad.left) && sr::test::allFinite(outBad.right));
    EXPECT_EQ(outBad.left[333], 0.0f);
    EXPECT_EQ(a.currentGain(), 1.0f);
    // A block of nothing but non-finite samples leaves the limiter idle.
    std::vector<float> left(64, nan), right(64, -inf);
    float* const channels[] = {left.data(), right.data()};
    a.process(channels, 2, 64);
    EXPECT_EQ(sr::test::peak(left) + sr::test::peak(right), 0.0f);
    EXPECT_EQ(a.currentGain(), 1.0f);
}

TEST(PeakLimiterEdges, ChannelsShareOneGainAndOddLayoutsAreSafe) {
    const double rate = 48000.0;
    const float g = preGainFactor(-0.01);
    const auto loud = sine(std::size_t(rate), 440.0, rate, 3.981f);
    const auto quiet = sine(std::size_t(rate), 1234.0, rate, 0.1f);
    Stereo in(loud.size());
    in.left = loud.left;
    in.right = quiet.right;
    PeakLimiter limiter;
    const auto out = run(limiter, in, 64);
    // Every frame, the quiet side is turned down exactly as far as the loud side.
    std::size_t compared = 0;
    for (std::size_t i = 0; i < in.size(); ++i) {
        const double yLeft = double(in.left[i]) * g, yRight = double(in.right[i]) * g;
        if (std::fabs(yLeft) < 0.01 || std::fabs(yRight) < 0.01) continue;
        ASSERT_NEAR(out.right[i] / yRight, out.left[i] / yLeft, 1e-5) << i;
        ++compared;
    }
    EXPECT_GT(compared, in.size() / 2);
    EXPECT_LT(sr::test::peak({out.right.end() - 4800, out.right.end()}), 0.1f * g * 0.3f);

    // Eight channels, the loud one last; a ninth is ignored, as is a null pointer.
    std::vector<std::vector<float>> many(9, quiet.right);
    many[7] = loud.left;
    many[8] = loud.left;
    float* pointers[9];
    for (int c = 0; c < 9; ++c) pointers[c] = many[std::size_t(c)].data();
    pointers[3] = nullptr;
    PeakLimiter wide;
    wide.process(pointers, 9, std::uint32_t(quiet.size()));
    EXPECT_LE(sr::test::peak(many[7]), 1.0f);
    EXPECT_TRUE(sr::test::bitIdentical(many[8], loud.left));
    EXPECT_TRUE(sr::test::bitIdentical(many[3], quiet.right));
    EXPECT_LT(sr::test::peak({many[0].end() - 4800, many[0].end()}), 0.1f * g * 0.3f);
    wide.process(nullptr, 2, 64);
    wide.process(pointers, 0, 64);
}

TEST(PeakLimiterEdges, SettingsRefuseBadValuesAndTakeEffectAtTheNextBlock) {
    PeakLimiter limiter;
    EXPECT_EQ(limiter.attackTime(), 0.1);
    EXPECT_EQ(limiter.decayTime(), 0.1);
    EXPECT_EQ(limiter.preGain(), -0.01);
    const double nan = std::nan(""), inf = HUGE_VAL;

    limiter.setSampleRate(44100.0);
    for (double bad : {0.0, -48000.0, 0.999, 10'000'001.0, nan, inf, -inf})
        limiter.setSampleRate(bad);
    EXPECT_EQ(limiter.sampleRate(), 44100.0);
    limiter.setSampleRate(1.0);
    EXPECT_EQ(limiter.sampleRate(), 1.0);
    limiter.setSampleRate(10'000'000.0);
    EXPECT_EQ(limiter.sampleRate(), 10'000'000.0);

    for (double bad : {0.0, -0.1, nan, inf, -inf}) {
        limiter.setAttackTime(bad);
        limiter.setDecayTime(bad);
    }
    EXPECT_EQ(limiter.attackTime(), 0.1);
    EXPECT_EQ(limiter.decayTime(), 0.1);
    limiter.setAttackTime(0.005);
    limiter.setDecayTime(2.0);
    EXPECT_EQ(limiter.attackTime(), 0.005);
    EXPECT_EQ(limiter.decayTime(), 2.0);

    for (double bad : {nan, inf, -inf}) limiter.setPreGain(bad);
    EXPECT_EQ(limiter.preGain(), -0.01);
    limiter.setPreGain(100.0);
    EXPECT_EQ(limiter.preGain(), 40.0);
    limiter.setPreGain(-1000.0);
    EXPECT_EQ(limiter.preGain(), -40.0);

    // A new pre-gain is used from the next block on.
    limiter.setSampleRate(48000.0);
    limiter.setPreGain(-6.0);
    auto in = sr::test::noise(256, 13, 0.9f);
    auto out = run(limiter, in, 256);
    EXPECT_EQ(out.left[17], in.left[17] * preGainFactor(-6.0));
    limiter.setPreGain(0.0);
    out = run(limiter, in, 256);
    EXPECT_EQ(out.left[17], in.left[17]);

    // Settings changed from another thread while audio runs: the ceiling still holds.
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; !done.load(); ++i) {
            limiter.setPreGain(i % 2 ? 40.0 : -10.0);
            limiter.setAttackTime(i % 3 ? 0.001 : 0.5);
            limiter.setSampleRate(i % 5 ? 48000.0 : 8000.0);
        }
    });
    auto loud = sr::test::noise(64, 14, 8.0f);
    float peak = 0.0f;
    for (int block = 0; block < 2000; ++block) {
        auto copy = loud;
        copy = run(limiter, copy, 64);
        peak = std::max({peak, sr::test::peak(copy.left), sr::test::peak(copy.right)});
    }
    done = true;
    control.join();
    EXPECT_LE(peak, 1.0f);
}

TEST(PeakLimiterEdges, BlockSizeAndResetDoNotChangeTheOutput) {
    const float g = preGainFactor(6.0);
    auto in = concat(concat(sr::test::noise(30000, 15, 0.35f), sr::test::noise(9000, 16, 3.0f)),
                     sr::test::noise(60000, 17, 0.35f));
    in.left[31000] = std::numeric_limits<float>::quiet_NaN();
    // Edge samples (exact product just above 1, rounded product exactly 1) right before the
    // burst: processed whole, they share a stretch with the burst; frame by frame they do not.
    const float edge = largestPassing(g);
    ASSERT_GT(double(edge) * g, 1.0);
    for (std::size_t i = 29990; i < 30000; ++i) in.left[i] = in.right[i] = edge;
    auto limiter = [] {
        auto l = std::make_unique<PeakLimiter>();
        l->setPreGain(6.0);
        return l;
    };
    auto whole = limiter(), single = limiter(), used = limiter();
    const auto reference = run(*whole, in, 4096);
    const auto bySample = run(*single, in, 1);
    EXPECT_TRUE(sr::test::bitIdentical(reference.left, bySample.left));
    EXPECT_TRUE(sr::test::bitIdentical(reference.right, bySample.right));
    EXPECT_EQ(reference.left[29995], 1.0f);

    // Irregular blocks, after a reset in the middle of heavy limiting.
    run(*used, sr::test::noise(5000, 18, 50.0f), 64);
    EXPECT_LT(used->currentGain(), 0.1f);
    used->reset();
    EXPECT_EQ(used->currentGain(), 1.0f);
    Stereo out = in;
    const std::size_t sizes[] = {1, 7, 64, 333, 31, 4096, 2};
    for (std::size_t at = 0, k = 0; at < in.size(); ++k) {
        const std::size_t n = std::min(sizes[k % 7], in.size() - at);
        float* const channels[] = {out.left.data() + at, out.right.data() + at};
        used->process(channels, 2, std::uint32_t(n));
        at += n;
    }
    EXPECT_TRUE(sr::test::bitIdentical(reference.left, out.left));
    EXPECT_TRUE(sr::test::bitIdentical(reference.right, out.right));
}

} // namespace
