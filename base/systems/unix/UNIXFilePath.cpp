// Splits, collapses and compares paths as text. Tested in
// tests/base/systems/unix/UNIXFilePathTest.cpp.

#include "base/systems/unix/UNIXFilePath.h"

#include <algorithm>
#include <cstring>

#include "base/core/StringClass.h"

namespace {

const char root_text[] = "/";
const char dot_text[] = ".";

// The character between two elements: a slash, or the NUL that Element has put there.
bool IsSeparator(char c) {
  return c == '/' || c == 0;
}

}  // namespace

UNIXFilePath::UNIXFilePath(const char* path) : text(zeph_strdup(path == nullptr ? "" : path)) {
  Parse();
}

UNIXFilePath::UNIXFilePath(char* path, bool copy) : text(copy ? zeph_strdup(path) : path) {
  Parse();
}

UNIXFilePath::UNIXFilePath(const char* first, const char* second) {
  size_t a = strlen(first);
  size_t b = strlen(second);
  text = new char[a + b + 2];
  memcpy(text, first, a);
  text[a] = '/';
  memcpy(text + a + 1, second, b + 1);
  Parse();
}

UNIXFilePath::UNIXFilePath(const UNIXFilePath& other)
    : text(other.Collapsed_Path(nullptr, nullptr)) {
  Parse();
}

UNIXFilePath::~UNIXFilePath() {
  FreeArrays();
  delete[] text;
}

void UNIXFilePath::FreeArrays() {
  if (offsets != inline_offsets) delete[] offsets;
  if (collapsed != inline_collapsed) delete[] collapsed;
  offsets = nullptr;
  collapsed = nullptr;
  element_count = 0;
  collapsed_count = 0;
}

void UNIXFilePath::Parse() {
  FreeArrays();
  absolute = *text == '/';
  int capacity = inline_elements;
  offsets = inline_offsets;
  offsets[0] = 0;
  element_count = 1;
  char* p = text;
  while (*p != 0) {
    if (*p != '/') {
      p++;
      continue;
    }
    char* run = p;
    while (*p == '/') p++;
    if (*p == 0) {
      *run = 0;
      p = run;
      break;
    }
    if (element_count == capacity) {
      int* larger = new int[static_cast<size_t>(capacity) * 2];
      std::copy(offsets, offsets + element_count, larger);
      if (offsets != inline_offsets) delete[] offsets;
      offsets = larger;
      capacity *= 2;
    }
    offsets[element_count++] = static_cast<int>(p - text);
  }
  length = static_cast<int>(p - text);
}

int UNIXFilePath::ElementLength(int i) const {
  int end = i + 1 < element_count ? offsets[i + 1] : length;
  while (end > offsets[i] && IsSeparator(text[end - 1])) end--;
  return end - offsets[i];
}

bool UNIXFilePath::IsDot(int i) const {
  return ElementLength(i) == 1 && text[offsets[i]] == '.';
}

bool UNIXFilePath::IsDotDot(int i) const {
  return ElementLength(i) == 2 && memcmp(text + offsets[i], "..", 2) == 0;
}

void UNIXFilePath::RestoreSlashes(int from, int to) {
  std::replace(text + from, text + to, '\0', '/');
}

const char* UNIXFilePath::Element(int i) {
  if (i < 0 || i >= element_count) return nullptr;
  if (i == 0 && absolute) return root_text;
  int end = i + 1 < element_count ? offsets[i + 1] : length;
  for (int j = offsets[i] + ElementLength(i); j < end; j++) text[j] = 0;
  return text + offsets[i];
}

const char* UNIXFilePath::Span(int first, int last) {
  if (first < 0 || last < first || last >= element_count) return nullptr;
  if (last == 0 && absolute) return root_text;
  int end = offsets[last] + ElementLength(last);
  RestoreSlashes(offsets[first], end);
  text[end] = 0;
  return text + offsets[first];
}

void UNIXFilePath::Collapse() const {
  if (collapsed != nullptr) return;
  collapsed = element_count <= inline_elements ? inline_collapsed
                                               : new int[static_cast<size_t>(element_count)];
  int kept = 0;
  for (int i = 0; i < element_count; i++) {
    bool root = i == 0 && absolute;
    if (!root && IsDot(i)) continue;
    if (!root && IsDotDot(i) && kept > 0) {
      if (absolute && kept == 1) continue;  // there is nothing above the root
      if (!IsDotDot(collapsed[kept - 1])) {
        kept--;
        continue;
      }
    }
    collapsed[kept++] = i;
  }
  collapsed_count = kept;
}

