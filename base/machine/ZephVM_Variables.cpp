// Instructions on variables: access by position and by name, database fields, references, elements,
// and the fused forms on globals. Each handler follows its reference text. Tested in
// tests/base/machine/InstructionsVariableAccessTest.cpp, InstructionsReferencesTest.cpp,
// InstructionsElementsTest.cpp and InstructionsFusedTest.cpp.

#include "base/compiled/Dictionary.h"
#include "base/compiled/VariableHash.h"
#include "base/core/Numbers.h"
#include "base/host/TagErrors.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

// --- By position ---------------------------------------------------------------------------------

// pushs  ( -- v )  The system variable at a position; the null variable if there is none.
void ZephVM::pushs() {
  Variable* variable = system_variables->Index(first_integer, 0);
  stack->PushHeld(variable ? variable : null_variable);
}

// pops  ( x -- )  Assigns a system variable, which may refuse; drops x if there is none.
void ZephVM::pops() {
  Variable* variable = system_variables->Index(first_integer, 0);
  if (variable) {
    stack->PopV(variable);
  } else {
    stack->Pop();
  }
}

// --- By name -------------------------------------------------------------------------------------

const char* ZephVM::DictionaryText(int id, int* length) {
  const char* text = dictionary->Entry(id, length);
  if (!text) FatalError("Invalid dictionary reference");
  return text;
}

bool ZephVM::LookupOrFail(Variable** out, const char* name, int length) {
  String error;
  if (Lookup_Variable(out, name, length, &error)) return true;
  FatalError(error);
  return false;
}

void ZephVM::PushNamed(const char* name, int length) {
  Variable* variable;
  if (!LookupOrFail(&variable, name, length)) return;
  stack->PushHeld(variable ? variable : null_variable);
}

// A name without a variable leaves the value on the stack, unlike pops: compiled code counts on
// that.
void ZephVM::PopNamed(const char* name, int length) {
  Variable* variable;
  if (LookupOrFail(&variable, name, length) && variable) stack->PopV(variable);
}

// pushn  ( name -- v )  The variable of a name known at run time; the null variable if there is
// none. A bad name is a fatal error.
void ZephVM::pushn() {
  const PoppedString name(stack);
  if (!stop_flag) PushNamed(name.data(), name.length());
}

// pushnc  ( -- v )  As pushn, with a constant name. A bad id is the fatal error "Invalid dictionary
// reference".
void ZephVM::pushnc() {
  int length;
  const char* name = DictionaryText(first_integer, &length);
  if (name) PushNamed(name, length);
}

// popn  ( x name -- [x] )  Assigns the variable of a name known at run time. If there is none, x
// stays on the stack.
void ZephVM::popn() {
  const PoppedString name(stack);
  if (!stop_flag) PopNamed(name.data(), name.length());
}

// popnc  ( x -- [x] )  As popn, with a constant name.
void ZephVM::popnc() {
  int length;
  const char* name = DictionaryText(first_integer, &length);
  if (name) PopNamed(name, length);
}

// --- Database fields -----------------------------------------------------------------------------

// pushd  ( alias field -- v )  A field of the view of that alias; the null variable without one.
void ZephVM::pushd() {
  const PoppedString field(stack);
  const PoppedString alias(stack);
  if (stop_flag) return;
  Variable* variable = ViewField(alias.data(), alias.length(), field.data(), field.length());
  stack->PushHeld(variable ? variable : null_variable);
}

// pushdc  ( -- v )  As pushd, with constant names.
void ZephVM::pushdc() {
  if (recent_fields) {
    const RecentField& recent = recent_fields[RecentPlace()];
    if (recent.alias == first_integer && recent.field == second_integer &&
        recent.views_gone == family->ViewsGone() && recent.fields_gone == *recent.fields_count) {
      stack->PushHeld(recent.variable);
      return;
    }
  }
  // Not in line, so that the way above needs no frame.
  const auto look_up = [this]() __attribute__((noinline)) {
    Variable* variable;
    if (FindConstantField(&variable, false)) {
      stack->PushHeld(variable ? variable : null_variable);
    }
  };
  look_up();
}

// popd  ( x alias field -- )  Assigns a field of the view of that alias; drops x without one.
void ZephVM::popd() {
  const PoppedString field(stack);
  const PoppedString alias(stack);
  if (stop_flag) return;
  AssignOrDrop(ViewField(alias.data(), alias.length(), field.data(), field.length()));
}

// popdc  ( x -- )  As popd, with constant names; an empty alias, here alone, means the first
// database.
void ZephVM::popdc() {
  Variable* variable;
  if (ConstantField(&variable, true)) AssignOrDrop(variable);
}

void ZephVM::AssignOrDrop(Variable* variable) {
  if (variable) {
    stack->PopV(variable);
  } else {
    stack->Pop();
  }
}

