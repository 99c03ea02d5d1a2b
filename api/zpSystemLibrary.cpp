// The functions for system libraries. Tested in tests/api/zpProgramTest.cpp.

#include "api/zeph.h"

#include "base/extensions/ExternalLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"

void* zpSystemLibrary_GetFunction(ZPSYSTEMLIBRARY library, const char* symbol) {
  ExternalLibrary* file = library->library();
  void* function = file ? file->Get_Function(symbol) : nullptr;
  if (!function && file) library->Error(file->error());
  return function;
}

const char* zpSystemLibrary_Error(ZPPROGRAM program, ZPSYSTEMLIBRARY library, int* length) {
  SystemLibraryManager* manager = program->Application()->systemlibrarymanager();
  static const String none;
  const String& text = library ? library->error() : manager ? manager->error() : none;
  if (length) *length = text.length;
  return text.data;
}
