/* The engine's functions for a configuration library, called with the handle that the library was
   given. Plain C; docs/configuration.md tells how to write such a library.

   1. A text comes as pointer and length in bytes; a length of -1 means strlen. Names and paths
      without a length are NUL-terminated.
   2. Texts are copied, except where a function says otherwise.
   3. A handle is used on the thread of the call that brought it. */

#ifndef ZEPH_API_ZPCONFIG_H
#define ZEPH_API_ZPCONFIG_H

#include "base/extensions/ConfigLibrary.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writes a setting, also over one that was read already. The text is kept as it stands and must
   stay valid until shutdown has returned; with owned set it was made with new[] and passes to the
   engine. 0 is success; anything else says that the setting is of the other kind, and the text
   stays the caller's. */
int zpConfig_SetValue(ZPCONFIG config, int id, const char* text, int length, int owned);
int zpConfig_SetValue_Integer(ZPCONFIG config, int id, int value);

/* Register an extension library for this request. Answer 0 whatever happened: a library that
   cannot be loaded shows at its first use. */
int zpConfig_Register_Library_Commerce(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Database(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_System(ZPCONFIG config, const char* name, const char* path);
int zpConfig_Register_Library_Builtin(ZPCONFIG config, const char* path);

/* Names a variable of this request; a system variable cannot be written by scripts. */
void zpConfig_SetVariable_Global(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);
void zpConfig_SetVariable_System(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength);

/* Sets what an error of a tag does by default: bit 0 display the message, bit 1 stop the script.
   Holds for the whole process and all later requests. A name that is no tag's is ignored. */
void zpConfig_Set_DefaultErrorSetting(ZPCONFIG config, const char* tag, int taglength, int value);

#ifdef __cplusplus
}
#endif

#endif
