/* The headers for extension libraries are plain C: this file includes each of them and is compiled
   as C. */

#include "api/3xapi.h"
#include "api/zeph.h"
#include "api/zpConfig.h"
#include "api/zpFile.h"
#include "api/zpLinkBuffer.h"
#include "api/zpProgram.h"
#include "api/zpSystemLibrary.h"
#include "api/zpVariable.h"

typedef int a_translation_unit_has_to_declare_something;
