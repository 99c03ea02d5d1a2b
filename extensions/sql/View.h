// A view of an SQL database as scripts see one: records one after the other, whose fields are
// variables. A view of a table can be changed; a view of a query is read.
//
// Tested in tests/e2e/SQLiteTest.cpp and PostgreSQLTest.cpp.
//
// A view of a table reads in the order of the primary index or, without one, of the key. It knows
// its place by values, those of the index's column and of the key, and not by what the database
// holds for it. So it can go on after any change, by any connection, in both directions, and what
// it reads is what is there at that time:
//
//   Row       the values of the current record are            and came from
//   None      nowhere: there is no record
//   Live      in `rows`                                       a move
//   Loaded    in `loaded`                                     Load, or a deleted record
//   Unloaded  in the database; Load reads them by the key     Park, a change, the end of the rows
//
// Records whose column is NULL come first, in a query of their own, because a comparison with NULL
// is neither true nor false.
//
// The fields of a view are made once. A move clears their values, and the engine asks for the
// values that a script then reads.
//
// ViewMoves.h has the moves, the place, and the steps from row to row; ViewChanges.h has the
// changes of records. The fields are here.

#ifndef ZEPH_EXTENSIONS_SQL_VIEW_H
#define ZEPH_EXTENSIONS_SQL_VIEW_H

#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "extensions/sql/Connection.h"

namespace zephsql {

class View;

// The data word of an open database.
struct Database {
  Database(ZPDATABASE handle, ConnectionPointer connection)
      : handle(handle), connection(std::move(connection)) {}

  // Before a change: no view holds what a change has to wait for, or would go on with rows that it
  // has read before.
  void Park();

  ZPDATABASE handle;
  std::string error;
  ConnectionPointer connection;  // ends after the views
  std::list<View> views;
  View* main = nullptr;  // the view of the table that was opened or made, while it is there
  bool in_transaction = false;
};

class View {
 public:
  // Values that a field gets in a row without a question. As long as it is read of each record, the
  // number doubles each time that the engine has to ask.
  static constexpr int kFewestPassed = 32, kMostPassed = 1024;

  // The data word of a field: a column of the view, or one of the four that every view has.
  struct Field {
    View* view;
    int column;
    const Column* of = nullptr;  // its description, of a column
    ZPDATABASEVARIABLE handle = nullptr;
    bool is_read = false;   // the engine may have a value
    bool is_known = false;  // it has `known`, which is one of the four
    int known = 0;
    // Values that it got since the last question, and how many it gets at most.
    int passed = 0, most_passed = kFewestPassed;
    uint64_t dropped = 0;  // the number of the move at which it got no more
  };
  static constexpr int kRecord = -1, kRecords = -2, kDeleted = -3, kEnd = -4;

  // A view of a table, or of its records that fulfil a condition.
  View(Database* database, Table described, std::string condition, Values values)
      : database(database),
        table(std::move(described)),
        condition(std::move(condition)),
        values(std::move(values)),
        top_is_due(true) {
    for (const Column& column : table.columns) {
      select += (select.empty() ? "SELECT " : ", ") + Quoted(column.name);
    }
    if (table.key_column < 0) select += ", " + table.key;
    select += " FROM " + table.sql_name;
  }
  // A view of a query. Start runs it.
  View(Database* database, std::string query, Values values)
      : database(database), by_query(true), select(std::move(query)), values(std::move(values)) {}
  View(const View&) = delete;
  View& operator=(const View&) = delete;
  ~View() {
    if (nothing) zpVariableList_Free(nothing);
  }

  // Goes to the first row of a query.
  bool Start() {
    if (!by_query) return true;
    if (connection().Changes(select)) database->Park();
    rows = connection().Open(select, values);
    if (!rows) return FailWith("Cannot run the query");
    table.columns = rows->columns();
    return At(rows->Next());
  }

