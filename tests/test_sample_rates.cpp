// The same sound at every sample rate: the split points divide the bands at the same
// frequencies in Hz, and the chorus's longest delay is as long in milliseconds, as at 48 kHz.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <filesystem>
#include <fstream>
#include <map>
#include <numbers>
#include <string>
#include <vector>

#include "audiounit/TAVPreset.h"
#include "editor/SplitAxis.h"
#include "effects/Chorus.h"
#include "kernel/BandSplitFilter3.h"
#include "kernel/ParameterTable.h"
#include "kernel/SplitFrequencies.h"
#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"

namespace {

namespace fs = std::filesystem;

struct SplitPoints {
    std::string name;
    float lower; // the parameters' values, before the kernel's square root
    float upper;
};

std::vector<SplitPoints> defaultsAndFactoryPresets() {
    std::vector<SplitPoints> all{{"defaults", 0.33f, 0.66f}};
    for (const auto& e : fs::directory_iterator(SR_FACTORY_PRESETS)) {
        TAVPreset file;
        EXPECT_TRUE(file.load(e.path())) << e.path();
        SplitPoints points{e.path().stem().string(), -1.0f, -1.0f};
        for (const auto& group : file.patch->groups)
            for (const auto& p : group->params) {
                if (p->address == sr::kFrequencySplitLP) points.lower = p->value;
                if (p->address == sr::kFrequencySplitHP) points.upper = p->value;
            }
        EXPECT_GE(points.lower, 0.0f) << points.name;
        EXPECT_GE(points.upper, 0.0f) << points.name;
        all.push_back(points);
    }
    return all;
}

// The three bands' impulse responses, from an impulse split as the kernel splits its input.
struct BandResponses {
    double rate;
    std::vector<float> low, middle, high;

    BandResponses(const SplitPoints& points, double sampleRate) : rate(sampleRate) {
        BandSplitFilter3 split;
        split.setSamplerate(float(rate));
        // The kernel's limits: the lower point never above the upper one.
        split.setCutoff2(std::sqrt(std::max(points.upper, points.lower)));
        split.setCutoff1(std::sqrt(std::min(points.lower, points.upper)));
        const std::size_t frames = std::size_t(rate / 4); // long enough to die down
        std::vector<float> in(frames, 0.0f);
        in[0] = 1.0f;
        for (std::size_t done = 0; done < frames; done += BandSplitFilter3::kMaxFrames) {
            const auto n = std::min<std::size_t>(BandSplitFilter3::kMaxFrames, frames - done);
            split.split(in.data() + done, in.data() + done, int(n));
            low.insert(low.end(), split.getLowLeft(), split.getLowLeft() + n);
            middle.insert(middle.end(), split.getBPLeft(), split.getBPLeft() + n);
            high.insert(high.end(), split.getHighLeft(), split.getHighLeft() + n);
        }
    }

    // |H(f)| of a response, by a direct sum.
    double magnitude(const std::vector<float>& h, double hz) const {
        const std::complex<double> step = std::polar(1.0, -2.0 * std::numbers::pi * hz / rate);
        std::complex<double> z = 1.0, sum = 0.0;
        for (float v : h) {
            sum += double(v) * z;
            z *= step;
        }
        return std::abs(sum);
    }

