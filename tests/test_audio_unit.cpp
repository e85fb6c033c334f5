// The audio unit as a host drives it: capability answers, allocation, the render block (bus
// check, limiter, MIDI pass-through and monitoring), the gains, and the controller mapping that
// runs on the main queue.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "kernel/ParameterTable.h"
#include "tests/AudioUnitHost.h"

namespace {

using sr::test::AudioUnitHost;
using sr::test::bitIdentical;
using sr::test::kLimiterPreGain;
using sr::test::LogCapture;
using sr::test::scaled;
using sr::test::SentMIDI;
using sr::test::Stereo;

constexpr std::size_t kFrames = 48000;

Stereo gained(Stereo s, float gain) {
    s.left = scaled(std::move(s.left), gain);
    s.right = scaled(std::move(s.right), gain);
    return s;
}

bool identical(const Stereo& a, const Stereo& b) {
    return bitIdentical(a.left, b.left) && bitIdentical(a.right, b.right);
}

float peakOf(const Stereo& s) {
    return std::max(sr::test::peak(s.left), sr::test::peak(s.right));
}

// ---- capabilities and lifecycle ---------------------------------------------------------------

TEST(AudioUnit, AnswersTheHostsQueriesAndLogsEachAnswer) {
    LogCapture log;
    sr::DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, queue);
    EXPECT_EQ(unit.latency(), 0.0);
    EXPECT_EQ(unit.tailTime(), 4.0);
    EXPECT_TRUE(unit.canPerformInput());
    EXPECT_TRUE(unit.canPerformOutput());
    EXPECT_TRUE(unit.canProcessInPlace());
    EXPECT_TRUE(unit.isMusicDeviceOrEffect());
    EXPECT_EQ(unit.channelCapabilities(), (std::vector<NSInteger>{2, 2}));
    EXPECT_EQ(unit.virtualMIDICableCount(), 1);
    EXPECT_EQ(unit.MIDIOutputNames(), std::vector<std::string>{"TAV SR Chorus MIDI Out"});
    EXPECT_TRUE(unit.supportsUserPresets());
    EXPECT_EQ(unit.inputBusses().count(), 1u);
    EXPECT_EQ(unit.outputBusses().count(), 1u);
    EXPECT_EQ(unit.parameterTree()->allParameters().size(), sr::kParameterCount);
    unit.setParameterTree(nullptr); // refused: the tree stays
    EXPECT_NE(unit.parameterTree(), nullptr);
    EXPECT_EQ(unit.parametersForOverview(3).size(), 3u);
    EXPECT_EQ(unit.supportedViewConfigurations({{400, 300, false}, {1024, 400, true}}),
              (std::vector<std::size_t>{0, 1}));

    const std::vector<std::string> expected = {
        "TAV_SR_Chorus_Extension_AudioUnit::init() aufx srCh TAVs",
        "TAV_SR_Chorus_Extension_AudioUnit::latency: 0.0",
        "TAV_SR_Chorus_Extension_AudioUnit::tailTime: 4.0",
        "TAV_SR_Chorus_Extension_AudioUnit::canPerformInput: true",
        "TAV_SR_Chorus_Extension_AudioUnit::canPerformOutput: true",
        "TAV_SR_Chorus_Extension_AudioUnit::canProcessInPlace() true",
        "TAV_SR_Chorus_Extension_AudioUnit::isMusicDeviceOrEffect: true",
        "TAV_SR_Chorus_Extension_AudioUnit::channelCapabilities() [2, 2]",
        "TAV_SR_Chorus_Extension_AudioUnit::virtualMIDICableCount: 1",
        "TAV_SR_Chorus_Extension_AudioUnit::midiOutputNames: [\"TAV SR Chorus MIDI Out\"]",
        "TAV_SR_Chorus_Extension_AudioUnit::supportsUserPresets: true",
        "TAV_SR_Chorus_Extension_AudioUnit::inputBusses: 1",
        "TAV_SR_Chorus_Extension_AudioUnit::outputBusses: 1",
        "TAV_SR_Chorus_Extension_AudioUnit::parameterTree (set) !!!",
        "TAV_SR_Chorus_Extension_AudioUnit::parametersForOverview()",
        "TAV_SR_Chorus_Extension_AudioUnit::supportedViewConfigurations()",
    };
    std::vector<std::string> traced;
    for (const std::string& line : log.lines())
        if (line.rfind("TAV_SR_Chorus_Extension_AudioUnit", 0) == 0) traced.push_back(line);
    EXPECT_EQ(traced, expected);
}

