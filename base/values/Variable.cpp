// The value itself: reading, writing and references. The counts of holders are in
// VariableCounts.cpp, the operations on elements in VariableElements.cpp, the search for values
// that only hold themselves in VariableCycles.cpp, the kinds of variables in VariableKinds.cpp.
// Tested in tests/base/values/VariableTest.cpp.
//
// The file is longer than others because the stores and reads of all forms follow one set of rules,
// for references, watched texts and elements. Elements, counts, cycles and walks have files of
// their own.

#include "base/values/Variable.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>
#include <vector>

#include "base/core/BufferRoom.h"
#include "base/core/CopyText.h"
#include "base/core/NumberText.h"
#include "base/core/RunLimit.h"
#include "base/core/ShortAssign.h"
#include "base/core/SpareText.h"
#include "base/host/ZephApplication.h"
#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "base/values/VariableWalk.h"

// --- Construction and deletion -------------------------------------------------------------------

Variable::Variable() = default;

Variable::Variable(const char* name, int length) : name_(name, length) {}

Variable::Variable(const char* name, int length, const char* value, int valuelength)
    : name_(name, length),
      string_value(value, valuelength),
      state(Unproved | TextForm),
      primary(PrimaryText) {}

Variable::Variable(const String& name, const String& value)
    : name_(name), string_value(value), state(Unproved | TextForm), primary(PrimaryText) {}

Variable::Variable(const char* name, int length, char* buffer, int valuelength, int allocated)
    : string_value(buffer, valuelength, allocated),
      state(Unproved | TextForm),
      primary(PrimaryText) {
  name_.assign(name, length);
}

Variable::Variable(const char* name, int length, int value)
    : name_(name, length),
      integer_value(value),
      double_value(value),
      state(Unproved | IntegerForm),
      primary(PrimaryInteger) {}

Variable::Variable(const char* name, int length, double value)
    : name_(name, length),
      integer_value(DoubleToInteger(value)),
      double_value(value),
      state(Unproved | IntegerForm | DoubleForm),
      primary(PrimaryDouble) {}

Variable::Variable(const Variable& source) {
  SetName(source.name_);
  // Reading a value fills its caches, so the source does change.
  Variable::SetValue(const_cast<Variable&>(source));
}

Variable::~Variable() {
  if (state & Watched) DeferredText::SettleLast(this);
  if (elements) DeleteTree(elements);
  if (state & Suspect) ForgetSuspect();
  if (name_.allocated == SharedMark) DropSharedName();
}

void Variable::NoteClass() const {
  state = (state & ~Unproved) | (typeid(*this) == typeid(Variable) ? 0 : Derived);
}

bool Variable::ProvesPlain() const {
  if (state & Unproved) NoteClass();
  return (state & NotPlain) == 0;
}

bool Variable::ProvesOrdinary() const {
  if (state & Unproved) NoteClass();
  return (state & NotOrdinary) == 0;
}

bool Variable::Renew() {
  if (state == Reference) {
    if (refcount_ != 1 || !reference || name_.allocated != SharedMark) return false;
    Variable* const target = std::exchange(reference, nullptr);
    ClearScratch();
    state = Asleep;
    target->Release();
    return true;
  }
  if (!IsPlain() || refcount_ != 1 || (state & Suspect) || error_.data ||
      name_.allocated != SharedMark) {
    return false;
  }
  if (elements) DropElements();
  if (string_value.data) string_value.destroy();
  state = Asleep;
  return true;
}

void Variable::DeletePlain() {
  this->Variable::~Variable();
  Variable::operator delete(this, sizeof(Variable));
}

void Variable::DropElements() {
  AggregateElementTree* tree = elements;
  elements = nullptr;
  aggregate = AggregateNone;
  if (tree) DeleteTree(tree);
}

Variable* Variable::Clone(ZephApplication* application) {
  if (reference) return Final()->Clone(application);
  if (state & Gone) return new NULLVariable();
  VariableRef clone(new Variable());
  clone->SetName(name_);
  clone->Assign(*this, true);
  return clone.release();
}

// --- Identity ------------------------------------------------------------------------------------

