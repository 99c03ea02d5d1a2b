// The operand stack: conversions of its entries, and comparison and concatenation of pairs. Tested
// in tests/base/machine/ZephVM_StackTest.cpp.

#include "base/machine/ZephVM_Stack.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "base/core/CopyText.h"
#include "base/core/LinkBuffer.h"
#include "base/core/Numbers.h"
#include "base/core/memcmpi.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/DeferredText.h"
#include "base/values/Variable.h"

namespace {

using Entry = ZephVM_Stack::Stack_Entry;

const int kFirstBlock = 512;
const int kNextBlock = 4096;

const char kNothing[] = "";

// The text of an entry, and the buffer that has to be freed after its use, if any.
struct EntryText {
  const char* data = kNothing;
  int length = 0;
  std::unique_ptr<char[]> temporary;
};

// The text of a variable; one without a buffer reads as empty.
const char* VariableText(Variable* variable, int* length) {
  String& text = variable->value();
  *length = text.data ? text.length : 0;
  return text.data ? text.data : kNothing;
}

// The entry's text, in place; for a number, in a temporary buffer.
EntryText TextOf(const Entry* entry) {
  EntryText text;
  switch (entry->kind) {
    case ZephVM_Stack::KindInteger:
      text.temporary.reset(ZephApplication::itos(entry->value.integer, &text.length, nullptr));
      text.data = text.temporary.get();
      break;
    case ZephVM_Stack::KindDouble:
      text.temporary.reset(ZephApplication::dtos(entry->value.number, &text.length, nullptr, -1));
      text.data = text.temporary.get();
      break;
    case ZephVM_Stack::KindString:
      text.data = entry->value.text;
      text.length = entry->length;
      break;
    case ZephVM_Stack::KindVariable:
      text.data = VariableText(entry->value.variable, &text.length);
      break;
    default: text.data = entry->value.buffer->data(&text.length, nullptr);
  }
  return text;
}

// Whether a variable's text stays in place until the variable is next assigned. Computed values and
// aggregates are rendered again by every read.
bool HasStableText(Variable* variable) {
  Variable* real = variable->RealIdentity();
  return real->type() < VariableComputedInteger && real->aggregatetype() == AggregateNone;
}

bool TextIsTrue(const char* data, int length) {
  return Variable::IsTrue(data, length) != 0;
}

int PositionOf(const char* data, int length) {
  if (length == 3 && memcmpi(data, "top", 3) == 0) return -1;
  if (length == 6 && memcmpi(data, "bottom", 6) == 0) return -2;
  return ZephApplication::stoi(data, length, nullptr);
}

}  // namespace

ZephVM_Stack::ZephVM_Stack(ZephVM* vm) : vm(vm) {}

bool ZephVM_Stack::IsSound() const {
  if (top < entries || top > limit || limit - entries > SS) return false;
  if (top == entries) return true;
  const Stack_Entry& last = top[-1];
  switch (last.kind) {
    case KindInteger:
    case KindDouble: return !last.deferred;
    case KindString: return last.deferred ? last.value.pending != nullptr : last.length >= 0;
    case KindVariable:
      return !last.deferred && last.value.variable && last.value.variable->plain_count() > 0;
    case KindLinkBuffer: return last.value.buffer != nullptr;
    default: return false;
  }
}

ZephVM_Stack::~ZephVM_Stack() {
  while (top > entries) Free(--top);
  if (entries != first_entries) ::operator delete(entries);
}

bool ZephVM_Stack::Grow() {
  const int used = Entries();
  if (used == SS) {
    vm->FatalError("Stack overflow");
    return false;
  }
  const int hidden = Capacity - SS;
  auto* all = static_cast<Entry*>(::operator new(sizeof(Entry) * Capacity, std::nothrow));
  if (!all) {
    vm->OutOfMemory();
    return false;
  }
  memcpy(all, entries - hidden, sizeof(Entry) * static_cast<size_t>(hidden + used));
  entries = all + hidden;
  top = entries + used;
  limit = all + Capacity;
  return true;
}

