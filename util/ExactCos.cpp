#include "util/ExactCos.h"

#include <cmath>
#include <cstdint>
#include <cstring>

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

} // namespace sr
