#include "base/ScriptTables.h"

#include "base/Dictionary.h"
#include "base/ExternalCall.h"
#include "base/Function.h"
#include "base/LocalizedDictionary.h"
#include "base/LocalizedLanguages.h"
#include "base/Segment.h"
#include "base/TaggedFile.h"
#include "base/VariableHash.h"

ScriptTables::~ScriptTables() {
  delete dictionary;
  delete system_variables;
  delete global_variables;
  delete segments;
  delete functions;
  delete external_calls;
  delete languages;
  delete localized;
}

bool ScriptTables::Read(TaggedFile* tagged) {
  return dictionary->Read(tagged) && system_variables->Read(tagged, MakeTag("syst")) &&
         global_variables->Read(tagged, MakeTag("glbl")) && languages->Read() &&
         localized->Read(tagged) && segments->Read(tagged) && functions->Read(tagged);
}