void ZephVM_Stack::Underflow() {
  vm->FatalError("Stack underflow");
}

Entry* ZephVM_Stack::Top() {
  if (top == entries) {
    Underflow();
    return nullptr;
  }
  return Settled(top - 1);
}

void ZephVM_Stack::Drop() {
  Free(--top);
}

void ZephVM_Stack::Disown(Entry* entry) {
  entry->deletable = entry->private_copy = 0;
}

void ZephVM_Stack::FreeText(Entry* entry) {
  if (entry->deferred) {
    delete entry->value.pending;
  } else if (entry->kind == KindString) {
    delete[] entry->value.text;
  } else if (entry->kind == KindLinkBuffer) {
    delete entry->value.buffer;
  }
}

// Puts a deferred text together, as the kind that the entry has.
void ZephVM_Stack::Settle(Entry* entry) {
  int length;
  const bool chained = entry->kind == KindLinkBuffer;
  char* text = entry->value.pending->Release(&length);
  entry->kind = KindString;
  entry->deferred = 0;
  entry->value.text = text;
  entry->length = length;
  entry->size = length + 1;
  if (chained) MakeLinkBuffer(entry);
}

void ZephVM_Stack::PushS(const char* data, int length, int size, int deletable) {
  Entry* entry = Room();
  if (!entry) {
    if (deletable) delete[] data;
    return;
  }
  char* text = const_cast<char*>(data ? data : kNothing);
  *entry = {KindString, deletable != 0, 0, 0, {.text = text}, length, size};
}

void ZephVM_Stack::PushLinkBuffer(LinkBuffer* buffer, int deletable) {
  Entry* entry = Room();
  if (!entry) {
    if (deletable) delete buffer;
    return;
  }
  *entry = {KindLinkBuffer, deletable != 0, 0, 0, {.buffer = buffer}, 8, 8};
}

void ZephVM_Stack::PushV(Variable* variable, int addref, int deletable) {
  if (!variable) {
    vm->FatalError("Invalid variable reference");
    return;
  }
  Entry* entry = Room();
  if (!entry) {
    if (deletable && !addref) variable->DecRefCount();
    return;
  }
  if (addref) variable->IncRefCount();
  *entry = {KindVariable, deletable != 0, 0, 0, {.variable = variable}, 8, 8};
}

void ZephVM_Stack::Push(ZephVM_Stack* from, int count) {
  // The equality is the limit that scripts can observe; the other test only keeps the array in
  // bounds.
  const long end = static_cast<long>(count) + Entries();
  if (end - 1 == SS || end > SS || (count > limit - top && !Grow())) {
    vm->FatalError("Stack overflow");
    return;
  }
  if (from->Entries() < count) {
    vm->FatalError("Stack underflow");
    return;
  }
  for (int i = 0; i < count; i++) {
    Entry* entry = top++;
    entry->CopyFrom(*--from->top);
    if (entry->kind != KindVariable || entry->deletable) continue;
    if (!entry->private_copy) entry->value.variable->IncRefCount();
    entry->private_copy = 0;
    entry->deletable = 1;
  }
}

void ZephVM_Stack::KeepTop() {
  if (Entries() < 2) return;
  OwnTop();
  Entry* kept = top - 1;
  for (Entry* entry = entries; entry < kept; entry++) Free(entry);
  entries->CopyFrom(*kept);
  top = entries + 1;
}

void ZephVM_Stack::OwnTop() {
  if (top == entries || top[-1].Owns()) return;
  Entry* entry = top - 1;
  if (entry->kind == KindString) {
    entry->value.text = NewTextCopy(entry->value.text, entry->length);
    entry->size = entry->length + 1;
  } else if (entry->kind == KindLinkBuffer) {
    entry->value.buffer = ConvertEntryToDeletableLinkBuffer(entry);
  } else if (entry->kind == KindVariable) {
    entry->value.variable->IncRefCount();
  } else {
    return;
  }
  entry->deletable = 1;
}

