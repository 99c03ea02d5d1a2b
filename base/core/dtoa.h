// The exact conversion of a double to decimal digits, after Gay's "Correctly Rounded Binary-Decimal
// and Decimal-Binary Conversions" (1990). Every number that a script writes goes through it.

#ifndef ZEPH_BASE_DTOA_H
#define ZEPH_BASE_DTOA_H

// Writes the digits of the value's magnitude and a NUL into the buffer and returns the count of
// digits. *decimal_point receives the position of the point, counted from the start of the digits:
// "25" and 1 is 2.5, and -1 puts a zero between the point and the digits. *sign receives 1 for a
// value with its sign bit set, negative zero included, else 0. There are no trailing zeros; a zero
// gives "0" and 1. Values that are not finite give "Infinity" or "NaN" and 9999.
//
// Modes: 0  the shortest digits that read back as the same double, the nearest to it of those
//        1  as 0, but digits that read back only by rounding half to even do not count
//        2  the value rounded half to even to the given count of digits, at least 1
//        3  the value rounded half to even to that many places after the point; the count may be
//           negative. No digits, and a decimal_point of -digits, if nothing is left of the value
//        4  as 2, but the digits of mode 0 if there are no more of them
//        5  as 3, but the digits of mode 0 if they go no further
//        6 to 9  as 2 to 5, by big integers alone: slower, and a check on the others
// Any other mode is 0.
//
// size is that of the buffer in bytes. No more than size - 1 digits are written: if the mode would
// give more, the value is rounded to that many. 18 bytes are enough for modes 0, 1, 4 and 5.
int dtoa(char* buffer, int size, int mode, int digits, int* decimal_point, int* sign, double value);

#endif
