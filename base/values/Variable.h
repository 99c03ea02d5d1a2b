// The value of the script language. Stacks, tables, databases and extension libraries exchange
// nothing else with scripts: one Variable holds a scalar in up to three cached forms (text, 32-bit
// integer, double), or an array or structure of further variables, or refers to another variable.
// VariableKinds.h has the kinds that are so from the start: references, read-only values, lists.

#ifndef ZEPH_BASE_VARIABLE_H
#define ZEPH_BASE_VARIABLE_H

#include <bit>
#include <cassert>
#include <cstdint>

#include "base/core/FreeList.h"
#include "base/core/List.h"
#include "base/core/Numbers.h"
#include "base/core/SameBytes.h"
#include "base/core/Sanitizers.h"
#include "base/core/StringClass.h"
#include "base/values/SharedName.h"

class AggregateElementTree;
class AggregateIndex;
class DeferredText;
class DenseSlot;
class SlotTable;
class ZephApplication;
struct MemberHint;

// The kind of a variable's elements. An index with a position makes an array, one with a name a
// structure.
enum AggregateType : int { AggregateStructure = 0, AggregateArray = 1, AggregateNone = 2 };

// Results of Variable::type(): the kind of object that a copy has to handle.
enum VariableType : int {
  VariableStored = 0,
  VariableReference = 1,
  VariableNULL = 2,
  VariableComputedInteger = 3,  // read it through value_integer()
  VariableComputedText = 4,     // read it through value()
  VariableComputed = 5,         // read it as preferred_type() says
};

// Results of primary_type() and, from the second on, of preferred_type().
enum PrimaryType : int { PrimaryNone = 0, PrimaryText = 1, PrimaryInteger = 2, PrimaryDouble = 3 };

// A value without a declared type: it is what was stored last. A read returns the form that it
// needs, converting once and caching the result.
//
// Life: the constructor sets a count of 1; the DecRefCount that reaches 0 deletes the object, and
// nothing else does. Code that keeps the pointer takes a count. During an operation, at least one
// holder other than the variable's own elements must have a count. A Variable belongs to one
// request or task and to its thread: reads fill caches, so even they change it. Only Clone passes a
// value to another thread.
//
// References: Make_Reference turns a variable into a reference to another one, for all its holders.
// A reference has one count on its target, however many it has itself: the target lives as long as
// the reference, and taking a count never walks a chain. The object keeps its class; every
// operation first checks redirected() and then works on the variable at the end of the chain. A
// subclass that overrides an operation does the same, in type() too; its first line is
//
//   if (redirected()) return Variable::Op(...);
//
// Invariants:
// 1. aggregate is AggregateNone exactly when elements is null.
// 2. An aggregate has no valid form and primary 0; its string_value is scratch.
// 3. A scalar with no valid form and primary 0 is NULL.
//
// The order of fields and virtual operations must not change.
class Variable {
 public:
  ZEPH_FREE_LIST_OPERATORS(Variable)

  // Bits of valid_forms().
  enum Form : uint8_t { TextForm = 1, IntegerForm = 2, DoubleForm = 4 };

  // Lengths are in bytes; -1 means strlen. All of these make scalars with a count of 1.
  Variable();
  Variable(const char* name, int length);
  Variable(const char* name, int length, const char* value, int valuelength);
  Variable(const String& name, const String& value);
  // Adopts the buffer, made with new[]; allocated is its size in bytes.
  Variable(const char* name, int length, char* buffer, int valuelength, int allocated);
  Variable(const char* name, int length, int value);
  Variable(const char* name, int length, double value);
  // Takes a count on the name, given back at the latest on deletion.
  explicit Variable(SharedName* name) { ShareName(name); }
  // Copies the name and the value, as SetValue(Variable&) does: deep for an aggregate. The copy of
  // a reference is a copy of what it refers to.
  Variable(const Variable& source);
  Variable& operator=(const Variable&) = delete;

  virtual ~Variable();
  // Returns a deep copy for another task, with a count of 1 that the caller owns. application is
  // the one that the copy will work for.
  virtual Variable* Clone(ZephApplication* application);

  virtual String& name();
  // The next step of the chain: a reference's target (null if it has none), else the variable
  // itself.
  virtual Variable* NextIdentity();
  // The variable at the end of the chain of references; never null. A reference without a target
  // is its own end.
  virtual Variable* RealIdentity();