  // Makes the fields. The engine owns the handle, and tells when it goes.
  void SetHandle(ZPDATABASEVIEW view) {
    handle = view;
    for (const int column : {kRecord, kRecords, kDeleted, kEnd}) fields.push_back({this, column});
    read.reserve(fields.size() + table.columns.size());
    for (size_t i = 0; i < table.columns.size(); i++) {
      fields.push_back({this, static_cast<int>(i), &table.columns[i]});
    }
    // A field that is removed while it is held is without a value for good. Such a value, stored in
    // a field, leaves it as if it had never been read.
    nothing = zpVariableList_Allocate();
    zpVariableList_Insert(nothing, AsVariable(zpDatabaseView_AddVariable(handle, "", 0, nullptr)));
    zpDatabaseView_Clear(handle);
    no_value = zpVariableList_First(nothing);
    AddFields();
  }

  // --- Moves. Return 0 for a failure ------------------------------------------------------------
  int Skip(int count);
  int Go(long position);
  int Find(std::string_view key, bool exact);
  int SetFilter(ZPPROGRAM program, const char* text, int length);

  // --- Changes. Return 0 for a failure ----------------------------------------------------------
  int Add();
  int Update();
  // The record stays in the fields.
  int Delete();
  // The record that Delete has removed is added again.
  int UnDelete();

  // --- Indexes ----------------------------------------------------------------------------------
  // The first one orders the view.
  void SetIndexes(std::vector<Index> list) {
    Park();
    indexes = std::move(list);
    find_text.clear();
    has_order = false;
    ended = false;
  }
  void AddIndex(const Index& index) {
    std::vector<Index> list = {index};
    for (const Index& other : indexes) {
      if (other.name != index.name) list.push_back(other);
    }
    SetIndexes(std::move(list));
  }
  // The place stays. Returns false if there is no index of that name.
  bool MakePrimary(std::string_view name) {
    for (const Index& index : indexes) {
      if (index.name != name) continue;
      AddIndex(Index(index));
      return true;
    }
    return false;
  }

  // --- Fields -----------------------------------------------------------------------------------
  // A view begins at its first record. A script that goes elsewhere first does not need that one.
  // The fields stay as they are: the engine has no values of them yet, and those that a script has
  // stored are for this record. Such a view has no filter.
  void Settle() {
    if (!top_is_due) return;
    top_is_due = false;
    GoToEnd(1, false);
  }

  // A field is going to get a value.
  void BeginRead(Field* field) {
    Settle();
    Note(field);
    // A field that is read of the very record of which it got no value is read of all of them.
    if (field->passed > 0) {
      const bool is_steady = field->passed > field->most_passed && field->dropped == moves;
      field->most_passed =
          is_steady ? std::min(field->most_passed * 2, kMostPassed) : kFewestPassed;
    }
    field->passed = 0;
  }
  void Note(Field* field) {
    if (field->is_read) return;
    field->is_read = true;
    read.push_back(field);
  }
  int GetInteger(int column, int* value) {
    int64_t number;
    switch (column) {
      case kRecord:
      case kRecords:
      case kDeleted:
      case kEnd:
        if (!GetOwn(column, &number)) return 0;
        break;
      default: {
        const Column& of = table.columns[Place(column)];
        const Kind kind = KindOf(column);
        if (kind == Kind::Null) return 0;
        if (of.boolean) {
          Get(column, &scratch);
          number = IsTrue(scratch);
        } else if (kind == Kind::Integer) {
          number = row == Row::Live ? rows->Integer(column) : Known(column).integer;
        } else {
          return 0;
        }
      }
    }
    *value = static_cast<int>(number);
    return *value == number;
  }

  int GetReal(int column, double* value) {
    if (column < 0) {
      int64_t number;
      if (!IsLarge(column, &number)) return 0;
      *value = static_cast<double>(number);
      return 1;
    }
    switch (KindOf(column)) {
      case Kind::Integer:
        Get(column, &scratch);
        *value = static_cast<double>(scratch.integer);
        break;
      case Kind::Real: *value = row == Row::Live ? rows->Real(column) : Known(column).real; break;
      case Kind::Text:
        return table.columns[Place(column)].decimal &&
               ReadNumber(row == Row::Live ? rows->Text(column) : Known(column).text, value);
      default: return 0;
    }
    return 1;
  }