String& Variable::name() {
  if (name_.allocated == SharedMark) OwnName();
  return name_;
}

// name() returns a String that the caller may change, so a shared name is copied first.
void Variable::OwnName() {
  SharedName* shared = SharedName::Of(name_.release());
  name_.assign(shared->text(), shared->length());
  shared->Release();
}

void Variable::SetName(const String& name) {
  if (name.data && &name != &name_) this->name() = name;
}

Variable* Variable::NextIdentity() {
  return state & Reference ? reference : this;
}

namespace {
// Counts how often a reference of this thread was changed to another target or to none. At UINT_MAX
// it stays, and Final() no longer caches ends.
constinit thread_local unsigned changed_references = 1;

void NoteChangedReference() {
  if (changed_references != UINT_MAX) changed_references++;
}
}  // namespace

// Scripts can build chains of references of any length, and then use each of them. So each
// reference passed on the way caches the end of the chain: link() has the end, integer_value the
// counter at that time (a reference has no number of its own). The cache is valid while no
// reference was changed. If the end has become a reference since, the walk continues from there. A
// chain always has an end, because no reference is ever made to a variable that refers to it.
Variable* Variable::Final() {
  if (!reference) return this;
  if (integer_value == static_cast<int>(changed_references) && !(state & Reached)) [[likely]] {
    Variable* const end = link();
    if (end && !end->reference) return end;
  }
  return FindFinal();
}

const unsigned* Variable::ReferenceChanges() {
  return &changed_references;
}

// Apart from Final(), which therefore needs no registers.
Variable* Variable::FindFinal() {
  if (!reference->reference) return reference;
  const auto remembers = static_cast<int>(changed_references);
  const auto following = [remembers](Variable* holder) {
    const bool is_marked = (holder->state & Reached) != 0;
    if (!is_marked && holder->integer_value == remembers && holder->link()) return holder->link();
    return holder->reference;
  };
  Variable* end = this;
  while (end->reference) end = following(end);
  if (changed_references == UINT_MAX) return end;
  for (Variable* holder = this; holder->reference;) {
    Variable* const next = following(holder);
    if (!(holder->state & Reached)) {
      holder->SetLink(end);
      holder->integer_value = remembers;
    }
    holder = next;
  }
  return end;
}

Variable* Variable::RealIdentity() {
  return Final();
}

int Variable::type() {
  if (!redirected()) return VariableStored;
  return state & Reference ? VariableReference : VariableNULL;
}

int Variable::TypeReferredTo() {
  return reference ? reference->type() : type();
}

// --- References ----------------------------------------------------------------------------------

void Variable::Make_Reference(Variable* target) {
  if (!target || target == this || (state & Gone)) return;
  Changing();
  if (state & Reference) {
    Rebind(target);
  } else if (target->RealIdentity() != this) {
    ReferTo(target);
  }
}

// The object keeps its class and its address, because other holders have that address. From here on
// its state says that a target has the value.
void Variable::ReferTo(Variable* target) {
  const VariableRef target_pin = VariableRef::Share(target);
  // An element may refer to this object and have one of its counts.
  const VariableRef pin = VariableRef::Share(this);
  string_value.destroy();
  error_.destroy();
  SetForms(0);
  primary = PrimaryNone;
  integer_value = 0;
  double_value = 0.0;
  DropElements();
  NoteEdge(target);
  target->Hold();
  state |= Reference;
  reference = target;
}

void Variable::Rebind(Variable* target) {
  if (target == reference || target->RealIdentity() == Final()) return;
  NoteEdge(target);
  NoteChangedReference();
  const VariableRef pin = VariableRef::Share(this);
  target->Hold();
  Variable* const old = std::exchange(reference, target);
  // This may delete the old target, which may take a count off this object.
  if (old) old->Release();
}

void Variable::Make_NULL() {
  Changing();
  const VariableRef pin = VariableRef::Share(this);
  Variable* const old = std::exchange(reference, nullptr);
  if (old) NoteChangedReference();
  state = (state & ~Reference) | Gone;
  SetForms(0);
  primary = PrimaryNone;
  integer_value = 0;
  double_value = 0.0;
  if (name_.allocated == SharedMark) DropSharedName();
  name_.destroy();
  string_value.destroy();
  error_.destroy();
  DropElements();
  if (old) old->Release();
}

