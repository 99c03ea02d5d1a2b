// A database library whose tables are in memory, for each version of the interface: the files
// MemoryDatabase1.cpp to MemoryDatabase5.cpp are this one with an older version. A test sees what
// it is called for, can let each function fail, and can let each call a function of the script.
//
// A table is made with a specification such as "n int, x double, t text", and lives as long as the
// library. Its fields have a value only in the form of their type. The query of a view is the name
// of a field: the view has the records that have the value of the first variable there.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "api/zeph.h"

#ifndef MEMORY_DATABASE_VERSION
#define MEMORY_DATABASE_VERSION 6
#endif

namespace {

constexpr int kVersion = MEMORY_DATABASE_VERSION;

struct Column {
  std::string name;
  char type;  // i, d or t
};
using Row = std::vector<std::string>;
struct Table {
  std::vector<Column> columns;
  std::vector<Row> rows;
  std::vector<Row> before;  // the transaction
};
// The data word of a view.
struct View {
  Table* table = nullptr;
  int row = -1;  // beyond the rows there is none
  int column = -1;
  std::string wanted;
  ZPEXPRESSION filter = nullptr;
  std::string error;
};
// The data word of a database.
struct Opened {
  Table* table = nullptr;
  std::string error;
  std::list<View> views;
};
// The data word of a field.
struct Field {
  int column;
};

std::string calls;
std::string failing;  // the function that fails
std::string calling;  // the function that calls the script
std::string called;   // the script's function
std::map<std::string, Table> tables;
int objects = 0;  // data words in use

std::string Text(const char* text, int length) {
  if (text[length] != '\0') abort();  // promised by the interface
  return std::string(text, static_cast<size_t>(length));
}

// Notes a call. Returns false if it is to fail.
bool Enter(const std::string& function, ZPPROGRAM program, const std::string& arguments = "") {
  calls += function + (arguments.empty() ? "" : "(" + arguments + ")") + " ";
  if (program && calling == function) {
    calling.clear();
    zpProgram_RunFunction(program, called.c_str(), -1, nullptr, nullptr);
  }
  return failing != function;
}
bool Enter(const std::string& function, ZPDATABASE database, const std::string& arguments = "") {
  return Enter(function, zpDatabase_Program(database), arguments);
}
bool Enter(const std::string& function, ZPDATABASEVIEW view, const std::string& arguments = "") {
  return Enter(function, zpDatabaseView_Program(view), arguments);
}
Opened* Of(ZPDATABASE database) {
  return static_cast<Opened*>(zpDatabase_data(database));
}
View* Of(ZPDATABASEVIEW view) {
  return static_cast<View*>(zpDatabaseView_data(view));
}
Field* Of(ZPDATABASEVARIABLE variable) {
  return static_cast<Field*>(zpDatabaseVariable_data(variable));
}
View* ViewOf(ZPDATABASEVARIABLE variable) {
  return Of(zpDatabaseVariable_DatabaseView(variable));
}

bool Matches(const View& view, int row) {
  return view.column < 0 ||
         view.table->rows[static_cast<size_t>(row)][static_cast<size_t>(view.column)] ==
             view.wanted;
}

void Refresh(ZPDATABASEVIEW handle) {
  View* view = Of(handle);
  zpDatabaseView_Clear(handle);
  for (size_t i = 0; i < view->table->columns.size(); i++) {
    objects++;
    zpDatabaseView_AddVariable(handle, view->table->columns[i].name.c_str(), -1,
                               new Field{static_cast<int>(i)});
  }
}

bool Passes(ZPDATABASEVIEW handle) {
  View* view = Of(handle);
  if (!view->filter) return true;
  Refresh(handle);
  int passes = 0;
  return zpProgram_Execute_Dynamic_Expression_Boolean(zpDatabaseView_Program(handle), view->filter,
                                                      &passes) == 1 &&
         passes;
}

// Moves in steps of one over the records of the view.
bool Move(ZPDATABASEVIEW handle, int from, int step, int count) {
  View* view = Of(handle);
  const int rows = static_cast<int>(view->table->rows.size());
  view->row = from;
  while (count > 0) {
    view->row += step;
    if (view->row < 0 || view->row >= rows) {
      view->row = step > 0 ? rows : -1;
      Refresh(handle);
      view->error = "no such record";
      return false;
    }
    if (Matches(*view, view->row) && Passes(handle)) count--;
  }
  Refresh(handle);
  return true;
}

void AddView(ZPDATABASE database, Table* table, const std::string& name, int column,
             const std::string& wanted) {
  View* view = &Of(database)->views.emplace_back();
  view->table = table;
  view->column = column;
  view->wanted = wanted;
  Move(zpDatabase_AddView(database, name.c_str(), -1, view), -1, 1, 1);
}

int Attach(ZPDATABASE database, const std::string& path, const std::string& name) {
  auto* opened = new Opened;
  objects++;
  zpDatabase_SetData(database, opened);
  if (!tables.count(path)) {
    opened->error = "no table '" + path + "'";
    return 0;
  }
  opened->table = &tables[path];
  AddView(database, opened->table, name, -1, "");
  return 1;
}

// --- Databases -----------------------------------------------------------------------------------

int CreateNamed(ZPDATABASE database, const std::string& path, const std::string& name,
                const std::string& specification, const std::string& arguments) {
  if (!Enter("create", database, arguments)) return 0;
  Table& table = tables[path];
  table = Table();
  std::istringstream words(specification);
  std::string word, type;
  while (words >> word >> type) table.columns.push_back({word, type[0]});
  return Attach(database, path, name);
}

[[maybe_unused]] int Create3(ZPDATABASE database, const char* path, int pathlength,
                             const char* name, int namelength, const char* text, int length) {
  const std::string a = Text(path, pathlength), b = Text(name, namelength), c = Text(text, length);
  return CreateNamed(database, a, b, c, a + ";" + b + ";" + c);
}
[[maybe_unused]] int Create1(ZPDATABASE database, const char* path, int pathlength,
                             const char* text, int length) {
  const std::string a = Text(path, pathlength), b = Text(text, length);
  return CreateNamed(database, a, "rows", b, a + ";" + b);
}
int OpenNamed(ZPDATABASE database, const std::string& path, const std::string& name,
              const std::string& arguments) {
  return Enter("open", database, arguments) && Attach(database, path, name);
}
[[maybe_unused]] int Open3(ZPDATABASE database, const char* path, int pathlength, const char* name,
                           int namelength, const char* c, int clength, const char* d, int dlength,
                           const char* e, int elength) {
  const std::string a = Text(path, pathlength), b = Text(name, namelength);
  return OpenNamed(
      database, a, b,
      a + ";" + b + ";" + Text(c, clength) + ";" + Text(d, dlength) + ";" + Text(e, elength));
}
[[maybe_unused]] int Open2(ZPDATABASE database, const char* path, int pathlength, const char* c,
                           int clength, const char* d, int dlength, const char* e, int elength) {
  const std::string a = Text(path, pathlength);
  return OpenNamed(database, a, "rows",
                   a + ";" + Text(c, clength) + ";" + Text(d, dlength) + ";" + Text(e, elength));
}
[[maybe_unused]] int Open1(ZPDATABASE database, const char* path, int pathlength, const char* c,
                           int clength, const char* d, int dlength) {
  const std::string a = Text(path, pathlength);
  return OpenNamed(database, a, "rows", a + ";" + Text(c, clength) + ";" + Text(d, dlength));
}
void Free(Opened* opened) {
  objects--;
  delete opened;
}
int Close(ZPDATABASE database) {
  if (!Enter("close", database)) return 0;
  // An older engine's interface has no other place for it.
  if (kVersion < 6) {
    Free(Of(database));
    zpDatabase_SetData(database, nullptr);
  }
  return 1;
}
int OpenView(ZPDATABASE database, const char* name, int namelength, const char* query,
             int querylength, ZPVARIABLELIST variables, int count) {
  const std::string wanted_column = Text(query, querylength);
  if (!Enter("openview", database,
             Text(name, namelength) + ";" + wanted_column + ";" + std::to_string(count))) {
    return 0;
  }
  Table* table = Of(database)->table;
  for (size_t i = 0; i < table->columns.size(); i++) {
    if (table->columns[i].name != wanted_column) continue;
    ZPVARIABLE value = zpVariableList_First(variables);
    AddView(database, table, Text(name, namelength), static_cast<int>(i),
            value ? zpVariable_Value(value, nullptr) : "");
    return 1;
  }
  Of(database)->error = "no field '" + wanted_column + "'";
  return 0;
}
// Some queries are for the test: "forget" the calls so far; "fail f" lets the function f fail;
// "call f s" lets the next call of f call the script's function s.
bool TestQuery(const std::string& query) {
  std::istringstream words(query);
  std::string word;
  words >> word;
  if (word == "forget") {
    calls.clear();
  } else if (word == "fail") {
    words >> failing;
  } else if (word == "call") {
    words >> calling >> called;
  } else {
    return false;
  }
  return true;
}

int RunQuery(ZPDATABASE database, const char* query, int length, ZPVARIABLELIST variables, int) {
  if (TestQuery(Text(query, length))) return 1;
  if (!Enter("runquery", database, Text(query, length))) return 0;
  if (ZPVARIABLE result = zpVariableList_First(variables)) {
    zpVariable_SetValue_Integer(result, static_cast<int>(Of(database)->table->rows.size()));
  }
  return 1;
}
int Pack(ZPDATABASE database) {
  return Enter("pack", database);
}
int SetPrimaryIndex(ZPDATABASE database, const char* name, int length) {
  return Enter("setprimaryindex", database, Text(name, length));
}
int CreateIndex(ZPDATABASE database, ZPPROGRAM program, const char* path, int pathlength,
                const char* expression, int expressionlength, const char* flags, int flagslength) {
  if (program != zpDatabase_Program(database)) abort();
  return Enter("createindex", database,
               Text(path, pathlength) + ";" + Text(expression, expressionlength) + ";" +
                   Text(flags, flagslength));
}
int OpenIndexes(ZPDATABASE database, ZPPROGRAM program, const char* list, int length) {
  if (program != zpDatabase_Program(database)) abort();
  return Enter("openindexes", database, Text(list, length));
}
int Reindex(ZPDATABASE database) {
  return Enter("reindex", database);
}
const char* Error(ZPDATABASE database) {
  if (calling == "error") Enter("error", database);
  if (failing == "error") return nullptr;
  if (!failing.empty()) return "the database fails";
  return Of(database) ? Of(database)->error.c_str() : "";
}
[[maybe_unused]] int Commit(ZPDATABASE database) {
  if (!Enter("commit", database)) return 0;
  Of(database)->table->before.clear();
  return 1;
}
[[maybe_unused]] int Rollback(ZPDATABASE database) {
  if (!Enter("rollback", database)) return 0;
  Of(database)->table->rows = Of(database)->table->before;
  return 1;
}
[[maybe_unused]] int Transaction(ZPDATABASE database) {
  if (!Enter("transaction", database)) return 0;
  Of(database)->table->before = Of(database)->table->rows;
  return 1;
}
[[maybe_unused]] int Command(ZPDATABASE database, const char* command, int commandlength,
                             const char* arguments, int argumentslength) {
  return Enter("command", database,
               Text(command, commandlength) + ";" + Text(arguments, argumentslength));
}
[[maybe_unused]] void FreeData(ZPDATABASE database, void* data) {
  Enter("free_data", database);
  Free(static_cast<Opened*>(data));
}

// --- Views ---------------------------------------------------------------------------------------

int ViewClose(ZPDATABASEVIEW handle) {
  return Enter("view_close", handle);
}
int ViewSkip(ZPDATABASEVIEW handle, int count) {
  if (!Enter("view_skip", handle, std::to_string(count))) return 0;
  return Move(handle, Of(handle)->row, count < 0 ? -1 : 1, count < 0 ? -count : count);
}
int ViewGo(ZPDATABASEVIEW handle, long position) {
  if (!Enter("view_go", handle, std::to_string(position))) return 0;
  const int rows = static_cast<int>(Of(handle)->table->rows.size());
  if (position == -2) return Move(handle, rows, -1, 1);
  return Move(handle, -1, 1, position == -1 ? 1 : static_cast<int>(position));
}
int ViewAdd(ZPDATABASEVIEW handle) {
  if (!Enter("view_add", handle)) return 0;
  View* view = Of(handle);
  view->table->rows.emplace_back(view->table->columns.size());
  view->row = static_cast<int>(view->table->rows.size()) - 1;
  if (zpDatabaseView_Commit(handle)) return 1;
  view->error = "a value was refused";
  return 0;
}
int ViewDelete(ZPDATABASEVIEW handle) {
  if (!Enter("view_delete", handle)) return 0;
  View* view = Of(handle);
  if (view->row < 0 || view->row >= static_cast<int>(view->table->rows.size())) {
    view->error = "no record";
    return 0;
  }
  view->table->rows.erase(view->table->rows.begin() + view->row);
  Refresh(handle);
  return 1;
}
int ViewUnDelete(ZPDATABASEVIEW handle) {
  return Enter("view_undelete", handle);
}
int ViewUpdate(ZPDATABASEVIEW handle) {
  if (!Enter("view_update", handle)) return 0;
  if (!zpDatabaseView_Commit(handle)) {
    Of(handle)->error = "a value was refused";
    return 0;
  }
  Refresh(handle);
  return 1;
}
int ViewFilter(ZPDATABASEVIEW handle, ZPPROGRAM program, const char* expression, int length) {
  if (!Enter("view_filter", handle, Text(expression, length))) return 0;
  char* error = nullptr;
  Of(handle)->filter =
      zpProgram_Compile_Dynamic_Expression(program, expression, length, &error, nullptr);
  if (error) Of(handle)->error = error;
  zpProgram_Free(program, error);
  return Of(handle)->filter != nullptr;
}
int ViewFind(ZPDATABASEVIEW handle, const char* key, int length, int exact) {
  if (!Enter("view_find", handle, Text(key, length) + ";" + std::to_string(exact))) return 0;
  View* view = Of(handle);
  const std::string wanted = Text(key, length);
  for (size_t i = 0; i < view->table->rows.size(); i++) {
    const std::string& first = view->table->rows[i][0];
    if (exact ? first == wanted : first.compare(0, wanted.size(), wanted) == 0) {
      return Move(handle, static_cast<int>(i) - 1, 1, 1);
    }
  }
  view->error = "not found";
  return 0;
}
int ViewRevealTable(ZPDATABASEVIEW handle, const char* path, int length) {
  return Enter("view_revealstructure_table", handle, Text(path, length));
}
int ViewRevealAggregate(ZPDATABASEVIEW handle, ZPVARIABLE* variable) {
  if (!Enter("view_revealstructure_aggregate", handle)) return 0;
  int position = 1;
  for (const Column& column : Of(handle)->table->columns) {
    zpVariable_SetValue(zpVariable_Array_Element(position++, *variable, 1), column.name.c_str(),
                        -1);
  }
  return 1;
}
const char* ViewError(ZPDATABASEVIEW handle) {
  if (calling == "view_error") Enter("view_error", handle);
  if (failing == "view_error") return nullptr;
  return failing.empty() ? Of(handle)->error.c_str() : "the view fails";
}

// --- Fields --------------------------------------------------------------------------------------

// The text of a field of that type; null if it has another type, or if there is no record.
std::string* Value(ZPDATABASEVARIABLE variable, char type) {
  View* view = ViewOf(variable);
  const int column = Of(variable)->column;
  if (view->table->columns[static_cast<size_t>(column)].type != type) return nullptr;
  if (view->row < 0 || view->row >= static_cast<int>(view->table->rows.size())) return nullptr;
  return &view->table->rows[static_cast<size_t>(view->row)][static_cast<size_t>(column)];
}
ZPPROGRAM ProgramOf(ZPDATABASEVARIABLE variable) {
  return zpDatabaseView_Program(zpDatabaseVariable_DatabaseView(variable));
}
int GetInteger(ZPDATABASEVARIABLE variable, int* value) {
  if (!Enter("get_integer", ProgramOf(variable))) return 0;
  const std::string* text = Value(variable, 'i');
  if (text) *value = atoi(text->c_str());
  return text != nullptr;
}
int GetDouble(ZPDATABASEVARIABLE variable, double* value) {
  if (!Enter("get_double", ProgramOf(variable))) return 0;
  const std::string* text = Value(variable, 'd');
  if (text) *value = atof(text->c_str());
  return text != nullptr;
}
// Texts of an even length are handed over, the others lent.
int GetString(ZPDATABASEVARIABLE variable, char** text, int* length, int* owned) {
  if (!Enter("get_string", ProgramOf(variable))) return 0;
  if (*owned != 0) abort();
  std::string* value = Value(variable, 't');
  if (!value) return 0;
  *length = static_cast<int>(value->size());
  *owned = *length % 2 == 0;
  *text = value->data();
  if (*owned) {
    *text = static_cast<char*>(zpProgram_Allocate(nullptr, *length));
    memcpy(*text, value->data(), value->size());
  }
  return 1;
}
int Set(ZPDATABASEVARIABLE variable, const std::string& text) {
  View* view = ViewOf(variable);
  if (view->row < 0 || view->row >= static_cast<int>(view->table->rows.size())) return 0;
  view->table->rows[static_cast<size_t>(view->row)][static_cast<size_t>(Of(variable)->column)] =
      text;
  return 1;
}
int SetInteger(ZPDATABASEVARIABLE variable, int value) {
  const std::string text = std::to_string(value);
  return Enter("set_integer", ProgramOf(variable), text) && Set(variable, text);
}
int SetDouble(ZPDATABASEVARIABLE variable, double value) {
  std::ostringstream text;
  text << value;
  return Enter("set_double", ProgramOf(variable), text.str()) && Set(variable, text.str());
}
int SetString(ZPDATABASEVARIABLE variable, const char* text, int length) {
  return Enter("set_string", ProgramOf(variable), Text(text, length)) &&
         Set(variable, Text(text, length));
}
void VariableFree(ZPDATABASEVARIABLE variable) {
  if (calling == "variable_free") Enter("variable_free", ProgramOf(variable));
  objects--;
  delete Of(variable);
}
[[maybe_unused]] int VariableType(ZPDATABASEVARIABLE variable) {
  if (!Enter("variable_type", ProgramOf(variable))) return 99;
  const char type =
      ViewOf(variable)->table->columns[static_cast<size_t>(Of(variable)->column)].type;
  return type == 'i' ? 2 : type == 'd' ? 3 : 1;
}

// --- The table -----------------------------------------------------------------------------------

constexpr size_t kSize = kVersion >= 6   ? 296
                         : kVersion == 5 ? 288
                         : kVersion == 4 ? 272
                         : kVersion >= 2 ? 264
                                         : 248;

template <class Function>
void Put(char* table, size_t offset, Function function) {
  if (offset < kSize) memcpy(table + offset, &function, sizeof function);
}

// The table ends at the end of a page. The page after it cannot be read, so an engine that looks
// beyond the table of this version is killed.
_ZP_EL_Database* MakeTable() {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto* pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  if (mprotect(pages + page, page, PROT_NONE) != 0) abort();
  char* table = pages + page - kSize;
  const int version = kVersion;
  memcpy(table, &version, sizeof version);
  memset(table + sizeof version, 0xFF, sizeof version);  // no part of the version
#define PUT(field, function) Put(table, offsetof(_ZP_EL_Database, field), &(function))
#if MEMORY_DATABASE_VERSION > 2
  PUT(create, Create3);
  PUT(open, Open3);
#elif MEMORY_DATABASE_VERSION == 2
  PUT(create, Create1);
  PUT(open, Open2);
#else
  PUT(create, Create1);
  PUT(open, Open1);
#endif
  PUT(close, Close);
  PUT(openview, OpenView);
  PUT(runquery, RunQuery);
  PUT(pack, Pack);
  PUT(setprimaryindex, SetPrimaryIndex);
  PUT(createindex, CreateIndex);
  PUT(openindexes, OpenIndexes);
  PUT(reindex, Reindex);
  PUT(error, Error);
  PUT(view_close, ViewClose);
  PUT(view_skip, ViewSkip);
  PUT(view_go, ViewGo);
  PUT(view_add, ViewAdd);
  PUT(view_delete, ViewDelete);
  PUT(view_undelete, ViewUnDelete);
  PUT(view_update, ViewUpdate);
  PUT(view_filter, ViewFilter);
  PUT(view_find, ViewFind);
  PUT(view_revealstructure_table, ViewRevealTable);
  PUT(view_revealstructure_aggregate, ViewRevealAggregate);
  PUT(view_error, ViewError);
  PUT(variable_get_integer, GetInteger);
  PUT(variable_get_double, GetDouble);
  PUT(variable_get_string, GetString);
  PUT(variable_set_integer, SetInteger);
  PUT(variable_set_double, SetDouble);
  PUT(variable_set_string, SetString);
  PUT(variable_free, VariableFree);
  PUT(commit, Commit);
  PUT(rollback, Rollback);
  PUT(variable_type, VariableType);
  PUT(transaction, Transaction);
  PUT(command, Command);
  PUT(free_data, FreeData);
#undef PUT
  return reinterpret_cast<_ZP_EL_Database*>(table);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) _ZP_EL_Database* zeph_database_library() {
  static _ZP_EL_Database* const table = MakeTable();
  return table;
}

// The calls since the last one of this function, each followed by a blank.
__attribute__((visibility("default"))) const char* memory_database_calls() {
  static std::string taken;
  taken.swap(calls);
  calls.clear();
  return taken.c_str();
}
// Lets a function fail; an empty name lets none fail. "error" and "view_error" return null.
__attribute__((visibility("default"))) void memory_database_fail(const char* function) {
  failing = function;
}
// Lets the next call of a function call a function of the script.
__attribute__((visibility("default"))) void memory_database_call_back(const char* function,
                                                                      const char* script) {
  calling = function;
  called = script;
}
// Deletes all tables. Returns how many data words the engine has not given back since the last
// call. REQUIRES: no database is open.
__attribute__((visibility("default"))) int memory_database_reset() {
  tables.clear();
  calls.clear();
  failing.clear();
  calling.clear();
  const int left = objects;
  objects = 0;
  return left;
}
}