    // The lowest frequency at which `a` falls to `b`'s level, searched from 10 Hz up to 95 %
    // of Nyquist; 0 when it never does.
    double crossing(const std::vector<float>& a, const std::vector<float>& b) const {
        auto above = [&](double hz) { return magnitude(a, hz) > magnitude(b, hz); };
        double lo = 10.0, hi = 10.0;
        const double top = 0.95 * rate / 2;
        while (above(hi)) {
            if (hi >= top) return 0.0;
            lo = hi;
            hi = std::min(hi * 1.05, top);
        }
        for (int i = 0; i < 30; ++i) {
            const double mid = std::sqrt(lo * hi);
            (above(mid) ? lo : hi) = mid;
        }
        return std::sqrt(lo * hi);
    }
};

// Relative difference of a crossing from the one at 48 kHz.
double deviation(double hz, double reference) {
    return std::abs(hz - reference) / reference;
}

// The mapping keeps the frequency each coefficient stands for. The crossings move a little
// all the same: the 48 kHz filter's response is itself warped near its cutoff, by an amount
// that grows with the cutoff's share of the rate, and the same coefficient law at another rate
// is warped differently. The lower crossings (all below 1 kHz but one) stay within 2 % at every
// rate; at 44.1 kHz every crossing stays within 2 % below 4 kHz and 10 % above. Further from
// 48 kHz the upper crossings between 2 and 4 kHz move by up to 7.4 % (22.05 kHz) and those
// above 4 kHz by up to 19 % (192 kHz). Before the mapping they moved with the rate: 100 % off
// at 96 kHz. Crossings above a fifth of the host's rate are left out: the filter cannot hold
// them there.
TEST(SampleRates, SplitPointsCrossAtTheSameFrequenciesAsAt48kHz) {
    for (const SplitPoints& points : defaultsAndFactoryPresets()) {
        const BandResponses reference(points, 48000.0);
        const double lower48 = reference.crossing(reference.low, reference.middle);
        const double upper48 = reference.crossing(reference.middle, reference.high);
        ASSERT_GT(lower48, 0.0) << points.name;
        ASSERT_GT(upper48, 0.0) << points.name;
        for (double rate : {22050.0, 44100.0, 88200.0, 96000.0, 192000.0}) {
            const BandResponses at(points, rate);
            const double lower = at.crossing(at.low, at.middle);
            const double upper = at.crossing(at.middle, at.high);
            SCOPED_TRACE(testing::Message()
                         << points.name << " at " << rate << " Hz: " << lower << " / " << upper
                         << " Hz against " << lower48 << " / " << upper48 << " Hz at 48 kHz");
            const bool near48 = rate == 44100.0;
            auto tolerance = [&](double hz, bool lowerPoint) {
                if (hz < 4000.0) return lowerPoint || near48 ? 0.02 : 0.08;
                return near48 ? 0.10 : 0.20;
            };
            if (lower48 < rate / 5) {
                EXPECT_LT(deviation(lower, lower48), tolerance(lower48, true));
            }
            if (upper48 < rate / 5) {
                EXPECT_LT(deviation(upper, upper48), tolerance(upper48, false));
            }
        }
    }
}

// The defaults' crossings: 219 / 1857 Hz at 48 kHz, and what the mapping gives at 44.1 and 96.
TEST(SampleRates, DefaultSplitCrossings) {
    const SplitPoints defaults = defaultsAndFactoryPresets().front();
    const std::pair<double, std::pair<double, double>> expected[] = {
        {48000.0, {218.6, 1857.3}}, {44100.0, {218.7, 1861.4}}, {96000.0, {218.3, 1834.4}}};
    for (const auto& [rate, hz] : expected) {
        const BandResponses at(defaults, rate);
        EXPECT_NEAR(at.crossing(at.low, at.middle), hz.first, 0.5) << rate;
        EXPECT_NEAR(at.crossing(at.middle, at.high), hz.second, 2.0) << rate;
    }
}

// The figures the panel and the tools show are computed from the filters' coefficients; they
// must be where an impulse through the splitter actually shows the bands crossing. So must the
// split bar's axis at each handle (where the panel prints them), and each point's law as the
// axis tabulates it.
TEST(SplitFrequencies, ComputedCrossingsAreTheMeasuredOnes) {
    sr::editor::SplitAxis axis;
    for (const SplitPoints& points : defaultsAndFactoryPresets())
        for (double rate : {44100.0, 48000.0, 96000.0}) {
            const BandResponses measured(points, rate);
            const double lower = measured.crossing(measured.low, measured.middle);
            const double upper = measured.crossing(measured.middle, measured.high);
            const sr::SplitFrequencies computed =
                sr::splitFrequencies(points.lower, points.upper, rate);
            SCOPED_TRACE(testing::Message() << points.name << " at " << rate << " Hz: " << lower
                                            << " / " << upper << " Hz");
            EXPECT_NEAR(computed.lower, lower, 0.002 * lower);
            EXPECT_NEAR(computed.upper, upper, 0.002 * upper);
            axis.update(points.lower, points.upper, rate);
            EXPECT_NEAR(axis.hz(points.lower), lower, 0.002 * lower);
            EXPECT_NEAR(axis.hz(points.upper), upper, 0.002 * upper);
            const float value[] = {points.lower, points.upper};
            double lowerLaw[2], upperLaw[2];
            sr::lowerCrossings(value, 2, rate, lowerLaw);
            sr::upperCrossings(points.lower, value, 2, rate, upperLaw);
            EXPECT_NEAR(lowerLaw[0], computed.lower, 1e-9 * computed.lower);
            EXPECT_NEAR(upperLaw[1], computed.upper, 1e-9 * computed.upper);
        }
}

// The README describes each factory preset by the range it choruses: the crossings at 48 kHz,
// in the panel's own words ("173 Hz to 2.28 kHz").
TEST(SplitFrequencies, TheReadmeQuotesEachPresetsComputedRange) {
    std::ifstream file(fs::path(SR_FACTORY_PRESETS) / ".." / "README.md");
    ASSERT_TRUE(file);
    std::map<std::string, std::string> lines;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("- **")) lines[line.substr(4, line.find("**", 4) - 4)] = line;
    for (const SplitPoints& points : defaultsAndFactoryPresets()) {
        if (points.name == "defaults") continue;
        const sr::SplitFrequencies hz = sr::splitFrequencies(points.lower, points.upper, 48000.0);
        char lower[16], upper[16];
        sr::formatHz(hz.lower, lower, sizeof lower);
        sr::formatHz(hz.upper, upper, sizeof upper);
        ASSERT_TRUE(lines.count(points.name)) << points.name << " is not in the README";
        EXPECT_NE(lines[points.name].find(std::string(lower) + " to " + upper), std::string::npos)
            << lines[points.name] << "\n  should say " << lower << " to " << upper;
    }
}

