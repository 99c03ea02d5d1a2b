/* The interface between the engine and its extension libraries: the one header that a library
   includes, for C11 and C++, which is why it is longer than other files. docs/extensions.md
   explains how to write a library.

   A library is a shared object that exports one function, which returns a table:

     kind           exports                  table
     builtin        zeph_function_table      _ZP_EL_FunctionTable   functions for scripts
     commerce       zeph_commerce_library    _ZP_EL_Commerce        loops over a service's results
     database       zeph_database_library    _ZP_EL_Database        another type of database
     configuration  zeph_config_library      _ZP_EL_Config          the settings
     system         anything                 none                   functions for other libraries

   It links with nothing of the engine: the functions that are declared here are resolved in the
   program that loads the library, zeph-fcgi or zprun.

   What holds for all functions:

   1. A text is a pointer and a length in bytes, and may contain NUL bytes; a length of -1 means
      strlen, and a null text is an empty one. An argument without a length, and every text of the
      zeph_ functions, ends at its NUL. Not for a ZPLINKBUFFER, where -1 counts as 0, nor in
      zpFile_Write and zpNetwork_Write.
   2. Texts are copied, except where a function says otherwise.
   3. A const text that a function returns belongs to the object and is valid until the object's
      next change or read; *length receives its length in bytes. It may be null if its length is 0.
      A text that is not const belongs to the caller.
   4. Out-parameters of type int* may be null, except where a function says otherwise.
   5. Memory that passes between a library and the engine is that of zpProgram_Allocate and
      zpProgram_Free, which are new char[] and delete[]. Only the zeph_ functions use malloc.
   6. A variable lives by a count. A caller that makes one holds a count, and gives it back with
      zpVariable_Free, or by passing the variable to a function that adopts the count. Parameters
      and result of a call, variables that a function finds, and elements are borrowed.
   7. A handle is used only on the thread of the call that passed it, and not after that request.
      Several requests call a library at the same time, each with its own handles.
   8. Handles are not null, except where a function says so. Functions that free ignore null.
   9. Failures are results: 0, -1 or null, as each function says. The reason is a text that the
      family's _Error function returns.
  10. If the script's time limit passes during a call, long work ends early: the text of a large
      array is then empty, and a copy lacks elements. The script ends after the call, even if the
      function restarts the time limit.

   Structures have the layout of 64-bit systems (LP64). Names and signatures do not change. */

#ifndef ZEPH_API_ZEPH_H
#define ZEPH_API_ZEPH_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
class ExternalConfig;
class ExternalDatabase;
class ExternalDatabaseVariable;
class ExternalDatabaseView;
class File;
class HTTPResponseStream;
class LinkBuffer;
class NetworkConnection;
class Segment;
class SystemLibrary;
class Variable;
class VariableHash;
class VariableList;
class ZephVM;
#define ZEPH_OBJECT(name) name*
#define ZEPH_ASSERT(condition) static_assert(condition, #condition)
#else
#define ZEPH_OBJECT(name) struct name*
#define ZEPH_ASSERT(condition) _Static_assert(condition, #condition)
#endif

/* --- Handles: pointers to the engine's objects, which only the engine dereferences ------------ */

typedef ZEPH_OBJECT(Variable) ZPVARIABLE;         /* a value of a script */
typedef ZEPH_OBJECT(VariableList) ZPVARIABLELIST; /* a list of values */
typedef ZEPH_OBJECT(VariableHash) ZPVARIABLEHASH; /* values by name and by position */
typedef ZEPH_OBJECT(ZephVM) ZPPROGRAM;            /* the running script */
typedef ZEPH_OBJECT(File) ZPFILE;                 /* an open file */
typedef ZEPH_OBJECT(NetworkConnection) ZPNETWORK; /* an outbound connection */
typedef ZEPH_OBJECT(HTTPResponseStream) ZPHTTPRESPONSE;
typedef ZEPH_OBJECT(ExternalConfig) ZPCONFIG;                     /* the settings of one request */
typedef ZEPH_OBJECT(ExternalDatabase) ZPDATABASE;                 /* an open database */
typedef ZEPH_OBJECT(ExternalDatabaseView) ZPDATABASEVIEW;         /* one of its views */
typedef ZEPH_OBJECT(ExternalDatabaseVariable) ZPDATABASEVARIABLE; /* a field of a view's record */
typedef ZEPH_OBJECT(SystemLibrary) ZPSYSTEMLIBRARY;               /* a named shared library */
typedef ZEPH_OBJECT(LinkBuffer) ZPLINKBUFFER;                     /* a text that grows */
typedef ZEPH_OBJECT(Segment) ZPEXPRESSION;                        /* a compiled expression */

/* --- Builtin libraries ------------------------------------------------------------------------ */
/* The library exports

     _ZP_EL_FunctionTable* zeph_function_table(void);

   The table and all that it points to stay valid and unchanged for the life of the process: the
   engine reads them in place, from all its request threads. */

/* Flags of a parameter. With ByReference the function gets the caller's own variable, otherwise a
   copy. In both tables namelength is exactly the length of name in bytes: -1 does not mean strlen
   here. */
enum { _ZP_EL_ByReference = 1 };

typedef struct _ZP_EL_Parameter {
  const char* name;
  int namelength;
  int flags;
} _ZP_EL_Parameter;

/* A function of a library. It finds its arguments in parameters, by the names that the script
   declares, and stores its result in result, which is NULL at first. It must not keep either after
   the call. It reports failures itself, with zpProgram_FatalError.

   state is a word for the function's own use, null at first, and kept from call to call until the
   request ends. If it is not null then, the function is called once more, with the other three
   arguments null, to free it. Several requests call a function at the same time, each with its own
   state. */
typedef void (*_ZP_EL_Call)(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                            void** state);

/* One row of the table, which ends with a row whose name is null. Names are compared without regard
   to case; the number of parameters and their flags must be those that the script declares. */
typedef struct _ZP_EL_Function {
  const char* name;
  int namelength;
  int parametercount;
  _ZP_EL_Parameter* parameters;
  _ZP_EL_Call function;
} _ZP_EL_Function;

typedef struct _ZP_EL_FunctionTable {
  void* unread; /* the engine does not read this word: null */
  _ZP_EL_Function* functions;
} _ZP_EL_FunctionTable;

/* --- Commerce libraries ----------------------------------------------------------------------- */
/* A script's loop over the results of a method, for example of a payment service. The library
   exports

     _ZP_EL_Commerce* zeph_commerce_library(void);

   or, without a table, the four functions by the names zeph_commerce_init, zeph_commerce_loop,
   zeph_commerce_cleanup and zeph_commerce_error. The file is opened when a script first uses the
   method; the table then stays valid for the life of the process. */

/* state is a word for the library's use, null at first, one for each loop of a script. method and
   action are the script's texts, NUL-terminated. fields has a reference to each variable that the
   script names; system is the table of system variables. All are borrowed for the call. */
