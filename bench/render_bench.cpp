// Time of the whole render path (pull, event frame, band split, chorus, mix) per stereo frame,
// at 48 kHz with the default parameters and noise input, driven as the renderer drives it.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "cli/OfflineRenderer.h"
#include "platform/PrintQueue.h"

namespace {

void BM_RenderPath(benchmark::State& state) {
    const auto frames = std::uint32_t(state.range(0));
    sr::printQueue().setSink([](std::string_view) {}); // the kernel's parameter log is not timed
    {
        sr::cli::OfflineRenderer renderer(48000.0, 2, frames);

        std::mt19937 rng(1);
        std::uniform_real_distribution<float> dist(-0.5f, 0.5f);
        std::vector<float> left(frames), right(frames), outLeft(frames), outRight(frames);
        for (std::size_t i = 0; i < frames; ++i) {
            left[i] = dist(rng);
            right[i] = dist(rng);
        }
        const float* const in[] = {left.data(), right.data()};
        float* const out[] = {outLeft.data(), outRight.data()};
        for (auto _ : state) {
            benchmark::DoNotOptimize(renderer.renderPlanar(in, out, frames));
            benchmark::ClobberMemory();
        }
        state.SetItemsProcessed(state.iterations() * std::int64_t(frames));
        state.counters["ns_per_frame"] =
            benchmark::Counter(double(state.iterations()) * frames,
                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    }
    sr::printQueue().flush();
    sr::printQueue().setSink(nullptr);
}

} // namespace

BENCHMARK(BM_RenderPath)->Arg(64)->Arg(512)->Arg(4096);
