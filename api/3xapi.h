/* The older functions for extension libraries, for libraries that were written for them. Plain C.
   Texts are NUL-terminated and have no lengths. Apart from that these are the functions with
   similar names in api/zpVariable.h and api/zpFile.h, whose notes apply here. */

#ifndef ZEPH_API_3XAPI_H
#define ZEPH_API_3XAPI_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- Memory: malloc, realloc and free ----------------------------------------------------------
 */

void* zeph_alloc(int size);
void* zeph_realloc(void* memory, int size);
void zeph_free(void* memory);

/* --- Variables ---------------------------------------------------------------------------------
 */

/* Return name and value, never null. */
const char* zeph_variable_name(ZPVARIABLE variable);
const char* zeph_variable_value(ZPVARIABLE variable);
void zeph_variable_setvalue(ZPVARIABLE variable, const char* value);
/* _new makes a variable with a count of 1, _delete gives the count back. */
ZPVARIABLE zeph_variable_new(const char* name, const char* value);
void zeph_variable_delete(ZPVARIABLE variable);

/* An element, or null. */
ZPVARIABLE zeph_variable_array_element(ZPVARIABLE array, int index);
ZPVARIABLE zeph_variable_structure_member(ZPVARIABLE structure, const char* name);
/* Store in an element; a missing one is made. */
void zeph_variable_set_array_element_value(ZPVARIABLE array, int index, const char* value);
void zeph_variable_set_structure_member_value(ZPVARIABLE structure, const char* name,
                                              const char* value);
/* The number of elements; the smallest and the largest position. */
int zeph_variable_array_elements(ZPVARIABLE array);
int zeph_variable_array_min(ZPVARIABLE array);
int zeph_variable_array_max(ZPVARIABLE array);
/* 2 for a structure, 1 for an array, 0 for a scalar. */
int zeph_variable_aggregate_type(ZPVARIABLE variable);
void zeph_variable_aggregate_list(ZPVARIABLE variable, ZPVARIABLELIST list);

/* --- Lists -------------------------------------------------------------------------------------
 */

ZPVARIABLELIST zeph_variablelist_new(void);
void zeph_variablelist_delete(ZPVARIABLELIST list);
void zeph_variablelist_dump(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_first(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_current(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_next(ZPVARIABLELIST list);
ZPVARIABLE zeph_variablelist_find(ZPVARIABLELIST list, const char* name);
void zeph_variablelist_setvariable(ZPVARIABLELIST list, const char* name, const char* value);
/* Returns the url followed by all variables as "name=value", joined by "&", both encoded. The
   caller frees it with zeph_free. */
char* zeph_variablelist_to_url(const char* url, ZPVARIABLELIST list);

/* --- Tables ------------------------------------------------------------------------------------
 */

ZPVARIABLEHASH zeph_variabletree_new(void);
void zeph_variabletree_delete(ZPVARIABLEHASH tree);
void zeph_variabletree_dump(ZPVARIABLEHASH tree);
ZPVARIABLE zeph_variabletree_find(ZPVARIABLEHASH tree, const char* name);
void zeph_variabletree_setvariable(ZPVARIABLEHASH tree, const char* name, const char* value);
/* Adopts the caller's count. */
void zeph_variabletree_insert(ZPVARIABLEHASH tree, ZPVARIABLE variable);

/* --- Files -------------------------------------------------------------------------------------
 */

/* Location 1 is the script directory, any other the data directory. The path is used unchanged: a
   relative one does not begin at the running script's directory. */
int zeph_file_resolve(ZPPROGRAM program, int location, const char* path);
ZPFILE zeph_file_open(ZPPROGRAM program, int location, const char* path, int flags);
int zeph_file_delete(ZPPROGRAM program, int location, const char* path);
int zeph_file_rename(ZPPROGRAM program, int fromlocation, const char* from, int tolocation,
                     const char* to);
int zeph_file_exists(ZPPROGRAM program, int location, const char* path);
long zeph_file_size(ZPPROGRAM program, int location, const char* path);
int zeph_file_isdirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_makedirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_removedirectory(ZPPROGRAM program, int location, const char* path);
int zeph_file_mode(ZPPROGRAM program, int location, const char* path);
int zeph_file_changemode(ZPPROGRAM program, int location, const char* path, int mode);
char zeph_file_pathseparator(ZPPROGRAM program);
int zeph_file_read(ZPFILE file, char* buffer, int length);
int zeph_file_write(ZPFILE file, const char* bytes, int length);
int zeph_file_seek(ZPFILE file, long position);
int zeph_file_tell(ZPFILE file);
long zeph_file_length(ZPFILE file);
int zeph_file_lock(ZPFILE file, int type);
int zeph_file_release(ZPFILE file);
void zeph_file_close(ZPFILE file);
const char* zeph_file_error(ZPPROGRAM program, ZPFILE file);

#ifdef __cplusplus
}
#endif

#endif
