// What the actions of decoded code share: the tests of operands, and the operations that are too
// long to be in line. The loop (base/machine/ZephVM_Hot.cpp) and machine code
// (base/machine/NativeRun.h) use the same ones.

#ifndef ZEPH_BASE_HOTOPERATIONS_H
#define ZEPH_BASE_HOTOPERATIONS_H

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>

#include "base/compiled/HotCode.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CopyText.h"
#include "base/core/NumberText.h"
#include "base/core/SameBytes.h"
#include "base/core/string_search.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM_Frame.h"
#include "base/machine/ZephVM_Stack.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

// What the loop does in line. clang, whose builds are for tests, may decide that itself: it looks
// at the whole of a function again after each call in it that has to be in line, which takes
// minutes.
#ifdef __clang__
#define HOT_INLINE inline
#else
#define HOT_INLINE [[gnu::always_inline]] inline
#endif

namespace hot {

using Entry = ZephVM_Stack::Stack_Entry;

// The most bytes that are copied, or compared by a record that is not the last of its group,
// without a look at the flags afterwards.
inline constexpr int kShort = 4096;

inline bool IsShort(const Variable* text) {
  return text && text->plain_text().length <= kShort;
}

inline int Read(int* shared) {
  return std::atomic_ref<int>(*shared).load(std::memory_order_relaxed);
}

// Whether a variable has a number in a form that value_double() returns. These are the rare cases
// of Has. The function is slow because it is out of line, and it is out of line so that the fast
// test keeps its registers. Numbers are read only after all operands have been tested, so that none
// has to be saved across this call.
[[gnu::noinline]] inline bool HasNumberSlow(const Variable* variable) {
  const unsigned forms = variable->plain_forms();
  return (forms & Variable::DoubleForm) || forms == Variable::IntegerForm;
}

// The same for a comparison, which uses the text if there is one.
[[gnu::noinline]] inline bool IsComparableSlow(const Variable* variable) {
  return HasNumberSlow(variable) && !(variable->plain_forms() & Variable::TextForm);
}

using Suitable = bool (*)(const Variable*);

template <Suitable Slow>
HOT_INLINE bool Has(const Variable* variable) {
  return variable->HoldsNumber() || Slow(variable);
}

// The number of a variable. REQUIRES: it has one.
HOT_INLINE double NumberOf(const Variable* variable) {
  return variable->has_double() ? variable->plain_double() : variable->plain_integer();
}

// Has and NumberOf in one, for the operand that is tested last.
template <Suitable Slow>
HOT_INLINE bool Find(const Variable* variable, double* number) {
  if (!variable->HoldsNumber() && !Slow(variable)) return false;
  *number = NumberOf(variable);
  return true;
}

// The number of a variable that has no text. Only such a number can replace its variable, because
// every form that is read later follows from it. The forms of a text may disagree: "99999999999" is
// 191 when it is read as an integer first.
HOT_INLINE bool FindAlone(const Variable* variable, double* number, HotForm* form) {
  if (variable->HoldsDouble()) {
    *number = variable->plain_double();
    *form = HotForm::Double;
    return true;
  }
  const unsigned forms = variable->plain_forms();
  if (forms == 0 || (forms & Variable::TextForm)) return false;
  // A variable without a value that was read as an integer has that form alone.
  *form = variable->is_stored_integer() ? HotForm::Integer : HotForm::Double;
  *number = *form == HotForm::Integer ? variable->plain_integer() : NumberOf(variable);
  return true;
}

// The integer that value_integer() returns.
HOT_INLINE bool IntegerOf(const Variable* variable, int* number) {
  if (!variable) return false;
  const unsigned forms = variable->plain_forms();
  *number = variable->plain_integer();
  if (forms & Variable::IntegerForm) return true;
  *number = DoubleToInteger(variable->plain_double());
  return (forms & Variable::DoubleForm) != 0;
}

template <Suitable Slow>
bool IsNumber(const Entry* entry) {
  return entry->kind <= ZephVM_Stack::KindDouble ||
         (entry->kind == ZephVM_Stack::KindVariable && Has<Slow>(entry->value.variable->Real()));
}

inline double NumberIn(const Entry* entry) {
  if (entry->kind == ZephVM_Stack::KindDouble) return entry->value.number;
  if (entry->kind == ZephVM_Stack::KindInteger) return entry->value.integer;
  return NumberOf(entry->value.variable->Real());
}

inline bool IsDouble(const Entry* entry) {
  return entry->kind == ZephVM_Stack::KindDouble;
}

// Turns the two entries on top into doubles, for an operation that pops both as numbers. Returns
// false and changes nothing if either is not a number.
template <Suitable Slow>
[[gnu::noinline]] bool MakeTwoDoubles(Entry* top) {
  if (!IsNumber<Slow>(top - 1) || !IsNumber<Slow>(top - 2)) return false;
  const double right = NumberIn(top - 1);
  const double left = NumberIn(top - 2);
  ZephVM_Stack::Free(top - 1);
  ZephVM_Stack::Free(top - 2);
  top[-1].SetDouble(right);
  top[-2].SetDouble(left);
  return true;
}

// The same for one.
template <Suitable Slow>
[[gnu::noinline]] bool MakeDouble(Entry* top) {
  if (!IsNumber<Slow>(top - 1)) return false;
  const double number = NumberIn(top - 1);
  ZephVM_Stack::Free(top - 1);
  top[-1].SetDouble(number);
  return true;
}

HOT_INLINE bool IntegerIn(const Entry* entry, int* number) {
  if (entry->kind == ZephVM_Stack::KindInteger) {
    *number = entry->value.integer;
    return true;
  }
  if (entry->kind == ZephVM_Stack::KindVariable) {
    return IntegerOf(entry->value.variable->Real(), number);
  }
  *number = DoubleToInteger(entry->value.number);
  return entry->kind == ZephVM_Stack::KindDouble;
}

// Whether the entries on top of a stack can be the arguments of a function without an error and
// without running any code but the machine's own.
[[gnu::noinline]] inline bool AreArguments(uint64_t references, int count, const Entry* top) {
  for (int i = count; i-- > 0;) {
    --top;
    if (references >> i & 1) {
      if (top->kind != ZephVM_Stack::KindVariable) return false;
    } else if (top->kind == ZephVM_Stack::KindVariable &&
               !top->value.variable->Real()->IsOrdinary()) {
      return false;
    }
  }
  return true;
}

// Whether they are numbers that can begin the function's variables, as most are.
HOT_INLINE bool AreNumbers(uint64_t references, const _VH_Entry* rows, int count,
                           const Entry* bottom, const Entry* top) {
  if (references != 0 || top - count < bottom) return false;
  for (const Entry* entry = top - count; entry != top; entry++, rows++) {
    if (entry->kind > ZephVM_Stack::KindDouble || !rows->variable) return false;
  }
  return true;
}

inline void WakeIfAsleep(Variable* variable) {
  if (variable->IsAsleep()) [[unlikely]]
    variable->Wake();
}

// Gives a parameter the value of an argument that is a text or a number of more than one form.
// Returns false and does nothing if it is neither. *patience is 1 afterwards if the time depended
// on the size of the value.
[[gnu::noinline]] inline bool BeginWithScalar(Variable* parameter, Variable* argument,
                                              int* patience) {
  if (!argument) return false;
  argument = argument->Real();
  if (argument->HoldsText() && argument->plain_text().data) {
    const String& text = argument->plain_text();
    if (text.length > kShort) *patience = 1;
    parameter->Begin(text.data, text.length);
    return true;
  }
  return parameter->CopyNumber(*argument);
}

// Moves the arguments on top of a stack into the first variables of a function. Returns where the
// stack then ends. *patience is 1 afterwards if the time depended on the size of a value.
// REQUIRES: AreArguments; the variables that exist are as a new call needs them.
[[gnu::noinline]] inline Entry* MoveArguments(VariableHash* table, const _VH_Entry* rows,
                                              uint64_t references, int count, ZephVM_Stack* stack,
                                              int* patience) {
  for (int i = count; i-- > 0;) {
    Entry* const argument = stack->End() - 1;
    Variable* variable = rows[i].variable;
    if (references >> i & 1) {
      table->SetVariable_Reference(i, argument->value.variable);
    } else if (variable && argument->kind == ZephVM_Stack::KindDouble) {
      variable->Begin(argument->value.number);
    } else if (variable && argument->kind == ZephVM_Stack::KindInteger) {
      variable->Begin(argument->value.integer);
    } else if (variable && argument->kind == ZephVM_Stack::KindString && !argument->deferred) {
      if (argument->length > kShort) *patience = 1;
      variable->Begin(argument->value.text, argument->length);
    } else if (variable && argument->deferred) {
      const char* const bytes = argument->value.pending->InPlace();
      if (bytes && argument->value.pending->length() <= kShort) {
        variable->Begin(bytes, argument->value.pending->length());
        stack->SetEnd(argument);
        delete argument->value.pending;
        continue;
      }
      *patience = 1;
      const bool chained = argument->kind == ZephVM_Stack::KindLinkBuffer;
      // As a text, the variable keeps the memory that it had in its sleep.
      if (variable->plain_text().data) {
        variable->Begin("", 0);
      } else {
        variable->Wake();
      }
      stack->SetEnd(argument);
      argument->value.pending->Assign(variable, chained);
      continue;
    } else if (!variable || argument->kind != ZephVM_Stack::KindVariable ||
               !BeginWithScalar(variable, argument->value.variable, patience)) {
      variable = table->At(i, 1);
      *patience = 1;
      stack->PopV(variable);
      continue;
    }
    stack->SetEnd(argument);
    ZephVM_Stack::Free(argument);
  }
  return stack->End();
}

// The order of two numbers, as the number of its bit in HotOp::orders: 0 for less, 1 for equal, 2
// for greater. NaN on either side counts as greater.
template <typename Number>
HOT_INLINE int OrderOf(Number left, Number right) {
  return !(left < right) + !(left <= right);
}

// The order of two texts of which one is no number, as the number of its bit in HotOp::orders;
// false if the machine has to look closer.
[[gnu::noinline]] inline bool FindOrderOfTexts(Entry* left, Entry* right, int* order) {
  int difference;
  if (!ZephVM_Stack::CompareWords(left, right, &difference)) return false;
  *order = difference < 0 ? 0 : difference == 0 ? 1 : 2;
  return true;
}

// The bytes with which no number begins, and those that are none alone.
struct WordTable {
  bool begins[256];
  bool alone[256];
  constexpr WordTable() : begins(), alone() {
    for (bool& word : begins) word = true;
    for (const unsigned char c : {'i', 'I', 'n', 'N', '.', '+', '-'}) {
      begins[c] = false;
      alone[c] = true;
    }
    begins[static_cast<int>(' ')] = false;
    for (int c = '0'; c <= '9'; c++) begins[c] = false;
    for (int c = '\t'; c <= '\r'; c++) begins[c] = false;
  }
};
inline constexpr WordTable kWords;

[[gnu::noinline]] inline bool IsWordSlow(const String& text) {
  return !ZephApplication::MayBeNumber(text.data, text.length);
}

// Whether a text is certain to be no number, by its beginning. An empty one is not.
HOT_INLINE bool IsWord(const String& text) {
  if (text.length == 0) return false;
  return kWords.begins[static_cast<unsigned char>(text.data[0])] || IsWordSlow(text);
}

// Whether two texts of equal length are equal. REQUIRES: the length is above 0.
HOT_INLINE bool SameText(const char* a, const char* b, int length) {
  if (*a != *b) return false;
  const auto count = static_cast<size_t>(length);
  if (count > 16) return memcmp(a, b, count) == 0;
  if (count >= 8) return SameEnds<uint64_t>(a, b, count);
  if (count >= 4) return SameEnds<uint32_t>(a, b, count);
  return count < 2 || SameEnds<uint16_t>(a, b, count);
}

// Whether a variable holds a short text that is no number. If it is the left side of a comparison,
// the texts of both sides are compared and nothing is left behind.
HOT_INLINE bool HoldsWord(const Variable* variable) {
  if (!variable->HoldsText()) return false;
  const String& text = variable->plain_text();
  return text.length <= kShort && IsWord(text);
}

// Whether such a text is equal to that of a record.
HOT_INLINE bool IsSameWord(const Variable* left, const HotOp* op) {
  const String& text = left->plain_text();
  return text.length == op->length && SameText(text.data, op->text, op->length);
}

// The order of such a text and any other that a variable holds, see OrderOf. If only the equality
// is wanted, texts of different length are in any order. Returns -1 if it has to be found
// otherwise. Out of line, as all that calls anything is best, so that the loop's variables stay in
// registers.
[[gnu::noinline]] inline int OrderOfWords(const Variable* left, const Variable* right,
                                          unsigned char orders) {
  if (!right->HoldsText() || !HoldsWord(left)) return -1;
  const String& a = left->plain_text();
  const String& b = right->plain_text();
  if (orders == 2 || orders == 5) {
    return a.length == b.length && SameText(a.data, b.data, a.length);
  }
  const int shorter = std::min(a.length, b.length);
  int difference = shorter > 0 ? memcmp(a.data, b.data, static_cast<size_t>(shorter)) : 0;
  if (difference == 0) difference = a.length - b.length;
  return difference < 0 ? 0 : difference == 0 ? 1 : 2;
}

// A comparison first reads the left side as a number, which the variable keeps.
[[gnu::noinline]] inline void ReadToCompare(Variable* left) {
  int not_numeric;
  left->value_compare(&not_numeric);
}

// The same for a variable, which may be missing, and a constant text. If that is no number it is a
// word: no integer is equal to it, and two texts are equal if their bytes are. A double is read as
// text, which its variable keeps.
HOT_INLINE bool FindOrderOfText(Variable* left, const HotOp* op, int* order) {
  if (!left) return false;
  const bool equality = op->orders == 2 || op->orders == 5;
  if (op->word && (left->plain_forms() & Variable::TextForm)) [[likely]] {
    const String& text = left->plain_text();
    const int difference = text.length - op->length;
    if (text.data && (difference == 0 || equality)) {
      if (!IsWord(text)) ReadToCompare(left);
      *order = 1;
      if (difference == 0 && SameBytes(text.data, op->text, static_cast<size_t>(op->length))) {
        return true;
      }
      if (equality) {
        *order = 0;
        return true;
      }
    }
  } else if (op->word && equality && left->HoldsNumber() && left->is_stored_integer()) {
    *order = 0;
    return true;
  }
  Entry a, b;
  a.SetOwned(left);
  b.SetText(op->text, op->length);
  return FindOrderOfTexts(&a, &b, order);
}

// The same for two variables.
inline bool FindOrderOfVariables(Variable* left, Variable* right, int* order) {
  if (!left || !right) return false;
  if (left->HoldsText() && right->HoldsText()) {
    const String& a = left->plain_text();
    const String& b = right->plain_text();
    const bool is_word = a.data && IsWord(a);
    if (a.data && b.data && (is_word || IsWord(b))) {
      if (!is_word) ReadToCompare(left);
      int difference = memcmp(a.data, b.data, static_cast<size_t>(std::min(a.length, b.length)));
      if (difference == 0) difference = a.length - b.length;
      *order = difference < 0 ? 0 : difference == 0 ? 1 : 2;
      return true;
    }
  }
  Entry a, b;
  a.SetOwned(left);
  b.SetOwned(right);
  return FindOrderOfTexts(&a, &b, order);
}

// What the records of a group have computed or found, by offset (HotOp::Offset): these have the
// layout of the rows of a table, so that all operands are read alike.
struct Temporaries {
  struct Row {
    double number;
    Variable* variable;
  };
  Row rows[HotCode::kTemporaries];
  // Of what was loaded: the form that the element had, AsLoaded if it has a text beside.
  HotForm forms[HotCode::kTemporaries * HotOp::kRowSize];

