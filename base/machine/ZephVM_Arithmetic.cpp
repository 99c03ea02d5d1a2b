// Instructions that compute: arithmetic, rounding, bits, comparison, logic, search and the password
// hash. Each handler follows its reference text. Operands are popped from the right; a failed pop
// sets the stop flag, and then nothing is pushed. Tested in
// tests/base/machine/InstructionsArithmeticTest.cpp, InstructionsComparisonTest.cpp and
// InstructionsSearchTest.cpp.

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "base/core/NumberText.h"
#include "base/core/Numbers.h"
#include "base/core/RunLimit.h"
#include "base/core/dtoa.h"
#include "base/core/string_search.h"
#include "base/host/ZephApplication.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"

namespace {

// From this length of a text on, the search that builds a table first is faster.
const int kLongText = 300;

// A value rounded to some decimals, with its digits as dtoa writes them.
struct Rounded {
  enum Kind { Number, Infinity, NaN };
  Kind kind = Number;
  double value = 0.0;
  char digits[20];
  int count = 0;  // of digits; 0 if the value has to be converted to get them
  int point = 0;
  int sign = 0;

  // Sets the digits of whole / 10^decimals. A number of up to 15 digits survives the conversion to
  // a double and back, so converting the value would give the same digits.
  void SetDigits(unsigned long whole, int decimals) {
    const unsigned long most = 1000000000000000;
    count = 0;
    if (whole >= most) return;
    count = static_cast<int>(std::to_chars(digits, std::end(digits), whole).ptr - digits);
    point = whole ? count - decimals : 1;
    while (count > 1 && digits[count - 1] == '0') count--;
  }
};

const unsigned kPowers[] = {1,      10,      100,      1000,      10000,
                            100000, 1000000, 10000000, 100000000, 1000000000};

double PowerOfTen(int exponent) {
  static const double kLarger[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9, 1e10,
                                   1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20};
  return exponent <= 20 ? kLarger[exponent] : pow(10.0, exponent);
}

// The end of RoundByFraction: `scaled` is the value's mantissa times `power`, so many bits of which
// are after the point. With up to 3 decimals it has at most 63 bits.
template <class Scaled>
inline bool RoundScaled(Scaled scaled, uint64_t power, int shift, unsigned long* whole) {
  const auto fraction = static_cast<uint64_t>(scaled) & ((uint64_t{1} << shift) - 1);
  const uint64_t half = uint64_t{1} << (shift - 1);
  const uint64_t distance = fraction > half ? fraction - half : half - fraction;
  const Scaled below = scaled >> shift;
  if (distance <= power || below >= 999999999999999) return false;
  *whole = static_cast<unsigned long>(below) + (fraction > half);
  return true;
}

// Rounds as Round does, but without the value's digits; the result is a whole number of units of
// the last decimal. This works if the fraction after the last kept decimal is not so near to a half
// that the digits, which differ from the value by at most half of its last bit, could decide
// otherwise. Returns false in all other cases, and for values that are too large or so small that
// rounding might begin before the first digit: below 0.1, and without decimals below 1.
inline bool RoundByFraction(double value, int decimals, unsigned long* whole) {
  const double magnitude = fabs(value);
  if (static_cast<unsigned>(decimals) > 9) return false;
  const double least = decimals > 0 ? 0.1 : 1.0;
  if (!(magnitude >= least && magnitude < 4503599627370496.0)) return false;  // 2 to the 52nd
  const uint64_t bits = std::bit_cast<uint64_t>(magnitude);
  const uint64_t mantissa = (bits & ((uint64_t{1} << 52) - 1)) | uint64_t{1} << 52;
  const int shift = 1075 - static_cast<int>(bits >> 52);  // bits after the point: 1 to 56
  const uint64_t power = kPowers[decimals];
  if (decimals <= 3) return RoundScaled(mantissa * power, power, shift, whole);
  __extension__ using Wide = unsigned __int128;
  return RoundScaled(Wide{mantissa} * power, power, shift, whole);
}

// Rounds half to even by the decimal digits that the value is written with, not by its binary
// fraction: 2.345 has a half to round, though the double is not exactly half. If rounding would
// begin before the first digit, the first digit is tested as if it were there: 0.0006 to two
// decimals is 0.01, and scripts rely on that.
Rounded Round(double value, int decimals) {
  Rounded rounded;
  unsigned long whole = 0;
  // Without decimals the value stays as it is.
  if (decimals > 0 && RoundByFraction(value, decimals, &whole)) {
    const double quotient = static_cast<double>(whole) / kPowers[decimals];
    rounded.sign = value < 0;
    rounded.value = rounded.sign ? -quotient : quotient;
    rounded.SetDigits(whole, decimals);
    return rounded;
  }
  rounded.value = value;
  char* digits = rounded.digits;
  const int length =
      dtoa(digits, sizeof rounded.digits, 5, 20, &rounded.point, &rounded.sign, value);
  const int point = rounded.point;
  if (point == 9999) {
    rounded.kind = digits[0] == 'I' ? Rounded::Infinity : Rounded::NaN;
    return rounded;
  }
  if (decimals == 0 || length - point <= decimals) {
    // Without decimals, the conversion to text does the rounding; with more than 20, it may find
    // more digits than dtoa was asked for.
    rounded.count = decimals >= 1 && decimals <= 20 ? length : 0;
    return rounded;
  }
  const int kept = point + decimals;
  for (int i = 0; i < kept; i++) whole = whole * 10 + static_cast<unsigned long>(digits[i] - '0');
  const int test = kept > 0 ? kept : 0;
  bool up = digits[test] > '5';
  if (digits[test] == '5') {
    const char* rest = digits + test + 1;
    up = rest[strspn(rest, "0")] != '\0' || (whole & 1) != 0;
  }
  whole += up;
  const double magnitude = static_cast<double>(whole) / PowerOfTen(decimals);
  rounded.value = rounded.sign ? -magnitude : magnitude;
  rounded.SetDigits(whole, decimals);
  return rounded;
}

// Writes a rounded value whose digits are known. Text and size are those that dtos gives.
char* RoundedText(const Rounded& rounded, int decimals, int* length, int* size) {
  const int whole = std::max(rounded.point, 1);
  const int larger = std::max(rounded.point, rounded.count);
  *size =
      std::max(decimals + larger + (rounded.point == 0) + 3, rounded.sign + whole + decimals + 2);
  char* text = new char[static_cast<size_t>(*size)];
  char* end = text;
  if (rounded.sign) *end++ = '-';
  auto digit = [&rounded](int i) { return i >= 0 && i < rounded.count ? rounded.digits[i] : '0'; };
  for (int i = rounded.point - whole; i < rounded.point; i++) *end++ = digit(i);
  *end++ = '.';
  for (int i = rounded.point; i < rounded.point + decimals; i++) *end++ = digit(i);
  *end = '\0';
  *length = static_cast<int>(end - text);
  return text;
}

// Writes whole / 10^decimals and returns the number of bytes.
[[gnu::noinline]] int WriteWhole(bool is_negative, unsigned long whole, int decimals, char* text) {
  char* end = text;
  if (is_negative) *end++ = '-';
  if (decimals == 0) {
    end = WriteUnsigned(end, whole);
  } else {
    const unsigned long power = kPowers[decimals];
    end = WriteUnsigned(end, whole / power);
    *end = '.';
    end = WriteDigits(end + 1, whole % power, decimals);
  }
  return static_cast<int>(end - text);
}

// WriteRounded for any number of decimals.
[[gnu::noinline]] int WriteDecimals(double value, int decimals, char* text) {
  unsigned long whole;
  if (!RoundByFraction(value, decimals, &whole)) return 0;
  return WriteWhole(value < 0, whole, decimals, text);
}

}  // namespace

