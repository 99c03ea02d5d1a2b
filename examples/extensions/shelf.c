/* shelf: a builtin library for pages that take files from their visitors. They are kept in the
   folder "shelf" of the data directory.

     keep(path, name)         moves an uploaded file there and returns its new name: the visitor's
                              name without anything that could lead to another folder, and with a
                              number if the name was taken; empty if the file cannot be kept
     shelf(list var)          returns how many files there are; list becomes an array, in the order
                              of the names, of structures with the members name and bytes
     drop(path)               removes a file that the engine has made for the page, such as a mail's
     html(text)               the text as a page shows it: "<" is written "&lt;", and so on

   Pages show all input of a visitor through html, and only keep makes a path of it. */

#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "api/zeph.h"

enum { longest_name = 80, most_numbers = 10000 };

static const char folder[] = "shelf/";

/* The argument of that name. A script may have declared the function with other parameters: then
   the result is null, and the script's error is set. */
static ZPVARIABLE find_argument(ZPPROGRAM program, ZPVARIABLEHASH parameters, const char* name) {
  ZPVARIABLE argument = zpVariableHash_Find(parameters, name, -1);
  if (argument == NULL) {
    char message[64];
    snprintf(message, sizeof message, "shelf: there is no parameter '%s'", name);
    zpProgram_FatalError(program, message, -1);
  }
  return argument;
}

/* --- Keeping ---------------------------------------------------------------------------------- */

static int is_plain(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c >= 0x80 ||
         c == '-' || c == '_' || c == '.';
}

/* Makes a file name that is not hidden of the part after the last slash or backslash. clean has
   room for longest_name bytes and a NUL. */
static void clean_name(const char* name, int length, char* clean) {
  int used = 0;
  for (int i = 0; i < length; i++) {
    if (name[i] == '/' || name[i] == '\\') {
      used = 0;
    } else if (used < longest_name) {
      clean[used++] = is_plain((unsigned char)name[i]) ? name[i] : '_';
    }
  }
  if (used == 0) clean[used++] = '_';
  if (clean[0] == '.') clean[0] = '_';
  clean[used] = '\0';
}

/* Writes the path of the n-th file of that name: "a.txt", "a-2.txt", "a-3.txt". */
static void numbered_path(const char* name, int n, char* path, size_t room) {
  const char* point = strrchr(name, '.');
  int stem = point != NULL && point != name ? (int)(point - name) : (int)strlen(name);
  if (n == 1) {
    snprintf(path, room, "%s%s", folder, name);
  } else {
    snprintf(path, room, "%s%.*s-%d%s", folder, stem, name, n, name + stem);
  }
}

/* Finds the first free path and creates the file, so that no other request gets the same path. */
static int reserve_path(ZPPROGRAM program, const char* name, char* path, size_t room) {
  for (int n = 1; n <= most_numbers; n++) {
    numbered_path(name, n, path, room);
    ZPFILE file = zpFile_Open(program, ZPFILE_DATA, path, -1,
                              ZPFILE_WRITE | ZPFILE_CREATE | ZPFILE_EXCLUSIVE);
    if (file != NULL) {
      zpFile_Close(file);
      return 1;
    }
    if (zpFile_Exists(program, ZPFILE_DATA, path, -1) != 1) return 0;
  }
  return 0;
}

static void keep(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (program == NULL) return;
  (void)state;
  ZPVARIABLE from = find_argument(program, parameters, "path");
  ZPVARIABLE sent = find_argument(program, parameters, "name");
  if (from == NULL || sent == NULL) return;
  int length;
  const char* text = zpVariable_Value(sent, &length);
  char name[longest_name + 1];
  clean_name(text, length, name);
  char path[longest_name + sizeof folder + 16];
  zpFile_MakeDirectory(program, ZPFILE_DATA, "shelf", -1); /* usually exists */
  if (!reserve_path(program, name, path, sizeof path)) return;
  const char* uploaded = zpVariable_Value(from, &length);
  if (zpFile_Rename(program, ZPFILE_DATA, uploaded, length, ZPFILE_DATA, path, -1) != 0) {
    zpFile_Delete(program, ZPFILE_DATA, path, -1);
    return;
  }
  zpVariable_SetValue(result, path + sizeof folder - 1, -1);
}

