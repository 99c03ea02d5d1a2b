// The table of functions that a library of an SQL database exports. Peer has what differs:
//
//   // Connects for a database that is opened or created. *table receives the name of the table
//   that
//   // the path means, if it means one; *required, whether it has to be there. Returns null for a
//   // failure, and stores what was tried and why it failed.
//   static ConnectionPointer Connect(const Opening& opening, std::string* table, bool* required,
//                                    std::string* error);
//   // The type of a column of a created table.
//   static std::string TypeOf(const FieldSpecification& field);
//   // The column that is the key of a created table.
//   static constexpr char kKeyColumn[];
//   // A name as a created table, column or index gets it.
//   static std::string NameOf(std::string_view name);
//   // What stands before a table's name to build its indexes again.
//   static constexpr char kReindex[];
//
// Functions return 0 for a failure. std::bad_alloc passes through them to the engine.

#ifndef ZEPH_EXTENSIONS_SQL_LIBRARY_H
#define ZEPH_EXTENSIONS_SQL_LIBRARY_H

#include <list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "extensions/sql/View.h"

namespace zephsql {

// What a script says about a database.
struct Opening {
  ZPPROGRAM program;
  std::string_view path;
  std::string_view user, password, options;
  bool create;
};

// The value of a system variable, which the configuration sets; empty if there is none.
inline std::string Setting(ZPPROGRAM program, const char* name) {
  ZPVARIABLE variable = zpVariableHash_Find(zpProgram_System_VariableHash(program), name, -1);
  if (!variable) return "";
  int length = 0;
  const char* const text = zpVariable_Value(variable, &length);
  return std::string(Bytes(text, length));
}

template <class Peer>
class Library {
 public:
  static _ZP_EL_Database* Table() {
    static _ZP_EL_Database table = {
        6,          Create,          Open,        Close,        OpenView,        RunQuery,
        Pack,       SetPrimaryIndex, CreateIndex, OpenIndexes,  Reindex,         Error,
        ViewClose,  ViewSkip,        ViewGo,      ViewAdd,      ViewDelete,      ViewUnDelete,
        ViewUpdate, ViewFilter,      ViewFind,    RevealTable,  RevealAggregate, ViewError,
        GetInteger, GetDouble,       GetString,   SetInteger,   SetDouble,       SetString,
        nullptr,    Commit,          Rollback,    VariableType, Transaction,     Command,
        FreeData};
    return &table;
  }

 private:
  static Database* Of(ZPDATABASE handle) { return static_cast<Database*>(zpDatabase_data(handle)); }
  static View* Of(ZPDATABASEVIEW handle) { return static_cast<View*>(zpDatabaseView_data(handle)); }
  static View::Field* Of(ZPDATABASEVARIABLE handle) {
    return static_cast<View::Field*>(zpDatabaseVariable_data(handle));
  }
  static int Fail(Database* database, std::string text) {
    database->error = std::move(text);
    return 0;
  }
  static int FailWith(Database* database, const std::string& what) {
    return Fail(database, what + ": " + database->connection->error());
  }

  // --- Databases --------------------------------------------------------------------------------
  static Database* NewDatabase(ZPDATABASE handle) {
    auto made = std::make_unique<Database>(handle, nullptr);
    Database* const database = made.get();
    zpDatabase_SetData(handle, made.release());
    return database;
  }

  // Adds a view that was made, and keeps it if it could be started.
  static int AddView(Database* database, std::string_view name) {
    View& view = database->views.back();
    if (!view.Start()) {
      database->error = view.error;
      database->views.pop_back();
      return 0;
    }
    view.SetHandle(
        zpDatabase_AddView(database->handle, name.data(), static_cast<int>(name.size()), &view));
    return 1;
  }
  // is_whole: the table's name has no schema.
  static int AddTable(Database* database, std::string_view name, const std::string& table_name,
                      bool is_whole, std::string condition, Values values) {
    zephsql::Table table;
    const int found = database->connection->Describe(table_name, is_whole, &table);
    if (found < 0) return FailWith(database, "Cannot read the table '" + table_name + "'");
    if (found == 0) return Fail(database, "There is no table '" + table_name + "'");
    if (table.columns.empty())
      return Fail(database, "The table '" + table_name + "' has no columns");
    if (!condition.empty()) database->connection->NoteScript(condition);
    if (table.key.empty()) {
      // Nothing tells its records from one another, so it can only be read.
      std::string text = "SELECT ";
      for (const Column& column : table.columns) {
        text += (&column == &table.columns.front() ? "" : ", ") + Quoted(column.name);
      }
      text += " FROM " + table.sql_name;
      if (!condition.empty()) text += " WHERE " + condition;
      database->views.emplace_back(database, std::move(text), std::move(values));
      return AddView(database, name);
    }
    database->views.emplace_back(database, std::move(table), std::move(condition),
                                 std::move(values));
    return AddView(database, name);
  }