  // Text form. The String belongs to the variable and is valid until the next store. It may have no
  // buffer: then its length is 0. An aggregate is flattened again at each call.
  virtual String& value();
  // Number forms; 0 for an aggregate and for text that is no number.
  virtual int value_integer();
  virtual double value_double();
  // The number to compare by. *not_numeric is set to 1 for an aggregate and for text that is no
  // number, otherwise to 0; NULL compares as 0.
  virtual double value_compare(int* not_numeric);
  virtual int type();
  virtual int primary_type();
  virtual int preferred_type();
  // Truth. Text is false if it is empty or consists of zeros and at most one point; a number is
  // false if it is 0. An aggregate is tested by its text.
  virtual int IsTrue();
  // No value, or empty text. An aggregate is never NULL.
  virtual int IsNULL();
  virtual void SetNULL();
  // The elements, owned by the variable; null for a scalar.
  virtual AggregateElementTree* aggregateelements();
  virtual AggregateType aggregatetype();
  virtual int refcount();
  // Copies the name; a String without a buffer changes nothing.
  virtual void SetName(const String& name);

  // Stores. Each replaces the old value, elements included. Returns 1, or 0 if a subclass refuses
  // the value and leaves its text in error().
  virtual int SetValue(const char* text, int length);
  // Copies the value of the source, deep for an aggregate; the source may be one of this
  // variable's own elements, or this variable.
  virtual int SetValue(Variable& source);
  // Adopts a buffer made with new[], even if the store is refused or ignored.
  virtual int SetValue_Nocopy(char* buffer, int length, int allocated);
  virtual int SetValue_Integer(int value);
  virtual int SetValue_Double(double value);
  virtual String& error();

  // The element with that key, borrowed. If there is none: returns null, or with create makes a new
  // NULL element. To hold it, a scalar or an aggregate of the other kind becomes an empty aggregate
  // first.
  virtual Variable* Element(const AggregateIndex& index, int create);
  // Applies the indices in turn; an empty or null path gives the variable itself.
  virtual Variable* Element(List<AggregateIndex>* path, int create);
  // Makes the given variable itself the element, with a count of its own, and replaces the old
  // element.
  virtual void SetElement(const AggregateIndex& index, Variable* variable);
  // Inserts before position index, moving that and all later elements up by one; below 1 appends.
  virtual void InsertElement(int index, Variable* variable);
  // Removes one element; with compact, the later elements of an array move down by one.
  virtual void DeleteElement(const AggregateIndex& index, bool compact);
  // Removes count positions from start on, and with compact moves the later elements down by
  // count. A count of -1 removes all from start on. Anything but an array becomes an empty one.
  virtual void DeleteElements(int start, int count, bool compact);
  // Inserts count positions of another array (or of this one) before dest, after moving the
  // elements from dest on up by count. A start below 1 means the first position, a dest below 1 the
  // end, and a negative count all up to the last. With copy false both arrays share the elements.
  virtual void MergeElements(Variable* source, int start, int count, int dest, bool copy);
  // The same, but overwrites the positions from dest on. Gaps of the source leave the target
  // unchanged.
  virtual void CopyElements(Variable* source, int start, int count, int dest, bool copy);
  // Renumbers an array from 1 on and returns its number of elements; 0 for anything else.
  virtual int CollapseElements();
  // Largest and smallest position; 0 when there is none, -1 for a structure.
  virtual int Max();
  virtual int Min();
  // Position of the nearest element above or below; 0 without one, -1 for a structure.
  virtual int Next(int position);
  virtual int Previous(int position);
  virtual int ElementsUsed();

  // DecRefCount may delete the object, and with it what only it refers to.
  virtual void IncRefCount();
  virtual void DecRefCount();

  // Fill one cache from the other forms. The reads above call them when a form is not valid; a
  // subclass overrides them to compute its value. They work on this object, never on a target.
  virtual void Convert_String();
  virtual void Convert_Integer();
  virtual void Convert_Double();
  // Makes the object an empty aggregate of that kind, unless it already has the kind. No effect on
  // a reference.
  virtual void Convert_Aggregate(AggregateType kind);
  // Appends the text form: elements separated by commas, in the order of their keys. A variable
  // that contains itself is empty text within itself. If the time limit of the run
  // (base/core/RunLimit.h) passes during the call, nothing is appended.
  virtual void Serialize(String& out);
  // Turns the variable into a reference to the target, or makes a reference refer to another
  // target. No effect for null, or if the chain would end at this variable.
  virtual void Make_Reference(Variable* target);
  // The type() of a reference's target, or the object's own.
  virtual int TypeReferredTo();

