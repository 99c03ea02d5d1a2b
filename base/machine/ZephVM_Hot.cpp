// The loop for decoded code: what it does at each record of base/compiled/HotCode.h. Tested in
// tests/base/machine/HotCodeTest.cpp and FrameReuseTest.cpp.
//
// The actions written here cannot fail and run no code but their own. If one does not apply, the
// instruction goes back to the machine's loop, with everything as it was before it. The host's
// flags, which other threads set, are polled only at jumps and calls, one in kPatience of them; a
// script cannot observe the delay. Handlers of the machine, external functions and the output may
// set any flag, so all flags are checked after these. The host's flags are also checked after an
// action whose time grows with the size of a value, such as the copy of an array.
//
// The file is longer than others because HotLoop is one function: every action ends with a jump of
// its own to the next, and all share the variables below in registers. Its divisions:
//
//   tests and numbers         what an operand has, and its number: Has..., Find..., Make..., ...In
//   RunHot                    prepares the machine for the loop
//   HotLoop: state            its variables, and the addresses of the actions
//   HotLoop: macros           how an action ends, the stack, tests of operands
//   HotLoop: forms            all actions of one operation: ARITHMETIC, UPDATE, COMPARISON, ...
//   HotLoop: values           pushes, pops, store, texts, swap
//   HotLoop: operations       arithmetic, comparisons, jumps, and the fused ones on globals
//   HotLoop: elements         elements and members on the stack
//   HotLoop: handlers         instructions that a handler runs, and the output
//   HotLoop: groups           the records of groups, which work on operands
//   HotLoop: calls            call, return, and the way back into the loop

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>

#include "base/compiled/Function.h"
#include "base/compiled/HotCode.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CopyText.h"
#include "base/core/NumberText.h"
#include "base/core/Output.h"
#include "base/core/SameBytes.h"
#include "base/core/string_search.h"
#include "base/host/ZephApplication.h"
#include "base/machine/InstructionCheck.h"
#include "base/machine/ZephVM.h"
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

