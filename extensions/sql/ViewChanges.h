// How a view adds, changes and removes records. A part of View.h.

#ifndef ZEPH_EXTENSIONS_SQL_VIEWCHANGES_H
#define ZEPH_EXTENSIONS_SQL_VIEWCHANGES_H

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>

#include "extensions/sql/View.h"

namespace zephsql {

inline int View::Add() {
  if (!CanChange() || !CollectStored()) return 0;
  const int count = Count();
  for (int i = 0; i < count; i++) {
    if (!IsCopied(i)) continue;
    // What was not stored is that of the current record, as in a table of the built-in engine.
    Settle();
    if (!Load()) break;
    for (int j = 0; j < count; j++) {
      if (!IsCopied(j)) continue;
      pending[Place(j)] = loaded[Place(j)];
      stored[Place(j)] = true;
    }
    break;
  }
  if (insert_text.empty() || inserted != stored) {
    inserted = stored;
    insert_text = InsertText(false);
  }
  return Insert(insert_text, StoredValues(0), "Cannot add a record to '" + table.name + "'");
}

inline int View::Update() {
  if (!CanChange() || !CollectStored()) return 0;
  Settle();
  if (row == Row::None || place.kind == Kind::Null) return Fail("There is no record");
  if (StoredValues(1).size() == 1) return 1;
  if (update_text.empty() || updated != stored) {
    updated = stored;
    update_text = "UPDATE " + table.sql_name + " SET ";
    int marks = 0;
    for (int i = 0; i < Count(); i++) {
      if (!stored[Place(i)]) continue;
      if (marks > 0) update_text += ", ";
      update_text += Quoted(table.columns[Place(i)].name) + " = " + MarkOf(++marks);
    }
    update_text += " WHERE " + table.key + " = " + MarkOf(++marks);
  }
  changes.back() = place;
  if (!Change(update_text, changes, "Cannot update a record of '" + table.name + "'")) return 0;
  if (table.key_column >= 0 && stored[Place(table.key_column)]) {
    place = pending[Place(table.key_column)];
  }
  row = Row::Unloaded;
  has_order = false;
  Refresh();
  return 1;
}

inline int View::Delete() {
  if (!CanChange()) return 0;
  Settle();
  if (deleted) return 1;
  if (!Load()) return Fail("There is no record");
  Drop();
  row = Row::Loaded;
  const Values values_of_key = {place};
  if (!Change("DELETE FROM " + table.sql_name + " WHERE " + table.key + " = " + MarkOf(1),
              values_of_key, "Cannot delete a record of '" + table.name + "'")) {
    return 0;
  }
  deleted = true;
  Refresh();
  return 1;
}

inline int View::UnDelete() {
  if (!CanChange()) return 0;
  if (!deleted) return 1;
  stored.assign(table.columns.size(), true);
  for (int i = 0; i < Count(); i++) {
    if (table.columns[Place(i)].generated) stored[Place(i)] = false;
  }
  pending = loaded;
  StoredValues(table.key_column < 0);
  if (table.key_column < 0) changes.back() = place;
  return Insert(InsertText(true), changes, "Cannot add the record to '" + table.name + "' again");
}

inline bool View::CanChange() {
  if (!by_query && !table.key.empty()) return true;
  Fail(by_query ? "A view of a query cannot be changed"
                : "The table '" + table.name + "' has no key, so its records cannot be changed");
  return false;
}

inline bool View::IsCopied(int column) const {
  return !stored[Place(column)] && column != table.key_column &&
         !table.columns[Place(column)].generated;
}

inline bool View::CollectStored() {
  stored.assign(table.columns.size(), false);
  pending.resize(table.columns.size());
  if (!zpDatabaseView_Commit(handle)) {
    Fail("A value was refused");
    return false;
  }
  for (int i = 0; i < Count(); i++) {
    Value& value = pending[Place(i)];
    const Column& column = table.columns[Place(i)];
    if (!stored[Place(i)]) continue;
    if (column.boolean) {
      value.SetInteger(IsTrue(value));
    } else if (!column.has_text && value.kind == Kind::Text && Trimmed(value.text).empty()) {
      value.SetNull();
    }
  }
  return true;
}

inline Values& View::StoredValues(size_t more) {
  size_t count = 0;
  for (const bool is_stored : stored) count += is_stored;
  changes.resize(count + more);
  count = 0;
  for (size_t i = 0; i < stored.size(); i++) {
    if (stored[i]) changes[count++] = pending[i];
  }
  return changes;
}

inline std::string View::InsertText(bool with_key) const {
  std::string names, marks;
  size_t number = 0;
  const auto add = [&](const std::string& name) {
    names += (number > 0 ? ", " : "") + name;
    marks += (number > 0 ? ", " : "") + MarkOf(number + 1);
    number++;
  };
  for (int i = 0; i < Count(); i++) {
    if (stored[Place(i)]) add(Quoted(table.columns[Place(i)].name));
  }
  if (with_key && table.key_column < 0) add(table.key);
  return "INSERT INTO " + table.sql_name +
         (number == 0 ? " DEFAULT VALUES" : " (" + names + ") VALUES (" + marks + ")");
}

inline int View::Insert(const std::string& text, const Values& list, const std::string& what) {
  database->Park();
  Value key;
  if (!connection().Insert(table, text, list, &key)) return FailWith(what);
  top_is_due = false;
  place = std::move(key);
  row = Row::Unloaded;
  has_order = ended = deleted = at_end = false;
  Refresh();
  return 1;
}

inline bool View::Change(const std::string& text, const Values& list, const std::string& what) {
  database->Park();
  int64_t changed = 0;
  if (!connection().Run(text, list, true, &changed)) return FailWith(what);
  if (changed == 0) return Fail(what + ": it is no longer there");
  return true;
}

}  // namespace zephsql

#endif
