// Non-negative integers of any size, as the exact conversion of doubles to decimal needs them:
// the routines of Gay's "Correctly Rounded Binary-Decimal and Decimal-Binary Conversions" (1990),
// under its names. Each number is one malloc, nothing is cached, and any thread may call them.

#ifndef ZEPH_BASE_BIGINT_H
#define ZEPH_BASE_BIGINT_H

#include <cstdint>
#include <memory>

// Words of 32 bits, the least significant first. The highest word in use isn't 0, unless the number
// is 0, which has one word.
struct Bigint {
  int k;       // there is room for 2^k words
  int maxwds;  // 2^k
  int sign;    // set by diff
  int wds;     // words in use
  uint32_t x[1];
};

// Powers of ten that are exact as doubles, 10^0 to 10^22; and 10^16, 10^32 and so on to 10^256.
extern const double _tens[23];
extern const double _bigtens[5];

// A number with room for 2^k words, and sign and wds 0. Fails with std::bad_alloc.
Bigint* Balloc(int k);
void Bfree(Bigint* number);

// Below, "takes" means that the function owns the argument: it frees it, also on failure, or
// returns it. Every result is owned by the caller.

// b * m + a; takes b. m and a are not negative.
Bigint* multadd(Bigint* b, int m, int a);
// The number of a decimal text of nd digits, of which the first nd0 are before the decimal point;
// the point is skipped. y9 is the value of the first nine digits, or of all if there are fewer.
Bigint* s2b(const char* s, int nd0, int nd, uint32_t y9);
// The zero bits above the highest set bit; 32 for 0.
int hi0bits(uint32_t x);
// The zero bits below the lowest set bit, which are shifted out of *y; 32 for 0.
int lo0bits(uint32_t* y);
Bigint* i2b(int i);
Bigint* mult(const Bigint* a, const Bigint* b);
// b * 5^k; takes b.
Bigint* pow5mult(Bigint* b, int k);
// b * 2^k; takes b.
Bigint* lshift(Bigint* b, int k);
// The order of the two: negative, 0 or positive.
int cmp(const Bigint* a, const Bigint* b);
// The difference, with sign set if a is the lesser.
Bigint* diff(const Bigint* a, const Bigint* b);
// The distance of a double's magnitude to the next greater one.
double ulp(double x);
// The leading bits of a as a double of 1 or more and less than 2; *e receives how many bits of the
// highest word are in use.
double b2d(const Bigint* a, int* e);
// A finite positive double as b * 2^*e with an odd b, of *bits bits.
Bigint* d2b(double d, int* e, int* bits);
// a / b, rounded a few times on the way.
double ratio(const Bigint* a, const Bigint* b);
// The quotient of b and S; b becomes the remainder. REQUIRES: the quotient is at most 9. Fast if
// the highest word of S has 28 bits.
int quorem(Bigint* b, const Bigint* S);

struct BigintDeleter {
  void operator()(Bigint* number) const { Bfree(number); }
};
using BigintPtr = std::unique_ptr<Bigint, BigintDeleter>;

// How many numbers are allocated in the whole process; a leak shows here.
int LiveBigints();

#endif
