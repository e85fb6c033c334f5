// The whole render path through the adapter's render block: event slicing, pass-through cases,
// status codes, in-place rendering, independence of instances and of the host's block size.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "RenderHarness.h"

namespace {

using sr::test::bitIdentical;
using sr::test::differenceDb;
using sr::test::noise;
using sr::test::RenderHarness;
using sr::test::Stereo;

TEST(RenderFrame, PassThroughCasesAreBitExact) {
    const auto in = noise(3000, 21);
    {
        RenderHarness h;
        h.set(16, 0.0f); // dry/wet 0
        EXPECT_TRUE(bitIdentical(h.render(in, 512).left, in.left));
    }
    {
        RenderHarness h;
        h.set(1, 0.5f); // any non-zero bypass value bypasses
        const auto out = h.render(in, 256);
        EXPECT_TRUE(bitIdentical(out.left, in.left));
        EXPECT_TRUE(bitIdentical(out.right, in.right));
    }
    {
        RenderHarness h;
        h.adapter.setShouldBypassEffect(true);
        EXPECT_TRUE(bitIdentical(h.render(in, 1000).right, in.right));
    }
    {
        RenderHarness h(44100.0, 1); // mono: copied through
        EXPECT_TRUE(bitIdentical(h.render(in, 512).left, in.left));
    }
    {
        RenderHarness h; // and the defaults do change the sound
        const auto out = h.render(in, 512);
        EXPECT_GT(differenceDb(in.left, out.left), -30.0);
    }
}

TEST(RenderFrame, WetOnlyIsTheRecombinedBands) {
    // At mix 1 with the chorus's wet output muted (volume of the wet path 0 is not reachable
    // from the parameters, so compare against mix 0.5 instead): out(0.5) = (in + wet) / 2.
    const auto in = noise(2048, 8);
    RenderHarness wet, half;
    wet.set(16, 1.0f);
    const auto w = wet.render(in, 512);
    const auto h = half.render(in, 512);
    for (std::size_t i = 0; i < in.size(); ++i)
        ASSERT_NEAR(h.left[i], 0.5f * (w.left[i] + in.left[i]), 1e-6f) << i;
}

TEST(RenderFrame, EventsApplyAtTheirFrameInListOrder) {
    const auto in = noise(512, 3);
    // References cut at the same frame (an event with no audible effect), so that only the
    // mix differs.
    auto reference = [&](float mix) {
        RenderHarness h;
        h.set(16, mix);
        RenderEventList<> cut;
        cut.addParameter(100, 0, 0.5f);
        Stereo out(512);
        h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512,
                     cut.head());
        return out;
    };
    const auto r1 = reference(1.0f);
    const auto r05 = reference(0.5f);
    RenderHarness h;

    RenderEventList<> events;
    events.addParameter(100, 16, 0.0f);
    events.addParameter(100, 16, 1.0f); // same time: applied after the first
    Stereo out(512);
    ASSERT_EQ(h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512,
                           events.head()),
              noErr);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(out.left[size_t(i)], r05.left[size_t(i)]) << i;
    for (int i = 100; i < 512; ++i) ASSERT_EQ(out.left[size_t(i)], r1.left[size_t(i)]) << i;
    EXPECT_EQ(h.adapter.getKernel().getParameter(16), 1.0f);
}

TEST(RenderFrame, EarlyEventsRampsAndLateEvents) {
    const auto in = noise(1024, 4);
    RenderHarness h;
    h.time.mSampleTime = 1000;
    RenderEventList<> events;
    events.addParameter(900, 1, 1.0f);        // before the buffer: applies at frame 0
    events.addParameter(1000 + 600, 1, 0.0f); // past the end of a 512-frame call
    Stereo out(1024);
    h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512,
                 events.head());
    EXPECT_TRUE(std::equal(out.left.begin(), out.left.begin() + 512, in.left.begin()));
    // The late event was applied at the end of the call: bypass is off again.
    EXPECT_EQ(h.adapter.getKernel().getParameter(1), 0.0f);

    // A ramp jumps to its target at its start: from frame 200 on, mix 0 passes the input.
    events.clear();
    events.addParameter(AUEventSampleTime(h.time.mSampleTime) + 200, 16, 0.0f, 4000);
    h.renderCall(&in.left[512], &in.right[512], &out.left[512], &out.right[512], 512,
                 events.head());
    EXPECT_NE(out.left[512 + 199], in.left[512 + 199]);
    EXPECT_TRUE(std::equal(out.left.begin() + 712, out.left.end(), in.left.begin() + 712));
}

