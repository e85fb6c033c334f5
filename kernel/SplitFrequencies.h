// Where the split points divide the bands, in Hz: the frequencies at which the low and middle
// band, and the middle and high band, come out at equal level. Computed from the band
// splitter's own coefficients at the given rate (its filters' transfer functions), so the
// figures follow the filters wherever they go. Any thread; allocates nothing.
#pragma once

#include <complex>

namespace sr {

struct SplitFrequencies {
    double lower = 0.0; // low / middle crossing, Hz
    double upper = 0.0; // middle / high crossing, Hz
};

// `lowerValue` and `upperValue` are the split parameters (0..1, before the kernel's square
// root), limited by each other as the kernel limits them. A crossing that the filters do not
// reach below Nyquist is reported as Nyquist.
SplitFrequencies splitFrequencies(float lowerValue, float upperValue, double sampleRate);

// Each split point's law, value -> Hz, for `count` values in rising order, written to `hz`:
// the lower point's crossings (they do not depend on where the upper point is), and the upper
// point's with the lower one at `lowerValue` (they do). Each search starts from the last
// crossing, so a table of many values costs a fraction of as many splitFrequencies calls.
void lowerCrossings(const float* values, int count, double sampleRate, double* hz);
void upperCrossings(float lowerValue, const float* values, int count, double sampleRate,
                    double* hz);

// The three bands' responses at one frequency, for a spectrum drawn on the same axis.
struct BandResponse {
    std::complex<double> low, middle, high;
};
BandResponse bandResponse(float lowerValue, float upperValue, double sampleRate, double hz);

// "219 Hz", "1.86 kHz": three significant figures, as the panel and the tools print them.
// Writes at most `size` bytes including the terminating zero.
void formatHz(double hz, char* text, int size);

} // namespace sr
