// What a library has to know of its kind of database: connections, statements, the rows of a query
// and the description of a table. View.h makes of these what scripts see.
//
// Failures are results; the reason is then in the connection's error, in the database's own words.
// Of exceptions only std::bad_alloc passes through.

#ifndef ZEPH_EXTENSIONS_SQL_CONNECTION_H
#define ZEPH_EXTENSIONS_SQL_CONNECTION_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "extensions/sql/Values.h"

namespace zephsql {

// A column of a table or of a query's result. The letter, length and decimals are those of
// dbrevealstructure: C, N, D, L or M.
struct Column {
  std::string name;
  char letter = 'M';
  int length = 10;
  int decimals = 0;
  int type = 1;            // of variable_type
  bool decimal = false;    // numbers are read as texts with that many decimals
  bool boolean = false;    // values are 1 and 0, and are stored by truth
  bool has_text = true;    // an empty text is a value; in other columns it is NULL
  bool generated = false;  // the database calculates the values
  // Of whole numbers.
  int64_t least = INT64_MIN, largest = INT64_MAX;
};
using Columns = std::vector<Column>;

struct Table {
  std::string name;
  std::string sql_name;
  Columns columns;
  // What one record is known by, as SQL; empty if there is no such thing, and then records can only
  // be read. key_column is its place in columns, or -1.
  std::string key;
  int key_column = -1;
};

struct Index {
  std::string name;  // as scripts have written it
  std::string sql_name;
  int column = 0;
  bool descending = false;
};

// A value where a row has it. The text is valid until the next move.
struct Cell {
  Kind kind = Kind::Null;
  int64_t integer = 0;
  double real = 0;
  std::string_view text;
};

// The rows of a query. At first none is current; a failure leaves none. Columns count from 0.
class Rows {
 public:
  virtual ~Rows() = default;
  // Goes to the next row. Returns 1, 0 if there is none, or -1; kMore if the block of a Select is
  // at its end, and then the current row stays.
  static constexpr int kMore = 2;
  virtual int Next() = 0;
  // Goes to a row by its number from 1, and to the last one.
  virtual int Go(int64_t number) = 0;
  virtual int Last() = 0;
  // The number of the current row.
  virtual int64_t number() const = 0;
  // How many rows there are; -1 if that is not at hand. The current row stays.
  virtual int64_t Count() { return -1; }
  virtual const Columns& columns() = 0;
  // The value of the current row.
  virtual Kind kind(int column) = 0;
  virtual int64_t Integer(int column) = 0;
  virtual double Real(int column) = 0;
  // Of a Text or Blob; valid until the next move.
  virtual std::string_view Text(int column) = 0;
  // All of that at once.
  virtual void Read(int column, Cell* cell) {
    cell->kind = kind(column);
    if (cell->kind == Kind::Integer) cell->integer = Integer(column);
    if (cell->kind == Kind::Real) cell->real = Real(column);
    if (cell->kind == Kind::Text || cell->kind == Kind::Blob) cell->text = Text(column);
  }
  // Stores the value in a field of that column, in the form in which the engine would get it, if it
  // is at hand and short. Returns false if it is not, and the field is as before.
  virtual bool Store(int column, const Column& of, ZPVARIABLE variable) = 0;
  // The connection is going to change something: locks and memory of the database are given back.
  // The current row stays, and the rows that follow are those of before the change.
  virtual void Park() = 0;
  // Ends the query and deletes the object, or keeps it for the next query of that text. Destructors
  // call it.
  virtual void Done() noexcept = 0;

  void Get(int column, Value* value) {
    Cell cell;
    Read(column, &cell);
    value->kind = cell.kind;
    switch (cell.kind) {
      case Kind::Null: break;
      case Kind::Integer: value->integer = cell.integer; break;
      case Kind::Real: value->real = cell.real; break;
      default: value->text.assign(cell.text); break;
    }
  }
};

// Rows::Store for a class of rows, whose Read is in line here.
template <class Source>
[[gnu::always_inline]] inline bool StoreValue(Source& rows, int column, const Column& of,
                                              ZPVARIABLE variable) {
  constexpr size_t kShortText = 256;  // bytes
  Cell cell;
  rows.Source::Read(column, &cell);
  std::string_view text = cell.text;
  char number[kRealText];
  switch (cell.kind) {
    case Kind::Integer:
      if (of.decimal || of.boolean || cell.integer != static_cast<int>(cell.integer)) return false;
      zpVariable_SetValue_Integer(variable, static_cast<int>(cell.integer));
      // Scripts calculate with doubles. The field makes its own as long as it is dirty; later it
      // would ask for one.
      (void)zpVariable_Value_Double(variable);
      return true;
    case Kind::Real:
      if (!of.decimal) return false;
      text = RealText(cell.real, of.decimals, number);
      break;
    case Kind::Text:
      if (of.boolean) return false;
      break;
    default: return false;
  }
  if (text.size() > kShortText) return false;
  zpVariable_SetValue(variable, text.data(), static_cast<int>(text.size()));
  return true;
}

struct EndRows {
  void operator()(Rows* rows) const noexcept { rows->Done(); }
};
using RowsPointer = std::unique_ptr<Rows, EndRows>;

// A connection belongs to one open database of a script, and goes back to its thread's store after
// that.
class Connection {
 public:
  virtual ~Connection() = default;

