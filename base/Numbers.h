// Arithmetic on script numbers that C++ leaves undefined: doubles that do not fit an integer, and
// sums that overflow. Scripts can produce all of them, so every conversion goes through here.

#ifndef ZEPH_BASE_NUMBERS_H
#define ZEPH_BASE_NUMBERS_H

// The integer form of a double: truncated toward zero. What does not fit in 32 bits, NaN included,
// is -2147483648.
inline int DoubleToInteger(double value) {
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int>(value);
  return -2147483647 - 1;
}

// Sum and difference modulo 2^32, as positions and counts of a script wrap.
inline int WrapAdd(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}
inline int WrapSubtract(int a, int b) {
  return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
}

#endif
