// The older functions for extension libraries. Tested in tests/api/3xapiTest.cpp.

#include "api/zeph.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/FileLocation.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"

namespace {

const char* NeverNull(const String& text) {
  return text.data ? text.data : "";
}

FileManager* Files(ZPPROGRAM program) {
  return program->Application()->filemanager();
}

int Status(bool done) {
  return done ? 0 : -1;
}

size_t Size(int size) {
  return size > 0 ? static_cast<size_t>(size) : 0;
}

void CatEncoded(LinkBuffer* buffer, const String& text) {
  int length, size;
  std::unique_ptr<char[]> encoded(
      ZephApplication::EncodeAttribute(NeverNull(text), text.length, &length, &size));
  buffer->cat(encoded.get(), length);
}

// Returns the text between url and fields: fields can follow "?" or "+" directly; after a query
// they need a "+".
const char* BeforeFields(const char* url) {
  if (!strchr(url, '?')) return "?";
  const char last = url[strlen(url) - 1];
  return last == '?' || last == '+' ? "" : "+";
}

}  // namespace

// --- Memory --------------------------------------------------------------------------------------

void* zeph_alloc(int size) {
  return malloc(Size(size));
}
void* zeph_realloc(void* memory, int size) {
  return realloc(memory, Size(size));
}
void zeph_free(void* memory) {
  free(memory);
}

// --- Variables -----------------------------------------------------------------------------------

const char* zeph_variable_name(ZPVARIABLE variable) {
  return NeverNull(variable->name());
}
const char* zeph_variable_value(ZPVARIABLE variable) {
  return NeverNull(variable->value());
}
void zeph_variable_setvalue(ZPVARIABLE variable, const char* value) {
  variable->SetValue(value, -1);
}
ZPVARIABLE zeph_variable_new(const char* name, const char* value) {
  return zpVariable_Allocate(name, -1, value, -1);
}
void zeph_variable_delete(ZPVARIABLE variable) {
  zpVariable_Free(variable);
}

ZPVARIABLE zeph_variable_array_element(ZPVARIABLE array, int index) {
  return array->Element(AggregateIndex(index), 0);
}
ZPVARIABLE zeph_variable_structure_member(ZPVARIABLE structure, const char* name) {
  return structure->Element(AggregateIndex(name, -1), 0);
}
void zeph_variable_set_array_element_value(ZPVARIABLE array, int index, const char* text) {
  array->Element(AggregateIndex(index), 1)->SetValue(text, -1);
}
void zeph_variable_set_structure_member_value(ZPVARIABLE structure, const char* name,
                                              const char* text) {
  structure->Element(AggregateIndex(name, -1), 1)->SetValue(text, -1);
}
int zeph_variable_array_elements(ZPVARIABLE array) {
  return array->ElementsUsed();
}
int zeph_variable_array_min(ZPVARIABLE array) {
  return array->Min();
}
int zeph_variable_array_max(ZPVARIABLE array) {
  return array->Max();
}
int zeph_variable_aggregate_type(ZPVARIABLE variable) {
  switch (variable->aggregatetype()) {
    case AggregateStructure: return 2;
    case AggregateArray: return 1;
    default: return 0;
  }
}
void zeph_variable_aggregate_list(ZPVARIABLE variable, ZPVARIABLELIST list) {
  zpVariable_Aggregate_List(variable, list);
}

// --- Lists ---------------------------------------------------------------------------------------

ZPVARIABLELIST zeph_variablelist_new(void) {
  return new VariableList;
}
void zeph_variablelist_delete(ZPVARIABLELIST list) {
  zpVariableList_Free(list);
}
void zeph_variablelist_dump(ZPVARIABLELIST list) {
  list->Dump();
}
ZPVARIABLE zeph_variablelist_first(ZPVARIABLELIST list) {
  return list->First();
}
ZPVARIABLE zeph_variablelist_current(ZPVARIABLELIST list) {
  return list->Current();
}
ZPVARIABLE zeph_variablelist_next(ZPVARIABLELIST list) {
  return list->Next();
}
ZPVARIABLE zeph_variablelist_find(ZPVARIABLELIST list, const char* name) {
  Variable* variable = list->First();
  while (variable && !variable->name().matches(name)) variable = list->Next();
  return variable;
}
void zeph_variablelist_setvariable(ZPVARIABLELIST list, const char* name, const char* value) {
  if (Variable* variable = zeph_variablelist_find(list, name)) {
    variable->SetValue(value, -1);
  } else {
    list->Insert(new Variable(name, -1, value, -1), ListTail, 0);
  }
}

char* zeph_variablelist_to_url(const char* url, ZPVARIABLELIST list) {
  LinkBuffer text(256, 1024);
  text.cat(url, static_cast<int>(strlen(url)));
  const char* before = BeforeFields(url);
  text.cat(before, static_cast<int>(strlen(before)));
  bool first = true;
  for (Variable* variable = list->First(); variable; variable = list->Next()) {
    if (!first) text.cat("&", 1);
    first = false;
    CatEncoded(&text, variable->name());
    text.cat("=", 1);
    CatEncoded(&text, variable->value());
  }
  auto* result = static_cast<char*>(malloc(static_cast<size_t>(text.total) + 1));
  if (!result) return nullptr;
  text.append_to(result);
  result[text.total] = '\0';
  return result;
}

// --- Tables --------------------------------------------------------------------------------------

