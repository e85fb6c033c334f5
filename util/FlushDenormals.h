// Flushes subnormal floats to zero on the current thread for as long as it lives, restoring the
// caller's setting after. Subnormals are inaudible (below -750 dBFS) but can cost a processor
// many times the work of a normal number, so a decaying tail or a host's near-silent input
// would otherwise make render calls slow at random. Real-time safe: two register accesses.
#pragma once

#include <cstdint>

#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace sr {

class FlushDenormals {
public:
    FlushDenormals() {
#if defined(__SSE__) || defined(__x86_64__)
        // Writing the register is slow; most hosts already run their audio threads flushing.
        saved = _mm_getcsr();
        if ((saved & (kFlushToZero | kDenormalsAreZero)) != (kFlushToZero | kDenormalsAreZero))
            _mm_setcsr(saved | kFlushToZero | kDenormalsAreZero);
#elif defined(__aarch64__)
        __asm__ __volatile__("mrs %0, fpcr" : "=r"(saved));
        __asm__ __volatile__("msr fpcr, %0" ::"r"(saved | kFlushToZeroA64));
#endif
    }
    ~FlushDenormals() {
#if defined(__SSE__) || defined(__x86_64__)
        if ((saved & (kFlushToZero | kDenormalsAreZero)) != (kFlushToZero | kDenormalsAreZero))
            _mm_setcsr(saved);
#elif defined(__aarch64__)
        __asm__ __volatile__("msr fpcr, %0" ::"r"(saved));
#endif
    }
    FlushDenormals(const FlushDenormals&) = delete;
    FlushDenormals& operator=(const FlushDenormals&) = delete;

private:
#if defined(__SSE__) || defined(__x86_64__)
    static constexpr unsigned kFlushToZero = 0x8000;
    static constexpr unsigned kDenormalsAreZero = 0x0040;
    unsigned saved = 0;
#elif defined(__aarch64__)
    static constexpr std::uint64_t kFlushToZeroA64 = std::uint64_t(1) << 24;
    std::uint64_t saved = 0;
#endif
};

} // namespace sr
