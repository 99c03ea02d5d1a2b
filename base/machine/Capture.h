// Output of a stretch of a script, collected for a variable.

#ifndef ZEPH_BASE_CAPTURE_H
#define ZEPH_BASE_CAPTURE_H

#include "base/host/BufferedOutput.h"
#include "base/machine/Feature.h"

class Variable;

// Stands in front of the application's output from Start to End. Captures nest: each gives way to
// the output that it found, also when others have come to stand in front of it, whose text is then
// no longer asked for.
class Capture : public Feature {
 public:
  // Takes a count on the variable.
  Capture(ZephApplication* application, ZephVM* vm, Variable* variable);
  // Gives the output back if the capture was not ended; what it collected is lost then. One that
  // was dropped only gives it back if it is in front.
  ~Capture() override;

  void Start();
  // Gives the text to the variable without copying it, and the output back.
  void End();

 private:
  void Restore();

  CaptureOutput* output = nullptr;
  bool active = false;
  Variable* variable;
};

#endif