// --- Arithmetic ----------------------------------------------------------------------------------

// pow  ( a b -- d )  a to the power b, in doubles.
void ZephVM::pow() {
  const double b = stack->PopD();
  const double a = stack->PopD();
  if (!stop_flag) stack->PushD(::pow(a, b));
}

// rounds  ( a b -- s )  a as text, rounded half to even to b decimals; a negative b counts as 0. An
// infinity gives "Infinity", without its sign, and NaN gives "NaN".
void ZephVM::rounds() {
  int decimals = stack->PopI();
  const double value = stack->PopD();
  if (stop_flag) return;
  if (decimals < 0) decimals = 0;
  const Rounded rounded = Round(value, decimals);
  if (rounded.kind == Rounded::Infinity) {
    stack->PushS("Infinity", 8, 9, 0);
  } else if (rounded.kind == Rounded::NaN) {
    stack->PushS("NaN", 3, 4, 0);
  } else {
    int length, size;
    char* text = rounded.count ? RoundedText(rounded, decimals, &length, &size)
                               : ZephApplication::dtos(rounded.value, &length, &size, decimals);
    stack->PushS(text, length, size, 1);
  }
}

// Most numbers that are written with decimals are amounts: two decimals, below 10,000. With these
// as constants there is no division, and no call.
int ZephVM::WriteRounded(double value, int decimals, char* text) {
  unsigned long whole;
  if (decimals != 2) return WriteDecimals(value, decimals, text);
  if (!RoundByFraction(value, 2, &whole)) return 0;
  if (whole >= 1000000) return WriteWhole(value < 0, whole, 2, text);
  const auto cents = static_cast<unsigned>(whole);
  char* end = text;
  *end = '-';
  end += value < 0;
  end = WriteUnsigned(end, cents / 100);
  *end = '.';
  end = WritePair(end + 1, cents % 100);
  return static_cast<int>(end - text);
}

