// The parameter set as a host and the kernel see it: the table's every column, the tree's
// groups, and what the kernel does with a value by address.
#include <gtest/gtest.h>

#include "cli/OfflineRenderer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "RenderHarness.h"
#include "kernel/ParameterTable.h"
#include "kernel/TAV_SR_Chorus_Extension_DSPKernel.h"

namespace {

struct Row {
    const char* identifier;
    const char* name;
    float min, max, def;
    std::uint32_t unit;
};

// Typed from the product's parameter sheet, independently of the code's table.
const Row kExpected[29] = {
    {"kDisplayContrast", "Display Contrast", 0, 1, 0.15f, 0},
    {"kBypass", "Effect Bypass", 0, 1, 0, 2},
    {"kVolumeIn", "Input Gain", 0, 2, 1, 0},
    {"kVolumeOut", "Output Gain", 0, 2, 1, 0},
    {"kFinalLimit", "Output Limiter", 0, 1, 1, 2},
    {"kFrequencySplitLP", "Frequency Split LP", 0, 1, 0.33f, 0},
    {"kFrequencySplitHP", "Frequency Split HP", 0, 1, 0.66f, 0},
    {"kChorusDepth", "Chorus Depth", 0, 1, 0.33f, 0},
    {"kChorusDelay", "Chorus Delay", 0, 1, 0.25f, 0},
    {"kChorusFeedback", "Chorus Feedback", 0, 1, 0.33f, 0},
    {"kChorusCross", "Chorus Xmod", 0, 1, 0.5f, 0},
    {"kChorusPanning", "Chorus Panning", 0, 1, 0.5f, 0},
    {"kChorusLFOFrequency", "LFO Frequency", 0, 1, 0.25f, 0},
    {"kChorusLFORandom", "LFO Randomness", 0, 1, 0.33f, 0},
    {"kChorusLFOType", "LFO Shape", 0, 1, 0, 0},
    {"kChorusLFOStereo", "LFO Stereo", 0, 1, 0.5f, 0},
    {"kChorusDryWet", "Chorus Mix", 0, 1, 0.5f, 0},
    {"kFrequencySplitLPController", "Frequency Split LP CCO", -1, 127, 13, 1},
    {"kFrequencySplitHPController", "Frequency Split HP CCO", -1, 127, 14, 1},
    {"kChorusDepthController", "Chorus Depth CCO", -1, 127, 15, 1},
    {"kChorusDelayController", "Chorus Delay CCO", -1, 127, 16, 1},
    {"kChorusFeedbackController", "Chorus Feedback CCO", -1, 127, 17, 1},
    {"kChorusCrossController", "Chorus Cross CCO", -1, 127, 18, 1},
    {"kChorusPanningController", "Chorus Panning CCO", -1, 127, 19, 1},
    {"kChorusLFOFrequencyController", "LFO Frequency CCO", -1, 127, 20, 1},
    {"kChorusLFORandomController", "LFO Randomness CCO", -1, 127, 21, 1},
    {"kChorusLFOTypeController", "Chorus Shape CCO", -1, 127, 22, 1},
    {"kChorusLFOStereoController", "Chorus Stereo CCO", -1, 127, 23, 1},
    {"kChorusDryWetController", "Chorus Mix CCO", -1, 127, 24, 1},
};

TEST(ParameterTable, EveryColumnOfEveryRow) {
    ASSERT_EQ(sr::kParameterTable.size(), 29u);
    for (std::uint64_t a = 0; a < 29; ++a) {
        SCOPED_TRACE(a);
        const auto& p = sr::kParameterTable[a];
        EXPECT_EQ(p.address, a);
        EXPECT_EQ(p.identifier, kExpected[a].identifier);
        EXPECT_EQ(p.name, kExpected[a].name);
        EXPECT_EQ(p.minValue, kExpected[a].min);
        EXPECT_EQ(p.maxValue, kExpected[a].max);
        EXPECT_EQ(p.defaultValue, kExpected[a].def);
        EXPECT_EQ(std::uint32_t(p.unit), kExpected[a].unit);
    }
}

TEST(ParameterTree, GroupsParametersAndDefaultsAsTheHostSeesThem) {
    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter;
    TAV_SR_Chorus_Extension_Parameters parameters(adapter);
    AUParameterTree& tree = parameters.parameterTree();

    ASSERT_EQ(tree.children().size(), 3u);
    const char* groupIds[] = {"kGlobal", "kParameters", "kControllers"};
    const char* groupNames[] = {"TAV SR Chorus Global", "TAV SR Chorus Parameters",
                                "TAV SR Chorus Controllers"};
    const std::size_t groupSizes[] = {7, 10, 12};
    for (int g = 0; g < 3; ++g) {
        const auto* group = dynamic_cast<AUParameterGroup*>(tree.children()[g].get());
        ASSERT_NE(group, nullptr);
        EXPECT_EQ(group->identifier(), groupIds[g]);
        EXPECT_EQ(group->displayName(), groupNames[g]);
        EXPECT_EQ(group->allParameters().size(), groupSizes[g]);
    }

    const auto all = tree.allParameters();
    ASSERT_EQ(all.size(), 29u);
    for (std::uint64_t a = 0; a < 29; ++a) {
        SCOPED_TRACE(a);
        AUParameter* p = all[a];
        EXPECT_EQ(p->address(), a);
        EXPECT_EQ(p->identifier(), kExpected[a].identifier);
        EXPECT_EQ(p->flags(), 0xC0000000u); // readable | writable
        EXPECT_TRUE(p->unitName().empty());
        EXPECT_TRUE(p->valueStrings().empty());
        EXPECT_EQ(p->value(), kExpected[a].def);
        // Every default reached the kernel at construction.
        EXPECT_EQ(adapter.getKernel().getParameter(a), kExpected[a].def);
        EXPECT_EQ(tree.parameterWithAddress(a), p);
    }
    // The value-string format is a bare percent sign: nothing to show.
    EXPECT_EQ(all[16]->stringFromValue(nullptr), "");
}

TEST(ParameterTree, ValuesAreClampedAndNonFiniteValuesRefused) {
    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter;
    TAV_SR_Chorus_Extension_Parameters parameters(adapter);
    AUParameter* mix = parameters.parameterTree().parameterWithAddress(16);
    AUParameter* cc = parameters.parameterTree().parameterWithAddress(28);

    mix->setValue(3.0f);
    EXPECT_EQ(mix->value(), 1.0f);
    EXPECT_EQ(adapter.getKernel().getParameter(16), 1.0f);
    cc->setValue(-7.0f);
    EXPECT_EQ(cc->value(), -1.0f);
    EXPECT_FALSE(mix->setValue(NAN));
    EXPECT_FALSE(mix->setValue(INFINITY));
    EXPECT_EQ(mix->value(), 1.0f);
    EXPECT_EQ(adapter.getKernel().getParameter(16), 1.0f);

    int seen = 0;
    const auto token = parameters.parameterTree().tokenByAddingParameterObserver(
        [&](AUParameterAddress address, AUValue value) {
            EXPECT_EQ(address, 16u);
            EXPECT_EQ(value, 0.25f);
            ++seen;
        });
    mix->setValue(0.25f);
    mix->setValue(0.25f, token); // the originator is not told of its own change
    parameters.parameterTree().removeParameterObserver(token);
    mix->setValue(0.5f);
    EXPECT_EQ(seen, 1);
}

// Observers may come and go, from inside their own calls too, while another thread keeps setting
// values (as a plug-in's render thread does when it runs queued MIDI work).
TEST(ParameterTree, ObserversComeAndGoSafelyWhileValuesChange) {
    TAV_SR_Chorus_ExtensionDSPKernelAdapter adapter;
    TAV_SR_Chorus_Extension_Parameters parameters(adapter);
    AUParameterTree& tree = parameters.parameterTree();
    AUParameter* depth = tree.parameterWithAddress(sr::kChorusDepth);

    // One that removes itself and adds another on its first call.
    int selfCalls = 0, addedCalls = 0;
    AUParameterObserverToken self = 0, added = 0;
    self = tree.tokenByAddingParameterObserver([&](AUParameterAddress, AUValue) {
        ++selfCalls;
        tree.removeParameterObserver(self);
        added =
            tree.tokenByAddingParameterObserver([&](AUParameterAddress, AUValue) { ++addedCalls; });
    });
    depth->setValue(0.1f);
    depth->setValue(0.2f);
    EXPECT_EQ(selfCalls, 1);
    EXPECT_GE(addedCalls, 1); // added during a round, it may already see that round
    tree.removeParameterObserver(added);

    // A fixed number of slots: the seventeenth observer is refused, and slots are reused.
    std::vector<AUParameterObserverToken> tokens;
    for (int i = 0; i < 17; ++i)
        tokens.push_back(tree.tokenByAddingParameterObserver([](AUParameterAddress, AUValue) {}));
    EXPECT_EQ(std::count(tokens.begin(), tokens.end(), 0u), 1);
    for (AUParameterObserverToken t : tokens) tree.removeParameterObserver(t);

    // Removal while another thread notifies: nothing is called once removal has returned.
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        for (int i = 0; !stop; ++i) depth->setValue(float(i % 100) / 100.0f);
    });
    for (int round = 0; round < 2000; ++round) {
        std::atomic<bool> removed{false}, lateCall{false};
        const auto token = tree.tokenByAddingParameterObserver([&](AUParameterAddress, AUValue) {
            if (removed) lateCall = true;
        });
        std::this_thread::yield();
        tree.removeParameterObserver(token);
        removed = true;
        std::this_thread::yield();
        ASSERT_FALSE(lateCall) << round;
    }
    stop = true;
    setter.join();
}