namespace {

using Entry = ZephVM_Stack::Stack_Entry;

// The most bytes that are copied, or compared by a record that is not the last of its group,
// without a look at the flags afterwards.
const int kShort = 4096;

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
[[gnu::noinline]] bool HasNumberSlow(const Variable* variable) {
  const unsigned forms = variable->plain_forms();
  return (forms & Variable::DoubleForm) || forms == Variable::IntegerForm;
}

// The same for a comparison, which uses the text if there is one.
[[gnu::noinline]] bool IsComparableSlow(const Variable* variable) {
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

double NumberIn(const Entry* entry) {
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
[[gnu::noinline]] bool AreArguments(uint64_t references, int count, const Entry* top) {
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
[[gnu::noinline]] bool BeginWithScalar(Variable* parameter, Variable* argument, int* patience) {
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
[[gnu::noinline]] Entry* MoveArguments(VariableHash* table, const _VH_Entry* rows,
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
[[gnu::noinline]] bool FindOrderOfTexts(Entry* left, Entry* right, int* order) {
  int difference;
  if (!ZephVM_Stack::CompareWords(left, right, &difference)) return false;
  *order = difference < 0 ? 0 : difference == 0 ? 1 : 2;
  return true;
}

// The bytes with which no number begins.
struct WordTable {
  bool begins[256];
  constexpr WordTable() : begins() {
    for (bool& word : begins) word = true;
    for (const char c : {'i', 'I', 'n', 'N', '.', '+', '-', ' '})
      begins[static_cast<int>(c)] = false;
    for (int c = '0'; c <= '9'; c++) begins[c] = false;
    for (int c = '\t'; c <= '\r'; c++) begins[c] = false;
  }
};
constexpr WordTable kWords;

[[gnu::noinline]] bool IsWordSlow(const String& text) {
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
[[gnu::noinline]] int OrderOfWords(const Variable* left, const Variable* right,
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
[[gnu::noinline]] void ReadToCompare(Variable* left) {
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
bool FindOrderOfVariables(Variable* left, Variable* right, int* order) {
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
[[gnu::noinline]] bool Load(Variable* variable, const HotOp* op, Temporaries* temporaries) {
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
bool FindText(HotOperand kind, int offset, const HotOp* op, const _VH_Entry* const* rows,
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
[[gnu::noinline]] bool FindMatch(const HotOp* op, const _VH_Entry* const* rows,
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
const int kMostJoinedBytes = 512;

// Writes the operands of a concatenation one after the other, as texts. Returns the number of
// bytes; -1 if an operand has no text, and none that can be made here, or if there are too many
// bytes. A number that is a variable's keeps its text, unless it is an integer.
[[gnu::noinline]] int Join(const HotOp* operand, const HotOp* end, const _VH_Entry* const* rows,
                           const Temporaries& temporaries, char* bytes) {
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
void SetJoined(Entry* entry, const char* bytes, int length, bool chained) {
  auto text = std::make_unique<DeferredText>();
  text->Append(bytes, length);
  entry->SetDeferred(text.release(), chained);
}

// The concatenation of a record, put on the stack. Returns false and does nothing if it cannot be
// made here.
[[gnu::noinline]] bool JoinOnStack(const HotOp* op, const _VH_Entry* const* rows,
                                   const Temporaries& temporaries, Entry* entry) {
  char bytes[kMostJoinedBytes];
  const int length = Join(op + 1, op + 1 + op->second, rows, temporaries, bytes);
  if (length < 0) return false;
  SetJoined(entry, bytes, length, op->refer);
  return true;
}

// The same, stored in a plain variable. The operands are put together apart from it, because it may
// be one of them. If it is the first one, the others are appended.
[[gnu::noinline]] bool JoinInVariable(const HotOp* op, const _VH_Entry* const* rows,
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
[[gnu::noinline]] Variable* ElementToStore(Variable* array, int number) {
  Variable* const found = array->SearchMade(number);
  return found ? found : array->At(number, 1);
}

// Stores the text that is the entry below the top in the variable that is on top. Returns where the
// stack then ends.
[[gnu::noinline]] Entry* StoreText(ZephVM_Stack* stack, Entry* top) {
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
double Calculate(HotAction action, HotAction first, double a, double b) {
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
[[gnu::noinline]] void Assign(Variable* target, Variable* source) {
  const VariableRef target_held = VariableRef::Share(target);
  const VariableRef source_held = VariableRef::Share(source);
  if (target->ShareMembers(*source)) return;
  target->SetValue(*source);
}

// BeginWithScalar for a value of any kind. Returns false if the argument is not a plain variable.
[[gnu::noinline]] bool BeginWith(Variable* parameter, Variable* argument, int* patience) {
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
[[gnu::noinline]] bool BeginArguments(const HotOp* first, const HotOp* end,
                                      const _VH_Entry* parameters, const _VH_Entry* const* rows,
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
const unsigned char kMostMisfits = 32;
const unsigned char kRest = 200;
const int kSeldom = 8;

// Jumps and calls between two polls of the host's flags. Each takes nanoseconds.
const int kPatience = 32;

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
const int kMostPassed = 4;

// Whether the code that a frame returns to is decoded and is what it was at the call.
inline bool ReturnsToDecoded(const ZephVM_FunctionFrame* called) {
  return called->return_code != 0 && called->return_to->hot() &&
         called->return_to->hot()->serial() == called->return_code;
}

// FindTarget for the result of a frame that its callers return at once. Returns whether they are
// all known to pass it to an instruction that pops it into a plain variable.
[[gnu::noinline]] bool PassesToTarget(const ZephVM_FunctionFrame* called, const _VH_Entry* globals,
                                      unsigned count) {
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
Variable* FindTargetOfResult(const ZephVM_FunctionFrame* called, const _VH_Entry* globals,
                             unsigned count) {
  Variable* target;
  const HotOp* const use = called->return_op->plain;
  return FindTarget(use, called->previous->variables, globals, count, &target) ? target : nullptr;
}

// Lets the frame return to after that store.
void PassStore(ZephVM_FunctionFrame* called) {
  const HotOp* const use = called->return_op->plain;
  called->return_offset = use[1].start;
  called->return_op = use[1].fast ? use[1].fast : use + 1;
}

// Stores the constant text that a frame returns in the caller's variable. Returns false and does
// nothing if it has to go by the stack.
[[gnu::noinline]] bool ReturnsText(ZephVM_FunctionFrame* called, const HotOp* op,
                                   const _VH_Entry* globals, unsigned count, bool decoded) {
  if (!decoded) return false;
  Variable* const target = FindTargetOfResult(called, globals, count);
  if (!target || !target->WriteShort(op->text, op->length)) return false;
  PassStore(called);
  return true;
}

// Stores the concatenation that a frame returns in the caller's variable, or puts it on the
// caller's stack. Returns false and does nothing if it cannot be made here.
[[gnu::noinline]] bool JoinResult(ZephVM_FunctionFrame* called, const HotOp* op,
                                  const _VH_Entry* const* rows, unsigned count,
                                  const Temporaries& temporaries, bool decoded) {
  char bytes[kMostJoinedBytes];
  const int length = Join(op + 1, op + 1 + op->second, rows, temporaries, bytes);
  if (length < 0) return false;
  if (decoded) {
    Variable* const target = FindTargetOfResult(called, rows[0], count);
    if (target) {
      target->WriteJoined(bytes, length, op->refer);
      PassStore(called);
      return true;
    }
  }
  ZephVM_Stack* const callers = called->previous->stack;
  SetJoined(callers->End(), bytes, length, op->refer);
  callers->SetEnd(callers->End() + 1);
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

}  // namespace

inline bool ZephVM::IsBound(int index) const {
  const ExternalParameters* const next = idle_parameters.Next(index);
  return next && next->is_regular() && functions->Lookup(index) == next->function() &&
         !log_gate.Wants(Log_OfCalls);
}

void ZephVM::RunHot(const HotCode* hot, const HotOp* op) {
  const auto all = static_cast<size_t>(functions ? functions->Functions() : 0);
  if (idle_frames.size() < all) idle_frames.resize(all);
  const bool outer = in_hot;
  in_hot = true;
  HotLoop(hot, op);
  in_hot = outer;
  hot_mode = NoMode;
}

void ZephVM::HotLoop(const HotCode* hot, const HotOp* op) {
  int* const timedout = timedout_flag;
  int* const ended = exit_flag;
  int* const beats = heartbeat_counter;
  // Of the current frame: its stack, the end and the beginning of its entries, and the last end at
  // which any action has room to push; and the rows of both tables of variables, the globals first.
  // All rows that the groups of the code name can be read, whether the table has them or not.
  ZephVM_Stack* s;
  Entry* top;
  // The third, by the number of HotOperand::Place, has the places of a group.
  const _VH_Entry* rows[static_cast<int>(HotOperand::Place) + 1];
  unsigned counts[2];
  Entry* bottom;
  Entry* limit;
  Variable* variable = nullptr;
  const Variable* other = nullptr;
  // For a call or a return.
  ZephVM_FunctionFrame* called = nullptr;
  const _VH_Entry* locals = nullptr;
  unsigned local_count = 0;
  double number_passed = 0.0;
  HotForm form_passed = HotForm::Double;
  // For groups.
  Variable* first_row;
  Variable* second_row;
  Temporaries temporaries;
  long code_serial = hot->serial();
  int patience = kPatience;  // jumps and calls until the next poll of the host's flags
  unsigned elapsed = 0;      // and how many there were until the last poll

// The address of each action. Each action ends with a jump of its own to the next one, because
// processors predict these better than one jump that all share.
#define ACTION(name) &&on_##name,
  __extension__ static const void* const places[] = {ZEPH_HOT_ACTIONS};
#undef ACTION

// In a build with assertions, STARTED notes where an action begins, and RAN checks the stack after
// the records from there up to end. RAN_UP_TO does so when the record at end, a call, has consumed
// that many entries.
#ifdef NDEBUG
#define STARTED
#define RAN_UP_TO(end, consumed)
#else
  const HotOp* started = op;
  long started_with = 0;
#define STARTED                                     \
  {                                                 \
    assert(stack == s && frame->stack == s);        \
    started = op;                                   \
    started_with = static_cast<long>(top - bottom); \
  }
#define RAN_UP_TO(end, consumed)                                             \
  assert(InstructionCheck::Agree(started->plain, (end)->plain, started_with, \
                                 static_cast<long>(top - bottom) + (consumed)));
#endif
#define RAN(end) RAN_UP_TO(end, 0)

// clang takes minutes for a function in which hundreds of jumps may go to hundreds of places, so
// its builds, which are for tests, have one such jump.
#ifdef __clang__
  const void* place;
#define GO_TO_PLACE(address) \
  {                          \
    place = address;         \
    goto dispatch;           \
  }
#else
#define GO_TO_PLACE(address) __extension__({ goto*(address); });
#endif
// Of a record that has another action from here on.
#define SET_ACTION(record, other)                      \
  {                                                    \
    (record)->action = other;                          \
    (record)->place = places[static_cast<int>(other)]; \
  }

// clang-format off
#define GO { STARTED GO_TO_PLACE(op->place) }
#define GO_ALONE { STARTED GO_TO_PLACE(places[static_cast<int>(op->single)]) }
// Each action ends with one of these. NEXT continues after count instructions. NEXT_AFTER_WORK does
// the same after work of any length, and polls the host's flags. SINGLE_UNLESS runs the first
// instruction alone if the idiom does not apply. LEAVE_UNLESS returns to the machine's loop. JUMP
// polls the host's flags once in kPatience times.
#define NEXT(count) { op += (count); RAN(op) GO }
#define RAISED (Read(timedout) | Read(ended) | (Read(beats) ^ last_heartbeat))
#define NEXT_AFTER_WORK(count) { \
  op += (count); \
  RAN(op) \
  if (RAISED) [[unlikely]] goto on_Leave; \
  GO }
#define SINGLE_UNLESS(condition) if (!(condition)) [[unlikely]] { RAN(op) GO_ALONE }
#define LEAVE_AFTER_UNLESS(condition, count) \
  if (!(condition)) [[unlikely]] { op += (count); goto on_Leave; }
#define LEAVE_UNLESS(condition) if (!(condition)) [[unlikely]] { goto on_Leave; }
#define JUMP(jump) { \
  RAN((jump) + 1) \
  op = (jump)->target; \
  STARTED \
  if (--patience == 0) [[unlikely]] goto look; \
  GO }
#define JUMP_IF(condition, jump, count) { \
  if (condition) JUMP(jump) \
  NEXT(count) }
// The same after work of any length.
#define JUMP_IF_AFTER_WORK(condition, jump, count) { \
  const bool jumps = condition; \
  RAN(jumps ? (jump) + 1 : op + (count)) \
  op = jumps ? (jump)->target : op + (count); \
  STARTED \
  if (RAISED) [[unlikely]] goto on_Leave; \
  GO }
// The variable at a record's position, or the one that it refers to; null if it does not exist yet.
// ROW_OF gives the variable itself.
#define ROW_AT(table, position) \
  (static_cast<unsigned>(position) < counts[table] ? rows[table][position].variable : nullptr)
#define ROW_OF(record) ROW_AT(static_cast<int>((record)->left), (record)->first)
// Makes the variable that a row does not have yet; null if there is no such row.
#define MADE_AT(record) \
  ((record)->left == HotOperand::Local ? frame->variables : global_variables)->At((record)->first, 1)
#define VARIABLE(record) Referred(ROW_OF(record))
// A local variable that no instruction of this call has touched is asleep in its row. It has no
// forms and is not an array, so only an action that uses a variable without testing these has to
// wake it. Storing a number wakes it too.
#define WAKE(variable) WakeIfAsleep(variable);
// After anything that may have added names to a table, such as a library that computes a field.
// The main code has the globals as its locals, too, so making room for the one may move the other.
#define ASK_ROWS { \
  (void)frame->variables->Rows(hot->locals(), &counts[1]); \
  rows[0] = global_variables->Rows(hot->globals(), &counts[0]); \
  rows[1] = frame->variables->Rows(&counts[1]); }
// For the instructions on globals, which hardly ever are references: those go another way. Each row
// that they name can be read.
#define GLOBAL(position) rows[0][position].variable
// Store the end in the stack before its own operations, and reload what they may have changed. The
// end is also stored before anything that allocates: if that throws, the stack frees the entries up
// to there.
#define TELL_STACK s->SetEnd(top);
#define ASK_STACK { \
  top = s->End(); \
  bottom = s->Begin(); \
  limit = s->Limit() - HotCode::kRoom; }
#define PUSH(set) { top->set; ++top; }
// Begins an instruction that runs code outside of the loop, whose errors name the place.
#define BEGIN_OUTSIDE(record) { \
  TELL_STACK \
  instruction_start = (record)->start; \
  program_counter = (record)[1].start; }
// The field that the record's two names mean, if it was found before and is there; null otherwise.
#define FIND_KNOWN_FIELD(found) { \
  first_integer = op->first; \
  second_integer = op->second; \
  (found) = nullptr; \
  if (recent_fields) { \
    const RecentField& recent = recent_fields[RecentPlace()]; \
    if (recent.alias == op->first && recent.field == op->second && \
        recent.views_gone == family->ViewsGone() && recent.fields_gone == *recent.fields_count) { \
      (found) = recent.variable; \
    } \
  } }
// Replace the entry on top, or the two on top.
#define REPLACE_ONE(set) { \
  ZephVM_Stack::Free(top - 1); \
  top[-1].set; }
#define REPLACE_TWO(set) { \
  ZephVM_Stack::Free(top - 1); \
  ZephVM_Stack::Free(top - 2); \
  --top; \
  top[-1].set; }
#define HOLDS_ONE (top > bottom)
#define HOLDS_TWO (top - 1 > bottom)
// Between two actions the stack has room for HotCode::kRoom entries, so that what a group computes
// would fit there; an action that leaves an entry more needs the room for that too.
#define HAS_ROOM (top < limit)
// Whether the operands on top are numbers; they are doubles afterwards. This may change the
// entries, so it is the last test of a condition.
#define ONE_NUMBER (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<HasNumberSlow>(top)))
#define ONE_COMPARABLE (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<IsComparableSlow>(top)))
#define TWO_DOUBLES (IsDouble(top - 1) && IsDouble(top - 2))
#define TWO_NUMBERS (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<HasNumberSlow>(top)))
#define TWO_COMPARABLE (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<IsComparableSlow>(top)))
#define IS_NUMBER(variable) ((variable) && Has<HasNumberSlow>(variable))
// The same; *number receives the number.
#define FIND_NUMBER(variable, number) ((variable) && Find<HasNumberSlow>(variable, number))
#define FIND_COMPARABLE(variable, number) ((variable) && Find<IsComparableSlow>(variable, number))
// Whether a frame is kept for the called function and is prepared for calls from this code. If so,
// called is the frame and locals are its variables; those that exist are as a new call needs them.
#define KNOWS_CALLED \
  (called = idle_frames[static_cast<unsigned>(op->first)], \
   called && called->return_code == code_serial && frame->depth < MostFrames && \
   (locals = called->variables->Rows(&local_count), true))

// Whether the code that the frame returns to is decoded and is what it was at the call.
#define RETURNS_TO_DECODED \
  (called->return_code == code_serial || ReturnsToDecoded(called))
// Continues in another segment, which is decoded.
#define USE_SEGMENT(used, number) { \
  segment = (used); \
  code = segment->code(); \
  code_length = segment->length(); \
  loaded_segment = wanted_segment = (number); \
  hot = segment->hot(); \
  hot->SetPlaces(places); \
  code_serial = hot->serial(); }

// Whether the instruction at a record uses only the value of the entry on top. The field of a
// database, to which a variable may refer, takes a number and a variable in different ways.
#define VALUE_SUFFICES(record) \
  (((record)->uses & HotOp::UsedAsValue) || ((record)->single == HotAction::PopVariable && \
                                             IsPlainRow(VARIABLE(record))))

// Whether it can tell an element that is only a number from its variable. It cannot if that is an
// integer; of a double, a read as text would leave a text that comparisons use from then on.
#define BARE_SUFFICES(record, bare) \
  ((bare).IsInteger() || ((record)->uses & HotOp::UsedAsNumber) || \
   (record)->single == HotAction::PopVariable)

// All forms of an operation on the doubles a and b. An operand that is a double entry already is
// overwritten in place.
#define ARITHMETIC(name, result)                                                           \
  on_##name: {                                                                             \
    if (!TWO_NUMBERS) [[unlikely]] goto calculate_values;                                  \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    --top;                                                                                 \
    top[-1].value.number = result;                                                         \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##Constant: {                                                                   \
    SINGLE_UNLESS(HAS_ROOM && ONE_NUMBER)                                                  \
    const double a = top[-1].value.number, b = op->number;                                 \
    top[-1].value.number = result;                                                         \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Variable: {                                                                   \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(HAS_ROOM && IS_NUMBER(variable) && ONE_NUMBER)                           \
    const double a = top[-1].value.number, b = NumberOf(variable);                         \
    top[-1].value.number = result;                                                         \
    NEXT(2)                                                                                \
  }                                                                                        \
  UPDATE(Update##name##Constant, true, op[1].number, result)                               \
  UPDATE(Update##name##Variable, (other = VARIABLE(op + 1), IS_NUMBER(other)),             \
         NumberOf(other), result)
// An operation on the variable on top. The other operand may be the same variable, so it is read before
// the result is written.
#define UPDATE(name, condition, operand, result)                                           \
  on_##name: {                                                                             \
    SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindVariable)     \
    variable = top[-1].value.variable->Real();                                             \
    double a;                                                                              \
    SINGLE_UNLESS((condition) && Find<HasNumberSlow>(variable, &a))                        \
    const double b = operand;                                                              \
    variable->Write_Double(result);                                                        \
    --top;                                                                                 \
    ZephVM_Stack::Free(top);                                                               \
    NEXT(5)                                                                                \
  }
// A comparison of a and b. If either is NaN, their order counts as above 0. Texts are compared by the
// stack.
#define COMPARISON(name, holds, ordered)                                                   \
  on_##name: {                                                                             \
    if (!TWO_COMPARABLE) [[unlikely]] {                                                    \
      LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))                \
      int order;                                                                           \
      if (ZephVM_Stack::CompareWords(top - 2, top - 1, &order)) {                          \
        REPLACE_TWO(SetInteger(ordered))                                                   \
        NEXT_AFTER_WORK(1)                                                                 \
      }                                                                                    \
      TELL_STACK                                                                           \
      order = s->Compare();                                                                \
      ASK_STACK                                                                            \
      PUSH(SetInteger(ordered))                                                            \
      NEXT_AFTER_WORK(1)                                                                   \
    }                                                                                      \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    --top;                                                                                 \
    top[-1].SetInteger(holds);                                                             \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##ConstantJump: {                                                               \
    SINGLE_UNLESS(HAS_ROOM && ONE_COMPARABLE)                                              \
    --top;                                                                                 \
    const double a = top->value.number, b = op->number;                                    \
    JUMP_IF((holds) == (op[2].single == HotAction::JumpNotEqual), op + 2, 3)               \
  }
// An operation on the bits of two integers, and one on two truths. The handler does what is slow.
#define BITS(name, result)                                                                 \
  on_##name: {                                                                             \
    int a, b;                                                                              \
    if (!(HOLDS_TWO && IntegerIn(top - 2, &a) && IntegerIn(top - 1, &b))) goto on_Handler; \
    REPLACE_TWO(SetInteger(result))                                                        \
    NEXT(1)                                                                                \
  }
#define LOGIC(name, result)                                                                \
  on_##name: {                                                                             \
    bool a, b;                                                                             \
    if (!(HOLDS_TWO && FindTruth(top - 2, &a) && FindTruth(top - 1, &b))) goto on_Handler; \
    REPLACE_TWO(SetInteger(result))                                                        \
    NEXT(1)                                                                                \
  }
#define JUMP_ON(name, holds)                                                               \
  on_##name: {                                                                             \
    int order;                                                                             \
    if (!(HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindInteger)) [[unlikely]]            \
      goto jump_on_value;                                                                  \
    --top;                                                                                 \
    order = top->value.integer;                                                            \
    JUMP_IF(holds, op, 1)                                                                  \
  }
#define ELEMENT(name, create)                                                              \
  on_##name: {                                                                             \
    int number;                                                                            \
    LEAVE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable)                  \
    variable = top[-2].value.variable->Real();                                             \
    LEAVE_UNLESS(variable->IsPlain() && IntegerIn(top - 1, &number) && number >= 1)        \
    TELL_STACK                                                                             \
    DenseSlot bare;                                                                        \
    if (!(create) && VALUE_SUFFICES(op->plain + 1) && variable->FindBare(number, &bare) && \
        BARE_SUFFICES(op->plain + 1, bare)) {                                              \
      if (bare.IsInteger()) REPLACE_TWO(SetInteger(bare.integer()))                        \
      else REPLACE_TWO(SetDouble(bare.number()))                                           \
      NEXT(1)                                                                              \
    }                                                                                      \
    variable = variable->At(number, create);                                               \
    if (!variable) variable = null_variable;                                               \
    variable->Hold();                                                                      \
    REPLACE_TWO(SetOwned(variable))                                                        \
    NEXT(1)                                                                                \
  }
#define MEMBER(name, create)                                                               \
  on_##name: {                                                                             \
    LEAVE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable)                  \
    const char* text;                                                                      \
    int length;                                                                            \
    variable = top[-2].value.variable->Real();                                             \
    LEAVE_UNLESS(variable->IsPlain() && FindName(top - 1, variable, &text, &length))       \
    TELL_STACK                                                                             \
    variable = variable->Member(text, length, create);                                     \
    if (!variable) variable = null_variable;                                               \
    variable->Hold();                                                                      \
    REPLACE_TWO(SetOwned(variable))                                                        \
    NEXT(1)                                                                                \
  }
