// Time of the whole render path (pull, event frame, band split, chorus, mix) per stereo frame,
// at 48 kHz with the default parameters and noise input.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "kernel/TAV_SR_Chorus_ExtensionDSPKernelAdapter.h"
#include "kernel/TAV_SR_Chorus_Extension_Parameters.h"
#include "platform/PrintQueue.h"

namespace {

void BM_RenderPath(benchmark::State& state) {
    const auto frames = AUAudioFrameCount(state.range(0));
    sr::printQueue().setSink([](std::string_view) {}); // the kernel's parameter log is not timed

    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter;
    TAV_SR_Chorus_Extension_Parameters parameters(adapter);
    adapter.allocateRenderResources();
    for (AUParameter* p : parameters.parameterTree().allParameters())
        adapter.setParameter(p, p->value());
    AURenderBlock render = adapter.internalRenderBlock();

    std::mt19937 rng(1);
    std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
    std::vector<float> noise(size_t(frames) * 2 * 64);
    for (float& v : noise) v = dist(rng);
    std::vector<float> outLeft(frames), outRight(frames);

    size_t cursor = 0;
    auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount n,
                    NSInteger, AudioBufferList* in) -> AUAudioUnitStatus {
        for (std::uint32_t c = 0; c < in->mNumberBuffers; ++c) {
            auto* dst = static_cast<float*>(in->mBuffers[c].mData);
            for (AUAudioFrameCount i = 0; i < n; ++i)
                dst[i] = noise[(cursor + 2 * i + c) % noise.size()];
        }
        cursor = (cursor + 2 * n) % noise.size();
        return noErr;
    };
    AudioBufferList out;
    out.mNumberBuffers = 2;
    AudioTimeStamp ts;
    for (auto _ : state) {
        out.mBuffers[0] = {1, frames * 4, outLeft.data()};
        out.mBuffers[1] = {1, frames * 4, outRight.data()};
        AudioUnitRenderActionFlags flags = 0;
        benchmark::DoNotOptimize(render(&flags, &ts, frames, 0, &out, nullptr, pull));
        benchmark::ClobberMemory();
        ts.mSampleTime += frames;
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(frames));
    state.counters["ns_per_frame"] =
        benchmark::Counter(double(state.iterations()) * frames,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    adapter.deallocateRenderResources();
    sr::printQueue().flush();
    sr::printQueue().setSink(nullptr);
}

} // namespace

BENCHMARK(BM_RenderPath)->Arg(64)->Arg(512)->Arg(4096);