  char* at(int offset) { return reinterpret_cast<char*>(rows) + offset; }
  const char* at(int offset) const { return reinterpret_cast<const char*>(rows) + offset; }
  // What was found. Of what was loaded, it is meaningful if the form is AsLoaded or the number is
  // NaN: then it is the variable if that is a text, or null.
  Variable*& place(int offset) { return *reinterpret_cast<Variable**>(at(offset)); }
  Variable* place(int offset) const { return *reinterpret_cast<Variable* const*>(at(offset)); }
  double& number(int offset) {
    return *reinterpret_cast<double*>(at(offset) - HotOp::kVariableInRow);
  }
  double number(int offset) const {
    return *reinterpret_cast<const double*>(at(offset) - HotOp::kVariableInRow);
  }
  HotForm& form(int offset) { return forms[offset]; }
  HotForm form(int offset) const { return forms[offset]; }

  // A slot never has NaN.
  void Set(int offset, DenseSlot bare) {
    if (bare.IsInteger()) {
      number(offset) = bare.integer();
      form(offset) = HotForm::Integer;
    } else {
      number(offset) = bare.number();
      form(offset) = HotForm::Double;
    }
  }
  // REQUIRES: the element holds a number.
  void Set(int offset, const Variable* element) {
    place(offset) = nullptr;
    form(offset) = element->is_stored_integer() ? HotForm::Integer : HotForm::Double;
    number(offset) = NumberOf(element);
  }
  // A text. As a number it is NaN, so that comparisons of numbers notice it.
  void SetText(int offset, Variable* element) {
    place(offset) = element;
    form(offset) = HotForm::AsLoaded;
    number(offset) = std::numeric_limits<double>::quiet_NaN();
  }
  // The variable of an element that was loaded and has a text; null if that has only a number.
  Variable* Loaded(int offset) const {
    return form(offset) == HotForm::AsLoaded ? place(offset) : nullptr;
  }
  // The variable of an operand that was loaded to be compared, null if it is a number.
  Variable* text(int offset) const { return std::isnan(number(offset)) ? place(offset) : nullptr; }
};
static_assert(sizeof(_VH_Entry) == HotOp::kRowSize &&
              offsetof(_VH_Entry, variable) == HotOp::kVariableInRow &&
              sizeof(Temporaries::Row) == HotOp::kRowSize &&
              offsetof(Temporaries::Row, variable) == HotOp::kVariableInRow);

// The variable that has the value: that of a parameter by reference is the caller's.
HOT_INLINE Variable* Referred(Variable* variable) {
  return variable ? variable->Real() : nullptr;
}

// The variable at an offset of a table of rows.
HOT_INLINE Variable* VariableIn(const _VH_Entry* table, int offset) {
  return *reinterpret_cast<Variable* const*>(reinterpret_cast<const char*>(table) + offset);
}

// Reads the value of an element or member that is not a bare number. Returns false if it has none
// that may be loaded.
[[gnu::noinline]] inline bool Load(Variable* variable, const HotOp* op, Temporaries* temporaries) {
  const int offset = op->third;
  variable = variable->Real();
  temporaries->place(offset) = nullptr;
  if (FindAlone(variable, &temporaries->number(offset), &temporaries->form(offset))) return true;
  temporaries->form(offset) = HotForm::AsLoaded;
  if (op->load == HotLoad::NumberOrText || op->load == HotLoad::Any) {
    temporaries->SetText(offset, variable);
    return op->load == HotLoad::Any ? variable->IsPlain()
                                    : (variable->plain_forms() & Variable::TextForm) != 0;
  }
  if (op->load != HotLoad::Number || !HasNumberSlow(variable)) return false;
  temporaries->number(offset) = NumberOf(variable);
  return true;
}

// The text of an operand that has one at hand; false if it has none.
inline bool FindText(HotOperand kind, int offset, const HotOp* op, const _VH_Entry* const* rows,
                     const Temporaries& temporaries, const char** data, int* length) {
  if (kind == HotOperand::Text) {
    *data = op->text;
    *length = op->length;
    return true;
  }
  Variable* variable = kind == HotOperand::Temporary
                           ? temporaries.Loaded(offset)
                           : VariableIn(rows[static_cast<int>(kind)], offset);
  if (!variable) return false;
  variable = variable->Real();
  if (!(variable->plain_forms() & Variable::TextForm)) return false;
  *data = variable->plain_text().data;
  *length = variable->plain_text().length;
  return *data != nullptr;
}

// The position of a text in another, as the instructions in, cin, ein and ecin give it. Returns
// false if the operands are no short texts.
[[gnu::noinline]] inline bool FindMatch(const HotOp* op, const _VH_Entry* const* rows,
                                        const Temporaries& temporaries, int* position) {
  const char* needle;
  const char* text;
  int needle_length, length;
  if (!FindText(op->left, op->first, op, rows, temporaries, &needle, &needle_length) ||
      !FindText(op->right, op->second, op, rows, temporaries, &text, &length) || length > kShort) {
    return false;
  }
  if (needle_length == 0) {
    *position = op->create ? 0 : 1;
    return true;
  }
  int found = -1;
  if (needle_length <= length) {
    found = op->word ? bf_searchi(needle, needle_length, text, length)
                     : bf_search(needle, needle_length, text, length);
  }
  *position = found < 0 ? 0 : found + (op->create ? needle_length : 1);
  return true;
}

// The most bytes of a concatenation that a group puts together, without a text that is appended to.
inline constexpr int kMostJoinedBytes = 512;

// Writes the operands of a concatenation one after the other, as texts. Returns the number of
// bytes; -1 if an operand has no text, and none that can be made here, or if there are too many
// bytes. A number that is a variable's keeps its text, unless it is an integer.
[[gnu::noinline]] inline int Join(const HotOp* operand, const HotOp* end,
                                  const _VH_Entry* const* rows, const Temporaries& temporaries,
                                  char* bytes) {
  int used = 0;
  for (; operand != end; operand++) {
    const char* data;
    int length;
    int integer;
    double number;
    Variable* variable;
    if (operand->left == HotOperand::Text) {
      data = operand->text;
      length = operand->length;
      goto text;
    }
    if (operand->left <= HotOperand::Local) {
      variable = VariableIn(rows[static_cast<int>(operand->left)], operand->first);
      if (!variable) return -1;
      variable = variable->Real();
    } else if (operand->left == HotOperand::Constant) {
      if (operand->form == HotForm::Integer) {
        integer = operand->first;
        goto integer;
      }
      number = operand->number;
      goto number;
    } else {
      number = temporaries.number(operand->first);
      if (operand->form == HotForm::Double) goto number;
      if (operand->form == HotForm::Integer ||
          temporaries.form(operand->first) == HotForm::Integer) {
        integer = static_cast<int>(number);
        goto integer;
      }
      variable = temporaries.Loaded(operand->first);
      if (!variable) {
        // The element that has it is to keep its text.
        return -1;
      }
    }
    if (!variable->HoldsText()) {
      const unsigned forms = variable->plain_forms();
      if (forms == Variable::IntegerForm) {
        integer = variable->plain_integer();
        goto integer;
      }
      if (!(forms & Variable::TextForm)) {
        if (forms == 0) return -1;
        variable->value();
      }
    }
    data = variable->plain_text().data;
    length = data ? variable->plain_text().length : 0;
  text:
    if (length > kMostJoinedBytes - used) return -1;
    CopyText(bytes + used, data, static_cast<size_t>(length));
    used += length;
    continue;
  number:
    integer = DoubleToInteger(number);
    if (integer != number || integer == 0) {
      int count;
      const std::unique_ptr<char[]> made(ZephApplication::dtos(number, &count, nullptr, -1));
      if (count > kMostJoinedBytes - used) return -1;
      memcpy(bytes + used, made.get(), static_cast<size_t>(count));
      used += count;
      continue;
    }
  integer:
    if (kMostJoinedBytes - used < kLongestInteger) return -1;
    used = static_cast<int>(WriteInteger(bytes + used, integer) - bytes);
  }
  return used;
}

// Makes an entry of a concatenation, as cat leaves it.
inline void SetJoined(Entry* entry, const char* bytes, int length, bool chained) {
  auto text = std::make_unique<DeferredText>();
  text->Append(bytes, length);
  entry->SetDeferred(text.release(), chained);
}

// The concatenation of a record, put on the stack. Returns false and does nothing if it cannot be
// made here.
[[gnu::noinline]] inline bool JoinOnStack(const HotOp* op, const _VH_Entry* const* rows,
                                          const Temporaries& temporaries, Entry* entry) {
  char bytes[kMostJoinedBytes];
  const int length = Join(op + 1, op + 1 + op->second, rows, temporaries, bytes);
  if (length < 0) return false;
  SetJoined(entry, bytes, length, op->refer);
  return true;
}

// The same, stored in a plain variable. The operands are put together apart from it, because it may
// be one of them. If it is the first one, the others are appended.
[[gnu::noinline]] inline bool JoinInVariable(const HotOp* op, const _VH_Entry* const* rows,
                                             const Temporaries& temporaries, Variable* target) {
  char bytes[kMostJoinedBytes];
  const HotOp* operand = op + 1;
  const HotOp* const end = operand + op->second;
  const bool appends =
      operand->left <= HotOperand::Local &&
      Referred(VariableIn(rows[static_cast<int>(operand->left)], operand->first)) == target &&
      (target->plain_forms() & Variable::TextForm) && target->plain_text().data &&
      target->plain_text().length < INT_MAX - 1 - kMostJoinedBytes;
  if (appends) operand++;
  const int length = Join(operand, end, rows, temporaries, bytes);
  if (length < 0) return false;
  if (appends) {
    target->AppendText(bytes, length, op->refer);
  } else {
    target->WriteJoined(bytes, length, op->refer);
  }
  return true;
}

// The variable of an element that is stored to; null if there can be none. REQUIRES: a plain array.
[[gnu::noinline]] inline Variable* ElementToStore(Variable* array, int number) {
  Variable* const found = array->SearchMade(number);
  return found ? found : array->At(number, 1);
}

// Stores the text that is the entry below the top in the variable that is on top. Returns where the
// stack then ends.
[[gnu::noinline]] inline Entry* StoreText(ZephVM_Stack* stack, Entry* top) {
  const VariableRef target = VariableRef::Share(top[-1].value.variable->Real());
  ZephVM_Stack::Free(top - 1);
  stack->SetEnd(top - 1);
  stack->PopV(target.get());
  return stack->End();
}

// Reads an operand of a pair as a number. Returns false if it has none.
template <Suitable Slow>
[[gnu::noinline]] bool ReadOperand(HotOperand kind, int offset, const HotOp* op,
                                   const _VH_Entry* const* rows, const Temporaries& temporaries,
                                   double* number) {
  if (kind == HotOperand::Temporary) {
    *number = temporaries.number(offset);
  } else if (kind == HotOperand::Constant) {
    *number = op->number;
  } else {
    Variable* const variable = VariableIn(rows[static_cast<int>(kind)], offset);
    return variable && Find<Slow>(variable->Real(), number);
  }
  return true;
}

// The outcome of an operation on a pair; first is the action of the first operation and pair.
inline double Calculate(HotAction action, HotAction first, double a, double b) {
  const int pairs = static_cast<int>(HotAction::SubOfGlobalGlobal) -
                    static_cast<int>(HotAction::AddOfGlobalGlobal);
  switch ((static_cast<int>(action) - static_cast<int>(first)) / pairs) {
    case 0: return a + b;
    case 1: return a - b;
    case 2: return a * b;
    default: return a == 0.0 ? 0.0 : a / b;
  }
}

// Stores a value of any kind. Either variable may be an element of the other, and then only that
// holds it, so both get a count. A value must not seem to have no other holder while it is copied.
[[gnu::noinline]] inline void Assign(Variable* target, Variable* source) {
  const VariableRef target_held = VariableRef::Share(target);
  const VariableRef source_held = VariableRef::Share(source);
  if (target->ShareMembers(*source)) return;
  target->SetValue(*source);
}

// BeginWithScalar for a value of any kind. Returns false if the argument is not a plain variable.
[[gnu::noinline]] inline bool BeginWith(Variable* parameter, Variable* argument, int* patience) {
  if (!argument) return false;
  argument = argument->Real();
  if (!argument->IsPlain()) return false;
  if (argument->IsAsleep()) argument->Wake();
  parameter->Wake();
  parameter->SetValue(*argument);
  *patience = 1;
  return true;
}

// Gives parameters the values of the arguments from a record on, of which the first is an array.
// Returns false if the machine has to make them. REQUIRES: the parameters that exist are
// asleep.
[[gnu::noinline]] inline bool BeginArguments(const HotOp* first, const HotOp* end,
                                             const _VH_Entry* parameters,
                                             const _VH_Entry* const* rows,
                                             const Temporaries& temporaries, int* patience) {
  const auto source = [&](const HotOp* argument) -> Variable* {
    // What was loaded is in the row of the place with its number.
    const HotOperand kind =
        argument->left == HotOperand::Temporary ? HotOperand::Place : argument->left;
    return VariableIn(rows[static_cast<int>(kind)], argument->first);
  };
  const _VH_Entry* row = parameters;
  bool has_arrays = false;
  for (const HotOp* argument = first; argument != end; argument++, row++) {
    Variable* const parameter = row->variable;
    if (!parameter) return false;
    if (argument->left == HotOperand::Text) {
      parameter->Begin(argument->text, argument->length);
    } else if (argument->left == HotOperand::Constant ||
               (argument->left == HotOperand::Temporary && argument->form != HotForm::AsLoaded)) {
      const bool is_constant = argument->left == HotOperand::Constant;
      const double number = is_constant ? argument->number : temporaries.number(argument->first);
      if (argument->form == HotForm::Integer) {
        parameter->Begin(static_cast<int>(number));
      } else {
        parameter->Begin(number);
      }
    } else if (argument->refer) {
      Variable* const variable = source(argument);
      if (!variable) return false;
      WakeIfAsleep(variable);
      parameter->Begin(variable);
    } else if (argument->left == HotOperand::Temporary &&
               temporaries.form(argument->first) == HotForm::Integer) {
      parameter->Begin(static_cast<int>(temporaries.number(argument->first)));
    } else if (argument->left == HotOperand::Temporary &&
               temporaries.form(argument->first) == HotForm::Double) {
      parameter->Begin(temporaries.number(argument->first));
    } else if (argument == first || !BeginWithScalar(parameter, source(argument), patience)) {
      has_arrays = true;
    }
  }
  if (!has_arrays) return true;
  // Arrays come after those by reference: these take counts on their variables, so that a copy
  // shares nothing with them. The parameter of an array is still asleep.
  row = parameters;
  for (const HotOp* argument = first; argument != end; argument++, row++) {
    if (row->variable->IsAsleep() && !BeginWith(row->variable, source(argument), patience)) {
      return false;
    }
  }
  return true;
}

// The order of two operands, each a variable or, if that is null, a number; of two texts only if
// one is no number. *texts receives whether texts were compared.
HOT_INLINE bool FindLoadedOrder(Variable* left, double left_number, Variable* right,
                                double right_number, int* order, bool* texts) {
  if (left && !left->HoldsText() && Find<IsComparableSlow>(left, &left_number)) left = nullptr;
  if (right && !right->HoldsText() && Find<IsComparableSlow>(right, &right_number)) right = nullptr;
  *texts = left || right;
  if (!*texts) [[likely]] {
    *order = OrderOf(left_number, right_number);
    return true;
  }
  return FindOrderOfVariables(left, right, order);
}

// How often a group may fail to apply until it is set aside, and then for how many times. A failure
// that comes more than so many jumps and calls after the last one is the first again.
inline constexpr unsigned char kMostMisfits = 32;
inline constexpr unsigned char kRest = 200;
inline constexpr int kSeldom = 8;

// Jumps and calls between two polls of the host's flags. Each takes nanoseconds.
inline constexpr int kPatience = 32;

// Whether reading the entry as text runs only the machine's own code.
inline bool IsOrdinary(const Entry* entry) {
  return entry->kind != ZephVM_Stack::KindVariable || entry->value.variable->Real()->IsOrdinary();
}

inline bool IsNumberOrPlain(const Entry* entry) {
  return entry->kind <= ZephVM_Stack::KindDouble ||
         (entry->kind == ZephVM_Stack::KindVariable && entry->value.variable->Real()->IsPlain());
}

// The text of an entry that is the name of a member, if it is there without a conversion. The text
// of the structure itself would go with its conversion.
inline bool FindName(const Entry* entry, const Variable* structure, const char** text,
                     int* length) {
  if (entry->kind == ZephVM_Stack::KindString) {
    *text = entry->value.text;
    *length = entry->length;
    return !entry->deferred;
  }
  if (entry->kind != ZephVM_Stack::KindVariable) return false;
  const Variable* const variable = entry->value.variable->Real();
  if (!(variable->plain_forms() & Variable::TextForm) || variable == structure) return false;
  *text = variable->plain_text().data;
  *length = variable->plain_text().length;
  return *text != nullptr;
}

// Whether a variable of a table, which may not exist yet, is a plain one.
inline bool IsPlainRow(const Variable* variable) {
  return !variable || variable->IsPlain();
}

// Whether an instruction after a call pops the result into a plain variable. *target receives that
// variable, or null if it does not exist yet.
inline bool FindTarget(const HotOp* pop, const VariableHash* locals, const _VH_Entry* globals,
                       unsigned count, Variable** target) {
  if (pop->single != HotAction::PopVariable) return false;
  if (pop->left == HotOperand::Local) globals = locals->Rows(&count);
  const auto position = static_cast<unsigned>(pop->first);
  if (position >= count) return false;
  *target = Referred(globals[position].variable);
  return IsPlainRow(*target);
}

// Stores the element at a position in a variable, as the next one of a loop over an array. A number
// takes nanoseconds.
enum class Stepped { No, ToNumber, ToValue };
HOT_INLINE Stepped StepTo(Variable* array, int number, Variable* target) {
  if (!target || !target->IsPlain() || target == array) return Stepped::No;
  const DenseSlot* const slot = array->SearchSlot(number);
  if (!slot) return Stepped::No;
  if (!slot->IsVariable()) {
    if (slot->IsInteger()) {
      target->Write_Integer(slot->integer());
    } else {
      target->Write_Double(slot->number());
    }
    return Stepped::ToNumber;
  }
  Variable* const element = slot->variable()->Real();
  if (!element->IsPlain() || element == target) return Stepped::No;
  if (target->CopyNumber(*element)) return Stepped::ToNumber;
  // An empty text has no value.
  const bool has_text = (element->plain_forms() & Variable::TextForm) != 0;
  if (has_text ? element->plain_text().length == 0
               : !element->HoldsArray() && !element->HoldsStructure()) {
    return Stepped::No;
  }
  if (!target->CopyShort(*element)) {
    if (target->IsAsleep()) target->Wake();
    Assign(target, element);
  }
  return Stepped::ToValue;
}

// Functions that return the result of another at once, one after the other, that are looked at.
inline constexpr int kMostPassed = 4;

// Whether the code that a frame returns to is decoded and is what it was at the call.
inline bool ReturnsToDecoded(const ZephVM_FunctionFrame* called) {
  return called->return_code != 0 && called->return_to->hot() &&
         called->return_to->hot()->serial() == called->return_code;
}

// FindTarget for the result of a frame that its callers return at once. Returns whether they are
// all known to pass it to an instruction that pops it into a plain variable.
[[gnu::noinline]] inline bool PassesToTarget(const ZephVM_FunctionFrame* called,
                                             const _VH_Entry* globals, unsigned count) {
  for (int i = 0; i < kMostPassed && ReturnsToDecoded(called); i++) {
    const HotOp* const use = called->return_op->plain;
    Variable* target;
    if (use->single != HotAction::Return) {
      return FindTarget(use, called->previous->variables, globals, count, &target);
    }
    called = static_cast<const ZephVM_FunctionFrame*>(called->previous);
  }
  return false;
}

// The variable that the result of a frame is only stored in, by the code that it returns to; null
// if there is none. REQUIRES: it returns to decoded code.
inline Variable* FindTargetOfResult(const ZephVM_FunctionFrame* called, const _VH_Entry* globals,
                                    unsigned count) {
  Variable* target;
  const HotOp* const use = called->return_op->plain;
  return FindTarget(use, called->previous->variables, globals, count, &target) ? target : nullptr;
}

// Lets the frame return to after that store.
inline void PassStore(ZephVM_FunctionFrame* called) {
  const HotOp* const use = called->return_op->plain;
  called->return_offset = use[1].start;
  called->return_op = use[1].fast ? use[1].fast : use + 1;
}

// Stores the constant text that a frame returns in the caller's variable. Returns false and does
// nothing if it has to go by the stack.
[[gnu::noinline]] inline bool ReturnsText(ZephVM_FunctionFrame* called, const HotOp* op,
                                          const _VH_Entry* globals, unsigned count, bool decoded) {
  if (!decoded) return false;
  Variable* const target = FindTargetOfResult(called, globals, count);
  if (!target || !target->WriteShort(op->text, op->length)) return false;
  PassStore(called);
  return true;
}

// Stores the concatenation that a frame returns in the caller's variable, or puts it on the
// caller's stack.
inline void PassBytes(ZephVM_FunctionFrame* called, const char* bytes, int length, bool chained,
                      const _VH_Entry* globals, unsigned count, bool decoded) {
  if (decoded) {
    Variable* const target = FindTargetOfResult(called, globals, count);
    if (target) {
      target->WriteJoined(bytes, length, chained);
      PassStore(called);
      return;
    }
  }
  ZephVM_Stack* const callers = called->previous->stack;
  SetJoined(callers->End(), bytes, length, chained);
  callers->SetEnd(callers->End() + 1);
}

// The same for that of a record. Returns false and does nothing if it cannot be made here.
[[gnu::noinline]] inline bool JoinResult(ZephVM_FunctionFrame* called, const HotOp* op,
                                         const _VH_Entry* const* rows, unsigned count,
                                         const Temporaries& temporaries, bool decoded) {
  char bytes[kMostJoinedBytes];
  const int length = Join(op + 1, op + 1 + op->second, rows, temporaries, bytes);
  if (length < 0) return false;
  PassBytes(called, bytes, length, op->refer, rows[0], count, decoded);
  return true;
}

// Whether the value of an entry is true, if that is a number.
inline bool FindTruth(const Entry* entry, bool* truth) {
  if (!IsNumber<IsComparableSlow>(entry)) return false;
  *truth = NumberIn(entry) != 0.0;
  return true;
}

HOT_INLINE bool FindOrder(const Variable* left, int right, int* order) {
  if (!left) return false;
  if (left->HoldsInteger()) [[likely]] {
    *order = OrderOf(left->plain_integer(), right);
    return true;
  }
  double number;
  if (!Find<IsComparableSlow>(left, &number)) return false;
  *order = OrderOf<double>(number, right);
  return true;
}

HOT_INLINE bool FindOrder(const Variable* left, const Variable* right, int* order) {
  if (!left || !right || !Has<IsComparableSlow>(left)) return false;
  double number;
  if (!Find<IsComparableSlow>(right, &number)) return false;
  *order = OrderOf(NumberOf(left), number);
  return true;
}

// Whether the jump is made on this order.
HOT_INLINE bool Jumps(const HotOp* jump, int order) {
  return (jump->orders >> order & 1) != 0;
}

}  // namespace hot

#endif
