/* The engine's functions for a configuration library, called with the handle that the library got.
   Plain C; docs/configuration.md explains how to write such a library.

   1. A text is a pointer and a length in bytes; a length of -1 means strlen. Names and paths
      without a length are NUL-terminated.
   2. Texts are copied, except where a function says otherwise.
   3. A handle is used only on the thread of the call that passed it. */

#ifndef ZEPH_API_ZPCONFIG_H
#define ZEPH_API_ZPCONFIG_H

#include "base/extensions/ConfigLibrary.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Write a setting, even one that was read already. The text is not copied and must stay valid until
   shutdown has returned; with owned set it was made with new[] and its ownership passes to the
   engine. Return 0 for success. Any other result means that the setting is of the other kind, and
   the text stays the caller's. */
int zpConfig_SetValue(ZPCONFIG config, int id, const char* text, int length, int owned);
int zpConfig_SetValue_Integer(ZPCONFIG config, int id, int value);

/* Register an extension library for this request. Always return 0: if a library cannot be loaded,
   its first use fails. */
int zpConfig_Register_Library_Commerce(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Database(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_System(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Builtin(ZPCONFIG config, const char* path);

/* Set a variable for this request. Scripts cannot write a system variable. */
void zpConfig_SetVariable_Global(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);
void zpConfig_SetVariable_System(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);

/* Sets the default handling of a tag's errors: bit 0 displays the message, bit 1 stops the script.
   Applies to the whole process and all later requests. A name of no tag is ignored. */
void zpConfig_Set_DefaultErrorSetting(ZPCONFIG config, const char* tag, int taglength, int value);

#ifdef __cplusplus
}
#endif

#endif
