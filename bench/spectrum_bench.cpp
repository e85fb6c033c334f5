// The spectrum's costs. On the render thread: the tap's copy of each cycle's input (the mean of
// left and right into the ring) per stereo frame, with an editor's tap open and emptied as the
// LV2 plug-in empties it (every 1600 frames, 30 times a second at 48 kHz), and with none open.
// On the editor's thread: one timer call's analysis (FFT of 8192 samples and the bar's 920
// columns); editor_bench.cpp times a redraw with the spectrum showing.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "editor/SpectrumAnalyzer.h"
#include "editor/SpectrumDisplay.h"
#include "platform/InputTap.h"

namespace {

std::vector<float> noise(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-0.5f, 0.5f);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

// The render thread's whole share: the copy into the ring, and every 1600 frames the copy out
// of it into a message (as the plug-in forges it into the notify port).
void BM_InputTapCopy(benchmark::State& state) {
    const auto frames = std::uint32_t(state.range(0));
    const bool open = state.range(1) != 0;
    const std::vector<float> left = noise(frames, 1), right = noise(frames, 2);
    std::vector<float> message(8192);
    sr::InputTap tap;
    if (open) tap.open();
    std::uint32_t sinceTaken = 0;
    for (auto _ : state) {
        tap.write(left.data(), right.data(), frames);
        sinceTaken += frames;
        if (sinceTaken >= 1600) {
            float* to = message.data();
            tap.take(8192, [&to](const float* p, std::uint32_t n) {
                std::memcpy(to, p, n * sizeof(float));
                to += n;
            });
            sinceTaken = 0;
        }
        benchmark::ClobberMemory();
    }
    state.counters["ns_per_frame"] =
        benchmark::Counter(double(state.iterations()) * frames,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_SpectrumTimerCall(benchmark::State& state) {
    sr::editor::SpectrumAnalyzer analyzer(48000.0);
    sr::editor::SpectrumDisplay display;
    sr::editor::SplitAxis axis;
    axis.update(0.33, 0.66, 48000.0);
    const std::vector<float> input = noise(1920, 3); // 40 ms at 48 kHz
    for (auto _ : state) {
        analyzer.push(input.data(), input.size());
        display.update(analyzer.analyse(), analyzer.binHz(), axis, 0.04);
        benchmark::DoNotOptimize(display.input(400));
    }
}

} // namespace

BENCHMARK(BM_InputTapCopy)->Args({64, 1})->Args({512, 1})->Args({512, 0});
BENCHMARK(BM_SpectrumTimerCall)->Unit(benchmark::kMicrosecond);
