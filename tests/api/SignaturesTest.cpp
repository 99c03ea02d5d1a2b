// The header and the declarations that libraries have been compiled with agree: functions in
// tests/api/Signatures.h, tables here. All of it is checked when this is compiled.

#include "tests/api/Signatures.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace {

// The tables as libraries have been compiled with them. The version is an int in a word of its own:
// an older library may have declared the word.
struct Parameter {
  const char* name;
  int namelength;
  int flags;
};
struct Function {
  const char* name;
  int namelength;
  int parametercount;
  Parameter* parameters;
  void (*function)(ZPPROGRAM vm, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state);
};
struct FunctionTable {
  void* unread;
  Function* functions;
};
struct Commerce {
  void* unread;
  int (*init)(ZPPROGRAM, void** state, const char* method, const char* action,
              ZPVARIABLELIST fields, ZPVARIABLEHASH system);
  int (*loop)(ZPPROGRAM, void** state, const char* method, const char* action,
              ZPVARIABLELIST fields, ZPVARIABLEHASH system, int index);
  void (*cleanup)(ZPPROGRAM, void** state, const char* method, const char* action,
                  ZPVARIABLELIST fields);
  const char* (*error)(ZPPROGRAM, void** state, const char* method, const char* action,
                       ZPVARIABLELIST fields);
};
struct Database {
  long version;
  int (*create)(ZPDATABASE, const char* path, int, const char* name, int, const char* specification,
                int);
  int (*open)(ZPDATABASE, const char* path, int, const char* name, int, const char*, int,
              const char*, int, const char*, int);
  int (*close)(ZPDATABASE);
  int (*openview)(ZPDATABASE, const char* name, int, const char* query, int, ZPVARIABLELIST,
                  int count);
  int (*runquery)(ZPDATABASE, const char* query, int, ZPVARIABLELIST, int count);
  int (*pack)(ZPDATABASE);
  int (*setprimaryindex)(ZPDATABASE, const char* name, int);
  int (*createindex)(ZPDATABASE, ZPPROGRAM, const char* path, int, const char* expression, int,
                     const char* flags, int);
  int (*openindexes)(ZPDATABASE, ZPPROGRAM, const char* list, int);
  int (*reindex)(ZPDATABASE);
  const char* (*error)(ZPDATABASE);
  int (*view_close)(ZPDATABASEVIEW);
  int (*view_skip)(ZPDATABASEVIEW, int count);
  int (*view_go)(ZPDATABASEVIEW, long position);
  int (*view_add)(ZPDATABASEVIEW);
  int (*view_delete)(ZPDATABASEVIEW);
  int (*view_undelete)(ZPDATABASEVIEW);
  int (*view_update)(ZPDATABASEVIEW);
  int (*view_filter)(ZPDATABASEVIEW, ZPPROGRAM, const char* expression, int);
  int (*view_find)(ZPDATABASEVIEW, const char* key, int, int exact);
  int (*view_revealstructure_table)(ZPDATABASEVIEW, const char* path, int);
  int (*view_revealstructure_aggregate)(ZPDATABASEVIEW, ZPVARIABLE*);
  const char* (*view_error)(ZPDATABASEVIEW);
  int (*variable_get_integer)(ZPDATABASEVARIABLE, int*);
  int (*variable_get_double)(ZPDATABASEVARIABLE, double*);
  int (*variable_get_string)(ZPDATABASEVARIABLE, char** text, int* length, int* owned);
  int (*variable_set_integer)(ZPDATABASEVARIABLE, int);
  int (*variable_set_double)(ZPDATABASEVARIABLE, double);
  int (*variable_set_string)(ZPDATABASEVARIABLE, const char*, int);
  void (*variable_free)(ZPDATABASEVARIABLE);
  int (*commit)(ZPDATABASE);
  int (*rollback)(ZPDATABASE);
  int (*variable_type)(ZPDATABASEVARIABLE);
  int (*transaction)(ZPDATABASE);
  int (*command)(ZPDATABASE, const char* command, int, const char* arguments, int);
  void (*free_data)(ZPDATABASE, void* data);
};

#define AT_ONE_PLACE(table, member) \
  static_assert(offsetof(table, member) == offsetof(_ZP_EL_##table, member))
#define SAME(table, member)                                                    \
  static_assert(offsetof(table, member) == offsetof(_ZP_EL_##table, member) && \
                std::is_same_v<decltype(table::member), decltype(_ZP_EL_##table::member)>)

static_assert(sizeof(Parameter) == sizeof(_ZP_EL_Parameter));
SAME(Parameter, name);
SAME(Parameter, namelength);
SAME(Parameter, flags);
static_assert(sizeof(Function) == sizeof(_ZP_EL_Function));
SAME(Function, name);
SAME(Function, namelength);
SAME(Function, parametercount);
AT_ONE_PLACE(Function, parameters);
SAME(Function, function);
static_assert(sizeof(FunctionTable) == sizeof(_ZP_EL_FunctionTable));
SAME(FunctionTable, unread);
AT_ONE_PLACE(FunctionTable, functions);
static_assert(sizeof(Commerce) == sizeof(_ZP_EL_Commerce));
SAME(Commerce, unread);
SAME(Commerce, init);
SAME(Commerce, loop);
SAME(Commerce, cleanup);
SAME(Commerce, error);
static_assert(sizeof(Database) == sizeof(_ZP_EL_Database));
AT_ONE_PLACE(Database, version);
SAME(Database, create);
SAME(Database, open);
SAME(Database, close);
SAME(Database, openview);
SAME(Database, runquery);
SAME(Database, pack);
SAME(Database, setprimaryindex);
SAME(Database, createindex);
SAME(Database, openindexes);
SAME(Database, reindex);
SAME(Database, error);
SAME(Database, view_close);
SAME(Database, view_skip);
SAME(Database, view_go);
SAME(Database, view_add);
SAME(Database, view_delete);
SAME(Database, view_undelete);
SAME(Database, view_update);
SAME(Database, view_filter);
SAME(Database, view_find);
SAME(Database, view_revealstructure_table);
SAME(Database, view_revealstructure_aggregate);
SAME(Database, view_error);
SAME(Database, variable_get_integer);
SAME(Database, variable_get_double);
SAME(Database, variable_get_string);
SAME(Database, variable_set_integer);
SAME(Database, variable_set_double);
SAME(Database, variable_set_string);
SAME(Database, variable_free);
SAME(Database, commit);
SAME(Database, rollback);
SAME(Database, variable_type);
SAME(Database, transaction);
SAME(Database, command);
SAME(Database, free_data);

TEST(Signatures, AVersionIsTheFirstHalfOfAWord) {
  Database older = {};
  older.version = 6;
  _ZP_EL_Database table;
  static_assert(sizeof older == sizeof table);
  memcpy(&table, &older, sizeof table);
  EXPECT_EQ(table.version, 6);
}

}  // namespace