  static int Open(ZPDATABASE handle, const char* path, int pathlength, const char* name,
                  int namelength, const char* user, int userlength, const char* password,
                  int passwordlength, const char* options, int optionslength) {
    Database* const database = NewDatabase(handle);
    std::string table;
    bool required = false;
    const Opening opening = {zpDatabase_Program(handle),    Bytes(path, pathlength),
                             Bytes(user, userlength),       Bytes(password, passwordlength),
                             Bytes(options, optionslength), false};
    database->connection = Peer::Connect(opening, &table, &required, &database->error);
    if (!database->connection) return 0;
    if (table.empty()) return 1;
    if (!required) {
      zephsql::Table described;
      const int found = database->connection->Describe(table, false, &described);
      if (found < 0) return FailWith(database, "Cannot open the table '" + table + "'");
      if (found == 0) return 1;
    }
    if (!AddTable(database, Bytes(name, namelength), table, false, "", {})) return 0;
    database->main = &database->views.back();
    return 1;
  }

  static int Create(ZPDATABASE handle, const char* path, int pathlength, const char* name,
                    int namelength, const char* specification, int length) {
    Database* const database = NewDatabase(handle);
    std::vector<FieldSpecification> fields;
    const std::string wrong = ReadSpecification(Bytes(specification, length), &fields);
    if (!wrong.empty()) return Fail(database, "Cannot create a table: " + wrong);
    std::string table;
    database->connection = CreateTable(zpDatabase_Program(handle), Bytes(path, pathlength), fields,
                                       &table, &database->error);
    if (!database->connection) return 0;
    if (!AddTable(database, Bytes(name, namelength), table, true, "", {})) return 0;
    database->main = &database->views.back();
    return 1;
  }

  static ConnectionPointer CreateTable(ZPPROGRAM program, std::string_view path,
                                       const std::vector<FieldSpecification>& fields,
                                       std::string* table, std::string* error) {
    bool required = false;
    ConnectionPointer connection =
        Peer::Connect({program, path, "", "", "", true}, table, &required, error);
    if (!connection) return nullptr;
    if (table->empty()) {
      *error = "Cannot create a table: the path does not name one";
      return nullptr;
    }
    *table = Peer::NameOf(*table);
    std::string text = "CREATE TABLE " + Quoted(*table) + " (" + Peer::kKeyColumn;
    for (const FieldSpecification& field : fields) {
      text += ", " + Quoted(Peer::NameOf(field.name)) + " " + Peer::TypeOf(field);
    }
    if (connection->Run(text + ")", connection->none(), true, nullptr)) return connection;
    *error = "Cannot create the table '" + *table + "': " + connection->error();
    return nullptr;
  }

  static int Close(ZPDATABASE handle) {
    Database* const database = Of(handle);
    database->views.clear();
    if (database->connection) database->connection->Leave();
    return 1;
  }

  static void FreeData(ZPDATABASE, void* data) { delete static_cast<Database*>(data); }

  static const char* Error(ZPDATABASE handle) { return Of(handle)->error.c_str(); }

  // --- Queries ----------------------------------------------------------------------------------
  // "people", "people where age > ?": a view of a table, which can be changed.
  static bool IsTableView(std::string_view query, std::string* table, std::string* condition) {
    size_t end = 0;
    if (query.starts_with('"')) {
      end = query.find('"', 1);
      if (end == std::string_view::npos) return false;
      *table = query.substr(1, end - 1);
      end++;
    } else {
      while (end < query.size() && (IsWordByte(query[end]) || query[end] == '.')) end++;
      *table = query.substr(0, end);
    }
    if (table->empty()) return false;
    std::string_view rest = Trimmed(query.substr(end));
    if (rest.empty()) return true;
    constexpr size_t kWord = 5;
    if (!SameName(rest.substr(0, kWord), "where") || rest.size() == kWord ||
        IsWordByte(rest[kWord])) {
      return false;
    }
    *condition = rest.substr(kWord);
    return true;
  }

