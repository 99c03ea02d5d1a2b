/* System libraries, for extension libraries: shared libraries that the configuration names, whose
   functions an extension calls without being linked with them. Plain C. */

#ifndef ZEPH_API_ZPSYSTEMLIBRARY_H
#define ZEPH_API_ZPSYSTEMLIBRARY_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the function of that name, or null. zpProgram_SystemLibrary returns the library. */
void* zpSystemLibrary_GetFunction(ZPSYSTEMLIBRARY library, const char* name);
/* The text of the last failure with that library or, if library is null, of the last look-up of
   one. */
const char* zpSystemLibrary_Error(ZPPROGRAM program, ZPSYSTEMLIBRARY library, int* length);

#ifdef __cplusplus
}
#endif

#endif
