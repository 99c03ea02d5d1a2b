// How many rounds a test with random values runs. The result of a computation is the same under a
// sanitizer, where each round takes ten times as long. What only the address sanitizer sees is a
// matter of sizes and shapes, which a few of the rounds have as well. The thread sanitizer sees
// nothing in a single thread.

#ifndef ZEPH_TESTS_SUPPORT_ROUNDS_H
#define ZEPH_TESTS_SUPPORT_ROUNDS_H

#include <chrono>
#include <cstdlib>

#include "base/core/Sanitizers.h"

// All of them in a plain build, a twentieth with the address sanitizer, and a fiftieth with the
// thread sanitizer; at least one.
template <class Number>
constexpr Number Rounds(Number all) {
  const Number some = kThreadSanitizer ? all / 50 : kAddressSanitizer ? all / 20 : all;
  return some > 0 ? some : Number{1};
}

// Whether a test with random values runs another round, the first being 1: as many as Rounds says,
// and for ZEPH_RANDOM_SECONDS from the first on if that is set, to look for longer.
inline bool MoreRounds(unsigned round, unsigned all) {
  static const char* const seconds = getenv("ZEPH_RANDOM_SECONDS");
  static std::chrono::steady_clock::time_point start;
  if (!seconds) return round <= Rounds(all);
  if (round == 1) start = std::chrono::steady_clock::now();
  return std::chrono::steady_clock::now() - start < std::chrono::seconds(atoi(seconds));
}

// The distance of the places that a sweep over many of them takes: every place in a plain build, a
// third of them with the address sanitizer, and a few with the thread sanitizer. Odd, so that the
// places differ in their lowest bits.
constexpr int kStride = kThreadSanitizer ? 17 : kAddressSanitizer ? 3 : 1;

#endif
