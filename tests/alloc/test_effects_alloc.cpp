// Parameter changes, preset changes and processing run on the render thread between slices, so
// none of them may touch the heap, for any index and any byte value.
#include "alloc_counter.h"

#include "effects/EffectManager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

struct Offender {
    const char* call = nullptr;
    int index = -1;
    int value = -1;
};

// Sweeps every index 0..15 and every byte through setParameterChar, then every preset number
// through changePreset, processing one block after each change. Returns the first call that
// allocated or freed (call == nullptr when none did); the sweep itself stores nothing.
Offender sweepAllocations(EffectManager& manager, float* left, float* right, int frames) {
    Offender first;
    sr::test::AllocationCounter counter;
    long seen = counter.count();
    auto check = [&](const char* call, int index, int value) {
        if (counter.count() != seen && first.call == nullptr) first = {call, index, value};
        seen = counter.count();
    };
    for (int index = 0; index < 16; ++index) {
        for (int value = 0; value < 256; ++value) {
            manager.setParameterChar(index, (unsigned char)value);
            check("setParameterChar", index, value);
            for (int i = 0; i < frames; ++i) left[i] = right[i] = (i % 64 < 32) ? 0.5f : -0.5f;
            manager.process(left, right);
            check("process", index, value);
        }
    }
    for (int n = 0; n < 256; ++n) {
        manager.changePreset((unsigned char)n);
        check("changePreset", -1, n);
        manager.process(left, right);
        check("process", -1, n);
        manager.cleanup();
        check("cleanup", -1, n);
    }
    return first;
}

class EffectAllocation : public ::testing::TestWithParam<int> {};

TEST_P(EffectAllocation, ParametersPresetsAndProcessNeverTouchTheHeap) {
    EffectGlobals globals;
    std::vector<float> zeros(4096, 0.0f);
    globals.denormalkillbuf = zeros.data();
    for (int insertion : {1, 0}) {
        EffectManager manager(globals, 0, insertion);
        manager.changeEffect(GetParam());
        ASSERT_NE(manager.getEffectObject(), nullptr);
        globals.SOUND_BUFFER_SIZE = 512;
        std::vector<float> left(512), right(512);
        const Offender first = sweepAllocations(manager, left.data(), right.data(), 512);
        EXPECT_TRUE(first.call == nullptr)
            << "type " << GetParam() << " insertion " << insertion << ": " << first.call << "("
            << first.index << ", " << first.value << ") allocated";
        globals.SOUND_BUFFER_SIZE = 4096;
    }
}

// Echo, chorus, phaser, alienwah.
INSTANTIATE_TEST_SUITE_P(Effects, EffectAllocation, ::testing::Values(2, 3, 4, 5));

// The counter must see what it is meant to catch, or a zero above proves nothing.
TEST(AllocationCounter, SeesNewDeleteAndMalloc) {
    void* volatile sink = nullptr;
    long afterNew = 0, afterMalloc = 0, nested = 0;
    {
        sr::test::AllocationCounter counter;
        sink = new int(1);
        delete static_cast<int*>(sink);
        afterNew = counter.count();
        sink = std::malloc(16);
        std::free(sink);
        afterMalloc = counter.count();
        {
            sr::test::AllocationCounter inner;
            sink = new int(2);
            delete static_cast<int*>(sink);
            nested = inner.count();
        }
    }
    EXPECT_EQ(afterNew, 2);
    EXPECT_EQ(afterMalloc, sr::test::countsMalloc() ? 4 : 2);
    EXPECT_EQ(nested, 2);
}

} // namespace