class KernelParameters : public ::testing::Test {
protected:
    TAV_SR_Chorus_Extension_DSPKernel kernel;
    EffectManager& fx() { return kernel.getEffectManager(); }
    const BandSplitFilter3& split() const { return kernel.getBandSplitter(); }
};

TEST_F(KernelParameters, SplitPointsAreClampedToEachOtherAndSquareRooted) {
    kernel.setParameter(6, 0.64f);
    kernel.setParameter(5, 0.25f);
    EXPECT_FLOAT_EQ(split().getCutoff1(), 0.5f);
    EXPECT_FLOAT_EQ(split().getCutoff2(), 0.8f);

    // Lower point above the upper: stored as given, sent only up to the upper point.
    kernel.setParameter(5, 0.81f);
    EXPECT_EQ(kernel.getParameter(5), 0.81f);
    EXPECT_FLOAT_EQ(split().getCutoff1(), 0.8f);

    // Upper point below the lower: what reaches the splitter is raised to the lower value.
    kernel.setParameter(5, 0.36f);
    kernel.setParameter(6, 0.09f);
    EXPECT_EQ(kernel.getParameter(6), 0.09f);
    EXPECT_FLOAT_EQ(split().getCutoff2(), 0.6f);
    kernel.setParameter(6, 1.0f);
    EXPECT_FLOAT_EQ(split().getCutoff2(), 1.0f);
}