// --- Reading -------------------------------------------------------------------------------------

String& Variable::value() {
  if (redirected()) {
    if (reference) return Final()->value();
    if (state & Gone) return string_value;
  }
  if (elements) {
    string_value.assign("", 0);
    Serialize(string_value);
  } else if (!(valid_forms() & TextForm)) {
    Convert_String();
  }
  return string_value;
}

int Variable::value_integer() {
  if (redirected()) return reference ? Final()->value_integer() : 0;
  if (elements) return 0;
  if (!(valid_forms() & IntegerForm)) Convert_Integer();
  return integer_value;
}

double Variable::value_double() {
  if (redirected()) return reference ? Final()->value_double() : 0.0;
  if (elements) return 0.0;
  if (!(valid_forms() & DoubleForm)) Convert_Double();
  return double_value;
}

// Text is parsed each time, even with a cached double, because only the parse shows whether the
// text is a number.
double Variable::value_compare(int* not_numeric) {
  if (reference) return Final()->value_compare(not_numeric);
  *not_numeric = 0;
  if (redirected()) return 0.0;
  if (elements) {
    *not_numeric = 1;
    return 0.0;
  }
  if (valid_forms() & TextForm) {
    double_value = ZephApplication::stod(string_value.data, string_value.length,
                                         string_value.allocated, not_numeric);
    if (!*not_numeric) AddForm(DoubleForm);
    return double_value;
  }
  if (valid_forms() & DoubleForm) return double_value;
  if (valid_forms() & IntegerForm) {
    double_value = integer_value;
    AddForm(DoubleForm);
    return double_value;
  }
  return 0.0;
}

int Variable::primary_type() {
  return reference ? Final()->primary_type() : primary;
}

int Variable::preferred_type() {
  return reference ? Final()->preferred_type() : PrimaryText;
}

int Variable::IsTrue() {
  if (redirected()) return reference ? Final()->IsTrue() : 0;
  if (valid_forms() & TextForm) return IsTrue(string_value.data, string_value.length);
  if (valid_forms() & DoubleForm) return double_value != 0.0;
  if (valid_forms() & IntegerForm) return integer_value != 0;
  const String& text = value();
  return IsTrue(text.data, text.length);
}

int Variable::IsTrue(const char* text, int length) {
  bool point = false;
  for (int i = 0; i < length; i++) {
    if (text[i] == '0') continue;
    if (text[i] != '.' || point) return 1;
    point = true;
  }
  return 0;
}

int Variable::IsNULL() {
  if (redirected()) return reference ? Final()->IsNULL() : 1;
  if (elements) return 0;
  if (valid_forms() & TextForm) return string_value.length == 0;
  return (valid_forms() & (IntegerForm | DoubleForm)) == 0;
}

// The caller may keep what it finds there.
AggregateElementTree* Variable::aggregateelements() {
  if (reference) return Final()->aggregateelements();
  if (elements) elements->Expose();
  return elements;
}

AggregateType Variable::aggregatetype() {
  return reference ? Final()->aggregatetype() : aggregate;
}

String& Variable::error() {
  return reference ? Final()->error() : error_;
}

// A double has priority over an integer: beside a double, the integer is only its truncation.
void Variable::Convert_String() {
  Changing();
  if (elements) {
    string_value.assign("", 0);
    Serialize(string_value);
    return;
  }
  int length;
  int size;
  if (valid_forms() & DoubleForm) {
    char* text = ZephApplication::dtos(double_value, &length, &size, -1);
    string_value.assign_nocopy(text, length, size);
  } else if (valid_forms() & IntegerForm) {
    StoreIntegerText();
  } else {
    string_value.assign("", 0);
  }
  AddForm(TextForm);
}

// The outcome is that of adopting the buffer of itos, but the present buffer is reused if it is
// large enough: scripts write out counters again and again.
void Variable::StoreIntegerText() {
  char text[kLongestInteger];
  const int length = static_cast<int>(WriteInteger(text, integer_value) - text);
  if (string_value.allocated <= length) {
    string_value.assign_nocopy(new char[static_cast<size_t>(length) + 1], 0, length + 1);
  }
  memcpy(string_value.data, text, static_cast<size_t>(length));
  string_value.data[length] = '\0';
  string_value.length = length;
  string_value.allocated = length + 1;
}

