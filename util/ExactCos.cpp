#include "util/ExactCos.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "util/Simd.h"

namespace sr {

namespace {

constexpr double inverseFactorial(int n) {
    double f = 1.0;
    for (int k = 2; k <= n; ++k) f *= k;
    return 1.0 / f;
}

// pi / 2 in three parts: the first two of 33 bits, so that k times them (k <= 4) is exact and
// x - k p1 loses nothing; the third carries the next 53 bits.
constexpr double kHalfPi1 = 0x1.921fb544p+0;
constexpr double kHalfPi2 = 0x1.0b4611a6p-34;
constexpr double kHalfPi3 = 0x1.3198a2e037073p-69;
constexpr double kTwoOverPi = 0x1.45f306dc9c883p-1;

// Taylor series on |r| <= pi / 4 + a little: the first term left out is below 2^-57 of the
// value. The polynomials are evaluated in pairs of terms (Estrin's scheme) rather than one term
// after another: the result then waits for nine operations in a row instead of eighteen.
double cosNear0(double r) {
    const double z = r * r, z2 = z * z, z4 = z2 * z2;
    constexpr auto c = inverseFactorial;
    const double p0 = -c(2) + c(4) * z, p1 = -c(6) + c(8) * z;
    const double p2 = -c(10) + c(12) * z, p3 = -c(14) + c(16) * z;
    return 1.0 + z * ((p0 + p1 * z2) + (p2 + p3 * z2) * z4);
}

double sinNear0(double r) {
    const double z = r * r, z2 = z * z, z4 = z2 * z2;
    constexpr auto c = inverseFactorial;
    const double p0 = -c(3) + c(5) * z, p1 = -c(7) + c(9) * z;
    const double p2 = -c(11) + c(13) * z, p3 = -c(15) + c(17) * z;
    return r + (r * z) * ((p0 + p1 * z2) + (p2 + p3 * z2) * z4);
}

} // namespace

float cosRoundedToFloat(double x) {
    if (!(x >= 0.0 && x <= 7.0)) return float(std::cos(x));
    // x = k pi / 2 + r with |r| <= pi / 4 (a little more where x * 2 / pi rounds near a half).
    // Adding 1.5 x 2^52 rounds x * 2 / pi to an integer, which then stands in the low bits.
    constexpr double kRound = 0x1.8p52;
    const double shifted = x * kTwoOverPi + kRound;
    const double k = shifted - kRound;
    const double r = ((x - k * kHalfPi1) - k * kHalfPi2) - k * kHalfPi3;
    std::uint64_t bits;
    std::memcpy(&bits, &shifted, sizeof bits);
    double c;
    switch (bits & 3) {
    case 0:
        c = cosNear0(r);
        break;
    case 1:
        c = -sinNear0(r);
        break;
    case 2:
        c = -cosNear0(r);
        break;
    default:
        c = sinNear0(r);
        break;
    }
    constexpr double kMargin = 0x1p-44;
    if (float(c * (1.0 - kMargin)) == float(c * (1.0 + kMargin))) return float(c);
    return float(std::cos(x));
}

namespace {

using f64x4 = double __attribute__((vector_size(32)));
using i64x4 = std::int64_t __attribute__((vector_size(32)));

// Two cosines at once, lanes {cos a, cos b, sin a, sin b} of one vector: both series in one
// evaluation, each lane doing the operations cosNear0 or sinNear0 does for it, in their order,
// so every lane's bits are the scalar function's. cos r = 1 + z P(z) and sin r = r + (r z) Q(z)
// are both s + (s' z) S(z), with s = s' = 1 for the cosine (1 x z is z, exactly).
[[gnu::always_inline]] inline void cosPair(double a, double b, float out[2]) {
    constexpr double kRound = 0x1.8p52;
    const f64x4 x{a, b, a, b};
    const f64x4 shifted = x * kTwoOverPi + kRound;
    const f64x4 k = shifted - kRound;
    const f64x4 r = ((x - k * kHalfPi1) - k * kHalfPi2) - k * kHalfPi3;
    const f64x4 z = r * r, z2 = z * z, z4 = z2 * z2;
    constexpr auto c = inverseFactorial;
    constexpr f64x4 c0{-c(2), -c(2), -c(3), -c(3)}, c1{c(4), c(4), c(5), c(5)};
    constexpr f64x4 c2{-c(6), -c(6), -c(7), -c(7)}, c3{c(8), c(8), c(9), c(9)};
    constexpr f64x4 c4{-c(10), -c(10), -c(11), -c(11)}, c5{c(12), c(12), c(13), c(13)};
    constexpr f64x4 c6{-c(14), -c(14), -c(15), -c(15)}, c7{c(16), c(16), c(17), c(17)};
    const f64x4 p0 = c0 + c1 * z, p1 = c2 + c3 * z;
    const f64x4 p2 = c4 + c5 * z, p3 = c6 + c7 * z;
    const f64x4 s{1.0, 1.0, r[2], r[3]};
    const f64x4 series = s + (s * z) * ((p0 + p1 * z2) + (p2 + p3 * z2) * z4);
    i64x4 quadrant;
    std::memcpy(&quadrant, &shifted, sizeof quadrant);
    for (int lane = 0; lane < 2; ++lane) {
        // Quadrants 0 to 3: cos r, -sin r, -cos r, sin r.
        const std::int64_t q = quadrant[lane] & 3;
        double v = (q & 1) ? series[lane + 2] : series[lane];
        if (q == 1 || q == 2) v = -v;
        constexpr double kMargin = 0x1p-44;
        const double arg = lane == 0 ? a : b;
        out[lane] = float(v * (1.0 - kMargin)) == float(v * (1.0 + kMargin)) ? float(v)
                                                                             : float(std::cos(arg));
    }
}

void cosPairBaseline(double a, double b, float out[2]) {
    cosPair(a, b, out);
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// The four lanes in one AVX2 register: the same operations, the same bits.
[[gnu::target("avx2")]] void cosPairWide(double a, double b, float out[2]) {
    cosPair(a, b, out);
}
#else
void cosPairWide(double a, double b, float out[2]) {
    cosPair(a, b, out);
}
#endif

} // namespace

void cosRoundedToFloat2(double a, double b, float out[2]) {
    if (!(a >= 0.0 && a <= 7.0 && b >= 0.0 && b <= 7.0)) {
        out[0] = cosRoundedToFloat(a);
        out[1] = cosRoundedToFloat(b);
        return;
    }
    if (simd::wideVectors())
        cosPairWide(a, b, out);
    else
        cosPairBaseline(a, b, out);
}

} // namespace sr