// roundf  ( a b -- d )  a rounded half to even to b decimals; a negative b counts as 0. An infinity
// or NaN gives positive infinity.
void ZephVM::roundf() {
  int decimals = stack->PopI();
  const double value = stack->PopD();
  if (stop_flag) return;
  if (decimals < 0) decimals = 0;
  const Rounded rounded = Round(value, decimals);
  stack->PushD(rounded.kind == Rounded::Number ? rounded.value : HUGE_VAL);
}

// --- Bits ----------------------------------------------------------------------------------------

// bitand  ( a b -- i )  Bitwise and.
void ZephVM::op_bitand() {
  const int b = stack->PopI();
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(a & b);
}

// bitor  ( a b -- i )  Bitwise or.
void ZephVM::op_bitor() {
  const int b = stack->PopI();
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(a | b);
}

// bitxor  ( a b -- i )  Bitwise exclusive or.
void ZephVM::bitxor() {
  const int b = stack->PopI();
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(a ^ b);
}

// bitoc  ( a -- i )  The one's complement.
void ZephVM::bitoc() {
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(~a);
}

// bitsl  ( a b -- i )  a shifted left by the low five bits of b.
void ZephVM::bitsl() {
  const int b = stack->PopI();
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(static_cast<int>(static_cast<unsigned>(a) << (b & 31)));
}

// bitsr  ( a b -- i )  a shifted right by the low five bits of b; the sign bit is copied in.
void ZephVM::bitsr() {
  const int b = stack->PopI();
  const int a = stack->PopI();
  if (!stop_flag) stack->PushI(a >> (b & 31));
}

// --- Logic ---------------------------------------------------------------------------------------

// and  ( a b -- i )  1 if both are true. Both are always read.
void ZephVM::op_and() {
  const bool b = stack->PopBool();
  const bool a = stack->PopBool();
  if (!stop_flag) stack->PushI(a && b);
}

// or  ( a b -- i )  1 if either is true. Both are always read.
void ZephVM::op_or() {
  const bool b = stack->PopBool();
  const bool a = stack->PopBool();
  if (!stop_flag) stack->PushI(a || b);
}

// not  ( a -- i )  1 if a is false.
void ZephVM::op_not() {
  const bool a = stack->PopBool();
  if (!stop_flag) stack->PushI(!a);
}

// isnull  ( a -- i )  1 if a has no value or is an empty text.
void ZephVM::isnull() {
  const bool null = stack->PopNull();
  if (!stop_flag) stack->PushI(null);
}

