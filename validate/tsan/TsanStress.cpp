// The audio unit with its threads running at once, for ThreadSanitizer: a render thread pulls
// blocks of noise (a MIDI controller message in each), an editor thread sets every parameter
// through the tree and loads presets, and the main thread runs the main queue's tasks as a
// host's main loop does. Prints one summary line; any data race is ThreadSanitizer's report.
//
//   sr-tsan-stress [--blocks N] [--sets N] [--presets DIR] [--seed N]
#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "kernel/ParameterTable.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"
#include "platform/RenderEventList.h"

namespace {

namespace fs = std::filesystem;

constexpr AUAudioFrameCount kFrames = 32;
constexpr std::uint32_t kChannels = 2;
// One preset load from a file and one state round trip every this many rounds of sets.
constexpr int kPresetEvery = 25;

struct Options {
    int blocks = 500;
    int rounds = 500; // of all parameters each
    std::string presets = SR_FACTORY_PRESETS;
    std::uint32_t seed = 1;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        if (name == "--blocks")
            options.blocks = std::max(1, std::atoi(value));
        else if (name == "--sets")
            options.rounds = std::max(1, std::atoi(value));
        else if (name == "--presets")
            options.presets = value;
        else if (name == "--seed")
            options.seed = std::uint32_t(std::strtoul(value, nullptr, 10));
        else
            return false;
    }
    return argc % 2 == 1;
}

// A documents folder of its own, so the user's presets are neither read nor touched.
struct TemporaryFolder {
    std::string path;
    TemporaryFolder() {
        std::string pattern = (fs::temp_directory_path() / "sr-tsan-stress-XXXXXX").string();
        if (mkdtemp(pattern.data())) path = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ec;
        if (!path.empty()) fs::remove_all(path, ec);
    }
};

struct Counts {
    std::atomic<int> blocks{0}, renderErrors{0}, controllers{0};
    std::atomic<int> sets{0}, presetLoads{0}, presetFailures{0};
    std::atomic<std::uint64_t> tasks{0}, monitored{0};
    float shown = 0;
};

} // namespace

