// Per-instance random source for the effects: the value range of the C library's rand()
// (0 to 2^31 - 1) without its hidden global state, so instances never disturb each other and
// the same input renders the same output. Real-time safe.
#pragma once

#include <cstdint>

namespace sr {

class RandomSource {
public:
    explicit RandomSource(std::uint64_t seed = 0x5EEDC0FFEE123457ull) : state(seed) {}

    void seed(std::uint64_t s) { state = s; }

    // 0 .. 2^31 - 1, like rand() on this platform.
    std::int32_t next() {
        // 64-bit LCG (Knuth's MMIX constants); the top bits are the well-mixed ones.
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<std::int32_t>(state >> 33);
    }

    // Uniform in [0, 1): next() divided by 2^31.
    double uniform() { return next() / 2147483648.0; }

private:
    std::uint64_t state;
};

} // namespace sr