// --- Comparison ----------------------------------------------------------------------------------

namespace {
ZephVM_Stack::Stack_Entry EntryOf(Variable* variable) {
  ZephVM_Stack::Stack_Entry entry{};
  entry.kind = ZephVM_Stack::KindVariable;
  entry.value.variable = variable;
  return entry;
}
}  // namespace

int ZephVM::CompareTexts(Variable* left, Variable* right) {
  const ZephVM_Stack::Stack_Entry a = EntryOf(left);
  const ZephVM_Stack::Stack_Entry b = EntryOf(right);
  return ZephVM_Stack::Compare(&a, &b);
}

int ZephVM::CompareTexts(Variable* left, int right) {
  const ZephVM_Stack::Stack_Entry a = EntryOf(left);
  ZephVM_Stack::Stack_Entry b{};
  b.kind = ZephVM_Stack::KindInteger;
  b.value.integer = right;
  return ZephVM_Stack::Compare(&a, &b);
}

// --- Search --------------------------------------------------------------------------------------

namespace {
// Searches a text in parts, so that a long search ends at the time limit. The parts overlap by the
// length of a match less one.
int SearchByParts(int (*search)(const char*, int, const char*, int), const char* needle, int length,
                  const char* text, int text_length) {
  const int step = std::max(RunLimit::Bytes, length);
  for (int start = 0;;) {
    const int rest = text_length - start;
    const int part = rest - step < length ? rest : step + length - 1;
    const int found = search(needle, length, text + start, part);
    if (found >= 0) return start + found;
    if (part == rest || RunLimit::Over()) return -1;
    start += step;
  }
}
}  // namespace

// Short texts are searched with the plain scan, long ones with the search that builds a table.
void ZephVM::PushMatch(Search plain, Search fast, bool last_byte) {
  const PoppedString text(stack);
  const PoppedString needle(stack);
  if (stop_flag) return;
  if (needle.length() == 0) {
    stack->PushI(last_byte ? 0 : 1);
    return;
  }
  int offset = -1;
  if (needle.length() <= text.length()) {
    const Search search = text.length() >= kLongText ? fast : plain;
    offset = SearchByParts(search, needle.data(), needle.length(), text.data(), text.length());
  }
  stack->PushI(offset < 0 ? 0 : offset + (last_byte ? needle.length() : 1));
}

// in  ( needle text -- i )  The position of the needle's first occurrence in the text, from 1; 0 if
// there is none. An empty needle is at 1.
void ZephVM::in() {
  PushMatch(bf_search, bm_search, false);
}

// cin  ( needle text -- i )  As in, without regard to case.
void ZephVM::cin() {
  PushMatch(bf_searchi, bm_searchi, false);
}

// ein  ( needle text -- i )  The position at which the first match of the needle in the text ends,
// from 1; 0 if there is none. An empty needle gives 0, unlike with in.
void ZephVM::ein() {
  PushMatch(bf_search, bm_search, true);
}

// ecin  ( needle text -- i )  As ein, without regard to case.
void ZephVM::ecin() {
  PushMatch(bf_searchi, bm_searchi, true);
}

// --- Password hash -------------------------------------------------------------------------------

// crypt  ( text salt -- s )  The password hash of the first 8 bytes of text under the first two
// bytes of salt. A single byte of salt counts twice; an empty salt is replaced by a random one.
void ZephVM::crypt() {
  // Only 63 of the 64 are ever picked, as for the hashes that older sites have made.
  static const char kSalt[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  const PoppedString salt(stack);
  const PoppedString text(stack);
  if (stop_flag) return;
  char two[3] = {};
  if (salt.length() == 0) {
    two[0] = kSalt[rand() % 63];
    two[1] = kSalt[rand() % 63];
  } else {
    two[0] = salt.data()[0];
    two[1] = salt.data()[salt.length() > 1 ? 1 : 0];
  }
  int length, size;
  char* hash = application->Crypt(text.data(), text.length(), two, &length, &size);
  stack->PushS(hash, length, size, 1);
}
