// A full redraw of the editor panel (frame and panel) into an image surface, as a window's back
// buffer is drawn: default settings, at 1024 x 400 and at 2048 x 800, and with a spectrum;
// and the same with the preset browser open over it, listing the shipped presets with one of
// them selected.
#include <benchmark/benchmark.h>

#include <cairo.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <vector>

#include "editor/PanelImage.h"
#include "editor/SpectrumAnalyzer.h"
#include "kernel/ParameterTable.h"
#include "platform/PrintQueue.h"

namespace {

void BM_PanelRedraw(benchmark::State& state) {
    const int width = int(state.range(0)), height = int(state.range(1));
    // The panel's own log lines are not part of the figure.
    sr::printQueue().setSink([](std::string_view) {});
    float values[sr::kParameterCount];
    for (std::size_t a = 0; a < sr::kParameterCount; ++a)
        values[a] = sr::kParameterTable[a].defaultValue;
    sr::editor::PanelSnapshot snapshot(values);
    // With a third argument of 1, the spectrum of noise shows behind the split bar (the worst
    // case: every column jagged).
    if (state.range(2)) {
        sr::editor::SpectrumAnalyzer analyzer(48000.0);
        std::mt19937 rng(4);
        std::uniform_real_distribution<float> d(-0.5f, 0.5f);
        std::vector<float> input(analyzer.windowSize());
        for (float& x : input) x = d(rng);
        analyzer.push(input.data(), input.size());
        snapshot.controller().showSpectrum(analyzer.analyse(), analyzer.binHz());
    }
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t* cr = cairo_create(surface);
    for (auto _ : state) {
        snapshot.controller().draw(cr, {0, 0, double(width), double(height)});
        cairo_surface_flush(surface);
        benchmark::ClobberMemory();
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    sr::printQueue().flush();
}

void BM_BrowserRedraw(benchmark::State& state) {
    namespace fs = std::filesystem;
    const int width = int(state.range(0)), height = int(state.range(1));
    sr::printQueue().setSink([](std::string_view) {});
    char pattern[] = "/tmp/sr-bench-browser.XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (!made) {
        state.SkipWithError("cannot make a temporary folder");
        return;
    }
    const fs::path documents(made);
    fs::create_directories(documents / "Presets/Factory");
    for (const auto& e : fs::directory_iterator(SR_FACTORY_PRESETS))
        fs::copy_file(e.path(), documents / "Presets/Factory" / e.path().filename());
    float values[sr::kParameterCount];
    for (std::size_t a = 0; a < sr::kParameterCount; ++a)
        values[a] = sr::kParameterTable[a].defaultValue;
    sr::editor::PanelSnapshot snapshot(values);
    sr::editor::AudioUnitViewController& controller = snapshot.controller();
    controller.documentsPath = documents.string() + "/";
    controller.performSegue("showPresets");
    controller.presetsViewController.tableView.selectedRow = 3;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t* cr = cairo_create(surface);
    for (auto _ : state) {
        controller.draw(cr, {0, 0, double(width), double(height)});
        cairo_surface_flush(surface);
        benchmark::ClobberMemory();
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    fs::remove_all(documents);
    sr::printQueue().flush();
}

} // namespace

BENCHMARK(BM_BrowserRedraw)->Args({1024, 400})->Args({2048, 800})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PanelRedraw)
    ->Args({1024, 400, 0})
    ->Args({2048, 800, 0})
    ->Args({1024, 400, 1})
    ->Unit(benchmark::kMillisecond);