// Values set together (a host's settings, its automation at one frame) land on both split
// points in either order, so a render never depends on the order of the settings.
TEST(SplitPoints, SetTogetherTheyLandInEitherOrder) {
    for (const bool lowerFirst : {true, false}) {
        sr::cli::OfflineRenderer renderer(48000.0, 2, 64);
        const std::pair<const char*, float> lower{"kFrequencySplitLP", 0.81f};
        const std::pair<const char*, float> upper{"kFrequencySplitHP", 0.9f};
        for (const auto& [id, value] :
             lowerFirst ? std::array{lower, upper} : std::array{upper, lower})
            ASSERT_TRUE(renderer.set(id, value));
        std::vector<float> audio(2 * 64, 0.0f);
        ASSERT_EQ(renderer.renderInterleaved(audio.data(), audio.data(), 64), noErr);
        const BandSplitFilter3& split =
            renderer.audioUnit().kernelAdapter().getKernel().getBandSplitter();
        EXPECT_FLOAT_EQ(split.getCutoff1(), 0.9f) << (lowerFirst ? "lower first" : "upper first");
        EXPECT_FLOAT_EQ(split.getCutoff2(), std::sqrt(0.9f));
    }
}

TEST_F(KernelParameters, SoundControlsReachTheChorusAsBytes) {
    // Address -> chorus parameter index, value x 127 truncated.
    const int index[] = {6, 7, 8, 9, 1, 2, 3, 5};
    const std::uint64_t address[] = {7, 8, 9, 10, 11, 12, 13, 15};
    for (int k = 0; k < 8; ++k) {
        SCOPED_TRACE(address[k]);
        kernel.setParameter(address[k], 0.5f);
        EXPECT_EQ(fx().getParameter_Char(index[k]), 63); // 63.5 truncated
        kernel.setParameter(address[k], 1.0f);
        EXPECT_EQ(fx().getParameter_Char(index[k]), 127);
        kernel.setParameter(address[k], 0.0f);
        EXPECT_EQ(fx().getParameter_Char(index[k]), 0);
        kernel.setParameter(address[k], 0.33f);
        EXPECT_EQ(fx().getParameter_Char(index[k]), 41); // 41.91
    }
    // The LFO shape is the value itself truncated: only exactly 1 selects the triangle.
    kernel.setParameter(14, 0.99f);
    EXPECT_EQ(fx().getParameter_Char(4), 0);
    kernel.setParameter(14, 1.0f);
    EXPECT_EQ(fx().getParameter_Char(4), 1);
}

TEST_F(KernelParameters, StoredOnlyAddressesAndOutOfTableAddresses) {
    for (std::uint64_t a : {0u, 2u, 3u, 4u, 16u, 17u, 28u}) {
        kernel.setParameter(a, 0.75f);
        EXPECT_EQ(kernel.getParameter(a), 0.75f);
    }
    kernel.setParameter(29, 0.5f);
    EXPECT_EQ(kernel.getParameter(29), 0.0f);
    EXPECT_EQ(kernel.getParameter(1000), 0.0f);
    // Out of range from any path is clamped; not-a-number is refused.
    kernel.setParameter(16, 7.0f);
    EXPECT_EQ(kernel.getParameter(16), 1.0f);
    kernel.setParameter(16, NAN);
    EXPECT_EQ(kernel.getParameter(16), 1.0f);
}

} // namespace
