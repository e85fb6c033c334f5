// The fast render path against plain references, bit for bit: the chorus against its per-sample
// loop written out as the effect describes it (fmod, modulo, one channel after the other), and
// the kernel's one pass against its stages run one after another over the whole slice. Random
// settings, slice lengths and sample rates, including effect bytes above 127 whose delays reach
// far outside the line; with and without the processor's wide vectors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "effects/Chorus.h"
#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"
#include "platform/PrintQueue.h"
#include "tests/AudioUnitHost.h"
#include "util/Simd.h"

namespace {

bool sameBits(const float* a, const float* b, int n) {
    return std::memcmp(a, b, std::size_t(n) * sizeof(float)) == 0;
}

// One channel of the chorus's per-sample steps, as plainly as they read.
int referenceChannel(const float* inMain, const float* inOther, float* out, float* line,
                     int maxDelay, int write, float delayOld, float delayNew, float cross,
                     float feedback, int n) {
    for (int i = 0; i < n; ++i) {
        const float d = (delayOld * float(n - i) + delayNew * float(i)) / float(n);
        if (++write >= maxDelay) write = 0;
        const float pos = (float(write) - d) + 2.0f * float(maxDelay);
        int hi = pos > 0.0f ? int(pos) : int(pos - 1.0f);
        hi %= maxDelay;
        const int lo = (hi - 1 + maxDelay) % maxDelay;
        const float w = 1.0f - std::fmod(pos, 1.0f);
        const float o = line[lo] * w + line[hi] * (1.0f - w);
        out[i] = o;
        line[write] = inMain[i] * (1.0f - cross) + inOther[i] * cross + o * feedback;
    }
    return write;
}

void chorusAgainstReference(bool wide) {
    sr::simd::allowWideVectors(wide);
    std::mt19937 rng(wide ? 17 : 18);
    for (int rate : {48000, 44100, 96000, 8000, 100, 20}) {
        EffectGlobals globals;
        globals.SAMPLE_RATE = rate;
        std::vector<float> outLeft(4096), outRight(4096);
        Chorus chorus(globals, 1, outLeft.data(), outRight.data());
        std::vector<float> lineLeft(std::size_t(chorus.maxDelay), 0.0f),
            lineRight(std::size_t(chorus.maxDelay), 0.0f);
        int writeLeft = chorus.writeLeft, writeRight = chorus.writeRight;
        std::vector<float> left(4096), right(4096), refLeft(4096), refRight(4096);
        std::uniform_real_distribution<float> sample(-1.0f, 1.0f);
        for (int block = 0; block < 60; ++block) {
            if (block % 6 == 0) // new settings now and then, bytes beyond 127 included
                for (int index = 1; index <= 11; ++index)
                    chorus.setParameterChar(index,
                                            (unsigned char)(rng() % (block < 30 ? 128 : 256)));
            const int n = int(rng() % 700) + 1;
            globals.SOUND_BUFFER_SIZE = n;
            for (int i = 0; i < n; ++i) {
                left[std::size_t(i)] = sample(rng);
                right[std::size_t(i)] = sample(rng);
            }
            chorus.process(left.data(), right.data());
            const float sign = chorus.subtractOutput ? -1.0f : 1.0f;
            writeLeft =
                referenceChannel(left.data(), right.data(), refLeft.data(), lineLeft.data(),
                                 chorus.maxDelay, writeLeft, chorus.leftDelayOld,
                                 chorus.leftDelayNew, chorus.crossAmount, chorus.feedback, n);
            writeRight =
                referenceChannel(right.data(), left.data(), refRight.data(), lineRight.data(),
                                 chorus.maxDelay, writeRight, chorus.rightDelayOld,
                                 chorus.rightDelayNew, chorus.crossAmount, chorus.feedback, n);
            for (int i = 0; i < n; ++i) {
                refLeft[std::size_t(i)] = refLeft[std::size_t(i)] * sign * (1.0f - chorus.panning);
                refRight[std::size_t(i)] = refRight[std::size_t(i)] * sign * chorus.panning;
            }
            ASSERT_TRUE(sameBits(outLeft.data(), refLeft.data(), n))
                << "rate " << rate << ", block " << block << ", " << n << " frames";
            ASSERT_TRUE(sameBits(outRight.data(), refRight.data(), n))
                << "rate " << rate << ", block " << block << ", " << n << " frames";
            ASSERT_EQ(chorus.writeLeft, writeLeft);
        }
        EXPECT_TRUE(chorus.lineLeftSamples() == lineLeft) << rate;
    }
    sr::simd::allowWideVectors(true);
}

TEST(RenderReference, ChorusEqualsItsPlainPerSampleLoop) {
    chorusAgainstReference(true);
}

TEST(RenderReference, ChorusBaselineLoopsEqualThePlainLoop) {
    chorusAgainstReference(false);
}

// Two kernels with the same settings and input, one of them made to run its stages one after
// another; slices of every length, parameter changes between them.
TEST(RenderReference, OnePassKernelEqualsItsStagesOneAfterAnother) {
    const sr::test::QuietLog quiet;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), sample(-1.0f, 1.0f);
    for (double rate : {48000.0, 44100.0, 96000.0}) {
        auto fast = std::make_unique<TAV_SR_Chorus_Extension_DSPKernel>();
        auto staged = std::make_unique<TAV_SR_Chorus_Extension_DSPKernel>();
        staged->setOnePass(false);
        for (auto* k : {fast.get(), staged.get()}) {
            k->init(2, rate);
            for (const sr::ParameterInfo& p : sr::kParameterTable)
                k->setParameter(p.address, p.defaultValue);
        }
        std::vector<float> in[2], out[2][2];
        for (auto& v : in) v.resize(4096);
        for (auto& pair : out)
            for (auto& v : pair) v.resize(4096);
        for (int call = 0; call < 80; ++call) {
            if (call % 8 == 0) { // the sound controls, the split points and the mix
                for (std::uint64_t a = sr::kFrequencySplitLP; a <= sr::kChorusDryWet; ++a) {
                    const float v = a == sr::kChorusLFOType ? float(rng() % 2) : unit(rng);
                    fast->setParameter(a, v);
                    staged->setParameter(a, v);
                }
                const float mix = call % 24 == 0 ? 0.0f : unit(rng);
                fast->setParameter(sr::kChorusDryWet, mix);
                staged->setParameter(sr::kChorusDryWet, mix);
            }
            const auto n = AUAudioFrameCount(call % 5 == 0 ? 1 + rng() % 4096 : 1 + rng() % 300);
            for (auto& v : in)
                for (AUAudioFrameCount i = 0; i < n; ++i) v[i] = sample(rng);
            int k = 0;
            for (auto* kernel : {fast.get(), staged.get()}) {
                AudioBufferList input, output;
                input.mNumberBuffers = output.mNumberBuffers = 2;
                for (int c = 0; c < 2; ++c) {
                    input.mBuffers[c] = {1, n * 4, in[c].data()};
                    output.mBuffers[c] = {1, n * 4, out[k][c].data()};
                }
                kernel->setBuffers(&input, &output, 0);
                kernel->process(n, 0);
                ++k;
            }
            for (int c = 0; c < 2; ++c)
                ASSERT_TRUE(sameBits(out[0][c].data(), out[1][c].data(), int(n)))
                    << rate << " Hz, call " << call << ", " << n << " frames, channel " << c;
        }
    }
}

} // namespace
