// Functions for numbers. Tested in tests/extensions/zephstd/NumbersTest.cpp.

#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

#include "extensions/zephstd/Call.h"

namespace zephstd {

namespace {

constexpr int kMostDigits = 20;  // after the point

// The shortest digits that are the number again, and where its point is: 0 is before the first one.
struct Decimal {
  std::string digits;
  long long point = 0;
};

Decimal DigitsOf(double value) {
  char text[32];
  const auto [end, problem] =
      std::to_chars(text, text + sizeof text, value, std::chars_format::scientific);
  const std::string_view whole(text, static_cast<size_t>(end - text));
  const size_t exponent = whole.find('e');
  Decimal decimal;
  for (const char c : whole.substr(0, exponent)) {
    if (c != '.') decimal.digits += c;
  }
  // from_chars takes no plus.
  const char* from = text + exponent + 1;
  if (*from == '+') from++;
  int power = 0;
  std::from_chars(from, end, power);
  decimal.point = power + 1LL;
  return decimal;
}

// Keeps so many digits after the point; a half is rounded up.
void CutDigits(Decimal* decimal, long long places) {
  const long long kept = decimal->point + places;
  if (kept >= static_cast<long long>(decimal->digits.size())) return;
  const bool up = kept >= 0 && decimal->digits[static_cast<size_t>(kept)] >= '5';
  decimal->digits.resize(static_cast<size_t>(std::max(0LL, kept)));
  if (!up) return;
  for (size_t i = decimal->digits.size(); i-- > 0;) {
    if (decimal->digits[i] != '9') {
      decimal->digits[i]++;
      return;
    }
    decimal->digits[i] = '0';
  }
  decimal->digits.insert(0, 1, '1');
  decimal->point++;
}

// The same for a number that was calculated: 5 * 1.255 has sixteen nines in place of a half, so
// digits after the fifteenth do not count in a fraction.
void RoundDigits(Decimal* decimal, long long places) {
  const long long sure = std::max(0LL, 15 - decimal->point);
  if (sure > places) CutDigits(decimal, sure);
  CutDigits(decimal, places);
}

char Digit(const Decimal& decimal, long long i) {
  return i >= 0 && i < static_cast<long long>(decimal.digits.size())
             ? decimal.digits[static_cast<size_t>(i)]
             : '0';
}

// The number rounded to so many places after the point.
double Rounded(double value, int places) {
  if (!std::isfinite(value) || value == 0) return value;
  Decimal decimal = DigitsOf(std::fabs(value));
  RoundDigits(&decimal, places);
  std::string text = decimal.digits.empty() ? "0" : decimal.digits;
  text += 'e' + std::to_string(decimal.point - static_cast<long long>(decimal.digits.size()));
  double rounded = 0;
  std::from_chars(text.data(), text.data() + text.size(), rounded);
  return std::copysign(rounded, value);
}

bool ReadBase(Call& call) {
  const long long base = call.integer(1);
  return (base >= 2 && base <= 36) || call.Fail(1, "is not 2 to 36");
}

// The digits of a number that is not below 0; at least so many.
void ReturnDigits(Call& call, long long number, int base, long long least) {
  if (number < 0) {
    call.Fail(0, "is below 0");
    return;
  }
  char text[64];
  const auto [end, problem] = std::to_chars(text, text + sizeof text, number, base);
  const std::string_view digits(text, static_cast<size_t>(end - text));
  Builder to(call);
  if (least > static_cast<long long>(digits.size())) {
    to.Add(static_cast<size_t>(least) - digits.size(), '0');
  }
  to.Add(digits);
  to.Return();
}

}  // namespace

namespace functions {

void formatnumber(Call& call) {
  const long long decimals = call.integer(1);
  if (decimals < 0 || decimals > kMostDigits) {
    call.Fail(1, "is not 0 to 20");
    return;
  }
  const double value = call.number(0);
  if (!std::isfinite(value)) {
    call.Fail(0, "is not finite");
    return;
  }
  Decimal decimal = value == 0 ? Decimal{"0", 1} : DigitsOf(std::fabs(value));
  RoundDigits(&decimal, decimals);
  const bool is_zero = decimal.digits.find_first_not_of('0') == std::string::npos;
  Builder to(call);
  if (value < 0 && !is_zero) to.Add('-');
  const long long before = std::max(1LL, decimal.point);
  // With a point before the first digit there is a 0 in front of it.
  const long long first = decimal.point < 1 ? decimal.point - 1 : 0;
  for (long long i = 0; i < before; i++) {
    if (i > 0 && (before - i) % 3 == 0) to.Add(call.text(3));
    to.Add(Digit(decimal, first + i));
  }
  if (decimals > 0) to.Add(call.text(2));
  for (long long i = 0; i < decimals; i++) to.Add(Digit(decimal, decimal.point + i));
  to.Return();
}

void round(Call& call) {
  const long long places = call.integer(1);
  if (places < -kMostDigits || places > kMostDigits) {
    call.Fail(1, "is not -20 to 20");
    return;
  }
  call.ReturnNumber(Rounded(call.number(0), static_cast<int>(places)));
}

void floor(Call& call) {
  call.ReturnNumber(std::floor(call.number(0)));
}

void ceil(Call& call) {
  call.ReturnNumber(std::ceil(call.number(0)));
}

void whole(Call& call) {
  call.ReturnNumber(std::trunc(call.number(0)));
}

void abs(Call& call) {
  call.ReturnNumber(std::fabs(call.number(0)));
}

void min(Call& call) {
  call.ReturnNumber(std::min(call.number(0), call.number(1)));
}

void max(Call& call) {
  call.ReturnNumber(std::max(call.number(0), call.number(1)));
}

void clamp(Call& call) {
  call.ReturnNumber(std::min(std::max(call.number(0), call.number(1)), call.number(2)));
}

void sqrt(Call& call) {
  if (call.number(0) < 0) {
    call.Fail(0, "is below 0");
    return;
  }
  call.ReturnNumber(std::sqrt(call.number(0)));
}

void isnumber(Call& call) {
  const int type = zpVariable_Type(call.variable(0));
  if (type == 4 || type == 5) return call.ReturnInteger(0);
  double value = 0;
  call.ReturnInteger(type == 1 || type == 2 || ReadNumber(TextOf(call.variable(0)), &value));
}

void isinteger(Call& call) {
  const int type = zpVariable_Type(call.variable(0));
  double value = 0;
  if (type == 4 || type == 5) return call.ReturnInteger(0);
  if (type == 1) return call.ReturnInteger(1);
  if (type == 2) {
    value = zpVariable_Value_Double(call.variable(0));
  } else {
    const std::string_view text = TextOf(call.variable(0));
    // "1.0" and "1e3" are numbers, and no integers as people write them.
    if (text.find_first_not_of("+-0123456789") != std::string_view::npos ||
        !ReadNumber(text, &value)) {
      return call.ReturnInteger(0);
    }
  }
  call.ReturnInteger(std::fabs(value) < 1e15 && value == std::trunc(value));
}

void random(Call& call) {
  const long long least = call.integer(0), most = call.integer(1);
  if (least > most) {
    call.Fail(0, "is above 'most'");
    return;
  }
  const auto count = static_cast<unsigned long long>(most - least) + 1;
  unsigned long long number = 0;
  if (count <= UINT32_MAX) {
    number = randombytes_uniform(static_cast<uint32_t>(count));
  } else {
    // The numbers past the last whole multiple of count would make the first ones more likely.
    const unsigned long long rest = (0 - count) % count;
    do {
      randombytes_buf(&number, sizeof number);
    } while (number < rest);
    number %= count;
  }
  call.ReturnInteger(least + static_cast<long long>(number));
}

void hex(Call& call) {
  ReturnDigits(call, call.integer(0), 16, call.integer(1));
}

void tobase(Call& call) {
  if (ReadBase(call)) ReturnDigits(call, call.integer(0), static_cast<int>(call.integer(1)), 0);
}

void frombase(Call& call) {
  if (!ReadBase(call)) return;
  const std::string_view text = call.text(0);
  unsigned long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, problem] =
      std::from_chars(text.data(), end, number, static_cast<int>(call.integer(1)));
  if (problem != std::errc() || stop != end ||
      number > static_cast<unsigned long long>(kMostInteger)) {
    return;
  }
  call.ReturnInteger(static_cast<long long>(number));
}

void bytesize(Call& call) {
  const double size = call.number(0);
  if (!std::isfinite(size)) {
    call.Fail(0, "is not finite");
    return;
  }
  static constexpr const char* kUnits[] = {" B", " kB", " MB", " GB", " TB", " PB"};
  double shown = std::fabs(size);
  size_t unit = 0;
  // What would be rounded to 1000 has the next unit.
  while (unit + 1 < std::size(kUnits) && Rounded(shown, shown < 9.95 && unit > 0 ? 1 : 0) >= 1000) {
    shown /= 1000;
    unit++;
  }
  // Two digits at least, apart from bytes.
  shown = Rounded(shown, unit > 0 && shown < 9.95 ? 1 : 0);
  char text[400];
  const auto [end, problem] =
      std::to_chars(text, text + sizeof text, std::copysign(shown, size), std::chars_format::fixed);
  std::string whole(text, static_cast<size_t>(end - text));
  if (whole == "-0") whole = "0";
  call.Return(whole + kUnits[unit]);
}

}  // namespace functions

}  // namespace zephstd