void Variable::Convert_Integer() {
  integer_value = 0;
  if (elements) return;
  if (valid_forms() & DoubleForm) {
    integer_value = DoubleToInteger(double_value);
  } else if (valid_forms() & TextForm) {
    int error = 0;
    integer_value = ZephApplication::stoi(string_value.data, string_value.length, &error);
    if (error) {
      Convert_Double();
      integer_value = DoubleToInteger(double_value);
    }
  }
  AddForm(IntegerForm);
}

// Text has priority over an integer here, unlike in Convert_Integer.
void Variable::Convert_Double() {
  double_value = 0.0;
  if (elements) return;
  if (valid_forms() & TextForm) {
    double_value = ZephApplication::stod(string_value.data, string_value.length,
                                         string_value.allocated, nullptr);
  } else if (valid_forms() & IntegerForm) {
    double_value = integer_value;
  }
  AddForm(DoubleForm);
}

namespace {
// kElementCost: the time for an element, in bytes that take as long. kElements: elements of a walk
// between two checks of the time limit; few, because an element may be a long chain of references
// or a long text.
constexpr int kElementCost = 64;
constexpr int kElements = 256;

void AppendItem(String& out, const String& text) {
  if (out.length > 0) out.cat(',');
  if (text.data) out.cat(text.data, text.length);
}
}  // namespace

// An aggregate that is itself an element is written as its elements. One that is only referred to
// is written as one text, that variable's own: it is flattened into that variable's string_value
// first.
void Variable::Serialize(String& out) {
  if (!elements) {
    AppendItem(out, value());
    return;
  }
  const int before = out.length;
  if (AppendElements(&out)) return;
  // A part could not be distinguished from a whole list, so nothing is written instead.
  out.truncate(static_cast<unsigned>(before));
  if (out.data) out.data[before] = '\0';
}

// Returns false if the time limit passed before the end.
bool Variable::AppendElements(String* all) {
  std::vector<AggregateElementTree::Row> rows;
  elements->Listing(&rows);
  const auto is_flat = [](const auto& row) {
    return row.variable && row.variable->IsPlain() && !row.variable->elements;
  };
  if (std::all_of(rows.begin(), rows.end(), is_flat)) {
    RunWatch watch(RunLimit::Bytes);
    for (const auto& row : rows) {
      const String& text = row.variable->Read_Text();
      AppendItem(*all, text);
      if (watch.Over(kElementCost) || watch.Over(text.length)) return false;
    }
    return true;
  }
  VariableWalk walk(this);
  RunWatch watch(kElements);
  std::vector<String*> outs(1, all);
  for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) {
    if (watch.Over()) return false;
    Variable* identity = walk.identity();
    if (step == VariableWalk::Scalar) AppendItem(*outs.back(), identity->value());
    if (walk.variable() == identity) continue;
    if (step == VariableWalk::Enter) {
      identity->string_value.assign("", 0);
      outs.push_back(&identity->string_value);
    } else if (step == VariableWalk::Leave) {
      outs.pop_back();
      AppendItem(*outs.back(), identity->string_value);
    } else if (step == VariableWalk::Repeated) {
      AppendItem(*outs.back(), String());
    }
  }
  return true;
}

// --- Writing -------------------------------------------------------------------------------------

void Variable::SetNULL() {
  if (RedirectedStore()) {
    if (reference) Final()->SetNULL();
    return;
  }
  if (valid_forms() & TextForm) string_value.Empty();
  SetForms(0);
  primary = PrimaryNone;
  if (elements) DropElements();
}

// All stores drop the elements last: the new text may be in one of them, and one of them may have
// the last count of this object.

int Variable::SetValue(const char* text, int length) {
  if (text && length >= 0 && WriteShort(text, length)) return 1;
  if (RedirectedStore()) return reference ? Final()->SetValue(text, length) : 1;
  string_value.assign(text, length);
  SetForms(TextForm);
  primary = PrimaryText;
  if (elements) DropElements();
  return 1;
}