  // Begin a query. The values stay the caller's, and must not change before the rows are done.
  // Select is for the library's own queries on tables, which are repeated and read from their
  // start; a connection that gets rows in blocks gets one of that many, 0 for all. Open is for the
  // queries of scripts. Return null for a failure.
  virtual RowsPointer Select(const std::string& text, const Values& values, int block) = 0;
  virtual RowsPointer Open(const std::string& text, const Values& values) = 0;
  // Whether Open of that text may change something.
  virtual bool Changes(const std::string& text) = 0;
  // Run a statement. own means that its text is the library's. *changed, if not null, receives the
  // number of rows that it has changed.
  virtual bool Run(const std::string& text, const Values& values, bool own, int64_t* changed) = 0;
  // Runs an insert into the table, and stores the record's key, or NULL if the table has none.
  virtual bool Insert(const Table& table, const std::string& text, const Values& values,
                      Value* key) = 0;

  // A script has written a part of the statements that are to come, which may change something of
  // the connection itself.
  virtual void NoteScript(const std::string&) {}

  // Returns 1 if there is a table of that name, 0 if not, -1 for a failure. The name may begin with
  // that of a schema and a point, unless it is whole.
  virtual int Describe(const std::string& name, bool is_whole, Table* table) = 0;
  // The index of that name on the table, with its first column: the same results.
  virtual int Describe(const Table& table, const std::string& name, Index* index) = 0;

  virtual bool Transaction() = 0;
  virtual bool Commit() = 0;
  virtual bool Rollback() = 0;
  virtual bool IsInTransaction() const = 0;
  // Library commands of dbcommand. Returns 1 if it is one and was done, 0 if it is none, -1.
  virtual int Command(std::string_view, std::string_view) { return 0; }

  // Ends the script's use: what is not committed is rolled back, and nothing of the script stays.
  // The program still works. Without it, Release throws the connection away.
  virtual void Leave() = 0;
  // Gives the connection to the thread's store, or deletes it. The last call; destructors make it.
  virtual void Release() noexcept = 0;

  virtual char mark() const = 0;  // '?' or '$', before the number of a parameter
  // Whether it is an error to compare a column with a text that is no value of its type.
  virtual bool is_strict() const { return false; }
  const std::string& error() const { return problem; }
  const Values& none() const { return no_values; }

 protected:
  bool Fail(std::string_view text) {
    problem.assign(text);
    return false;
  }

 private:
  std::string problem;
  Values no_values;
};
struct EndUse {
  void operator()(Connection* connection) const noexcept { connection->Release(); }
};
using ConnectionPointer = std::unique_ptr<Connection, EndUse>;

// A field of dbcreate's list: "name char(30), price number(5.2)".
struct FieldSpecification {
  std::string name;
  char letter;
  int length;
  int decimals;
};

// Reads the list. Returns an empty text, or what is wrong.
inline std::string ReadSpecification(std::string_view list,
                                     std::vector<FieldSpecification>* fields) {
  for (const std::string_view item : SplitList(list)) {
    size_t end = 0;
    while (end < item.size() && !IsSpace(item[end])) end++;
    FieldSpecification field{std::string(item.substr(0, end)), 'C', 0, 0};
    std::string type = Lowered(Trimmed(item.substr(end)));
    int length = -1, decimals = 0;
    if (const size_t open = type.find('('); open != std::string::npos) {
      const size_t close = type.find(')', open);
      if (close == std::string::npos || close + 1 != type.size()) {
        return "the type of the field '" + field.name + "' is wrong";
      }
      const std::string numbers = type.substr(open + 1, close - open - 1);
      length = atoi(numbers.c_str());
      if (const size_t point = numbers.find_first_of(".,"); point != std::string::npos) {
        decimals = atoi(numbers.c_str() + point + 1);
      }
      type = std::string(Trimmed(std::string_view(type).substr(0, open)));
    }
    if (field.name.empty()) return "a field has no name";
    for (const FieldSpecification& other : *fields) {
      if (SameName(other.name, field.name)) return "the field '" + field.name + "' is there twice";
    }
    if (type.starts_with("char")) {
      if (length < 1) return "the field '" + field.name + "' needs a length";
      field.length = length;
    } else if (type == "number") {
      field.letter = 'N';
      field.length = length < 0 ? 19 : decimals > 0 ? length + decimals + 1 : length;
      field.decimals = decimals;
      if (field.length < 1 || field.length > 19 || decimals < 0) {
        return "the field '" + field.name + "' must have 1 to 19 digits";
      }
    } else if (type == "date") {
      field.letter = 'D';
      field.length = 8;
    } else if (type == "bool") {
      field.letter = 'L';
      field.length = 1;
    } else if (type == "memo") {
      field.letter = 'M';
      field.length = 10;
    } else {
      return "the type of the field '" + field.name + "' is not known";
    }
    fields->push_back(field);
  }
  return fields->empty() ? "there are no fields" : "";
}

}  // namespace zephsql

#endif