  // --- Short ways ------------------------------------------------------------------------------
  // These do the same as the virtual operations of like name, without the virtual call if the
  // variable is an ordinary one, as most are in a running script. For all others they call the
  // virtual operation, so a caller need not check IsPlain() first.

  // Whether the object is a Variable, not of a derived class, and no reference: then no value is
  // computed, no store refused, and value and elements are the object's own.
  bool IsPlain() const { return !(state & NotPlain) || ProvesPlain(); }
  // The same if the object's class is known already, as it is after its first use.
  bool IsProvedPlain() const { return !(state & NotPlain); }
  // The same, but its text may be watched (DeferredText.h): operations run no code of a derived
  // class.
  bool IsOrdinary() const { return !(state & NotOrdinary) || ProvesOrdinary(); }
  // RealIdentity()
  Variable* Real() {
    if (!(state & Reference)) [[likely]]
      return this;
    Variable* const next = reference;
    if (!next || !next->reference) return next ? next : this;
    Variable* const last = next->reference;
    return last->reference ? Final() : last;
  }
  // The counter of this thread with which references remember where their chains end: one that has
  // the same number in integer_value has the end in double_value, see Final().
  static const unsigned* ReferenceChanges();
  // The valid forms of a plain scalar, as bits of Form; 0 for a NULL scalar, for an aggregate and
  // for a variable that is not plain.
  unsigned plain_forms() const { return IsPlain() ? state & AllForms : 0u; }
  // Whether the variable is plain and has the number in that form and no other. One comparison;
  // most numbers of a running script are like this.
  bool HoldsInteger() const { return state == IntegerForm; }
  bool HoldsDouble() const { return state == DoubleForm; }
  // One of the two.
  bool HoldsNumberAlone() const { return ((state - IntegerForm) & ~IntegerForm) == 0; }
  // Whether the variable is plain and has a number and no text. A stored integer that was also read
  // as a double has both forms. With the text's bit made the highest, the other two are a number
  // from 1 to 3.
  bool HoldsNumber() const { return std::rotr(state, 1) - 1 < 3; }
  // Whether it is plain and has a text that was stored as such, and no other form.
  bool HoldsText() const { return state == TextForm && primary == PrimaryText; }
  // REQUIRES: plain_forms() is not 0.
  bool has_double() const { return (state & DoubleForm) != 0; }
  // Whether its value was stored as an integer.
  bool is_stored_integer() const { return primary == PrimaryInteger; }
  // REQUIRES: plain_forms() contains that form.
  int plain_integer() const { return integer_value; }
  double plain_double() const { return double_value; }
  const String& plain_text() const { return string_value; }
  // REQUIRES: IsPlain().
  int plain_count() const { return refcount_; }
  bool HoldsArray() const { return aggregate == AggregateArray; }
  bool HoldsStructure() const { return aggregate == AggregateStructure; }
  // The elements, null for a scalar. They are only for operations that lend none of them.
  // REQUIRES: IsPlain().
  AggregateElementTree* plain_elements() const { return elements; }

