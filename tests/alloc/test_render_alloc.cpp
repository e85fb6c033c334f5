// The render path allocates nothing: 1000 render calls with parameter, ramp and MIDI events,
// over every block size a host is likely to use, after the first call has warmed up.
#include <gtest/gtest.h>

#include "alloc_counter.h"
#include "tests/AudioUnitHost.h"
#include "tests/RenderHarness.h"

namespace {

TEST(RenderAllocation, ThousandCallsWithEventsAllocateNothing) {
    sr::test::RenderHarness h;
    const auto in = sr::test::noise(4096, 3);
    sr::test::Stereo out(4096);
    auto events = std::make_unique<RenderEventList<>>();
    const std::uint8_t cc[] = {0xB0, 13, 100}, note[] = {0x90, 60, 100}, clock[] = {0xF8};
    const std::uint8_t sysex[] = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
    const AUAudioFrameCount sizes[] = {1, 64, 128, 333, 512, 1024, 4096};

    h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512);
    long allocations = 0;
    {
        sr::test::AllocationCounter counter;
        for (int call = 0; call < 1000; ++call) {
            const AUAudioFrameCount n = sizes[call % 7];
            const auto t0 = AUEventSampleTime(h.time.mSampleTime);
            events->clear();
            events->addParameter(t0 + n / 2, AUParameterAddress(7 + call % 10),
                                 float(call % 100) / 100.0f);
            events->addParameter(t0, 16, 0.3f, 64);
            events->addParameter(t0 + n - 1, 5, 0.2f + float(call % 5) / 10.0f);
            events->addMIDI(t0 + n / 3, 0, cc, 3);
            events->addMIDI(t0, 0, note, 3);
            events->addMIDI(t0 + n / 4, 0, clock, 1);
            events->addMIDI(t0 + n / 5, 0, sysex, sizeof sysex);
            ASSERT_EQ(h.renderCall(in.left.data(), in.right.data(), out.left.data(),
                                   out.right.data(), n, events->head()),
                      noErr);
        }
        allocations = counter.count();
    }
    EXPECT_EQ(allocations, 0);
    for (float v : out.left) ASSERT_TRUE(std::isfinite(v));
}

} // namespace

namespace {

// The audio unit's render block on top: tracing, monitoring, MIDI pass-through, the hand-over
// to the main queue and the limiter allocate nothing either; nor does running the queued MIDI
// work (mapping, parameter tree, observers), which a plug-in does on its render thread.
TEST(RenderAllocation, TheAudioUnitsRenderBlockWithMIDIAndLimiterAllocatesNothing) {
    sr::test::AudioUnitHost host({.midiOutput = false});
    long sent = 0;
    host.unit.setMIDIOutputEventBlock(
        [&sent](AUEventSampleTime, std::uint8_t, NSInteger, const std::uint8_t*) -> OSStatus {
            ++sent;
            return noErr;
        });
    host.block = host.unit.renderBlock();
    host.parameter(sr::kFinalLimit).setValue(1.0f);
    host.parameter(sr::kFrequencySplitLPController).setValue(13.0f);
    int observed = 0;
    host.unit.parameterTree()->tokenByAddingParameterObserver(
        [&observed](AUParameterAddress, AUValue) { ++observed; });

    const auto in = sr::test::noise(4096, 5, 4.0f); // loud: the limiter works
    sr::test::Stereo out(4096);
    auto events = std::make_unique<RenderEventList<>>();
    const std::uint8_t cc[] = {0xB0, 13, 100}, bend[] = {0xE3, 0, 64};
    const std::uint8_t sysex[] = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
    const AUAudioFrameCount sizes[] = {1, 64, 128, 333, 512, 1024, 4096};
    host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512);
    host.mainQueue.drain();

    long allocations = 0;
    for (int call = 0; call < 1000; ++call) {
        const AUAudioFrameCount n = sizes[call % 7];
        const auto t0 = AUEventSampleTime(host.time.mSampleTime);
        events->clear();
        events->addParameter(t0 + n / 2, AUParameterAddress(7 + call % 10), 0.5f);
        events->addMIDI(t0 + n / 3, 0, cc, 3);
        events->addMIDI(t0, 0, bend, 3);
        events->addMIDI(t0 + n - 1, 0, sysex, sizeof sysex);
        {
            sr::test::AllocationCounter counter;
            ASSERT_EQ(host.renderCall(in.left.data(), in.right.data(), out.left.data(),
                                      out.right.data(), n, events->head()),
                      noErr);
            host.mainQueue.drain();
            allocations += counter.count();
        }
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(sent, 3000);
    EXPECT_GE(observed, 1); // the mapped controller reached the tree's observers
    for (float v : out.left) ASSERT_LE(std::fabs(v), 1.0f);
}

} // namespace
