/* zephjson: a builtin library for JSON texts.

     json_decode(text, value var)   stores what the text says in value; returns an empty text, or
   what is wrong with it and where json_encode(value var)         returns the value as JSON; an
   empty text if it cannot be written

   docs/extensions/zephjson.md is the page for authors of scripts. The work is in json.c, because
   zephstd has these functions, too. */

#include <stdio.h>

#include "api/zeph.h"
#include "extensions/json.h"

/* The argument of that name. A script may have declared the function with other parameters: then
   the result is null, and the script's error is set. */
static ZPVARIABLE find_argument(ZPPROGRAM program, ZPVARIABLEHASH parameters, const char* name) {
  ZPVARIABLE argument = zpVariableHash_Find(parameters, name, -1);
  if (argument == NULL) {
    char message[64];
    snprintf(message, sizeof message, "zephjson: there is no parameter '%s'", name);
    zpProgram_FatalError(program, message, -1);
  }
  return argument;
}

static void json_decode(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                        void** state) {
  (void)state;
  if (program == NULL) return;
  ZPVARIABLE text = find_argument(program, parameters, "text");
  ZPVARIABLE value = find_argument(program, parameters, "value");
  if (text == NULL || value == NULL) return;
  int length = 0;
  const char* bytes = zpVariable_Value(text, &length);
  char message[json_longest_message];
  json_read(program, bytes, length, value, message);
  zpVariable_SetValue(result, message, -1);
}

static void json_encode(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                        void** state) {
  (void)state;
  if (program == NULL) return;
  ZPVARIABLE value = find_argument(program, parameters, "value");
  if (value == NULL) return;
  if (!json_write(value, result)) zpVariable_SetValue(result, "", 0);
}

/* --- The table -------------------------------------------------------------------------------- */

#define NAME(text) text, sizeof text - 1

static _ZP_EL_Parameter decode_parameters[] = {{NAME("text"), 0},
                                               {NAME("value"), _ZP_EL_ByReference}};
static _ZP_EL_Parameter encode_parameters[] = {{NAME("value"), _ZP_EL_ByReference}};
static _ZP_EL_Function functions[] = {
    {NAME("json_decode"), 2, decode_parameters, json_decode},
    {NAME("json_encode"), 1, encode_parameters, json_encode},
    {NULL, 0, 0, NULL, NULL},
};
static _ZP_EL_FunctionTable table = {NULL, functions};

__attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table(void) {
  return &table;
}
