// The whole render path through the adapter's render block: event slicing, pass-through cases,
// status codes, in-place rendering, independence of instances and of the host's block size.
#include <gtest/gtest.h>

#include "RenderHarness.h"

namespace {

using sr::test::bitIdentical;
using sr::test::differenceDb;
using sr::test::noise;
using sr::test::RenderHarness;
using sr::test::Stereo;

TEST(RenderFrame, PassThroughCasesAreBitExactAndTheMixIsLinear) {
    const auto in = noise(3000, 21);
    for (int k = 0; k < 3; ++k) {
        RenderHarness h;
        if (k == 0) h.set(sr::kChorusDryWet, 0.0f);
        if (k == 1) h.set(sr::kBypass, 0.5f); // any non-zero value bypasses
        if (k == 2) h.adapter.setShouldBypassEffect(true);
        const auto out = h.render(in, std::size_t(256) << k);
        EXPECT_TRUE(bitIdentical(out.left, in.left) && bitIdentical(out.right, in.right)) << k;
    }
    RenderHarness mono(44100.0, 1); // copied through
    EXPECT_TRUE(bitIdentical(mono.render(in, 512).left, in.left));

    // The defaults do change the sound; any mix blends the full-wet output with the input.
    RenderHarness wet, half, quarter;
    wet.set(sr::kChorusDryWet, 1.0f);
    quarter.set(sr::kChorusDryWet, 0.25f);
    const auto w = wet.render(in, 512), h = half.render(in, 512), q = quarter.render(in, 512);
    EXPECT_GT(differenceDb(in.left, h.left), -30.0);
    for (std::size_t i = 0; i < in.size(); ++i) {
        ASSERT_NEAR(h.left[i], 0.5f * w.left[i] + 0.5f * in.left[i], 1e-6f) << i;
        ASSERT_NEAR(q.right[i], 0.25f * w.right[i] + 0.75f * in.right[i], 1e-6f) << i;
    }
}

TEST(RenderFrame, EventsSliceTheCallAtTheirFrames) {
    const auto in = noise(1536, 3);
    // References cut at frame 100 by an event with no effect, so that only the mix differs.
    auto reference = [&](float mix) {
        RenderHarness h;
        h.set(sr::kChorusDryWet, mix);
        RenderEventList<> cut;
        cut.addParameter(100, 0, 0.5f);
        Stereo out(512);
        h.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 512,
                     cut.head());
        return out;
    };
    const auto r1 = reference(1.0f), r05 = reference(0.5f);

    RenderHarness h;
    const std::uint8_t cc[] = {0xB0, 13, 64}, clock[] = {0xF8};
    RenderEventList<> events;
    events.addMIDI(100, 0, cc, 3); // MIDI in the list leaves the sound alone
    events.addParameter(100, sr::kChorusDryWet, 0.0f);
    events.addParameter(100, sr::kChorusDryWet, 1.0f); // same time: applied after the first
    events.addMIDI(100, 0, clock, 1);
    Stereo out(1536);
    auto call = [&](std::size_t at) {
        return h.renderCall(&in.left[at], &in.right[at], &out.left[at], &out.right[at], 512,
                            events.head());
    };
    ASSERT_EQ(call(0), noErr);
    for (std::size_t i = 0; i < 512; ++i) ASSERT_EQ(out.left[i], (i < 100 ? r05 : r1).left[i]) << i;
    EXPECT_EQ(h.adapter.getKernel().getParameter(sr::kChorusDryWet), 1.0f);

    // Before the buffer: applied at its first frame; past its end: applied after the last.
    events.clear();
    events.addParameter(400, sr::kBypass, 1.0f);
    events.addParameter(512 + 600, sr::kChorusDryWet, 0.25f);
    events.addParameter(512 + 700, sr::kBypass, 0.0f);
    call(512);
    EXPECT_TRUE(std::equal(&out.left[512], &out.left[1024], &in.left[512]));
    EXPECT_EQ(h.adapter.getKernel().getParameter(sr::kChorusDryWet), 0.25f);
    EXPECT_EQ(h.adapter.getKernel().getParameter(sr::kBypass), 0.0f);

    // A ramp jumps to its target at its start: from frame 200 on, mix 0 passes the input.
    events.clear();
    events.addParameter(1024 + 200, sr::kChorusDryWet, 0.0f, 4000);
    call(1024);
    EXPECT_NE(out.left[1024 + 199], in.left[1024 + 199]);
    EXPECT_TRUE(std::equal(&out.left[1224], &out.left[1536], &in.left[1224]));
}

