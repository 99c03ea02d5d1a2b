/* JSON texts to variables and back, for the libraries zephjson and zephstd. */

#ifndef ZEPH_EXTENSIONS_JSON_H
#define ZEPH_EXTENSIONS_JSON_H

#include "api/zeph.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { json_longest_message = 80 };

/* Stores what a JSON text says in value. Returns 1, or 0 for a wrong text: message then has what is
   wrong and where, NUL-terminated, and value is empty. It also returns 0, with an empty message, if
   there is no memory: the script then has its error. The text may be value's own. */
int json_read(ZPPROGRAM program, const char* bytes, int length, ZPVARIABLE value,
              char message[json_longest_message]);

/* Stores the value as JSON in text. Returns 1, or 0 if it cannot be written: text is then
   unchanged. REQUIRES: they are two variables. */
int json_write(ZPVARIABLE value, ZPVARIABLE text);

#ifdef __cplusplus
}
#endif

#endif
