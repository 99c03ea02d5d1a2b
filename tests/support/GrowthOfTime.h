// How the time of some work grows with its size, measured as processor time of the thread, so that
// a slow or busy machine does not matter.

#ifndef ZEPH_TESTS_SUPPORT_GROWTHOFTIME_H
#define ZEPH_TESTS_SUPPORT_GROWTHOFTIME_H

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>

#include "base/core/Sanitizers.h"

// Seconds of processor time of this thread.
inline double ThreadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Expects that four times the size takes about four times as long: less than ten, while quadratic
// work takes sixteen. made = make(size) prepares, work(&made) is measured. The best of a few tries
// counts. Work of less than a tenth of a millisecond counts as that much, because caches and the
// clock would matter more than the size. Under the address sanitizer, which makes it ten times
// slower, a quarter of the size is enough; the thread sanitizer has nothing to see here, and gets
// less.
template <class Make, class Work>
void ExpectNearLinear(int size, Make make, Work work) {
  if (kAddressSanitizer) size /= 4;
  if (kThreadSanitizer) size /= 20;
  double ratio = 0;
  for (int attempt = 0; attempt < 5; attempt++) {
    double seconds[2] = {1e9, 1e9};
    for (int run = 0; run < 3; run++) {
      for (int i = 0; i < 2; i++) {
        auto made = make(i == 0 ? size : 4 * size);
        const double start = ThreadSeconds();
        work(&made);
        seconds[i] = std::min(seconds[i], ThreadSeconds() - start);
      }
      ratio = seconds[1] / std::max(seconds[0], 1e-4);
      // The first run does not count alone: it may find cold caches and so a slow small size.
      if (run > 0 && ratio < 10) return;
    }
  }
  ADD_FAILURE() << "four times the size took " << ratio << " times as long";
}

// The same where work(size) does it all.
template <class Work>
void ExpectNearLinear(int size, Work work) {
  ExpectNearLinear(
      size, [](int count) { return count; }, [&work](int* count) { work(*count); });
}

#endif