static void drop(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (program == NULL) return;
  (void)state;
  ZPVARIABLE path = find_argument(program, parameters, "path");
  if (path == NULL) return;
  int length;
  const char* text = zpVariable_Value(path, &length);
  zpVariable_SetValue_Integer(result, zpFile_Delete(program, ZPFILE_DATA, text, length) == 0);
}

/* --- Listing ---------------------------------------------------------------------------------- */

static int compare_names(const void* a, const void* b) {
  return strcmp(*(char* const*)a, *(char* const*)b);
}

/* Copies of the names, in an array from malloc; hidden files are left out. Null if there are no
   names. */
static char** sorted_names(ZPVARIABLELIST list, int* count) {
  *count = 0;
  char** names = calloc((size_t)zpVariableList_Entries(list) + 1, sizeof *names);
  if (names == NULL) return NULL;
  for (ZPVARIABLE entry = zpVariableList_First(list); entry != NULL;
       entry = zpVariableList_Next(list)) {
    int length;
    const char* name = zpVariable_Value(entry, &length);
    if (length == 0 || name[0] == '.') continue;
    char* copy = strndup(name, (size_t)length);
    if (copy != NULL) names[(*count)++] = copy;
  }
  qsort(names, (size_t)*count, sizeof *names, compare_names);
  return names;
}

static void write_entry(ZPPROGRAM program, const char* name, ZPVARIABLE entry) {
  char path[512];
  snprintf(path, sizeof path, "%s%s", folder, name);
  zpVariable_SetValue(zpVariable_Struct_Member("name", -1, entry, 1), name, -1);
  zpVariable_SetValue_Double(zpVariable_Struct_Member("bytes", -1, entry, 1),
                             (double)zpFile_Size(program, ZPFILE_DATA, path, -1));
}

static void shelf(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (program == NULL) return;
  (void)state;
  ZPVARIABLE list = find_argument(program, parameters, "list");
  if (list == NULL) return;
  ZPVARIABLELIST entries = zpVariableList_Allocate();
  int count = 0;
  char** names = NULL;
  if (zpDirectory_Listing(program, ZPFILE_DATA, "shelf", -1, entries) == 0) {
    names = sorted_names(entries, &count);
  }
  zpVariableList_Free(entries);
  for (int i = 0; i < count; i++) {
    write_entry(program, names[i], zpVariable_Array_Element(i + 1, list, 1));
    free(names[i]);
  }
  free(names);
  zpVariable_SetValue_Integer(result, count);
}

/* --- Showing ---------------------------------------------------------------------------------- */

static void html(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (program == NULL) return;
  (void)state;
  ZPVARIABLE text = find_argument(program, parameters, "text");
  if (text == NULL) return;
  int length, shown, allocated;
  const char* bytes = zpVariable_Value(text, &length);
  char* encoded = zpProgram_Entity_Encode(program, bytes, length, &shown, &allocated);
  zpVariable_SetValue_Nocopy(result, encoded, shown, allocated);
}

/* --- The table -------------------------------------------------------------------------------- */

#define NAME(text) text, sizeof text - 1

static _ZP_EL_Parameter keep_parameters[] = {{NAME("path"), 0}, {NAME("name"), 0}};
static _ZP_EL_Parameter shelf_parameters[] = {{NAME("list"), _ZP_EL_ByReference}};
static _ZP_EL_Parameter drop_parameters[] = {{NAME("path"), 0}};
static _ZP_EL_Parameter html_parameters[] = {{NAME("text"), 0}};
static _ZP_EL_Function functions[] = {
    {NAME("keep"), 2, keep_parameters, keep},
    {NAME("shelf"), 1, shelf_parameters, shelf},
    {NAME("html"), 1, html_parameters, html},
    {NAME("drop"), 1, drop_parameters, drop},
    {NULL, 0, 0, NULL, NULL},
};
static _ZP_EL_FunctionTable table = {NULL, functions};

__attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table(void) {
  return &table;
}
