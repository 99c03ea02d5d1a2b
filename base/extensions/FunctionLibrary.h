/* The interface between a builtin library and the engine. The library exports the function

     _ZP_EL_FunctionTable* zeph_function_table(void);

   which returns a table that stays valid for the life of the process; docs/extensions.md explains
   how to write one. The engine reads the table in place, from all its request threads. Plain C. */

#ifndef ZEPH_BASE_FUNCTIONLIBRARY_H
#define ZEPH_BASE_FUNCTIONLIBRARY_H

#include "base/extensions/ExtensionHandles.h"

/* Flags of a parameter. With ByReference the function gets the caller's own variable, otherwise a
   copy. */
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

/* The engine does not read version. */
typedef struct _ZP_EL_FunctionTable {
  int version;
  _ZP_EL_Function* functions;
} _ZP_EL_FunctionTable;

#endif
