/* The functions of api/zeph.h once more, as libraries have been compiled with them: a library that
   was built against any earlier header has to work without being built again. A name or a signature
   that changes in api/zeph.h fails to compile beside this. Plain C. */

#ifndef ZEPH_TESTS_API_SIGNATURES_H
#define ZEPH_TESTS_API_SIGNATURES_H

#include "api/zeph.h"

#ifdef __cplusplus
extern "C" {
#endif

ZPVARIABLE zpVariable_Allocate(const char* name, int namelength, const char* value,
                               int valuelength);
ZPVARIABLE zpVariable_Allocate_Copy(ZPVARIABLE source);
ZPVARIABLE zpVariable_NextIdentity(ZPVARIABLE v);
ZPVARIABLE zpVariable_RealIdentity(ZPVARIABLE v);
void zpVariable_Make_Reference(ZPVARIABLE variable, ZPVARIABLE target);
const char* zpVariable_Name(ZPVARIABLE v, int* length);
int zpVariable_Value_Integer(ZPVARIABLE v);
double zpVariable_Value_Double(ZPVARIABLE v);
const char* zpVariable_Value(ZPVARIABLE v, int* length);
char* zpVariable_Value_NS(ZPVARIABLE v, int* length);
int zpVariable_SetValue_Integer(ZPVARIABLE v, int value);
int zpVariable_SetValue_Double(ZPVARIABLE v, double value);
int zpVariable_SetValue(ZPVARIABLE v, const char* value, int length);
int zpVariable_SetValue_Variable(ZPVARIABLE v, ZPVARIABLE source);
int zpVariable_SetValue_Nocopy(ZPVARIABLE v, char* buffer, int length, int allocated);
int zpVariable_Type(ZPVARIABLE v);
void zpVariable_Free(ZPVARIABLE v);
int zpVariable_Aggregate_Type(ZPVARIABLE v);
void zpVariable_Aggregate_List(ZPVARIABLE v, ZPVARIABLELIST list);
void zpVariable_Set_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
void zpVariable_Insert_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array);
void zpVariable_Delete_Array_Elements(int start, int count, int compact, ZPVARIABLE array);
void zpVariable_Array_Merge(ZPVARIABLE source, int start, int count, int dest, int copy,
                            ZPVARIABLE array);
void zpVariable_Array_Copy(ZPVARIABLE source, int start, int count, int dest, int copy,
                           ZPVARIABLE array);
void zpVariable_Set_Struct_Member(const char* name, int length, ZPVARIABLE value,
                                  ZPVARIABLE structure);
void zpVariable_Delete_Struct_Member(const char* name, int length, ZPVARIABLE structure);
ZPVARIABLE zpVariable_Array_Element(int index, ZPVARIABLE array, int create);
ZPVARIABLE zpVariable_Struct_Member(const char* name, int length, ZPVARIABLE structure, int create);
int zpVariable_Array_Max(ZPVARIABLE array);
int zpVariable_Array_Min(ZPVARIABLE array);
int zpVariable_Array_Next(int position, ZPVARIABLE array);
int zpVariable_Array_Previous(int position, ZPVARIABLE array);
int zpVariable_Array_Collapse(ZPVARIABLE array);
int zpVariable_ElementsUsed(ZPVARIABLE v);
ZPVARIABLELIST zpVariableList_Allocate(void);
ZPVARIABLE zpVariableList_First(ZPVARIABLELIST l);
ZPVARIABLE zpVariableList_Current(ZPVARIABLELIST l);
ZPVARIABLE zpVariableList_Next(ZPVARIABLELIST l);
int zpVariableList_Entries(ZPVARIABLELIST l);
ZPVARIABLE zpVariableList_Find(ZPVARIABLELIST l, const char* name, int length);
void zpVariableList_SetVariable(ZPVARIABLELIST l, const char* name, int namelength,
                                const char* value, int valuelength);
void zpVariableList_Insert(ZPVARIABLELIST l, ZPVARIABLE v);
void zpVariableList_Dump(ZPVARIABLELIST l);
void zpVariableList_Free(ZPVARIABLELIST l);
ZPVARIABLEHASH zpVariableHash_Allocate(void);
int zpVariableHash_Entries(ZPVARIABLEHASH h);
ZPVARIABLE zpVariableHash_Index(ZPVARIABLEHASH h, int index, int create);
ZPVARIABLE zpVariableHash_Find(ZPVARIABLEHASH h, const char* name, int length);
int zpVariableHash_Insert(ZPVARIABLEHASH h, ZPVARIABLE v);
void zpVariableHash_SetVariable(ZPVARIABLEHASH h, const char* name, int namelength,
                                const char* value, int valuelength);