  // value_integer()
  int Read_Integer() {
    if (IsPlain()) {
      if (state & IntegerForm) return integer_value;
      if (state & DoubleForm) {
        state |= IntegerForm;
        return integer_value = DoubleToInteger(double_value);
      }
    }
    return value_integer();
  }
  // value_double()
  double Read_Double() {
    if (IsPlain()) {
      if (state & DoubleForm) return double_value;
      if ((state & AllForms) == IntegerForm) {
        state |= DoubleForm;
        return double_value = integer_value;
      }
    }
    return value_double();
  }
  // value_compare()
  double Read_Compare(int* not_numeric) {
    if (IsPlain() && (state & AllForms) != 0 && !(state & TextForm)) {
      *not_numeric = 0;
      if (state & DoubleForm) return double_value;
      state |= DoubleForm;
      return double_value = integer_value;
    }
    return value_compare(not_numeric);
  }
  // value()
  String& Read_Text() { return IsPlain() && (state & TextForm) ? string_value : value(); }
  // IsTrue()
  int Read_Truth() {
    if (IsPlain() && (state & AllForms) != 0 && !(state & TextForm)) {
      return state & DoubleForm ? double_value != 0.0 : integer_value != 0;
    }
    return IsTrue();
  }
  // SetValue_Integer()
  int Write_Integer(int value) {
    if (!HoldsInteger()) [[unlikely]] {
      if (!IsPlain() || elements) return SetValue_Integer(value);
      if (IsAsleep()) Wake();
      SetForms(IntegerForm);
    }
    Rewrite(value);
    return 1;
  }
  // SetValue_Double()
  int Write_Double(double value) {
    if (!HoldsDouble()) [[unlikely]] {
      if (!IsPlain() || elements) return SetValue_Double(value);
      if (IsAsleep()) Wake();
      SetForms(DoubleForm);
    }
    Rewrite(value);
    return 1;
  }
  // The same for a variable that has a number in that form and no other. REQUIRES: HoldsInteger().
  void Rewrite(int value) {
    integer_value = value;
    primary = PrimaryInteger;
  }
  // REQUIRES: HoldsDouble().
  void Rewrite(double value) {
    double_value = value;
    primary = PrimaryDouble;
  }
  // SetValue(source)
  int Write_Value(Variable& source) {
    if (!IsPlain() || elements || source.plain_forms() == 0 || &source == this) {
      return SetValue(source);
    }
    CopyForms(source);
    return 1;
  }
  // SetValue(source) for a plain scalar and a plain source that has number forms and no text.
  // Returns false and does nothing for others.
  bool CopyNumber(const Variable& source) {
    const unsigned forms = source.plain_forms();
    if (forms == 0 || (forms & TextForm) || !IsPlain() || elements) return false;
    if (IsAsleep()) Wake();
    integer_value = source.integer_value;
    double_value = source.double_value;
    SetForms(forms);
    primary = source.primary;
    return true;
  }
  // SetValue(text, length) for a plain scalar whose buffer has the room, and for a text that takes
  // nanoseconds to copy. Returns false and does nothing for others. REQUIRES: a length of 0 or
  // more; the text is not part of this variable's buffer.
  bool WriteShort(const char* text, int length) {
    if (!IsPlain() || elements || length > ShortText || length >= string_value.allocated) {
      return false;
    }
    SetShort(text, length);
    SetForms(TextForm);
    return true;
  }
  // The same for SetValue(source).
  bool CopyShort(const Variable& source) {
    return source.HoldsText() && &source != this && source.string_value.data &&
           WriteShort(source.string_value.data, source.string_value.length);
  }
  // The same for up to 16 bytes, in line, without a look at the object's class: false if that was
  // not checked yet. The text may be part of this variable's buffer.
  bool WriteWord(const char* text, int length) {
    if ((state & ~(AllForms | Asleep)) != 0 || elements || static_cast<unsigned>(length) > 16 ||
        length >= string_value.allocated) {
      return false;
    }
    SetShort(text, length);
    state = TextForm;
    return true;
  }
  bool CopyWord(const Variable& source) {
    return source.HoldsText() && source.string_value.data &&
           WriteWord(source.string_value.data, source.string_value.length);
  }
  // Stores a text that was put together of others. With adopt the outcome is that of
  // SetValue_Nocopy with a buffer of length + 1 bytes, otherwise that of SetValue. REQUIRES: a
  // length from 0 to INT_MAX - 1; the text is not part of this variable's buffer.
  void WriteJoined(const char* text, int length, bool adopt);
  // The same for the variable's own text followed by these bytes. The time for a row of such stores
  // is linear. REQUIRES: a plain variable that has a text; the whole has less than INT_MAX bytes.
  void AppendText(const char* bytes, int count, bool adopt);
  // Gives away the buffer of a plain scalar that has only a text, made with new[]; the variable is
  // NULL afterwards. Returns false and does nothing for others.
  bool TakeText(char** data, int* length, int* allocated) {
    if (!HoldsText() || !string_value.data) return false;
    *length = string_value.length;
    *allocated = string_value.allocated;
    *data = string_value.release();
    SetForms(0);
    primary = PrimaryNone;
    return true;
  }
  // SetNULL() for a variable of no derived class.
  void Clear() {
    if (!HoldsText() || elements || !string_value.data) return Variable::SetNULL();
    string_value.data[0] = '\0';
    string_value.length = 0;
    SetForms(0);
    primary = PrimaryNone;
  }
  // Moves the elements of an array or structure from a variable that only the caller holds, instead
  // of copying them: for a result that is on its way to where it is stored. The outcome is that of
  // SetValue(*source), and the source is NULL afterwards. Returns false and changes nothing where a
  // move is not possible or something could distinguish it from a copy: then the caller makes a
  // copy. The time does not depend on the size of elements that were moved before. REQUIRES: the
  // caller has a count on the source; this variable is held by more than the source's elements.
  bool TakeValue(Variable* source) {
    return source->elements && source->refcount_ == 1 && MoveElements(source);
  }
  // The same for a new member of this structure, which the source itself becomes: then the caller's
  // count on it is adopted. Returns false and changes nothing that could be told also if there is a
  // member of that name. If it throws, the count is still the caller's.
  bool AdoptMember(const char* name, int length, Variable* source);
  // SetValue(source) for a structure that replaces a structure, if the two can share their members.
  // Returns false and changes nothing for others. REQUIRES: the caller has a count on both.
  bool ShareMembers(Variable& source);
  // IncRefCount() and DecRefCount()
  void Hold() { ++refcount_; }
  void Release() {
    if (--refcount_ > 0) [[likely]]
      return;
    if (IsPlain()) {
      DeletePlain();
    } else {
      DeleteUnheld();
    }
  }
  // Stores the first value and wakes the variable.
  // REQUIRES: the variable has the state of a new one (it may be asleep), and only its table holds
  // it.
  void Begin(double value) {
    BeginAs(DoubleForm);
    double_value = value;
    primary = PrimaryDouble;
  }
  void Begin(int value) {
    BeginAs(IntegerForm);
    integer_value = value;
    primary = PrimaryInteger;
  }
  // The same with a text, which is copied. REQUIRES: a length of 0 or more.
  void Begin(const char* text, int length) {
    assert((state & ~Asleep) == 0 && !elements);
    if (length <= ShortText && length < string_value.allocated) {
      SetShort(text, length);
    } else {
      string_value.assign(text, length);
      primary = PrimaryText;
    }
    state = TextForm;
  }
  // Makes the variable a reference, as a parameter by reference is at the beginning of a call.
  // Takes a count on the target. REQUIRES: as for a number; the object is of no derived class; the
  // target is another variable.
  void Begin(Variable* target) {
    assert((state & ~(Asleep | Unproved)) == 0 && !elements);
    BeginAs(Reference);
    target->Hold();
    reference = target;
    primary = PrimaryNone;
    ClearScratch();
  }
  // Resets a local variable, after its call has ended, for the next call, and puts it to sleep.
  // Returns false if a script could distinguish it from a new variable: there is another holder, or
  // it has been more than a plain value or the reference of a parameter.
  bool Renew();
  // The same for a variable that has held only numbers and short texts, as most have. Returns false
  // and does nothing for others.
  bool RenewScalar() {
    if (state - 1 >= AllForms) return state == Asleep;
    if (refcount_ != 1 || name_.allocated != SharedMark || string_value.allocated > MostKept) {
      return false;
    }
    state = Asleep;
    return true;
  }
  // Whether it waits in its table's row until a call touches it: until then it does not exist for
  // scripts. Only the table may have its pointer, and wakes it before handing it out. What it held
  // is still in its fields, so that the next text needs no memory; waking makes it as new.
  bool IsAsleep() const { return (state & Asleep) != 0; }
  void Wake() {
    state &= ~Asleep;
    primary = PrimaryNone;
    if (string_value.data) [[unlikely]]
      string_value.destroy();
  }
  // Element(AggregateIndex(position), create). A caller that keeps the variable, or uses it after
  // another operation on this one, takes a count; the result of Element() is good without.
  Variable* At(int position, int create);
  // A script's store of a number by position. Returns false and changes nothing where more work is
  // needed. The element gets no Variable until a caller needs one. In base/values/Aggregate.h.
  // REQUIRES: position is 1 or more.
  template <typename Number>  // int or double
  bool WriteElement(int position, Number number);
  // Finds an element that has only a number so far and no Variable: then *slot receives it. A
  // search. Returns false and makes no search for others. REQUIRES: as above.
  bool FindBare(int position, DenseSlot* slot);
  // The value of an element, to read and not to keep; a search. Returns null and makes no search
  // where it takes more work, or if there is no such element. REQUIRES: as above.
  const DenseSlot* SearchSlot(int position);
  // At(position, create) for an element that has a variable already. Returns null and makes no
  // search for others. REQUIRES: as above.
  Variable* SearchMade(int position);
  // Element(AggregateIndex(name, length), create), but a search copies no name. length is in bytes;
  // -1 is not allowed. A caller that keeps the variable takes a count, as for At().
  Variable* Member(const char* name, int length, int create) {
    return SearchMember(name, length, create);
  }
  // The same with a hint, which belongs to one name: a place in the code that looks up a constant
  // name keeps one. Where the members have the names that they had the last time, the member is
  // found without looking at its name. In base/values/Aggregate.h, as those below.
  Variable* Member(const char* name, int length, int create, MemberHint* hint);
  // Finds a member that is only a number: one that has no Variable yet, or a plain one with the
  // number that was stored and no other form. *slot receives it. A search. Returns false and makes
  // no search for others.
  bool FindNumberMember(const char* name, int length, MemberHint* hint, DenseSlot* slot);
  // Member(name, length, 1) and a store of a number in it. A new member gets no Variable until a
  // caller needs one. Returns false and stores nothing where more work is needed; a scalar may have
  // become an empty structure, as it does on the other way too.
  template <typename Number>  // int or double
  bool WriteMember(const char* name, int length, MemberHint* hint, Number number);

