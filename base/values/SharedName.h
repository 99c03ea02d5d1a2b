// A name that the variables of many calls share, so that making a local copies no text.

#ifndef ZEPH_BASE_SHAREDNAME_H
#define ZEPH_BASE_SHAREDNAME_H

#include <cstddef>
#include <cstring>
#include <new>

// A count of holders, followed in memory by the text and its NUL. The last holder that releases it
// frees it: a variable may outlive its table, and both may outlive the dictionary that the name
// came from. All holders belong to one thread.
class SharedName {
 public:
  SharedName(const SharedName&) = delete;
  SharedName& operator=(const SharedName&) = delete;

  // Copies the text of length bytes; null gives an empty one. The first count is the caller's.
  [[nodiscard]] static SharedName* Make(const char* text, int length) {
    const size_t bytes = text && length > 0 ? static_cast<size_t>(length) : 0;
    auto* name = new (::operator new(sizeof(SharedName) + bytes + 1)) SharedName;
    name->length_ = static_cast<int>(bytes);
    if (bytes > 0) memcpy(name->text(), text, bytes);
    name->text()[bytes] = '\0';
    return name;
  }
  // The name that contains the text. REQUIRES: text is the text() of a name.
  static SharedName* Of(char* text) {
    return reinterpret_cast<SharedName*>(text - sizeof(SharedName));
  }

  char* text() { return reinterpret_cast<char*>(this + 1); }
  const char* text() const { return reinterpret_cast<const char*>(this + 1); }
  int length() const { return length_; }
  void Hold() { ++holders; }
  void Release() {
    if (--holders == 0) ::operator delete(this);
  }

 private:
  SharedName() = default;

  int holders = 1;
  int length_ = 0;
};

#endif