void zpVariableHash_ReplaceVariable(ZPVARIABLEHASH h, ZPVARIABLE v);
void zpVariableHash_Free(ZPVARIABLEHASH h);
void zpVariableHash_Dump(ZPVARIABLEHASH h);
ZPVARIABLE zpProgram_Lookup_Variable(ZPPROGRAM p, const char* name, int length);
void zpProgram_Local_Variables(ZPPROGRAM p, ZPVARIABLELIST l);
void zpProgram_System_Variables(ZPPROGRAM p, ZPVARIABLELIST l);
void zpProgram_Global_Variables(ZPPROGRAM p, ZPVARIABLELIST l);
ZPVARIABLEHASH zpProgram_Global_VariableHash(ZPPROGRAM p);
ZPVARIABLEHASH zpProgram_System_VariableHash(ZPPROGRAM p);
int zpProgram_Compare(ZPPROGRAM p, ZPVARIABLE left, ZPVARIABLE right);
void zpProgram_SetProcessName(ZPPROGRAM p, const char* name, int length);
void zpProgram_SetLanguage(ZPPROGRAM p, const char* language, int length);
void zpProgram_SetDefaultLanguage(ZPPROGRAM p, const char* language, int length);
void zpProgram_SetDefaultDatabase(ZPPROGRAM p, const char* type, int length);
void zpProgram_SetCharacterSet(ZPPROGRAM p, const char* charset, int length);
const char* zpProgram_GetCharacterSet(ZPPROGRAM p, int* length);
int zpProgram_CharacterSetIsUTF8(ZPPROGRAM p);
void* zpProgram_Allocate(ZPPROGRAM p, int size);
void zpProgram_Free(ZPPROGRAM p, void* memory);
int zpProgram_Output_Header(ZPPROGRAM p, const char* name, int namelength, int nameowned,
                            const char* value, int valuelength, int valueowned);
int zpProgram_Output(ZPPROGRAM p, const char* text, int length);
int zpProgram_Output_Flush(ZPPROGRAM p);
char* zpProgram_Attribute_Encode(ZPPROGRAM p, const char* text, int length, int* outlength,
                                 int* outsize);
char* zpProgram_Attribute_Decode(ZPPROGRAM p, const char* text, int length, int* outlength,
                                 int* outsize);
char* zpProgram_Entity_Encode(ZPPROGRAM p, const char* text, int length, int* outlength,
                              int* outsize);
char* zpProgram_Entity_Decode(ZPPROGRAM p, const char* text, int length, int* outlength,
                              int* outsize);
char* zpProgram_JavaScriptString_Encode(ZPPROGRAM p, const char* text, int length, int* outlength,
                                        int* outsize);
char* zpProgram_MakeSessionID(ZPPROGRAM p, int* length);
void* zpProgram_Lookup_Persistent(ZPPROGRAM p, const char* name, int length);
void zpProgram_Register_Persistent(ZPPROGRAM p, const char* name, int length, void* data,
                                   void (*destroy)(void* vm, void* data));
const _ZP_EL_Function* zpProgram_Lookup_ExternalFunction(ZPPROGRAM p, const char* name, int length);
void* zpProgram_SSL_Function(ZPPROGRAM p, const char* name);
ZPSYSTEMLIBRARY zpProgram_SystemLibrary(ZPPROGRAM p, const char* name);
int zpProgram_RunFunction(ZPPROGRAM p, const char* name, int length, ZPVARIABLELIST arguments,
                          ZPVARIABLE result);
ZPEXPRESSION zpProgram_Compile_Dynamic_Expression(ZPPROGRAM p, const char* text, int length,
                                                  char** error, int* errorlength);
int zpProgram_Execute_Dynamic_Expression(ZPPROGRAM p, ZPEXPRESSION e, ZPVARIABLE result);
int zpProgram_Execute_Dynamic_Expression_Boolean(ZPPROGRAM p, ZPEXPRESSION e, int* result);
void zpProgram_ResetGlobalTimeout(ZPPROGRAM p);
void zpProgram_Sleep(ZPPROGRAM p, int milliseconds);
void zpProgram_Asynchronous_Sleep(ZPPROGRAM p, long wakeat, int location, const char* path,
                                  int pathlength);
