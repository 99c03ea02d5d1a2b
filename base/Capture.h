// Output of a stretch of a script, collected for a variable.

#ifndef ZEPH_BASE_CAPTURE_H
#define ZEPH_BASE_CAPTURE_H

#include "base/BufferedOutput.h"
#include "base/Feature.h"

class Variable;

// Stands in front of the application's output from Start to End. Captures nest: each gives way to
// the output that it found.
class Capture : public Feature {
 public:
  // Takes a count on the variable.
  Capture(ZephApplication* application, ZephVM* vm, Variable* variable);
  // Gives the output back if the capture was not ended and still fronts it; what it collected is
  // lost then.
  ~Capture() override;

  void Start();
  // Gives the text to the variable without copying it, and the output back if the capture fronts
  // it.
  void End();
  // Whether another output has come to stand in front, and so leads on to this capture's: then the
  // capture has to stay until that one is gone.
  bool covered() const;

 private:
  void Restore();

  CaptureOutput* output = nullptr;
  Output* previous = nullptr;
  Variable* variable;
};

#endif
