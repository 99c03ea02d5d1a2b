/* The engine's functions for values, for extension libraries. Plain C; docs/extensions.md tells how
   to write one.

   1. A text comes as pointer and length in bytes; a length of -1 means strlen.
   2. Texts are copied, except where a function says otherwise.
   3. A text that a function answers belongs to the object and is good until the object's next
      change. *length receives its bytes; length may be null. A text of length 0 may be null.
   4. A variable lives by a count. Who makes one holds a count, and gives it back with
      zpVariable_Free or by handing the variable to something that adopts the count. Parameters and
      result of a call, variables that are found, and elements are borrowed.
   5. Positions in an array count from 1. Functions about elements take the array or structure
      last, or in front of the create flag: with it, what is not there is made.
   6. A handle is used on the thread of the call that brought it, and not beyond the request.
   7. When the script's time is over meanwhile, what takes long ends early: the text of a large
      array is empty then, and a copy lacks elements. The script ends after the call, also when the
      function asks for new time. */

#ifndef ZEPH_API_ZPVARIABLE_H
#define ZEPH_API_ZPVARIABLE_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Variables -------------------------------------------------------------------------------- */

/* A new variable with a count of 1. The copy has name and value of the source, elements included.
 */
ZPVARIABLE zpVariable_Allocate(const char* name, int namelength, const char* value,
                               int valuelength);
ZPVARIABLE zpVariable_Allocate_Copy(ZPVARIABLE source);
/* Gives one count back. */
void zpVariable_Free(ZPVARIABLE variable);

/* What a reference refers to, null without a target; any other variable is itself. The second
   follows references to the end and is never null. */
ZPVARIABLE zpVariable_NextIdentity(ZPVARIABLE variable);
ZPVARIABLE zpVariable_RealIdentity(ZPVARIABLE variable);
/* Turns the variable into a reference to the target, for all who hold it. */
void zpVariable_Make_Reference(ZPVARIABLE variable, ZPVARIABLE target);

const char* zpVariable_Name(ZPVARIABLE variable, int* length);
/* The value as a number; 0 for a text that is none, and for an array or structure. */
int zpVariable_Value_Integer(ZPVARIABLE variable);
double zpVariable_Value_Double(ZPVARIABLE variable);
/* The value as a text, which may have NUL bytes in it. */
const char* zpVariable_Value(ZPVARIABLE variable, int* length);
/* The same without NUL bytes, and NUL-terminated: a copy, which zpProgram_Free frees. */
char* zpVariable_Value_NS(ZPVARIABLE variable, int* length);

/* Stores. Each answers 1, or 0 where the variable refuses the value, as a field of a database may.
   Values that cannot be written take a store without effect. */
int zpVariable_SetValue_Integer(ZPVARIABLE variable, int value);
int zpVariable_SetValue_Double(ZPVARIABLE variable, double value);
int zpVariable_SetValue(ZPVARIABLE variable, const char* value, int length);
/* Copies the value of another variable, elements included. */
int zpVariable_SetValue_Variable(ZPVARIABLE variable, ZPVARIABLE source);
/* Takes over a text from zpProgram_Allocate; allocated is the size that was asked for. */
int zpVariable_SetValue_Nocopy(ZPVARIABLE variable, char* value, int length, int allocated);

/* 0 no value, 1 integer, 2 double, 3 text, 4 structure, 5 array, -1 anything else. */
int zpVariable_Type(ZPVARIABLE variable);
/* 0 for a scalar, 1 an array, 2 a structure, -1 anything else. */
int zpVariable_Aggregate_Type(ZPVARIABLE variable);

/* --- Arrays and structures -------------------------------------------------------------------- */

/* Appends the elements to the list, in their order: references to them, each named by its key. */
void zpVariable_Aggregate_List(ZPVARIABLE variable, ZPVARIABLELIST list);

/* The element, or null when it is not there and create is 0. With create, what is not of that kind
   becomes an array or a structure. */
ZPVARIABLE zpVariable_Array_Element(int index, ZPVARIABLE array, int create);
ZPVARIABLE zpVariable_Struct_Member(const char* name, int length, ZPVARIABLE structure, int create);
/* Makes the variable the element, which takes a count of its own. */
void zpVariable_Set_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
void zpVariable_Set_Struct_Member(const char* name, int length, ZPVARIABLE value,
                                  ZPVARIABLE structure);
