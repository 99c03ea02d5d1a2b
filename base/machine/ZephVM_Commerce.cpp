// The instructions of ZpCOMMERCE: a loop over the results of a commerce library. Tested in
// tests/base/machine/CommerceTest.cpp.

#include <memory>

#include "base/host/TagErrors.h"
#include "base/machine/Commerce.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"

// op_commerce  ( method action fields -- )  Begins a transaction of a commerce method and gets its
// first result. Fields is a comma-separated list of variables for the library. If the method is
// unknown or cannot begin, that is an error of ZpCOMMERCE, and the loop is skipped. It is skipped
// without an error if there is no result.
void ZephVM::op_commerce() {
  const int distance = first_integer;
  const KeptString names(stack);
  const KeptString action(stack);
  const KeptString method(stack);
  if (stop_flag) return;
  auto fields = std::make_unique<VariableList>();
  // A wrong name ends the script only after the instruction: the library still gets the call.
  Lookup_VariableList(fields.get(), names.data(), names.length());
  auto commerce = std::make_unique<Commerce>(application, this, commerce_libraries,
                                             system_variables, action.data(), action.length(),
                                             method.data(), method.length(), std::move(fields));
  if (!commerce->Start()) {
    EncodedRuntimeError(Tag_Commerce, commerce->error());
    program_counter = Jumped(program_counter, distance);
    return;
  }
  ClearErrorVariable(Tag_Commerce);
  if (commerce->Next() == Commerce::Ready) {
    Push_Feature(commerce.release());
  } else {
    program_counter = Jumped(program_counter, distance);
  }
}

// Returns the newest loop; null after the fatal error. A loop whose library has called this code is
// not one that it can continue or leave.
Commerce* ZephVM::CurrentCommerce() {
  auto* const commerce = static_cast<Commerce*>(Lookup_Feature(Feature::Type_Commerce));
  if (commerce && !commerce->IsBusy()) return commerce;
  FatalError("Invalid instruction");
  return nullptr;
}

// op_commerce_loop  ( -- )  Gets the next result of the newest loop and goes back to the loop's
// body; after the last one, and after a failure, it ends the loop and continues. Without a loop it
// is the fatal error "Invalid instruction".
void ZephVM::op_commerce_loop() {
  const int distance = first_integer;
  Commerce* const commerce = CurrentCommerce();
  if (!commerce) return;
  if (commerce->Next() == Commerce::Ready) {
    program_counter = Jumped(program_counter, distance);
  } else {
    Pop_Feature(commerce);
  }
}

// op_commerce_stop  ( -- )  Leaves the newest loop. Without a loop it is the fatal error "Invalid
// instruction".
void ZephVM::op_commerce_stop() {
  const int distance = first_integer;
  Commerce* const commerce = CurrentCommerce();
  if (!commerce) return;
  Pop_Feature(commerce);
  program_counter = Jumped(program_counter, distance);
}
