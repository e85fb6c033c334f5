#include "effects/Chorus.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// Factory presets, parameters 0..11 in index order.
constexpr unsigned char kPresets[Chorus::kPresetCount][Chorus::kParameterCount] = {
    {64, 64, 50, 0, 0, 90, 40, 85, 64, 119, 0, 0},   {64, 64, 45, 0, 0, 98, 56, 90, 64, 19, 0, 0},
    {64, 64, 29, 0, 1, 42, 97, 95, 90, 127, 0, 0},   {64, 64, 26, 0, 0, 42, 115, 18, 90, 127, 0, 0},
    {64, 64, 29, 117, 0, 50, 115, 9, 31, 127, 0, 1}, {64, 64, 57, 0, 0, 60, 23, 3, 62, 0, 0, 0},
    {64, 64, 33, 34, 1, 40, 35, 3, 109, 0, 0, 0},    {64, 64, 53, 34, 1, 94, 35, 3, 54, 0, 0, 1},
    {64, 64, 40, 0, 1, 62, 12, 19, 97, 0, 0, 0},     {64, 64, 55, 105, 0, 24, 39, 19, 17, 0, 0, 1},
};

int halfSecond(const EffectGlobals& globals) {
    return std::max(1, int(float(globals.SAMPLE_RATE) * 0.5f));
}

} // namespace

