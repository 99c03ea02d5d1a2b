// Collects the output of a part of a script for a variable.

#ifndef ZEPH_BASE_CAPTURE_H
#define ZEPH_BASE_CAPTURE_H

#include "base/host/BufferedOutput.h"
#include "base/machine/Feature.h"

class Variable;

// Replaces the application's output from Start to End. Captures nest: at its end each restores the
// output that it found. It does so even if other captures have been put in front of it since; their
// text is then lost.
class Capture : public Feature {
 public:
  // Takes a count on the variable.
  Capture(ZephApplication* application, ZephVM* vm, Variable* variable);
  // Restores the output if the capture was not ended; the collected text is lost then. A dropped
  // capture restores the output only if the capture itself is in front.
  ~Capture() override;

  void Start();
  // Moves the text to the variable without a copy, and restores the output.
  void End();

 private:
  void Restore();

  CaptureOutput* output = nullptr;
  bool active = false;
  Variable* variable;
};

#endif