// --- For groups. STEP continues after a record that is not the group's last. MISFIT_UNLESS runs the
// group's instructions one by one.
#define STEP { op++; GO_TO_PLACE(op->place) }
#define MISFIT_UNLESS(condition) if (!(condition)) [[unlikely]] goto misfit;
// The variable of an operand that is a row, or a place; null if there is none.
// Each row that a group names is there, see HotCode::globals().
#define OPERAND_ROW(kind, offset) VariableIn(rows[static_cast<int>(kind)], offset)
#define OPERAND(kind, offset) Referred(OPERAND_ROW(kind, offset))
#define BASE_OF(record) OPERAND((record)->left, (record)->first)
// Read a row as a number. If its variable has more or something else than a number, or there is
// none, the shared and slower way of all operands is taken.
#define ROW_NUMBER(kind, offset, out, unusual) { \
  const Variable* const row = OPERAND_ROW(kind, offset); \
  if (!row) [[unlikely]] goto unusual; \
  if (row->HoldsDouble()) [[likely]] { \
    out = row->plain_double(); \
  } else if (row->HoldsInteger()) { \
    out = row->plain_integer(); \
  } else { \
    if (!row->HoldsNumber()) goto unusual; \
    out = row->plain_double(); \
  } }
// The same of the operand first or second of a pair.
#define NUMBER_Global(side, out, unusual) ROW_NUMBER(HotOperand::Global, op->side, out, unusual)
#define NUMBER_Local(side, out, unusual) ROW_NUMBER(HotOperand::Local, op->side, out, unusual)
#define NUMBER_Temporary(side, out, unusual) out = temporaries.number(op->side);
#define NUMBER_Constant(side, out, unusual) out = op->number;
// The parameter that an argument goes to, and a row's value as the argument.
#define PARAMETER VariableIn(locals, op->third)
#define SEND_ROW(kind) { \
  Variable* const parameter = PARAMETER; \
  variable = OPERAND_ROW(kind, op->first); \
  if (!parameter || !variable) [[unlikely]] goto not_begun; \
  if (variable->HoldsDouble()) [[likely]] { \
    parameter->Begin(variable->plain_double()); \
  } else if (variable->HoldsInteger()) { \
    parameter->Begin(variable->plain_integer()); \
  } else { \
    goto send_value; \
  } \
  STEP }
// The plain variable that a group's last record stores to. It is made if there is none yet.
#define FIND_TARGET \
  variable = OPERAND(op->into, op->third); \
  if (!variable) [[unlikely]] { \
    TELL_STACK \
    variable = (op->into == HotOperand::Local ? frame->variables : global_variables)->At(HotOp::PositionOf(op->third), 1); \
  } \
  MISFIT_UNLESS(variable && variable->IsPlain())
#define GROUP_ARITHMETIC(name, result, left, right) \
  on_##name##Of##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_pair) \
    NUMBER_##right(second, b, unusual_pair) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_pair) \
    NUMBER_##right(second, b, unusual_pair) \
    STORE_DOUBLE(result) \
    NEXT(1) \
  }
#define GROUP_ADD(name, left, right) GROUP_ARITHMETIC(Add, a + b, left, right)
#define GROUP_SUB(name, left, right) GROUP_ARITHMETIC(Sub, a - b, left, right)
#define GROUP_MUL(name, left, right) GROUP_ARITHMETIC(Mul, a * b, left, right)
#define GROUP_DIV(name, left, right) GROUP_ARITHMETIC(Div, (a == 0.0 ? 0.0 : a / b), left, right)
// A text that was loaded is NaN as a number.
#define NO_TEXT_Global(number)
#define NO_TEXT_Local(number)
#define NO_TEXT_Temporary(number) if (std::isnan(number)) [[unlikely]] goto unusual_comparison;
#define NO_TEXT_Constant(number)
#define GROUP_JUMP(name, holds, left, right) \
  on_JumpIf##name##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_comparison) \
    NUMBER_##right(second, b, unusual_comparison) \
    NO_TEXT_##left(a) \
    NO_TEXT_##right(b) \
    JUMP_IF(holds, op, 1) \
  }
#define GROUP_COMPARE(name, left, right) \
  on_CompareOf##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, on_CompareOf) \
    NUMBER_##right(second, b, on_CompareOf) \
    temporaries.number(op->third) = Jumps(op, OrderOf(a, b)); \
    STEP \
  }
#define GROUP_LESS(name, left, right) GROUP_JUMP(Less, a < b, left, right)
#define GROUP_EQUAL(name, left, right) GROUP_JUMP(Equal, a == b, left, right)
#define GROUP_LESS_EQUAL(name, left, right) GROUP_JUMP(LessEqual, a <= b, left, right)
#define GROUP_GREATER(name, left, right) GROUP_JUMP(Greater, !(a <= b), left, right)
#define GROUP_NOT_EQUAL(name, left, right) GROUP_JUMP(NotEqual, !(a == b), left, right)
#define GROUP_GREATER_EQUAL(name, left, right) GROUP_JUMP(GreaterEqual, !(a < b), left, right)
// Read a row as an integer.
#define ROW_INTEGER(kind, offset, out, unusual) { \
  const Variable* const row = OPERAND_ROW(kind, offset); \
  if (!row) [[unlikely]] goto unusual; \
  if (row->HoldsInteger()) { \
    out = row->plain_integer(); \
  } else if (row->HoldsDouble()) { \
    out = DoubleToInteger(row->plain_double()); \
  } else { \
    if (!row->HoldsNumber()) goto unusual; \
    out = row->plain_integer(); \
  } }
// Read an operand of any kind: as an integer, and as a number to compare by.
#define INTEGER_OF(kind, offset, out) \
  if ((kind) == HotOperand::Temporary) { \
    *(out) = DoubleToInteger(temporaries.number(offset)); \
  } else if ((kind) == HotOperand::Constant) { \
    *(out) = (offset); \
  } else { \
    first_row = OPERAND_ROW(kind, offset); \
    if (first_row && first_row->HoldsInteger()) { \
      *(out) = first_row->plain_integer(); \
    } else if (first_row && first_row->HoldsDouble()) { \
      *(out) = DoubleToInteger(first_row->plain_double()); \
    } else { \
      MISFIT_UNLESS(IntegerOf(Referred(first_row), out)) \
    } \
  }
#define COMPARABLE_OF(kind, offset, result, missing) \
  if ((kind) == HotOperand::Temporary) { \
    *(result) = temporaries.number(offset); \
  } else if ((kind) == HotOperand::Constant) { \
    *(result) = op->number; \
  } else { \
    other = OPERAND_ROW(kind, offset); \
    if (other && other->HoldsDouble()) { \
      *(result) = other->plain_double(); \
    } else if (other && other->HoldsInteger()) { \
      *(result) = other->plain_integer(); \
    } else { \
      variable = OPERAND(kind, offset); \
      if (!FIND_COMPARABLE(variable, result)) [[unlikely]] goto missing; \
    } \
  }
// The order of two operands of which one was loaded, and is a place here. Texts are compared out of
// line.
#define LOADED_OF(kind, offset, found) \
  (found) = nullptr; \
  if ((kind) == HotOperand::Place) { \
    (found) = temporaries.text(offset); \
  } else if ((kind) <= HotOperand::Local) { \
    (found) = OPERAND(kind, offset); \
    MISFIT_UNLESS(found) \
  }
#define LOADED_NUMBER(kind, offset) \
  ((kind) == HotOperand::Constant ? op->number \
   : (kind) <= HotOperand::Local  ? 0.0 \
                                : temporaries.number(offset))
// The left text may be a number, which is then kept with it. That needs an element of its own: the
// one that was loaded may be shared by copies of the array.
#define FIND_LOADED_ORDER \
  LOADED_OF(op->left, op->first, first_row) \
  LOADED_OF(op->right, op->second, second_row) \
  MISFIT_UNLESS(op->left != HotOperand::Place || !first_row || HoldsWord(first_row)) \
  MISFIT_UNLESS(FindLoadedOrder(first_row, LOADED_NUMBER(op->left, op->first), second_row, \
                                LOADED_NUMBER(op->right, op->second), &order, &texts))
// Read the index of an element. If it is not a plain number, the action for all kinds is taken.
#define INDEX_Global(number, unusual) ROW_INTEGER(HotOperand::Global, op->second, number, unusual)
#define INDEX_Local(number, unusual) ROW_INTEGER(HotOperand::Local, op->second, number, unusual)
#define INDEX_Temporary(number, unusual) number = DoubleToInteger(temporaries.number(op->second));
#define INDEX_Constant(number, unusual) number = op->second;
// Finds the elements or members of the array or structure at the left in tree.
#define FIND_TREE(holds, unusual) \
  variable = OPERAND_ROW(op->left, op->first); \
  if (!variable) [[unlikely]] goto unusual; \
  if (!variable->IsProvedPlain()) [[unlikely]] { \
    variable = variable->Real(); \
    if (!variable->IsPlain()) goto unusual; \
  } \
  if (!variable->holds()) [[unlikely]] goto unusual; \
  AggregateElementTree* const tree = variable->plain_elements(); \
  TELL_STACK
// The same, and the index in number.
#define FIND_ELEMENT(kind, unusual) \
  int number; \
  INDEX_##kind(number, unusual) \
  if (number < 1) [[unlikely]] goto unusual; \
  FIND_TREE(HoldsArray, unusual)
// Stores a number in a variable that has a number in that form alone, or on the way of all others.
#define STORE_DOUBLE(result) \
  number_passed = result; \
  variable = OPERAND_ROW(op->into, op->third); \
  if (!variable || !variable->HoldsDouble()) [[unlikely]] goto store_double; \
  variable->Rewrite(number_passed);
#define STORE_INTEGER(result) \
  const int stored = result; \
  variable = OPERAND_ROW(op->into, op->third); \
  if (!variable || !variable->HoldsInteger()) [[unlikely]] { \
    number_passed = stored; \
    goto store_integer; \
  } \
  variable->Rewrite(stored);
// Stores the number of an element or member in a variable, the end of a group.
#define STORE_SLOT(slot, unusual) { \
  if ((slot)->IsVariable()) { \
    other = (slot)->variable(); \
    if (other->HoldsDouble()) { \
      STORE_DOUBLE(other->plain_double()) \
    } else { \
      if (!other->HoldsInteger() || !other->is_stored_integer()) { \
        variable = OPERAND_ROW(op->into, op->third); \
        if (variable && variable->CopyWord(*other)) NEXT(1) \
        goto unusual; \
      } \
      STORE_INTEGER(other->plain_integer()) \
    } \
  } else if ((slot)->IsInteger()) { \
    STORE_INTEGER((slot)->integer()) \
  } else { \
    STORE_DOUBLE((slot)->number()) \
  } \
  NEXT(1) }
// Stores a number in the element or member that was found.
#define WRITE_SLOT(slot, number, unusual) { \
  if (!(slot) || !(slot)->Overwrite(number)) [[unlikely]] goto unusual; \
  NEXT(1) }
// Stores an operand, whose kind and offset are told, in the slot. A number is stored as such only if
// it is all of its value.
#define STORE_IN_SLOT(slot, kind, offset, unusual) \
  if ((kind) <= HotOperand::Local) { \
    other = OPERAND_ROW(kind, offset); \
    if (!other) [[unlikely]] goto unusual; \
    if (other->HoldsDouble()) WRITE_SLOT(slot, other->plain_double(), unusual) \
    if (!other->HoldsInteger()) goto unusual; \
    WRITE_SLOT(slot, other->plain_integer(), unusual) \
  } \
  if ((kind) == HotOperand::Temporary) { \
    const HotForm form = op->form == HotForm::AsLoaded ? temporaries.form(offset) : op->form; \
    if (form == HotForm::Double) WRITE_SLOT(slot, temporaries.number(offset), unusual) \
    if (form != HotForm::Integer) goto unusual; \
    WRITE_SLOT(slot, static_cast<int>(temporaries.number(offset)), unusual) \
  } \
  if ((kind) != HotOperand::Constant) goto unusual; \
  if (op->form == HotForm::Double) WRITE_SLOT(slot, op->number, unusual) \
  WRITE_SLOT(slot, static_cast<int>(op->number), unusual)
