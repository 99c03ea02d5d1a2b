// How far the sweeps of failures go: in the torture build further than in the others, which run
// them with every change.

#ifndef ZEPH_TESTS_SUPPORT_SWEEP_H
#define ZEPH_TESTS_SUPPORT_SWEEP_H

#include <gtest/gtest.h>

#include <cstdio>

// Each of that many first places fails, then ever fewer of them.
#ifdef ZEPH_TORTURE
inline constexpr long kSweepEach = 5000;
#else
inline constexpr long kSweepEach = 25;
#endif

// Adds to the test's property "points", which is the number of runs with a failure.
inline void RecordPoints(long points) {
  testing::Test::RecordProperty("points", static_cast<int>(points));
}

#endif
