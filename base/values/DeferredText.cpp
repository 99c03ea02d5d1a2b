// A text that begins with a variable's text without a copy of it. Tested in
// tests/base/values/DeferredTextTest.cpp.

#include "base/values/DeferredText.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "base/core/Output.h"
#include "base/host/ZephApplication.h"
#include "base/values/Variable.h"

namespace {
// The objects that watch a variable of this thread, the newest first. There is rarely more than
// one, but each level of a recursive call can leave one on the stack.
constinit thread_local DeferredText* watching = nullptr;
}  // namespace

DeferredText* DeferredText::Begin(Variable* variable) {
  if (variable->plain_forms() & Variable::TextForm) {
    const String& text = variable->plain_text();
    const bool watchable = text.length >= ShortestPrefix && text.data[text.length] == '\0';
    return watchable ? new DeferredText(variable, text.length) : nullptr;
  }
  Variable* identity = variable->RealIdentity();
  const int length = identity->WatchableText();
  return length < ShortestPrefix ? nullptr : new DeferredText(identity, length);
}

DeferredText::DeferredText(Variable* variable, int length)
    : prefix(variable), prefix_length(length), room(std::min(Small, INT_MAX - 1 - length)) {
  previous = FirstOf(variable);
  DeferredText*& place = previous ? previous->next : watching;
  next = place;
  if (next) next->previous = this;
  place = this;
  variable->SetWatched(true);
}

// The first object in the list that watches the variable, or null.
DeferredText* DeferredText::FirstOf(Variable* variable) {
  if (!variable->watched()) return nullptr;
  DeferredText* text = watching;
  while (text && text->prefix != variable) text = text->next;
  return text;
}

DeferredText::~DeferredText() {
  if (prefix) StopWatching();
  if (bytes != small) delete[] bytes;
}

// A variable stays watched while any object watches it. Only the neighbours are checked, because a
// stack that ends may have many such texts.
void DeferredText::StopWatching() {
  (previous ? previous->next : watching) = next;
  if (next) next->previous = previous;
  const bool others = (next && next->prefix == prefix) || (previous && previous->prefix == prefix);
  if (!others) prefix->SetWatched(false);
  prefix = nullptr;
}

// The next object that watches the same variable, or null.
DeferredText* DeferredText::NextOfVariable() const {
  return next && next->prefix == prefix ? next : nullptr;
}

void DeferredText::Settle(Variable* variable) {
  for (DeferredText* text = FirstOf(variable); text;) {
    DeferredText* const after = text->NextOfVariable();
    text->CopyPrefix();
    text = after;
  }
}

void DeferredText::SettleLast(Variable* variable) {
  for (DeferredText* text = FirstOf(variable); text;) {
    DeferredText* const after = text->NextOfVariable();
    try {
      text->CopyPrefix();
    } catch (const std::bad_alloc&) {
      text->Lose();
    }
    text = after;
  }
}

void DeferredText::Lose() {
  StopWatching();
  prefix_length = used = room = 0;
  is_lost = true;
}

void DeferredText::ThrowIfLost() const {
  if (is_lost) throw std::bad_alloc();
}

char* DeferredText::Room(int count) {
  ThrowIfLost();
  const long needed = static_cast<long>(used) + count;
  const long most = INT_MAX - 1L - prefix_length;
  if (needed > most) throw std::bad_alloc();
  if (needed > room) {
    const long larger = std::min(needed * 2, most);
    auto* moved = new char[static_cast<size_t>(larger)];
    memcpy(moved, bytes, static_cast<size_t>(used));
    if (bytes != small) delete[] bytes;
    bytes = moved;
    room = static_cast<int>(larger);
  }
  return bytes + used;
}

void DeferredText::Flatten(char* destination) const {
  if (prefix) memcpy(destination, prefix->plain_text().data, static_cast<size_t>(prefix_length));
  memcpy(destination + prefix_length, bytes, static_cast<size_t>(used));
}

void DeferredText::CopyPrefix() {
  const int all = length();
  auto* flat = new char[static_cast<size_t>(all) + 1];
  Flatten(flat);
  StopWatching();
  if (bytes != small) delete[] bytes;
  bytes = flat;
  room = all;
  used = all;
  prefix_length = 0;
}

void DeferredText::AppendLarge(int value) {
  char text[kLongestInteger];
  const auto count = static_cast<int>(WriteInteger(text, value) - text);
  memcpy(Room(count), text, static_cast<size_t>(count));
  used += count;
}

// A double of whole value is written as its digits.
void DeferredText::Append(double value) {
  if (value > INT_MIN && value <= INT_MAX && value != 0.0) {
    const auto whole = static_cast<int>(value);
    if (whole == value) {
      Append(whole);
      return;
    }
  }
  int count;
  const std::unique_ptr<char[]> text(ZephApplication::dtos(value, &count, nullptr, -1));
  Append(text.get(), count);
}

// The integer is converted here, so that the variable need not cache a text: reads return the same
// with or without it.
void DeferredText::Append(Variable* variable) {
  if (variable->plain_forms() == Variable::IntegerForm) {
    Append(variable->plain_integer());
    return;
  }
  const String& text = variable->value();
  Append(text.data, text.length);
}

void DeferredText::Append(const DeferredText& text) {
  text.ThrowIfLost();
  if (text.length() == 0) return;
  text.Flatten(Room(text.length()));
  used += text.length();
}

char* DeferredText::Release(int* all) {
  ThrowIfLost();
  *all = length();
  auto* flat = new char[static_cast<size_t>(*all) + 1];
  const std::unique_ptr<DeferredText> self(this);
  Flatten(flat);
  flat[*all] = '\0';
  return flat;
}

void DeferredText::Assign(Variable* target, bool adopt) {
  std::unique_ptr<DeferredText> self(this);
  ThrowIfLost();
  if (prefix && (target == prefix || target->RealIdentity() == prefix)) {
    Variable* variable = prefix;
    StopWatching();
    variable->AppendText(bytes, used, adopt);
    return;
  }
  if (!prefix) {
    target->WriteJoined(bytes, used, adopt);
    return;
  }
  int all;
  char* text = Release(&all);
  (void)self.release();
  if (adopt) {
    target->SetValue_Nocopy(text, all, all + 1);
    return;
  }
  const std::unique_ptr<char[]> owned(text);
  target->SetValue(text, all);
}

void DeferredText::Write(Output* output) const {
  ThrowIfLost();
  if (prefix) output->Write(prefix->plain_text().data, prefix_length);
  output->Write(bytes, used);
}
