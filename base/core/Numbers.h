// Arithmetic on script numbers that C++ leaves undefined: doubles that do not fit an integer, and
// sums that overflow. Scripts can produce all of them, so every conversion goes through here.

#ifndef ZEPH_BASE_NUMBERS_H
#define ZEPH_BASE_NUMBERS_H

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// The integer form of a double: truncated toward zero. Values that do not fit in 32 bits, NaN
// included, give -2147483648.
inline int DoubleToInteger(double value) {
#ifdef __SSE2__
  // The processor's conversion, which is defined for all values, gives just that.
  return _mm_cvttsd_si32(_mm_set_sd(value));
#else
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int>(value);
  return -2147483647 - 1;
#endif
}

// Sum and difference modulo 2^32, as positions and counts of a script wrap.
inline int WrapAdd(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}
inline int WrapSubtract(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
}

// The remainder of a division truncated toward zero, with the sign of the dividend; 0 for a divisor
// of 0. A divisor of -1 also gives 0, without a division, because the processor traps if the
// quotient does not fit.
inline int Remainder(int dividend, int divisor) {
  return divisor == 0 || divisor == -1 ? 0 : dividend % divisor;
}

#endif