TEST(AudioUnit, AScriptedSessionLogsExactlyTheseLines) {
    LogCapture log;
    sr::DrainedMainQueue queue;
    TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, queue);
    unit.musicalContextBlock = [](double*, double*, NSInteger*, double*, NSInteger*, double*) {
        return false;
    };
    unit.setMaximumFramesToRender(1024);
    unit.setShouldBypassEffect(false);
    unit.outputBusses()[0].setFormat(AVAudioFormat(44100.0, 2));
    unit.setMIDIOutputEventBlock(
        [](AUEventSampleTime, std::uint8_t, NSInteger, const std::uint8_t*) -> OSStatus {
            return kAudioUnitErr_NoConnection;
        });
    unit.parameterTree()->parameterWithAddress(17)->setValue(7.0f);
    log.clear();

    unit.allocateRenderResources();
    AURenderBlock block = unit.renderBlock();
    RenderEventList<> events;
    sr::test::addMIDI(events, 5, {0xB2, 7, 127});
    Stereo in(64), out(64);
    auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount,
                    NSInteger, AudioBufferList*) -> AUAudioUnitStatus { return noErr; };
    AudioBufferList list;
    list.mNumberBuffers = 2;
    list.mBuffers[0] = {1, 256, out.left.data()};
    list.mBuffers[1] = {1, 256, out.right.data()};
    AudioTimeStamp time;
    AudioUnitRenderActionFlags flags = 0;
    block(&flags, &time, 64, 0, &list, events.head(), pull);
    queue.drain();
    block(&flags, &time, 64, 0, &list, nullptr, pull);
    unit.getParameter(40);
    unit.reset();
    unit.deallocateRenderResources();

    std::vector<std::string> traced;
    for (const std::string& line : log.lines())
        if (line.rfind("TAV_SR_Chorus_Extension_AudioUnit", 0) == 0 ||
            line.rfind("traceEvent", 0) == 0 || line.rfind("SENDING", 0) == 0 ||
            line.rfind("unit received parameter : address:5,", 0) == 0)
            traced.push_back(line);
    const std::string p = "TAV_SR_Chorus_Extension_AudioUnit";
    const std::vector<std::string> expected = {
        p + "::allocateRenderResources()",
        p + ": The property 'musicalContextBlock' is defined.",
        p + ": WARNING: The property 'transportStateBlock' is NOT defined.",
        p + ": WARNING: The property 'scheduleMIDIEventBlock' is NOT defined.",
        p + ": The property 'midiOutputEventBlock' is defined.",
        p + ": Native wrapped unit input samplerate (prior): 48000.0",
        p + ": Native wrapped unit output samplerate (prior): 44100.0",
        p + ": New wrapped unit input samplerate: 44100.0",
        p + ": New wrapped unit output samplerate: 44100.0",
        "traceEvent() : 0? " + std::to_string(unit.instanceNumber()) +
            " - time:5 cable:0 MIDI = s:176 c:2 d1:7 d2:127 length: 3",
        "SENDING MIDI OUT failed!",
        // The kernel takes what allocation pushed at the start of the first render call (only
        // address 5 is kept here) ...
        "unit received parameter : address:5, value:0.330000",
        // ... and the controller's change at the start of the next: the tree's value changes
        // (the kernel hears it) and the value is handed on once more.
        "unit received parameter : address:5, value:1.000000",
        "unit received parameter : address:5, value:1.000000",
        p + "::getParameter() : ERROR: The parameter could not be found.",
        p + "::reset()",
        p + "::deallocateRenderResources()",
    };
    EXPECT_EQ(traced, expected);
    // The kernel rendered at the host's rate, and the settings reached it.
    EXPECT_EQ(unit.kernelAdapter().getSamplerate(), 44100.0f);
    EXPECT_EQ(unit.kernelAdapter().maximumFramesToRender(), 1024u);
    EXPECT_DOUBLE_EQ(unit.effect().attackTime(), 0.1);
    EXPECT_DOUBLE_EQ(unit.effect().decayTime(), 0.1);
    EXPECT_DOUBLE_EQ(unit.effect().preGain(), -0.01);
    EXPECT_EQ(unit.getSamplerate(), 44100.0);
}

// ---- render block -----------------------------------------------------------------------------

