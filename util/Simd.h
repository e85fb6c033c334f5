// Four-lane float and int vectors for the render loops that carry both channels side by side
// (lane 0 left, lane 1 right; lanes 2 and 3 ride along unused). GCC/clang vector extensions:
// one source for every target, SSE2 on x86-64. Each lane computes exactly what the same scalar
// expression computes (IEEE single precision, nothing reassociated or fused), so a loop moved
// into lanes keeps its output bits.
#pragma once

#include <cstdint>

namespace sr::simd {

using f32x4 = float __attribute__((vector_size(16)));
using i32x4 = std::int32_t __attribute__((vector_size(16)));

inline f32x4 splat(float v) {
    return f32x4{v, v, v, v};
}
inline i32x4 splat(std::int32_t v) {
    return i32x4{v, v, v, v};
}
// Left and right in lanes 0 and 1.
inline f32x4 stereo(float left, float right) {
    return f32x4{left, right, 0.0f, 0.0f};
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

} // namespace sr::simd