  // The text test of IsTrue().
  static int IsTrue(const char* text, int length);

  // Turns the object, for all its holders, into a NULL value that ignores writes: for a variable
  // whose database goes away while scripts still refer to it. Counts stay.
  void Make_NULL();

  // Deletes variables of this thread that only hold themselves: they contain or refer to one
  // another in a circle, and no other holder has a count on them. The host calls it once at the end
  // of a request or task, after machine and tables are gone.
  static void FreeCycles();

 protected:
  // Further bits of state, above those of Form.
  static constexpr uint32_t AllForms = TextForm | IntegerForm | DoubleForm;
  static constexpr uint32_t Watched = 0x100;    // a DeferredText borrows the text
  static constexpr uint32_t Reference = 0x200;  // a target has the value and elements
  static constexpr uint32_t Gone = 0x400;       // NULL for good, after Make_NULL()
  static constexpr uint32_t Unproved = 0x800;   // the object's class was not checked yet
  static constexpr uint32_t Derived = 0x80000;  // it was, and is a derived one
  static constexpr uint32_t NotOrdinary = Reference | Gone | Unproved | Derived;
  static constexpr uint32_t NotPlain = Watched | NotOrdinary;
  static constexpr uint32_t Walked = 0x1000;   // a VariableWalk is inside this variable
  static constexpr uint32_t Suspect = 0x2000;  // listed for FreeCycles
  static constexpr uint32_t Asleep = 0x4000;   // see IsAsleep()
  // Temporary. While one of these is set, integer_value and double_value are scratch: the kinds of
  // variable that get these marks have no number of their own.
  static constexpr uint32_t Reached = 0x20000;  // in the list of FreeCycles
  static constexpr uint32_t Held = 0x40000;     // and reachable from a holder outside that list