TEST(SplitFrequencies, EdgesAndText) {
    // The split points are limited by each other as the kernel limits them: each is held on
    // its side of the other's value, so points set the wrong way round swap.
    const sr::SplitFrequencies crossed = sr::splitFrequencies(0.66f, 0.33f, 48000.0);
    const sr::SplitFrequencies ordered = sr::splitFrequencies(0.33f, 0.66f, 48000.0);
    EXPECT_DOUBLE_EQ(crossed.lower, ordered.lower);
    EXPECT_DOUBLE_EQ(crossed.upper, ordered.upper);
    // The bands always sum to the input.
    for (double hz : {20.0, 219.0, 1857.0, 15000.0}) {
        const sr::BandResponse b = sr::bandResponse(0.33f, 0.66f, 48000.0, hz);
        EXPECT_NEAR(std::abs(b.low + b.middle + b.high - 1.0), 0.0, 1e-12) << hz;
    }
    // The top split point at a low rate divides nothing below Nyquist.
    EXPECT_DOUBLE_EQ(sr::splitFrequencies(0.9f, 1.0f, 8000.0).upper, 4000.0);
    char text[16];
    const std::pair<double, const char*> cases[] = {{218.6, "219 Hz"},
                                                    {999.4, "999 Hz"},
                                                    {999.6, "1.00 kHz"},
                                                    {1857.3, "1.86 kHz"},
                                                    {14254.6, "14.3 kHz"}};
    for (const auto& [hz, expected] : cases) {
        sr::formatHz(hz, text, sizeof text);
        EXPECT_STREQ(text, expected);
    }
}

TEST(SampleRates, CoefficientsAt48kHzAreTheReferenceOnes) {
    for (float cutoff : {0.0f, 0.2f, 0.574f, 0.812f, 1.0f}) {
        SVFilter4Pole1 filter;
        filter.setCutoff(cutoff);
        const float reference = filter.getF();
        filter.setSamplerate(96000.0f);
        EXPECT_NE(filter.getF(), reference);
        filter.setSamplerate(48000.0f);
        EXPECT_EQ(filter.getF(), reference) << cutoff;
        // The floor and the top of the reference range.
        if (cutoff == 0.0f) {
            EXPECT_FLOAT_EQ(reference, 0.0012f);
        } else if (cutoff == 1.0f) {
            EXPECT_EQ(reference, 1.0f);
        }
    }
}

