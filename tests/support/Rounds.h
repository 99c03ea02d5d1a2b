// How many rounds a test with random values runs. The result of a computation is the same under a
// sanitizer, where each round takes ten times as long; what only a sanitizer sees is a matter of
// sizes and shapes, which a tenth of the rounds has as well.

#ifndef ZEPH_TESTS_SUPPORT_ROUNDS_H
#define ZEPH_TESTS_SUPPORT_ROUNDS_H

#include "base/core/Sanitizers.h"

// All of them in a plain build, and a tenth with a sanitizer.
template <class Number>
constexpr Number Rounds(Number all) {
  return kAddressSanitizer || kThreadSanitizer ? all / 10 : all;
}

#endif
