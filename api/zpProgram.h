/* The engine's functions for the running script, for extension libraries; an external function gets
   it as its first argument. Plain C; docs/extensions.md tells how to write one, and what is said at
   the top of api/zpVariable.h holds here. */

#ifndef ZEPH_API_ZPPROGRAM_H
#define ZEPH_API_ZPPROGRAM_H

#include "base/extensions/FunctionLibrary.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Variables -------------------------------------------------------------------------------- */

/* The variable of a name as scripts write it, with scope and path: "x", "g.x", "x:member[2]". A
   global or local one that is not there is made; null for any other. A name that cannot be one ends
   the script with a fatal error, and is null as well. */
ZPVARIABLE zpProgram_Lookup_Variable(ZPPROGRAM program, const char* name, int length);
/* Append all variables that there are: those of the function that called, of the system, and the
   global ones. */
void zpProgram_Local_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
void zpProgram_System_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
void zpProgram_Global_Variables(ZPPROGRAM program, ZPVARIABLELIST list);
/* The tables themselves, borrowed. */
ZPVARIABLEHASH zpProgram_Global_VariableHash(ZPPROGRAM program);
ZPVARIABLEHASH zpProgram_System_VariableHash(ZPPROGRAM program);

/* Compares as scripts do, numbers as numbers: negative, 0 or positive. */
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

/* Bytes that the engine may take over, and that it has handed out. The program may be null. */
char* zpProgram_Allocate(ZPPROGRAM program, int size);
void zpProgram_Free(ZPPROGRAM program, char* memory);

/* --- Output ----------------------------------------------------------------------------------- */

/* Sets a header field, in place of one of that name. A text whose owned flag is set comes from
   zpProgram_Allocate and is taken over in any case. 0 when header fields have been sent already, or
   where there are none. */
int zpProgram_Output_Header(ZPPROGRAM program, const char* name, int namelength, int nameowned,
                            const char* value, int valuelength, int valueowned);
/* Answers the bytes taken, negative after a failure. */
int zpProgram_Output(ZPPROGRAM program, const char* text, int length);
int zpProgram_Output_Flush(ZPPROGRAM program);

/* --- Text ------------------------------------------------------------------------------------- */

/* Encoders and decoders for URLs, for HTML and for string literals of JavaScript. Each answers a
   NUL-terminated text, which zpProgram_Free frees; *resultlength receives its bytes and *size those
   of the memory. Either may be null. */
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
/* 32 hexadecimal digits that nobody can guess, to be freed with zpProgram_Free. */
char* zpProgram_MakeSessionID(ZPPROGRAM program, int* length);

/* --- What stays from call to call ------------------------------------------------------------- */

/* Keeps data under a name, in any case, for all functions of the request. destroy is called with
   the program and the data when the request ends, or another registration takes the name; the
   program still works then. Without destroy the data has to come from the C++ operator new. */
void zpProgram_Register_Persistent(ZPPROGRAM program, const char* name, int length, void* data,
                                   void (*destroy)(void* program, void* data));
/* The data of that name, or null. */
void* zpProgram_Lookup_Persistent(ZPPROGRAM program, const char* name, int length);

/* --- Calls ------------------------------------------------------------------------------------ */

/* The row of a function of a builtin library, or null. */
const _ZP_EL_Function* zpProgram_Lookup_ExternalFunction(ZPPROGRAM program, const char* name,
                                                         int length);
/* Calls a function of the script by its name, with the variables of the list as its arguments; a
   null list stands for none. result, if not null, receives what it gives back. 1 when it ran to its
   end; 0 when there is no such function, it has another count of parameters, or an error has ended
   the script: then return. */
int zpProgram_RunFunction(ZPPROGRAM program, const char* name, int length, ZPVARIABLELIST arguments,
                          ZPVARIABLE result);
/* A function of the TLS library that the engine uses, or null. */
void* zpProgram_SSL_Function(ZPPROGRAM program, const char* name);
/* A system library that the configuration names, or null. */
ZPSYSTEMLIBRARY zpProgram_SystemLibrary(ZPPROGRAM program, const char* name);

/* --- Time and errors -------------------------------------------------------------------------- */

/* Starts the time limit of the script anew. */
void zpProgram_ResetGlobalTimeout(ZPPROGRAM program);
/* Pauses the script; a script that is cancelled wakes early. */
void zpProgram_Sleep(ZPPROGRAM program, int milliseconds);
/* Pauses a background task until that time, in seconds since 1970, or until the file changes; the
   path may be null, and the location is one of api/zpFile.h. A change wakes the task with the next
   heartbeat. The pause has a limit of its own, and takes one second of the task's time. Anything
   but a background task goes on at once. */
void zpProgram_Asynchronous_Sleep(ZPPROGRAM program, long wakeat, int location, const char* path,
                                  int length);
/* Shows the message and ends the script, once the function returns. Answers 0. */
int zpProgram_FatalError(ZPPROGRAM program, const char* message, int length);

#ifdef __cplusplus
}
#endif

#endif