/* The same in front of that position, where later ones move up; below 1 it is appended. */
void zpVariable_Insert_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
/* Deletes count positions from start on, -1 being all. With compact, later ones move down. */
void zpVariable_Delete_Array_Elements(int start, int count, int compact, ZPVARIABLE array);
void zpVariable_Delete_Struct_Member(const char* name, int length, ZPVARIABLE structure);
/* Merge inserts count positions of the source from start on before the position destination of the
   array, Copy overwrites what is there. A start or destination below 1 and a negative count mean:
   from the first, at the end, up to the last. Without copy both arrays share the elements. */
void zpVariable_Array_Merge(ZPVARIABLE source, int start, int count, int destination, int copy,
                            ZPVARIABLE array);
void zpVariable_Array_Copy(ZPVARIABLE source, int start, int count, int destination, int copy,
                           ZPVARIABLE array);
/* Largest and smallest position, 0 without one, -1 for a structure; the nearest element above or
   below a position in the same way. */
int zpVariable_Array_Max(ZPVARIABLE array);
int zpVariable_Array_Min(ZPVARIABLE array);
int zpVariable_Array_Next(int index, ZPVARIABLE array);
int zpVariable_Array_Previous(int index, ZPVARIABLE array);
/* Numbers the elements from 1 on; answers their count. */
int zpVariable_Array_Collapse(ZPVARIABLE array);
/* The count of elements. */
int zpVariable_ElementsUsed(ZPVARIABLE variable);

/* --- Lists ------------------------------------------------------------------------------------ */

/* An empty list, which the caller frees. The list holds a count of each of its variables. */
ZPVARIABLELIST zpVariableList_Allocate(void);
void zpVariableList_Free(ZPVARIABLELIST list);
void zpVariableList_Dump(ZPVARIABLELIST list); /* empties it */
/* A walk; null at the end. Find moves it to what it found. */
ZPVARIABLE zpVariableList_First(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Current(ZPVARIABLELIST list);
ZPVARIABLE zpVariableList_Next(ZPVARIABLELIST list);
int zpVariableList_Entries(ZPVARIABLELIST list);
/* The first variable of that name in any case, or null. */
ZPVARIABLE zpVariableList_Find(ZPVARIABLELIST list, const char* name, int length);
/* Stores in the variable of that name, which is appended when it is not there. */
void zpVariableList_SetVariable(ZPVARIABLELIST list, const char* name, int namelength,
                                const char* value, int valuelength);
/* Appends; the list takes a count of its own. */
void zpVariableList_Insert(ZPVARIABLELIST list, ZPVARIABLE variable);

/* --- Tables ----------------------------------------------------------------------------------- */

/* An empty table with names of its own, which the caller frees. */
ZPVARIABLEHASH zpVariableHash_Allocate(void);
void zpVariableHash_Free(ZPVARIABLEHASH hash);
/* Releases all variables; the names stay known. */
void zpVariableHash_Dump(ZPVARIABLEHASH hash);
/* Positions count from 0 to Entries - 1. A known name may have no variable: it is null then, or
   made with create. */
int zpVariableHash_Entries(ZPVARIABLEHASH hash);
ZPVARIABLE zpVariableHash_Index(ZPVARIABLEHASH hash, int index, int create);
/* The variable of that name in any case, or null. */
ZPVARIABLE zpVariableHash_Find(ZPVARIABLEHASH hash, const char* name, int length);
/* Appends the variable under its name and answers its position. ReplaceVariable puts it in place of
   the one of its name. Both adopt the caller's count. */
int zpVariableHash_Insert(ZPVARIABLEHASH hash, ZPVARIABLE variable);
void zpVariableHash_ReplaceVariable(ZPVARIABLEHASH hash, ZPVARIABLE variable);
/* Stores in the variable of that name, which is made when it is not there. */
void zpVariableHash_SetVariable(ZPVARIABLEHASH hash, const char* name, int namelength,
                                const char* value, int valuelength);

#ifdef __cplusplus
}
#endif

#endif