#define ELEMENT_AT(kind) \
  on_LoadElementAt##kind: { \
    FIND_ELEMENT(kind, on_LoadElement) \
    const DenseSlot* const slot = tree->SearchSlot(number); \
    if (!slot) [[unlikely]] goto on_LoadElement; \
    if (slot->IsVariable()) { \
      variable = slot->variable(); \
      goto load_variable; \
    } \
    temporaries.Set(op->third, *slot); \
    STEP \
  } \
  on_FindElementAt##kind: { \
    FIND_ELEMENT(kind, on_FindElement) \
    variable = tree->SearchMade(number); \
    if (!variable) [[unlikely]] goto on_FindElement; \
    temporaries.place(op->third) = variable; \
    STEP \
  } \
  on_MoveElementAt##kind: { \
    FIND_ELEMENT(kind, on_MoveElement) \
    const DenseSlot* const slot = tree->SearchSlot(number); \
    if (!slot) [[unlikely]] goto on_MoveElement; \
    STORE_SLOT(slot, on_MoveElement) \
  } \
  on_StoreElementAt##kind: { \
    FIND_ELEMENT(kind, on_StoreElement) \
    DenseSlot* const slot = tree->SearchOwnSlot(number); \
    STORE_IN_SLOT(slot, op->into, op->third, on_StoreElement) \
  }
// An operation on one or two integers, and one on one or two truths.
#define GROUP_INTEGERS(name, result) \
  on_##name##Of: { \
    int a, b; \
    INTEGER_OF(op->left, op->first, &a) \
    INTEGER_OF(op->right, op->second, &b) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To: { \
    int a, b; \
    INTEGER_OF(op->left, op->first, &a) \
    INTEGER_OF(op->right, op->second, &b) \
    STORE_INTEGER(result) \
    NEXT(1) \
  }
#define GROUP_TRUTHS(name, result) \
  on_##name##Of: { \
    double a, b; \
    COMPARABLE_OF(op->left, op->first, &a, misfit) \
    COMPARABLE_OF(op->right, op->second, &b, misfit) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To: { \
    double a, b; \
    COMPARABLE_OF(op->left, op->first, &a, misfit) \
    COMPARABLE_OF(op->right, op->second, &b, misfit) \
    STORE_INTEGER(result) \
    NEXT(1) \
  }
  // clang-format on

  hot->SetPlaces(places);
  rows[static_cast<int>(HotOperand::Place)] = reinterpret_cast<const _VH_Entry*>(temporaries.rows);
  goto entered;

on_PushInteger:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetInteger(op->first))
  NEXT(1)
on_PushDouble:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetDouble(op->number))
  NEXT(1)
on_PushText:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetText(op->text, op->length))
  NEXT(1)
on_PushVariable:
  variable = ROW_OF(op);
  LEAVE_UNLESS(HAS_ROOM)
  if (!variable) [[unlikely]] {
    TELL_STACK
    variable = MADE_AT(op);
    LEAVE_UNLESS(variable)
  }
  WAKE(variable)
  PUSH(SetVariable(variable))
  NEXT(1)
on_PopVariable:
  variable = VARIABLE(op);
  LEAVE_UNLESS(HOLDS_ONE)
  if (!variable) [[unlikely]] {
    TELL_STACK
    variable = MADE_AT(op);
    LEAVE_UNLESS(variable)
  }
  if (variable->IsPlain() && top[-1].kind <= ZephVM_Stack::KindDouble) {
    --top;
    if (top->kind == ZephVM_Stack::KindDouble) {
      variable->Write_Double(top->value.number);
    } else {
      variable->Write_Integer(top->value.integer);
    }
    NEXT(1)
  }
  LEAVE_UNLESS(variable->IsOrdinary())
  WAKE(variable)
  if (top[-1].kind == ZephVM_Stack::KindVariable
          ? variable->CopyNumber(*top[-1].value.variable->Real())
          : top[-1].kind == ZephVM_Stack::KindString && !top[-1].deferred &&
                variable->WriteShort(top[-1].value.text, top[-1].length)) {
    --top;
    ZephVM_Stack::Free(top);
    NEXT(1)
  }
  if (!IsOrdinary(top - 1)) goto pop_computed;
  if (top[-1].deferred) {
    --top;
    TELL_STACK
    top->value.pending->Assign(variable, top->kind == ZephVM_Stack::KindLinkBuffer);
    NEXT_AFTER_WORK(1)
  }
  TELL_STACK
  s->PopV(variable);
  ASK_STACK
  NEXT_AFTER_WORK(1)
// The source computes its value, as the variables of databases do: as after a handler, any flag may
// be set.
pop_computed:
  TELL_STACK
  instruction_start = op->start;
  program_counter = op[1].start;
  s->PopV(variable);
  if (stop_flag | RAISED) return;
  ASK_STACK
  ASK_ROWS
  NEXT(1)
on_PushField:
  LEAVE_UNLESS(HAS_ROOM)
  FIND_KNOWN_FIELD(variable)
  if (!variable) goto on_Handler;
  PUSH(SetVariable(variable))
  NEXT(1)
// As with pop_computed, any flag may be set.
on_MoveField:
  SINGLE_UNLESS(HAS_ROOM)
  first_row = VARIABLE(op + 1);
  SINGLE_UNLESS(first_row && first_row->IsPlain())
  FIND_KNOWN_FIELD(variable)
  SINGLE_UNLESS(variable)
  WAKE(first_row)
  BEGIN_OUTSIDE(op + 1)
  Assign(first_row, variable);
  if (stop_flag | RAISED) return;
  ASK_STACK
  ASK_ROWS
  NEXT(2)
on_Pop:
  LEAVE_UNLESS(HOLDS_ONE)
  --top;
  ZephVM_Stack::Free(top);
  NEXT(1)
on_Dup:
  LEAVE_UNLESS(HOLDS_ONE && HAS_ROOM)
  if (top->DupeSimple(top[-1])) {
    ++top;
    NEXT(1)
  }
  TELL_STACK
  s->Dupe();
  ASK_STACK
  NEXT(1)
on_Store:
  LEAVE_UNLESS(HOLDS_TWO && top[-1].kind == ZephVM_Stack::KindVariable)
  variable = top[-1].value.variable->Real();
  LEAVE_UNLESS(variable->IsPlain())
  if (top[-2].kind == ZephVM_Stack::KindString || top[-2].kind == ZephVM_Stack::KindLinkBuffer) {
    top = StoreText(s, top);
    NEXT_AFTER_WORK(1)
  }
  LEAVE_UNLESS(IsNumberOrPlain(top - 2))
  if (top[-2].kind == ZephVM_Stack::KindVariable) {
    TELL_STACK
    if (!top[-2].Owns() || !variable->TakeValue(top[-2].value.variable)) {
      variable->SetValue(*top[-2].value.variable);
    }
    top -= 2;
    ZephVM_Stack::Free(top + 1);
    ZephVM_Stack::Free(top);
    NEXT_AFTER_WORK(1)
  }
  if (top[-2].kind == ZephVM_Stack::KindDouble) {
    variable->Write_Double(top[-2].value.number);
  } else {
    variable->Write_Integer(top[-2].value.integer);
  }
  top -= 2;
  ZephVM_Stack::Free(top + 1);
  NEXT(1)
on_Concatenate:
  LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))
  TELL_STACK
  s->Concatenate();
  ASK_STACK
  NEXT_AFTER_WORK(1)
on_ConcatenateText:
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].deferred)
  TELL_STACK
  top[-1].AppendDeferred(op->text, op->length);
  NEXT(2)
on_ConcatenateVariable:
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].deferred && variable && variable->IsOrdinary())
  WAKE(variable)
  TELL_STACK
  if (variable->plain_forms() == Variable::IntegerForm) {
    top[-1].AppendDeferred(variable->plain_integer());
  } else {
    top[-1].AppendDeferred(variable);
  }
  NEXT(2)
on_ConcatenateTextVariable : {
  variable = VARIABLE(op + 1);
  SINGLE_UNLESS(HAS_ROOM && variable && op->length <= ZephVM_Stack::ShortText)
  TELL_STACK
  const unsigned forms = variable->plain_forms();
  if (forms == Variable::IntegerForm) {
    PUSH(SetDeferred(op->text, op->length, variable->plain_integer()))
  } else {
    SINGLE_UNLESS((forms & Variable::TextForm) != 0 &&
                  variable->plain_text().length <= ZephVM_Stack::ShortText)
    PUSH(SetDeferred(op->text, op->length, variable))
  }
  NEXT(3)
}
on_ConcatenateVariableText : {
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable && (variable->plain_forms() & Variable::TextForm) != 0)
  TELL_STACK
  DeferredText* const text = DeferredText::Begin(variable);
  SINGLE_UNLESS(text)
  top->SetDeferred(text);
  ++top;
  TELL_STACK
  text->Append(op[1].text, op[1].length);
  NEXT(3)
}
on_Swap:
  LEAVE_UNLESS(HOLDS_TWO)
  s->Swap(top - 1, top - 2);
  NEXT(1)
  ARITHMETIC(Add, a + b)
  ARITHMETIC(Sub, a - b)
  ARITHMETIC(Mul, a * b)
  ARITHMETIC(Div, a == 0.0 ? 0.0 : a / b)
on_Mod : {
  int order, number;
  LEAVE_UNLESS(HOLDS_TWO && IntegerIn(top - 2, &order) && IntegerIn(top - 1, &number))
  REPLACE_TWO(SetInteger(Remainder(order, number)))
  NEXT(1)
}
on_ModConstant : {
  int order;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && IntegerIn(top - 1, &order))
  REPLACE_ONE(SetInteger(Remainder(order, op->first)))
  NEXT(2)
}
  COMPARISON(Equal, a == b, order == 0)
  COMPARISON(NotEqual, !(a == b), order != 0)
  COMPARISON(Less, a < b, order < 0)
  COMPARISON(LessEqual, a <= b, order <= 0)
  COMPARISON(Greater, !(a <= b), order > 0)
  COMPARISON(GreaterEqual, !(a < b), order >= 0)
on_Order : {
  int order;
  LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))
  TELL_STACK
  order = s->Compare();
  ASK_STACK
  PUSH(SetInteger(order))
  NEXT_AFTER_WORK(1)
}
  BITS(BitAnd, a & b)
  BITS(BitOr, a | b)
  BITS(BitXor, a ^ b)
  BITS(ShiftLeft, static_cast<int>(static_cast<unsigned>(a) << (b & 31)))
  BITS(ShiftRight, a >> (b & 31))
on_BitNot : {
  int number;
  if (!(HOLDS_ONE && IntegerIn(top - 1, &number))) goto on_Handler;
  REPLACE_ONE(SetInteger(~number))
  NEXT(1)
}
  LOGIC(And, a && b)
  LOGIC(Or, a || b)
on_Not : {
  bool truth;
  if (!(HOLDS_ONE && FindTruth(top - 1, &truth))) goto on_Handler;
  REPLACE_ONE(SetInteger(!truth))
  NEXT(1)
}

on_Jump:
  JUMP(op)
  JUMP_ON(JumpEqual, order == 0)
  JUMP_ON(JumpNotEqual, order != 0)
  JUMP_ON(JumpLess, order < 0)
  JUMP_ON(JumpLessEqual, order <= 0)
  JUMP_ON(JumpGreater, order > 0)
  JUMP_ON(JumpGreaterEqual, order >= 0)
// Operands that are texts, or that compute their values. To read these, like a field, runs no code
// of a script, so the records stay.
calculate_values : {
  LEAVE_UNLESS(HOLDS_TWO)
  BEGIN_OUTSIDE(op)
  const double b = s->PopD();
  const double a = s->PopD();
  if (stop_flag) return;
  double result;
  switch (op->single) {
    case HotAction::Add: result = a + b; break;
    case HotAction::Sub: result = a - b; break;
    case HotAction::Mul: result = a * b; break;
    default: result = a == 0.0 ? 0.0 : a / b; break;
  }
  s->PushD(result);
  if (RAISED) return;
  ASK_STACK
  ASK_ROWS
  NEXT(1)
}
jump_on_value : {
  LEAVE_UNLESS(HOLDS_ONE)
  BEGIN_OUTSIDE(op)
  const int value = s->PopI();
  if (stop_flag) return;
  ASK_STACK
  ASK_ROWS
  JUMP_IF_AFTER_WORK(Jumps(op, OrderOf(value, 0)), op, 1)
}

