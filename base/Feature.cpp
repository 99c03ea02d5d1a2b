// What all features share.

#include "base/Feature.h"

#include "base/ZephVM.h"

Feature::Feature(ZephApplication* host, ZephVM* machine, int type)
    : application(host), vm(machine), frame_serial(machine->FrameSerial()), feature_type(type) {}

Feature::~Feature() = default;

void Feature::Heartbeat() {}

void Feature::Error(const String& text) {
  if (text.data) error_text.assign(text.data, text.length);
}
