// The output limiter runs on the render thread: processing, loud or quiet, at any block size,
// and changing its settings must not touch the heap.
#include <gtest/gtest.h>

#include "alloc_counter.h"
#include "platform/PeakLimiter.h"
#include "tests/TestSignals.h"

namespace {

TEST(LimiterAllocation, ProcessAndSettingsAllocateNothing) {
    sr::PeakLimiter limiter;
    auto quiet = sr::test::noise(4096, 1, 0.5f);
    auto loud = sr::test::noise(4096, 2, 20.0f);
    const std::uint32_t sizes[] = {1, 7, 64, 512, 4096};
    long allocations = 0;
    {
        sr::test::AllocationCounter counter;
        for (int call = 0; call < 500; ++call) {
            auto& signal = call % 3 == 0 ? loud : quiet;
            float* const channels[] = {signal.left.data(), signal.right.data()};
            if (call % 50 == 0) {
                limiter.setPreGain(call % 100 ? 6.0 : -0.01);
                limiter.setAttackTime(0.01 + call * 1e-4);
                limiter.setDecayTime(0.1);
                limiter.setSampleRate(call % 100 ? 44100.0 : 48000.0);
            }
            limiter.process(channels, 2, sizes[call % 5]);
            if (call % 100 == 99) limiter.reset();
        }
        allocations = counter.count();
    }
    EXPECT_EQ(allocations, 0);
}

} // namespace
