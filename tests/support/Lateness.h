// How much later than its time limit a wait may end. A test tells one wait from none and from two;
// on a busy machine a sanitizer makes the work around the wait take seconds.

#ifndef ZEPH_TESTS_SUPPORT_LATENESS_H
#define ZEPH_TESTS_SUPPORT_LATENESS_H

#include <gmock/gmock.h>

#include "base/core/Sanitizers.h"

inline constexpr double kLateness = kAddressSanitizer || kThreadSanitizer ? 8 : 0.6;  // seconds

// Matches the seconds of a wait that has ended by its time limit: never before it.
inline auto EndsAtItsTime(double limit) {
  return testing::AllOf(testing::Ge(limit - 0.05), testing::Le(limit + kLateness));
}

#endif
