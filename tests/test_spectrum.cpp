// The spectrum behind the split bar: the input tap the render cycle fills, the bar's frequency
// axis, the analyser and the columns the panel draws, and the controller that feeds them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "AudioUnitHost.h"
#include "EditorHarness.h"
#include "editor/HostedAudioUnit.h"
#include "editor/SpectrumAnalyzer.h"
#include "editor/SpectrumDisplay.h"
#include "editor/SplitAxis.h"
#include "kernel/SplitFrequencies.h"
#include "platform/InputTap.h"

namespace {

using sr::editor::SpectrumAnalyzer;
using sr::editor::SpectrumDisplay;
using sr::editor::SplitAxis;
using sr::editor::TAVSRChorusViewBase;

std::vector<float> taken(sr::InputTap& tap, std::uint32_t max) {
    std::vector<float> out;
    tap.take(max, [&](const float* p, std::uint32_t n) { out.insert(out.end(), p, p + n); });
    return out;
}

TEST(InputTap, CopiesTheMeanOfBothSidesOnlyWhileOpenAndHandsOutTheNewest) {
    sr::InputTap tap;
    std::vector<float> left(1000), right(1000);
    for (int i = 0; i < 1000; ++i) {
        left[std::size_t(i)] = float(i);
        right[std::size_t(i)] = float(3 * i);
    }
    tap.write(left.data(), right.data(), 1000);
    EXPECT_EQ(tap.available(), 0u) << "copied while closed";
    tap.open();
    tap.write(left.data(), right.data(), 1000);
    ASSERT_EQ(tap.available(), 1000u);
    // The newest 10, oldest first; the older ones are dropped.
    const std::vector<float> newest = taken(tap, 10);
    ASSERT_EQ(newest.size(), 10u);
    EXPECT_EQ(newest.front(), 2.0f * 990);
    EXPECT_EQ(newest.back(), 2.0f * 999);
    EXPECT_EQ(tap.available(), 0u);
    tap.close();
    tap.write(left.data(), right.data(), 1000);
    EXPECT_EQ(tap.available(), 0u);
    // Round and round the ring: every sample once, in order, across the wrap.
    tap.open();
    std::vector<float> all;
    for (int block = 0; block < 200; ++block) {
        tap.write(left.data(), right.data(), 1000);
        const std::vector<float> part = taken(tap, 1000);
        ASSERT_EQ(part.size(), 1000u);
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(part[std::size_t(i)], 2.0f * i) << block;
    }
    // A reader that stops: the ring fills, then drops what comes, never what it holds.
    for (int block = 0; block < 70; ++block) tap.write(left.data(), right.data(), 1000);
    EXPECT_EQ(tap.available(), sr::InputTap::kCapacity);
    EXPECT_EQ(tap.dropped(), 70u * 1000u - sr::InputTap::kCapacity);
    // Reopening forgets what was left.
    tap.open();
    EXPECT_EQ(tap.available(), 0u);
}

// The split value whose crossing (lower or upper point) is `hz`, by bisection on the filters'
// own crossings.
double valueCrossingAt(double hz, bool upperPoint, double other, double rate) {
    double lo = 0.0, hi = 1.0;
    for (int i = 0; i < 40; ++i) {
        const double mid = 0.5 * (lo + hi);
        const sr::SplitFrequencies f = upperPoint
                                           ? sr::splitFrequencies(float(other), float(mid), rate)
                                           : sr::splitFrequencies(float(mid), float(other), rate);
        ((upperPoint ? f.upper : f.lower) < hz ? lo : hi) = mid;
    }
    return 0.5 * (lo + hi);
}

TEST(SplitAxis, RisesEverywhereAndFollowsEachPointsLawOnItsSide) {
    SplitAxis axis;
    for (double rate : {44100.0, 48000.0, 96000.0}) {
        axis.update(0.3, 0.7, rate);
        double last = 0.0;
        for (int i = 0; i <= 919; ++i) {
            const double hz = axis.hz(i / 919.0);
            EXPECT_GE(hz, last) << i;
            last = hz;
        }
        // Left of the lower handle the lower point's law, right of the upper handle the upper
        // point's (with the lower point where it is), to within the table's interpolation.
        for (double v : {0.1, 0.2, 0.25}) {
            const double law = sr::splitFrequencies(float(v), 0.7f, rate).lower;
            EXPECT_NEAR(axis.hz(v) / law, 1.0, 0.004) << rate << " " << v;
        }
        for (double v : {0.75, 0.85, 0.95}) {
            const double law = sr::splitFrequencies(0.3f, float(v), rate).upper;
            EXPECT_NEAR(axis.hz(v) / law, 1.0, 0.006) << rate << " " << v;
        }
        // value() is hz()'s inverse where the axis rises.
        for (double v : {0.1, 0.5, 0.9}) EXPECT_NEAR(axis.value(axis.hz(v)), v, 1e-6);
        EXPECT_EQ(axis.value(1.0), 0.0);
        EXPECT_EQ(axis.value(rate), 1.0);
    }
}

// The acid test of the axis: a 1 kHz sine's peak stands where a split point that divides the
// bands at 1 kHz stands on the bar, within one bin, at the common rates and for either point.
TEST(SplitAxis, ASineAt1kHzPeaksAtTheHandleOfAPointThatSplitsAt1kHz) {
    for (double rate : {44100.0, 48000.0, 96000.0})
        for (const bool upperPoint : {false, true}) {
            SCOPED_TRACE(testing::Message() << rate << (upperPoint ? " upper" : " lower"));
            const double other = upperPoint ? 0.3 : 0.85;
            const double v = valueCrossingAt(1000.0, upperPoint, other, rate);
            SplitAxis axis;
            upperPoint ? axis.update(other, v, rate) : axis.update(v, other, rate);
            // As near 1 kHz as the filters' steps allow (their coefficient table moves by
            // about 0.2 % a step).
            EXPECT_NEAR(upperPoint ? axis.upperHz() : axis.lowerHz(), 1000.0, 3.0);

            SpectrumAnalyzer analyzer(rate);
            std::vector<float> sine(analyzer.windowSize());
            for (std::size_t i = 0; i < sine.size(); ++i)
                sine[i] = 0.5f * float(std::sin(2 * std::numbers::pi * 1000.0 * double(i) / rate));
            analyzer.push(sine.data(), sine.size());
            SpectrumDisplay display;
            display.update(analyzer.analyse(), analyzer.binHz(), axis, 0.0);
            int peak = 0;
            for (int c = 1; c < SpectrumDisplay::kColumns; ++c)
                if (display.input(c) > display.input(peak)) peak = c;
            const double peakX = SpectrumDisplay::kLeft + peak;
            const double handleX = TAVSRChorusViewBase::splitX(v);
            // One bin's width on the bar around 1 kHz.
            const double bin =
                TAVSRChorusViewBase::kSplitWidth * (axis.value(1000.0 + analyzer.binHz() / 2) -
                                                    axis.value(1000.0 - analyzer.binHz() / 2));
            EXPECT_LE(std::abs(peakX - handleX), std::max(bin, 1.0))
                << "peak at x " << peakX << ", handle at " << handleX << ", a bin is " << bin;
            // A -6 dBFS sine reads -6 dB at its peak (tilt 0 at 1 kHz), less the smoothing.
            EXPECT_NEAR(display.input(peak), -6.0f - 3.0f, 3.0f);
        }
}

TEST(SpectrumAnalyzer, WindowsFollowTheRateAndAFullScaleSineReadsZeroDecibels) {
    EXPECT_EQ(SpectrumAnalyzer::windowFor(44100.0), 8192u);
    EXPECT_EQ(SpectrumAnalyzer::windowFor(48000.0), 8192u);
    EXPECT_EQ(SpectrumAnalyzer::windowFor(96000.0), 16384u);
    EXPECT_EQ(SpectrumAnalyzer::windowFor(384000.0), 32768u);
    EXPECT_EQ(SpectrumAnalyzer::windowFor(8000.0), 4096u);
    SpectrumAnalyzer analyzer(48000.0);
    const double binHz = analyzer.binHz();
    std::vector<float> sine(8192);
    for (std::size_t i = 0; i < sine.size(); ++i)
        sine[i] = float(std::sin(2 * std::numbers::pi * 100 * binHz * double(i) / 48000.0));
    // Pushed in pieces, with a NaN that counts as silence far from the window's middle.
    sine[0] = NAN;
    analyzer.push(sine.data(), 3000);
    analyzer.push(sine.data() + 3000, 5192);
    ASSERT_TRUE(analyzer.hasNewSamples());
    const std::vector<float>& db = analyzer.analyse();
    EXPECT_FALSE(analyzer.hasNewSamples());
    EXPECT_NEAR(db[100], 0.0f, 0.05f);
    EXPECT_LT(db[110], -60.0f);
    for (float d : db) ASSERT_TRUE(std::isfinite(d));
    // A recording's average: the same sine throughout reads the same.
    SpectrumAnalyzer average(48000.0);
    std::vector<float> longer(48000);
    for (std::size_t i = 0; i < longer.size(); ++i)
        longer[i] = float(std::sin(2 * std::numbers::pi * 100 * binHz * double(i) / 48000.0));
    average.accumulate(longer.data(), 20000);
    average.accumulate(longer.data() + 20000, 28000);
    EXPECT_NEAR(average.averageDb()[100], 0.0f, 0.05f);
}

TEST(SpectrumDisplay, RisesAtOnceFallsOverAQuarterSecondAndThenShowsNothing) {
    SplitAxis axis;
    axis.update(0.33, 0.66, 48000.0);
    std::vector<float> loud(4097, -20.0f), quiet(4097, SpectrumAnalyzer::kFloorDb);
    SpectrumDisplay display;
    EXPECT_FALSE(display.visible());
    display.update(loud, 48000.0 / 8192, axis, 0.04);
    EXPECT_TRUE(display.visible());
    const int c = 500; // about 1.3 kHz: tilt about +1 dB
    const float top = display.input(c);
    // Within 2 % of the rise after 40 ms (attack 10 ms).
    EXPECT_NEAR(top, -20.0f + 3.0f * float(std::log2(display.columnHz(c) / 1000.0)), 1.5f);
    display.update(quiet, 48000.0 / 8192, axis, 0.04);
    EXPECT_LT(display.input(c), top - 5.0f);
    EXPECT_GT(display.input(c), top - 30.0f);
    for (int i = 0; i < 100 && display.visible(); ++i) display.fall(0.04);
    EXPECT_FALSE(display.visible());
    EXPECT_EQ(display.input(c), SpectrumDisplay::kBottomDb);
    // The chorused band: the input through the middle band's response. The bands cross at
    // the handles 6.4 dB up (the filters' peak), the middle band stands 2 to 3 dB up inside the
    // range and 15 dB down far below it.
    display.update(loud, 48000.0 / 8192, axis, 0.0);
    const int lowerHandle = int(std::lround(919 * 0.33));
    const int middle = int(std::lround(919 * 0.5));
    EXPECT_NEAR(display.band(lowerHandle) - display.input(lowerHandle), 6.4f, 0.5f);
    EXPECT_NEAR(display.band(middle) - display.input(middle), 2.5f, 1.0f);
    EXPECT_NEAR(display.band(50) - display.input(50), -15.2f, 0.5f);
}

// The controller shows what comes in at the next timer call, redraws while anything shows, and
// not at all while the input is silent.
TEST(SpectrumDisplay, TheControllerRedrawsOnlyWhileThereIsSomethingToShow) {
    sr::test::EditorHarness editor;
    auto& controller = editor.controller;
    auto& view = editor.view();
    std::vector<float> silence(1600, 0.0f), tone(1600);
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = 0.3f * float(std::sin(0.13 * double(i)));
    view.clearDirty();
    for (int tick = 0; tick < 10; ++tick) {
        controller.takeInput(silence.data(), silence.size(), 48000.0);
        controller.onTimer();
    }
    EXPECT_FALSE(view.isDirty()) << "silence redrew the panel";
    EXPECT_FALSE(editor.base().spectrum.visible());
    controller.takeInput(tone.data(), tone.size(), 44100.0);
    controller.onTimer();
    EXPECT_TRUE(view.isDirty());
    EXPECT_TRUE(editor.base().spectrum.visible());
    EXPECT_EQ(editor.base().sampleRate, 44100.0);
    // The host stops sending: it fades out and the redraws stop.
    int ticks = 0;
    for (; ticks < 200 && editor.base().spectrum.visible(); ++ticks) controller.onTimer();
    EXPECT_FALSE(editor.base().spectrum.visible());
    EXPECT_LT(ticks, 75); // 3 s at 25 calls a second
    view.clearDirty();
    controller.onTimer();
    EXPECT_FALSE(view.isDirty());
}

} // namespace

