/* The interface between a configuration library and the engine. The library exports the function
   zeph_config_library, which returns a pointer to a _ZP_EL_Config that stays valid for the life of
   the process; docs/configuration.md explains how to write one. Plain C. */

#ifndef ZEPH_BASE_CONFIGLIBRARY_H
#define ZEPH_BASE_CONFIGLIBRARY_H

#include "base/extensions/ExtensionHandles.h"

#ifdef __cplusplus
class ExternalConfig;
#else
typedef struct ExternalConfig ExternalConfig;
#endif

/* The settings of one request, as a library sees them. */
typedef ExternalConfig* ZPCONFIG;

/* The library's functions. Any may be null; a null initialize or load_script_config counts as
   successful. They are called from any request thread, several at once, each with the data word of
   its own request: a word for the library's use, null at first. The order of the fields must not
   change.

   Texts that a library returns are NUL-terminated at their length. They stay valid until shutdown
   has returned, unless the library marks them as owned. */
typedef struct _ZP_EL_Config {
  /* 1 marks the old interface, of which the engine looks only at load_script_v1. */
  int version;
  /* Called first in each request, with 0 and the arguments of the process. 0 is success; with any
     other result the request fails with the text of get_error. */
  int (*initialize)(ZPCONFIG config, void** data, int zero, void* arguments, int argument_count);
  /* Never called. Must be null when version is 1. */
  void* load_script_v1;
  /* 0 means that *value was set; otherwise the setting has its built-in default. The value, or the
     default, is kept for the request; a text with neither is requested again at the next read. */
  int (*get_integer)(ZPCONFIG config, void** data, int id, int* value);
  /* 0 means that *text and *length were set. If *owned is set as well, the text was made with new[]
     and its ownership passes to the engine. */
  int (*get_string)(ZPCONFIG config, void** data, int id, const char** text, int* length,
                    int* owned);
  /* Why initialize or load_script_config failed; borrowed until shutdown. */
  const char* (*get_error)(ZPCONFIG config, void** data);
  /* Called at the end of the request, also after a failed initialize: frees what *data holds.
     During this call the library may only call zpConfig_SetValue and zpConfig_SetValue_Integer on
     config. */
  void (*shutdown)(ZPCONFIG config, void** data);
  /* Called when the script has been found and opened, before it is read. path is relative to the
     script directory. 0 is success. */
  int (*load_script_config)(ZPCONFIG config, void** data, const char* path, File* file);
} _ZP_EL_Config;

typedef _ZP_EL_Config* (*_ZP_EL_ConfigFunction)(void);

#endif
