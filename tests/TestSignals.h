// Test signals and comparisons shared by the test files.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace sr::test {

struct Stereo {
    std::vector<float> left, right;
    explicit Stereo(std::size_t n = 0) : left(n), right(n) {}
    std::size_t size() const { return left.size(); }
};

// Uniform noise in [-amplitude, amplitude), different on each side.
inline Stereo noise(std::size_t n, unsigned seed = 1, float amplitude = 0.5f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-amplitude, amplitude);
    Stereo s(n);
    for (std::size_t i = 0; i < n; ++i) {
        s.left[i] = d(rng);
        s.right[i] = d(rng);
    }
    return s;
}

inline Stereo silence(std::size_t n) {
    return Stereo(n);
}

inline Stereo impulse(std::size_t n, std::size_t at = 0) {
    Stereo s(n);
    s.left[at] = s.right[at] = 1.0f;
    return s;
}

// Full-scale square wave.
inline Stereo square(std::size_t n, std::size_t halfPeriod = 50) {
    Stereo s(n);
    for (std::size_t i = 0; i < n; ++i) s.left[i] = s.right[i] = (i / halfPeriod) % 2 ? -1.f : 1.f;
    return s;
}

inline bool bitIdentical(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Energy of (test - reference) relative to the reference's, in dB.
inline double differenceDb(const std::vector<float>& reference, const std::vector<float>& test) {
    double error = 0, energy = 0;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        error += (double(test[i]) - reference[i]) * (double(test[i]) - reference[i]);
        energy += double(reference[i]) * reference[i];
    }
    return 10.0 * std::log10((error + 1e-30) / (energy + 1e-30));
}

// The output limiter's pre-gain of -0.01 dB as the linear factor it multiplies by.
inline const float kLimiterPreGain = float(std::pow(10.0, -0.01 / 20.0));

inline std::vector<float> scaled(std::vector<float> samples, float gain) {
    for (float& s : samples) s *= gain;
    return samples;
}

inline bool allFinite(const std::vector<float>& samples) {
    return std::all_of(samples.begin(), samples.end(), [](float s) { return std::isfinite(s); });
}

inline float peak(const std::vector<float>& samples) {
    float p = 0.0f;
    for (float s : samples) p = std::max(p, std::fabs(s));
    return p;
}

} // namespace sr::test
