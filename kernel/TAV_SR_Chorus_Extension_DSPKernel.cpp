#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/PrintQueue.h"
#include "util/SafeConvert.h"

namespace {

// Kernel address 7..15 -> chorus parameter index.
constexpr int kChorusIndexForAddress[] = {6, 7, 8, 9, 1, 2, 3, 4, 5};

} // namespace

TAV_SR_Chorus_Extension_DSPKernel::TAV_SR_Chorus_Extension_DSPKernel(sr::LogChannel& log)
    : log_(log) {
    for (auto& p : parameters) p.store(0.0f, std::memory_order_relaxed);

    denormalKill.resize(size_t(globals.SOUND_BUFFER_SIZE));
    for (float& v : denormalKill) {
        const float quotient = float(globals.rand() / 2147483648.0);
        v = float((quotient - 0.5) * 1e-16);
    }
    globals.denormalkillbuf = denormalKill.data();

    effectManager = std::make_unique<EffectManager>(globals, 0, 1);
    effectManager->changeEffect(3);
    for (auto& p : parameters) p.store(0.0f, std::memory_order_relaxed);
}

TAV_SR_Chorus_Extension_DSPKernel::~TAV_SR_Chorus_Extension_DSPKernel() {
    effectManager.reset();
    globals.denormalkillbuf = nullptr;
}

void TAV_SR_Chorus_Extension_DSPKernel::init(int channels, double rate) {
    setSamplerate(float(rate));
    channelCount = channels;
    reset();
}

void TAV_SR_Chorus_Extension_DSPKernel::setSamplerate(float rate) {
    // A rate the effects cannot work with keeps the previous one.
    if (!(rate >= 1.0f && rate <= 10'000'000.0f)) return;
    sampleRate = rate;
    bandSplitter.setSamplerate(rate);
    inputGain.setSampleRate(rate);
    outputGain.setSampleRate(rate);
    globals.SAMPLE_RATE = sr::truncSaturate<int>(rate);
    effectManager->sampleRateChanged();
}

void TAV_SR_Chorus_Extension_DSPKernel::reset() {
    bandSplitter.reset();
    inputGain.reset(parameters[sr::kVolumeIn].load(std::memory_order_relaxed));
    outputGain.reset(parameters[sr::kVolumeOut].load(std::memory_order_relaxed));
    effectManager->setParameterChar(0, 127);
    effectManager->setParameterChar(10, 0);
    effectManager->setParameterChar(11, 0);
    effectManager->cleanup();
}

void TAV_SR_Chorus_Extension_DSPKernel::setBuffers(AudioBufferList* in, AudioBufferList* out,
                                                   int bus) {
    inBufferList = in;
    outBufferList = out;
    busNumber = bus;
}

void TAV_SR_Chorus_Extension_DSPKernel::setParameter(AUParameterAddress address, AUValue value) {
    const sr::ParameterInfo* info = sr::parameterInfo(address);
    if (!info) return;
    if (!std::isfinite(value)) {
        sr::LineBuilder<> line;
        line << "TAV_SR_Chorus_Extension_DSPKernel::setParameter : WARNING: non-finite value "
                "refused for address:"
             << std::uint64_t(address) << "\n";
        log_.safeprint(line.view());
        return;
    }
    value = sr::clampToRange(*info, value);
    parameters[address].store(value, std::memory_order_relaxed);

    sr::LineBuilder<> line;
    line << "unit received parameter : address:" << std::uint64_t(address) << ", value:";
    line.fixed(double(value)) << "\n";
    log_.trace(line.view());

    switch (address) {
    case sr::kFrequencySplitLP:
        applyLowerSplit();
        splitPointsSet |= kLowerSplitSet;
        break;
    case sr::kFrequencySplitHP:
        applyUpperSplit();
        splitPointsSet |= kUpperSplitSet;
        break;
    default:
        if (address < sr::kChorusDepth || address > sr::kChorusLFOStereo) break;
        // The LFO shape travels as the value itself truncated, the others as value x 127.
        effectManager->setParameterChar(kChorusIndexForAddress[address - sr::kChorusDepth],
                                        address == sr::kChorusLFOType
                                            ? sr::effectByteFromInteger(value)
                                            : sr::effectByteFromValue(value));
        break;
    }
}