// Any report fails the run, even when TSAN_OPTIONS says nothing; the second stack of a lock
// inversion makes such a report readable.
extern "C" const char* __tsan_default_options() {
    return "exitcode=66:second_deadlock_stack=1";
}

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: sr-tsan-stress [--blocks N] [--sets N] [--presets DIR] [--seed N]\n");
        return 2;
    }
    Counts counts;
    // The unit logs a lot while presets load; not shown, to keep one summary line.
    sr::printQueue().setSink([](std::string_view) {});

    const TemporaryFolder documents;
    if (documents.path.empty()) {
        std::perror("sr-tsan-stress: temporary folder");
        return 2;
    }
    sr::DrainedMainQueue mainQueue;
    int status = 0;
    {
        TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, mainQueue);
        unit.setDocumentsDirectory(documents.path);
        unit.setFactoryPresetSource(options.presets);

        // Set up as the offline renderer does.
        const AVAudioFormat format = AVAudioFormat::standardFormatWithSampleRate(48000, kChannels);
        if (unit.outputBusses()[0].setFormat(format) != noErr ||
            unit.inputBusses()[0].setFormat(format) != noErr) {
            std::fprintf(stderr, "sr-tsan-stress: the busses refuse 48 kHz stereo\n");
            return 2;
        }
        std::atomic<int> midiSent{0};
        unit.setMIDIOutputEventBlock([&midiSent](AUEventSampleTime, std::uint8_t, NSInteger,
                                                 const std::uint8_t*) -> OSStatus {
            midiSent.fetch_add(1, std::memory_order_relaxed);
            return noErr;
        });
        try {
            unit.allocateRenderResources();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "sr-tsan-stress: cannot allocate: %s\n", e.what());
            return 2;
        }
        AURenderBlock render = unit.renderBlock();

        using Clock = std::chrono::steady_clock;
        double renderMs = 0, editorMs = 0;
        std::barrier start(2);
        std::atomic<int> editorRound{0};
        std::atomic<int> running{2};

        std::thread renderer([&] {
            std::mt19937 rng(options.seed);
            std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
            std::vector<float> input(std::size_t(options.blocks) * kFrames * kChannels);
            for (float& s : input) s = noise(rng);
            std::vector<float> output(kFrames * kChannels);
            RenderEventList<> events;
            AudioBufferList list;
            list.mNumberBuffers = kChannels;
            AudioTimeStamp timestamp;
            start.arrive_and_wait();
            const auto began = Clock::now();
            for (int b = 0; b < options.blocks; ++b) {
                // Paced by the editor's progress, so the two overlap from start to end. Relaxed
                // on purpose: the pacing must not order their memory accesses for the sanitizer.
                while (std::int64_t(editorRound.load(std::memory_order_relaxed)) * options.blocks <
                       std::int64_t(b) * options.rounds)
                    std::this_thread::yield();
                const float* blockInput = input.data() + std::size_t(b) * kFrames * kChannels;
                events.clear();
                // The main queue gets work: controller numbers cycle through all 128, so some
                // meet the editor's random controller bindings and set parameters there.
                const std::uint8_t cc[3] = {0xB0, std::uint8_t(b % 128), std::uint8_t(b * 7 % 128)};
                if (events.addMIDI(AUEventSampleTime(timestamp.mSampleTime) + 5, 0, cc, 3))
                    counts.controllers.fetch_add(1, std::memory_order_relaxed);
                auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                                AUAudioFrameCount n, NSInteger,
                                AudioBufferList* in) -> AUAudioUnitStatus {
                    if (n > kFrames || in->mNumberBuffers < kChannels)
                        return kAudioUnitErr_InvalidParameter;
                    for (std::uint32_t c = 0; c < kChannels; ++c) {
                        AudioBuffer& buffer = in->mBuffers[c];
                        if (!buffer.mData || buffer.mDataByteSize < n * sizeof(float))
                            return kAudioUnitErr_InvalidParameter;
                        std::copy_n(blockInput + std::size_t(c) * kFrames, n,
                                    static_cast<float*>(buffer.mData));
                        buffer.mDataByteSize = n * std::uint32_t(sizeof(float));
                    }
                    return noErr;
                };
                for (std::uint32_t c = 0; c < kChannels; ++c)
                    list.mBuffers[c] = {1, kFrames * std::uint32_t(sizeof(float)),
                                        output.data() + std::size_t(c) * kFrames};
                AudioUnitRenderActionFlags flags = 0;
                if (render(&flags, &timestamp, kFrames, 0, &list, events.head(), pull) != noErr)
                    counts.renderErrors.fetch_add(1, std::memory_order_relaxed);
                timestamp.mSampleTime += kFrames;
                counts.blocks.fetch_add(1, std::memory_order_relaxed);
            }
            renderMs = std::chrono::duration<double, std::milli>(Clock::now() - began).count();
            running.fetch_sub(1);
        });

        std::thread editor([&] {
            std::mt19937 rng(options.seed + 1);
            float shown = 0; // read, so the reads are not optimised away
            AUParameterTree& tree = *unit.parameterTree();
            // The preset list is read as a host's preset menu does: files are installed first.
            const std::vector<AUAudioUnitPreset> presets = unit.factoryPresets();
            start.arrive_and_wait();
            const auto began = Clock::now();
            for (int round = 0; round < options.rounds; ++round) {
                for (const sr::ParameterInfo& info : sr::kParameterTable) {
                    AUParameter* parameter = tree.parameterWithAddress(info.address);
                    std::uniform_real_distribution<float> value(info.minValue, info.maxValue);
                    if (parameter && parameter->setValue(value(rng)))
                        counts.sets.fetch_add(1, std::memory_order_relaxed);
                }
                // What an editor shows: the values the kernel works with, the meters and the
                // MIDI monitor, all written by the render thread.
                for (const sr::ParameterInfo& info : sr::kParameterTable)
                    shown += unit.getParameter(std::int32_t(info.address));
                shown += unit.getPeakInput() + unit.getPeakOutput();
                while (unit.getMonitorEvents()) counts.monitored.fetch_add(1);
                editorRound.store(round + 1, std::memory_order_relaxed);
                if (round % kPresetEvery != kPresetEvery - 1) continue;
                // No factory preset listed is a failed load too: the stress would be short of one.
                bool loaded = false;
                if (!presets.empty()) {
                    const AUAudioUnitPreset& preset =
                        presets[std::size_t(round / kPresetEvery) % presets.size()];
                    unit.setCurrentPreset(preset);
                    loaded = unit.currentPreset() && unit.currentPreset()->number == preset.number;
                }
                (loaded ? counts.presetLoads : counts.presetFailures).fetch_add(1);
                const bool restored = unit.setFullState(unit.fullState());
                (restored ? counts.presetLoads : counts.presetFailures).fetch_add(1);
            }
            counts.shown = shown;
            editorMs = std::chrono::duration<double, std::milli>(Clock::now() - began).count();
            running.fetch_sub(1);
        });

        // The host's main loop: the controller tasks the render thread hands over run here.
        while (running.load() > 0) {
            counts.tasks += mainQueue.drain();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        renderer.join();
        editor.join();
        counts.tasks += mainQueue.drain();
        unit.deallocateRenderResources();
        if (counts.renderErrors.load() > 0 || counts.presetFailures.load() > 0) status = 1;
        std::printf("sr-tsan-stress: %d x %u frames rendered (%d with a controller, %d render "
                    "errors), %d parameter sets, %d preset loads (%d failed), %llu main-queue "
                    "tasks run, %d MIDI out, %llu monitored; render %.0f ms, editor %.0f ms\n",
                    counts.blocks.load(), unsigned(kFrames), counts.controllers.load(),
                    counts.renderErrors.load(), counts.sets.load(), counts.presetLoads.load(),
                    counts.presetFailures.load(),
                    static_cast<unsigned long long>(counts.tasks.load()), midiSent.load(),
                    static_cast<unsigned long long>(counts.monitored.load()), renderMs, editorMs);
    }
    sr::printQueue().flush();
    return status;
}
