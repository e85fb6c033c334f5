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
    const float* src[AudioBufferList::kMaxBuffers];
    float* dst[AudioBufferList::kMaxBuffers];
    auto passThrough = [&](int count) {
        for (int c = 0; c < count; ++c)
            if (src[c] != dst[c]) std::memmove(dst[c], src[c], frameCount * sizeof(float));
    };
    for (int c = 0; c < channels; ++c) {
        src[c] = static_cast<const float*>(inBufferList->mBuffers[c].mData);
        dst[c] = static_cast<float*>(outBufferList->mBuffers[c].mData);
        if (!src[c] || !dst[c]) {
            // The channels before it are passed through; nothing is rendered.
            passThrough(c);
            return;
        }
        src[c] += bufferOffset;
        dst[c] += bufferOffset;
    }
    const bool stereo = !bypassed.load(std::memory_order_relaxed) && channelCount == 2 &&
                        channels == 2 &&
                        parameters[sr::kBypass].load(std::memory_order_relaxed) == 0.0f;
    if (!stereo) {
        passThrough(channels);
        return;
    }
    // The band and work buffers hold 4096 frames: longer segments go through in slices.
    for (AUAudioFrameCount done = 0; done < frameCount;) {
        const int n = int(std::min<AUAudioFrameCount>(frameCount - done, kMaxSlice));
        processStereo(src[0] + done, src[1] + done, dst[0] + done, dst[1] + done, n);
        done += AUAudioFrameCount(n);
    }
}

void TAV_SR_Chorus_Extension_DSPKernel::processStereo(const float* inLeft, const float* inRight,
                                                      float* left, float* right, int n) {
    const float volumeIn = parameters[sr::kVolumeIn].load(std::memory_order_relaxed);
    const float mix = parameters[sr::kChorusDryWet].load(std::memory_order_relaxed);
    globals.SOUND_BUFFER_SIZE = n;
    float dry, wet;
    Chorus* chorus = effectManager->insertedChorus(dry, wet);
    const bool inOnePass = onePass && chorus && globals.denormalkillbuf &&
                           n <= effectManager->capacity() && bandSplitter.gainLow == 1.0f &&
                           bandSplitter.gainMid == 1.0f && bandSplitter.gainHigh == 1.0f;
    // The one pass reads the input where it lies when the input gain leaves it as it is and
    // the mix writes every output frame; otherwise the input is copied and scaled first.
    Frames io{inLeft, inRight, left, right};
    if (!(inOnePass && mix != 0.0f && inputGain.leaves(volumeIn))) {
        if (inLeft != left) std::memmove(left, inLeft, size_t(n) * sizeof(float));
        if (inRight != right) std::memmove(right, inRight, size_t(n) * sizeof(float));
        inputGain.process(left, right, n, volumeIn);
        io.inLeft = left;
        io.inRight = right;
    }
    if (inOnePass) {
        Chorus::Block block = chorus->beginBlock();
        if (block.nearDelays && sr::simd::wideVectors()) {
            if (mix != 0.0f)
                processInOnePassWide<true>(io, n, block, dry, wet, mix);
            else
                processInOnePassWide<false>(io, n, block, dry, wet, mix);
        } else if (block.nearDelays && mix != 0.0f)
            processInOnePass<true, true>(io, n, block, dry, wet, mix);
        else if (block.nearDelays)
            processInOnePass<true, false>(io, n, block, dry, wet, mix);
        else if (mix != 0.0f)
            processInOnePass<false, true>(io, n, block, dry, wet, mix);
        else
            processInOnePass<false, false>(io, n, block, dry, wet, mix);
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
void TAV_SR_Chorus_Extension_DSPKernel::processInOnePass(Frames io, int n, Chorus::Block& block,
                                                         float dry, float wet, float mix) {
    onePassLoop<NearDelays, MixOpen, false>(io, n, block, dry, wet, mix);
}

template <bool MixOpen>
void TAV_SR_Chorus_Extension_DSPKernel::processInOnePassWide(Frames io, int n, Chorus::Block& block,
                                                             float dry, float wet, float mix) {
    onePassLoop<true, MixOpen, true>(io, n, block, dry, wet, mix);
}

template <bool NearDelays, bool MixOpen, bool Wide>
inline void TAV_SR_Chorus_Extension_DSPKernel::onePassLoop(Frames io, int n, Chorus::Block& block,
                                                           float dry, float wet, float mix) {
    const float* const inLeft = io.inLeft;
    const float* const inRight = io.inRight;
    float* const left = io.left;
    float* const right = io.right;
    using sr::simd::f32x4;
    // Locals, so that the recursions stay in registers.
    BandSplitFilter3::Lanes split = bandSplitter.lanes();
    Chorus::Block chorus = block;
    Chorus::Block::Taps taps;
    const float* noise = globals.denormalkillbuf;
    const float dryMix = 1.0f - mix;
    f32x4 input = sr::simd::stereo(inLeft[0], inRight[0]);
    split.start(input);
    // Frame i, whose taps are at index k.
    // Steps 2 to 6 of frame i, whose taps are at index k, once its bands are out of step 1.
    auto rest = [&](int i, int k, f32x4 low, f32x4 middle, f32x4 high, f32x4 nextInput) {
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
    };
    // Every frame but the last: step 1 takes the next frame in.
    auto frame = [&](int i, int k) {
        f32x4 low, middle, high;
        const f32x4 nextInput = sr::simd::stereo(inLeft[i + 1], inRight[i + 1]);
        split.next(nextInput, low, middle, high); // 1
        rest(i, k, low, middle, high, nextInput);
    };
    auto lastFrame = [&](int i, int k) {
        f32x4 low, middle, high;
        split.finish(low, middle, high); // 1
        rest(i, k, low, middle, high, f32x4{});
    };
    if constexpr (Wide) {
        // The taps in eight-frame groups around a ring of Taps::kFrames: each group's are
        // worked out (3, ahead) before the frames of the group before it, so that the work
        // runs alongside those frames' filter recursion.
        constexpr int kGroup = 8, kRing = Chorus::Block::Taps::kFrames;
        static_assert(kRing % kGroup == 0 && kRing >= 2 * kGroup);
        Chorus::Block::TapLanes<kGroup> lanes(chorus);
        lanes.group(taps, 0);
        for (int first = 0; first < n; first += kGroup) {
            if (first + kGroup < n) lanes.group(taps, (first + kGroup) % kRing);
            // A group does not wrap around the ring: its taps' index counts along with i.
            const int end = std::min(n - 1, first + kGroup);
            for (int i = first, k = first % kRing; i < end; ++i, ++k) frame(i, k);
        }
        lastFrame(n - 1, (n - 1) % kRing);
        Chorus::Block::TapLanes<kGroup>::finish(chorus, taps, (n - 1) % kRing, n);
    } else {
        for (int first = 0; first < n; first += Chorus::Block::Taps::kFrames) {
            const int count = std::min(n - first, Chorus::Block::Taps::kFrames);
            chorus.computeTaps<NearDelays>(count, taps); // 3, ahead: where each frame reads
            const int notLast = std::min(count, n - 1 - first);
            for (int k = 0; k < notLast; ++k) frame(first + k, k);
            if (notLast < count) lastFrame(n - 1, count - 1);
        }
    }
    bandSplitter.setLanes(split);
    // All the loop changes in the block: where it writes next and how far it got.
    block.write[0] = chorus.write[0];
    block.write[1] = chorus.write[1];
    block.done = chorus.done;
}
