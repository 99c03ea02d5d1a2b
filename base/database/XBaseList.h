// Lists with commas between their entries, as scripts write fields, indexes and flags.

#ifndef ZEPH_BASE_XBASELIST_H
#define ZEPH_BASE_XBASELIST_H

#include <algorithm>
#include <string_view>

namespace XBaseList {

constexpr std::string_view kWhiteSpace = " \t\n\r";

// The text without white space at its ends.
inline std::string_view Trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

// Calls use with each trimmed entry, in order, until it returns false; then returns false. The
// empty list has no entry. After a comma there is always one, which may be empty.
template <class Use>
bool ForEach(std::string_view list, Use use) {
  for (size_t start = 0; !list.empty() && start <= list.size();) {
    const size_t end = std::min(list.find(',', start), list.size());
    if (!use(Trimmed(list.substr(start, end - start)))) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace XBaseList

#endif