void TAV_SR_Chorus_Extension_DSPKernel::applyLowerSplit() {
    const float upper = parameters[sr::kFrequencySplitHP].load(std::memory_order_relaxed);
    float v = parameters[sr::kFrequencySplitLP].load(std::memory_order_relaxed);
    if (v < 0.0f) v = 0.0f;
    if (v > upper) v = upper;
    bandSplitter.setCutoff1(std::sqrt(v));
}

void TAV_SR_Chorus_Extension_DSPKernel::applyUpperSplit() {
    const float lower = parameters[sr::kFrequencySplitLP].load(std::memory_order_relaxed);
    float v = parameters[sr::kFrequencySplitHP].load(std::memory_order_relaxed);
    if (v < lower) v = lower;
    if (v > 1.0f) v = 1.0f;
    bandSplitter.setCutoff2(std::sqrt(v));
}

void TAV_SR_Chorus_Extension_DSPKernel::settleSplitPoints() {
    // Each split point is limited by the other's value when it is set, so two set at one
    // instant (a preset, a session, a host's automation) would depend on their order. Before
    // any audio is rendered with them, both meet each other's new value.
    if (splitPointsSet == (kLowerSplitSet | kUpperSplitSet)) {
        applyLowerSplit();
        applyUpperSplit();
    }
    splitPointsSet = 0;
}

AUValue TAV_SR_Chorus_Extension_DSPKernel::getParameter(AUParameterAddress address) const {
    return address < sr::kParameterCount ? parameters[address].load(std::memory_order_relaxed)
                                         : 0.0f;
}

void TAV_SR_Chorus_Extension_DSPKernel::setParameterAutomated(AUParameterAddress address,
                                                              AUValue value,
                                                              AUEventSampleTime /*time*/) {
    setParameter(address, value);
}

void TAV_SR_Chorus_Extension_DSPKernel::handleMIDIEvent(const AUMIDIEvent& midiEvent) {
    if (midiEvent.length != 0) {
        switch (midiEvent.bytes()[0]) {
        case 0xF8: // clock
        case 0xFA: // start
        case 0xFB: // continue
        case 0xFC: // stop
        case 0xFF: // reset
            return;
        default:
            break;
        }
    }
    if (!midiThrough || !midiOutputEventBlock || !*midiOutputEventBlock) return;
    (*midiOutputEventBlock)(midiEvent.eventSampleTime, 0, midiEvent.length, midiEvent.bytes());
}

void TAV_SR_Chorus_Extension_DSPKernel::process2(AUAudioFrameCount, AUAudioFrameCount) {}

void TAV_SR_Chorus_Extension_DSPKernel::process(AUAudioFrameCount frameCount,
                                                AUAudioFrameCount bufferOffset) {
    settleSplitPoints();
    if (!inBufferList || !outBufferList || frameCount == 0) return;
    const int channels =
        std::min({channelCount, int(inBufferList->mNumberBuffers),
                  int(outBufferList->mNumberBuffers), int(AudioBufferList::kMaxBuffers)});
    for (int c = 0; c < channels; ++c) {
        const float* src = static_cast<const float*>(inBufferList->mBuffers[c].mData);
        float* dst = static_cast<float*>(outBufferList->mBuffers[c].mData);
        if (!src || !dst) return;
        src += bufferOffset;
        dst += bufferOffset;
        if (src != dst) std::memmove(dst, src, frameCount * sizeof(float));
    }
    if (bypassed.load(std::memory_order_relaxed) || channelCount != 2 || channels != 2) return;
    if (parameters[sr::kBypass].load(std::memory_order_relaxed) != 0.0f) return;

    float* left = static_cast<float*>(outBufferList->mBuffers[0].mData) + bufferOffset;
    float* right = static_cast<float*>(outBufferList->mBuffers[1].mData) + bufferOffset;
    // The band and work buffers hold 4096 frames: longer segments go through in slices.
    for (AUAudioFrameCount done = 0; done < frameCount;) {
        const int n = int(std::min<AUAudioFrameCount>(frameCount - done, kMaxSlice));
        processStereo(left + done, right + done, n);
        done += AUAudioFrameCount(n);
    }
}