// --- Assignment and references -------------------------------------------------------------------

VariableRef ZephVM::PopHeld(Variable** variable) {
  int deletable;
  stack->PopV(variable, &deletable);
  return VariableRef(deletable ? *variable : nullptr);
}

// store  ( x v -- )  Assigns x to the variable v. A constant in place of v is the fatal error
// "Expected variable, found constant".
void ZephVM::store() {
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  if (variable) stack->PopV(variable);
}

// refer  ( v w -- )  Makes the variable w a reference to the variable v, for all holders of w.
void ZephVM::refer() {
  Variable* reference;
  const VariableRef held_reference = PopHeld(&reference);
  Variable* target;
  const VariableRef held_target = PopHeld(&target);
  if (!stop_flag) reference->Make_Reference(target);
}

// poprn  ( v name -- )  Makes the variable of a name known at run time a reference to v.
void ZephVM::poprn() {
  const PoppedString name(stack);
  Variable* target;
  const VariableRef held = PopHeld(&target);
  if (stop_flag) return;
  Variable* reference;
  if (LookupOrFail(&reference, name.data(), name.length()) && reference) {
    reference->Make_Reference(target);
  }
}

// poprnc  ( v -- )  Makes the variable of a constant name a reference to v.
void ZephVM::poprnc() {
  int length;
  const char* name = DictionaryText(first_integer, &length);
  Variable* reference;
  if (!name || !LookupOrFail(&reference, name, length)) return;
  // The look-up borrows, and the popped variable may hold the last count on it.
  const VariableRef kept = VariableRef::Share(reference);
  Variable* target;
  const VariableRef held = PopHeld(&target);
  if (!stop_flag && reference && target) reference->Make_Reference(target);
}

// poprg  ( v -- )  Binds a global position to the variable v: from then on both are the same
// variable.
void ZephVM::poprg() {
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  if (variable) global_variables->SetVariable_Reference(first_integer, variable);
}

// poprl  ( v -- )  Binds a local position to the variable v, as for an argument by reference.
void ZephVM::poprl() {
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  if (variable) frame->variables->SetVariable_Reference(first_integer, variable);
}

// spush  ( -- )  From here on, a system variable that is changed is shadowed: spop restores it.
void ZephVM::spush() {
  system_variables->Push();
}

// spop  ( -- )  Restores the system variables that were shadowed since the last spush. Without one
// it is the fatal error "System variable stack underflow".
void ZephVM::spop() {
  if (!system_variables->Pop()) FatalError("System variable stack underflow");
}

// --- Elements ------------------------------------------------------------------------------------

void ZephVM::PushElement(int create) {
  const int position = stack->PopI();
  if (stop_flag) return;
  if (position < 1) {
    RuntimeError(Tag_Expression, "Array index must be positive integer");
    return;
  }
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  if (!variable) return;
  Variable* element = variable->At(position, create);
  stack->PushHeld(element ? element : null_variable);
}

void ZephVM::PushMember(int create) {
  const PoppedString name(stack);
  if (stop_flag) return;
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  if (!variable) return;
  Variable* member = variable->Member(name.data(), name.length(), create);
  stack->PushHeld(member ? member : null_variable);
}

// elem  ( v i -- e )  The element at position i of the array v, created if missing; v becomes an
// array. A position below 1 is the runtime error "Array index must be positive integer", and leaves
// v on the stack.
void ZephVM::elem() {
  PushElement(1);
}

// elem_readonly  ( v i -- e )  The element at position i of v; the null variable if there is none.
void ZephVM::elem_readonly() {
  PushElement(0);
}

// memb  ( v name -- e )  The member of that name of the structure v, created if missing; v becomes
// a structure.
void ZephVM::memb() {
  PushMember(1);
}

// memb_readonly  ( v name -- e )  The member of that name of v; the null variable if there is none.
void ZephVM::memb_readonly() {
  PushMember(0);
}

// --- Fused forms on globals ----------------------------------------------------------------------

// cmpgg  ( -- i )  Compares two globals, as cmp does.
void ZephVM::cmpgg() {
  Variable* a = GlobalOrFail(first_integer);
  Variable* b = a ? GlobalOrFail(second_integer) : nullptr;
  if (b) stack->PushI(Compare(a, b));
}

// modgg  ( -- i )  The first global modulo the second, in integers. If the second is 0, it is the
// fatal error "Illegal Instruction".
void ZephVM::modgg() {
  Variable* a = GlobalOrFail(first_integer);
  Variable* b = a ? GlobalOrFail(second_integer) : nullptr;
  if (!b) return;
  const int dividend = a->Read_Integer();
  const int divisor = b->Read_Integer();
  if (divisor == 0) {
    FatalError("Illegal Instruction");
  } else {
    stack->PushI(Remainder(dividend, divisor));
  }
}
