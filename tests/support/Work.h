// Variables for tests of long work: one whose reading lets the time limit pass, and arrays that
// take a walk through them as long as one likes.

#ifndef ZEPH_TESTS_SUPPORT_WORK_H
#define ZEPH_TESTS_SUPPORT_WORK_H

#include <atomic>
#include <cstring>
#include <string>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

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
