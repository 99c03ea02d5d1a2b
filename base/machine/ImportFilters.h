// The filters of imports, which decide about each record whether the loop runs for it. A filter is
// an expression that the script has as text; its code is a segment of the machine.

#ifndef ZEPH_BASE_IMPORTFILTERS_H
#define ZEPH_BASE_IMPORTFILTERS_H

#include <functional>
#include <map>
#include <string>

#include "base/core/StringClass.h"

class Segment;
class ZephVM;

// The filters of one machine, by text. Each is compiled once, because a loop may open its import
// again and again, and a compiled expression is kept as long as the machine.
class ImportFilters {
 public:
  ImportFilters() = default;
  ImportFilters(const ImportFilters&) = delete;
  ImportFilters& operator=(const ImportFilters&) = delete;

  // Returns the code of a filter, which belongs to the machine. text has length bytes. vm, always
  // the same machine, compiles a text that is not known yet. Returns null if the text is no
  // expression, with the compiler's message in *error. Returns null and leaves *error if the time
  // limit has cut the compiler short; the text is then compiled again the next time.
  Segment* Find(ZephVM* vm, const char* text, int length, String* error);

 private:
  struct Filter {
    Segment* segment = nullptr;  // null if the text is no expression
    String error;                // the compiler's message then
  };

  std::map<std::string, Filter, std::less<>> filters;
};

#endif
