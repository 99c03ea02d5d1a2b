// A script's loop over the results of a commerce method. The library of the method does the work
// (base/extensions/CommerceLibrary.h); the engine knows nothing of what it does.

#ifndef ZEPH_BASE_COMMERCE_H
#define ZEPH_BASE_COMMERCE_H

#include <memory>

#include "base/machine/Feature.h"
#include "base/values/VariableKinds.h"

class CommerceLibrary;
class CommerceLibraryManager;
class VariableHash;

// One loop. The fields are variables of the script, of which the list holds counts.
class Commerce : public Feature {
 public:
  // Results of Next.
  enum Round : int { Ready = 1, Over = 2 };

  // Copies action and method. libraries may be null: then no method is found. Managers and table
  // are borrowed and outlive the feature.
  Commerce(ZephApplication* application, ZephVM* vm, CommerceLibraryManager* libraries,
           VariableHash* system, const char* action, int actionlength, const char* method,
           int methodlength, std::unique_ptr<VariableList> fields);
  // Lets the library clean up, also after an init that failed. REQUIRES: the library is not working
  // for this loop.
  ~Commerce() override;

  // Finds the library of the method and begins the transaction. Returns false with the reason in
  // error().
  [[nodiscard]] bool Start();
  // Asks for the next result. After a failure the loop is over too, and the reason in error().
  // REQUIRES: Start has returned true.
  [[nodiscard]] Round Next();
  // Whether the library is working for this loop. It may run code of the script, which must not end
  // the loop meanwhile.
  bool IsBusy() const { return busy; }

 private:
  void TakeLibraryError();

  CommerceLibraryManager* libraries;
  VariableHash* system;
  String action;
  String method;
  std::unique_ptr<VariableList> fields;
  void* state = nullptr;  // the library's
  int index = 0;          // of the next round
  CommerceLibrary* library = nullptr;
  bool busy = false;
};

#endif
