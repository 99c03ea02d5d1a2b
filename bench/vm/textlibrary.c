/* The text functions that the measured scripts call, as a builtin library: what other languages
   have in their own libraries. Scripts declare them as external functions:

     length(text var)                       bytes of a text
     byte(text var, position)               the byte at a position, as a number; 0 outside
     substring(text var, position, count)   bytes of a text
     encodeentities(text)                   as text for HTML

   Positions count from 1. A long text is passed by reference, so that it is not copied. */

#include "api/zeph.h"

/* The parameters are in the order of their declaration. */
static const char* text_argument(ZPVARIABLEHASH parameters, int* length) {
  ZPVARIABLE text = zpVariableHash_Index(parameters, 0, 1);
  const char* bytes = text ? zpVariable_Value(text, length) : 0;
  if (!bytes) *length = 0;
  return bytes ? bytes : "";
}

static int number_argument(ZPVARIABLEHASH parameters, int index) {
  ZPVARIABLE number = zpVariableHash_Index(parameters, index, 1);
  return number ? zpVariable_Value_Integer(number) : 0;
}

static void length(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  int bytes;
  (void)program, (void)state;
  text_argument(parameters, &bytes);
  zpVariable_SetValue_Integer(result, bytes);
}

static void byte(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  int bytes;
  (void)program, (void)state;
  const char* text = text_argument(parameters, &bytes);
  int position = number_argument(parameters, 1);
  int inside = position >= 1 && position <= bytes;
  zpVariable_SetValue_Integer(result, inside ? (unsigned char)text[position - 1] : 0);
}

static void substring(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                      void** state) {
  int bytes;
  (void)program, (void)state;
  const char* text = text_argument(parameters, &bytes);
  int position = number_argument(parameters, 1);
  int count = number_argument(parameters, 2);
  if (position < 1 || position > bytes || count < 0) {
    zpVariable_SetValue(result, "", 0);
    return;
  }
  if (count > bytes - position + 1) count = bytes - position + 1;
  zpVariable_SetValue(result, text + position - 1, count);
}

static void encodeentities(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                           void** state) {
  int bytes, encoded, size;
  (void)state;
  const char* text = text_argument(parameters, &bytes);
  char* entities = zpProgram_Entity_Encode(program, text, bytes, &encoded, &size);
  zpVariable_SetValue_Nocopy(result, entities, encoded, size);
}

static _ZP_EL_Parameter one_text[] = {{"text", 4, _ZP_EL_ByReference}};
static _ZP_EL_Parameter text_and_position[] = {{"text", 4, _ZP_EL_ByReference}, {"position", 8, 0}};
static _ZP_EL_Parameter text_and_range[] = {
    {"text", 4, _ZP_EL_ByReference}, {"position", 8, 0}, {"count", 5, 0}};
static _ZP_EL_Parameter copied_text[] = {{"text", 4, 0}};

static _ZP_EL_Function functions[] = {
    {"length", 6, 1, one_text, length},
    {"byte", 4, 2, text_and_position, byte},
    {"substring", 9, 3, text_and_range, substring},
    {"encodeentities", 14, 1, copied_text, encodeentities},
    {0, 0, 0, 0, 0},
};

static _ZP_EL_FunctionTable table = {NULL, functions};

__attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table(void) {
  return &table;
}
