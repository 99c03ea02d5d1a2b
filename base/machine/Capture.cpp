// Puts a capture in front of the application's output and takes it away again. Tested in
// tests/base/machine/InstructionsOutputTest.cpp and DoContextTest.cpp.

#include "base/machine/Capture.h"

#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

Capture::Capture(ZephApplication* application, ZephVM* vm, Variable* variable)
    : Feature(application, vm, Type_Capture), variable(variable) {
  variable->IncRefCount();
}

Capture::~Capture() {
  Restore();
  if (output) output->Close();
  variable->DecRefCount();
}

void Capture::Start() {
  output = new CaptureOutput(application->output());
  application->SetOutput(output);
  active = true;
}

void Capture::End() {
  int length, size;
  char* text = output->data(&length, &size);
  text[length] = '\0';
  variable->SetValue_Nocopy(text, length, size);
  Restore();
}

// Another output is in front if a capture above this one was left open, or if the output was set
// without regard to this capture. In the latter case the output that this capture found may be
// over, and there is nothing to restore.
void Capture::Restore() {
  if (!active) return;
  active = false;
  const bool covered = application->output() != output;
  if (covered && (dropped() || output->below_over())) return;
  application->SetOutput(output->below());
}
