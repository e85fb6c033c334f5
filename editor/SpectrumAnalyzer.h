// The spectrum of the plug-in's input for the split bar: samples (the mean of left and right)
// come in as the host delivers them; the newest window of them is weighted (Hann) and
// transformed with FFTW, and each bin's power is given in dB relative to a full-scale sine.
// The window is about a sixth of a second at any rate. Also averages a whole recording, for a
// still picture of it.
// Threading: one thread, the owner's (the editor's); nothing here runs on the render thread.
#pragma once

#include <cstddef>
#include <vector>

namespace sr::editor {

class SpectrumAnalyzer {
public:
    explicit SpectrumAnalyzer(double sampleRate = 48000.0);
    ~SpectrumAnalyzer();
    SpectrumAnalyzer(const SpectrumAnalyzer&) = delete;
    SpectrumAnalyzer& operator=(const SpectrumAnalyzer&) = delete;

    // A new rate forgets the samples and picks the window for it.
    void setSampleRate(double sampleRate);
    double sampleRate() const { return rate; }
    std::size_t windowSize() const { return size; }
    // Width of a bin, Hz.
    double binHz() const { return rate / double(size); }

    // Samples of the input, oldest first.
    void push(const float* samples, std::size_t count);
    // Samples came since the last analyse().
    bool hasNewSamples() const { return fresh; }
    // The newest window's spectrum: windowSize() / 2 + 1 bins, dB (a full-scale sine's bin
    // reads 0 dB; silence reads kFloorDb).
    const std::vector<float>& analyse();

    // For a recording: every half window of `samples` is analysed and its power added up;
    // averageDb() is the mean power per bin, in dB, of all windows so far.
    void accumulate(const float* samples, std::size_t count);
    std::vector<float> averageDb() const;

    static constexpr float kFloorDb = -160.0f;
    // The window for a rate: a power of two of about rate / 6 samples, 4096 to 32768.
    static std::size_t windowFor(double sampleRate);

private:
    void transform(const float* newestWindow);
    void release();

    double rate = 0.0;
    std::size_t size = 0;
    std::vector<float> history; // the newest `size` samples, a ring
    std::size_t written = 0;    // samples pushed since the rate was set
    bool fresh = false;
    std::vector<float> window, power, decibels, ordered;
    // FFTW's buffers and plan (aligned memory of its own).
    float* in = nullptr;
    void* out = nullptr;
    void* plan = nullptr;
    // accumulate(): the samples not yet a whole hop, the summed power, the windows summed.
    std::vector<float> pending;
    std::vector<double> sum;
    std::size_t windows = 0;
};

} // namespace sr::editor
