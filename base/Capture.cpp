// Puts a capture in front of the application's output and takes it away again.

#include "base/Capture.h"

#include "base/Variable.h"
#include "base/ZephApplication.h"
#include "base/ZephVM.h"

Capture::Capture(ZephApplication* host, ZephVM* machine, Variable* target)
    : Feature(host, machine, Type_Capture), variable(target) {
  variable->IncRefCount();
}

Capture::~Capture() {
  Restore();
  delete output;
  variable->DecRefCount();
}

void Capture::Start() {
  output = new CaptureOutput(application->output());
  previous = application->SetOutput(output);
}

void Capture::End() {
  int length, size;
  char* text = output->data(&length, &size);
  text[length] = '\0';
  variable->SetValue_Nocopy(text, length, size);
  Restore();
}

bool Capture::covered() const {
  return previous && application->output() != output;
}

void Capture::Restore() {
  // A capture that was taken off the machine's stack under an inner one may no longer be in front.
  if (!previous || covered()) return;
  application->SetOutput(previous);
  previous = nullptr;
}