on_CompareTopJump : {
  double a, b;
  SINGLE_UNLESS(HOLDS_ONE)
  if (IsDouble(top - 1)) [[likely]] {
    a = top[-1].value.number;
  } else if (top[-1].kind == ZephVM_Stack::KindVariable) {
    SINGLE_UNLESS(Find<IsComparableSlow>(top[-1].value.variable->Real(), &a))
  } else {
    SINGLE_UNLESS(top[-1].kind == ZephVM_Stack::KindInteger)
    a = top[-1].value.integer;
  }
  if (op->right == HotOperand::Constant) {
    b = op->number;
  } else {
    ROW_NUMBER(op->right, op->second, b, unusual_top)
  }
  JUMP_IF(Jumps(op, OrderOf(a, b)), op + 3, 4)
unusual_top:
  other = OPERAND(op->right, op->second);
  SINGLE_UNLESS(FIND_COMPARABLE(other, &b))
  JUMP_IF(Jumps(op, OrderOf(a, b)), op + 3, 4)
}
on_CompareConstant : {
  int order;
  LEAVE_UNLESS(HAS_ROOM && FindOrder(GLOBAL(op->first), op->second, &order))
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareConstantJump : {
  int order;
  LEAVE_UNLESS(FindOrder(GLOBAL(op->first), op->second, &order))
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_CompareGlobals : {
  int order;
  LEAVE_UNLESS(HAS_ROOM)
  if (!FindOrder(GLOBAL(op->first), GLOBAL(op->second), &order)) goto on_Handler;
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareGlobalsJump : {
  int order;
  variable = GLOBAL(op->first);
  if (variable && variable->HoldsText()) {
    second_row = GLOBAL(op->second);
    if (second_row) {
      order = OrderOfWords(variable, second_row, op[1].orders);
      if (order >= 0) JUMP_IF(Jumps(op + 1, order), op + 1, 2)
    }
  }
  if (!FindOrder(variable, GLOBAL(op->second), &order)) {
    if (!FindOrderOfVariables(GLOBAL(op->first), GLOBAL(op->second), &order)) goto on_Handler;
    JUMP_IF_AFTER_WORK(Jumps(op + 1, order), op + 1, 2)
  }
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_ModGlobals : {
  int order, number;
  LEAVE_UNLESS(HAS_ROOM && IntegerOf(GLOBAL(op->first), &order) &&
               IntegerOf(GLOBAL(op->second), &number) && number != 0)
  PUSH(SetInteger(Remainder(order, number)))
  NEXT(1)
}
on_ModGlobalsJump : {
  int order, number;
  LEAVE_UNLESS(IntegerOf(GLOBAL(op->first), &order) && IntegerOf(GLOBAL(op->second), &number) &&
               number != 0)
  JUMP_IF(Jumps(op + 1, OrderOf(Remainder(order, number), 0)), op + 1, 2)
}
on_Increment : {
  int number;
  variable = GLOBAL(op->first);
  LEAVE_UNLESS(IntegerOf(variable, &number))
  variable->Write_Integer(WrapAdd(number, op->second));
  NEXT(1)
}
on_IncrementCompareJump : {
  variable = GLOBAL(op->first);
  SINGLE_UNLESS(variable && variable->HoldsInteger())
  const int number = WrapAdd(variable->plain_integer(), op->second);
  const int end = op[1].second;
  variable->Write_Integer(number);
  if (op[2].single == HotAction::JumpLessEqual) [[likely]]
    JUMP_IF(number <= end, op + 2, 3)
  JUMP_IF(Jumps(op + 2, OrderOf(number, end)), op + 2, 3)
}
on_StoreConstant:
  variable = GLOBAL(op->first);
  LEAVE_UNLESS(variable && variable->IsPlain())
  variable->Write_Integer(op->second);
  NEXT(1)
on_Line:
  current_line = op->first;
  NEXT(1)
on_SourceLine:
  current_line = op[1].first;
  if (source_file == op->first) [[likely]]
    NEXT(2)
  traced_line = 0;
  source_file = op->first;
  source_name = nullptr;
  NEXT(2)
on_SourceFile:
  if (source_file != op->first) {
    traced_line = 0;
    source_file = op->first;
    source_name = nullptr;
  }
  NEXT(1)
  ELEMENT(Element, 1)
  ELEMENT(ElementReadOnly, 0)
  MEMBER(Member, 1)
  MEMBER(MemberReadOnly, 0)
on_NextElement : {
  int number;
  SINGLE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable &&
                IntegerIn(top - 1, &number) && number >= 1)
  first_row = top[-2].value.variable->Real();
  TELL_STACK
  const Stepped stepped = StepTo(first_row, number, VARIABLE(op + 4));
  SINGLE_UNLESS(stepped != Stepped::No)
  ZephVM_Stack::Free(top - 1);
  ZephVM_Stack::Free(top - 2);
  top -= 2;
  if (stepped == Stepped::ToNumber) NEXT(5)
  NEXT_AFTER_WORK(5)
}
on_EachElement : {
  double position;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].kind <= ZephVM_Stack::KindDouble)
  position = op->number + (IsDouble(top - 1) ? top[-1].value.number : top[-1].value.integer);
  first_row = VARIABLE(op + 3);
  const int number = DoubleToInteger(position);
  SINGLE_UNLESS(first_row && number >= 1)
  TELL_STACK
  const Stepped stepped = StepTo(first_row, number, VARIABLE(op + op->second + 4));
  SINGLE_UNLESS(stepped != Stepped::No)
  top[-1].SetDouble(position);
  if (op->second > 5) {
    if (op->second > 6 && source_file != op[5].first) {
      traced_line = 0;
      source_file = op[5].first;
      source_name = nullptr;
    }
    if (op[op->second - 1].single == HotAction::Line) current_line = op[op->second - 1].first;
  }
  const int count = op->second + 5;
  if (stepped == Stepped::ToNumber) NEXT(count)
  NEXT_AFTER_WORK(count)
}
on_Handler:
  TELL_STACK
  instruction_start = op->start;
  first_integer = op->first;
  second_integer = op->second;
  program_counter = op[1].start;
  switch (op->code) {
#define CALL_InLine(name)
#define CALL_Handler(name)
#define CALL_HotHandler(name)    \
  case Instruction::code_##name: \
    name();                      \
    break;
#define CALL_Absent(name)
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) \
  CALL_##run(identifier)
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
#undef CALL_Absent
#undef CALL_HotHandler
#undef CALL_Handler
#undef CALL_InLine
  }
  if (stop_flag | RAISED) return;
  ASK_STACK
  ASK_ROWS
  LEAVE_AFTER_UNLESS(top <= limit, 1)
  NEXT(1)
// A filter, an index's expression or a library may run code of the script, so the way on is that
// after a call.
on_Records : {
  BEGIN_OUTSIDE(op)
#ifndef NDEBUG
  const InstructionCheck check(this, static_cast<Instruction::Code>(op->code), op->first);
#endif
  switch (op->code) {
    case Instruction::code_dbskip: dbskip(); break;
    case Instruction::code_dbgo: dbgo(); break;
    case Instruction::code_dbfind: dbfind(); break;
    case Instruction::code_dbadd: dbadd(); break;
    case Instruction::code_dbupdate: dbupdate(); break;
    case Instruction::code_dbdelete: dbdelete(); break;
    default: dbundelete(); break;
  }
  goto moved;
}
on_OutText : {
  Output* const page = application->CurrentOutput();
  if (page->PutInRoom(op->text, op->length)) [[likely]]
    NEXT(2)
  SINGLE_UNLESS(HAS_ROOM)
  TELL_STACK
  page->Write(op->text, op->length);
  goto written;
}
on_OutVariable : {
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable)
  TELL_STACK
  Output* const page = application->CurrentOutput();
  if (variable->HoldsInteger()) {
    // Numbers are made in the output's own room, if it has some.
    if (char* const room = page->Room(kLongestInteger)) [[likely]] {
      page->Took(WriteInteger(room, variable->plain_integer()));
      NEXT(2)
    }
    char digits[kLongestInteger];
    page->Write(digits, static_cast<int>(WriteInteger(digits, variable->plain_integer()) - digits));
    goto written;
  }
  SINGLE_UNLESS(variable->plain_forms() & Variable::TextForm)
  const String& text = variable->plain_text();
  SINGLE_UNLESS(text.data)
  if (page->Put(text.data, text.length)) NEXT(2)
  goto written;
}
on_OutRounded : {
  char text[MostRounded];
  double number;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE)
  if (IsDouble(top - 1)) {
    number = top[-1].value.number;
  } else {
    SINGLE_UNLESS(IsNumber<HasNumberSlow>(top - 1))
    number = NumberIn(top - 1);
  }
  Output* const page = application->CurrentOutput();
  char* const room = page->Room(MostRounded);
  const int length = WriteRounded(number, op->first, room ? room : text);
  SINGLE_UNLESS(length > 0)
  --top;
  ZephVM_Stack::Free(top);
  TELL_STACK
  op++;
  if (!room) {
    page->Write(text, length);
    goto written;
  }
  page->Took(room + length);
  NEXT(2)
}
on_OutVariableRounded : {
  char text[MostRounded];
  double number;
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && FIND_NUMBER(variable, &number))
  Output* const page = application->CurrentOutput();
  char* const room = page->Room(MostRounded);
  const int length = WriteRounded(number, op[1].first, room ? room : text);
  SINGLE_UNLESS(length > 0)
  TELL_STACK
  op += 2;
  if (!room) {
    page->Write(text, length);
    goto written;
  }
  page->Took(room + length);
  NEXT(2)
}
// The output may set a flag, for example because the client has gone.
written:
  op += 2;
  if (stop_flag | RAISED) goto on_Leave;
  RAN(op)
  GO;

  ZEPH_HOT_PAIRS(GROUP_ADD, )
  ZEPH_HOT_PAIRS(GROUP_SUB, )
  ZEPH_HOT_PAIRS(GROUP_MUL, )
  ZEPH_HOT_PAIRS(GROUP_DIV, )
  ZEPH_HOT_PAIRS(GROUP_LESS, )
  ZEPH_HOT_PAIRS(GROUP_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_LESS_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_GREATER, )
  ZEPH_HOT_PAIRS(GROUP_NOT_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_GREATER_EQUAL, )
  GROUP_INTEGERS(Mod, Remainder(a, b))
  GROUP_INTEGERS(BitAnd, a & b)
  GROUP_INTEGERS(BitOr, a | b)
  GROUP_INTEGERS(BitXor, a ^ b)
  GROUP_INTEGERS(ShiftLeft, static_cast<int>(static_cast<unsigned>(a) << (b & 31)))
  GROUP_INTEGERS(ShiftRight, a >> (b & 31))
  GROUP_TRUTHS(And, (a != 0.0) & (b != 0.0))
  GROUP_TRUTHS(Or, (a != 0.0) | (b != 0.0))
on_BitNotOf : {
  int b;
  INTEGER_OF(op->right, op->second, &b)
  temporaries.number(op->third) = ~b;
  STEP
}
on_BitNotTo : {
  int b;
  INTEGER_OF(op->right, op->second, &b)
  FIND_TARGET
  variable->Write_Integer(~b);
  NEXT(1)
}
on_NotOf : {
  double b;
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  temporaries.number(op->third) = b == 0.0;
  STEP
}
on_NotTo : {
  double b;
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  FIND_TARGET
  variable->Write_Integer(b == 0.0);
  NEXT(1)
}
on_MatchOf : {
  int position;
  MISFIT_UNLESS(FindMatch(op, rows, temporaries, &position))
  temporaries.number(op->third) = position;
  STEP
}
on_MatchTo : {
  int position;
  MISFIT_UNLESS(FindMatch(op, rows, temporaries, &position))
  FIND_TARGET
  variable->Write_Integer(position);
  NEXT(1)
}
on_CompareOf : {
  double a, b;
  COMPARABLE_OF(op->left, op->first, &a, misfit)
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  temporaries.number(op->third) = Jumps(op, OrderOf(a, b));
  STEP
}
  ZEPH_HOT_PAIRS(GROUP_COMPARE, )