int ZephVM_Stack::PopConvertedI() {
  Entry* entry = Top();
  if (!entry) return 0;
  int value;
  if (entry->kind == KindVariable) {
    value = entry->value.variable->Read_Integer();
  } else {
    EntryText text = TextOf(entry);
    value = ZephApplication::stoi(text.data, text.length, nullptr);
  }
  Drop();
  return value;
}

double ZephVM_Stack::PopConvertedD() {
  Entry* entry = Top();
  if (!entry) return 0.0;
  int not_numeric;
  const double value = NumericValue(entry, &not_numeric);
  Drop();
  return value;
}

bool ZephVM_Stack::PopBool() {
  Entry* entry = Top();
  if (!entry) return false;
  bool value;
  switch (entry->kind) {
    case KindInteger: value = entry->value.integer != 0; break;
    case KindDouble: value = entry->value.number != 0.0; break;
    case KindVariable: value = entry->value.variable->Read_Truth() != 0; break;
    default: {
      EntryText text = TextOf(entry);
      value = TextIsTrue(text.data, text.length);
    }
  }
  Drop();
  return value;
}

bool ZephVM_Stack::PopNull() {
  Entry* entry = Top();
  if (!entry) return false;
  bool value = false;
  if (entry->kind == KindVariable) {
    value = entry->value.variable->IsNULL() != 0;
  } else if (entry->kind == KindString || entry->kind == KindLinkBuffer) {
    value = TextOf(entry).length == 0;
  }
  Drop();
  return value;
}

int ZephVM_Stack::PopDBPosition() {
  Entry* entry = Peek();
  if (!entry || entry->kind == KindInteger || entry->kind == KindDouble) return PopI();
  int value;
  {
    EntryText text = TextOf(entry);
    value = PositionOf(text.data, text.length);
  }
  Drop();
  return value;
}

char* ZephVM_Stack::PopS(int* length, int* size, int* deletable) {
  if (Entry* entry = Top()) {
    char* text = ConvertEntryToString(entry, length, size, deletable);
    top--;
    return text;
  }
  *length = *size = *deletable = 0;
  return const_cast<char*>(kNothing);
}

char* ZephVM_Stack::PopS_NS(int* length, int* size, int* deletable) {
  int raw_length, raw_size, raw_deletable;
  char* raw = PopS(&raw_length, &raw_size, &raw_deletable);
  std::unique_ptr<char[]> owned(raw_deletable ? raw : nullptr);
  *deletable = 1;
  return ZephApplication::StripNULLs(raw, raw_length, length, size);
}

void ZephVM_Stack::PopConvertedV(Variable* target) {
  if (!target) {
    vm->FatalError("Invalid variable reference");
    return;
  }
  if (top == entries) {
    Underflow();
    return;
  }
  Entry* entry = top - 1;
  if (entry->kind == KindVariable) {
    // A result that only this entry holds is moved.
    if (!entry->Owns() || !target->Real()->TakeValue(entry->value.variable)) {
      target->SetValue(*entry->value.variable);
    }
    Free(--top);
    return;
  }
  if (entry->deferred) {
    top--;
    entry->value.pending->Assign(target, entry->kind == KindLinkBuffer);
    return;
  }
  switch (entry->kind) {
    case KindInteger: target->SetValue_Integer(entry->value.integer); break;
    case KindDouble: target->SetValue_Double(entry->value.number); break;
    case KindString: target->SetValue(entry->value.text, entry->length); break;
    case KindLinkBuffer:
      if (entry->deletable) {
        int length, size;
        char* text = entry->value.buffer->release(&length, &size, 1);
        text[length] = '\0';
        target->SetValue_Nocopy(text, length, size);
      } else {
        EntryText text = TextOf(entry);
        target->SetValue(text.data, text.length);
      }
  }
  Free(--top);
}