  int GetText(int column, char** text, int* length) {
    if (column < 0) {
      int64_t number;
      if (!IsLarge(column, &number)) return 0;
      scratch.text = std::to_string(number);
      *text = scratch.text.data();
      *length = static_cast<int>(scratch.text.size());
      return 1;
    }
    std::string_view found;
    const Column& of = table.columns[Place(column)];
    switch (KindOf(column)) {
      case Kind::Null: return 0;
      case Kind::Integer:
        Get(column, &scratch);
        if (of.boolean) {
          scratch.text = scratch.integer ? "1" : "0";
        } else if (of.decimal && of.decimals > 0) {
          SetRealText(static_cast<double>(scratch.integer), of.decimals, &scratch.text);
        } else {
          scratch.text = std::to_string(scratch.integer);
        }
        found = scratch.text;
        break;
      case Kind::Real:
        if (!of.decimal) return 0;  // the engine makes a text of the number
        SetRealText(row == Row::Live ? rows->Real(column) : Known(column).real, of.decimals,
                    &scratch.text);
        found = scratch.text;
        break;
      default: found = row == Row::Live ? rows->Text(column) : Known(column).text;
    }
    if (found.size() > static_cast<size_t>(kLongestText)) return 0;
    *text = const_cast<char*>(found.data());
    *length = static_cast<int>(found.size());
    return 1;
  }

  // A field without a value is an empty text, and not 0.
  int TypeOf(int column) {
    if (column < 0) return 2;
    return KindOf(column) == Kind::Null ? 1 : table.columns[Place(column)].type;
  }

  // The value of a stored field, in zpDatabaseView_Commit. Null for the fields that cannot be
  // written.
  Value* Store(Field* field) {
    Note(field);
    field->is_known = false;
    if (field->column < 0 || is_refreshing) return nullptr;
    stored[Place(field->column)] = true;
    return &pending[Place(field->column)];
  }

  // Before a change by this connection.
  void Park() {
    if (by_query) {
      if (rows) rows->Park();
      return;
    }
    if (row == Row::Live && !indexes.empty() && !ended) {
      rows->Get(indexes.front().column, &order);
      has_order = true;
    }
    Drop();
    records = -1;
  }

  Connection& connection() const { return *database->connection; }

  Database* const database;
  ZPDATABASEVIEW handle = nullptr;
  Table table;
  std::string error;

 private:
  enum class Row { None, Live, Loaded, Unloaded };
  static constexpr int kLongestText = 0x7FFFFFFF - 1;
  static constexpr int kLargestBlock = 512;

  int Fail(std::string text) {
    error = std::move(text);
    return 0;
  }
  int FailWith(const std::string& what) { return Fail(what + ": " + connection().error()); }
  static size_t Place(int column) { return static_cast<size_t>(column); }
  int Count() const { return static_cast<int>(table.columns.size()); }
  // Where the key is in `rows` of a table.
  int KeyInRows() const { return table.key_column < 0 ? Count() : table.key_column; }
  bool HasIntegerKey() const {
    return table.key_column < 0 || table.columns[Place(table.key_column)].type == 2;
  }