TEST(RenderFrame, StatusCodesUntouchedBuffersAndInPlaceRendering) {
    RenderHarness h;
    std::vector<float> l(4097, 7.0f), r(4097, 7.0f);
    EXPECT_EQ(h.renderCall(l.data(), r.data(), l.data(), r.data(), 4097),
              kAudioUnitErr_TooManyFramesToProcess);
    AudioBufferList out;
    out.mNumberBuffers = 2;
    out.mBuffers[0] = {1, 64 * 4, l.data()};
    out.mBuffers[1] = {1, 64 * 4, r.data()};
    AudioTimeStamp ts;
    EXPECT_EQ(h.block(nullptr, &ts, 64, 0, &out, nullptr, nullptr), kAudioUnitErr_NoConnection);
    auto failing = [](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount,
                      NSInteger, AudioBufferList*) -> AUAudioUnitStatus { return -50; };
    EXPECT_EQ(h.block(nullptr, &ts, 64, 0, &out, nullptr, failing), -50); // handed back as is
    EXPECT_EQ(l[0], 7.0f);
    // The direct path goes on without a pull block, with whatever the input storage holds.
    EXPECT_EQ(h.adapter.render(nullptr, &ts, 64, 0, &out, nullptr, nullptr), noErr);

    // Null output pointers: the output is rendered into the input storage.
    const auto in = noise(512, 6);
    RenderHarness reference, inPlace;
    const auto expected = reference.render(in, 512);
    auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount n,
                    NSInteger, AudioBufferList* list) -> AUAudioUnitStatus {
        std::copy_n(in.left.data(), n, static_cast<float*>(list->mBuffers[0].mData));
        std::copy_n(in.right.data(), n, static_cast<float*>(list->mBuffers[1].mData));
        return noErr;
    };
    AudioBufferList io;
    io.mNumberBuffers = 2;
    ASSERT_EQ(inPlace.block(nullptr, &ts, 512, 0, &io, nullptr, pull), noErr);
    for (int c = 0; c < 2; ++c) {
        const auto* o = static_cast<const float*>(io.mBuffers[c].mData);
        ASSERT_NE(o, nullptr);
        EXPECT_TRUE(bitIdentical({o, o + 512}, c ? expected.right : expected.left)) << c;
    }
}

TEST(RenderFrame, ChangesWhileAllocatedWaitForTheNextRenderCall) {
    RenderHarness h;
    const auto in = noise(64, 1);
    h.render(in, 64);
    h.set(sr::kChorusDryWet, 0.0f); // queued...
    EXPECT_EQ(h.adapter.getKernel().getParameter(sr::kChorusDryWet), 0.5f);
    // ...but reading back already reports it.
    EXPECT_EQ(h.tree().parameterWithAddress(sr::kChorusDryWet)->implementorValue(), 0.0f);
    EXPECT_TRUE(bitIdentical(h.render(in, 64).left, in.left));
    // More changes than the queue holds: the latest value still arrives.
    for (int i = 0; i < 5000; ++i) h.set(sr::kChorusDepth, float(i % 100) / 100.0f);
    h.set(sr::kChorusDepth, 0.77f);
    h.render(in, 64);
    EXPECT_EQ(h.adapter.getKernel().getParameter(sr::kChorusDepth), 0.77f);
}

TEST(RenderFrame, SoundDependsNeitherOnOtherInstancesNorOnTheHostsBlockSize) {
    const auto in = noise(512 * 188, 31), other = noise(512 * 188, 32); // about 2 s
    std::vector<Stereo> outs;
    for (std::size_t block : {512u, 64u, 4096u}) {
        RenderHarness h;
        h.set(sr::kChorusLFORandom, 0.0f);
        outs.push_back(h.render(in, block));
    }
    for (std::size_t k = 1; k < outs.size(); ++k) {
        EXPECT_LT(differenceDb(outs[0].left, outs[k].left), -40.0) << k;
        EXPECT_LT(differenceDb(outs[0].right, outs[k].right), -40.0) << k;
    }
    // Rendered in turns with a differently set instance cut into other blocks: the same bits.
    RenderHarness a, b;
    a.set(sr::kChorusLFORandom, 0.0f);
    b.set(sr::kChorusDelay, 1.0f);
    b.set(sr::kChorusLFOFrequency, 0.9f);
    b.set(sr::kChorusLFORandom, 1.0f);
    Stereo outA(in.size()), outB(333);
    for (std::size_t pos = 0; pos < in.size(); pos += 512) {
        a.renderCall(&in.left[pos], &in.right[pos], &outA.left[pos], &outA.right[pos], 512);
        b.renderCall(&other.left[pos], &other.right[pos], outB.left.data(), outB.right.data(), 333);
    }
    EXPECT_TRUE(bitIdentical(outA.left, outs[0].left) && bitIdentical(outA.right, outs[0].right));
}

} // namespace