int ZephVM_Stack::PopV(Variable** out, int* deletable) {
  *out = nullptr;
  *deletable = 0;
  Entry* entry = Top();
  if (!entry) return 0;
  if (entry->kind != KindVariable) {
    Drop();
    vm->FatalError("Expected variable, found constant");
    return 0;
  }
  *out = entry->value.variable;
  *deletable = entry->deletable || entry->private_copy;
  top--;
  return 1;
}

double ZephVM_Stack::NumericValue(const Entry* entry, int* not_numeric) {
  *not_numeric = 0;
  switch (entry->kind) {
    case KindInteger: return entry->value.integer;
    case KindDouble: return entry->value.number;
    case KindVariable: return entry->value.variable->value_compare(not_numeric);
    case KindString:
      return ZephApplication::stod(entry->value.text, entry->length, entry->size, not_numeric);
    default: {
      int length, size;
      const char* text = entry->value.buffer->data(&length, &size);
      return ZephApplication::stod(text, length, size, not_numeric);
    }
  }
}

int ZephVM_Stack::CompareTexts(const Entry* left, const Entry* right) {
  EntryText a = TextOf(left);
  // If both sides are the same computed variable, the second read overwrites the first text.
  if (left->kind == KindVariable && !HasStableText(left->value.variable)) {
    a.temporary.reset(NewTextCopy(a.data, a.length));
    a.data = a.temporary.get();
  }
  EntryText b = TextOf(right);
  int shorter = a.length < b.length ? a.length : b.length;
  int i = 0;
  // Long equal parts are skipped in blocks.
  constexpr int Block = 4096;
  while (shorter - i > Block && memcmp(a.data + i, b.data + i, Block) == 0) i += Block;
  for (; i < shorter; i++) {
    int difference = static_cast<unsigned char>(a.data[i]) - static_cast<unsigned char>(b.data[i]);
    if (difference != 0) return difference;
  }
  return a.length == b.length ? 0 : a.length < b.length ? -1 : 1;
}

namespace {
// The text that an entry has without a conversion; null if it has none.
const char* TextAtHand(const ZephVM_Stack::Stack_Entry* entry, int* length) {
  if (entry->kind == ZephVM_Stack::KindString && !entry->deferred) {
    *length = entry->length;
    return entry->value.text;
  }
  if (entry->kind != ZephVM_Stack::KindVariable) return nullptr;
  const Variable* const variable = entry->value.variable->Real();
  if (!(variable->plain_forms() & Variable::TextForm)) return nullptr;
  *length = variable->plain_text().length;
  return variable->plain_text().data;
}
}  // namespace

bool ZephVM_Stack::CompareWords(const Entry* left, const Entry* right, int* order) {
  int a_length, b_length;
  const char* const a = TextAtHand(left, &a_length);
  if (!a) return false;
  const char* const b = TextAtHand(right, &b_length);
  if (!b) return false;
  if (ZephApplication::MayBeNumber(a, a_length)) {
    if (ZephApplication::MayBeNumber(b, b_length)) return false;
    // A comparison first reads the left side as a number, which a variable keeps.
    int ignored;
    if (left->kind == KindVariable) left->value.variable->value_compare(&ignored);
  }
  *order = memcmp(a, b, static_cast<size_t>(std::min(a_length, b_length)));
  if (*order == 0) *order = a_length - b_length;
  return true;
}

int ZephVM_Stack::CompareConverted() {
  if (Entries() < 2) {
    Underflow();
    return 0;
  }
  const int result = Compare(Settled(top - 2), Settled(top - 1));
  Drop();
  Drop();
  return result;
}

