// The order of the outputs in front of the application's own. Tested in
// tests/base/machine/DoContextTest.cpp and tests/base/network/MailBlockTest.cpp.

#include "base/host/OutputLayer.h"

#include <cassert>
#include <utility>

#include "base/core/Output.h"

OutputLayer::OutputLayer(Output* below, bool passed_by)
    : output_below(below), outer(dynamic_cast<OutputLayer*>(below)), passed_by(passed_by) {
  if (outer) outer->holders++;
}

OutputLayer::~OutputLayer() {
  if (outer) outer->Release();
}

void OutputLayer::EndLayer() {
  over = true;
  Release();
}

// A loop instead of recursion, because layers can be nested without bound.
void OutputLayer::Release() {
  OutputLayer* released = this;
  while (released && --released->holders == 0) {
    OutputLayer* const next = std::exchange(released->outer, nullptr);
    delete released;
    released = next;
  }
}

// Replaces an output below that is over with the one below that.
void OutputLayer::StepOver() {
  OutputLayer* const gone = outer;
  output_below = gone->output_below;
  outer = gone->outer;
  if (outer) {
    outer->holders++;
    // The one that is over holds a count too, so releasing it does not free the new one.
    assert(outer->holders > 1);
  }
  gone->Release();
}

Output* OutputLayer::below() {
  while (below_over()) StepOver();
  return output_below;
}

Output* OutputLayer::BelowAllPassedBy() const {
  const OutputLayer* last = this;
  while (last->outer && (last->outer->passed_by || last->outer->over)) last = last->outer;
  return last->output_below;
}
