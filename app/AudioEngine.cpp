#include "app/AudioEngine.h"

#include <chrono>
#include <cmath>
#include <thread>

namespace sr::app {

AudioEngine::AudioEngine(TAV_SR_Chorus_Extension_AudioUnit& audioUnit) : unit(audioUnit) {
    // Set before the render block is made, which keeps the block in force at that time.
    unit.setMIDIOutputEventBlock(
        [this](AUEventSampleTime time, std::uint8_t, NSInteger length, const std::uint8_t* bytes) {
            return sendMIDI(time, length, bytes);
        });
    cycle.setInputTap(&tap);
}

AudioEngine::~AudioEngine() {
    stop();
}

std::uint32_t AudioEngine::callFramesFor(std::uint32_t periodFrames) {
    return std::clamp<std::uint32_t>(periodFrames, 1, AUAudioUnit::kDefaultMaximumFramesToRender);
}

void AudioEngine::suspend() {
    using namespace std::chrono_literals;
    for (;;) {
        int expected = kIdle;
        if (state.compare_exchange_weak(expected, kSuspended, std::memory_order_acquire,
                                        std::memory_order_relaxed) ||
            expected == kSuspended)
            return;
        // A cycle is rendering: it ends within one period.
        if (expected == kRendering) std::this_thread::sleep_for(100us);
    }
}

void AudioEngine::resume() {
    state.store(kIdle, std::memory_order_release);
}

void AudioEngine::stop() {
    suspend();
}

void AudioEngine::configure(double sampleRate, std::uint32_t periodFrames) {
    suspend();
    if (unit.renderResourcesAllocated()) unit.deallocateRenderResources();
    rate = sampleRate;
    period = periodFrames;
    const AVAudioFormat format = AVAudioFormat::standardFormatWithSampleRate(sampleRate, 2);
    if (unit.outputBusses()[0].setFormat(format) != noErr ||
        unit.inputBusses()[0].setFormat(format) != noErr)
        throw AUAudioUnitError(kAudioUnitErr_FormatNotSupported,
                               "the audio unit does not render at " +
                                   std::to_string(std::lround(sampleRate)) + " Hz");
    unit.setMaximumFramesToRender(callFramesFor(periodFrames));
    unit.allocateRenderResources();
    cycle.prepare(unit.renderBlock(), unit.maximumFramesToRender());
    announcePending = true;
    configuredRate.store(sampleRate, std::memory_order_relaxed);
    wrongRate.store(false, std::memory_order_release);
    resume();
}

void AudioEngine::serverRateChanged(double sampleRate) {
    if (sampleRate != configuredRate.load(std::memory_order_relaxed))
        wrongRate.store(true, std::memory_order_release);
}

void AudioEngine::announce(double sampleTime) {
    announcePending = false;
    LineBuilder<> line;
    line << "sr-chorus: the audio unit renders at " << std::uint64_t(std::llround(rate))
         << " Hz in calls of up to " << std::uint32_t(cycle.callFrames())
         << " frames, from sample time " << std::int64_t(sampleTime) << "\n";
    safeprint(line.view());
}

OSStatus AudioEngine::sendMIDI(AUEventSampleTime time, NSInteger length,
                               const std::uint8_t* bytes) {
    // Only ever called from inside a render call, where currentMidiOut is this cycle's.
    if (!currentMidiOut || !bytes || length <= 0) return noErr;
    if (!currentMidiOut->write(cycle.outputFrame(time), bytes, std::size_t(length)))
        ++outputDropped;
    return noErr;
}

} // namespace sr::app
