// The walk over the tree of an index file, from its bytes alone.

#include "tests/support/ZIXIndexChecker.h"

#include <cstdlib>

namespace {

// An independent version of the order of an index: by value if both keys are numbers.
int Order(const std::string& a, const std::string& b, uint32_t flags) {
  int order = a < b ? -1 : a > b ? 1 : 0;
  char* end_a = nullptr;
  char* end_b = nullptr;
  const double value_a = strtod(a.c_str(), &end_a);
  const double value_b = strtod(b.c_str(), &end_b);
  if (!(flags & 4) && *end_a == 0 && *end_b == 0)
    order = value_a < value_b ? -1 : value_a > value_b ? 1 : 0;
  return flags & 2 ? -order : order;
}

std::string Fault(uint32_t page, const std::string& what) {
  return "page " + std::to_string(page) + ": " + what;
}

}  // namespace

uint32_t ZIXIndexChecker::Get(size_t at, int width) const {
  uint32_t value = 0;
  for (int i = 0; i < width; i++) {
    const size_t place = at + static_cast<size_t>(i);
    const uint32_t byte = place < bytes.size() ? static_cast<unsigned char>(bytes[place]) : 0;
    value |= byte << (8 * i);
  }
  return value;
}

std::string ZIXIndexChecker::Key(uint32_t page, uint32_t i) const {
  const size_t start = At(page, i, 12);
  const size_t length = bytes.find('\0', start) - start;
  return bytes.substr(start, length);
}

std::string ZIXIndexChecker::Check() {
  entries.clear();
  pages.clear();
  depth = 0;
  if (bytes.compare(0, 4, "ZIXI") != 0) return "wrong identifier";
  if (static_cast<unsigned char>(bytes[4]) > 3) return "wrong version";
  if (keyrecordsize() < 9 || order() < 4 || 8 + order() * keyrecordsize() > pagesize())
    return "wrong sizes";
  if (bytes.size() > size_t{numpages()} * pagesize()) return "more pages than counted";
  std::string fault = Walk(startingpage(), 1);
  return fault.empty() ? CheckOrder() : fault;
}

// Collects the entries in order: those of a page go between those of the pages below.
std::string ZIXIndexChecker::Walk(uint32_t page, int level) {
  if (page == 0 || page >= numpages()) return Fault(page, "outside the file");
  if ((size_t{page} + 1) * pagesize() > bytes.size()) return Fault(page, "cut");
  if (!pages.insert(page).second) return Fault(page, "reached twice");
  const uint32_t n = Count(page);
  if (n > order()) return Fault(page, "too many entries");
  if (level > 1 && n < order() / 2 - 1) return Fault(page, "too few entries");
  const bool leaf = Child(page, 0) == 0;
  if (!leaf && n == 0) return Fault(page, "an inner page without entries");
  if (leaf && depth == 0) depth = level;
  if (leaf && depth != level) return Fault(page, "a leaf at another depth");
  for (uint32_t i = 0; i <= n; i++) {
    if (leaf != (Child(page, i) == 0)) return Fault(page, "a leaf and an inner page at once");
    std::string fault = leaf ? "" : Walk(Child(page, i), level + 1);
    if (!fault.empty()) return fault;
    if (i == n) break;
    const std::string key = Key(page, i);
    if (key.size() > keyrecordsize() - 9) return Fault(page, "a key without an end");
    if (Record(page, i) == 0) return Fault(page, "record number 0");
    entries.emplace_back(key, Record(page, i));
  }
  return "";
}

std::string ZIXIndexChecker::CheckOrder() const {
  for (size_t i = 1; i < entries.size(); i++) {
    const int order = Order(entries[i - 1].first, entries[i].first, flags());
    if (order > 0) return "key '" + entries[i].first + "' is out of order";
    if (order == 0 && (flags() & 1)) return "key '" + entries[i].first + "' occurs twice";
  }
  return "";
}
