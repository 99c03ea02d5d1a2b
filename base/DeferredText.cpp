// Tested in tests/base/DeferredTextTest.cpp.

#include "base/DeferredText.h"

#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "base/Variable.h"
#include "base/ZephApplication.h"

namespace {
// Those that watch a variable of this thread, the newest first: hardly ever more than one.
constinit thread_local DeferredText* watching = nullptr;
}  // namespace

DeferredText* DeferredText::Begin(Variable* variable) {
  Variable* identity = variable->RealIdentity();
  const int length = identity->WatchableText();
  return length < ShortestPrefix ? nullptr : new DeferredText(identity, length);
}

DeferredText::DeferredText(Variable* variable, int length)
    : prefix(variable), prefix_length(length), room(sizeof small), bytes(small), next(watching) {
  if (next) next->previous = this;
  watching = this;
  variable->SetWatched(true);
}

DeferredText::~DeferredText() {
  if (prefix) StopWatching();
  if (bytes != small) delete[] bytes;
}

// A variable stays watched as long as anybody does.
void DeferredText::StopWatching() {
  (previous ? previous->next : watching) = next;
  if (next) next->previous = previous;
  bool watched = false;
  for (const DeferredText* other = watching; other; other = other->next) {
    watched = watched || other->prefix == prefix;
  }
  if (!watched) prefix->SetWatched(false);
  prefix = nullptr;
}

void DeferredText::Settle(Variable* variable) {
  for (DeferredText* text = watching; text;) {
    DeferredText* following = text->next;
    if (text->prefix == variable) text->CopyPrefix();
    text = following;
  }
}

char* DeferredText::Room(int count) {
  const long needed = static_cast<long>(used) + count;
  if (needed + prefix_length >= INT_MAX) throw std::bad_alloc();
  if (needed > room) {
    const long larger = needed * 2 < INT_MAX ? needed * 2 : needed;
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
  room = all + 1;
  used = all;
  prefix_length = 0;
}

void DeferredText::Append(const char* text, int count) {
  if (count <= 0) return;
  memcpy(Room(count), text, static_cast<size_t>(count));
  used += count;
}

void DeferredText::Append(int value) {
  char text[12];
  Append(text, static_cast<int>(std::to_chars(text, text + sizeof text, value).ptr - text));
}

void DeferredText::Append(double value) {
  int count;
  const std::unique_ptr<char[]> text(ZephApplication::dtos(value, &count, nullptr, -1));
  Append(text.get(), count);
}

void DeferredText::Append(Variable* variable) {
  const String& text = variable->value();
  Append(text.data, text.length);
}

char* DeferredText::Release(int* all) {
  const std::unique_ptr<DeferredText> self(this);
  *all = length();
  auto* flat = new char[static_cast<size_t>(*all) + 1];
  Flatten(flat);
  flat[*all] = '\0';
  return flat;
}

void DeferredText::Assign(Variable* target, bool adopt) {
  if (prefix && target->RealIdentity() == prefix) {
    const std::unique_ptr<DeferredText> self(this);
    Variable* variable = prefix;
    StopWatching();
    variable->AppendText(bytes, used, adopt);
    return;
  }
  int all;
  char* text = Release(&all);
  if (adopt) {
    target->SetValue_Nocopy(text, all, all + 1);
    return;
  }
  const std::unique_ptr<char[]> owned(text);
  target->SetValue(text, all);
}
