#include "effects/Echo.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "util/SafeConvert.h"

namespace {

constexpr unsigned char kPresets[Echo::kPresetCount][Echo::kParameterCount] = {
    {67, 64, 35, 64, 30, 59, 0},    {67, 64, 21, 64, 30, 59, 0},    {67, 75, 60, 64, 30, 59, 10},
    {67, 60, 44, 64, 30, 0, 0},     {67, 60, 102, 50, 30, 82, 48},  {67, 64, 44, 17, 0, 82, 24},
    {81, 60, 46, 118, 100, 68, 18}, {81, 60, 26, 100, 127, 67, 36}, {62, 64, 28, 64, 100, 90, 55},
};

// Common delay in samples: up to 1.5 s.
std::int64_t delayLaw(unsigned char v, int sampleRate) {
    return 1 + sr::truncSaturate<std::int64_t>(v / 127.0 * sampleRate * 1.5);
}

// Left/right offset in samples, exponential in the distance from the centre 64, up to 0.511 s.
std::int64_t lrDelayLaw(unsigned char v, int sampleRate) {
    const int distance = std::abs(v - 64);
    double t = (std::pow(2.0, distance / 64.0 * 9.0) - 1.0) / 1000.0 * sampleRate;
    if (v < 64) t = -t;
    return sr::truncSaturate<std::int64_t>(t);
}

int toInt(std::int64_t v) {
    return int(std::clamp<std::int64_t>(v, std::numeric_limits<int>::min(),
                                        std::numeric_limits<int>::max()));
}

} // namespace

Echo::Echo(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), insertion(insertion), volumeParam(50), panningParam(64),
      delayParam(60), lrDelayParam(100), crossParam(100), feedbackParam(40), dampParam(60) {
    // Both lines are sized once for the longest delay plus the widest offset at the rate in
    // force now, so that parameter changes on the render thread only move the lengths.
    const int rate = globals.SAMPLE_RATE;
    const std::int64_t widest =
        std::max(std::llabs(lrDelayLaw(0, rate)), std::llabs(lrDelayLaw(127, rate)));
    lineCapacity = toInt(
        std::clamp<std::int64_t>(delayLaw(127, rate) + widest, 1, std::numeric_limits<int>::max()));
    lineLeft = std::make_unique<float[]>(std::size_t(lineCapacity));
    lineRight = std::make_unique<float[]>(std::size_t(lineCapacity));
    preset = 0;
    setPreset(0);
    cleanup();
}

Echo::~Echo() = default;

void Echo::cleanup() {
    std::fill_n(lineLeft.get(), leftLength, 0.0f);
    std::fill_n(lineRight.get(), rightLength, 0.0f);
    lastLeft = lastRight = 0.0f;
}

void Echo::initdelays() {
    posLeft = posRight = 0;
    const std::int64_t left = std::int64_t(delaySamples) - lrDelaySamples;
    const std::int64_t right = std::int64_t(delaySamples) + lrDelaySamples;
    // The clamp to the capacity only bites after a sample-rate rise since construction.
    leftLength = int(std::clamp<std::int64_t>(left, 1, lineCapacity));
    rightLength = int(std::clamp<std::int64_t>(right, 1, lineCapacity));
    cleanup();
}

void Echo::setVolume(unsigned char v) {
    volumeParam = v;
    if (insertion != 0) {
        outVolume = v / 127.0f;
        volume = outVolume;
    } else {
        outVolume = float(std::pow(0.01, 1.0 - v / 127.0) * 4.0);
        volume = 1.0f;
    }
    if (v == 0) cleanup();
}

void Echo::setDelay(unsigned char v) {
    delayParam = v;
    delaySamples = toInt(delayLaw(v, globals.SAMPLE_RATE));
    initdelays();
}

void Echo::setLrDelay(unsigned char v) {
    lrDelayParam = v;
    lrDelaySamples = toInt(lrDelayLaw(v, globals.SAMPLE_RATE));
    initdelays();
}

void Echo::setParameterChar(int index, unsigned char value) {
    const unsigned char v = clampByte(value);
    switch (index) {
    case 0:
        setVolume(v);
        break;
    case 1:
        panningParam = v;
        // The half-step offset (64 feeds 0.508 of the left input) is kept as designed.
        panning = (v + 0.5f) / 127.0f;
        break;
    case 2:
        setDelay(v);
        break;
    case 3:
        setLrDelay(v);
        break;
    case 4:
        crossParam = v;
        crossAmount = v / 127.0f;
        break;
    case 5:
        feedbackParam = v;
        // Divided by 128, not 127: full feedback stays just below unity gain.
        feedback = v / 128.0f;
        break;
    case 6:
        dampParam = v;
        damp = 1.0f - v / 127.0f;
        break;
    default:
        break;
    }
}

unsigned char Echo::getParameter_Char(int index) {
    switch (index) {
    case 0:
        return volumeParam;
    case 1:
        return panningParam;
    case 2:
        return delayParam;
    case 3:
        return lrDelayParam;
    case 4:
        return crossParam;
    case 5:
        return feedbackParam;
    case 6:
        return dampParam;
    default:
        return 0;
    }
}

void Echo::setPreset(unsigned char npreset) {
    if (npreset >= kPresetCount) npreset = kPresetCount - 1;
    for (int i = 0; i < kParameterCount; ++i) setParameterChar(i, kPresets[npreset][i]);
    // An insertion echo is mixed over the dry signal, so its presets run at half volume.
    if (insertion != 0) setParameterChar(0, kPresets[npreset][0] / 2);
    preset = npreset;
}

void Echo::process(float* left, float* right) {
    const int n = globals.SOUND_BUFFER_SIZE;
    float* const lineL = lineLeft.get();
    float* const lineR = lineRight.get();
    float* const outL = outLeft;
    float* const outR = outRight;
    const float k = crossAmount;
    const float panL = panning;
    const float panR = 1.0f - panning;
    const float fb = feedback;
    const float dampIn = damp;
    const float dampKeep = 1.0f - damp;
    const int lenL = leftLength;
    const int lenR = rightLength;
    float lastL = lastLeft;
    float lastR = lastRight;
    int posL = posLeft;
    int posR = posRight;

    for (int i = 0; i < n; ++i) {
        const float dl = lineL[posL];
        const float dr = lineR[posR];
        const float l = dl * (1.0f - k) + dr * k;
        const float r = dr * (1.0f - k) + dl * k;
        outL[i] = 2.0f * l;
        outR[i] = 2.0f * r;

        // The feedback is subtracted: each repeat comes back with inverted polarity.
        const float nl = (left[i] * panL - l * fb) * dampIn + lastL * dampKeep;
        const float nr = (right[i] * panR - r * fb) * dampIn + lastR * dampKeep;
        lineL[posL] = nl;
        lineR[posR] = nr;
        lastL = nl;
        lastR = nr;

        if (++posL >= lenL) posL = 0;
        if (++posR >= lenR) posR = 0;
    }

    lastLeft = lastL;
    lastRight = lastR;
    posLeft = posL;
    posRight = posR;
}
