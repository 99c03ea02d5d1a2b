/* The engine's functions for values, for extension libraries. Plain C; docs/extensions.md explains
   how to write one.

   1. A text is a pointer and a length in bytes; a length of -1 means strlen.
   2. Texts are copied, except where a function says otherwise.
   3. A text that a function returns belongs to the object and is valid until the object's next
      change. *length receives its length in bytes; length may be null. A text of length 0 may be
      null.
   4. A variable lives by a count. A caller that makes one holds a count, and gives it back with
      zpVariable_Free or by passing the variable to a function that adopts the count. Parameters and
      result of a call, variables that a function finds, and elements are borrowed.
   5. Positions in an array count from 1. Functions on elements have the array or structure as the
      last argument, or before the create flag: if that is set, a missing element is made.
   6. A handle is used only on the thread of the call that passed it, and not after the request.
   7. If the script's time limit passes during a call, long work ends early: the text of a large
      array is then empty, and a copy lacks elements. The script ends after the call, even if the
      function restarts the time limit. */

#ifndef ZEPH_API_ZPVARIABLE_H
#define ZEPH_API_ZPVARIABLE_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Variables -------------------------------------------------------------------------------- */

/* Return a new variable with a count of 1. The copy has name and value of the source, elements
   included. */
ZPVARIABLE zpVariable_Allocate(const char* name, int namelength, const char* value,
                               int valuelength);
ZPVARIABLE zpVariable_Allocate_Copy(ZPVARIABLE source);
/* Gives one count back. */
void zpVariable_Free(ZPVARIABLE variable);

/* Return the target of a reference, null if it has none; for any other variable, the variable
   itself. The second follows references to the end and never returns null. */
ZPVARIABLE zpVariable_NextIdentity(ZPVARIABLE variable);
ZPVARIABLE zpVariable_RealIdentity(ZPVARIABLE variable);
/* Turns the variable into a reference to the target, for all its holders. */
void zpVariable_Make_Reference(ZPVARIABLE variable, ZPVARIABLE target);

const char* zpVariable_Name(ZPVARIABLE variable, int* length);
/* Return the value as a number; 0 for a text that is no number, and for an array or structure. */
int zpVariable_Value_Integer(ZPVARIABLE variable);
double zpVariable_Value_Double(ZPVARIABLE variable);
/* Returns the value as a text, which may contain NUL bytes. */
const char* zpVariable_Value(ZPVARIABLE variable, int* length);
/* Returns a copy without NUL bytes, NUL-terminated, which the caller frees with zpProgram_Free. */
char* zpVariable_Value_NS(ZPVARIABLE variable, int* length);

/* Stores. Return 1, or 0 if the variable refuses the value, as a field of a database may. A store
   in a value that cannot be written has no effect and returns 1. */
int zpVariable_SetValue_Integer(ZPVARIABLE variable, int value);
int zpVariable_SetValue_Double(ZPVARIABLE variable, double value);
int zpVariable_SetValue(ZPVARIABLE variable, const char* value, int length);
/* Copies the value of another variable, elements included. */
int zpVariable_SetValue_Variable(ZPVARIABLE variable, ZPVARIABLE source);
/* Adopts a text from zpProgram_Allocate; allocated is the size that was allocated. */
int zpVariable_SetValue_Nocopy(ZPVARIABLE variable, char* value, int length, int allocated);

/* Returns 0 for no value, 1 integer, 2 double, 3 text, 4 structure, 5 array, -1 anything else. */
int zpVariable_Type(ZPVARIABLE variable);
/* Returns 0 for a scalar, 1 for an array, 2 for a structure, -1 for anything else. */
int zpVariable_Aggregate_Type(ZPVARIABLE variable);

/* --- Arrays and structures -------------------------------------------------------------------- */

/* Appends references to the elements to the list, in their order, each named by its key. */
void zpVariable_Aggregate_List(ZPVARIABLE variable, ZPVARIABLELIST list);

/* Return the element, or null if it is missing and create is 0. With create, a value of another
   kind becomes an array or a structure. */