int Variable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  // Out of line, so that the usual case needs no frame.
  struct AnyVariable {
    [[gnu::noinline]] static int Store(Variable* variable, char* text, int bytes, int size) {
      // A text that begins with the old value is made whole first, which may fail.
      std::unique_ptr<char[]> owned(text);
      if (variable->RedirectedStore()) {
        Variable* const target = variable->reference ? variable->Final() : nullptr;
        return target ? target->SetValue_Nocopy(owned.release(), bytes, size) : 1;
      }
      variable->string_value.assign_nocopy(owned.release(), bytes, size);
      variable->SetForms(TextForm);
      variable->primary = PrimaryText;
      if (variable->elements) variable->DropElements();
      return 1;
    }
  };
  // The result of a library's function, mostly: its variable has been used before and may have an
  // older text.
  if (IsProvedPlain() && !elements && buffer && length >= 0 && length < allocated) [[likely]] {
    char* const old = string_value.data;
    const int old_size = string_value.allocated;
    string_value.data = buffer;
    string_value.allocated = allocated;
    string_value.length = length;
    buffer[length] = '\0';
    SetForms(TextForm);
    primary = PrimaryText;
    if (old != buffer) SpareText::Give(old, old_size);
    return 1;
  }
  return AnyVariable::Store(this, buffer, length, allocated);
}

int Variable::SetValue_Integer(int value) {
  if (RedirectedStore()) return reference ? Final()->SetValue_Integer(value) : 1;
  integer_value = value;
  SetForms(IntegerForm);
  primary = PrimaryInteger;
  if (elements) DropElements();
  return 1;
}

int Variable::SetValue_Double(double value) {
  if (RedirectedStore()) return reference ? Final()->SetValue_Double(value) : 1;
  double_value = value;
  SetForms(DoubleForm);
  primary = PrimaryDouble;
  if (elements) DropElements();
  return 1;
}

int Variable::SetValue(Variable& source) {
  if (RedirectedStore()) return reference ? Final()->SetValue(source) : 1;
  // Scripts copy the fields of each record, and most fields have their value then: this is what
  // CopyComputed does with it, without the steps to it. To copy a value over itself changes
  // nothing.
  if ((source.state & NotPlain) == Derived && source.valid_forms() != 0 &&
      source.primary != PrimaryNone && !elements && source.type() == VariableComputed) {
    if (source.valid_forms() != TextForm || !source.string_value.data) {
      CopyForms(source);
      return 1;
    }
    AssignShort(&string_value, source.string_value.data, source.string_value.length);
    SetForms(TextForm);
    primary = source.primary;
    return 1;
  }
  Assign(source, false);
  return 1;
}

// With apart, the copy shares no memory with the source.
void Variable::Assign(Variable& source, bool apart) {
  if (source.plain_forms() != 0 && &source != this) {
    CopyForms(source);
    if (elements) DropElements();
    return;
  }
  Variable* from = source.RealIdentity();
  if (from->IsPlain() ? from->elements : from->aggregateelements()) {
    AggregateElementTree* copy = CopyElementTree(from, apart);
    AggregateElementTree* old = elements;
    elements = copy;
    aggregate = from->aggregatetype();
    SetForms(0);
    primary = PrimaryNone;
    if (old) DeleteTree(old);
  } else if (from != this) {
    CopyScalar(*from);
    if (elements) DropElements();
  }
}

bool Variable::ShareMembers(Variable& source) {
  return HoldsStructure() && source.HoldsStructure() && IsPlain() && source.IsPlain() &&
         source.elements->IsIsolated() && elements->BecomeShareOf(source.elements);
}

bool Variable::MoveElements(Variable* source) {
  if (!CanMoveFrom(source)) return false;
  AggregateElementTree* const moved = source->elements;
  moved->TakeShapeOfCopy();
  AggregateElementTree* const old = elements;
  elements = moved;
  aggregate = source->aggregate;
  SetForms(0);
  primary = PrimaryNone;
  source->elements = nullptr;
  source->aggregate = AggregateNone;
  if (old) DeleteTree(old);
  return true;
}