on_CompareTo : {
  double a, b;
  COMPARABLE_OF(op->left, op->first, &a, misfit)
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  FIND_TARGET
  variable->Write_Integer(Jumps(op, OrderOf(a, b)));
  NEXT(1)
}
on_CompareLoadedOf : {
  int order;
  bool texts;
  FIND_LOADED_ORDER
  MISFIT_UNLESS(!texts || IsShort(first_row) || IsShort(second_row))
  temporaries.number(op->third) = Jumps(op, order);
  STEP
}
on_CompareLoadedTo : {
  int order;
  bool texts;
  FIND_LOADED_ORDER
  FIND_TARGET
  variable->Write_Integer(Jumps(op, order));
  NEXT_AFTER_WORK(1)
}
on_CompareTextOf : {
  int order;
  variable = BASE_OF(op);
  if (variable && HoldsWord(variable) && (op->orders == 2 || op->orders == 5)) {
    temporaries.number(op->third) = IsSameWord(variable, op) == (op->orders == 2);
    STEP
  }
  MISFIT_UNLESS(op->length <= kShort && FindOrderOfText(variable, op, &order))
  temporaries.number(op->third) = Jumps(op, order);
  STEP
}
on_CompareTextTo : {
  int order;
  variable = BASE_OF(op);
  MISFIT_UNLESS(FindOrderOfText(variable, op, &order))
  FIND_TARGET
  variable->Write_Integer(Jumps(op, order));
  NEXT_AFTER_WORK(1)
}
on_JumpIfText : {
  int order;
  variable = BASE_OF(op);
  if (variable && HoldsWord(variable)) [[likely]] {
    if (op->orders == 2) JUMP_IF(IsSameWord(variable, op), op + 1, 2)
    if (op->orders == 5) JUMP_IF(!IsSameWord(variable, op), op + 1, 2)
  }
  MISFIT_UNLESS(FindOrderOfText(variable, op, &order))
  if (op->length <= kShort && IsShort(variable)) JUMP_IF(Jumps(op, order), op + 1, 2)
  JUMP_IF_AFTER_WORK(Jumps(op, order), op + 1, 2)
}
// Pairs of which one is a variable that is more than a number, or none. Texts are only compared
// with each other.
unusual_comparison : {
  double a, b;
  int order;
  if (op->left == HotOperand::Place || op->right == HotOperand::Place) {
    bool texts;
    LOADED_OF(op->left, op->first, first_row)
    LOADED_OF(op->right, op->second, second_row)
    if (first_row && second_row) {
      order = OrderOfWords(first_row, second_row, op->orders);
      if (order >= 0) JUMP_IF(Jumps(op, order), op, 1)
    }
    FIND_LOADED_ORDER
    if (texts) JUMP_IF_AFTER_WORK(Jumps(op, order), op, 1)
    JUMP_IF(Jumps(op, order), op, 1)
  }
  if (op->left <= HotOperand::Local) {
    variable = OPERAND(op->left, op->first);
    if (variable && variable->HoldsText()) {
      if (op->word) {
        // The test of a truth, which is a comparison with 0 of a number only.
        const String& text = variable->plain_text();
        MISFIT_UNLESS(text.length <= kShort)
        order = Variable::IsTrue(text.data, text.length) ? 2 : 1;
        JUMP_IF(Jumps(op, order), op, 1)
      }
      if (op->right <= HotOperand::Local) {
        second_row = OPERAND(op->right, op->second);
        if (second_row) {
          order = OrderOfWords(variable, second_row, op->orders);
          if (order >= 0) JUMP_IF(Jumps(op, order), op, 1)
        }
      }
    }
  }
  if (ReadOperand<IsComparableSlow>(op->left, op->first, op, rows, temporaries, &a) &&
      ReadOperand<IsComparableSlow>(op->right, op->second, op, rows, temporaries, &b)) {
    JUMP_IF(Jumps(op, OrderOf(a, b)), op, 1)
  }
  MISFIT_UNLESS(op->left <= HotOperand::Local && op->right <= HotOperand::Local)
  variable = OPERAND(op->left, op->first);
  MISFIT_UNLESS(FindOrderOfVariables(variable, OPERAND(op->right, op->second), &order))
  JUMP_IF_AFTER_WORK(Jumps(op, order), op, 1)
}
unusual_pair : {
  double a, b;
  MISFIT_UNLESS(ReadOperand<HasNumberSlow>(op->left, op->first, op, rows, temporaries, &a) &&
                ReadOperand<HasNumberSlow>(op->right, op->second, op, rows, temporaries, &b))
  const HotAction first_to = HotAction::AddToGlobalGlobal;
  const bool stored = op->action >= first_to;
  number_passed = Calculate(op->action, stored ? first_to : HotAction::AddOfGlobalGlobal, a, b);
  if (stored) goto store_double;
  temporaries.number(op->third) = number_passed;
  STEP
}
store_double:
  FIND_TARGET
  variable->Write_Double(number_passed);
  NEXT(1)
store_integer:
  FIND_TARGET
  variable->Write_Integer(static_cast<int>(number_passed));
  NEXT(1)
on_JumpIfNumber:
  JUMP_IF(Jumps(op, OrderOf(DoubleToInteger(temporaries.number(op->first)), 0)), op, 1)
on_CheckRoom:
  MISFIT_UNLESS(s->Limit() - top >= op->first)
  STEP on_NoteLine : current_line = op->first;
  STEP on_NoteSourceFile : if (source_file != op->first) {
    traced_line = 0;
    source_file = op->first;
    source_name = nullptr;
  }
  STEP

  ELEMENT_AT(Global) ELEMENT_AT(Local) ELEMENT_AT(Temporary) ELEMENT_AT(Constant)
      // The element is a variable, of which a number or text is loaded.
      load_variable : if (variable->HoldsNumber()) {
    temporaries.Set(op->third, variable);
  }
  else if (op->load >= HotLoad::NumberOrText && variable->HoldsText()) {
    temporaries.SetText(op->third, variable);
  }
  else {MISFIT_UNLESS(Load(variable, op, &temporaries))} STEP on_LoadElement : {
    int number;
    variable = BASE_OF(op);
    INTEGER_OF(op->right, op->second, &number)
    MISFIT_UNLESS(variable && number >= 1)
    TELL_STACK
    if (const DenseSlot* const slot = variable->SearchSlot(number)) [[likely]] {
      if (slot->IsVariable()) {
        variable = slot->variable();
        goto load_variable;
      }
      temporaries.Set(op->third, *slot);
      STEP
    }
    MISFIT_UNLESS(variable->IsPlain() && variable->HoldsArray())
    variable = variable->At(number, 0);
    MISFIT_UNLESS(variable && Load(variable, op, &temporaries))
    STEP
  }
on_LoadMember : {
  FIND_TREE(HoldsStructure, load_member_slowly)
  if (const DenseSlot* const slot = tree->SearchMember(op->hint)) [[likely]] {
    if (slot->IsVariable()) {
      variable = slot->variable();
      goto load_variable;
    }
    temporaries.Set(op->third, *slot);
    STEP
  }
}
load_member_slowly : {
  DenseSlot bare;
  variable = BASE_OF(op);
  MISFIT_UNLESS(variable)
  TELL_STACK
  if (variable->FindNumberMember(op->text, op->length, &op->hint, &bare)) {
    temporaries.Set(op->third, bare);
    STEP
  }
  MISFIT_UNLESS(variable->IsPlain() && variable->HoldsStructure())
  variable = variable->Member(op->text, op->length, 0, &op->hint);
  MISFIT_UNLESS(variable && Load(variable, op, &temporaries))
  STEP
}
// An element that is created stays if the group does not apply: its instructions create it again,
// in the same order.
on_FindElement : {
  int number;
  variable = BASE_OF(op);
  INTEGER_OF(op->right, op->second, &number)
  MISFIT_UNLESS(variable && number >= 1 && variable->IsPlain() && variable->HoldsArray())
  TELL_STACK
  Variable* found = variable->SearchMade(number);
  if (!found) found = variable->At(number, op->create);
  MISFIT_UNLESS(found)
  temporaries.place(op->third) = found;
  STEP
}
on_FindMember:
  variable = BASE_OF(op);
  MISFIT_UNLESS(variable && variable->IsPlain() && variable->HoldsStructure())
  TELL_STACK
  variable = variable->Member(op->text, op->length, op->create, &op->hint);
  MISFIT_UNLESS(variable)
  temporaries.place(op->third) = variable;
  STEP on_MoveVariable : first_row = OPERAND_ROW(op->left, op->first);
  variable = OPERAND_ROW(op->into, op->third);
  if (first_row && first_row->HoldsDouble()) {
    number_passed = first_row->plain_double();
    if (!variable || !variable->HoldsDouble()) [[unlikely]]
      goto store_double;
    variable->Rewrite(number_passed);
    NEXT(1)
  }
  if (first_row && first_row->HoldsInteger()) {
    number_passed = first_row->plain_integer();
    if (!variable || !variable->HoldsInteger()) [[unlikely]]
      goto store_integer;
    variable->Rewrite(first_row->plain_integer());
    NEXT(1)
  }
  if (first_row && variable && variable->CopyWord(*first_row)) NEXT(1)
  FIND_TARGET
  first_row = OPERAND(op->left, op->first);
  MISFIT_UNLESS(first_row && first_row->IsPlain())
  if (variable->CopyNumber(*first_row) || variable->CopyShort(*first_row)) NEXT(1)
  TELL_STACK
  WAKE(first_row)
  WAKE(variable)
  Assign(variable, first_row);
  NEXT_AFTER_WORK(1)
on_MoveText:
  variable = OPERAND_ROW(op->into, op->third);
  if (variable && variable->WriteWord(op->text, op->length)) NEXT(1)
  FIND_TARGET
  if (variable->WriteShort(op->text, op->length)) NEXT(1)
  TELL_STACK
  variable->SetValue(op->text, op->length);
  NEXT_AFTER_WORK(1)