int ZephVM_Stack::Compare(const Entry* left, const Entry* right) {
  int not_numeric;
  const double a = NumericValue(left, &not_numeric);
  const double b = not_numeric ? 0.0 : NumericValue(right, &not_numeric);
  if (not_numeric) return CompareTexts(left, right);
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

void ZephVM_Stack::Dupe() {
  if (top == entries) {
    vm->FatalError("Stack underflow");
    return;
  }
  Settled(top - 1);
  Entry* copy = Room();
  if (!copy) return;
  const Entry* source = copy - 1;
  copy->CopyFrom(*source);
  copy->deletable = 0;
  copy->private_copy = 0;
  if (!source->deletable && !source->private_copy) return;
  // The source may be consumed first, so the copy owns its value. The entry counts as not pushed
  // until it does, since what follows may throw.
  top--;
  if (source->kind == KindString) {
    copy->value.text = NewTextCopy(source->value.text, source->length);
    if (copy->size > copy->length) copy->size = copy->length + 1;
  } else if (source->kind == KindVariable) {
    source->value.variable->IncRefCount();
  } else if (source->kind == KindLinkBuffer) {
    auto buffer = std::make_unique<LinkBuffer>(kFirstBlock, kNextBlock);
    buffer->cat(source->value.buffer);
    copy->value.buffer = buffer.release();
  }
  copy->private_copy = source->kind >= KindString;
  top++;
}

void ZephVM_Stack::Swap(int a, int b) {
  if (a < 0 || b < 0 || a >= Entries() || b >= Entries()) {
    vm->FatalError("Invalid stack reference");
    return;
  }
  if (a == b) return;
  Swap(top - 1 - a, top - 1 - b);
}

bool ZephVM_Stack::KeptElsewhere(const Entry* entry) const {
  Variable* variable = entry->value.variable;
  int others = variable->refcount() - 1;
  if (others <= 0) return false;
  // Entries that the same instruction may consume next do not keep the text alive, so their counts
  // are subtracted.
  if (others <= Entries()) {
    for (const Entry* below = entries; below < entry; below++) {
      if (below->kind == KindVariable && below->value.variable == variable &&
          (below->deletable || below->private_copy)) {
        others--;
      }
    }
  }
  return others > 0;
}

char* ZephVM_Stack::ConvertEntryToString(Entry* entry, int* length, int* size, int* deletable) {
  const bool owned = entry->deletable || entry->private_copy;
  *deletable = 1;
  switch (entry->kind) {
    case KindInteger: return ZephApplication::itos(entry->value.integer, length, size);
    case KindDouble: return ZephApplication::dtos(entry->value.number, length, size, -1);
    case KindString:
      *length = entry->length;
      *size = entry->size;
      *deletable = owned;
      return entry->value.text;
    case KindLinkBuffer: {
      if (owned) {
        const std::unique_ptr<LinkBuffer> buffer(entry->value.buffer);
        entry->SetInteger(0);
        char* text = buffer->release(length, size, 1);
        text[*length] = '\0';
        return text;
      }
      EntryText text = TextOf(entry);
      *length = text.length;
      *size = text.length + 1;
      return NewTextCopy(text.data, text.length);
    }
  }
  Variable* variable = entry->value.variable;
  int bytes;
  const char* data = VariableText(variable, &bytes);
  *length = bytes;
  if (HasStableText(variable) && (!owned || KeptElsewhere(entry))) {
    *size = bytes;
    *deletable = 0;
    if (owned) variable->DecRefCount();
    return const_cast<char*>(data);
  }
  *size = bytes + 1;
  char* copy = NewTextCopy(data, bytes);
  if (owned) variable->DecRefCount();
  return copy;
}

// Moves or copies an entry's value to the end of the buffer's text; the entry owns nothing
// afterwards.
void ZephVM_Stack::AppendEntry(LinkBuffer* buffer, Entry* entry) {
  const bool moved = entry->deletable;
  switch (entry->kind) {
    case KindInteger: buffer->cat(entry->value.integer); break;
    case KindDouble: buffer->cat(entry->value.number); break;
    case KindVariable: buffer->cat(entry->value.variable); break;
    case KindString:
      if (moved) {
        const Entry taken = *entry;
        entry->SetInteger(0);
        buffer->cat_nocopy(taken.value.text, taken.length, taken.size);
      } else {
        buffer->cat(entry->value.text, entry->length);
      }
      break;
    default:
      if (moved) {
        buffer->cat_destroy(entry->value.buffer);
        Disown(entry);
      } else {
        buffer->cat(entry->value.buffer);
      }
  }
  Free(entry);
  Disown(entry);
}

// The mirror of AppendEntry: puts the value before the buffer's text.
void ZephVM_Stack::PrependEntry(LinkBuffer* buffer, Entry* entry) {
  const bool moved = entry->deletable;
  switch (entry->kind) {
    case KindInteger: buffer->prepend(entry->value.integer); break;
    case KindDouble: buffer->prepend(entry->value.number); break;
    case KindVariable: buffer->prepend(entry->value.variable); break;
    case KindString:
      if (moved) {
        const Entry taken = *entry;
        entry->SetInteger(0);
        buffer->prepend_nocopy(taken.value.text, taken.length, taken.size);
      } else {
        buffer->prepend(entry->value.text, entry->length);
      }
      break;
    default:
      if (moved) {
        buffer->prepend_destroy(entry->value.buffer);
        Disown(entry);
      } else {
        buffer->prepend(entry->value.buffer);
      }
  }
  Free(entry);
  Disown(entry);
}

LinkBuffer* ZephVM_Stack::ConvertEntryToDeletableLinkBuffer(Entry* entry) {
  if (entry->kind == KindLinkBuffer && entry->deletable) return entry->value.buffer;
  auto buffer = std::make_unique<LinkBuffer>(kFirstBlock, kNextBlock);
  AppendEntry(buffer.get(), entry);
  return buffer.release();
}

void ZephVM_Stack::MakeLinkBuffer(Entry* entry) {
  entry->value.buffer = ConvertEntryToDeletableLinkBuffer(entry);
  entry->kind = KindLinkBuffer;
  entry->deletable = 1;
  entry->length = entry->size = 8;
}

void ZephVM_Stack::ConcatenateTexts(Entry* left, Entry* right) {
  char* text;
  long length;
  {
    EntryText a = TextOf(left);
    if (left->kind == KindVariable && !HasStableText(left->value.variable)) {
      a.temporary.reset(NewTextCopy(a.data, a.length));
      a.data = a.temporary.get();
    }
    EntryText b = TextOf(right);
    length = static_cast<long>(a.length) + b.length;
    if (length >= INT_MAX) throw std::bad_alloc();
    text = new char[static_cast<size_t>(length) + 1];
    memcpy(text, a.data, static_cast<size_t>(a.length));
    memcpy(text + a.length, b.data, static_cast<size_t>(b.length));
    text[length] = '\0';
  }
  Drop();
  Drop();
  PushS(text, static_cast<int>(length), static_cast<int>(length) + 1, 1);
}

namespace {

bool IsShort(const Entry* entry) {
  switch (entry->kind) {
    case ZephVM_Stack::KindString:
      return entry->deferred ? entry->value.pending->length() <= ZephVM_Stack::ShortText
                             : entry->length <= ZephVM_Stack::ShortText;
    case ZephVM_Stack::KindLinkBuffer:
      return entry->deferred && entry->value.pending->length() <= ZephVM_Stack::ShortText;
    case ZephVM_Stack::KindVariable: {
      const Variable* variable = entry->value.variable;
      return !(variable->plain_forms() & Variable::TextForm) ||
             variable->plain_text().length <= ZephVM_Stack::ShortText;
    }
    default: return true;
  }
}

void AppendTo(DeferredText* text, const Entry* entry) {
  if (entry->deferred) {
    text->Append(*entry->value.pending);
  } else if (entry->kind == ZephVM_Stack::KindInteger) {
    text->Append(entry->value.integer);
  } else if (entry->kind == ZephVM_Stack::KindDouble) {
    text->Append(entry->value.number);
  } else if (entry->kind == ZephVM_Stack::KindVariable) {
    text->Append(entry->value.variable);
  } else {
    const EntryText bytes = TextOf(entry);
    text->Append(bytes.data, bytes.length);
  }
}

}  // namespace

// Makes the result a deferred text if that pays, and returns whether it has. A deferred text is put
// together when something reads it, which in the usual s = s cat x never happens: see
// base/values/DeferredText.h. The entry's kind is that of the finished text.
bool ZephVM_Stack::Defer(Entry* left, Entry* right) {
  if (left->deferred) {
    AppendTo(left->value.pending, right);
    left->MarkChained();
    Drop();
    return true;
  }
  std::unique_ptr<DeferredText> text(
      left->kind == KindVariable ? DeferredText::Begin(left->value.variable) : nullptr);
  if (!text) {
    if (!IsShort(left) || !IsShort(right)) return false;
    text = std::make_unique<DeferredText>();
    AppendTo(text.get(), left);
  }
  const bool chained = left->deletable || right->deletable;
  AppendTo(text.get(), right);
  Free(left);
  left->kind = chained ? KindLinkBuffer : KindString;
  left->deletable = left->deferred = 1;
  left->private_copy = 0;
  left->length = chained ? 8 : text->length();
  left->size = chained ? 8 : left->length + 1;
  left->value.pending = text.release();
  Drop();
  return true;
}

void ZephVM_Stack::Concatenate() {
  if (Entries() < 2) {
    vm->FatalError("Stack underflow");
    return;
  }
  // Both entries stay on the stack until the work is done, so that they are freed with it if memory
  // runs out.
  Entry* left = top - 2;
  Entry* right = top - 1;
  if (Defer(left, right)) return;
  Settled(right);
  const bool right_is_buffer = right->kind == KindLinkBuffer && right->deletable;
  const bool both_buffers = left->kind == KindLinkBuffer && right->kind == KindLinkBuffer;
  if (left->deletable && (both_buffers || !right_is_buffer)) {
    MakeLinkBuffer(left);
    AppendEntry(left->value.buffer, right);
    top--;
  } else if (right->deletable) {
    MakeLinkBuffer(right);
    PrependEntry(right->value.buffer, left);
    left->CopyFrom(*right);
    top--;
  } else {
    ConcatenateTexts(left, right);
  }
}

void ZephVM_Stack::Dump_Stack() {
  static const char* const kNames[] = {"Integer", "Double", "String", "Variable", "LinkBuffer"};
  printf("SP = %d, SS = %d\n", Entries(), SS);
  printf("#   Type       D Data                                               Size\n");
  for (int i = 0; i < Entries(); i++) {
    const Entry* entry = Settled(&entries[i]);
    const char* name = kNames[entry->kind];
    const char owned = entry->deletable ? 'Y' : 'n';
    if (entry->kind == KindInteger) {
      printf("%-3d %-10s %c %-50d %d %d\n", i, name, owned, entry->value.integer, entry->length,
             entry->size);
      continue;
    }
    if (entry->kind == KindDouble) {
      printf("%-3d %-10s %c %-50f %d %d\n", i, name, owned, entry->value.number, entry->length,
             entry->size);
      continue;
    }
    EntryText text = TextOf(entry);
    if (entry->kind == KindVariable) {
      const String& variable = entry->value.variable->name();
      int padding = 40 - variable.length - text.length;
      printf("%-3d %-10s %c %lx %.*s=%.*s%*s %d %d\n", i, name, owned,
             reinterpret_cast<unsigned long>(entry->value.variable), variable.length,
             variable.data ? variable.data : kNothing, text.length, text.data,
             padding > 0 ? padding : 0, "", entry->length, entry->size);
    } else {
      int padding = 50 - text.length;
      printf("%-3d %-10s %c %.*s%*s %d %d\n", i, name, owned, text.length, text.data,
             padding > 0 ? padding : 0, "", entry->length, entry->size);
    }
  }
  printf("\n");
}
