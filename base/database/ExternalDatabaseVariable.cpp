// The fields of a view of an external database: when the library is asked for a value, and when it
// gets one. Tested in tests/base/database/ExternalDatabaseVariableTest.cpp.

#include <new>

#include "base/core/MeasuredLength.h"
#include "base/core/Numbers.h"
#include "base/core/ShortAssign.h"
#include "base/database/ExternalDatabase.h"
#include "base/database/PassedText.h"
#include "base/host/ZephApplication.h"
#include "base/values/VariableRef.h"

namespace {

constexpr int kVariableTypes = 4;  // the version of the table that brought variable_type

}  // namespace

ExternalDatabaseVariable::ExternalDatabaseVariable(ExternalDatabaseView* view, const char* name,
                                                   int length, const _ZP_EL_Database* descriptor,
                                                   void* data)
    : Variable(name, length), owner(view), descriptor(descriptor), library_data(data) {}

ExternalDatabaseVariable::~ExternalDatabaseVariable() {
  Detach();
}

void ExternalDatabaseVariable::Detach() {
  if (!owner) return;
  if (descriptor->variable_free) {
    const ExternalDatabaseView::VariableCall running(owner);
    try {
      descriptor->variable_free(this);
    } catch (const std::bad_alloc&) {
      // This runs in a destructor. What the library has not given back by then stays with it.
    }
  }
  owner->CountStores(-dirty_flag);
  owner = nullptr;
}

int ExternalDatabaseVariable::type() {
  return redirected() ? Variable::type() : VariableComputed;
}

int ExternalDatabaseVariable::preferred_type() {
  if (redirected()) return Variable::preferred_type();
  if (!owner || descriptor->version < kVariableTypes || !descriptor->variable_type) {
    return PrimaryText;
  }
  const ExternalDatabaseView::VariableRead running(owner);
  const int kind = descriptor->variable_type(this);
  return kind == PrimaryInteger || kind == PrimaryDouble ? kind : PrimaryText;
}

// --- Stores --------------------------------------------------------------------------------------

// Libraries that know what a script reads store it in the fields, so this and SetValue_Integer are
// short for a field that already has a text or a number.
int ExternalDatabaseVariable::SetValue(const char* text, int length) {
  if (valid_forms() == TextForm) {
    AssignShort(&string_value, text, length);
    primary = PrimaryText;
    SetFlag(1);
    return 1;
  }
  const int done = Variable::SetValue(text, length);
  SetDirty(1);
  return done;
}

// To read the source may run code of a library, which may remove this variable from its view.
int ExternalDatabaseVariable::SetValue(Variable& source) {
  const VariableRef held = VariableRef::Share(this);
  const int done = Variable::SetValue(source);
  if (elements && owner) owner->NoteElements();
  SetDirty(1);
  return done;
}

int ExternalDatabaseVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  const int done = Variable::SetValue_Nocopy(buffer, length, allocated);
  SetDirty(1);
  return done;
}

int ExternalDatabaseVariable::SetValue_Integer(int value) {
  if (valid_forms() & IntegerForm) {
    integer_value = value;
    SetForms(IntegerForm);
    primary = PrimaryInteger;
    SetFlag(1);
    return 1;
  }
  const int done = Variable::SetValue_Integer(value);
  SetDirty(1);
  return done;
}

int ExternalDatabaseVariable::SetValue_Double(double value) {
  const int done = Variable::SetValue_Double(value);
  SetDirty(1);
  return done;
}

void ExternalDatabaseVariable::Convert_Aggregate(AggregateType kind) {
  Variable::Convert_Aggregate(kind);
  if (elements && owner) owner->NoteElements();
}

// --- Reads ---------------------------------------------------------------------------------------

// Asks for the forms in that order, until there is one. Returns whether the variable then has a
// value: one of the library, or one of its own, which it may have got while the library worked.
bool ExternalDatabaseVariable::Ask(Form first, Form second, Form third) {
  for (const Form form : {first, second, third}) {
    if (HasOwnValue() || (valid_forms() & form)) return true;
    const int arrived = form == TextForm      ? Get_String()
                        : form == IntegerForm ? Get_Integer()
                                              : Get_Double();
    if (arrived) return true;
  }
  return HasOwnValue();
}

// The base class compares what is there, and would take a field that was not read yet for NULL.
double ExternalDatabaseVariable::value_compare(int* not_numeric) {
  if (!HasOwnValue() && valid_forms() == 0) {
    switch (preferred_type()) {
      case PrimaryDouble: (void)value_double(); break;
      case PrimaryInteger: (void)value_integer(); break;
      default: (void)value(); break;
    }
  }
  return Variable::value_compare(not_numeric);
}