  // --- Fields -----------------------------------------------------------------------------------
  // A field is a variable; the two types of the handle are one in the engine.
  static ZPVARIABLE AsVariable(ZPDATABASEVARIABLE field) {
    return reinterpret_cast<ZPVARIABLE>(field);
  }
  void AddFields() {
    static constexpr const char* kNames[] = {"recno", "totrec", "deleted", "eof"};
    for (Field& field : fields) {
      const bool own = field.column < 0;
      const std::string_view name = own ? kNames[-1 - field.column]
                                        : std::string_view(table.columns[Place(field.column)].name);
      field.handle =
          zpDatabaseView_AddVariable(handle, name.data(), static_cast<int>(name.size()), &field);
    }
  }
  // Gives the fields the values of the current record: those that the engine has got values of
  // since the last time, and those that a script has stored in, of which Commit tells. What is read
  // of one record is likely to be read of the next, so it is passed on now if it is at hand and
  // short. Otherwise the engine asks for it. A field that has become a reference has no value of
  // its own.
  void Refresh() {
    if (!handle) return;
    moves++;
    is_refreshing = true;
    zpDatabaseView_Commit(handle);
    is_refreshing = false;
    Field** kept = read.data();
    for (Field* const field : read) {
      field->is_read = HasItsValue(field) || PassOn(field);
      if (field->is_read) *kept++ = field;
    }
    read.resize(static_cast<size_t>(kept - read.data()));
  }
  // Whether the engine has the field's value already: the end of the rows, for example, comes once.
  bool HasItsValue(const Field* field) {
    int64_t number;
    return field->is_known && GetOwn(field->column, &number) && number == field->known;
  }
  // Returns whether the field has a value afterwards.
  bool PassOn(Field* field) {
    const ZPVARIABLE variable = AsVariable(field->handle);
    if (zpVariable_NextIdentity(variable) != variable) return false;
    bool has_value = true;
    int number;
    field->is_known = false;
    if (field->column >= 0) {
      // A script may not read it any more. So now and then it gets no value, and loses its place if
      // the engine does not ask then.
      const bool has_room = field->passed++ < field->most_passed;
      has_value = has_room && row == Row::Live && rows->Store(field->column, *field->of, variable);
      if (!has_room) field->dropped = moves;
    } else if (field->column != kRecords && GetInteger(field->column, &number)) {
      zpVariable_SetValue_Integer(variable, number);
      field->is_known = true;
      field->known = number;
    } else {
      has_value = false;
    }
    if (!has_value) zpVariable_SetValue_Variable(variable, no_value);
    zpDatabaseVariable_SetDirty(field->handle, 0);
    return has_value;
  }

  // The value of one of the four fields that are not of a column. Returns false if it has none.
  bool GetOwn(int column, int64_t* number) {
    switch (column) {
      case kRecord:
        if (!by_query && place.kind != Kind::Integer) return false;
        *number = by_query ? record_number : place.integer;
        return true;
      case kRecords: *number = CountRecords(); return true;
      case kDeleted: *number = deleted; return true;
      default: *number = at_end; return true;
    }
  }
  // Whether that value is no integer of the engine's, so that it is given in the other forms.
  bool IsLarge(int column, int64_t* number) {
    return GetOwn(column, number) && *number != static_cast<int>(*number);
  }

  Kind KindOf(int column) {
    if (row == Row::Live) return rows->kind(column);
    return Load() ? loaded[Place(column)].kind : Kind::Null;
  }
  // REQUIRES: KindOf has found a value, and the row is not Live.
  const Value& Known(int column) const { return loaded[Place(column)]; }
  void Get(int column, Value* value) {
    if (row == Row::Live) {
      rows->Get(column, value);
    } else {
      *value = Known(column);
    }
  }

  int64_t CountRecords() {
    if (records >= 0) return records;
    if (by_query && rows) records = rows->Count();
    if (records >= 0) return records;
    {
      // A query may end with a comment, which goes to the end of its line.
      const std::string text = by_query ? "SELECT count(*) FROM (" + select + "\n) AS counted"
                                        : "SELECT count(*) FROM " + table.sql_name + Where("");
      const RowsPointer counted = connection().Select(text, values, 0);
      if (counted && counted->Next() == 1) return records = counted->Integer(0);
    }
    records = 0;
    // What is no part of another query, such as EXPLAIN, is read to its end.
    const RowsPointer again = by_query ? connection().Open(select, values) : nullptr;
    if (again && again->Last() == 1) records = again->number();
    return records;
  }

