#include "editor/SpectrumAnalyzer.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>

namespace sr::editor {

namespace {

// FFTW's planner is not reentrant: every plan made or destroyed in this process by us goes
// through one lock (editors of several instances may live on several threads).
std::mutex& plannerLock() {
    static std::mutex lock;
    return lock;
}

} // namespace

std::size_t SpectrumAnalyzer::windowFor(double sampleRate) {
    std::size_t n = 4096;
    while (n < 32768 && double(n) < sampleRate / 6.0) n *= 2;
    return n;
}

SpectrumAnalyzer::SpectrumAnalyzer(double sampleRate) {
    setSampleRate(sampleRate);
}

SpectrumAnalyzer::~SpectrumAnalyzer() {
    release();
}

void SpectrumAnalyzer::release() {
    std::lock_guard<std::mutex> lock(plannerLock());
    if (plan) fftwf_destroy_plan(static_cast<fftwf_plan>(plan));
    fftwf_free(in);
    fftwf_free(out);
    plan = nullptr;
    in = nullptr;
    out = nullptr;
}

void SpectrumAnalyzer::setSampleRate(double sampleRate) {
    if (!(sampleRate > 0.0)) return;
    const std::size_t n = windowFor(sampleRate);
    rate = sampleRate;
    written = 0;
    fresh = false;
    pending.clear();
    sum.assign(n / 2 + 1, 0.0);
    windows = 0;
    if (n == size && plan) return;
    release();
    size = n;
    history.assign(n, 0.0f);
    window.resize(n);
    // Hann, scaled so that a full-scale sine at a bin's centre reads 0 dB there.
    double total = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        window[i] = float(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * double(i) / double(n)));
        total += window[i];
    }
    for (float& w : window) w = float(w * 2.0 / total);
    power.assign(n / 2 + 1, 0.0f);
    decibels.assign(n / 2 + 1, kFloorDb);
    std::lock_guard<std::mutex> lock(plannerLock());
    in = fftwf_alloc_real(n);
    auto* spectrum = fftwf_alloc_complex(n / 2 + 1);
    out = spectrum;
    plan = fftwf_plan_dft_r2c_1d(int(n), in, spectrum, FFTW_ESTIMATE);
}

void SpectrumAnalyzer::push(const float* samples, std::size_t count) {
    if (!samples || count == 0) return;
    // Only the newest window counts.
    if (count > size) {
        samples += count - size;
        count = size;
    }
    // What is not a number (a host may pass anything) counts as silence.
    for (std::size_t i = 0; i < count; ++i) {
        const float x = samples[i];
        history[(written + i) % size] = std::isfinite(x) ? x : 0.0f;
    }
    written += count;
    fresh = true;
}

void SpectrumAnalyzer::transform(const float* newest) {
    for (std::size_t i = 0; i < size; ++i) in[i] = newest[i] * window[i];
    fftwf_execute(static_cast<fftwf_plan>(plan));
    const auto* bins = static_cast<const fftwf_complex*>(out);
    for (std::size_t k = 0; k <= size / 2; ++k)
        power[k] = bins[k][0] * bins[k][0] + bins[k][1] * bins[k][1];
}

const std::vector<float>& SpectrumAnalyzer::analyse() {
    fresh = false;
    // The ring unrolled, oldest first; before a window is full, the rest is silence.
    ordered.resize(size);
    const std::size_t at = written % size;
    std::copy(history.begin() + std::ptrdiff_t(at), history.end(), ordered.begin());
    std::copy(history.begin(), history.begin() + std::ptrdiff_t(at),
              ordered.begin() + std::ptrdiff_t(size - at));
    transform(ordered.data());
    for (std::size_t k = 0; k < power.size(); ++k)
        decibels[k] =
            power[k] > 1e-16f ? std::max(kFloorDb, 10.0f * std::log10(power[k])) : kFloorDb;
    return decibels;
}

void SpectrumAnalyzer::accumulate(const float* samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        pending.push_back(std::isfinite(samples[i]) ? samples[i] : 0.0f);
    const std::size_t hop = size / 2;
    std::size_t start = 0;
    for (; start + size <= pending.size(); start += hop) {
        transform(pending.data() + start);
        for (std::size_t k = 0; k < power.size(); ++k) sum[k] += power[k];
        ++windows;
    }
    pending.erase(pending.begin(), pending.begin() + std::ptrdiff_t(start));
}

std::vector<float> SpectrumAnalyzer::averageDb() const {
    std::vector<float> db(sum.size(), kFloorDb);
    if (windows == 0) return db;
    for (std::size_t k = 0; k < sum.size(); ++k) {
        const double p = sum[k] / double(windows);
        if (p > 1e-16) db[k] = std::max(kFloorDb, float(10.0 * std::log10(p)));
    }
    return db;
}

} // namespace sr::editor
