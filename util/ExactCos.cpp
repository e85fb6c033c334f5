#include "util/ExactCos.h"

#include <cmath>

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
// value.
double cosNear0(double r) {
    const double z = r * r;
    return 1.0 +
           z * (-inverseFactorial(2) +
                z * (inverseFactorial(4) +
                     z * (-inverseFactorial(6) +
                          z * (inverseFactorial(8) + z * (-inverseFactorial(10) +
                                                          z * (inverseFactorial(12) +
                                                               z * (-inverseFactorial(14) +
                                                                    z * inverseFactorial(16))))))));
}

double sinNear0(double r) {
    const double z = r * r;
    return r +
           r * z *
               (-inverseFactorial(3) +
                z * (inverseFactorial(5) +
                     z * (-inverseFactorial(7) +
                          z * (inverseFactorial(9) + z * (-inverseFactorial(11) +
                                                          z * (inverseFactorial(13) +
                                                               z * (-inverseFactorial(15) +
                                                                    z * inverseFactorial(17))))))));
}

} // namespace

float cosRoundedToFloat(double x) {
    if (!(x >= 0.0 && x <= 7.0)) return float(std::cos(x));
    // x = k pi / 2 + r with |r| <= pi / 4 (a little more where x * 2 / pi rounds near a half).
    const int k = int(x * kTwoOverPi + 0.5);
    const double r = ((x - k * kHalfPi1) - k * kHalfPi2) - k * kHalfPi3;
    double c;
    switch (k & 3) {
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
