/* The header for extension libraries is plain C, and its functions are those that libraries have
   been compiled with. Compiled only. */

#include "api/zeph.h"
#include "tests/api/Signatures.h"

typedef int a_translation_unit_has_to_declare_something;
