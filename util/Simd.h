// Four-lane float and int vectors for the render loops that carry both channels side by side
// (lane 0 left, lane 1 right; lanes 2 and 3 ride along unused), and wider ones for loops that
// work on many frames at once. GCC/clang vector extensions:
// one source for every target, SSE2 on x86-64. Each lane computes exactly what the same scalar
// expression computes (IEEE single precision, nothing reassociated or fused: the build turns
// contraction into fused multiply-adds off), so a loop moved into lanes, of whatever width,
// keeps its output bits.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

namespace sr::simd {

using f32x4 = float __attribute__((vector_size(16)));
using i32x4 = std::int32_t __attribute__((vector_size(16)));

inline f32x4 splat(float v) {
    return f32x4{v, v, v, v};
}
inline i32x4 splat(std::int32_t v) {
    return i32x4{v, v, v, v};
}
// Left and right in lanes 0 and 1 (lanes 2 and 3 undefined).
inline f32x4 stereo(float left, float right) {
    return __builtin_shufflevector(f32x4{left}, f32x4{right}, 0, 4, -1, -1);
}
inline i32x4 stereo(std::int32_t left, std::int32_t right) {
    return i32x4{left, right, 0, 0};
}
// Lanes 0 and 1 exchanged: each channel sees the other.
inline f32x4 swapped(f32x4 v) {
    return __builtin_shufflevector(v, v, 1, 0, 3, 2);
}
// Truncation towards zero and back, lane by lane, as (int)x and (float)i do.
inline i32x4 truncated(f32x4 v) {
    return __builtin_convertvector(v, i32x4);
}
inline f32x4 toFloat(i32x4 v) {
    return __builtin_convertvector(v, f32x4);
}
// a where the mask lane is all ones, else b.
inline i32x4 select(i32x4 mask, i32x4 a, i32x4 b) {
    return (a & mask) | (b & ~mask);
}

// Vectors of N lanes, for loops written once for several widths.
template <int N>
struct Vec;
template <>
struct Vec<4> {
    using f32 = f32x4;
    using i32 = i32x4;
};
template <>
struct Vec<8> {
    typedef float f32 __attribute__((vector_size(32)));
    typedef std::int32_t i32 __attribute__((vector_size(32)));
};

// Whether loops that pay for it may take their eight-lane AVX2 versions: true when this
// processor has AVX2 (found once, when the program or plug-in is loaded), unless turned off.
// (Inline: render loops ask it on every block.)
extern std::atomic<bool> wideInUse;
inline bool wideVectors() {
    return wideInUse.load(std::memory_order_relaxed);
}
// Tests turn the wide versions off to check the baseline ones; on processors without AVX2 they
// stay off whatever is asked.
void allowWideVectors(bool allowed);

// Four floats from memory or to it, at any alignment.
inline f32x4 load(const float* p) {
    f32x4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void store(float* p, f32x4 v) {
    std::memcpy(p, &v, sizeof v);
}
// |v| lane by lane (the sign bit cleared, as fabs does).
inline f32x4 abs(f32x4 v) {
    i32x4 bits;
    std::memcpy(&bits, &v, sizeof v);
    bits &= 0x7FFFFFFF;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}
// a where a > b, else b, lane by lane: a NaN in a is passed over.
inline f32x4 maxOf(f32x4 a, f32x4 b) {
#if defined(__SSE__)
    return __builtin_ia32_maxps(a, b);
#else
    const i32x4 greater = a > b;
    i32x4 ai, bi;
    std::memcpy(&ai, &a, sizeof a);
    std::memcpy(&bi, &b, sizeof b);
    const i32x4 r = select(greater, ai, bi);
    f32x4 out;
    std::memcpy(&out, &r, sizeof out);
    return out;
#endif
}
// The largest of the four lanes, NaN passed over as by maxOf.
inline float maxLane(f32x4 v) {
    const float a = v[0] > v[1] ? v[0] : v[1];
    const float b = v[2] > v[3] ? v[2] : v[3];
    return a > b ? a : b;
}
// True when every lane of the mask is set.
inline bool all(i32x4 mask) {
#if defined(__SSE__)
    f32x4 bits;
    std::memcpy(&bits, &mask, sizeof bits);
    return __builtin_ia32_movmskps(bits) == 0xF;
#else
    return (mask[0] & mask[1] & mask[2] & mask[3]) == -1;
#endif
}

} // namespace sr::simd
