// How the cost of work grows, and variables whose reading lets the time limit pass.

#ifndef ZEPH_TESTS_SUPPORT_WORK_H
#define ZEPH_TESTS_SUPPORT_WORK_H

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

// Seconds of processor time of this thread.
inline double ThreadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Expects that four times the size takes about four times as long: less than ten, while quadratic
// work takes sixteen. work(size) does it all. The best of a few tries counts. Work of less than a
// tenth of a millisecond counts as that much, because caches and the clock would matter more than
// the size.
template <class Work>
void ExpectNearLinear(int size, Work work) {
  double ratio = 0;
  for (int attempt = 0; attempt < 5; attempt++) {
    double seconds[2] = {1e9, 1e9};
    for (int run = 0; run < 3; run++) {
      for (int i = 0; i < 2; i++) {
        const double start = ThreadSeconds();
        work(i == 0 ? size : 4 * size);
        seconds[i] = std::min(seconds[i], ThreadSeconds() - start);
      }
    }
    ratio = seconds[1] / std::max(seconds[0], 1e-4);
    if (ratio < 10) return;
  }
  ADD_FAILURE() << "four times the size took " << ratio << " times as long";
}

// A computed text whose reading lets the time limit pass. Counts the readings.
class Alarm : public Variable {
 public:
  Alarm(const char* name, const std::string& text, int* timedout)
      : Variable(name, static_cast<int>(strlen(name)), text.data(), static_cast<int>(text.size())),
        timedout(timedout) {}
  String& value() override {
    readings++;
    std::atomic_ref<int>(*timedout).store(1);
    return Variable::value();
  }
  int type() override { return VariableComputedText; }

  int readings = 0;

 private:
  int* timedout;
};

// Arrays within arrays: that many levels, each with two references to the next, so that a walk
// reaches the last one, which has a single element, 2 to the power `levels` times. The caller
// releases the first.
inline Variable* MakeDoublingArrays(int levels, Variable* leaf) {
  auto* next = new Variable();
  next->SetElement(AggregateIndex(1), leaf);
  for (int i = 0; i < levels; i++) {
    auto* array = new Variable();
    for (int position : {1, 2}) {
      auto* element = new Variable();
      element->Make_Reference(next);
      array->SetElement(AggregateIndex(position), element);
      element->DecRefCount();
    }
    next->DecRefCount();
    next = array;
  }
  return next;
}

#endif