  // The longest text that is copied in line, and the largest buffer that a variable keeps in its
  // sleep. An address sanitizer is to see every use of a text whose call is over.
  static constexpr int ShortText = 4096;
  static constexpr int MostKept = kAddressSanitizer ? 0 : 256;

  // Whether reads and writes go to a target, or nowhere.
  bool redirected() const { return (state & (Reference | Gone)) != 0; }
  // The forms that can be read, as bits of Form. A store sets its own alone; a read that converts
  // adds one. These are the only access to the forms: all of them use the whole word, because a
  // load of the word after a store of one of its bytes misses store forwarding and stalls.
  unsigned valid_forms() const { return state & AllForms; }
  // Also clears Asleep, so that inline stores of numbers need no test for a sleeping variable.
  void SetForms(uint32_t forms) { state = (state & ~(AllForms | Asleep)) | forms; }
  void AddForm(Form form) { state |= form; }

  String name_;  // if allocated is SharedMark, the text is a SharedName's
  String string_value;
  int integer_value = 0;
  double double_value = 0.0;
  // Bits of Form and those above. One word, so that one test shows whether a form can be read
  // directly.
  mutable uint32_t state = Unproved;
  int primary = PrimaryNone;
  AggregateType aggregate = AggregateNone;
  AggregateElementTree* elements = nullptr;
  int refcount_ = 1;
  int suspect_place = 0;  // index in the list of suspects, if it is Suspect
  String error_;
  Variable* reference = nullptr;