bool Variable::CanMoveFrom(Variable* source) {
  return source != this && IsPlain() && source->IsPlain() && !(source->state & Suspect) &&
         source->elements->IsIsolated();
}

// The new member is as one that Member() makes and MoveElements() stores in.
bool Variable::AdoptMember(const char* name, int length, Variable* source) {
  if (!source->elements || source->refcount_ != 1 || !HoldsStructure() || !CanMoveFrom(source) ||
      source->error_.data || source->watched() ||
      (source->name_.data && source->name_.allocated != SharedMark) ||
      !elements->AdoptMember(name, length, source)) {
    return false;
  }
  if (source->name_.data) source->DropSharedName();
  if (source->string_value.data) source->string_value.destroy();
  source->SetForms(0);
  source->primary = PrimaryNone;
  return true;
}

// A copy of a NULL element is an empty text, and making it leaves that in the element too. So does
// this, whatever becomes of it.
bool Variable::IsIsolated(int nested) {
  if (refcount_ != 1 || (state & (Suspect | Walked | Asleep)) || !IsPlain()) return false;
  if (elements) {
    if (nested == 0 || !elements->IsIsolated(nested - 1)) return false;
    elements->TakeChain();
  } else if (valid_forms() == 0) {
    Convert_String();
  }
  return true;
}

bool Variable::BareNumber(DenseSlot* slot) const {
  if (HoldsInteger() && primary == PrimaryInteger) {
    *slot = DenseSlot(integer_value);
    return true;
  }
  if (!HoldsDouble() || primary != PrimaryDouble || !DenseSlot::Takes(double_value)) return false;
  *slot = DenseSlot(double_value);
  return true;
}

DenseSlot Variable::CopyIsolated() {
  DenseSlot number;
  if (!name_.data && BareNumber(&number)) return number;
  VariableRef copy(SlotTable::NewVariable());
  copy->SetName(name_);
  if (elements) {
    copy->elements = elements->ShareCopy();
    copy->aggregate = aggregate;
  } else {
    copy->CopyForms(*this);
  }
  return DenseSlot(copy.release());
}

// Copies the value of a source without elements. Computed values are read, stored ones copied form
// by form; a stored NULL becomes empty text with primary 0.
void Variable::CopyScalar(Variable& source) {
  switch (source.type()) {
    case VariableNULL:
      SetForms(0);
      primary = PrimaryNone;
      return;
    case VariableComputedInteger:
      integer_value = source.value_integer();
      SetForms(IntegerForm);
      primary = PrimaryInteger;
      return;
    case VariableComputedText: {
      const String& text = source.value();
      if (text.data) string_value.assign(text.data, text.length);
      SetForms(TextForm);
      primary = PrimaryText;
      return;
    }
    case VariableComputed: CopyComputed(source); return;
    default:
      if (source.valid_forms() == 0) source.value();
      CopyForms(source);
      return;
  }
}

// If the source's text has no buffer, the old bytes stay in place and become valid text.
void Variable::CopyForms(Variable& source) {
  if ((source.valid_forms() & TextForm) && source.string_value.data) {
    AssignShort(&string_value, source.string_value.data, source.string_value.length);
  }
  SetForms(source.valid_forms());
  primary = source.primary;
  if (valid_forms() & IntegerForm) integer_value = source.integer_value;
  if (valid_forms() & DoubleForm) double_value = source.double_value;
}

void Variable::CopyComputed(Variable& source) {
  CopyForms(source);
  if (primary != PrimaryNone && valid_forms() != 0) return;
  switch (source.preferred_type()) {
    case PrimaryDouble:
      double_value = source.value_double();
      AddForm(DoubleForm);
      primary = PrimaryDouble;
      return;
    case PrimaryInteger:
      integer_value = source.value_integer();
      AddForm(IntegerForm);
      primary = PrimaryInteger;
      return;
    default: {
      const String& text = source.value();
      if (text.data) string_value.assign(text.data, text.length);
      AddForm(TextForm);
      primary = PrimaryText;
      return;
    }
  }
}

