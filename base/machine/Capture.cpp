// Puts a capture in front of the application's output and takes it away again.

#include "base/machine/Capture.h"

#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

Capture::Capture(ZephApplication* host, ZephVM* machine, Variable* target)
    : Feature(host, machine, Type_Capture), variable(target) {
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

// Another output is in front where a capture was left open above this one. It may be that the
// output was set since without regard to this capture: then the one that it found is over, and
// there is nothing to give back.
void Capture::Restore() {
  if (!active) return;
  active = false;
  const bool covered = application->output() != output;
  if (covered && (dropped() || output->parent_over())) return;
  application->SetOutput(output->parent());
}