namespace {

// As the standalone app has it: the editor on a unit in its own process, at 96 kHz.
TEST(SpectrumDisplay, InProcessTheRateComesFromTheUnitAndTheInputFromTheTap) {
    sr::test::AudioUnitHost host(sr::test::AudioUnitHost::Options{96000.0});
    sr::editor::HostedAudioUnit unit(host.unit);
    sr::editor::AudioUnitViewController controller;
    controller.viewDidLoad();
    controller.setAudioUnit(&unit);
    controller.mainQueue().drain();
    controller.onTimer();
    TAVSRChorusViewBase& panel = controller.pluginView.baseClass;
    EXPECT_EQ(panel.sampleRate, 96000.0);
    // The split points' frequencies follow it.
    EXPECT_DOUBLE_EQ(panel.splitAxis().lowerHz(),
                     sr::splitFrequencies(0.33f, 0.66f, 96000.0).lower);

    sr::InputTap tap;
    tap.open();
    std::vector<float> left(4096), right(4096);
    for (std::size_t i = 0; i < left.size(); ++i)
        left[i] = right[i] = 0.4f * float(std::sin(0.05 * double(i)));
    for (int cycle = 0; cycle < 4; ++cycle) tap.write(left.data(), right.data(), 4096);
    controller.takeInput(tap, 96000.0);
    EXPECT_EQ(tap.available(), 0u);
    controller.onTimer();
    EXPECT_TRUE(panel.spectrum.visible());
}

} // namespace
