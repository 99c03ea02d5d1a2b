// Reads and deletes the tables of a run.

#include "base/request/ScriptTables.h"

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/extensions/ExternalCall.h"

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