int zpProgram_FatalError(ZPPROGRAM p, const char* message, int length);
char* zpFile_Resolve(ZPPROGRAM p, int location, const char* path, int length);
ZPFILE zpFile_Open(ZPPROGRAM p, int location, const char* path, int length, int flags);
int zpFile_Delete(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_Rename(ZPPROGRAM p, int location1, const char* from, int fromlength, int location2,
                  const char* to, int tolength);
int zpFile_Exists(ZPPROGRAM p, int location, const char* path, int length);
long zpFile_Size(ZPPROGRAM p, int location, const char* path, int length);
long zpFile_Time(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_IsDirectory(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_MakeDirectory(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_RemoveDirectory(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_Mode(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_Change_Mode(ZPPROGRAM p, int location, const char* path, int length, int mode);
int zpFile_Copy(ZPPROGRAM p, int location1, const char* from, int fromlength, int location2,
                const char* to, int tolength);
int zpFile_MakeSymbolicLink(ZPPROGRAM p, int location1, const char* from, int fromlength,
                            int location2, const char* to, int tolength);
int zpFile_Path_Separator(ZPPROGRAM p);
char* zpFile_NormalizePath(ZPPROGRAM p, int location, const char* path, int length, int* outlength);
int zpFile_OwnerID(ZPFILE f);
int zpFile_GroupID(ZPFILE f);
int zpFile_Read(ZPFILE f, char* buffer, int length);
int zpFile_Write(ZPFILE f, const char* bytes, int length);
int zpFile_Seek(ZPFILE f, long position);
long zpFile_Tell(ZPFILE f);
long zpFile_Length(ZPFILE f);
int zpFile_Lock(ZPFILE f, int type);
int zpFile_Release(ZPFILE f);
void zpFile_Close(ZPFILE f);
const char* zpFile_Error(ZPPROGRAM p, ZPFILE f, int* length);
int zpFile_TouchFile(ZPPROGRAM p, int location, const char* path, int length);
int zpFile_LockFile(ZPPROGRAM p, int location, const char* path, int length);
ZPFILE zpFile_MakeTemporary(ZPPROGRAM p, int location, const char* directory, int directorylength,
                            const char* prefix, int prefixlength, char** name, int flags);
int zpDirectory_Listing(ZPPROGRAM p, int location, const char* path, int length,
                        ZPVARIABLELIST names);
int zpNetwork_Is_IP_Address(ZPPROGRAM p, const char* text);
int zpNetwork_Get_Host_Address(ZPPROGRAM p, const char* name, char* buffer, int size);
ZPNETWORK zpNetwork_Connect(ZPPROGRAM p, const char* host, int port, int timeout);
ZPNETWORK zpNetwork_Connect_SSL(ZPPROGRAM p, const char* host, int port,
                                const char* certificate_file, const char* certificate_data,
                                const char* certificate_type, const char* password, int timeout);
ZPNETWORK zpNetwork_Open_URL(ZPPROGRAM p, const char* url, const char* method, const char* body,
                             const char* content_type, int body_length,
                             const char* certificate_file, const char* certificate_data,
                             const char* certificate_type, const char* password,
                             const char* extra_headers, int extra_headers_length, int timeout);
int zpNetwork_Read(ZPNETWORK c, char* buffer, int length, int timeout);
int zpNetwork_Read_Line(ZPNETWORK c, char* buffer, int length, int timeout);
int zpNetwork_Write(ZPNETWORK c, const char* bytes, int length, int timeout);
void zpNetwork_Close(ZPNETWORK c);
const char* zpNetwork_Error(ZPPROGRAM p, ZPNETWORK c, int* length);
ZPHTTPRESPONSE zpNetwork_HTTP_Request(ZPPROGRAM p, const char* url, const char* method,
                                      const char* body, const char* content_type, int body_length,
                                      const char* certificate_file, const char* certificate_data,
                                      const char* certificate_type, const char* password,
                                      const char* extra_headers, int extra_headers_length,
                                      double http_version, int timeout);
int zpHTTPResponse_Status_Code(ZPHTTPRESPONSE r);
int zpHTTPResponse_Content_Length(ZPHTTPRESPONSE r);
int zpHTTPResponse_Read(ZPHTTPRESPONSE r, char* buffer, int length);
void zpHTTPResponse_Close(ZPHTTPRESPONSE r);
const char* zpHTTPResponse_Error(ZPHTTPRESPONSE r, int* length);
int zpConfig_SetValue(ZPCONFIG c, int id, const char* text, int length, int owned);
int zpConfig_SetValue_Integer(ZPCONFIG c, int id, int value);
int zpConfig_Register_Library_Commerce(ZPCONFIG c, const char* name, const char* path);
int zpConfig_Register_Library_Database(ZPCONFIG c, const char* name, const char* path);
int zpConfig_Register_Library_Builtin(ZPCONFIG c, const char* path);
int zpConfig_Register_Library_System(ZPCONFIG c, const char* name, const char* path);
void zpConfig_SetVariable_Global(ZPCONFIG c, const char* name, int namelength, const char* value,
                                 int valuelength);
void zpConfig_SetVariable_System(ZPCONFIG c, const char* name, int namelength, const char* value,
                                 int valuelength);
void zpConfig_Set_DefaultErrorSetting(ZPCONFIG c, const char* tag, int taglength, int value);
void zpDatabase_SetData(ZPDATABASE d, void* data);
void* zpDatabase_data(ZPDATABASE d);
ZPDATABASEVIEW zpDatabase_AddView(ZPDATABASE d, const char* name, int length, void* data);
void zpDatabase_SetPrimaryView(ZPDATABASE d, ZPDATABASEVIEW v);
ZPPROGRAM zpDatabase_Program(ZPDATABASE d);
ZPDATABASE zpDatabaseView_Database(ZPDATABASEVIEW v);
void zpDatabaseView_SetData(ZPDATABASEVIEW v, void* data);
void* zpDatabaseView_data(ZPDATABASEVIEW v);
void zpDatabaseView_Clear(ZPDATABASEVIEW v);
ZPDATABASEVARIABLE zpDatabaseView_AddVariable(ZPDATABASEVIEW v, const char* name, int length,
                                              void* data);
int zpDatabaseView_Commit(ZPDATABASEVIEW v);
void zpDatabaseView_SetDirty(ZPDATABASEVIEW v);
ZPPROGRAM zpDatabaseView_Program(ZPDATABASEVIEW v);
ZPDATABASEVIEW zpDatabaseVariable_DatabaseView(ZPDATABASEVARIABLE v);
void zpDatabaseVariable_SetData(ZPDATABASEVARIABLE v, void* data);
void* zpDatabaseVariable_data(ZPDATABASEVARIABLE v);
void zpDatabaseVariable_SetDirty(ZPDATABASEVARIABLE v, int dirty);
void* zpSystemLibrary_GetFunction(ZPSYSTEMLIBRARY l, const char* symbol);
const char* zpSystemLibrary_Error(ZPPROGRAM p, ZPSYSTEMLIBRARY l, int* length);
ZPLINKBUFFER zpLinkBuffer_Allocate(int first, int next);
void zpLinkBuffer_Free(ZPLINKBUFFER b);
void zpLinkBuffer_Concat_String(ZPLINKBUFFER b, const char* bytes, int length);
void zpLinkBuffer_Concat_String_Nocopy(ZPLINKBUFFER b, char* bytes, int used, int allocated);
void zpLinkBuffer_Concat_Char(ZPLINKBUFFER b, char c);
void zpLinkBuffer_Concat_HexChar(ZPLINKBUFFER b, unsigned char c);
void zpLinkBuffer_Concat_Int(ZPLINKBUFFER b, int value);
void zpLinkBuffer_Concat_Double(ZPLINKBUFFER b, double value);
void zpLinkBuffer_Concat_Variable(ZPLINKBUFFER b, ZPVARIABLE v);
char* zpLinkBuffer_Release(ZPLINKBUFFER b, int* length, int* allocated, int extra);
char* zpLinkBuffer_Data(ZPLINKBUFFER b, int* length, int* allocated);
void* zeph_alloc(int size);
void* zeph_realloc(void* memory, int size);
void zeph_free(void* memory);
const char* zeph_variable_name(ZPVARIABLE v);
const char* zeph_variable_value(ZPVARIABLE v);
void zeph_variable_setvalue(ZPVARIABLE v, const char* value);
ZPVARIABLE zeph_variable_new(const char* name, const char* value);
void zeph_variable_delete(ZPVARIABLE v);
ZPVARIABLE zeph_variable_array_element(ZPVARIABLE array, int index);
ZPVARIABLE zeph_variable_structure_member(ZPVARIABLE structure, const char* name);
void zeph_variable_set_array_element_value(ZPVARIABLE array, int index, const char* text);
void zeph_variable_set_structure_member_value(ZPVARIABLE structure, const char* name,
                                              const char* text);
int zeph_variable_array_elements(ZPVARIABLE array);
int zeph_variable_array_min(ZPVARIABLE array);
int zeph_variable_array_max(ZPVARIABLE array);
int zeph_variable_aggregate_type(ZPVARIABLE v);
void zeph_variable_aggregate_list(ZPVARIABLE v, ZPVARIABLELIST l);
ZPVARIABLELIST zeph_variablelist_new(void);
ZPVARIABLE zeph_variablelist_first(ZPVARIABLELIST l);
ZPVARIABLE zeph_variablelist_current(ZPVARIABLELIST l);
ZPVARIABLE zeph_variablelist_next(ZPVARIABLELIST l);
ZPVARIABLE zeph_variablelist_find(ZPVARIABLELIST l, const char* name);
void zeph_variablelist_setvariable(ZPVARIABLELIST l, const char* name, const char* value);
void zeph_variablelist_dump(ZPVARIABLELIST l);
char* zeph_variablelist_to_url(const char* url, ZPVARIABLELIST l);
void zeph_variablelist_delete(ZPVARIABLELIST l);
ZPVARIABLEHASH zeph_variabletree_new(void);
ZPVARIABLE zeph_variabletree_find(ZPVARIABLEHASH t, const char* name);
void zeph_variabletree_setvariable(ZPVARIABLEHASH t, const char* name, const char* value);
void zeph_variabletree_insert(ZPVARIABLEHASH t, ZPVARIABLE v);
void zeph_variabletree_dump(ZPVARIABLEHASH t);
void zeph_variabletree_delete(ZPVARIABLEHASH t);
int zeph_network_isipaddress(ZPPROGRAM p, const char* text);
int zeph_network_gethostaddress(ZPPROGRAM p, const char* name, char* buffer, int size);
ZPNETWORK zeph_network_connect(ZPPROGRAM p, const char* host, int port, int timeout);
ZPNETWORK zeph_network_openurl(ZPPROGRAM p, const char* url, const char* method, const char* body,
                               const char* content_type, int body_length, int timeout);
int zeph_network_read(ZPNETWORK c, char* buffer, int length, int timeout);
int zeph_network_readline(ZPNETWORK c, char* buffer, int length, int timeout);
int zeph_network_write(ZPNETWORK c, const char* bytes, int length, int timeout);
void zeph_network_close(ZPNETWORK c);
const char* zeph_network_error(ZPPROGRAM p, ZPNETWORK c);
char* zeph_file_resolve(ZPPROGRAM p, int location, const char* path);
ZPFILE zeph_file_open(ZPPROGRAM p, int location, const char* path, int flags);
int zeph_file_delete(ZPPROGRAM p, int location, const char* path);
int zeph_file_rename(ZPPROGRAM p, int location1, const char* from, int location2, const char* to);
int zeph_file_exists(ZPPROGRAM p, int location, const char* path);
long zeph_file_size(ZPPROGRAM p, int location, const char* path);
int zeph_file_isdirectory(ZPPROGRAM p, int location, const char* path);
int zeph_file_makedirectory(ZPPROGRAM p, int location, const char* path);
int zeph_file_removedirectory(ZPPROGRAM p, int location, const char* path);
int zeph_file_mode(ZPPROGRAM p, int location, const char* path);
int zeph_file_changemode(ZPPROGRAM p, int location, const char* path, int mode);
int zeph_file_pathseparator(ZPPROGRAM p);
int zeph_file_read(ZPFILE f, char* buffer, int length);
int zeph_file_write(ZPFILE f, const char* bytes, int length);
int zeph_file_seek(ZPFILE f, long position);
long zeph_file_tell(ZPFILE f);
long zeph_file_length(ZPFILE f);
int zeph_file_lock(ZPFILE f, int type);
int zeph_file_release(ZPFILE f);
void zeph_file_close(ZPFILE f);
const char* zeph_file_error(ZPPROGRAM p, ZPFILE f);

#ifdef __cplusplus
}
#endif

#endif
