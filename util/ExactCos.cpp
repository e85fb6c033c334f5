#include "util/ExactCos.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "util/Simd.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#endif

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

// c, the cosine of x worked out here, rounded to float when everything within 2^-44 of it (the
// C library's value included) rounds alike; otherwise the C library's cosine, rounded.
inline float roundedIfSure(double c, double x) {
    constexpr double kMargin = 0x1p-44;
    if (float(c * (1.0 - kMargin)) == float(c * (1.0 + kMargin))) return float(c);
    return float(std::cos(x));
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
    return roundedIfSure(c, x);
}

namespace {

using f64x4 = double __attribute__((vector_size(32)));
using i64x4 = std::int64_t __attribute__((vector_size(32)));

// Lanes {cos a, cos b, sin a, sin b} of a series, and the quadrant counts of a and b in the
// low bits of the first two: each cosine is its quadrant's series, signed, rounded to float
// where that is sure.
[[gnu::always_inline]] inline void pickAndRound(const double series[4],
                                                const std::int64_t quadrant[4], double a, double b,
                                                float out[2]) {
    for (int lane = 0; lane < 2; ++lane) {
        // Quadrants 0 to 3: cos r, -sin r, -cos r, sin r.
        const std::int64_t q = quadrant[lane] & 3;
        double v = (q & 1) ? series[lane + 2] : series[lane];
        if (q == 1 || q == 2) v = -v;
        out[lane] = roundedIfSure(v, lane == 0 ? a : b);
    }
}

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
    double lanes[4];
    std::memcpy(lanes, &series, sizeof lanes);
    std::int64_t quadrant[4];
    std::memcpy(quadrant, &shifted, sizeof quadrant);
    pickAndRound(lanes, quadrant, a, b, out);
}

void cosPairBaseline(double a, double b, float out[2]) {
    cosPair(a, b, out);
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// Asked together with simd::wideVectors(), which stands for AVX2.
const bool kFusedMultiplyAdd = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("fma");
}();

// The same four lanes in one AVX2 register, each step a fused multiply-add: the value waits
// for fewer dependent operations, and it is worked out once per render call. The lanes' doubles
// may differ from the other versions' in their last bits; the floats cannot:
// - r = x - k pi/2 with pi/2 as the double nearest to it plus a second double: the first fused
//   step is exact (the difference, below 1, needs no bit below 2^-52, the last of both x and
//   k x that double), the second rounds once; what is left of pi/2 (about 2^-109, times k)
//   moves r by less than 2^-106, and no double lies closer than 6e-17 to a multiple of pi/2,
//   so r is within 2^-52 of itself;
// - the series keep the value within about 2^-51 of the true cosine, well inside the 2^-44
//   the margin test allows.
[[gnu::target("avx2,fma")]] void cosPairFused(double a, double b, float out[2]) {
    constexpr double kRound = 0x1.8p52;
    constexpr double kHalfPiNear = 0x1.921fb54442d18p+0, kHalfPiRest = 0x1.1a62633145c07p-54;
    const __m256d x = _mm256_setr_pd(a, b, a, b);
    const __m256d round = _mm256_set1_pd(kRound);
    const __m256d shifted = _mm256_fmadd_pd(x, _mm256_set1_pd(kTwoOverPi), round);
    const __m256d k = _mm256_sub_pd(shifted, round);
    __m256d r = _mm256_fnmadd_pd(k, _mm256_set1_pd(kHalfPiNear), x);
    r = _mm256_fnmadd_pd(k, _mm256_set1_pd(kHalfPiRest), r);
    const __m256d z = _mm256_mul_pd(r, r), z2 = _mm256_mul_pd(z, z), z4 = _mm256_mul_pd(z2, z2);
    constexpr auto c = inverseFactorial;
    const __m256d c0 = _mm256_setr_pd(-c(2), -c(2), -c(3), -c(3));
    const __m256d c1 = _mm256_setr_pd(c(4), c(4), c(5), c(5));
    const __m256d c2 = _mm256_setr_pd(-c(6), -c(6), -c(7), -c(7));
    const __m256d c3 = _mm256_setr_pd(c(8), c(8), c(9), c(9));
    const __m256d c4 = _mm256_setr_pd(-c(10), -c(10), -c(11), -c(11));
    const __m256d c5 = _mm256_setr_pd(c(12), c(12), c(13), c(13));
    const __m256d c6 = _mm256_setr_pd(-c(14), -c(14), -c(15), -c(15));
    const __m256d c7 = _mm256_setr_pd(c(16), c(16), c(17), c(17));
    const __m256d p0 = _mm256_fmadd_pd(c1, z, c0), p1 = _mm256_fmadd_pd(c3, z, c2);
    const __m256d p2 = _mm256_fmadd_pd(c5, z, c4), p3 = _mm256_fmadd_pd(c7, z, c6);
    const __m256d q0 = _mm256_fmadd_pd(p1, z2, p0), q1 = _mm256_fmadd_pd(p3, z2, p2);
    const __m256d poly = _mm256_fmadd_pd(q1, z4, q0);
    // s = 1 in the cosine lanes, r in the sine lanes.
    const __m256d s = _mm256_blend_pd(_mm256_set1_pd(1.0), r, 0b1100);
    const __m256d series = _mm256_fmadd_pd(_mm256_mul_pd(s, z), poly, s);
    double lanes[4];
    _mm256_storeu_pd(lanes, series);
    std::int64_t quadrant[4];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(quadrant), _mm256_castpd_si256(shifted));
    pickAndRound(lanes, quadrant, a, b, out);
}
#else
constexpr bool kFusedMultiplyAdd = false;
void cosPairFused(double a, double b, float out[2]) {
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
    if (kFusedMultiplyAdd && simd::wideVectors())
        cosPairFused(a, b, out);
    else
        cosPairBaseline(a, b, out);
}

} // namespace sr