  // --- The place --------------------------------------------------------------------------------
  // Ends the query. The current record is then in the database.
  void Drop();
  // Takes note of the row that `rows` is at, if found is 1.
  int Arrive(int found);
  // The end of a move that has found a record, or none, or has failed.
  int At(int found, bool refreshes = true);
  // A record that the filter does not let pass counts as none.
  int Pass(int found);
  int Passes();
  int GoToEnd(int direction, bool refreshes = true);

  // --- Steps ------------------------------------------------------------------------------------
  // Goes one row on. Returns 1, 0 at the end, or -1.
  int Step(int direction);
  int StepOfQuery(int direction);
  // Goes on in `rows`, and to the queries that follow it.
  int StepOn();
  // The order of the index's column for a direction: 1 rising, -1 falling.
  int Rising(int direction) const;
  std::string OrderColumn() const;
  // The values of a query: those of the condition, and that many more.
  void SetStart(size_t more);
  // The first query of a direction: that of the records without a value, when rising.
  bool Begin(int direction);
  bool BeginPhase(int direction);
  bool BeginAfter(int direction);
  bool Began(int direction, const std::string& where, bool is_of_nulls);
  std::string OrderByKey(int direction) const;
  std::string OrderBy(int rising, bool nulls) const;
  std::string Where(const std::string& more) const;
  std::string MarkOf(size_t number) const { return connection().mark() + std::to_string(number); }
  // The marker of the last value in `start`, or of the one that many before it.
  std::string Mark(size_t before_last) const { return MarkOf(start.size() - before_last); }

  static bool IsKey(Rows& rows, int column, std::string_view key, bool exact);
  // Whether a key is a value of the column's type. For a whole number it becomes one.
  static bool Fits(const Column& column, Value* key);
  // The value of the index's column, to go on from.
  bool FindOrder();
  // Copies the current record to `loaded`. Returns false if there is none.
  bool Load();

  // --- Changes ----------------------------------------------------------------------------------
  bool CanChange();
  // Whether a new record gets the current one's value.
  bool IsCopied(int column) const;
  bool CollectStored();
  // The values of the stored columns, with room for that many more. The list keeps its memory.
  Values& StoredValues(size_t more);
  std::string InsertText(bool with_key) const;
  int Insert(const std::string& text, const Values& list, const std::string& what);
  bool Change(const std::string& text, const Values& list, const std::string& what);

  const bool by_query = false;
  std::string select;  // the query; or of a table: SELECT, the columns, the key, FROM
  std::string condition;
  Values values;  // of the query or the condition

  RowsPointer rows;
  int direction_of_rows = 0;  // 0: they cannot be gone on with
  int phase = 0;              // 0: another query follows that of `rows`
  int block = 1;              // rows that a query asks for, where the connection limits them
  Values start;               // the values of `rows`

  Row row = Row::None;
  Value place;  // the key of the current record
  Value order;  // the value of the index's column there, if has_order
  bool has_order = false;
  bool ended = false;  // the last move went past the end; an index then goes nowhere from there
  Values loaded;       // the columns
  int64_t record_number = 0;
  int64_t records = -1;  // -1: not counted
  bool deleted = false;
  bool at_end = false;
  bool top_is_due = false;
  ZPEXPRESSION filter = nullptr;

  std::vector<bool> stored;  // columns that a script has stored
  Values pending;            // and their values
  Values changes;            // of a statement
  std::vector<bool> inserted, updated;
  std::string insert_text, update_text, find_text;
  Value scratch;

  std::list<Field> fields;
  std::vector<Index> indexes;  // the first one orders the view
  std::vector<Field*> read;    // those that have is_read set
  bool is_refreshing = false;
  uint64_t moves = 0;  // times that the fields got values
  ZPVARIABLELIST nothing = nullptr;
  ZPVARIABLE no_value = nullptr;
};

inline void Database::Park() {
  for (View& view : views) view.Park();
}

}  // namespace zephsql

#include "extensions/sql/ViewChanges.h"
#include "extensions/sql/ViewMoves.h"

#endif
