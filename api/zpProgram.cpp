// The functions for the running script. Tested in tests/api/zpProgramTest.cpp.

#include "api/zeph.h"

#include "api/FileLocation.h"
#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/Output.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

ZephApplication* Host(ZPPROGRAM program) {
  return program->Application();
}

// Runs a conversion whose out-parameters must not be null, with ones that may be.
template <class Conversion>
char* Convert(Conversion convert, int* length, int* outsize) {
  int own_length, own_size;
  return convert(length ? length : &own_length, outsize ? outsize : &own_size);
}

bool BreaksHeader(const char* text, int length) {
  length = MeasuredLength(text, length);
  for (int i = 0; i < length; i++) {
    if (text[i] == '\r' || text[i] == '\n' || text[i] == '\0') return true;
  }
  return false;
}

}  // namespace

ZPVARIABLE zpProgram_Lookup_Variable(ZPPROGRAM program, const char* name, int length) {
  return program->Lookup_Variable(name, length);
}
void zpProgram_Local_Variables(ZPPROGRAM program, ZPVARIABLELIST list) {
  program->CurrentFrame()->variables->AllocatedVars(list);
}
void zpProgram_System_Variables(ZPPROGRAM program, ZPVARIABLELIST list) {
  program->SystemVariables()->AllocatedVars(list);
}
void zpProgram_Global_Variables(ZPPROGRAM program, ZPVARIABLELIST list) {
  program->GlobalVariables()->AllocatedVars(list);
}
ZPVARIABLEHASH zpProgram_Global_VariableHash(ZPPROGRAM program) {
  return program->GlobalVariables();
}
ZPVARIABLEHASH zpProgram_System_VariableHash(ZPPROGRAM program) {
  return program->SystemVariables();
}
int zpProgram_Compare(ZPPROGRAM, ZPVARIABLE left, ZPVARIABLE right) {
  return ZephVM::Compare(left, right);
}

void zpProgram_SetProcessName(ZPPROGRAM program, const char* name, int length) {
  const String text(name, length);
  Host(program)->SetProcessName(text.data ? text.data : "");
}
void zpProgram_SetLanguage(ZPPROGRAM program, const char* language, int length) {
  Host(program)->SetLanguage(String(language, length));
}
void zpProgram_SetDefaultLanguage(ZPPROGRAM program, const char* language, int length) {
  Host(program)->SetDefaultLanguage(String(language, length));
}
void zpProgram_SetDefaultDatabase(ZPPROGRAM program, const char* type, int length) {
  Host(program)->SetDefaultDatabase(String(type, length));
}
void zpProgram_SetCharacterSet(ZPPROGRAM program, const char* charset, int length) {
  Host(program)->SetCharacterSet(String(charset, length));
}
const char* zpProgram_GetCharacterSet(ZPPROGRAM program, int* length) {
  const String& charset = Host(program)->GetCharacterSet();
  if (length) *length = charset.length;
  return charset.data;
}
int zpProgram_CharacterSetIsUTF8(ZPPROGRAM program) {
  return Host(program)->CharacterSetIsUTF8();
}

void* zpProgram_Allocate(ZPPROGRAM, int size) {
  return new char[size > 0 ? static_cast<size_t>(size) : 0];
}
void zpProgram_Free(ZPPROGRAM, void* memory) {
  delete[] static_cast<char*>(memory);
}

int zpProgram_Output_Header(ZPPROGRAM program, const char* name, int namelength, int nameowned,
                            const char* value, int valuelength, int valueowned) {
  // Such a byte would end the field, and what follows it would be a field of its own.
  if (BreaksHeader(name, namelength) || BreaksHeader(value, valuelength)) {
    if (nameowned) delete[] name;
    if (valueowned) delete[] value;
    return 0;
  }
  return Host(program)->output()->Header(name, namelength, nameowned, value, valuelength,
                                         valueowned);
}
int zpProgram_Output(ZPPROGRAM program, const char* text, int length) {
  return Host(program)->output()->Write(text, length);
}
int zpProgram_Output_Flush(ZPPROGRAM program) {
  return Host(program)->output()->Flush();
}