// Returns a deep copy of the elements of a variable, owned by the caller. Each element gets a new
// variable with the name and value of the old one; references are replaced by what they refer to. A
// value that is reachable in two ways is copied twice, so a few variables that refer to one another
// can make a copy of unbounded size: after the time limit the copy is empty.
//
// If only the source can see its elements, the copy shares them for now; with apart it does not.
AggregateElementTree* Variable::CopyElementTree(Variable* source, bool apart) {
  if (!apart && source->IsPlain() && source->elements->IsIsolated()) {
    return source->elements->ShareCopy();
  }
  auto copy = std::make_unique<AggregateElementTree>();
  if (copy->CopyNumbers(source->elements)) return copy.release();
  std::vector<AggregateElementTree*> open;
  VariableWalk walk(source, VariableWalk::ForCopy);
  RunWatch watch(kElements);
  for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) {
    if (watch.Over()) {
      // The rows of the copy are not filled to their ends, so nothing of it can be used.
      copy = std::make_unique<AggregateElementTree>();
      break;
    }
    if (step == VariableWalk::Leave) {
      open.pop_back();
      continue;
    }
    if (walk.at_root()) {
      copy->ExpectCopyOf(walk.tree(), apart);
      open.push_back(copy.get());
      continue;
    }
    Variable* variable = open.back()->InsertCopy(walk.row());
    variable->SetName(walk.variable()->name_);
    if (step == VariableWalk::Enter) {
      variable->elements = new AggregateElementTree();
      variable->aggregate = walk.identity()->aggregatetype();
      variable->elements->ExpectCopyOf(walk.tree(), apart);
      open.push_back(variable->elements);
    } else if (step == VariableWalk::Scalar) {
      variable->CopyScalar(*walk.identity());
    } else {
      variable->Convert_String();
    }
  }
  return copy.release();
}

// --- Texts that grow -----------------------------------------------------------------------------

void Variable::Unwatch() {
  DeferredText::Settle(this);
}

int Variable::WatchableText() {
  if (!IsOrdinary() || elements) return -1;
  const String& text = value();
  return text.data && text.data[text.length] == '\0' ? text.length : -1;
}

namespace {
// The size of the buffer that a String allocates for that many bytes.
int StringSize(int length) {
  const int64_t size = (static_cast<int64_t>(length) + 24) / 24 * 24;
  if (size > INT_MAX) throw std::bad_alloc();
  return static_cast<int>(size);
}
}  // namespace

// The buffer doubles, so that building a text takes linear time; unused pages take no memory.
// `allocated` reports what a store of the whole text would have reported.
void Variable::AppendText(const char* bytes, int count, bool adopt) {
  Changing();
  const int old = string_value.length;
  const int total = old + count;
  int told = string_value.allocated;
  if (adopt) {
    told = total + 1;
  } else if (total >= told) {
    told = StringSize(total);
  }
  if (BufferRoom(string_value.data) < static_cast<size_t>(told)) {
    string_value.data =
        GrowBuffer(string_value.data, static_cast<size_t>(old), static_cast<size_t>(told) * 2);
  }
  CopyText(string_value.data + old, bytes, static_cast<size_t>(count));
  string_value.data[total] = '\0';
  string_value.length = total;
  string_value.allocated = told;
  SetForms(TextForm);
  primary = PrimaryText;
}

bool Variable::CopyAsAdopted(const char* bytes, int count) {
  if (!IsPlain() || elements) return false;
  if (string_value.allocated <= count &&
      (!string_value.data || BufferRoom(string_value.data) <= static_cast<size_t>(count))) {
    auto* buffer = new char[static_cast<size_t>(count) + 1];
    string_value.destroy();
    string_value.data = buffer;
  }
  CopyText(string_value.data, bytes, static_cast<size_t>(count));
  string_value.data[count] = '\0';
  string_value.length = count;
  string_value.allocated = count + 1;
  SetForms(TextForm);
  primary = PrimaryText;
  return true;
}

void Variable::WriteJoined(const char* text, int length, bool adopt) {
  if (!adopt) {
    SetValue(text, length);
  } else if (!CopyAsAdopted(text, length)) {
    SetValue_Nocopy(NewTextCopy(text, length), length, length + 1);
  }
}
