/* The one header that an extension library includes: the interfaces that it exports, and the
   engine's functions for it. Plain C; docs/extensions.md explains how to write one. */

#ifndef ZEPH_API_ZEPH_H
#define ZEPH_API_ZEPH_H

#include <stddef.h>

#include "api/zpConfig.h"
#include "api/zpFile.h"
#include "api/zpLinkBuffer.h"
#include "api/zpProgram.h"
#include "api/zpSystemLibrary.h"
#include "api/zpVariable.h"
#include "base/extensions/ConfigLibrary.h"
#include "base/extensions/FunctionLibrary.h"

#endif
