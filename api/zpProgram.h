/* The engine's functions for the running script, for extension libraries; an external function gets
   the script as its first argument. Plain C; docs/extensions.md explains how to write one. The
   notes at the top of api/zpVariable.h apply here. */

#ifndef ZEPH_API_ZPPROGRAM_H
#define ZEPH_API_ZPPROGRAM_H

#include "base/extensions/FunctionLibrary.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Variables -------------------------------------------------------------------------------- */

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

/* --- Settings of the request ------------------------------------------------------------------ */

void zpProgram_SetProcessName(ZPPROGRAM program, const char* name);
void zpProgram_SetLanguage(ZPPROGRAM program, const char* language, int length);
void zpProgram_SetDefaultLanguage(ZPPROGRAM program, const char* language, int length);
void zpProgram_SetDefaultDatabase(ZPPROGRAM program, const char* type, int length);
void zpProgram_SetCharacterSet(ZPPROGRAM program, const char* charset, int length);
const char* zpProgram_GetCharacterSet(ZPPROGRAM program, int* length);
int zpProgram_CharacterSetIsUTF8(ZPPROGRAM program);

/* --- Memory ----------------------------------------------------------------------------------- */

/* Memory that the engine can adopt, and that it returns. program may be null. */
char* zpProgram_Allocate(ZPPROGRAM program, int size);
void zpProgram_Free(ZPPROGRAM program, char* memory);

/* --- Output ----------------------------------------------------------------------------------- */

/* Sets a header field, replacing one of that name. A text whose owned flag is set comes from
   zpProgram_Allocate and is adopted in any case. Returns 0 if the header has been sent already, or
   if the output has none. */
int zpProgram_Output_Header(ZPPROGRAM program, const char* name, int namelength, int nameowned,
                            const char* value, int valuelength, int valueowned);
/* Returns the number of bytes accepted, negative after a failure. */
int zpProgram_Output(ZPPROGRAM program, const char* text, int length);
int zpProgram_Output_Flush(ZPPROGRAM program);

/* --- Text ------------------------------------------------------------------------------------- */

/* Encoders and decoders for URLs, for HTML and for string literals of JavaScript. Each returns a
   NUL-terminated text, which the caller frees with zpProgram_Free; *resultlength receives its
   length in bytes and *size the size of its memory. Either may be null. */
char* zpProgram_Attribute_Encode(ZPPROGRAM program, const char* text, int length, int* resultlength,
                                 int* size);
char* zpProgram_Attribute_Decode(ZPPROGRAM program, const char* text, int length, int* resultlength,
                                 int* size);
char* zpProgram_Entity_Encode(ZPPROGRAM program, const char* text, int length, int* resultlength,
                              int* size);
char* zpProgram_Entity_Decode(ZPPROGRAM program, const char* text, int length, int* resultlength,
                              int* size);
char* zpProgram_JavaScriptString_Encode(ZPPROGRAM program, const char* text, int length,
                                        int* resultlength, int* size);
/* Returns 32 hexadecimal digits that cannot be guessed; the caller frees them with zpProgram_Free.
 */
char* zpProgram_MakeSessionID(ZPPROGRAM program, int* length);

/* --- What stays from call to call ------------------------------------------------------------- */

/* Keeps data under a name, in any case, for all functions of the request. destroy is called with
   the program and the data when the request ends or another registration uses the name; the program
   still works then. If destroy is null, the data must come from the C++ operator new. */
void zpProgram_Register_Persistent(ZPPROGRAM program, const char* name, int length, void* data,
                                   void (*destroy)(void* program, void* data));
/* Returns the data of that name, or null. */
void* zpProgram_Lookup_Persistent(ZPPROGRAM program, const char* name, int length);

/* --- Calls ------------------------------------------------------------------------------------ */

/* Returns the row of a function of a builtin library, or null. */
const _ZP_EL_Function* zpProgram_Lookup_ExternalFunction(ZPPROGRAM program, const char* name,
                                                         int length);
/* Calls a function of the script by its name, with the variables of the list as its arguments; a
   null list means no arguments. result, if not null, receives the function's result. Returns 1 if
   it ran to its end; 0 if there is no such function, it has another number of parameters, or an
   error has ended the script: the caller must then return. */
int zpProgram_RunFunction(ZPPROGRAM program, const char* name, int length, ZPVARIABLELIST arguments,
                          ZPVARIABLE result);
/* Returns a function of the TLS library that the engine uses, or null. */
void* zpProgram_SSL_Function(ZPPROGRAM program, const char* name);
/* Returns a system library that the configuration names, or null. */
ZPSYSTEMLIBRARY zpProgram_SystemLibrary(ZPPROGRAM program, const char* name);

/* --- Time and errors -------------------------------------------------------------------------- */

/* Restarts the time limit of the script. */
void zpProgram_ResetGlobalTimeout(ZPPROGRAM program);
/* Pauses the script; cancelling the script ends the pause early. */
void zpProgram_Sleep(ZPPROGRAM program, int milliseconds);
/* Pauses a background task until that time, in seconds since 1970, or until the file changes; path
   may be null, and location is one of api/zpFile.h. A change wakes the task at the next heartbeat.
   The pause has its own time limit, and uses one second of the task's time. Outside a background
   task the call returns at once. */
void zpProgram_Asynchronous_Sleep(ZPPROGRAM program, long wakeat, int location, const char* path,
                                  int length);
/* Shows the message and ends the script after the function has returned. Returns 0. */
int zpProgram_FatalError(ZPPROGRAM program, const char* message, int length);

#ifdef __cplusplus
}
#endif

#endif
