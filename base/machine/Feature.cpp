// What all features share, and their stack. Tested in tests/base/machine/ZephVMTest.cpp.

#include "base/machine/Feature.h"

#include "base/machine/ZephVM.h"

Feature::Feature(ZephApplication* application, ZephVM* vm, int type)
    : application(application), vm(vm), frame_serial(vm->FrameSerial()), feature_type(type) {}

Feature::~Feature() = default;

void Feature::Heartbeat() {}

void Feature::Error(const String& text) {
  if (text.data) error_text.assign(text.data, text.length);
}

// --- The stack -----------------------------------------------------------------------------------

void FeatureStack::Push(Feature* feature) {
  feature->below = top;
  feature->older = newest;
  if (newest) newest->newer = feature;
  top = newest = feature;
}

Feature* FeatureStack::Lookup(int type) const {
  Feature* feature = top;
  while (feature && feature->type() != type) feature = feature->below;
  return feature;
}

void FeatureStack::Pop(Feature* wanted) {
  Feature* feature = top;
  while (feature && feature != wanted) feature = feature->below;
  if (!feature) return;
  while (top != wanted) {
    top->is_dropped = true;
    TakeTop();
  }
  TakeTop();
  Delete(wanted);
}

void FeatureStack::TakeTop() {
  if (next_to_beat == top) next_to_beat = top->below;
  top = top->below;
}

// REQUIRES: the feature is no longer on the stack, because its destructor may look at the stack.
void FeatureStack::Delete(Feature* feature) {
  if (feature->older) feature->older->newer = feature->newer;
  (feature->newer ? feature->newer->older : newest) = feature->older;
  delete feature;
}

void FeatureStack::DeleteAll() {
  while (newest) {
    Feature* const feature = newest;
    if (feature == top) TakeTop();
    Delete(feature);
  }
}

// A beat may run code that passes on the next beat. That inner walk reaches all features, and ends
// this one by setting next_to_beat to null.
void FeatureStack::Heartbeat() {
  for (Feature* feature = top; feature; feature = next_to_beat) {
    next_to_beat = feature->below;
    feature->Heartbeat();
  }
  next_to_beat = nullptr;
}