char* zpProgram_Attribute_Encode(ZPPROGRAM, const char* text, int length, int* outlength,
                                 int* outsize) {
  return Convert(
      [=](int* l, int* s) { return ZephApplication::EncodeAttribute(text, length, l, s); },
      outlength, outsize);
}
char* zpProgram_Attribute_Decode(ZPPROGRAM, const char* text, int length, int* outlength,
                                 int* outsize) {
  return Convert(
      [=](int* l, int* s) { return ZephApplication::DecodeAttribute(text, length, l, s); },
      outlength, outsize);
}
char* zpProgram_Entity_Encode(ZPPROGRAM, const char* text, int length, int* outlength,
                              int* outsize) {
  return Convert(
      [=](int* l, int* s) { return ZephApplication::EncodeEntities(text, length, l, s); },
      outlength, outsize);
}
char* zpProgram_Entity_Decode(ZPPROGRAM, const char* text, int length, int* outlength,
                              int* outsize) {
  return Convert(
      [=](int* l, int* s) { return ZephApplication::DecodeEntities(text, length, l, s); },
      outlength, outsize);
}
char* zpProgram_JavaScriptString_Encode(ZPPROGRAM program, const char* text, int length,
                                        int* outlength, int* outsize) {
  return Convert(
      [=](int* l, int* s) { return Host(program)->EncodeJavaScriptString(text, length, l, s); },
      outlength, outsize);
}
char* zpProgram_MakeSessionID(ZPPROGRAM program, int* length) {
  int own_length;
  return Host(program)->MakeSessionID(length ? length : &own_length);
}

void zpProgram_Register_Persistent(ZPPROGRAM program, const char* name, int length, void* data,
                                   void (*destroy)(void* program, void* data)) {
  program->ExternalCalls()->Register_Persistent(program, name, length, data, destroy);
}
void* zpProgram_Lookup_Persistent(ZPPROGRAM program, const char* name, int length) {
  return program->ExternalCalls()->Lookup_Persistent(name, length);
}

const _ZP_EL_Function* zpProgram_Lookup_ExternalFunction(ZPPROGRAM program, const char* name,
                                                         int length) {
  ExternalCall* call = program->ExternalCalls()->Lookup_External(name, length);
  return call ? call->descriptor() : nullptr;
}
int zpProgram_RunFunction(ZPPROGRAM program, const char* name, int length, ZPVARIABLELIST arguments,
                          ZPVARIABLE result) {
  VariableList none;
  // The function may drop what holds the result.
  const VariableRef held = VariableRef::Share(result);
  return program->RunFunction(name, length, arguments ? arguments : &none, result);
}
void* zpProgram_SSL_Function(ZPPROGRAM program, const char* name) {
  return Host(program)->SSL_GetFunction(name);
}
ZPSYSTEMLIBRARY zpProgram_SystemLibrary(ZPPROGRAM program, const char* name) {
  SystemLibraryManager* manager = Host(program)->systemlibrarymanager();
  return manager ? manager->Lookup_System_Library(name, -1) : nullptr;
}

void zpProgram_ResetGlobalTimeout(ZPPROGRAM program) {
  Host(program)->ResetGlobalTimeout();
}
void zpProgram_Sleep(ZPPROGRAM program, int milliseconds) {
  Host(program)->Sleep(milliseconds);
}
void zpProgram_Asynchronous_Sleep(ZPPROGRAM program, long wakeat, int location, const char* path,
                                  int pathlength) {
  if (!path) {
    Host(program)->AsynchronousSleep(wakeat, ZephPath_Data, nullptr);
    return;
  }
  String place;
  const Zeph_PathType type = __zpFile_Location(program, location, path, pathlength, place);
  Host(program)->AsynchronousSleep(wakeat, type, place.data);
}
int zpProgram_FatalError(ZPPROGRAM program, const char* message, int length) {
  return program->FatalError(String(message, length));
}