TEST(SampleRates, SplitNearNyquistStaysStableAtLowRates) {
    // The top split point asks for about 8 kHz, above what 8 and 11.025 kHz can hold.
    for (float rate : {8000.0f, 11025.0f, 16000.0f}) {
        BandSplitFilter3 split;
        split.setSamplerate(rate);
        split.setCutoff2(1.0f);
        split.setCutoff1(1.0f);
        std::vector<float> in(4096, 0.0f), out(4096), unused(4096);
        in[0] = 1.0f;
        double tail = 0.0;
        for (int block = 0; block < 20; ++block) {
            split.split(in.data(), in.data(), 4096);
            split.mix(out.data(), unused.data(), 4096);
            for (float v : out) ASSERT_TRUE(std::isfinite(v)) << rate;
            in[0] = 0.0f;
            if (block == 19)
                for (int i = 0; i < 4096; ++i) tail += std::abs(split.getHighLeft()[i]);
        }
        EXPECT_LT(tail, 1e-6) << rate; // the response has died away
    }
}

// The delay of the loudest output of the chorus for an impulse, with the delay and depth at
// their maximum and the LFO standing still near the top of its swing. The chorus is made at 48 kHz
// and then told of the host's rate, as the kernel does when render resources are allocated.
double longestDelayMilliseconds(double rate) {
    const int block = 512;
    EffectGlobals globals;
    std::vector<float> outLeft(block), outRight(block);
    Chorus chorus(globals, 1, outLeft.data(), outRight.data());
    globals.SAMPLE_RATE = int(rate);
    chorus.sampleRateChanged();
    EXPECT_EQ(chorus.maxDelay, int(rate / 2)); // half a second at the host's rate
    chorus.setParameterChar(2, 0);             // LFO frozen near the sine's top
    chorus.setParameterChar(6, 127);           // depth
    chorus.setParameterChar(7, 127);           // delay
    chorus.setParameterChar(8, 64);            // no feedback
    chorus.setParameterChar(9, 0);             // no cross-feed
    chorus.setParameterChar(1, 0);             // all to the left
    chorus.cleanup();
    globals.SOUND_BUFFER_SIZE = block;
    std::vector<float> left(block, 0.0f), right(block, 0.0f);
    left[0] = 1.0f;
    float loudest = 0.0f;
    long at = -1;
    for (long done = 0; done < long(rate); done += block) {
        chorus.process(left.data(), right.data());
        for (int i = 0; i < block; ++i)
            if (std::abs(outLeft[size_t(i)]) > loudest) {
                loudest = std::abs(outLeft[size_t(i)]);
                at = done + i;
            }
        left[0] = 0.0f;
    }
    return 1000.0 * double(at) / rate;
}

TEST(SampleRates, LongestChorusDelayLastsAsLongAt192kHz) {
    // 99 ms of delay and up to 63 ms of depth; the LFO stands a little past its top.
    const double at48 = longestDelayMilliseconds(48000.0);
    EXPECT_GT(at48, 160.0);
    for (double rate : {96000.0, 176400.0, 192000.0, 384000.0})
        EXPECT_NEAR(longestDelayMilliseconds(rate), at48, 1000.0 / 48000.0) << rate;
}

TEST(SampleRates, KernelSizesTheChorusLinesForTheHostRate) {
    for (double rate : {44100.0, 48000.0, 192000.0}) {
        TAV_SR_Chorus_Extension_DSPKernel kernel;
        kernel.init(2, rate);
        const auto* chorus = dynamic_cast<Chorus*>(kernel.getEffectManager().getEffectObject());
        ASSERT_NE(chorus, nullptr);
        EXPECT_EQ(chorus->maxDelay, int(rate / 2));
    }
}

} // namespace