TEST(AudioUnitRender, ABusOtherThanZeroWarnsAndRendersNothing) {
    LogCapture log;
    AudioUnitHost host;
    const Stereo in = sr::test::noise(256);
    Stereo out(256);
    std::fill(out.left.begin(), out.left.end(), 7.0f);
    std::fill(out.right.begin(), out.right.end(), 7.0f);
    log.clear();
    for (int call = 0; call < 3; ++call)
        EXPECT_EQ(host.renderCall(in.left.data(), in.right.data(), out.left.data(),
                                  out.right.data(), 256, nullptr, 1),
                  noErr);
    EXPECT_EQ(host.pulls, 0);
    EXPECT_TRUE(std::all_of(out.left.begin(), out.left.end(), [](float s) { return s == 7.0f; }));
    EXPECT_EQ(log.matching("bus number").size(), 3u);
    EXPECT_EQ(log.matching("bus number").front(),
              "TAV_SR_Chorus_Extension_AudioUnit::internalRenderBlock : WARNING: We have a got a "
              "bus number != 0 : 1");
}

TEST(AudioUnitRender, TheLimiterRunsOnlyAtExactlyOneAndThenNothingExceedsFullScale) {
    const Stereo quiet = sr::test::noise(kFrames, 3, 0.5f);
    const Stereo loud = sr::test::noise(kFrames, 4, 3.98f); // +12 dB over full scale
    for (const float limit : {0.0f, 0.5f, 0.999f, 1.0f}) {
        AudioUnitHost host;
        host.parameter(sr::kChorusDryWet).setValue(0.0f);
        host.parameter(sr::kFinalLimit).setValue(limit);
        const Stereo outQuiet = host.render(quiet, 512);
        const Stereo outLoud = host.render(loud, 512);
        if (limit == 1.0f) {
            // Below the threshold the limiter applies only its -0.01 dB pre-gain.
            EXPECT_TRUE(identical(outQuiet, gained(quiet, kLimiterPreGain)));
            EXPECT_LE(peakOf(outLoud), 1.0f);
            EXPECT_GT(peakOf(outLoud), 0.9f);
        } else {
            EXPECT_TRUE(identical(outQuiet, quiet)) << limit;
            EXPECT_TRUE(identical(outLoud, loud)) << limit;
        }
    }
    // With the chorus in the path too.
    AudioUnitHost host;
    host.parameter(sr::kChorusFeedback).setValue(1.0f);
    EXPECT_LE(peakOf(host.render(loud, 100)), 1.0f);
}

TEST(AudioUnitRender, InputAndOutputGainsGlideAndAreExactAtUnity) {
    const Stereo in = sr::test::noise(kFrames, 5, 0.25f);
    AudioUnitHost host;
    host.parameter(sr::kChorusDryWet).setValue(0.0f);
    host.parameter(sr::kFinalLimit).setValue(0.0f);
    EXPECT_TRUE(identical(host.render(in, 256), in));

    // Input gain 2 and output gain 0.5: after the glide, input x 2 x 0.5 == input exactly.
    host.parameter(sr::kVolumeIn).setValue(2.0f);
    host.parameter(sr::kVolumeOut).setValue(0.5f);
    const Stereo out = host.render(in, 256);
    const std::size_t glide = 480; // 10 ms at 48 kHz
    for (std::size_t i = glide; i < kFrames; ++i) ASSERT_EQ(out.left[i], in.left[i]) << i;
    // Only the output gain: half, reached without a jump.
    host.parameter(sr::kVolumeIn).setValue(1.0f);
    const Stereo half = host.render(in, 256);
    float largestStep = 0.0f;
    for (std::size_t i = 0; i < glide; ++i)
        largestStep =
            std::max(largestStep, std::fabs(half.left[i] / in.left[i] -
                                            (i ? half.left[i - 1] / in.left[i - 1] : 1.0f)));
    EXPECT_LT(largestStep, 0.01f); // 2 -> 1 in 480 steps of ~0.002
    for (std::size_t i = glide; i < kFrames; ++i) ASSERT_EQ(half.left[i], in.left[i] * 0.5f) << i;
}

TEST(AudioUnitRender, KernelErrorsAreLoggedAndTheStatusReturned) {
    LogCapture log;
    AudioUnitHost host;
    Stereo in(5000), out(5000);
    EXPECT_EQ(
        host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 5000),
        kAudioUnitErr_TooManyFramesToProcess);
    EXPECT_EQ(log.matching("problem with the kernel!"),
              std::vector<std::string>{"TAV_SR_Chorus_Extension_AudioUnit::internalRenderBlock : "
                                       "ERROR: We have a problem with the kernel! -10874"});
    EXPECT_EQ(log.matching("problem with the wrapped unit!"),
              std::vector<std::string>{"TAV_SR_Chorus_Extension_AudioUnit::internalRenderBlock : "
                                       "ERROR: We have a problem with the wrapped unit! -10874"});
}