Chorus::Chorus(EffectGlobals& globals, int insertion, float* outLeft, float* outRight)
    : Effect(globals, outLeft, outRight), lfo(globals), insertion(insertion),
      maxDelay(halfSecond(globals)), lineLeft(size_t(maxDelay)), lineRight(size_t(maxDelay)) {
    filterParams = nullptr;
    preset = 0;
    setPreset(0);
    lfo.process(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
    cleanup();
}

Chorus::~Chorus() = default;

void Chorus::cleanup() {
    std::fill(lineLeft.begin(), lineLeft.end(), 0.0f);
    std::fill(lineRight.begin(), lineRight.end(), 0.0f);
    // The next block starts at the delay of the current settings instead of gliding from the
    // ones in force before the clear (the construction preset, at start-up).
    lfo.current(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
}

void Chorus::sampleRateChanged() {
    const int samples = halfSecond(globals);
    if (samples == maxDelay) return;
    maxDelay = samples;
    lineLeft.assign(size_t(maxDelay), 0.0f);
    lineRight.assign(size_t(maxDelay), 0.0f);
    writeLeft = writeRight = 0;
    lfo.current(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);
}

float Chorus::getdelay(float x) const {
    float result = flangeMode ? 0.0f : (delay + x * depth) * float(globals.SAMPLE_RATE);
    // Written so that a non-finite delay also lands inside the line.
    if (!(result + 0.5f < float(maxDelay))) result = float(maxDelay - 1);
    return result;
}

Chorus::Block Chorus::beginBlock() {
    const int n = globals.SOUND_BUFFER_SIZE;
    leftDelayOld = leftDelayNew;
    rightDelayOld = rightDelayNew;
    lfo.process(&lfoLeft, &lfoRight);
    leftDelayNew = getdelay(lfoLeft);
    rightDelayNew = getdelay(lfoRight);

    const float sign = subtractOutput ? -1.0f : 1.0f;
    const float nearest = -0.5f * float(maxDelay);
    return Block{
        .lineLeft = lineLeft.data(),
        .lineRight = lineRight.data(),
        .maxDelay = maxDelay,
        .write = {writeLeft, writeRight},
        .delayOld = {leftDelayOld, rightDelayOld},
        .delayNew = {leftDelayNew, rightDelayNew},
        .frames = n,
        .done = 0,
        .wrapOffset = 2.0f * float(maxDelay),
        .keep = sr::simd::splat(1.0f - crossAmount),
        .cross = sr::simd::splat(crossAmount),
        .feedback = sr::simd::splat(feedback),
        .panning = sr::simd::stereo(sign * (1.0f - panning), sign * panning),
        .nearDelays = maxDelay >= 16 && leftDelayOld >= nearest && leftDelayNew >= nearest &&
                      rightDelayOld >= nearest && rightDelayNew >= nearest,
    };
}

void Chorus::endBlock(const Block& block) {
    writeLeft = block.write[0];
    writeRight = block.write[1];
    lfo.foresee();
}

namespace {

// The taps of a chunk, N frames of a channel per vector.
template <int N>
[[gnu::always_inline]] inline void tapsOfChunk(Chorus::Block& b, int count,
                                               Chorus::Block::Taps& taps) {
    Chorus::Block::TapLanes<N> lanes(b);
    for (int g = 0; g < count; g += N) lanes.group(taps, g);
    Chorus::Block::TapLanes<N>::finish(b, taps, count - 1, count);
}

void tapsFourWide(Chorus::Block& b, int count, Chorus::Block::Taps& taps) {
    tapsOfChunk<4>(b, count, taps);
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// Eight frames per vector where the processor has AVX2: the same operations lane by lane, so
// the same bits, in half the instructions.
[[gnu::target("avx2")]] void tapsEightWide(Chorus::Block& b, int count, Chorus::Block::Taps& taps) {
    tapsOfChunk<8>(b, count, taps);
}
#else
void tapsEightWide(Chorus::Block& b, int count, Chorus::Block::Taps& taps) {
    tapsOfChunk<4>(b, count, taps);
}
#endif

} // namespace

template <>
void Chorus::Block::computeTaps<true>(int count, Taps& taps) {
    if (sr::simd::wideVectors())
        tapsEightWide(*this, count, taps);
    else
        tapsFourWide(*this, count, taps);
}

// Any delays: a frame at a time, the remainders by division.
template <>
void Chorus::Block::computeTaps<false>(int count, Taps& taps) {
    const float n = float(frames);
    for (int k = 0; k < count; ++k) {
        const int i = done + k;
        for (int c = 0; c < 2; ++c) {
            const float d = (delayOld[c] * float(frames - i) + delayNew[c] * float(i)) / n;
            if (++write[c] >= maxDelay) write[c] = 0;
            const float pos = (float(write[c]) - d) + wrapOffset;
            int hi = pos > 0.0f ? int(pos) : int(pos - 1.0f);
            hi %= maxDelay;
            taps.hi[c][k] = hi;
            taps.lo[c][k] = (hi - 1 + maxDelay) % maxDelay;
            taps.write[c][k] = write[c];
            const float w = 1.0f - std::fmod(pos, 1.0f);
            taps.weight[k][c] = w;
            taps.weight[k][c + 2] = 1.0f - w;
        }
    }
    done += count;
}

template <bool NearDelays>
void Chorus::processFrames(Block& block, const float* left, const float* right) {
    Block::Taps taps;
    const int n = globals.SOUND_BUFFER_SIZE;
    for (int first = 0; first < n; first += Block::Taps::kFrames) {
        const int count = std::min(n - first, Block::Taps::kFrames);
        block.computeTaps<NearDelays>(count, taps);
        for (int k = 0; k < count; ++k) {
            const int i = first + k;
            const sr::simd::f32x4 wet = block.step(taps, k, sr::simd::stereo(left[i], right[i]));
            outLeft[i] = wet[0];
            outRight[i] = wet[1];
        }
    }
}

void Chorus::process(float* left, float* right) {
    if (globals.SOUND_BUFFER_SIZE <= 0) return;
    Block block = beginBlock();
    if (block.nearDelays)
        processFrames<true>(block, left, right);
    else
        processFrames<false>(block, left, right);
    endBlock(block);
}

void Chorus::setPreset(unsigned char npreset) {
    if (npreset >= kPresetCount) npreset = kPresetCount - 1;
    for (int n = 0; n < kParameterCount; ++n) setParameterChar(n, kPresets[npreset][n]);
    preset = npreset;
}

void Chorus::setVolume(unsigned char v) {
    volumeParam = v;
    setLinearVolume(insertion, v);
}

void Chorus::setPanning(unsigned char v) {
    panningParam = v;
    panning = v / 127.0f;
}

void Chorus::setDepth(unsigned char v) {
    depthParam = v;
    depth = float((std::pow(8.0, (v / 127.0) * 2.0) - 1.0) / 1000.0);
}

void Chorus::setDelay(unsigned char v) {
    delayParam = v;
    delay = float((std::pow(10.0, (v / 127.0) * 2.0) - 1.0) / 1000.0);
}

void Chorus::setFeedback(unsigned char v) {
    feedbackParam = v;
    feedback = float((clampByte(v) - 64.0) / 64.1);
}

void Chorus::setCross(unsigned char v) {
    crossParam = v;
    crossAmount = clampByte(v) / 127.0f;
}

void Chorus::setParameterChar(int index, unsigned char value) {
    switch (index) {
    case 0:
        setVolume(value);
        break;
    case 1:
        setPanning(value);
        break;
    case 2: // LFO frequency, randomness, shape, stereo
    case 3:
    case 4:
    case 5:
        lfo.setParameterChar(index - 2, value);
        break;
    case 6:
        setDepth(value);
        break;
    case 7:
        setDelay(value);
        break;
    case 8:
        setFeedback(value);
        break;
    case 9:
        setCross(value);
        break;
    case 10:
        flangeMode = value > 1 ? 1 : value;
        break;
    case 11:
        subtractOutput = value > 1 ? 1 : value;
        break;
    default:
        break;
    }
}

unsigned char Chorus::getParameter_Char(int index) {
    switch (index) {
    case 0:
        return volumeParam;
    case 1:
        return panningParam;
    case 2:
    case 3:
    case 4:
    case 5:
        return lfo.getParameter_Char(index - 2);
    case 6:
        return depthParam;
    case 7:
        return delayParam;
    case 8:
        return feedbackParam;
    case 9:
        return crossParam;
    case 10:
        return flangeMode;
    case 11:
        return subtractOutput;
    default:
        return 0;
    }
}