typedef struct _ZP_EL_Commerce {
  void* unread; /* the engine does not read this word: null */
  /* Called once, before the first round. Returns 0 for success; any other result means that error
     has the reason. */
  int (*init)(ZPPROGRAM program, void** state, const char* method, const char* action,
              ZPVARIABLELIST fields, ZPVARIABLEHASH system);
  /* Prepares the next result, in variables of the script. index counts the rounds from 0. Returns 0
     if there is one, 1 for a failure, whose reason error has, and anything else at the end. */
  int (*loop)(ZPPROGRAM program, void** state, const char* method, const char* action,
              ZPVARIABLELIST fields, ZPVARIABLEHASH system, int index);
  /* Called last, however the loop has ended, also after an init that failed. Frees what *state
     holds. The script's run may be over, but program still works. */
  void (*cleanup)(ZPPROGRAM program, void** state, const char* method, const char* action,
                  ZPVARIABLELIST fields);
  /* Returns why init or loop has failed, NUL-terminated and valid until cleanup; null counts as
     "". */
  const char* (*error)(ZPPROGRAM program, void** state, const char* method, const char* action,
                       ZPVARIABLELIST fields);
} _ZP_EL_Commerce;

/* --- Database libraries ----------------------------------------------------------------------- */
/* The library exports

     _ZP_EL_Database* zeph_database_library(void);

   The file is opened when a script first opens a database of its type; the table then stays valid
   for the life of the process.

   Any function may be null: its operation then fails, with a text that says so, or succeeds without
   effect where this is stated. Functions that return int return 0 for a failure, for which the
   engine at once asks error or view_error, and anything else for success. Texts are borrowed for
   the call; here they always have a NUL at their length.

   A library makes views with zpDatabase_AddView, in open, create or openview, and gives each the
   fields of its current record with zpDatabaseView_AddVariable. After a move it refreshes them by
   zpDatabaseView_Clear and adding them again, with the same names.

   While a function of the table runs, a script that it calls cannot use the same database, apart
   from reading and writing fields. variable_get_ and variable_type run no code of a script: a call
   or an expression in them is a fatal error. They must not store in variables of the script either,
   because the code that reads the field may be in the middle of these.

   How long the handles are valid:
   - a database, from the call of create or open until free_data has returned; without free_data,
     until close has. close is not called after a create or an open that fails, an openindexes that
     fails in the opening, and a view_close that fails in the closing;
   - a view, until its view_close and then the variable_free of each of its fields have returned.
     The views go before their database. After a failure as above they go without view_close;
   - a field, until its variable_free has returned, which is when its view is cleared or goes. A
     script may hold a field longer, but then it is NULL and the library is not called for it. */
typedef struct _ZP_EL_Database {
  /* The version that the library was written for, at most 6. Functions of a later version are not
     read: the table may end before them. */
  int version;
  /* Makes a database and opens it. Version 2 and below: without name. After a failure the object
     goes without close. */
  int (*create)(ZPDATABASE database, const char* path, int pathlength, const char* name,
                int namelength, const char* specification, int specificationlength);
  /* name is the script's alias; the last three texts mean what the library defines. Version 2:
     without name. Version 1 and below: without name and fifth. After a failure the object goes
     without close. */
  int (*open)(ZPDATABASE database, const char* path, int pathlength, const char* name,
              int namelength, const char* third, int thirdlength, const char* fourth,
              int fourthlength, const char* fifth, int fifthlength);
  /* The views are gone by then. */
  int (*close)(ZPDATABASE database);
  /* variables has a reference to each variable that the script names for the query, count of
     them. */
  int (*openview)(ZPDATABASE database, const char* name, int namelength, const char* query,
                  int querylength, ZPVARIABLELIST variables, int count);
  int (*runquery)(ZPDATABASE database, const char* query, int querylength, ZPVARIABLELIST variables,
                  int count);
  int (*pack)(ZPDATABASE database);
  int (*setprimaryindex)(ZPDATABASE database, const char* name, int namelength);
  int (*createindex)(ZPDATABASE database, ZPPROGRAM program, const char* path, int pathlength,
                     const char* expression, int expressionlength, const char* flags,
                     int flagslength);
  /* list has names, separated by commas. If it fails while the database is opened, the object goes
     without close: free_data is called. */
  int (*openindexes)(ZPDATABASE database, ZPPROGRAM program, const char* list, int listlength);
  int (*reindex)(ZPDATABASE database);
  /* Why the last function failed, NUL-terminated and valid until the next call; null counts as
     "". */
  const char* (*error)(ZPDATABASE database);

  /* If it is null, views close without it. The view goes also if it fails. */
  int (*view_close)(ZPDATABASEVIEW view);
  /* By count records, backwards if it is negative. */
  int (*view_skip)(ZPDATABASEVIEW view, int count);
  /* To a record by its number from 1; -1 is the first, -2 the last. */
  int (*view_go)(ZPDATABASEVIEW view, long position);
  int (*view_add)(ZPDATABASEVIEW view);
  int (*view_delete)(ZPDATABASEVIEW view);
  int (*view_undelete)(ZPDATABASEVIEW view);
  int (*view_update)(ZPDATABASEVIEW view);
  /* A library that filters does so in its moves. */
  int (*view_filter)(ZPDATABASEVIEW view, ZPPROGRAM program, const char* expression,
                     int expressionlength);
  /* With exact 0 the key may be the beginning of an entry's. */
  int (*view_find)(ZPDATABASEVIEW view, const char* key, int keylength, int exact);
  int (*view_revealstructure_table)(ZPDATABASEVIEW view, const char* path, int pathlength);
  int (*view_revealstructure_aggregate)(ZPDATABASEVIEW view, ZPVARIABLE* variable);
  const char* (*view_error)(ZPDATABASEVIEW view);

  /* Return a field's value; 0 if it has none in this form. A script that reads a text gets the
     first that there is of text, double and integer; for an integer the order is integer, double,
     text; for a double it is double, integer, text. The engine keeps the value until the field is
     stored in or cleared. */
  int (*variable_get_integer)(ZPDATABASEVARIABLE variable, int* value);
  int (*variable_get_double)(ZPDATABASEVARIABLE variable, double* value);
  /* *owned is 0 at first. If it is set, the text passes to the engine: it is from
     zpProgram_Allocate. Otherwise it is copied. A length of -1 means strlen. */
  int (*variable_get_string)(ZPDATABASEVARIABLE variable, char** text, int* length, int* owned);
  /* Called by zpDatabaseView_Commit for each dirty field; 0 if the value is refused. */
  int (*variable_set_integer)(ZPDATABASEVARIABLE variable, int value);
  int (*variable_set_double)(ZPDATABASEVARIABLE variable, double value);
  int (*variable_set_string)(ZPDATABASEVARIABLE variable, const char* text, int length);
  /* The field goes: frees what its data word holds. Up to 100 fields and views that are added in
     these calls go as well; further ones are not made. */
  void (*variable_free)(ZPDATABASEVARIABLE variable);

  /* Since version 2. If they are null, the operations succeed. */
  int (*commit)(ZPDATABASE database);
  int (*rollback)(ZPDATABASE database);
  /* Since version 4. Returns 1 for a text, 2 for an integer, 3 for a double; without it all fields
     are texts. */
  int (*variable_type)(ZPDATABASEVARIABLE variable);
  /* Since version 5. If transaction is null, the operation succeeds. */
  int (*transaction)(ZPDATABASE database);
  int (*command)(ZPDATABASE database, const char* command, int commandlength, const char* arguments,
                 int argumentslength);
  /* Since version 6. Called with the database's data word, if it is not null, whenever a word is
     set, even if it is the same, and when the object goes, after close. The word is still set
     during the call. A word that is set meanwhile is freed next, up to 100 words. */
  void (*free_data)(ZPDATABASE database, void* data);
} _ZP_EL_Database;