 private:
  static constexpr int SharedMark = -1;

  friend class AggregateElementTree;
  friend class DeferredText;
  friend struct NativeLayout;
  friend class SlotTable;
  friend class VariableCycles;
  friend class VariableWalk;

  void ShareName(SharedName* name) {
    name->Hold();
    name_.data = name->text();
    name_.length = name->length();
    name_.allocated = SharedMark;
  }
  void DropSharedName() { SharedName::Of(name_.release())->Release(); }
  void OwnName();
  void DeletePlain();
  // The slow parts of IsPlain() and IsOrdinary(). The first of them finds out the object's class;
  // from then on the state has it.
  // REQUIRES: not called from a constructor, where a derived object is still one of the base class.
  bool ProvesPlain() const;
  bool ProvesOrdinary() const;
  void NoteClass() const;
  Variable* Final();
  Variable* FindFinal();
  Variable* Found(const AggregateIndex& index, int create);
  Variable* SearchMember(const char* name, int length, int create);
  bool MoveElements(Variable* source);
  bool CanMoveFrom(Variable* source);
  // For the elements of isolated trees: see AggregateElementTree::IsIsolated. CopyIsolated returns
  // a copy, with a count for the caller if it is a variable. BareNumber returns false for a
  // variable that is more than the number which was stored in it.
  bool IsIsolated(int nested);
  DenseSlot CopyIsolated();
  bool BareNumber(DenseSlot* slot) const;
  void Assign(Variable& source, bool apart);
  // redirected() for operations that change text or kind: a DeferredText that watches the text
  // copies it first.
  bool RedirectedStore() {
    Changing();
    return redirected();
  }
  void Changing() {
    if (state & Watched) Unwatch();
  }
  void Unwatch();
  // For DeferredText. Returns the length of the text, or -1 if it cannot be watched.
  int WatchableText();
  bool watched() const { return (state & Watched) != 0; }
  void SetWatched(bool watched) {
    state &= ~Watched;
    if (watched) state |= Watched;
  }
  // The same as SetValue_Nocopy with a copy of count + 1 bytes, but reuses the present buffer if
  // the bytes fit: also if that was told to be smaller than it is. Returns false and does nothing
  // if this is no plain scalar.
  bool CopyAsAdopted(const char* bytes, int count);
  void StoreIntegerText();
  void DropElements();
  void CopyForms(Variable& source);
  void CopyScalar(Variable& source);
  void CopyComputed(Variable& source);
  void ReferTo(Variable* target);
  void Rebind(Variable* target);
  void PlaceRange(Variable* source, int start, int end, int delta, bool copy);
  void PlaceElement(Variable* element, int position, bool copy);
  void NoteEdge(Variable* target);
  void ForgetSuspect();
  void DeleteUnheld();
  // The scratch of marked variables.
  int& number() { return integer_value; }
  Variable* link() const { return std::bit_cast<Variable*>(double_value); }
  void SetLink(Variable* next) { double_value = std::bit_cast<double>(next); }
  // Replaces the text. REQUIRES: the buffer has the room for it.
  void SetShort(const char* text, int length) {
    CopyBytes(string_value.data, text, static_cast<size_t>(length));
    string_value.data[length] = '\0';
    string_value.length = length;
    primary = PrimaryText;
  }
  void BeginAs(uint32_t form) {
    assert((state & ~(Asleep | Unproved)) == 0 && !elements);
    if (string_value.data) [[unlikely]]
      string_value.destroy();
    state = form;
  }
  void ClearScratch() {
    integer_value = 0;
    double_value = 0.0;
  }
  static AggregateElementTree* CopyElementTree(Variable* source, bool apart);
  bool AppendElements(String* all);
  static void DeleteTree(AggregateElementTree* tree);
};

#endif