  static int OpenView(ZPDATABASE handle, const char* name, int namelength, const char* query,
                      int querylength, ZPVARIABLELIST variables, int) {
    Database* const database = Of(handle);
    const std::string_view alias = Bytes(name, namelength);
    std::string_view text = Trimmed(Bytes(query, querylength));
    while (text.ends_with(';')) text = Trimmed(text.substr(0, text.size() - 1));
    std::string table, condition;
    const bool of_table = IsTableView(text, &table, &condition);
    Query read(of_table ? std::string_view(condition) : text, variables,
               database->connection->mark());
    if (!read.error.empty()) {
      return Fail(database, "Cannot open the view '" + std::string(alias) + "': " + read.error);
    }
    if (of_table) {
      return AddTable(database, alias, table, text.starts_with('"'), std::move(read.text),
                      std::move(read.values));
    }
    database->views.emplace_back(database, std::move(read.text), std::move(read.values));
    return AddView(database, alias);
  }

  static int RunQuery(ZPDATABASE handle, const char* text, int length, ZPVARIABLELIST variables,
                      int) {
    Database* const database = Of(handle);
    const Query query(Bytes(text, length), variables, database->connection->mark());
    if (!query.error.empty()) return Fail(database, "Cannot run the query: " + query.error);
    database->Park();
    return database->connection->Run(query.text, query.values, false, nullptr) ||
           FailWith(database, "Cannot run the query");
  }

  static int Command(ZPDATABASE handle, const char* text, int length, const char* arguments,
                     int argumentslength) {
    Database* const database = Of(handle);
    const std::string_view command = Bytes(text, length);
    const std::string_view rest = Bytes(arguments, argumentslength);
    const std::string what = "Cannot run the command '" + std::string(command) + "'";
    database->Park();
    const int done = database->connection->Command(command, rest);
    if (done != 0) return done > 0 || FailWith(database, what);
    std::string whole(command);
    if (!rest.empty()) whole.append(" ").append(rest);
    return database->connection->Run(whole, database->connection->none(), false, nullptr) ||
           FailWith(database, what);
  }

  static int Transaction(ZPDATABASE handle) {
    Database* const database = Of(handle);
    database->Park();
    return database->connection->Transaction() || FailWith(database, "Cannot begin a transaction");
  }
  static int Commit(ZPDATABASE handle) {
    Database* const database = Of(handle);
    database->Park();
    return database->connection->Commit() || FailWith(database, "Cannot commit");
  }
  static int Rollback(ZPDATABASE handle) {
    Database* const database = Of(handle);
    database->Park();
    return database->connection->Rollback() || FailWith(database, "Cannot roll back");
  }

  // --- Indexes of the table that was opened or created
  // --------------------------------------------
  static View* Main(ZPDATABASE handle) {
    Database* const database = Of(handle);
    if (!database->main) Fail(database, "The database has not been opened for a table");
    return database->main;
  }
  static int GoTop(ZPDATABASE handle) {
    return Of(handle)->main->Go(-1) || Fail(Of(handle), Of(handle)->main->error);
  }

  static int SetPrimaryIndex(ZPDATABASE handle, const char* name, int length) {
    View* const view = Main(handle);
    if (!view) return 0;
    return view->MakePrimary(Bytes(name, length)) ||
           Fail(Of(handle), "Database has no index with that name");
  }

  static int OpenIndexes(ZPDATABASE handle, ZPPROGRAM, const char* list, int length) {
    Database* const database = Of(handle);
    View* const view = Main(handle);
    if (!view) return 0;
    std::vector<Index> indexes;
    for (const std::string_view name : SplitList(Bytes(list, length))) {
      Index index;
      const int found = FindIndex(database, view->table, name, &index);
      const std::string what = "the index '" + std::string(name) + "'";
      if (found < 0) return FailWith(database, "Cannot open " + what);
      if (found == 0) return Fail(database, "There is no " + what.substr(4));
      indexes.push_back(index);
    }
    view->SetIndexes(std::move(indexes));
    return GoTop(handle);
  }
  static std::string IndexName(const zephsql::Table& table, std::string_view name) {
    return Peer::NameOf(table.name + "_" + BaseName(name));
  }
  static int FindIndex(Database* database, const zephsql::Table& table, std::string_view name,
                       Index* index) {
    int found = database->connection->Describe(table, IndexName(table, name), index);
    if (found == 0) found = database->connection->Describe(table, BaseName(name), index);
    index->name = name;
    return found;
  }