/* --- Configuration libraries ------------------------------------------------------------------ */
/* The library exports

     _ZP_EL_Config* zeph_config_library(void);

   docs/configuration.md explains how to write one. Any function may be null; a null initialize or
   load_script_config counts as successful. They are called from any request thread, several at
   once, each with the data word of its own request: a word for the library's use, null at first.

   Texts that a library returns are NUL-terminated at their length. They stay valid until shutdown
   has returned, unless the library marks them as owned. */
typedef struct _ZP_EL_Config {
  /* 1 marks the old interface, of which the engine looks only at load_script_v1. */
  int version;
  /* Called first in each request, with 0 and the arguments of the process. 0 is success; with any
     other result the request fails with the text of get_error. */
  int (*initialize)(ZPCONFIG config, void** data, int zero, void* arguments, int argument_count);
  /* Never called. Must be null when version is 1. */
  void* load_script_v1;
  /* 0 means that *value was set; otherwise the setting has its built-in default. The value, or the
     default, is kept for the request; a text with neither is requested again at the next read. */
  int (*get_integer)(ZPCONFIG config, void** data, int id, int* value);
  /* 0 means that *text and *length were set. If *owned is set as well, the text is from new[] and
     its ownership passes to the engine. */
  int (*get_string)(ZPCONFIG config, void** data, int id, const char** text, int* length,
                    int* owned);
  /* Why initialize or load_script_config failed; borrowed until shutdown. */
  const char* (*get_error)(ZPCONFIG config, void** data);
  /* Called at the end of the request, also after a failed initialize: frees what *data holds.
     During this call the library may only call zpConfig_SetValue and zpConfig_SetValue_Integer on
     config. */
  void (*shutdown)(ZPCONFIG config, void** data);
  /* Called when the script has been found and opened, before it is read. path is relative to the
     script directory. 0 is success. */
  int (*load_script_config)(ZPCONFIG config, void** data, const char* path, ZPFILE file);
} _ZP_EL_Config;

typedef _ZP_EL_Config* (*_ZP_EL_ConfigFunction)(void);

/* --- Variables -------------------------------------------------------------------------------- */

/* Return a new variable with a count of 1. A null value makes a NULL variable. The copy has name
   and value of the source, elements included. */
ZPVARIABLE zpVariable_Allocate(const char* name, int namelength, const char* value,
                               int valuelength);
ZPVARIABLE zpVariable_Allocate_Copy(ZPVARIABLE source);
/* Gives one count back. */
void zpVariable_Free(ZPVARIABLE variable);

/* Return the target of a reference, null if it has none; for any other variable, the variable
   itself. The second follows references to the end and never returns null. */
ZPVARIABLE zpVariable_NextIdentity(ZPVARIABLE variable);
ZPVARIABLE zpVariable_RealIdentity(ZPVARIABLE variable);
/* Turns the variable into a reference to the target, for all its holders. No effect for a null
   target, and if the target refers to the variable. */
void zpVariable_Make_Reference(ZPVARIABLE variable, ZPVARIABLE target);

const char* zpVariable_Name(ZPVARIABLE variable, int* length);
/* Return the value as a number; 0 for a text that is no number, and for an array or structure. */
int zpVariable_Value_Integer(ZPVARIABLE variable);
double zpVariable_Value_Double(ZPVARIABLE variable);
/* Returns the value as a text. */
const char* zpVariable_Value(ZPVARIABLE variable, int* length);
/* Returns a copy without NUL bytes, NUL-terminated, which the caller frees with zpProgram_Free. */
char* zpVariable_Value_NS(ZPVARIABLE variable, int* length);

/* Stores. Return 1, or 0 if the variable refuses the value, as a field of a database may. A store
   in a value that cannot be written has no effect and returns 1. */
int zpVariable_SetValue_Integer(ZPVARIABLE variable, int value);
int zpVariable_SetValue_Double(ZPVARIABLE variable, double value);
int zpVariable_SetValue(ZPVARIABLE variable, const char* value, int length);
/* Copies the value of another variable, elements included. */
int zpVariable_SetValue_Variable(ZPVARIABLE variable, ZPVARIABLE source);
/* Adopts a text from zpProgram_Allocate, in any case; allocated is the size that was allocated. */
int zpVariable_SetValue_Nocopy(ZPVARIABLE variable, char* buffer, int length, int allocated);

/* Returns 0 for no value, 1 integer, 2 double, 3 text, 4 structure, 5 array, -1 anything else. The
   field of a database may give 0 although it has a value; a copy of it has a type. */
int zpVariable_Type(ZPVARIABLE variable);
/* Returns 0 for a scalar, 1 for an array, 2 for a structure, -1 for anything else. */
int zpVariable_Aggregate_Type(ZPVARIABLE variable);

/* --- Arrays and structures -------------------------------------------------------------------- */
/* Positions in an array count from 1. These functions have the array or structure as the last
   argument, or before the create flag: if that is set, a missing element is made, and a value of
   another kind becomes an array or a structure for it. */

/* Appends references to the elements to the list, in their order, each named by its key. */
void zpVariable_Aggregate_List(ZPVARIABLE variable, ZPVARIABLELIST list);

/* Return the element, borrowed, or null if it is missing and create is 0. */
ZPVARIABLE zpVariable_Array_Element(int index, ZPVARIABLE array, int create);
ZPVARIABLE zpVariable_Struct_Member(const char* name, int length, ZPVARIABLE structure, int create);
/* Make the variable itself the element; the array or structure takes a count of its own. */
void zpVariable_Set_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
void zpVariable_Set_Struct_Member(const char* name, int length, ZPVARIABLE value,
                                  ZPVARIABLE structure);
