// Renders one second of one kind of input (silence, noise or subnormal noise) through the audio
// unit's render block in host blocks of 64 frames, after a warm-up. render-cost.sh counts the
// instructions of renderMeasured() under callgrind for each kind: the render path's cost must
// not depend on the input.
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "platform/MainQueue.h"
#include "platform/PrintQueue.h"

namespace {

constexpr AUAudioFrameCount kBlock = 64;
constexpr std::size_t kFrames = 48000;

struct Input {
    std::vector<float> left, right;
};

Input makeInput(const std::string& kind) {
    Input in{std::vector<float>(kFrames, 0.0f), std::vector<float>(kFrames, 0.0f)};
    std::mt19937 rng(3);
    // Noise at -6 dBFS; subnormal noise below the smallest normal float (1.2e-38).
    const float scale = kind == "noise" ? 0.5f : kind == "subnormal" ? 1e-39f : 0.0f;
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (std::size_t i = 0; i < kFrames; ++i) {
        in.left[i] = d(rng) * scale;
        in.right[i] = d(rng) * scale;
    }
    return in;
}

struct Renderer {
    sr::DrainedMainQueue mainQueue;
    TAV_SR_Chorus_Extension_AudioUnit unit{kTAVSRChorusComponentDescription, mainQueue};
    AURenderBlock block;
    AudioTimeStamp time;
    std::vector<float> outLeft = std::vector<float>(kBlock), outRight = std::vector<float>(kBlock);

    Renderer() {
        const AVAudioFormat format(48000.0, 2);
        unit.outputBusses()[0].setFormat(format);
        unit.inputBusses()[0].setFormat(format);
        unit.allocateRenderResources();
        block = unit.renderBlock();
    }
    ~Renderer() {
        mainQueue.discard();
        unit.deallocateRenderResources();
    }
    void render(const Input& in) {
        for (std::size_t pos = 0; pos < kFrames; pos += kBlock) {
            auto pull = [&](AudioUnitRenderActionFlags*, const AudioTimeStamp*, AUAudioFrameCount n,
                            NSInteger, AudioBufferList* input) -> AUAudioUnitStatus {
                std::memcpy(input->mBuffers[0].mData, &in.left[pos], n * sizeof(float));
                std::memcpy(input->mBuffers[1].mData, &in.right[pos], n * sizeof(float));
                return noErr;
            };
            AudioBufferList output;
            output.mNumberBuffers = 2;
            output.mBuffers[0] = {1, kBlock * 4, outLeft.data()};
            output.mBuffers[1] = {1, kBlock * 4, outRight.data()};
            AudioUnitRenderActionFlags flags = 0;
            block(&flags, &time, kBlock, 0, &output, nullptr, pull);
            time.mSampleTime += kBlock;
        }
    }
};

} // namespace

// What callgrind counts.
[[gnu::noinline]] void renderMeasured(Renderer& renderer, const Input& in) {
    renderer.render(in);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s silence|noise|subnormal\n", argv[0]);
        return 2;
    }
    sr::printQueue().setSink([](std::string_view) {});
    const Input in = makeInput(argv[1]);
    {
        Renderer renderer;
        renderer.render(in); // warm-up: the delay lines fill, the split settles
        renderMeasured(renderer, in);
    }
    sr::printQueue().flush();
    return 0;
}
