// What the constant names of a database field were found to mean.

#ifndef ZEPH_BASE_RECENTFIELD_H
#define ZEPH_BASE_RECENTFIELD_H

#include <cstdint>

class Variable;

// An instruction on a field names a view and a field by two dictionary ids, and a script runs it
// for each record. The variable stays the same until a view or a field leaves its table of names,
// which two counts tell. Holds nothing.
//
// Invariants:
// 1. If the family's count of views that have gone is `views_gone`, the view exists, and
//    `fields_count` is its count of fields that have gone.
// 2. If in addition that count is `fields_gone`, the variable exists, and the names mean it.
struct RecentField {
  static constexpr uint64_t kNone = UINT64_MAX;  // no count gets there

  int alias = 0;  // ids
  int field = 0;
  uint64_t views_gone = kNone;
  const uint64_t* fields_count = nullptr;
  uint64_t fields_gone = 0;
  Variable* variable = nullptr;
};

#endif
