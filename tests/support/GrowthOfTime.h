// How the time of some work grows with its size, measured as processor time of the thread at two
// sizes, so that a slow or busy machine does not matter.

#ifndef ZEPH_TESTS_SUPPORT_GROWTHOFTIME_H
#define ZEPH_TESTS_SUPPORT_GROWTHOFTIME_H

#include <algorithm>
#include <ctime>

// Returns how many times as long the work takes for 16 times the size. Linear work is near 16, or a
// few times that if the smaller size fits into caches; quadratic work is near 256.
constexpr int SizeGrowth = 16;
constexpr double NearLinear = 100;

// made = make(size) prepares, work(&made) is measured. The best of three of each counts, because
// memory costs more when it is touched for the first time.
template <class Make, class Work>
double GrowthOfTime(int size, Make make, Work work) {
  const auto measure = [&](int count) {
    double best = 1e9;
    for (int i = 0; i < 3; i++) {
      auto made = make(count);
      timespec before;
      timespec after;
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
      work(&made);
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
      best = std::min(best, static_cast<double>(after.tv_sec - before.tv_sec) +
                                static_cast<double>(after.tv_nsec - before.tv_nsec) * 1e-9);
    }
    return best;
  };
  const double small = measure(size);
  return measure(size * SizeGrowth) / std::max(small, 20e-6);
}

#endif