// ---- MIDI pass-through and monitoring --------------------------------------------------------

TEST(AudioUnitMIDI, EveryEventIsPassedThroughAtItsFrameTracedAndMonitored) {
    LogCapture log;
    AudioUnitHost host;
    host.time.mSampleTime = 1000.0;
    RenderEventList<> events;
    sr::test::addMIDI(events, 1000, {0x90, 60, 100});
    sr::test::addMIDI(events, 1010, {0xB3, 74, 5}, 1);
    sr::test::addMIDI(events, 1010, {0xE0, 0, 64});
    sr::test::addMIDI(events, 1200, {0xC5, 12});
    const std::vector<std::uint8_t> sysex = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
    events.addMIDI(1255, 0, sysex.data(), std::uint16_t(sysex.size()));
    events.addParameter(1100, sr::kChorusDepth, 0.5f);
    host.renderEvents(events.head());

    const AUEventSampleTime now = AUEventSampleTimeImmediate;
    const std::vector<SentMIDI> expected = {
        {now + 0, 0, {0x90, 60, 100}}, {now + 10, 1, {0xB3, 74, 5}}, {now + 10, 0, {0xE0, 0, 64}},
        {now + 200, 0, {0xC5, 12}},    {now + 255, 0, sysex},
    };
    EXPECT_EQ(host.sent, expected);

    for (const AUEventSampleTime time : {1000, 1010, 1010, 1200, 1255}) {
        const std::optional<AUMIDIEventEx> e = host.unit.getMonitorEvents();
        ASSERT_TRUE(e) << time;
        EXPECT_EQ(e->eventSampleTime, time);
    }
    EXPECT_FALSE(host.unit.getMonitorEvents());

    const std::vector<std::string> traced = log.matching("traceEvent()");
    ASSERT_EQ(traced.size(), 4u); // system exclusive is passed through, not traced
    EXPECT_EQ(traced[1], "traceEvent() : 0? " + std::to_string(host.unit.instanceNumber()) +
                             " - time:1010 cable:1 MIDI = s:176 c:3 d1:74 d2:5 length: 3");
    EXPECT_EQ(traced[3], "traceEvent() : 0? " + std::to_string(host.unit.instanceNumber()) +
                             " - time:1200 cable:0 MIDI = s:192 c:5 d1:12 d2:0 length: 2");
    EXPECT_TRUE(log.matching("SENDING MIDI OUT failed!").empty());
}

TEST(AudioUnitMIDI, WithoutAnOutputBlockEventsAreStillHandledAndNothingIsSent) {
    LogCapture log;
    AudioUnitHost host({.midiOutput = false});
    host.parameter(sr::kFrequencySplitLPController).setValue(7.0f);
    RenderEventList<> events;
    sr::test::addMIDI(events, 3, {0xB0, 7, 127});
    host.renderEvents(events.head());
    host.renderEvents(nullptr);
    EXPECT_EQ(host.kernelValue(sr::kFrequencySplitLP), 1.0f);
    EXPECT_TRUE(host.unit.getMonitorEvents());
    EXPECT_TRUE(host.sent.empty());
    EXPECT_TRUE(log.matching("SENDING MIDI OUT").empty());

    // A host whose output refuses: one line per refused message.
    AudioUnitHost refusing({.midiOutputStatus = kAudioUnitErr_NoConnection});
    log.clear();
    refusing.renderEvents(events.head());
    EXPECT_EQ(log.matching("SENDING MIDI OUT failed!"),
              std::vector<std::string>{"SENDING MIDI OUT failed!"});
}

// ---- controller mapping ----------------------------------------------------------------------