void TAV_SR_Chorus_Extension_DSPKernel::processStereo(float* left, float* right, int n) {
    inputGain.process(left, right, n, parameters[sr::kVolumeIn].load(std::memory_order_relaxed));
    const float mix = parameters[sr::kChorusDryWet].load(std::memory_order_relaxed);
    globals.SOUND_BUFFER_SIZE = n;
    float dry, wet;
    Chorus* chorus = effectManager->insertedChorus(dry, wet);
    if (onePass && chorus && globals.denormalkillbuf && n <= effectManager->capacity() &&
        bandSplitter.gainLow == 1.0f && bandSplitter.gainMid == 1.0f &&
        bandSplitter.gainHigh == 1.0f) {
        Chorus::Block block = chorus->beginBlock();
        if (block.nearDelays && mix != 0.0f)
            processInOnePass<true, true>(left, right, n, block, dry, wet, mix);
        else if (block.nearDelays)
            processInOnePass<true, false>(left, right, n, block, dry, wet, mix);
        else if (mix != 0.0f)
            processInOnePass<false, true>(left, right, n, block, dry, wet, mix);
        else
            processInOnePass<false, false>(left, right, n, block, dry, wet, mix);
        chorus->endBlock(block);
    } else {
        bandSplitter.split(left, right, n);
        effectManager->process(bandSplitter.getBPLeft(), bandSplitter.getBPRight());
        bandSplitter.mix(workLeft.data(), workRight.data(), n);
        // At 0 the input stays as it is, bit for bit (the chorus still runs so its lines are
        // warm when the mix opens).
        if (mix != 0.0f) {
            const float dryMix = 1.0f - mix;
            for (int i = 0; i < n; ++i) left[i] = workLeft[size_t(i)] * mix + left[i] * dryMix;
            for (int i = 0; i < n; ++i) right[i] = workRight[size_t(i)] * mix + right[i] * dryMix;
        }
    }
    outputGain.process(left, right, n, parameters[sr::kVolumeOut].load(std::memory_order_relaxed));
}

// The slice in one pass. Frame by frame it does what the stages of the other branch of
// processStereo do one after another over the whole slice, with the same operations in the
// same order, so the output bits are the same; the band and effect buffers between the stages
// are left out:
//   1. band split: high = HP(x), rest = x - high, low = LP(rest), middle = rest - low (the
//      low-pass runs a frame behind the high-pass, see BandSplitFilter3::Lanes, so a frame's
//      bands are ready once the next frame is in);
//   2. the effect manager adds the denormal noise to the middle band;
//   3. the chorus on the middle band: the delay's glide, the read, the write with cross-feed
//      and feedback, polarity and panning (Chorus::Block::step);
//   4. the manager's insertion law: middle = middle x dry + chorus x wet;
//   5. mix: low, middle and high summed (their gains are 1, as they always are, and x times 1
//      is x);
//   6. Chorus Mix: out = sum x mix + input x (1 - mix); at a mix of 0 the input stays.
template <bool NearDelays, bool MixOpen>
void TAV_SR_Chorus_Extension_DSPKernel::processInOnePass(float* left, float* right, int n,
                                                         Chorus::Block& block, float dry, float wet,
                                                         float mix) {
    using sr::simd::f32x4;
    // Locals, so that the recursions stay in registers.
    BandSplitFilter3::Lanes split = bandSplitter.lanes();
    Chorus::Block chorus = block;
    Chorus::Block::Taps taps;
    const float* noise = globals.denormalkillbuf;
    const float dryMix = 1.0f - mix;
    f32x4 input = sr::simd::stereo(left[0], right[0]);
    split.start(input);
    for (int first = 0; first < n; first += Chorus::Block::Taps::kFrames) {
        const int count = std::min(n - first, Chorus::Block::Taps::kFrames);
        chorus.computeTaps<NearDelays>(count, taps); // 3, ahead: where each frame reads
        for (int k = 0; k < count; ++k) {
            const int i = first + k;
            f32x4 low, middle, high, nextInput{};
            if (i + 1 < n) { // 1
                nextInput = sr::simd::stereo(left[i + 1], right[i + 1]);
                split.next(nextInput, low, middle, high);
            } else {
                split.finish(low, middle, high);
            }
            middle = middle + noise[i];                          // 2
            const f32x4 chorused = chorus.step(taps, k, middle); // 3
            middle = middle * dry + chorused * wet;              // 4
            const f32x4 sum = low + middle + high;               // 5
            if constexpr (MixOpen) {                             // 6
                const f32x4 out = sum * mix + input * dryMix;
                left[i] = out[0];
                right[i] = out[1];
            }
            input = nextInput;
        }
    }
    bandSplitter.setLanes(split);
    block = chorus;
}