  static int CreateIndex(ZPDATABASE handle, ZPPROGRAM, const char* path, int pathlength,
                         const char* expression, int expressionlength, const char* flags,
                         int flagslength) {
    Database* const database = Of(handle);
    View* const view = Main(handle);
    if (!view) return 0;
    Index index;
    index.name = Bytes(path, pathlength);
    const std::string what = "Cannot make the index '" + index.name + "'";
    // d.name, people.d.name, name
    std::string_view key = Trimmed(Bytes(expression, expressionlength));
    key.remove_prefix(key.rfind('.') + 1);
    const Columns& columns = view->table.columns;
    size_t column = 0;
    while (column < columns.size() && !SameName(columns[column].name, key)) column++;
    if (column == columns.size()) {
      return Fail(database, what + ": its key has to be a field, such as d.name");
    }
    index.column = static_cast<int>(column);
    bool unique = false;
    for (const std::string_view flag : SplitList(Bytes(flags, flagslength))) {
      if (SameName(flag, "ascending")) index.descending = false;
      if (SameName(flag, "descending")) index.descending = true;
      if (SameName(flag, "unique")) unique = true;
      if (SameName(flag, "nounique")) unique = false;
      if (SameName(flag, "range")) return Fail(database, what + ": there are no range indexes");
    }
    database->Park();
    Connection& connection = *database->connection;
    const std::string name = IndexName(view->table, index.name);
    const std::string text = std::string("CREATE ") + (unique ? "UNIQUE " : "") + "INDEX " +
                             Quoted(name) + " ON " + view->table.sql_name + " (" +
                             Quoted(columns[column].name) + (index.descending ? " DESC)" : ")");
    if (!Atomically(&connection, &database->error, [&] {
          // Only an index of this table is replaced.
          Index old;
          const int found = connection.Describe(view->table, name, &old);
          return found >= 0 && (found == 0 || Run(&connection, "DROP INDEX " + old.sql_name)) &&
                 Run(&connection, text);
        })) {
      database->error = what + ": " + database->error;
      return 0;
    }
    view->AddIndex(index);
    return GoTop(handle);
  }
  static bool Run(Connection* connection, const std::string& text) {
    return connection->Run(text, connection->none(), true, nullptr);
  }
  // Does something as a whole or not at all, also in the middle of a transaction of the script.
  template <class Work>
  static bool Atomically(Connection* connection, std::string* error, const Work& work) {
    const bool nested = connection->IsInTransaction();
    if (nested ? !Run(connection, "SAVEPOINT zeph_work") : !connection->Transaction()) {
      *error = connection->error();
      return false;
    }
    bool done = work();
    if (!done) *error = connection->error();
    if (!nested) {
      if (done && !connection->Commit()) {
        *error = connection->error();
        done = false;
      }
      if (!done) (void)connection->Rollback();
      return done;
    }
    if (!done) (void)Run(connection, "ROLLBACK TO SAVEPOINT zeph_work");
    (void)Run(connection, "RELEASE SAVEPOINT zeph_work");
    return done;
  }

  static int Reindex(ZPDATABASE handle) {
    Database* const database = Of(handle);
    View* const view = Main(handle);
    if (!view) return 0;
    database->Park();
    Connection& connection = *database->connection;
    if (!connection.Run(Peer::kReindex + view->table.sql_name, connection.none(), true, nullptr)) {
      return FailWith(database, "Cannot build the indexes of '" + view->table.name + "' again");
    }
    return GoTop(handle);
  }
  // Deleted records are gone already.
  static int Pack(ZPDATABASE handle) { return Main(handle) && GoTop(handle); }

  // --- Views ------------------------------------------------------------------------------------
  // The fields may be read no more, but still have this as their data until they go, too.
  static int ViewClose(ZPDATABASEVIEW handle) {
    View* const view = Of(handle);
    Database* const database = view->database;
    if (database->main == view) database->main = nullptr;
    database->views.remove_if([view](const View& each) { return &each == view; });
    return 1;
  }
  static int ViewSkip(ZPDATABASEVIEW handle, int count) { return Of(handle)->Skip(count); }
  static int ViewGo(ZPDATABASEVIEW handle, long position) { return Of(handle)->Go(position); }
  static int ViewAdd(ZPDATABASEVIEW handle) { return Of(handle)->Add(); }
  static int ViewDelete(ZPDATABASEVIEW handle) { return Of(handle)->Delete(); }
  static int ViewUnDelete(ZPDATABASEVIEW handle) { return Of(handle)->UnDelete(); }
  static int ViewUpdate(ZPDATABASEVIEW handle) { return Of(handle)->Update(); }
  static int ViewFilter(ZPDATABASEVIEW handle, ZPPROGRAM program, const char* text, int length) {
    return Of(handle)->SetFilter(program, text, length);
  }
  static int ViewFind(ZPDATABASEVIEW handle, const char* key, int length, int exact) {
    return Of(handle)->Find(Bytes(key, length), exact != 0);
  }
  static const char* ViewError(ZPDATABASEVIEW handle) { return Of(handle)->error.c_str(); }