TEST(RenderFrame, StatusCodesAndUntouchedBuffers) {
    RenderHarness h;
    std::vector<float> l(4097, 7.0f), r(4097, 7.0f);
    EXPECT_EQ(h.renderCall(l.data(), r.data(), l.data(), r.data(), 4097),
              kAudioUnitErr_TooManyFramesToProcess);
    EXPECT_EQ(l[0], 7.0f);

    AudioBufferList out;
    out.mNumberBuffers = 2;
    out.mBuffers[0] = {1, 64 * 4, l.data()};
    out.mBuffers[1] = {1, 64 * 4, r.data()};
    AudioTimeStamp ts;
    EXPECT_EQ(h.block(nullptr, &ts, 64, 0, &out, nullptr, nullptr), kAudioUnitErr_NoConnection);
    EXPECT_EQ(l[0], 7.0f);
    // A pull-input failure is handed back as it is.
    auto failing = [](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount,
                      NSInteger, AudioBufferList*) -> AUAudioUnitStatus { return -50; };
    EXPECT_EQ(h.block(nullptr, &ts, 64, 0, &out, nullptr, failing), -50);
    // The direct path goes on without a pull block, with whatever the input storage holds.
    EXPECT_EQ(h.adapter.render(nullptr, &ts, 64, 0, &out, nullptr, nullptr), noErr);
}

TEST(RenderFrame, InPlaceRendersIntoTheInputStorage) {
    const auto in = noise(512, 6);
    RenderHarness a, b;
    const auto expected = a.render(in, 512);

    auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount n,
                    NSInteger, AudioBufferList* list) -> AUAudioUnitStatus {
        std::copy_n(in.left.data(), n, static_cast<float*>(list->mBuffers[0].mData));
        std::copy_n(in.right.data(), n, static_cast<float*>(list->mBuffers[1].mData));
        return noErr;
    };
    AudioBufferList out;
    out.mNumberBuffers = 2; // null data pointers: render in place
    AudioTimeStamp ts;
    ASSERT_EQ(b.block(nullptr, &ts, 512, 0, &out, nullptr, pull), noErr);
    ASSERT_NE(out.mBuffers[0].mData, nullptr);
    const auto* left = static_cast<const float*>(out.mBuffers[0].mData);
    for (int i = 0; i < 512; ++i) ASSERT_EQ(left[i], expected.left[size_t(i)]) << i;
}

TEST(RenderFrame, SegmentsTouchOnlyTheirFrames) {
    TAV_SR_Chorus_Extension_DSPKernel kernel;
    kernel.init(2, 48000.0);
    kernel.setParameter(16, 1.0f);
    auto in = noise(256, 12);
    std::vector<float> outL(256, 5.0f), outR(256, 5.0f);
    AudioBufferList inList, outList;
    inList.mNumberBuffers = outList.mNumberBuffers = 2;
    inList.mBuffers[0].mData = in.left.data();
    inList.mBuffers[1].mData = in.right.data();
    outList.mBuffers[0].mData = outL.data();
    outList.mBuffers[1].mData = outR.data();
    kernel.setBuffers(&inList, &outList, 0);
    kernel.process(100, 156);
    for (int i = 0; i < 156; ++i) ASSERT_EQ(outL[size_t(i)], 5.0f);
    EXPECT_NE(outL[156], 5.0f);
    EXPECT_NE(outL[255], 5.0f);
}

