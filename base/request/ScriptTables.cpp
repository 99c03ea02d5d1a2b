// Makes, reads and deletes the tables of a run.

#include "base/request/ScriptTables.h"

#include <optional>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/extensions/ExternalCall.h"

struct ScriptTables::Objects {
  std::optional<Dictionary> dictionary;
  std::optional<SystemVariableHash> system_variables;
  std::optional<VariableHash> global_variables;
  std::optional<SegmentManager> segments;
  std::optional<FunctionManager> functions;
  std::optional<ExternalCallManager> external_calls;
  std::optional<LocalizedLanguages> languages;
  std::optional<LocalizedDictionary> localized;
};

ScriptTables::ScriptTables() = default;

// The members of Objects would go in the other order.
ScriptTables::~ScriptTables() {
  if (!objects) return;
  objects->dictionary.reset();
  objects->system_variables.reset();
  objects->global_variables.reset();
  objects->segments.reset();
  objects->functions.reset();
  objects->external_calls.reset();
  objects->languages.reset();
  objects->localized.reset();
}

void ScriptTables::Make(ZephApplication* application, TaggedFile* tagged) {
  objects = std::make_unique<Objects>();
  dictionary = &objects->dictionary.emplace();
  system_variables = &objects->system_variables.emplace(dictionary, 12, 512);
  global_variables = &objects->global_variables.emplace(dictionary, 12, 512);
  segments = &objects->segments.emplace();
  functions = &objects->functions.emplace(dictionary, 8);
  external_calls = &objects->external_calls.emplace(application);
  languages = &objects->languages.emplace(application, dictionary, tagged, 12, 8);
  localized = &objects->localized.emplace();
}

bool ScriptTables::Read(TaggedFile* tagged) {
  return dictionary->Read(tagged) && system_variables->Read(tagged, MakeTag("syst")) &&
         global_variables->Read(tagged, MakeTag("glbl")) && languages->Read() &&
         localized->Read(tagged) && segments->Read(tagged) && functions->Read(tagged);
}