on_MoveNumber : {
  FIND_TARGET
  if (op->form == HotForm::Integer) {
    variable->Write_Integer(op->left == HotOperand::Constant
                                ? op->first
                                : static_cast<int>(temporaries.number(op->first)));
  } else {
    variable->Write_Double(op->left == HotOperand::Constant ? op->number
                                                            : temporaries.number(op->first));
  }
  NEXT(1)
}
on_MoveElement : {
  int number;
  FIND_TARGET
  Variable* const target = variable;
  variable = BASE_OF(op);
  INTEGER_OF(op->right, op->second, &number)
  MISFIT_UNLESS(variable && number >= 1 && variable != target)
  TELL_STACK
  if (const DenseSlot* const slot = variable->SearchSlot(number)) [[likely]] {
    if (!slot->IsVariable()) {
      if (slot->IsInteger()) {
        target->Write_Integer(slot->integer());
      } else {
        target->Write_Double(slot->number());
      }
      NEXT(1)
    }
    variable = slot->variable();
  } else {
    MISFIT_UNLESS(variable->IsPlain() && variable->HoldsArray())
    variable = variable->At(number, op->create);
    MISFIT_UNLESS(variable)
  }
  variable = variable->Real();
  MISFIT_UNLESS(variable != target && variable->IsPlain())
  if (target->CopyNumber(*variable) || target->CopyShort(*variable)) NEXT(1)
  WAKE(target)
  Assign(target, variable);
  NEXT_AFTER_WORK(1)
}
on_MoveMember : {
  FIND_TREE(HoldsStructure, move_member_slowly)
  if (const DenseSlot* const slot = tree->SearchMember(op->hint)) [[likely]]
    STORE_SLOT(slot, move_member_slowly)
}
move_member_slowly : {
  TELL_STACK
  FIND_TARGET
  Variable* const target = variable;
  variable = BASE_OF(op);
  MISFIT_UNLESS(variable && variable != target)
  DenseSlot bare;
  if (variable->FindNumberMember(op->text, op->length, &op->hint, &bare)) [[likely]] {
    if (bare.IsInteger()) {
      target->Write_Integer(bare.integer());
    } else {
      target->Write_Double(bare.number());
    }
    NEXT(1)
  }
  MISFIT_UNLESS(variable->IsPlain() && variable->HoldsStructure())
  variable = variable->Member(op->text, op->length, op->create, &op->hint);
  MISFIT_UNLESS(variable)
  variable = variable->Real();
  MISFIT_UNLESS(variable != target && variable->IsPlain())
  if (target->CopyNumber(*variable) || target->CopyShort(*variable)) NEXT(1)
  WAKE(target)
  Assign(target, variable);
  NEXT_AFTER_WORK(1)
}
// A number is stored as such only if it is all of its value.
on_StoreElement : {
  int number;
  double value;
  HotForm form = op->form;
  variable = BASE_OF(op);
  INTEGER_OF(op->right, op->second, &number)
  MISFIT_UNLESS(variable && number >= 1)
  if (op->into == HotOperand::Temporary) {
    value = temporaries.number(op->third);
    if (form == HotForm::AsLoaded) {
      form = temporaries.form(op->third);
      if (form == HotForm::AsLoaded) {
        first_row = temporaries.place(op->third);
        goto store_value;
      }
    }
  } else if (op->into == HotOperand::Constant) {
    value = op->number;
  } else if (op->into == HotOperand::Text) {
    MISFIT_UNLESS(variable->IsPlain() && variable->HoldsArray())
    TELL_STACK
    variable = ElementToStore(variable, number);
    if (variable && variable->WriteWord(op->text, op->length)) NEXT(1)
    MISFIT_UNLESS(variable && variable->IsPlain())
    variable->SetValue(op->text, op->length);
    NEXT_AFTER_WORK(1)
  } else {
    first_row = OPERAND(op->into, op->third);
    MISFIT_UNLESS(first_row && first_row->IsPlain())
    if (first_row->HoldsText()) goto store_value;
    if (!FindAlone(first_row, &value, &form)) {
      WAKE(first_row)
      goto store_value;
    }
  }
  TELL_STACK
  if (form == HotForm::Double) {
    MISFIT_UNLESS(variable->WriteElement(number, value))
  } else {
    MISFIT_UNLESS(form == HotForm::Integer &&
                  variable->WriteElement(number, static_cast<int>(value)))
  }
  NEXT(1)
// A text, or a value with elements.
store_value:
  MISFIT_UNLESS(variable->IsPlain() && variable->HoldsArray())
  TELL_STACK
  variable = ElementToStore(variable, number);
  if (variable && variable->CopyWord(*first_row)) NEXT(1)
  MISFIT_UNLESS(variable && variable->IsPlain())
  Assign(variable, first_row);
  NEXT_AFTER_WORK(1)
}
on_StoreMember : {
  FIND_TREE(HoldsStructure, store_member_slowly)
  DenseSlot* const slot = tree->SearchOwnMember(op->hint);
  STORE_IN_SLOT(slot, op->right, op->second, store_member_slowly)
}
store_member_slowly : {
  double value;
  HotForm form = op->form;
  variable = BASE_OF(op);
  MISFIT_UNLESS(variable && variable->HoldsStructure())
  if (op->right == HotOperand::Temporary) {
    value = temporaries.number(op->second);
    if (form == HotForm::AsLoaded) {
      form = temporaries.form(op->second);
      if (form == HotForm::AsLoaded) {
        first_row = temporaries.place(op->second);
        goto store_member_value;
      }
    }
  } else if (op->right == HotOperand::Constant) {
    value = op->number;
  } else {
    first_row = OPERAND(op->right, op->second);
    MISFIT_UNLESS(first_row && first_row->IsPlain())
    if (first_row->HoldsText()) goto store_member_value;
    if (!FindAlone(first_row, &value, &form)) {
      WAKE(first_row)
      goto store_member_value;
    }
  }
  TELL_STACK
  if (form == HotForm::Double) {
    MISFIT_UNLESS(variable->WriteMember(op->text, op->length, &op->hint, value))
  } else {
    const int integer = static_cast<int>(value);
    MISFIT_UNLESS(variable->WriteMember(op->text, op->length, &op->hint, integer))
  }
  NEXT(1)
store_member_value:
  MISFIT_UNLESS(variable->IsPlain())
  TELL_STACK
  variable = variable->Member(op->text, op->length, 1, &op->hint);
  if (variable && variable->CopyWord(*first_row)) NEXT(1)
  MISFIT_UNLESS(variable && variable->IsPlain())
  Assign(variable, first_row);
  NEXT_AFTER_WORK(1)
}
on_PushNumber : {
  const double number = temporaries.number(op->first);
  MISFIT_UNLESS(HAS_ROOM)
  if (op->form == HotForm::Integer) {
    PUSH(SetInteger(static_cast<int>(number)))
  } else {
    PUSH(SetDouble(number))
  }
  NEXT(1)
}
on_PushElement : {
  int number;
  variable = BASE_OF(op);
  INTEGER_OF(op->right, op->second, &number)
  MISFIT_UNLESS(HAS_ROOM && variable && variable->IsPlain() && number >= 1)
  WAKE(variable)
  TELL_STACK
  DenseSlot bare;
  if (!op->create && VALUE_SUFFICES(op[1].plain) && variable->FindBare(number, &bare) &&
      BARE_SUFFICES(op[1].plain, bare)) {
    if (bare.IsInteger()) {
      PUSH(SetInteger(bare.integer()))
    } else {
      PUSH(SetDouble(bare.number()))
    }
    NEXT(1)
  }
  variable = variable->At(number, op->create);
  PUSH(SetVariable(variable ? variable : null_variable))
  NEXT(1)
}
on_PushMember:
  variable = BASE_OF(op);
  MISFIT_UNLESS(HAS_ROOM && variable && variable->IsPlain())
  WAKE(variable)
  TELL_STACK
  variable = variable->Member(op->text, op->length, op->create, &op->hint);
  PUSH(SetVariable(variable ? variable : null_variable))
  NEXT(1)
// A group that keeps failing to apply is set aside for a while, because its beginning is run twice.
misfit : {
  op = op->plain;
  const auto now = static_cast<unsigned short>(elapsed - static_cast<unsigned>(patience));
  if (static_cast<unsigned short>(now - op->misfit_time) > kSeldom) op->misfits = 0;
  op->misfit_time = now;
  if (++op->misfits == kMostMisfits) {
    op->misfits = kRest;
    SET_ACTION(op->fast, HotAction::Rest)
  }
  GO_ALONE;
}
on_Rest:
  op = op->plain;
  if (--op->misfits == 0) SET_ACTION(op->fast, op->fast->single)
  GO_ALONE;
on_Resume:
  op = op->fast;
  GO;
on_ReturnNumber:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  number_passed = op->left == HotOperand::Constant ? op->number : temporaries.number(op->first);
  form_passed = op->form;
  if (RETURNS_TO_DECODED) [[likely]] {
    if (called->uses & HotOp::Stored) goto return_number;
    goto push_result;
  }
  MISFIT_UNLESS(frame->returns_hot && frame->previous->stack->HasRoom(1))
  goto push_result;
on_ReturnText:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  MISFIT_UNLESS(frame->returns_hot && frame->previous->stack->HasRoom(1))
  if (!ReturnsText(called, op, rows[0], counts[0], RETURNS_TO_DECODED)) {
    frame->previous->stack->End()->SetText(op->text, op->length);
    frame->previous->stack->SetEnd(frame->previous->stack->End() + 1);
  }
  goto returned;
on_JoinTo:
  FIND_TARGET
  TELL_STACK
  MISFIT_UNLESS(JoinInVariable(op, rows, temporaries, variable))
  op += op->second;
  NEXT_AFTER_WORK(1)
on_JoinPush:
  MISFIT_UNLESS(HAS_ROOM)
  TELL_STACK
  MISFIT_UNLESS(JoinOnStack(op, rows, temporaries, top))
  ++top;
  op += op->second;
  NEXT(1)
on_JoinReturn:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  MISFIT_UNLESS(frame->returns_hot && frame->previous->stack->HasRoom(1))
  TELL_STACK
  MISFIT_UNLESS(JoinResult(called, op, rows, counts[0], temporaries, RETURNS_TO_DECODED))
  patience = 1;
  goto returned;
on_CallWith : {
  MISFIT_UNLESS(KNOWS_CALLED && HAS_ROOM && called->simple_parameters == op->second)
  STEP
}
// The arguments go straight into the parameters of the kept frame, which no code can see before it
// is entered.
on_SendLocal : { SEND_ROW(HotOperand::Local) }
on_SendGlobal : { SEND_ROW(HotOperand::Global) }
on_SendTemporary : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  const HotForm form = op->form == HotForm::AsLoaded ? temporaries.form(op->first) : op->form;
  if (form == HotForm::Double) {
    parameter->Begin(temporaries.number(op->first));
    STEP
  }
  if (form == HotForm::Integer) {
    parameter->Begin(static_cast<int>(temporaries.number(op->first)));
    STEP
  }
  variable = temporaries.place(op->first);
  goto send_value;
}
on_SendConstant : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  if (op->form == HotForm::Integer) {
    parameter->Begin(op->first);
  } else {
    parameter->Begin(op->number);
  }
  STEP
}
on_SendText : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  TELL_STACK
  parameter->Begin(op->text, op->length);
  STEP
}
// The variable itself and not what it refers to, because it may be made to refer to another.
on_SendReference : {
  Variable* const parameter = PARAMETER;
  variable = OPERAND_ROW(op->left, op->first);
  if (!parameter || !variable) [[unlikely]]
    goto not_begun;
  WAKE(variable)
  parameter->Begin(variable);
  STEP
}
// A value that is no number. Arrays are passed after all other arguments.
send_value : {
  TELL_STACK
  if (BeginWithScalar(PARAMETER, variable, &patience)) {
    STEP
  }
  const int place = HotOp::PositionOf(op->third);
  const HotOp* const end = op + (called->simple_parameters - place);
  if (BeginArguments(op, end, locals + place, rows, temporaries, &patience)) {
    op = end;
    goto on_Enter;
  }
}
// The machine's call makes the arguments again.
not_begun:
  if (!called->variables->Renew(*called->locals)) {
    idle_frames[called->place] = called->next_idle;
    delete called;
  }
  goto misfit;

// Most calls are of functions in this code, with numbers as arguments and a kept frame. HAS_ROOM
// also ensures that the result fits on the caller's stack, so a return to decoded code need not
// test that.
on_Call:
  if (!(KNOWS_CALLED && HAS_ROOM)) [[unlikely]]
    goto unknown_called;
  if (AreNumbers(called->references, locals, called->simple_parameters, bottom, top)) [[likely]] {
    const _VH_Entry* row = locals + called->simple_parameters;
    while (row != locals) {
      Variable* const parameter = (--row)->variable;
      --top;
      if (IsDouble(top)) {
        parameter->Begin(top->value.number);
      } else {
        parameter->Begin(top->value.integer);
      }
    }
  } else {
    const int count = called->simple_parameters;
    if (top - count < bottom || !AreArguments(called->references, count, top)) goto call;
    TELL_STACK
    top = MoveArguments(called->variables, locals, called->references, count, s, &patience);
  }
  RAN_UP_TO(op, called->simple_parameters)
  goto enter;
on_Enter:
  RAN_UP_TO((op + 1)->plain - 1, op->second)
enter : {
  TELL_STACK
  ZephVM_Frame* const caller = frame;
  const HotOp* const returns_to = op + 1;
  idle_frames[static_cast<unsigned>(op->first)] = called->next_idle;
  called->return_offset = returns_to->start;
  called->return_op = returns_to;
  // What is returned at once has the use of the caller's own result.
  const HotOp* const use = returns_to->plain;
  called->uses = static_cast<unsigned char>(use->uses | (use->passed_uses & caller->uses));
  called->error_output = caller->error_output;
  called->output_mode = called->simple_mode;
  called->previous = caller;
  called->depth = caller->depth + 1;
  if (hot_mode != called->simple_mode) [[unlikely]]
    SetOutputMode(called->simple_mode);
  rows[1] = locals;
  counts[1] = local_count;
  frame = called;
  stack = s = called->stack;
  ASK_STACK
  if (called->entry_segment != loaded_segment) {
    const HotCode* const entered = called->entry_code->hot();
    if (!entered || entered->serial() != called->entry_serial) [[unlikely]]
      goto enter_segment;
    USE_SEGMENT(called->entry_code, called->entry_segment)
  }
  op = called->entry;
  STARTED
  if (--patience == 0) [[unlikely]]
    goto look;
  GO;
}
// The code of the function is not decoded, or has been decoded since the last call.
enter_segment:
  program_counter = called->entry_offset;
  wanted_segment = called->entry_segment;
  called->entry_code->NoteRepeat(*dictionary, functions);
  if (const HotCode* const entered = called->entry_code->hot()) {
    called->entry = entered->At(program_counter);
    if (called->entry) called->entry_serial = entered->serial();
  }
  goto moved;
unknown_called:
  if (called && called->simple_parameters >= 0 && called->return_code != code_serial) {
    // The code of another segment is found when it is entered, because it may have changed by then.
    const bool here = called->entry_segment == loaded_segment;
    if (here) {
      called->entry = hot->At(called->entry_offset);
      called->entry_serial = code_serial;
      (void)called->variables->Rows(hot->locals(), &local_count);
    } else {
      called->entry_code = segments->Lookup(called->entry_segment);
    }
    if (here ? called->entry != nullptr : called->entry_code != nullptr) {
      called->return_segment = loaded_segment;
      called->return_to = segment;
      called->return_code = code_serial;
      called->returns_hot = true;
      called->serial = 0;
      goto on_Call;
    }
  }
