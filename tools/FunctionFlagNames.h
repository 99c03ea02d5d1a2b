// The words for the bits of a function's flags in program text.

#ifndef ZEPH_TOOLS_FUNCTIONFLAGNAMES_H
#define ZEPH_TOOLS_FUNCTIONFLAGNAMES_H

#include "base/compiled/Function.h"

struct FunctionFlagName {
  const char* name;
  int bit;
};

constexpr FunctionFlagName function_flag_names[] = {
    {"external", Function_External},         {"compress", Function_OutputMode1},
    {"erroron", Function_ErrorOutputOn},     {"erroroff", Function_ErrorOutputOff},
    {"inherit", Function_InheritOutputMode},
};

#endif
