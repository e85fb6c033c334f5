// cos(x) rounded to float, the same float as float(std::cos(x)), for the LFO's sine shape.
//
// The C library's cos reads the floating-point control register on every call (which waits for
// the floating-point work in flight) before it reduces its argument, and the LFO calls it twice
// per render call. For 0 <= x <= 7 (the LFO's 2 pi x for x in 0..1 is at most 6.29) cos is
// worked out here instead, in double precision, within about 2^-50 of the true value. The C
// library's cos is within one unit in the last place of it (2^-52), so it lies within 2^-44 of
// the double found here. When rounding that double 2^-44 below and above gives the same float,
// rounding, being monotonic, gives that float for everything in between, the library's value
// included, and it is returned. Otherwise (the value lies that close to the half-way point
// between two floats: for 218 of the 1,065,353,217 arguments the LFO can form) and outside
// 0..7 the C library's cos decides.
// Real-time safe; no state.
#pragma once

namespace sr {

float cosRoundedToFloat(double x);
// Both channels' cosines at once, out[0] = cosRoundedToFloat(a), out[1] = cosRoundedToFloat(b),
// bit for bit, in about half the instructions of two calls.
void cosRoundedToFloat2(double a, double b, float out[2]);

} // namespace sr