/* The same, before that position: later elements move up. Below 1 the element is appended. */
void zpVariable_Insert_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
/* Deletes count positions from start on; -1 means all. With compact, later elements move down. */
void zpVariable_Delete_Array_Elements(int start, int count, int compact, ZPVARIABLE array);
void zpVariable_Delete_Struct_Member(const char* name, int length, ZPVARIABLE structure);
/* Merge inserts count positions of the source, from start on, before the position destination of
   the array; Copy overwrites the positions there. A start below 1 means the first position, a
   destination below 1 the end, a negative count all up to the last. Without copy both arrays share
   the elements. */
void zpVariable_Array_Merge(ZPVARIABLE source, int start, int count, int destination, int copy,
                            ZPVARIABLE array);
void zpVariable_Array_Copy(ZPVARIABLE source, int start, int count, int destination, int copy,
                           ZPVARIABLE array);
/* Return the largest and the smallest position, and the nearest one above or below a position; 0 if
   there is none, -1 for a structure. */
int zpVariable_Array_Max(ZPVARIABLE array);
int zpVariable_Array_Min(ZPVARIABLE array);
int zpVariable_Array_Next(int position, ZPVARIABLE array);
int zpVariable_Array_Previous(int position, ZPVARIABLE array);
/* Renumbers the elements from 1 on; returns their number. */
int zpVariable_Array_Collapse(ZPVARIABLE array);
/* Returns the number of elements. */
int zpVariable_ElementsUsed(ZPVARIABLE variable);

/* --- Lists ------------------------------------------------------------------------------------ */

