// How much later than its time limit a wait may end. A test tells one wait from none and from two;
// on a busy machine a sanitizer makes the work around the wait take seconds.

#ifndef ZEPH_TESTS_SUPPORT_LATENESS_H
#define ZEPH_TESTS_SUPPORT_LATENESS_H

#include "base/core/Sanitizers.h"

inline constexpr double kLateness = kAddressSanitizer || kThreadSanitizer ? 8 : 0.9;  // seconds

#endif
