// The "C" locale for the functions of the C library that otherwise ask the locale of the process. A
// library may have changed that one, and with it the decimal point, the names of months, and what
// is white space.

#ifndef ZEPH_BASE_CLOCALE_H
#define ZEPH_BASE_CLOCALE_H

#include <clocale>
#include <cstdlib>

// For strtod_l, strtol_l and strftime_l. Made at the first call, never freed; any thread.
inline locale_t CLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

// The decimal number at the start of the text, after white space, up to the first byte that is no
// digit; 0 without one. A number beyond a long is the nearest long.
inline long LeadingNumber(const char* text) {
  return strtol_l(text, nullptr, 10, CLocale());
}

#endif