/* Returns an empty list, which the caller frees. The list holds a count of each variable in it. */
ZPVARIABLELIST zpVariableList_Allocate(void);
void zpVariableList_Free(ZPVARIABLELIST list);
void zpVariableList_Dump(ZPVARIABLELIST list); /* empties it */
/* Walk the list; null at the end. Find makes the variable that it returns the current one. */
ZPVARIABLE zpVariableList_First(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Current(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Next(ZPVARIABLELIST list);
int zpVariableList_Entries(ZPVARIABLELIST list);
/* Returns the first variable of that name in any case, borrowed, or null. */
ZPVARIABLE zpVariableList_Find(ZPVARIABLELIST list, const char* name, int length);
/* Stores in the variable of that name; a missing one is appended. */
void zpVariableList_SetVariable(ZPVARIABLELIST list, const char* name, int namelength,
                                const char* value, int valuelength);
/* Appends; the list takes a count of its own, and the caller keeps his. */
void zpVariableList_Insert(ZPVARIABLELIST list, ZPVARIABLE variable);

/* --- Tables ----------------------------------------------------------------------------------- */

/* Returns an empty table with its own names, which the caller frees. Only such a table is freed. */
ZPVARIABLEHASH zpVariableHash_Allocate(void);
void zpVariableHash_Free(ZPVARIABLEHASH hash);
/* Releases all variables; the names remain. */
void zpVariableHash_Dump(ZPVARIABLEHASH hash);
/* Positions count from 0 to Entries - 1. A name may have no variable yet: Index then returns null,
   or makes it with create. */
int zpVariableHash_Entries(ZPVARIABLEHASH hash);
ZPVARIABLE zpVariableHash_Index(ZPVARIABLEHASH hash, int index, int create);
/* Returns the variable of that name in any case, borrowed, or null. */
ZPVARIABLE zpVariableHash_Find(ZPVARIABLEHASH hash, const char* name, int length);
/* Insert appends the variable under its name and returns its position. ReplaceVariable replaces the
   variable of that name. Both adopt the caller's count. */
int zpVariableHash_Insert(ZPVARIABLEHASH hash, ZPVARIABLE variable);
void zpVariableHash_ReplaceVariable(ZPVARIABLEHASH hash, ZPVARIABLE variable);
/* Stores in the variable of that name; a missing one is made. */
void zpVariableHash_SetVariable(ZPVARIABLEHASH hash, const char* name, int namelength,
                                const char* value, int valuelength);

/* --- The running script: variables ------------------------------------------------------------ */

/* Returns the variable for a name as scripts write it, with scope and path: "x", "g.x",
   "x:member[2]". A missing global or local variable is made; any other missing one gives null. An
   invalid name ends the script with a fatal error, and gives null as well. */
ZPVARIABLE zpProgram_Lookup_Variable(ZPPROGRAM program, const char* name, int length);
/* Append all existing variables: those of the calling function, the system variables, and the
   global ones. */
void zpProgram_Local_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
void zpProgram_System_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
void zpProgram_Global_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
/* The tables themselves, borrowed. */
ZPVARIABLEHASH zpProgram_Global_VariableHash(ZPPROGRAM program);
ZPVARIABLEHASH zpProgram_System_VariableHash(ZPPROGRAM program);
/* Compares as scripts do, numbers as numbers. Returns a negative number, 0 or a positive one. */
int zpProgram_Compare(ZPPROGRAM program, ZPVARIABLE left, ZPVARIABLE right);

/* --- The running script: settings of the request ---------------------------------------------- */

void zpProgram_SetProcessName(ZPPROGRAM program, const char* name, int length);
void zpProgram_SetLanguage(ZPPROGRAM program, const char* language, int length);
void zpProgram_SetDefaultLanguage(ZPPROGRAM program, const char* language, int length);
void zpProgram_SetDefaultDatabase(ZPPROGRAM program, const char* type, int length);
void zpProgram_SetCharacterSet(ZPPROGRAM program, const char* charset, int length);
const char* zpProgram_GetCharacterSet(ZPPROGRAM program, int* length);
int zpProgram_CharacterSetIsUTF8(ZPPROGRAM program);

/* --- Memory ----------------------------------------------------------------------------------- */

/* Memory that the engine can adopt, and that it returns. program may be null, as may memory. */
void* zpProgram_Allocate(ZPPROGRAM program, int size);
void zpProgram_Free(ZPPROGRAM program, void* memory);

/* --- Output ----------------------------------------------------------------------------------- */

/* Sets a header field, replacing one of that name. A text whose owned flag is set is from
   zpProgram_Allocate and is adopted, also on failure. A text whose flag is 0 is not copied: the
   pointer is kept until the headers are sent, so only constants and texts that live longer than the
   request may be passed like this. Returns 0 if the header has been sent already, if the output has
   none, or if name or value contains CR, LF or NUL. */
int zpProgram_Output_Header(ZPPROGRAM program, const char* name, int namelength, int nameowned,
                            const char* value, int valuelength, int valueowned);
/* Returns the number of bytes accepted, negative after a failure. Output_Flush sends what is held
   back; a negative result is a failure. */
int zpProgram_Output(ZPPROGRAM program, const char* text, int length);
int zpProgram_Output_Flush(ZPPROGRAM program);

/* --- Text ------------------------------------------------------------------------------------- */

/* Encoders and decoders for URLs, for HTML and for string literals of JavaScript. Each returns a
   NUL-terminated text, which the caller frees with zpProgram_Free; *outlength receives its length
   in bytes and *outsize the size of its memory. */
char* zpProgram_Attribute_Encode(ZPPROGRAM program, const char* text, int length, int* outlength,
                                 int* outsize);
char* zpProgram_Attribute_Decode(ZPPROGRAM program, const char* text, int length, int* outlength,
                                 int* outsize);
char* zpProgram_Entity_Encode(ZPPROGRAM program, const char* text, int length, int* outlength,
                              int* outsize);
char* zpProgram_Entity_Decode(ZPPROGRAM program, const char* text, int length, int* outlength,
                              int* outsize);
char* zpProgram_JavaScriptString_Encode(ZPPROGRAM program, const char* text, int length,
                                        int* outlength, int* outsize);
/* Returns 32 hexadecimal digits that cannot be guessed; the caller frees them with zpProgram_Free.
 */
char* zpProgram_MakeSessionID(ZPPROGRAM program, int* length);

/* --- What stays from call to call ------------------------------------------------------------- */

/* Returns the data of that name, in any case, or null. */
void* zpProgram_Lookup_Persistent(ZPPROGRAM program, const char* name, int length);
/* Keeps data under a name for all functions of the request. destroy is called with the program and
   the data when the request ends or another registration uses the name; the program still works
   then. If destroy is null, the data is from zpProgram_Allocate, and is freed. The name may be a
   part of the data that is destroyed. A destroy may register data; after 100 such registrations
   with a destroy in a row further ones are ignored, and their data stays the library's. */
void zpProgram_Register_Persistent(ZPPROGRAM program, const char* name, int length, void* data,
                                   void (*destroy)(void* program, void* data));

/* --- Calls ------------------------------------------------------------------------------------ */

/* Returns the row of a function of a builtin library, or null. */
const _ZP_EL_Function* zpProgram_Lookup_ExternalFunction(ZPPROGRAM program, const char* name,
                                                         int length);
/* Returns a function of the TLS library that the engine uses, or null. */
void* zpProgram_SSL_Function(ZPPROGRAM program, const char* name);
/* Returns a system library that the configuration names, opened and borrowed, or null: then
   zpSystemLibrary_Error with a null library has the reason. */
ZPSYSTEMLIBRARY zpProgram_SystemLibrary(ZPPROGRAM program, const char* name);
/* Calls a function of the script by its name, with the variables of the list as its arguments; a
   null list means no arguments. result, if not null, receives the function's result. Returns 1 if
   it ran to its end; 0 if there is no such function, it has another number of parameters, or an
   error has ended the script: the caller must then return. A fatal error while a field of a
   database library is read. */
int zpProgram_RunFunction(ZPPROGRAM program, const char* name, int length, ZPVARIABLELIST arguments,
                          ZPVARIABLE result);

/* Compiles an expression of the script language, such as "g.x + 1". The result belongs to the
   program and lives as long as it does, so keep it for a text that is evaluated again. Returns null
   for a wrong one; *error then receives a NUL-terminated text, which the caller frees with
   zpProgram_Free. On success *error is null. error may be null. */
ZPEXPRESSION zpProgram_Compile_Dynamic_Expression(ZPPROGRAM program, const char* text, int length,
                                                  char** error, int* errorlength);
/* Evaluate it and store its value. Return 1; or 0 if it has no value, or if an error has ended the
   script, and then the result is unchanged. Bare names are global variables. A fatal error while a
   field of a database library is read. */
int zpProgram_Execute_Dynamic_Expression(ZPPROGRAM program, ZPEXPRESSION expression,
                                         ZPVARIABLE result);
int zpProgram_Execute_Dynamic_Expression_Boolean(ZPPROGRAM program, ZPEXPRESSION expression,
                                                 int* result);

/* --- Time and errors -------------------------------------------------------------------------- */

/* Restarts the time limit of the script. */
void zpProgram_ResetGlobalTimeout(ZPPROGRAM program);
/* Pauses the script; cancelling the script ends the pause early. */
void zpProgram_Sleep(ZPPROGRAM program, int milliseconds);
/* Pauses a background task until that time, in seconds since 1970, or until the file changes; path
   may be null. A change wakes the task at the next heartbeat. The pause has its own time limit, and
   uses one second of the task's time. Outside a background task the call returns at once. */
void zpProgram_Asynchronous_Sleep(ZPPROGRAM program, long wakeat, int location, const char* path,
                                  int pathlength);
/* Shows the message and ends the script after the function has returned. Returns 0. */
int zpProgram_FatalError(ZPPROGRAM program, const char* message, int length);

/* --- Files by path ---------------------------------------------------------------------------- */
/* The files of scripts, under the same rules: a path has a location and cannot leave its directory.
   These return 0 for success and -1 for a failure, or the requested value and -1. The reason is
   then in zpFile_Error. */

enum {
  ZPFILE_DATA = 0,    /* below the data directory */
  ZPFILE_SCRIPT = 1,  /* below the script directory; a relative path begins at the running script's
                         directory */
  ZPFILE_COMMERCE = 3 /* in the data directory, below the setting dir_commerce if it is set */
};

/* Bits of flags. Without ZPFILE_WRITE a file is opened for reading. */
enum {
  ZPFILE_READ = 1,
  ZPFILE_WRITE = 2,
  ZPFILE_CREATE = 4,
  ZPFILE_TRUNCATE = 8,
  ZPFILE_APPEND = 16,
  ZPFILE_EXCLUSIVE = 32
};

/* No longer supported: returns null and sets an error that says so. */
char* zpFile_Resolve(ZPPROGRAM program, int location, const char* path, int length);
/* Returns the opened file, which the caller closes with zpFile_Close, or null. */
ZPFILE zpFile_Open(ZPPROGRAM program, int location, const char* path, int length, int flags);
int zpFile_Delete(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Rename(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                  int tolocation, const char* to, int tolength);
/* Return 1, 0, or -1 for a failure. */
int zpFile_Exists(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_IsDirectory(ZPPROGRAM program, int location, const char* path, int length);
/* Return bytes; seconds since 1970; the system's mode word. */
long zpFile_Size(ZPPROGRAM program, int location, const char* path, int length);
long zpFile_Time(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Mode(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Change_Mode(ZPPROGRAM program, int location, const char* path, int length, int mode);
int zpFile_MakeDirectory(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_RemoveDirectory(ZPPROGRAM program, int location, const char* path, int length);
int zpFile_Copy(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                int tolocation, const char* to, int tolength);
/* Makes the link `to`, which refers to `from`. */
int zpFile_MakeSymbolicLink(ZPPROGRAM program, int fromlocation, const char* from, int fromlength,
                            int tolocation, const char* to, int tolength);
int zpFile_Path_Separator(ZPPROGRAM program);
/* Returns the path without "." and ".." and repeated slashes, which the caller frees with
   zpProgram_Free; null if the location's directory does not exist. Does not look up the path on
   disk. */
char* zpFile_NormalizePath(ZPPROGRAM program, int location, const char* path, int length,
                           int* outlength);
/* Sets the times of the file to the present; a missing file is made empty. */
int zpFile_TouchFile(ZPPROGRAM program, int location, const char* path, int length);
/* Waits for the lock with that name and takes it; zpFile_Delete releases it. Returns 0 if it is
   held, 1 after a time-out, 2 after a failure. */
int zpFile_LockFile(ZPPROGRAM program, int location, const char* path, int length);
/* Makes and opens a file with an unused name in that directory: the prefix followed by a number.
   Returns null on failure, else *name receives its path, which the caller frees with
   zpProgram_Free; name may be null. */
ZPFILE zpFile_MakeTemporary(ZPPROGRAM program, int location, const char* directory,
                            int directorylength, const char* prefix, int prefixlength, char** name,
                            int flags);
/* Appends a variable without a name for each entry of the directory, including "." and ".."; its
   value is the entry's name. */
int zpDirectory_Listing(ZPPROGRAM program, int location, const char* path, int length,
                        ZPVARIABLELIST names);

/* --- Open files ------------------------------------------------------------------------------- */

/* Return the number of bytes, which may be less than length; 0 at the end of the file; -1 for a
   failure. */
int zpFile_Read(ZPFILE file, char* buffer, int length);
int zpFile_Write(ZPFILE file, const char* bytes, int length);
/* Return the position in bytes from the start, or -1. A position of 2 GB or more fails. */
int zpFile_Seek(ZPFILE file, long position);
long zpFile_Tell(ZPFILE file);
long zpFile_Length(ZPFILE file);
/* Waits for a lock on the whole file and takes it: type 2 is exclusive, any other shared. Release
   gives it up. Return 0, or -1 for a failure. */
int zpFile_Lock(ZPFILE file, int type);
int zpFile_Release(ZPFILE file);
/* Return the number of the user or the group that owns the file, or -1. */
int zpFile_OwnerID(ZPFILE file);
int zpFile_GroupID(ZPFILE file);
void zpFile_Close(ZPFILE file);
/* The text of the last failure with that file or, with null, of the last failure with a path. */
const char* zpFile_Error(ZPPROGRAM program, ZPFILE file, int* length);

/* --- Network ---------------------------------------------------------------------------------- */
/* A timeout is in seconds, for each wait. 0 means the setting timeout_global; if that is 0 too, and
   for a negative value, there is no limit. */

/* Whether the text is an address and no name. */
int zpNetwork_Is_IP_Address(ZPPROGRAM program, const char* text);
/* Writes the first address of a host to the buffer of size bytes, NUL-terminated. Returns 1, or -1
   if the host is unknown or the buffer too small for its address. */
int zpNetwork_Get_Host_Address(ZPPROGRAM program, const char* name, char* buffer, int size);
/* Return an open connection, which the caller closes, or null. */
ZPNETWORK zpNetwork_Connect(ZPPROGRAM program, const char* host, int port, int timeout);
/* With TLS; the server's certificate must be the host's. A client certificate is sent if
   certificate_type, "PEM" or "ASN1", is given with a file of the data directory or with PEM text;
   null or empty means not given. password is the PEM key's and may be null. */
ZPNETWORK zpNetwork_Connect_SSL(ZPPROGRAM program, const char* host, int port,
                                const char* certificate_file, const char* certificate_data,
                                const char* certificate_type, const char* password, int timeout);
/* Connects to the host of a URL, http or https, and sends a request of HTTP 1.0. The response, its
   head included, is read from the connection. body is null, or has body_length bytes of the type
   content_type. extra_headers is null, or whole lines with their CR LF. The certificate arguments
   are those of zpNetwork_Connect_SSL. */
ZPNETWORK zpNetwork_Open_URL(ZPPROGRAM program, const char* url, const char* method,
                             const char* body, const char* content_type, int body_length,
                             const char* certificate_file, const char* certificate_data,
                             const char* certificate_type, const char* password,
                             const char* extra_headers, int extra_headers_length, int timeout);
/* Returns the count of bytes, which may be less than length; 0 at the end; -1 on failure. */
int zpNetwork_Read(ZPNETWORK connection, char* buffer, int length, int timeout);
/* Reads a line with its line feed. Copies as much of it as the buffer of length bytes has room for,
   up to its first NUL, and fills the rest of the buffer with NULs, at least one; the rest of the
   line is lost. Returns the bytes in the buffer without the NULs; -1 on failure, which the end of
   the stream is, and for a length below 1. */
int zpNetwork_Read_Line(ZPNETWORK connection, char* buffer, int length, int timeout);
/* Writes all. Returns length, or -1. */
int zpNetwork_Write(ZPNETWORK connection, const char* bytes, int length, int timeout);
void zpNetwork_Close(ZPNETWORK connection);
/* The text of the last failure with that connection or, with null, of the last attempt to get
   one. */
const char* zpNetwork_Error(ZPPROGRAM program, ZPNETWORK connection, int* length);

/* As zpNetwork_Open_URL, and reads the head of the response. http_version is 1.0 or 1.1; above 9 it
   means 1.1, below 0 it means 1.0. Returns a response, which the caller closes; on failure null,
   with the reason in zpNetwork_Error of no connection. */
ZPHTTPRESPONSE zpNetwork_HTTP_Request(ZPPROGRAM program, const char* url, const char* method,
                                      const char* body, const char* content_type, int body_length,
                                      const char* certificate_file, const char* certificate_data,
                                      const char* certificate_type, const char* password,
                                      const char* extra_headers, int extra_headers_length,
                                      double http_version, int timeout);
int zpHTTPResponse_Status_Code(ZPHTTPRESPONSE response);
/* In bytes; -1 if it is not known. */
int zpHTTPResponse_Content_Length(ZPHTTPRESPONSE response);
/* Returns the count of bytes of the body; 0 at its end; -1 on failure. */
int zpHTTPResponse_Read(ZPHTTPRESPONSE response, char* buffer, int length);
/* Closes the connection and frees the response. */
void zpHTTPResponse_Close(ZPHTTPRESPONSE response);
const char* zpHTTPResponse_Error(ZPHTTPRESPONSE response, int* length);

/* --- For configuration libraries -------------------------------------------------------------- */

/* Write a setting, even one that was read already. The text is not copied and must stay valid until
   shutdown has returned; with owned set it is from new[] and its ownership passes to the engine.
   Return 0 for success. Any other result means that the setting is of the other kind, and the text
   stays the caller's. */
int zpConfig_SetValue(ZPCONFIG config, int id, const char* text, int length, int owned);
int zpConfig_SetValue_Integer(ZPCONFIG config, int id, int value);
/* Register an extension library for this request. Always return 0: if a library cannot be loaded,
   its first use fails. */
int zpConfig_Register_Library_Commerce(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Database(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Builtin(ZPCONFIG config, const char* path);
int zpConfig_Register_Library_System(ZPCONFIG config, const char* name, const char* path);
/* Set a variable for this request. Scripts cannot write a system variable. */
void zpConfig_SetVariable_Global(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);
void zpConfig_SetVariable_System(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);
/* Sets the default handling of a tag's errors: bit 0 displays the message, bit 1 stops the script.
   Applies to the whole process and all later requests. A name of no tag is ignored. */
void zpConfig_Set_DefaultErrorSetting(ZPCONFIG config, const char* tag, int taglength, int value);

/* --- For database libraries ------------------------------------------------------------------- */
/* Databases, views and fields have a data word each, for the library's use and null at first. */

/* Frees the old word with free_data, then stores the new one. */
void zpDatabase_SetData(ZPDATABASE database, void* data);
void* zpDatabase_data(ZPDATABASE database);
/* Makes a view of that name with a data word; the database owns it. It is the primary view if there
   is none. Null only as variable_free says. */
ZPDATABASEVIEW zpDatabase_AddView(ZPDATABASE database, const char* name, int length, void* data);
/* Makes a view the first of the views, and the one that scripts get without naming a view. No
   effect for a view of another database. */
void zpDatabase_SetPrimaryView(ZPDATABASE database, ZPDATABASEVIEW view);
/* The program that has opened the database. */
ZPPROGRAM zpDatabase_Program(ZPDATABASE database);

ZPDATABASE zpDatabaseView_Database(ZPDATABASEVIEW view);
void zpDatabaseView_SetData(ZPDATABASEVIEW view, void* data);
void* zpDatabaseView_data(ZPDATABASEVIEW view);
/* Removes all fields: variable_free is called for each, and scripts that still hold one read NULL.
   Has no effect while a variable_ function runs for a field of this view, and while any field of a
   database library is read. */
void zpDatabaseView_Clear(ZPDATABASEVIEW view);
/* Adds a field with a data word; the view owns it. Null only as variable_free says. */
ZPDATABASEVARIABLE zpDatabaseView_AddVariable(ZPDATABASEVIEW view, const char* name, int length,
                                              void* data);
/* Calls the variable_set_ function for each dirty field: that of the type that the script stored
   or, for a field that the library has marked, that of its variable_type. An array or structure is
   set as its text. Returns 1, or 0 if a field was refused or could not be set. Fields stay dirty.
 */
int zpDatabaseView_Commit(ZPDATABASEVIEW view);
/* Marks all fields as dirty. */
void zpDatabaseView_SetDirty(ZPDATABASEVIEW view);
ZPPROGRAM zpDatabaseView_Program(ZPDATABASEVIEW view);

ZPDATABASEVIEW zpDatabaseVariable_DatabaseView(ZPDATABASEVARIABLE variable);
void zpDatabaseVariable_SetData(ZPDATABASEVARIABLE variable, void* data);
void* zpDatabaseVariable_data(ZPDATABASEVARIABLE variable);
/* A dirty field has a value of its own: its value is never requested, and Commit sets it. With 0 a
   stored value is clean, and Commit sets nothing. */
void zpDatabaseVariable_SetDirty(ZPDATABASEVARIABLE variable, int dirty);

/* --- System libraries ------------------------------------------------------------------------- */
/* Shared libraries that the configuration names, whose functions an extension calls without being
   linked with them. */

/* Returns the function of that name, or null. zpProgram_SystemLibrary returns the library. */
void* zpSystemLibrary_GetFunction(ZPSYSTEMLIBRARY library, const char* symbol);
/* The text of the last failure with that library or, if library is null, of the last look-up of
   one. */
const char* zpSystemLibrary_Error(ZPPROGRAM program, ZPSYSTEMLIBRARY library, int* length);

/* --- Texts that grow -------------------------------------------------------------------------- */
/* Lengths are taken as they are: a negative one counts as 0. */

/* Returns an empty text, which the caller frees. Memory is allocated in multiples of `first` bytes
   at first, then of `next` bytes; below 1 they count as 1. */
ZPLINKBUFFER zpLinkBuffer_Allocate(int first, int next);
void zpLinkBuffer_Free(ZPLINKBUFFER buffer);
/* Append. Nocopy adopts memory from zpProgram_Allocate; allocated is its size. HexChar appends two
   hexadecimal digits. */
void zpLinkBuffer_Concat_String(ZPLINKBUFFER buffer, const char* bytes, int length);
void zpLinkBuffer_Concat_String_Nocopy(ZPLINKBUFFER buffer, char* bytes, int used, int allocated);
void zpLinkBuffer_Concat_Char(ZPLINKBUFFER buffer, char c);
void zpLinkBuffer_Concat_HexChar(ZPLINKBUFFER buffer, unsigned char c);
void zpLinkBuffer_Concat_Int(ZPLINKBUFFER buffer, int value);
void zpLinkBuffer_Concat_Double(ZPLINKBUFFER buffer, double value);
void zpLinkBuffer_Concat_Variable(ZPLINKBUFFER buffer, ZPVARIABLE variable);
/* Returns the text, never null; the caller frees it with zpProgram_Free. The buffer is then empty.
   *length receives the bytes, *allocated the size of the memory, which has room for `extra` bytes
   more. With an extra of 1 or more, a NUL follows the text. */
char* zpLinkBuffer_Release(ZPLINKBUFFER buffer, int* length, int* allocated, int extra);
/* Returns the text, NUL-terminated; it belongs to the buffer and is valid until the next change.
   Must not be written to if its length is 0. */
char* zpLinkBuffer_Data(ZPLINKBUFFER buffer, int* length, int* allocated);

/* --- The older family ------------------------------------------------------------------------- */
/* For libraries that were written for it. Texts are NUL-terminated and have no lengths. Apart from
   that, and from what is said here, these are the functions with similar names above. */

/* malloc, realloc and free. */
void* zeph_alloc(int size);
void* zeph_realloc(void* memory, int size);
void zeph_free(void* memory);

/* Return name and value, never null. */
const char* zeph_variable_name(ZPVARIABLE variable);
const char* zeph_variable_value(ZPVARIABLE variable);
void zeph_variable_setvalue(ZPVARIABLE variable, const char* value);
/* _new makes a variable with a count of 1, _delete gives the count back. */
ZPVARIABLE zeph_variable_new(const char* name, const char* value);
void zeph_variable_delete(ZPVARIABLE variable);
/* An element, or null. */
ZPVARIABLE zeph_variable_array_element(ZPVARIABLE array, int index);
ZPVARIABLE zeph_variable_structure_member(ZPVARIABLE structure, const char* name);
/* Store in an element; a missing one is made. */
void zeph_variable_set_array_element_value(ZPVARIABLE array, int index, const char* text);
void zeph_variable_set_structure_member_value(ZPVARIABLE structure, const char* name,
                                              const char* text);
/* The number of elements; the smallest and the largest position. */
int zeph_variable_array_elements(ZPVARIABLE array);
int zeph_variable_array_min(ZPVARIABLE array);
int zeph_variable_array_max(ZPVARIABLE array);
/* 2 for a structure, 1 for an array, 0 for a scalar. */
int zeph_variable_aggregate_type(ZPVARIABLE variable);
void zeph_variable_aggregate_list(ZPVARIABLE variable, ZPVARIABLELIST list);

ZPVARIABLELIST zeph_variablelist_new(void);
ZPVARIABLE zeph_variablelist_first(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_current(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_next(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_find(ZPVARIABLELIST list, const char* name);
void zeph_variablelist_setvariable(ZPVARIABLELIST list, const char* name, const char* value);
void zeph_variablelist_dump(ZPVARIABLELIST list);
/* Returns the url followed by all variables as "name=value", joined by "&", both encoded. Between
   the two is a "?" or, if the url has one already, a "+", unless the url ends in either. The caller
   frees the text with zeph_free. */
char* zeph_variablelist_to_url(const char* url, ZPVARIABLELIST list);
void zeph_variablelist_delete(ZPVARIABLELIST list);

ZPVARIABLEHASH zeph_variabletree_new(void);
ZPVARIABLE zeph_variabletree_find(ZPVARIABLEHASH tree, const char* name);
void zeph_variabletree_setvariable(ZPVARIABLEHASH tree, const char* name, const char* value);
/* Adopts the caller's count. */
void zeph_variabletree_insert(ZPVARIABLEHASH tree, ZPVARIABLE variable);
void zeph_variabletree_dump(ZPVARIABLEHASH tree);
void zeph_variabletree_delete(ZPVARIABLEHASH tree);

int zeph_network_isipaddress(ZPPROGRAM program, const char* text);
int zeph_network_gethostaddress(ZPPROGRAM program, const char* name, char* buffer, int size);
ZPNETWORK zeph_network_connect(ZPPROGRAM program, const char* host, int port, int timeout);
ZPNETWORK zeph_network_openurl(ZPPROGRAM program, const char* url, const char* method,
                               const char* body, const char* content_type, int body_length,
                               int timeout);
int zeph_network_read(ZPNETWORK connection, char* buffer, int length, int timeout);
int zeph_network_readline(ZPNETWORK connection, char* buffer, int length, int timeout);
int zeph_network_write(ZPNETWORK connection, const char* bytes, int length, int timeout);
void zeph_network_close(ZPNETWORK connection);
/* Never null. */
const char* zeph_network_error(ZPPROGRAM program, ZPNETWORK connection);

/* Location 1 is the script directory, any other the data directory. The path is used unchanged: a
   relative one does not begin at the running script's directory. */
char* zeph_file_resolve(ZPPROGRAM program, int location, const char* path);
ZPFILE zeph_file_open(ZPPROGRAM program, int location, const char* path, int flags);
int zeph_file_delete(ZPPROGRAM program, int location, const char* path);
int zeph_file_rename(ZPPROGRAM program, int fromlocation, const char* from, int tolocation,
                     const char* to);
int zeph_file_exists(ZPPROGRAM program, int location, const char* path);
long zeph_file_size(ZPPROGRAM program, int location, const char* path);
int zeph_file_isdirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_makedirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_removedirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_mode(ZPPROGRAM program, int location, const char* path);
int zeph_file_changemode(ZPPROGRAM program, int location, const char* path, int mode);
int zeph_file_pathseparator(ZPPROGRAM program);
int zeph_file_read(ZPFILE file, char* buffer, int length);
int zeph_file_write(ZPFILE file, const char* bytes, int length);
int zeph_file_seek(ZPFILE file, long position);
long zeph_file_tell(ZPFILE file);
long zeph_file_length(ZPFILE file);
int zeph_file_lock(ZPFILE file, int type);
int zeph_file_release(ZPFILE file);
void zeph_file_close(ZPFILE file);
/* Never null. */
const char* zeph_file_error(ZPPROGRAM program, ZPFILE file);

/* --- The layout of the structures, in bytes --------------------------------------------------- */

ZEPH_ASSERT(sizeof(_ZP_EL_Parameter) == 16);
ZEPH_ASSERT(offsetof(_ZP_EL_Parameter, namelength) == 8);
ZEPH_ASSERT(offsetof(_ZP_EL_Parameter, flags) == 12);
ZEPH_ASSERT(sizeof(_ZP_EL_Function) == 32);
ZEPH_ASSERT(offsetof(_ZP_EL_Function, namelength) == 8);
ZEPH_ASSERT(offsetof(_ZP_EL_Function, parametercount) == 12);
ZEPH_ASSERT(offsetof(_ZP_EL_Function, parameters) == 16);
ZEPH_ASSERT(offsetof(_ZP_EL_Function, function) == 24);
ZEPH_ASSERT(offsetof(_ZP_EL_FunctionTable, functions) == 8);
ZEPH_ASSERT(offsetof(_ZP_EL_Commerce, init) == 8);
ZEPH_ASSERT(offsetof(_ZP_EL_Commerce, loop) == 16);
ZEPH_ASSERT(offsetof(_ZP_EL_Commerce, cleanup) == 24);
ZEPH_ASSERT(offsetof(_ZP_EL_Commerce, error) == 32);
ZEPH_ASSERT(sizeof(_ZP_EL_Database) == 296);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, create) == 8);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, open) == 16);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, close) == 24);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, openview) == 32);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, runquery) == 40);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, pack) == 48);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, setprimaryindex) == 56);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, createindex) == 64);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, openindexes) == 72);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, reindex) == 80);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, error) == 88);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_close) == 96);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_skip) == 104);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_go) == 112);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_add) == 120);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_delete) == 128);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_undelete) == 136);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_update) == 144);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_filter) == 152);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_find) == 160);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_revealstructure_table) == 168);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_revealstructure_aggregate) == 176);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, view_error) == 184);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_get_integer) == 192);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_get_double) == 200);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_get_string) == 208);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_set_integer) == 216);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_set_double) == 224);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_set_string) == 232);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_free) == 240);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, commit) == 248);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, rollback) == 256);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, variable_type) == 264);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, transaction) == 272);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, command) == 280);
ZEPH_ASSERT(offsetof(_ZP_EL_Database, free_data) == 288);
ZEPH_ASSERT(sizeof(_ZP_EL_Config) == 64);
ZEPH_ASSERT(offsetof(_ZP_EL_Config, load_script_v1) == 16);
ZEPH_ASSERT(offsetof(_ZP_EL_Config, shutdown) == 48);
ZEPH_ASSERT(offsetof(_ZP_EL_Config, load_script_config) == 56);

#undef ZEPH_ASSERT
#undef ZEPH_OBJECT

#ifdef __cplusplus
}
#endif

#endif
