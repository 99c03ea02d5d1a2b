/* What the measured scripts of bench/db need beside the database, as a builtin library: the records
   and look-ups that all contenders make, and clocks. Scripts declare them as external functions:

     row_name(i), row_amount(i), row_date(i)   the values of record i, counted from 0
     lookups(n)       starts the sequence of n look-ups again
     lookup_name()    the name that is looked up next
     wall(), cpu()    microseconds: of a clock that runs on, and of the processor, system included
 */

#include <stdio.h>
#include <sys/resource.h>
#include <time.h>

#include "api/zeph.h"

static unsigned random_state = 12345;
static int rows = 1;

static int number_argument(ZPVARIABLEHASH parameters) {
  ZPVARIABLE number = zpVariableHash_Index(parameters, 0, 1);
  return number ? zpVariable_Value_Integer(number) : 0;
}

static void set_name(ZPVARIABLE result, int i) {
  char text[40];
  const int length =
      snprintf(text, sizeof text, "customer %06d", (int)(((long)i * 7919 + 12345) % 100003));
  zpVariable_SetValue(result, text, length);
}

static void row_name(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                     void** state) {
  (void)program, (void)state;
  set_name(result, number_argument(parameters));
}

static void row_amount(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                       void** state) {
  (void)program, (void)state;
  zpVariable_SetValue_Double(result,
                             (double)((long)number_argument(parameters) * 37 % 1000000) / 100);
}

static void row_date(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                     void** state) {
  char text[40];
  const int i = number_argument(parameters);
  const int length =
      snprintf(text, sizeof text, "%04d%02d%02d", 2020 + i % 5, 1 + i % 12, 1 + i % 28);
  (void)program, (void)state;
  zpVariable_SetValue(result, text, length);
}

static void lookups(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  (void)program, (void)result, (void)state;
  random_state = 12345;
  rows = number_argument(parameters);
  if (rows < 1) rows = 1;
}

static void lookup_name(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result,
                        void** state) {
  (void)program, (void)parameters, (void)state;
  random_state = (random_state * 1103515245u + 12345u) & 0x7FFFFFFF;
  set_name(result, (int)((random_state >> 8) % (unsigned)rows));
}

static void wall(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  struct timespec now;
  (void)program, (void)parameters, (void)state;
  clock_gettime(CLOCK_MONOTONIC, &now);
  zpVariable_SetValue_Double(result, (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3);
}

static void cpu(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  struct rusage used;
  (void)program, (void)parameters, (void)state;
  getrusage(RUSAGE_SELF, &used);
  zpVariable_SetValue_Double(result, (double)(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
                                         (double)(used.ru_utime.tv_usec + used.ru_stime.tv_usec));
}

static _ZP_EL_Parameter number[] = {{"number", 6, 0}};

static _ZP_EL_Function functions[] = {
    {"row_name", 8, 1, number, row_name},
    {"row_amount", 10, 1, number, row_amount},
    {"row_date", 8, 1, number, row_date},
    {"lookups", 7, 1, number, lookups},
    {"lookup_name", 11, 0, 0, lookup_name},
    {"wall", 4, 0, 0, wall},
    {"cpu", 3, 0, 0, cpu},
    {0, 0, 0, 0, 0},
};

static _ZP_EL_FunctionTable table = {NULL, functions};

__attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table(void) {
  return &table;
}