ZPVARIABLE zpVariable_Array_Element(int index, ZPVARIABLE array, int create);
ZPVARIABLE zpVariable_Struct_Member(const char* name, int length, ZPVARIABLE structure, int create);
/* Make the variable itself the element; the array or structure takes a count of its own. */
void zpVariable_Set_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
void zpVariable_Set_Struct_Member(const char* name, int length, ZPVARIABLE value,
                                  ZPVARIABLE structure);
/* The same, before that position: later elements move up. Below 1 the element is appended. */
void zpVariable_Insert_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
/* Deletes count positions from start on; -1 means all. With compact, later elements move down. */
void zpVariable_Delete_Array_Elements(int start, int count, int compact, ZPVARIABLE array);
void zpVariable_Delete_Struct_Member(const char* name, int length, ZPVARIABLE structure);
/* Merge inserts count positions of the source, from start on, before the position destination of
   the array; Copy overwrites the positions there. A start below 1 means the first position, a
   destination below 1 the end, a negative count all up to the last. Without copy both arrays share
   the elements. */
void zpVariable_Array_Merge(ZPVARIABLE source, int start, int count, int destination, int copy,
                            ZPVARIABLE array);
void zpVariable_Array_Copy(ZPVARIABLE source, int start, int count, int destination, int copy,
                           ZPVARIABLE array);
/* Return the largest and the smallest position, and the nearest one above or below a position; 0 if
   there is none, -1 for a structure. */
int zpVariable_Array_Max(ZPVARIABLE array);
int zpVariable_Array_Min(ZPVARIABLE array);
int zpVariable_Array_Next(int index, ZPVARIABLE array);
int zpVariable_Array_Previous(int index, ZPVARIABLE array);
/* Renumbers the elements from 1 on; returns their number. */
int zpVariable_Array_Collapse(ZPVARIABLE array);
/* Returns the number of elements. */
int zpVariable_ElementsUsed(ZPVARIABLE variable);

/* --- Lists ------------------------------------------------------------------------------------ */

/* Returns an empty list, which the caller frees. The list holds a count of each variable in it. */
ZPVARIABLELIST zpVariableList_Allocate(void);
void zpVariableList_Free(ZPVARIABLELIST list);
void zpVariableList_Dump(ZPVARIABLELIST list); /* empties it */
/* Walk the list; null at the end. Find makes the variable that it returns the current one. */
ZPVARIABLE zpVariableList_First(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Current(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Next(ZPVARIABLELIST list);
int zpVariableList_Entries(ZPVARIABLELIST list);
/* Returns the first variable of that name in any case, or null. */
ZPVARIABLE zpVariableList_Find(ZPVARIABLELIST list, const char* name, int length);
/* Stores in the variable of that name; a missing one is appended. */
void zpVariableList_SetVariable(ZPVARIABLELIST list, const char* name, int namelength,
                                const char* value, int valuelength);
/* Appends; the list takes a count of its own. */
void zpVariableList_Insert(ZPVARIABLELIST list, ZPVARIABLE variable);

/* --- Tables ----------------------------------------------------------------------------------- */

/* Returns an empty table with its own names, which the caller frees. */
ZPVARIABLEHASH zpVariableHash_Allocate(void);
void zpVariableHash_Free(ZPVARIABLEHASH hash);
/* Releases all variables; the names remain. */
void zpVariableHash_Dump(ZPVARIABLEHASH hash);
/* Positions count from 0 to Entries - 1. A name may have no variable yet: Index then returns null,
   or makes it with create. */
int zpVariableHash_Entries(ZPVARIABLEHASH hash);
ZPVARIABLE zpVariableHash_Index(ZPVARIABLEHASH hash, int index, int create);
/* Returns the variable of that name in any case, or null. */
ZPVARIABLE zpVariableHash_Find(ZPVARIABLEHASH hash, const char* name, int length);
/* Insert appends the variable under its name and returns its position. ReplaceVariable replaces the
   variable of that name. Both adopt the caller's count. */
int zpVariableHash_Insert(ZPVARIABLEHASH hash, ZPVARIABLE variable);
void zpVariableHash_ReplaceVariable(ZPVARIABLEHASH hash, ZPVARIABLE variable);
/* Stores in the variable of that name; a missing one is made. */
void zpVariableHash_SetVariable(ZPVARIABLEHASH hash, const char* name, int namelength,
                                const char* value, int valuelength);

#ifdef __cplusplus
}
#endif

#endif