TEST(AudioUnitMIDI, ControllersMoveEveryBoundControlAcrossItsRangeOnAnyChannel) {
    AudioUnitHost host;
    // Two bindings on controller 7, one on 20; everything else unbound.
    for (std::uint64_t a = 17; a <= 28; ++a) host.parameter(a).setValue(-1.0f);
    host.parameter(17).setValue(7.0f);
    host.parameter(18).setValue(7.0f);
    host.parameter(25).setValue(20.0f);
    host.renderEvents(nullptr);

    auto send = [&](std::initializer_list<std::uint8_t> bytes) {
        RenderEventList<> events;
        sr::test::addMIDI(events, 0, bytes);
        host.renderEvents(events.head());
    };
    const auto before = [&] {
        std::vector<AUValue> values;
        for (std::uint64_t a = 0; a < sr::kParameterCount; ++a)
            values.push_back(host.kernelValue(a));
        return values;
    };

    send({0xB0, 7, 100}); // channel 1
    EXPECT_EQ(host.kernelValue(5), 100.0f / 127.0f);
    EXPECT_EQ(host.kernelValue(6), 100.0f / 127.0f);
    EXPECT_EQ(host.parameter(5).value(), 100.0f / 127.0f); // the tree follows, for the editor
    send({0xBF, 7, 0});                                    // channel 16 acts alike
    EXPECT_EQ(host.kernelValue(5), 0.0f);
    EXPECT_EQ(host.kernelValue(6), 0.0f);
    send({0xB9, 20, 64});
    EXPECT_EQ(host.kernelValue(13), 64.0f / 127.0f);
    send({0xB9, 20, 127});
    EXPECT_EQ(host.kernelValue(13), 1.0f);

    // An unbound controller, pitch bend and program change change nothing.
    const std::vector<AUValue> values = before();
    send({0xB0, 21, 99});
    send({0xE0, 7, 100});
    send({0xC0, 7});
    send({0x90, 7, 100});
    EXPECT_EQ(before(), values);
    EXPECT_EQ(host.sent.size(), 8u); // but every one of them was passed through
}

TEST(AudioUnitMIDI, ChangesArriveOneRenderCallAfterTheEventInOrder) {
    AudioUnitHost host;
    host.parameter(sr::kChorusDryWetController).setValue(1.0f);
    host.renderEvents(nullptr);
    RenderEventList<> events;
    sr::test::addMIDI(events, 10, {0xB0, 1, 10});
    sr::test::addMIDI(events, 20, {0xB0, 1, 90});
    sr::test::addMIDI(events, 30, {0xB0, 1, 30});

    const AUValue before = host.kernelValue(sr::kChorusDryWet);
    Stereo in(64), out(64);
    host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 64,
                    events.head());
    EXPECT_EQ(host.kernelValue(sr::kChorusDryWet), before); // not during the call itself
    EXPECT_EQ(host.mainQueue.drain(), 3u);                  // one task per event, in order
    host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 64);
    EXPECT_EQ(host.kernelValue(sr::kChorusDryWet), 30.0f / 127.0f); // the last one wins
}

TEST(AudioUnitMIDI, ParameterAccessByAddressReportsUnknownAddresses) {
    LogCapture log;
    AudioUnitHost host;
    host.unit.setParameter(sr::kChorusDepth, 0.75f);
    EXPECT_EQ(host.unit.getParameter(sr::kChorusDepth), 0.75f);
    host.unit.setParameter(sr::kChorusDepth, 5.0f); // clamped by the parameter object
    EXPECT_EQ(host.unit.getParameter(sr::kChorusDepth), 1.0f);
    host.unit.setParameter(99, 0.5f); // ignored
    EXPECT_EQ(host.unit.getParameter(99), 0.0f);
    EXPECT_EQ(host.unit.getParameter(-1), 0.0f);
    EXPECT_EQ(log.matching("getParameter()"),
              std::vector<std::string>(2, "TAV_SR_Chorus_Extension_AudioUnit::getParameter() : "
                                          "ERROR: The parameter could not be found."));
}

} // namespace

namespace {

// A render thread with MIDI while the main thread sets parameters, reads them and runs the
// queued MIDI tasks: the two share only queues and atomics (clean under ThreadSanitizer).
TEST(AudioUnitThreads, RenderAndMainThreadsWorkTogether) {
    AudioUnitHost host;
    host.parameter(19).setValue(1.0f); // Chorus Depth on controller 1
    std::atomic<bool> done{false};
    std::thread render([&] {
        const Stereo in = sr::test::noise(128);
        Stereo out(128);
        RenderEventList<> events;
        for (int call = 0; call < 500; ++call) {
            events.clear();
            sr::test::addMIDI(events, AUEventSampleTime(host.time.mSampleTime),
                              {0xB0, 1, std::uint8_t(call % 128)});
            host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 128,
                            events.head());
        }
        done = true;
    });
    int round = 0;
    while (!done) {
        host.parameter(sr::kChorusFeedback).setValue(float(round % 10) / 10.0f);
        (void)host.unit.getParameter(sr::kChorusDepth);
        host.mainQueue.drain();
        host.unit.setShouldBypassEffect(round % 7 == 0);
        ++round;
    }
    render.join();
    host.mainQueue.drain();
    host.unit.setShouldBypassEffect(false);
    Stereo in(64), out(64);
    host.renderCall(in.left.data(), in.right.data(), out.left.data(), out.right.data(), 64);
    EXPECT_EQ(host.kernelValue(sr::kChorusDepth), float(499 % 128) / 127.0f);
}

} // namespace
