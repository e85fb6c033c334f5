// Time per stereo frame of each layer of the render path on its own, at 48 kHz with the
// default parameters and noise input: the band split (split and mix), the chorus as the effect
// manager runs it (denormal noise, chorus, insertion law), the kernel (input copy, gains, split,
// chorus, mix, dry/wet) and the audio unit's render block as a host calls it (pull, event frame,
// kernel, limiter, meters).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "effects/EffectManager.h"
#include "kernel/BandSplitFilter3.h"
#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"
#include "util/Simd.h"

namespace {

// SR_BENCH_NARROW=1 times the baseline loops where AVX2 ones would run.
const bool narrow = [] {
    if (const char* v = std::getenv("SR_BENCH_NARROW"); v && *v == '1')
        sr::simd::allowWideVectors(false);
    return true;
}();

struct Noise {
    std::vector<float> left, right;
    // Uniform noise at -6 dBFS, or at another peak (0 for silence, 1e-39 for subnormal noise).
    explicit Noise(std::size_t frames, float peak = 0.5f) : left(frames), right(frames) {
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> dist(-peak, peak);
        for (std::size_t i = 0; i < frames; ++i) {
            left[i] = dist(rng);
            right[i] = dist(rng);
        }
    }
};

void perFrame(benchmark::State& state, std::int64_t frames) {
    state.SetItemsProcessed(state.iterations() * frames);
    state.counters["ns_per_frame"] =
        benchmark::Counter(double(state.iterations()) * double(frames),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The kernel logs every parameter it receives; those lines are not part of the figures.
struct QuietLog {
    QuietLog() {
        sr::printQueue().setSink([](std::string_view) {});
    }
    ~QuietLog() {
        sr::printQueue().flush();
        sr::printQueue().setSink(nullptr);
    }
};

void BM_BandSplit(benchmark::State& state) {
    const auto frames = int(state.range(0));
    BandSplitFilter3 split;
    split.setCutoff1(std::sqrt(0.33f));
    split.setCutoff2(std::sqrt(0.66f));
    const Noise in{std::size_t(frames)};
    std::vector<float> outLeft(std::size_t(frames), 0.0f), outRight(std::size_t(frames), 0.0f);
    for (auto _ : state) {
        split.split(in.left.data(), in.right.data(), frames);
        split.mix(outLeft.data(), outRight.data(), frames);
        benchmark::ClobberMemory();
    }
    perFrame(state, frames);
}

void BM_Chorus(benchmark::State& state) {
    const auto frames = int(state.range(0));
    EffectGlobals globals;
    std::vector<float> denormalKill(4096, 1e-17f);
    globals.denormalkillbuf = denormalKill.data();
    EffectManager manager(globals, 0, 1);
    manager.changeEffect(3);
    manager.setParameterChar(0, 127); // pure wet, as the kernel sets it
    const Noise in{std::size_t(frames)};
    std::vector<float> left(std::size_t(frames), 0.0f), right(std::size_t(frames), 0.0f);
    globals.SOUND_BUFFER_SIZE = frames;
    for (auto _ : state) {
        // The manager works in place: restoring the input is part of the figure (well under
        // 0.1 ns per frame).
        std::copy(in.left.begin(), in.left.end(), left.begin());
        std::copy(in.right.begin(), in.right.end(), right.begin());
        manager.process(left.data(), right.data());
        benchmark::ClobberMemory();
    }
    perFrame(state, frames);
}

void BM_Kernel(benchmark::State& state) {
    const QuietLog quiet;
    const auto frames = AUAudioFrameCount(state.range(0));
    auto kernel = std::make_unique<TAV_SR_Chorus_Extension_DSPKernel>();
    kernel->init(2, 48000.0);
    for (const sr::ParameterInfo& p : sr::kParameterTable)
        kernel->setParameter(p.address, p.defaultValue);
    const Noise in(frames);
    std::vector<float> outLeft(frames), outRight(frames);
    AudioBufferList input, output;
    input.mNumberBuffers = output.mNumberBuffers = 2;
    input.mBuffers[0] = {1, frames * 4, const_cast<float*>(in.left.data())};
    input.mBuffers[1] = {1, frames * 4, const_cast<float*>(in.right.data())};
    output.mBuffers[0] = {1, frames * 4, outLeft.data()};
    output.mBuffers[1] = {1, frames * 4, outRight.data()};
    kernel->setBuffers(&input, &output, 0);
    AudioTimeStamp time;
    for (auto _ : state) {
        kernel->processWithEvents(&time, frames, nullptr, nullptr);
        time.mSampleTime += frames;
        benchmark::ClobberMemory();
    }
    perFrame(state, frames);
}

void renderBlock(benchmark::State& state, float peak) {
    const QuietLog quiet;
    const auto frames = AUAudioFrameCount(state.range(0));
    {
        sr::DrainedMainQueue mainQueue;
        TAV_SR_Chorus_Extension_AudioUnit unit(kTAVSRChorusComponentDescription, mainQueue);
        const AVAudioFormat format(48000.0, 2);
        unit.outputBusses()[0].setFormat(format);
        unit.inputBusses()[0].setFormat(format);
        unit.allocateRenderResources();
        const AURenderBlock block = unit.renderBlock();
        const Noise in(frames, peak);
        std::vector<float> outLeft(frames), outRight(frames);
        auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount n,
                        NSInteger, AudioBufferList* input) -> AUAudioUnitStatus {
            std::copy_n(in.left.data(), n, static_cast<float*>(input->mBuffers[0].mData));
            std::copy_n(in.right.data(), n, static_cast<float*>(input->mBuffers[1].mData));
            return noErr;
        };
        AudioTimeStamp time;
        AudioBufferList output;
        output.mNumberBuffers = 2;
        for (auto _ : state) {
            output.mBuffers[0] = {1, frames * 4, outLeft.data()};
            output.mBuffers[1] = {1, frames * 4, outRight.data()};
            AudioUnitRenderActionFlags flags = 0;
            benchmark::DoNotOptimize(block(&flags, &time, frames, 0, &output, nullptr, pull));
            time.mSampleTime += frames;
            benchmark::ClobberMemory();
        }
        perFrame(state, frames);
        mainQueue.discard();
        unit.deallocateRenderResources();
    }
}

void BM_RenderBlock(benchmark::State& state) {
    renderBlock(state, 0.5f);
}
// The same with silence and with subnormal noise: the cost must not depend on the input.
void BM_RenderBlockSilence(benchmark::State& state) {
    renderBlock(state, 0.0f);
}
void BM_RenderBlockSubnormal(benchmark::State& state) {
    renderBlock(state, 1e-39f);
}

} // namespace

BENCHMARK(BM_BandSplit)->Arg(16)->Arg(64)->Arg(512);
BENCHMARK(BM_Chorus)->Arg(16)->Arg(64)->Arg(512);
BENCHMARK(BM_Kernel)->Arg(16)->Arg(64)->Arg(512);
BENCHMARK(BM_RenderBlock)->Arg(16)->Arg(64)->Arg(512);
BENCHMARK(BM_RenderBlockSilence)->Arg(64);
BENCHMARK(BM_RenderBlockSubnormal)->Arg(64);
