// Conversions that are defined for every input. A float-to-integer cast of a value outside the
// target's range (or NaN) is undefined behaviour in C++; host and file data can be anything.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace sr {

// Truncates toward zero, saturating at the type's range; NaN gives 0.
template <typename Int, typename Real>
constexpr Int truncSaturate(Real value) {
    if (!(value == value)) return 0;
    constexpr Real lo = static_cast<Real>(std::numeric_limits<Int>::min());
    // The largest power of two not above max(): exactly representable in every float type.
    constexpr Real hi = static_cast<Real>(std::numeric_limits<Int>::max() / 2 + 1) * Real(2);
    if (value <= lo) return std::numeric_limits<Int>::min();
    if (value >= hi) return std::numeric_limits<Int>::max();
    return static_cast<Int>(value);
}

// The kernel's effect byte: value widened to double, times 127, truncated, then kept to the
// low eight bits as the unsigned 8-bit conversion of the original integer would.
inline std::uint8_t effectByteFromValue(float value) {
    return static_cast<std::uint8_t>(truncSaturate<std::int64_t>(double(value) * 127.0) & 0xFF);
}

// The value itself truncated to a byte (the LFO shape travels this way).
inline std::uint8_t effectByteFromInteger(float value) {
    return static_cast<std::uint8_t>(truncSaturate<std::int64_t>(double(value)) & 0xFF);
}

inline bool isFinite(float v) {
    return std::isfinite(v);
}

} // namespace sr