char* UNIXFilePath::Collapsed_Path(int* result_length, int* allocated) const {
  Collapse();
  int size = collapsed_count == 0 ? 2 : std::max(length + 1, 2);
  char* result = new char[static_cast<size_t>(size)];
  char* p = result;
  for (int i = 0; i < collapsed_count; i++) {
    if (p != result) *p++ = '/';
    int element = collapsed[i];
    if (element == 0 && absolute) {
      if (collapsed_count == 1) *p++ = '/';
      continue;
    }
    if (absolute && i == 1) *p++ = '/';
    int n = ElementLength(element);
    memcpy(p, text + offsets[element], static_cast<size_t>(n));
    p += n;
  }
  if (collapsed_count == 0) *p++ = absolute ? '/' : '.';
  *p = 0;
  if (result_length != nullptr) *result_length = static_cast<int>(p - result);
  if (allocated != nullptr) *allocated = size;
  return result;
}

// Moves the directories together over the dropped elements between them. The rest up to the file
// name becomes one long run of slashes, so the file name and pointers to it stay in place.
void UNIXFilePath::Compact(int directories) {
  RestoreSlashes(0, length);
  int end = offsets[collapsed[collapsed_count - 1]] + ElementLength(collapsed[collapsed_count - 1]);
  int to = 0;
  for (int i = 0; i < directories; i++) {
    int element = collapsed[i];
    int n = ElementLength(element);
    memmove(text + to, text + offsets[element], static_cast<size_t>(n));
    // This does not overwrite the elements that follow: each of them starts after a slash.
    collapsed[i] = to;
    to += n;
    text[to++] = '/';
  }
  if (directories < collapsed_count) {
    int name = offsets[collapsed[directories]];
    std::fill(text + to, text + name, '/');
    collapsed[directories] = name;
  } else {
    end = to - 1;
  }
  length = end;
  text[length] = 0;
  element_count = collapsed_count;
  for (int i = 0; i < element_count; i++) {
    offsets[i] = collapsed[i];
    collapsed[i] = i;
  }
}

const char* UNIXFilePath::Collapsed_Directory() {
  Collapse();
  if (collapsed_count == 0) return dot_text;
  int directories =
      IsDotDot(collapsed[collapsed_count - 1]) ? collapsed_count : collapsed_count - 1;
  if (directories == 0) return absolute ? root_text : dot_text;
  if (collapsed[directories - 1] - collapsed[0] != directories - 1) Compact(directories);
  return Span(collapsed[0], collapsed[directories - 1]);
}

const char* UNIXFilePath::Collapsed_Filename() {
  Collapse();
  if (collapsed_count == 0 || (absolute && collapsed_count == 1)) return dot_text;
  int last = collapsed[collapsed_count - 1];
  return IsDotDot(last) ? dot_text : Element(last);
}

bool UNIXFilePath::SameElement(int i, const UNIXFilePath& other, int j) const {
  bool root = i == 0 && absolute;
  bool other_root = j == 0 && other.absolute;
  if (root || other_root) return root && other_root;
  int n = ElementLength(i);
  return n == other.ElementLength(j) &&
         memcmp(text + offsets[i], other.text + other.offsets[j], static_cast<size_t>(n)) == 0;
}

bool UNIXFilePath::Contains(const UNIXFilePath& other) const {
  Collapse();
  other.Collapse();
  if (other.collapsed_count < collapsed_count) return false;
  for (int i = 0; i < collapsed_count; i++)
    if (!SameElement(collapsed[i], other, other.collapsed[i])) return false;
  return true;
}

bool UNIXFilePath::Matches(const UNIXFilePath& other, int skip) const {
  Collapse();
  other.Collapse();
  if (collapsed_count != other.collapsed_count) return false;
  for (int i = 0; i < collapsed_count - skip; i++)
    if (!SameElement(collapsed[i], other, other.collapsed[i])) return false;
  return true;
}

char* UNIXFilePath::Release() {
  RestoreSlashes(0, length);
  FreeArrays();
  char* result = text;
  text = nullptr;
  length = 0;
  absolute = 0;
  return result;
}

bool UNIXFilePath::StartsAboveBase() const {
  Collapse();
  return collapsed_count > 0 && IsDotDot(collapsed[0]);
}