  // A table with a record for each column, made as dbcreate makes one.
  static int RevealTable(ZPDATABASEVIEW handle, const char* path, int length) {
    View* const view = Of(handle);
    const std::vector<FieldSpecification> fields = {{"field_name", 'C', 63, 0},
                                                    {"field_type", 'C', 1, 0},
                                                    {"field_len", 'N', 9, 0},
                                                    {"field_dec", 'N', 4, 0}};
    std::string name;
    const ConnectionPointer made = CreateTable(zpDatabaseView_Program(handle), Bytes(path, length),
                                               fields, &name, &view->error);
    if (!made) return 0;
    std::string text = "INSERT INTO " + Quoted(name) + " (";
    for (const FieldSpecification& field : fields) {
      text += (&field == &fields.front() ? "" : ", ") + Quoted(field.name);
    }
    text += ") VALUES (";
    for (int i = 1; i <= 4; i++) text += (i == 1 ? "" : ", ") + (made->mark() + std::to_string(i));
    text += ")";
    bool done = made->Transaction();
    for (const Column& column : view->table.columns) {
      Values values(4);
      values[0].SetText(Uppered(column.name));
      values[1].SetText({&column.letter, 1});
      values[2].SetInteger(column.length);
      values[3].SetInteger(column.decimals);
      done = done && made->Run(text, values, true, nullptr);
    }
    done = done && made->Commit();
    if (!done) view->error = "Cannot fill the table '" + name + "': " + made->error();
    made->Leave();
    return done;
  }

  static int RevealAggregate(ZPDATABASEVIEW handle, ZPVARIABLE* variable) {
    int position = 0;
    for (const Column& column : Of(handle)->table.columns) {
      ZPVARIABLE element = zpVariable_Array_Element(++position, *variable, 1);
      if (!element) break;
      const auto set = [element](const char* name, const std::string& text) {
        ZPVARIABLE member = zpVariable_Struct_Member(name, -1, element, 1);
        if (member) zpVariable_SetValue(member, text.data(), static_cast<int>(text.size()));
      };
      set("FIELD_NAME", Uppered(column.name));
      set("FIELD_TYPE", std::string(1, column.letter));
      set("FIELD_LEN", std::to_string(column.length));
      set("FIELD_DEC", std::to_string(column.decimals));
    }
    return 1;
  }

  // --- Fields -----------------------------------------------------------------------------------
  // The one field that SetHandle makes for its own use has no data, and is never read.
  static int GetInteger(ZPDATABASEVARIABLE handle, int* value) {
    View::Field* const field = Of(handle);
    if (!field) return 0;
    field->view->BeginRead(field);
    return field->view->GetInteger(field->column, value);
  }
  static int GetDouble(ZPDATABASEVARIABLE handle, double* value) {
    View::Field* const field = Of(handle);
    if (!field) return 0;
    field->view->BeginRead(field);
    return field->view->GetReal(field->column, value);
  }
  static int GetString(ZPDATABASEVARIABLE handle, char** text, int* length, int*) {
    View::Field* const field = Of(handle);
    if (!field) return 0;
    field->view->BeginRead(field);
    return field->view->GetText(field->column, text, length);
  }
  static int VariableType(ZPDATABASEVARIABLE handle) {
    View::Field* const field = Of(handle);
    if (!field) return 1;
    field->view->Settle();
    return field->view->TypeOf(field->column);
  }
  static int SetInteger(ZPDATABASEVARIABLE handle, int value) {
    if (Value* to = Stored(handle)) to->SetInteger(value);
    return 1;
  }
  static int SetDouble(ZPDATABASEVARIABLE handle, double value) {
    if (Value* to = Stored(handle)) to->SetReal(value);
    return 1;
  }
  static int SetString(ZPDATABASEVARIABLE handle, const char* text, int length) {
    if (Value* to = Stored(handle)) to->SetBytes(Bytes(text, length));
    return 1;
  }
  static Value* Stored(ZPDATABASEVARIABLE handle) {
    View::Field* const field = Of(handle);
    return field ? field->view->Store(field) : nullptr;
  }
};

}  // namespace zephsql

#endif
