/* zephshipping: a commerce library. A script's loop gets one offer for a parcel in each round. The
   prices come from the system library zephtariff, which the configuration has to name "tariff".
   docs/extensions/zephshipping.md is the page for authors of scripts.

   It shows the life of a loop: init checks the fields and makes the state, loop prepares an offer
   in variables of the script, error says what was wrong, and cleanup frees the state, also after an
   init that failed. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/zeph.h"
#include "extensions/zephtariff.h"

typedef struct Quote {
  tariff_services_function services;
  tariff_name_function name;
  tariff_price_function price;
  int service; /* the next one */
  int grams;
  int zone;
  char error[128];
} Quote;

static const char no_memory[] = "shipping: out of memory";

static int fail(Quote* quote, const char* message, const char* subject, int length) {
  snprintf(quote->error, sizeof quote->error, "shipping: %s%.*s", message, length,
           subject != NULL ? subject : "");
  return 1;
}

/* Stores the address of a function of the tariff; null if there is none. C has no cast from an
   object's address to a function's. */
static void find_function(ZPSYSTEMLIBRARY tariff, const char* name, void* function) {
  void* address = zpSystemLibrary_GetFunction(tariff, name);
  memcpy(function, &address, sizeof address);
}

static int find_tariff(ZPPROGRAM program, Quote* quote) {
  ZPSYSTEMLIBRARY tariff = zpProgram_SystemLibrary(program, "tariff");
  if (tariff != NULL) {
    find_function(tariff, "tariff_services", &quote->services);
    find_function(tariff, "tariff_name", &quote->name);
    find_function(tariff, "tariff_price", &quote->price);
  }
  if (quote->services != NULL && quote->name != NULL && quote->price != NULL) return 0;
  int length;
  const char* reason = zpSystemLibrary_Error(program, tariff, &length);
  return fail(quote, "", reason, length);
}

/* A field of the script as a number above 0. */
static int read_field(Quote* quote, ZPVARIABLELIST fields, const char* name, int* value) {
  ZPVARIABLE field = zpVariableList_Find(fields, name, -1);
  *value = field != NULL ? zpVariable_Value_Integer(field) : 0;
  if (*value > 0) return 0;
  return fail(quote, "this field has to be a number above 0: ", name, (int)strlen(name));
}

static int init(ZPPROGRAM program, void** state, const char* method, const char* action,
                ZPVARIABLELIST fields, ZPVARIABLEHASH system) {
  (void)method, (void)system;
  Quote* quote = calloc(1, sizeof *quote);
  *state = quote;
  if (quote == NULL) return 1;
  if (strcmp(action, "quote") != 0) {
    return fail(quote, "there is no action ", action, (int)strlen(action));
  }
  return find_tariff(program, quote) || read_field(quote, fields, "weight", &quote->grams) ||
         read_field(quote, fields, "zone", &quote->zone);
}

static void set_variable(ZPPROGRAM program, const char* name, const char* value) {
  ZPVARIABLE variable = zpProgram_Lookup_Variable(program, name, -1);
  if (variable != NULL) zpVariable_SetValue(variable, value, -1);
}

static int loop(ZPPROGRAM program, void** state, const char* method, const char* action,
                ZPVARIABLELIST fields, ZPVARIABLEHASH system, int index) {
  (void)method, (void)action, (void)fields, (void)system, (void)index;
  Quote* quote = *state;
  while (quote->service < quote->services()) {
    int service = quote->service++;
    int cents = quote->price(service, quote->grams, quote->zone);
    if (cents < 0) continue;
    char price[32];
    snprintf(price, sizeof price, "%d.%02d", cents / 100, cents % 100);
    set_variable(program, "g.carrier", quote->name(service));
    set_variable(program, "g.price", price);
    return 0;
  }
  return 2;
}

static void cleanup(ZPPROGRAM program, void** state, const char* method, const char* action,
                    ZPVARIABLELIST fields) {
  (void)program, (void)method, (void)action, (void)fields;
  free(*state);
  *state = NULL;
}

static const char* error(ZPPROGRAM program, void** state, const char* method, const char* action,
                         ZPVARIABLELIST fields) {
  (void)program, (void)method, (void)action, (void)fields;
  const Quote* quote = *state;
  return quote != NULL ? quote->error : no_memory;
}

static _ZP_EL_Commerce table = {NULL, init, loop, cleanup, error};

__attribute__((visibility("default"))) _ZP_EL_Commerce* zeph_commerce_library(void) {
  return &table;
}