call : {
  RAN(op)
  TELL_STACK
  Function* function = functions ? functions->Lookup(op->first) : nullptr;
  LEAVE_UNLESS(function && !log_gate.Wants(Log_OfCalls))
  instruction_start = op->start;
  program_counter = op[1].start;
#ifndef NDEBUG
  const InstructionCheck check(this, Instruction::code_call, op->first);
#endif
  if (function->flags() & Function_External) {
    CallExternalFunction(function);
    hot_mode = NoMode;
  } else {
    CallFunction(function);
  }
  goto moved;
}

// A concatenation is the last argument of the library's function. It goes straight into its
// parameter.
on_JoinCall : {
  const HotOp* const call_record = op + 1 + op->second;
  if (!IsBound(call_record->first)) goto on_JoinPush;
  MISFIT_UNLESS(HAS_ROOM)
  TELL_STACK
  char joined[kMostJoinedBytes];
  const int length = Join(op + 1, call_record, rows, temporaries, joined);
  MISFIT_UNLESS(length >= 0)
  op = call_record;
  RAN_UP_TO(op, 1)
  instruction_start = op->start;
  program_counter = op[1].start;
  variable = CallBoundFunction(op->first, joined, length);
  goto called_library;
}
on_CallExternal:
  if (!(HAS_ROOM && IsBound(op->first))) [[unlikely]]
    goto call;
  RAN(op)
  TELL_STACK
  instruction_start = op->start;
  program_counter = op[1].start;
  variable = CallBoundFunction(op->first, nullptr, 0);
// The function has returned this variable, or failed. The code may be another one now.
called_library:
  if (!variable || stop_flag || RAISED || wanted_segment != loaded_segment ||
      segment->hot() != hot || hot->serial() != code_serial || program_counter != op[1].start)
      [[unlikely]] {
    if (variable) stack->PushHeld(variable);
    hot_mode = NoMode;
    goto moved;
  }
  hot_mode = NoMode;
  s = stack;
  ASK_STACK
  ASK_ROWS
  // A result that the next instruction writes does not become an entry in between.
  if (op->refer && (variable->plain_forms() & Variable::TextForm)) {
    const String& text = variable->plain_text();
    if (char* const room =
            text.length > 0 ? application->CurrentOutput()->Room(text.length) : nullptr) {
      CopyText(room, text.data, static_cast<size_t>(text.length));
      application->CurrentOutput()->Took(room + text.length);
      op += 2;
      GO
    }
  }
  PUSH(SetVariable(variable))
  op++;
  GO

      on_ReturnNothing : {
    LEAVE_UNLESS(frame->returns_hot)
    ZephVM_Stack* const callers = frame->previous->stack;
    Entry* const value = callers->End();
    LEAVE_UNLESS(callers->HasRoom(1))
    value->SetText("", 0);
    callers->SetEnd(value + 1);
    goto returned;
  }
on_Return : {
  LEAVE_UNLESS(frame->returns_hot && HOLDS_ONE)
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  if (top[-1].kind <= ZephVM_Stack::KindDouble && RETURNS_TO_DECODED) {
    --top;
    form_passed = IsDouble(top) ? HotForm::Double : HotForm::Integer;
    number_passed = IsDouble(top) ? top->value.number : top->value.integer;
    if (called->uses & HotOp::Stored) goto return_number;
    goto push_result;
  }
  ZephVM_Stack* const callers = frame->previous->stack;
  Entry* const value = callers->End();
  LEAVE_UNLESS(callers->HasRoom(1))
  // A borrowed variable may be a local one, which does not outlive the call.
  LEAVE_UNLESS(top[-1].kind != ZephVM_Stack::KindVariable || top[-1].deletable)
  --top;
  value->CopyFrom(*top);
  callers->SetEnd(value + 1);
  goto returned;
}
// If the caller uses only the value of the result, pass that and leave the variable. The variable
// must have no other form and no other holder. A caller that only stores the result gets a number,
// a short text or an array in its variable, and goes on after its pop.
on_ReturnVariable : {
  variable = ROW_OF(op);
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  if (called->return_code == code_serial && variable && variable->HoldsNumberAlone() &&
      (called->uses & (HotOp::UsedAsValue | HotOp::Stored)) == HotOp::UsedAsValue &&
      variable->plain_count() == 1) {
    form_passed = HotForm::Double;
    if (variable->HoldsDouble()) {
      number_passed = variable->plain_double();
    } else {
      number_passed = variable->plain_integer();
      if (!(called->uses & HotOp::UsedAsNumber)) form_passed = HotForm::Integer;
    }
    goto push_result;
  }
  SINGLE_UNLESS(HAS_ROOM && frame->returns_hot && variable && variable->IsPlain() &&
                variable->plain_count() == 1)
  if (RETURNS_TO_DECODED) [[likely]] {
    const HotOp* const use = called->return_op->plain;
    Variable* target;
    if ((called->uses & HotOp::Stored) &&
        FindTarget(use, frame->previous->variables, rows[0], counts[0], &target)) {
      const bool copied = target && (target->CopyNumber(*variable) || target->CopyShort(*variable));
      const bool taken = !copied && target && target->TakeValue(variable);
      if (taken) patience = 1;
      if (copied || taken) {
        called->return_offset = use[1].start;
        called->return_op = use[1].fast ? use[1].fast : use + 1;
        goto returned;
      }
    } else {
      SINGLE_UNLESS((frame->uses & HotOp::UsedAsValue) ||
                    PassesToTarget(called, rows[0], counts[0]))
    }
  } else {
    SINGLE_UNLESS(frame->uses & HotOp::UsedAsValue)
  }
  if (FindAlone(variable, &number_passed, &form_passed)) {
    if (called->uses & HotOp::UsedAsNumber) form_passed = HotForm::Double;
    goto push_result;
  }
  char* text;
  int length, allocated;
  // As a number, a text on the stack may be another one than the variable that had it.
  SINGLE_UNLESS(!(frame->uses & HotOp::UsedAsNumber) &&
                variable->TakeText(&text, &length, &allocated))
  Entry* const value = frame->previous->stack->End();
  value->SetOwnedText(text, length, allocated);
  frame->previous->stack->SetEnd(value + 1);
  goto returned;
}
// Passes a number in its form to decoded code. A caller that only stores it gets it in its
// variable.
return_number : {
  const HotOp* const use = called->return_op->plain;
  Variable* target;
  if (FindTarget(use, called->previous->variables, rows[0], counts[0], &target) && target) {
    if (form_passed == HotForm::Double) {
      target->Write_Double(number_passed);
    } else {
      target->Write_Integer(static_cast<int>(number_passed));
    }
    called->return_offset = use[1].start;
    called->return_op = use[1].fast ? use[1].fast : use + 1;
    goto returned;
  }
}
push_result : {
  ZephVM_Stack* const callers = called->previous->stack;
  Entry* const value = callers->End();
  if (form_passed == HotForm::Double) {
    value->SetDouble(number_passed);
  } else {
    value->SetInteger(static_cast<int>(number_passed));
  }
  callers->SetEnd(value + 1);
}
// The value is on the caller's stack, or in its variable. Whatever else the function left on its
// own stack is freed, and the frame is kept.
returned : {
  while (HOLDS_ONE) [[unlikely]] ZephVM_Stack::Free(--top);
  TELL_STACK
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  ZephVM_Frame* const caller = called->previous;
  frame = caller;
  stack = s = caller->stack;
  // With a return_code it came from the frames that are kept.
  if (called->return_code != 0 && called->variables->Renew(*called->locals)) [[likely]] {
    ZephVM_FunctionFrame** const idle = &idle_frames[called->place];
    called->next_idle = *idle;
    *idle = called;
    op = called->return_op;
    if (called->return_code != code_serial) {
      if (RETURNS_TO_DECODED) [[likely]] {
        USE_SEGMENT(called->return_to, called->return_segment)
      } else {
        wanted_segment = called->return_segment;
        program_counter = called->return_offset;
        op = nullptr;
      }
    }
  } else {
    op = nullptr;
    wanted_segment = called->return_segment;
    program_counter = called->return_offset;
    KeepFrame(called);
  }
  if (hot_mode != caller->output_mode) [[unlikely]]
    SetOutputMode(caller->output_mode);
  if (!op) [[unlikely]]
    goto moved;
  ASK_STACK
  rows[1] = caller->variables->Rows(&counts[1]);
  GO;
}

#ifdef __clang__
dispatch:
  __extension__({ goto* place; });
#endif

look:
  elapsed += kPatience;
  patience = kPatience;
  if (RAISED) goto on_Leave;
  GO;

// The called code may have written to this segment, which drops its decoded form, or be in another
// one.
moved:
  if (stop_flag || RAISED) return;
  if (wanted_segment != loaded_segment) {
    if (!segments->Lookup(wanted_segment)) return;
    LoadSegment();
  }
  if (segment->hot() != hot) {
    hot = segment->hot();
    if (!hot) return;
  }
  hot->SetPlaces(places);
  code_serial = hot->serial();
  op = hot->At(program_counter);
  if (!op) return;
entered:
  s = stack;
  ASK_STACK
  ASK_ROWS
  STARTED
  LEAVE_UNLESS(top <= limit)
  GO;

on_Leave:
  if (!stop_flag) {
    RAN(op)
  }
  TELL_STACK
  program_counter = op->start;
#undef GO_TO_PLACE
#undef SET_ACTION
#undef GO
#undef GO_ALONE
#undef STARTED
#undef RAN
#undef RAN_UP_TO
#undef NEXT
#undef RAISED
#undef NEXT_AFTER_WORK
#undef SINGLE_UNLESS
#undef LEAVE_UNLESS
#undef JUMP
#undef JUMP_IF
#undef JUMP_IF_AFTER_WORK
#undef ROW_AT
#undef ROW_OF
#undef MADE_AT
#undef VARIABLE
#undef GLOBAL
#undef WAKE
#undef TELL_STACK
#undef ASK_STACK
#undef ASK_ROWS
#undef LEAVE_AFTER_UNLESS
#undef PUSH
#undef BEGIN_OUTSIDE
#undef FIND_KNOWN_FIELD
#undef REPLACE_ONE
#undef REPLACE_TWO
#undef HOLDS_ONE
#undef HOLDS_TWO
#undef HAS_ROOM
#undef ONE_NUMBER
#undef ONE_COMPARABLE
#undef TWO_DOUBLES
#undef TWO_NUMBERS
#undef TWO_COMPARABLE
#undef IS_NUMBER
#undef FIND_NUMBER
#undef FIND_COMPARABLE
#undef KNOWS_CALLED
#undef RETURNS_TO_DECODED
#undef USE_SEGMENT
#undef VALUE_SUFFICES
#undef BARE_SUFFICES
#undef ARITHMETIC
#undef UPDATE
#undef COMPARISON
#undef BITS
#undef LOGIC
#undef JUMP_ON
#undef ELEMENT
#undef MEMBER
#undef MISFIT_UNLESS
#undef STEP
#undef NUMBER_Global
#undef NUMBER_Local
#undef NUMBER_Temporary
#undef NUMBER_Constant
#undef ROW_NUMBER
#undef OPERAND_ROW
#undef ROW_INTEGER
#undef FIND_TREE
#undef STORE_DOUBLE
#undef STORE_SLOT
#undef WRITE_SLOT
#undef STORE_IN_SLOT
#undef NO_TEXT_Global
#undef NO_TEXT_Local
#undef NO_TEXT_Temporary
#undef NO_TEXT_Constant
#undef INDEX_Global
#undef INDEX_Local
#undef INDEX_Temporary
#undef INDEX_Constant
#undef FIND_ELEMENT
#undef ELEMENT_AT
#undef BASE_OF
#undef GROUP_ARITHMETIC
#undef GROUP_ADD
#undef GROUP_SUB
#undef GROUP_MUL
#undef GROUP_DIV
#undef GROUP_COMPARE
#undef GROUP_LESS
#undef GROUP_EQUAL
#undef GROUP_LESS_EQUAL
#undef GROUP_GREATER
#undef GROUP_NOT_EQUAL
#undef GROUP_GREATER_EQUAL
#undef GROUP_JUMP
#undef STORE_INTEGER
#undef GROUP_INTEGERS
#undef GROUP_TRUTHS
#undef OPERAND
#undef INTEGER_OF
#undef COMPARABLE_OF
#undef LOADED_OF
#undef LOADED_NUMBER
#undef FIND_LOADED_ORDER
#undef SEND_ROW
#undef PARAMETER
#undef FIND_TARGET
}