TEST(RenderFrame, ChangesFromAnotherThreadWaitForTheNextRenderCall) {
    RenderHarness h;
    const auto in = noise(64, 1);
    h.render(in, 64);
    h.set(16, 0.0f); // while allocated: queued
    EXPECT_EQ(h.adapter.getKernel().getParameter(16), 0.5f);
    // ...but reading back already reports it.
    EXPECT_EQ(h.tree().parameterWithAddress(16)->implementorValue(), 0.0f);
    const auto out = h.render(in, 64);
    EXPECT_EQ(h.adapter.getKernel().getParameter(16), 0.0f);
    EXPECT_TRUE(bitIdentical(out.left, in.left));
    // More changes than the queue holds: the latest value still arrives.
    for (int i = 0; i < 5000; ++i) h.set(7, float(i % 100) / 100.0f);
    h.set(7, 0.77f);
    h.render(in, 64);
    EXPECT_EQ(h.adapter.getKernel().getParameter(7), 0.77f);
}

TEST(RenderFrame, InstancesAreIndependent) {
    const auto in = noise(48000, 31);
    const auto other = noise(48000, 32);
    RenderHarness alone;
    const auto reference = alone.render(in, 512);

    RenderHarness a, b;
    b.set(7, 1.0f);
    b.set(12, 0.9f);
    b.set(13, 1.0f);
    Stereo outA(in.size()), outB(in.size());
    std::size_t posB = 0;
    for (std::size_t pos = 0; pos < in.size(); pos += 512) {
        const auto n = AUAudioFrameCount(std::min<std::size_t>(512, in.size() - pos));
        a.renderCall(&in.left[pos], &in.right[pos], &outA.left[pos], &outA.right[pos], n);
        for (int k = 0; k < 3 && posB < other.size(); ++k) { // B in other block sizes
            const auto m = AUAudioFrameCount(std::min<std::size_t>(333, other.size() - posB));
            b.renderCall(&other.left[posB], &other.right[posB], &outB.left[posB], &outB.right[posB],
                         m);
            posB += m;
        }
    }
    EXPECT_TRUE(bitIdentical(outA.left, reference.left));
    EXPECT_TRUE(bitIdentical(outA.right, reference.right));
}

TEST(RenderFrame, HostBlockSizeDoesNotChangeTheSound) {
    const auto in = noise(48000 * 3, 41);
    std::vector<Stereo> outs;
    for (std::size_t block : {64u, 512u, 4096u}) {
        RenderHarness h;
        h.set(13, 0.0f); // no LFO randomness
        outs.push_back(h.render(in, block));
    }
    for (std::size_t i = 0; i < outs.size(); ++i)
        for (std::size_t j = i + 1; j < outs.size(); ++j) {
            EXPECT_LT(differenceDb(outs[i].left, outs[j].left), -40.0) << i << " vs " << j;
            EXPECT_LT(differenceDb(outs[i].right, outs[j].right), -40.0) << i << " vs " << j;
        }
}

TEST(RenderFrame, MidiIsNotEchoedByTheKernel) {
    RenderHarness h;
    int sent = 0;
    h.adapter.setAUMIDIOutputEventBlock(
        [&](AUEventSampleTime, std::uint8_t, NSInteger, const std::uint8_t*) {
            ++sent;
            return noErr;
        });
    h.block = h.adapter.internalRenderBlock();
    RenderEventList<> events;
    const std::uint8_t cc[] = {0xB0, 13, 64}, clock[] = {0xF8};
    events.addMIDI(10, 0, cc, 3);
    events.addMIDI(20, 0, clock, 1);
    const auto in = noise(64, 2);
    Stereo out(64);
    EXPECT_EQ(h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 64,
                           events.head()),
              noErr);
    EXPECT_EQ(sent, 0);
}

} // namespace

namespace {

TEST(RenderFrame, AnotherThreadChangesParametersWhileRendering) {
    RenderHarness h;
    const auto in = noise(256, 5);
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < 2000; ++i) {
            h.set(AUParameterAddress(5 + i % 12), float(i % 10) / 10.0f);
            h.adapter.setShouldBypassEffect(i % 7 == 0);
            (void)h.tree().parameterWithAddress(7)->implementorValue();
        }
        h.adapter.setShouldBypassEffect(false);
        h.set(16, 0.25f);
        done = true;
    });
    Stereo out(256);
    while (!done)
        h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 256);
    control.join();
    h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 256);
    EXPECT_EQ(h.adapter.getKernel().getParameter(16), 0.25f);
    for (float v : out.left) ASSERT_TRUE(std::isfinite(v));
}

} // namespace