// A value that is missing in all forms is empty, but not kept: the next read asks again.
void ExternalDatabaseVariable::Convert_String() {
  if (!Ask(TextForm, DoubleForm, IntegerForm)) {
    string_value.assign("", 0);
  } else if (!(valid_forms() & TextForm)) {
    Coerce_String();
  }
}

void ExternalDatabaseVariable::Convert_Integer() {
  if (!Ask(IntegerForm, DoubleForm, TextForm)) {
    integer_value = 0;
  } else if (!(valid_forms() & IntegerForm)) {
    Coerce_Integer();
  }
}

void ExternalDatabaseVariable::Convert_Double() {
  if (dirty_flag && valid_forms() == IntegerForm) {
    double_value = integer_value;
    AddForm(DoubleForm);
  } else if (!Ask(DoubleForm, IntegerForm, TextForm)) {
    double_value = 0.0;
  } else if (!(valid_forms() & DoubleForm)) {
    Coerce_Double();
  }
}

void ExternalDatabaseVariable::Coerce_String() {
  Variable::Convert_String();
}

// The base class would read a text that is no whole number through Convert_Double, which asks.
void ExternalDatabaseVariable::Coerce_Integer() {
  if (redirected() || elements || (valid_forms() & DoubleForm) || !(valid_forms() & TextForm)) {
    return Variable::Convert_Integer();
  }
  int error = 0;
  integer_value = ZephApplication::stoi(string_value.data, string_value.length, &error);
  if (error) {
    Coerce_Double();
    integer_value = DoubleToInteger(double_value);
  }
  AddForm(IntegerForm);
}

void ExternalDatabaseVariable::Coerce_Double() {
  Variable::Convert_Double();
}

int ExternalDatabaseVariable::Get_Integer() {
  if (!owner || !descriptor->variable_get_integer) return 0;
  int value = 0;
  {
    const ExternalDatabaseView::VariableRead running(owner);
    if (!descriptor->variable_get_integer(this, &value)) return 0;
  }
  if (HasOwnValue()) return 0;
  integer_value = value;
  AddForm(IntegerForm);
  return 1;
}

int ExternalDatabaseVariable::Get_Double() {
  if (!owner || !descriptor->variable_get_double) return 0;
  double value = 0.0;
  {
    const ExternalDatabaseView::VariableRead running(owner);
    if (!descriptor->variable_get_double(this, &value)) return 0;
  }
  if (HasOwnValue()) return 0;
  double_value = value;
  AddForm(DoubleForm);
  return 1;
}

int ExternalDatabaseVariable::Get_String() {
  if (!owner || !descriptor->variable_get_string) return 0;
  char* text = nullptr;
  int length = 0;
  int owned = 0;
  {
    const ExternalDatabaseView::VariableRead running(owner);
    if (!descriptor->variable_get_string(this, &text, &length, &owned)) return 0;
  }
  const int bytes = MeasuredLength(text, length);
  if (HasOwnValue()) {
    if (owned) delete[] text;
    return 0;
  }
  if (owned && text) {
    // The size of the buffer is not known, so it counts as full.
    string_value.assign_nocopy(text, bytes, bytes);
  } else {
    string_value.assign(text, bytes);
  }
  AddForm(TextForm);
  return 1;
}

// --- Commit --------------------------------------------------------------------------------------

// The library gets a copy, because it may run code that stores in this variable.
int ExternalDatabaseVariable::CommitText(const String& text) {
  if (!descriptor->variable_set_string) return 0;
  const PassedText copy(text.data, text.length);
  return descriptor->variable_set_string(this, copy.data(), copy.length()) != 0;
}

int ExternalDatabaseVariable::Commit() {
  if (redirected() || !owner) return 1;
  const ExternalDatabaseView::VariableCall running(owner);
  if (elements && descriptor->variable_set_string) {
    String text("");
    Serialize(text);
    return CommitText(text);
  }
  if (!dirty_flag) return 1;
  switch (primary != PrimaryNone ? primary : preferred_type()) {
    case PrimaryDouble:
      if (!descriptor->variable_set_double) return 0;
      return descriptor->variable_set_double(this, value_double()) != 0;
    case PrimaryInteger:
      if (!descriptor->variable_set_integer) return 0;
      return descriptor->variable_set_integer(this, value_integer()) != 0;
    default: return CommitText(value());
  }
}