ZPVARIABLEHASH zeph_variabletree_new(void) {
  return new UserVariableHash;
}
void zeph_variabletree_delete(ZPVARIABLEHASH tree) {
  delete tree;
}
void zeph_variabletree_dump(ZPVARIABLEHASH tree) {
  tree->Dump();
}
ZPVARIABLE zeph_variabletree_find(ZPVARIABLEHASH tree, const char* name) {
  return zpVariableHash_Find(tree, name, -1);
}
void zeph_variabletree_setvariable(ZPVARIABLEHASH tree, const char* name, const char* value) {
  tree->SetVariable(name, -1, value, -1);
}
void zeph_variabletree_insert(ZPVARIABLEHASH tree, ZPVARIABLE variable) {
  tree->Insert(variable);
}

// --- Network -------------------------------------------------------------------------------------

int zeph_network_isipaddress(ZPPROGRAM program, const char* text) {
  return zpNetwork_Is_IP_Address(program, text);
}
int zeph_network_gethostaddress(ZPPROGRAM program, const char* name, char* buffer, int size) {
  return zpNetwork_Get_Host_Address(program, name, buffer, size);
}
ZPNETWORK zeph_network_connect(ZPPROGRAM program, const char* host, int port, int timeout) {
  return zpNetwork_Connect(program, host, port, timeout);
}
ZPNETWORK zeph_network_openurl(ZPPROGRAM program, const char* url, const char* method,
                               const char* body, const char* content_type, int body_length,
                               int timeout) {
  return zpNetwork_Open_URL(program, url, method, body, content_type, body_length, nullptr, nullptr,
                            nullptr, nullptr, nullptr, 0, timeout);
}
int zeph_network_read(ZPNETWORK connection, char* buffer, int length, int timeout) {
  return zpNetwork_Read(connection, buffer, length, timeout);
}
int zeph_network_readline(ZPNETWORK connection, char* buffer, int length, int timeout) {
  return zpNetwork_Read_Line(connection, buffer, length, timeout);
}
int zeph_network_write(ZPNETWORK connection, const char* bytes, int length, int timeout) {
  return zpNetwork_Write(connection, bytes, length, timeout);
}
void zeph_network_close(ZPNETWORK connection) {
  zpNetwork_Close(connection);
}
const char* zeph_network_error(ZPPROGRAM program, ZPNETWORK connection) {
  const char* text = zpNetwork_Error(program, connection, nullptr);
  return text ? text : "";
}

// --- Files ---------------------------------------------------------------------------------------

Zeph_PathType __zeph_file_location(int location) {
  return location == ZPFILE_SCRIPT ? ZephPath_Script : ZephPath_Data;
}

char* zeph_file_resolve(ZPPROGRAM program, int, const char*) {
  Files(program)->Error("zeph_file_resolve is no longer supported");
  return nullptr;
}
ZPFILE zeph_file_open(ZPPROGRAM program, int location, const char* path, int flags) {
  return Files(program)->Open(__zeph_file_location(location), path, flags);
}
int zeph_file_delete(ZPPROGRAM program, int location, const char* path) {
  return Status(Files(program)->Delete(__zeph_file_location(location), path));
}
int zeph_file_rename(ZPPROGRAM program, int fromlocation, const char* from, int tolocation,
                     const char* to) {
  return Status(Files(program)->Rename(__zeph_file_location(fromlocation), from,
                                       __zeph_file_location(tolocation), to));
}
int zeph_file_exists(ZPPROGRAM program, int location, const char* path) {
  bool exists;
  return Files(program)->Exists(__zeph_file_location(location), path, &exists) ? exists : -1;
}
long zeph_file_size(ZPPROGRAM program, int location, const char* path) {
  long size;
  return Files(program)->Length(__zeph_file_location(location), path, &size) ? size : -1;
}
int zeph_file_isdirectory(ZPPROGRAM program, int location, const char* path) {
  bool directory;
  return Files(program)->IsDirectory(__zeph_file_location(location), path, &directory) ? directory
                                                                                       : -1;
}
int zeph_file_makedirectory(ZPPROGRAM program, int location, const char* path) {
  return Status(Files(program)->MakeDirectory(__zeph_file_location(location), path));
}
int zeph_file_removedirectory(ZPPROGRAM program, int location, const char* path) {
  return Status(Files(program)->RemoveDirectory(__zeph_file_location(location), path));
}
int zeph_file_mode(ZPPROGRAM program, int location, const char* path) {
  int mode;
  return Files(program)->Mode(__zeph_file_location(location), path, &mode) ? mode : -1;
}
int zeph_file_changemode(ZPPROGRAM program, int location, const char* path, int mode) {
  return Status(Files(program)->ChangeMode(__zeph_file_location(location), path, mode));
}
int zeph_file_pathseparator(ZPPROGRAM program) {
  return Files(program)->pathseparator();
}
int zeph_file_read(ZPFILE file, char* buffer, int length) {
  return zpFile_Read(file, buffer, length);
}
int zeph_file_write(ZPFILE file, const char* bytes, int length) {
  return zpFile_Write(file, bytes, length);
}
int zeph_file_seek(ZPFILE file, long position) {
  return zpFile_Seek(file, position);
}
long zeph_file_tell(ZPFILE file) {
  return zpFile_Tell(file);
}
long zeph_file_length(ZPFILE file) {
  return zpFile_Length(file);
}
int zeph_file_lock(ZPFILE file, int type) {
  return zpFile_Lock(file, type);
}
int zeph_file_release(ZPFILE file) {
  return zpFile_Release(file);
}
void zeph_file_close(ZPFILE file) {
  zpFile_Close(file);
}
const char* zeph_file_error(ZPPROGRAM program, ZPFILE file) {
  return NeverNull(file ? file->error() : Files(program)->error());
}
