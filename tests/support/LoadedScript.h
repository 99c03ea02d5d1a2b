// A compiled file and all that a request reads from it, in the order in which a request does.

#ifndef ZEPH_TESTS_SUPPORT_LOADEDSCRIPT_H
#define ZEPH_TESTS_SUPPORT_LOADEDSCRIPT_H

#include "base/Dictionary.h"
#include "base/File.h"
#include "base/Function.h"
#include "base/LocalizedDictionary.h"
#include "base/LocalizedLanguages.h"
#include "base/Segment.h"
#include "base/TaggedFile.h"
#include "base/VariableHash.h"

struct LoadedScript {
  TaggedFile file;
  Dictionary dictionary;
  VariableHash system;
  VariableHash globals;
  LocalizedLanguages languages;
  LocalizedDictionary pieces;
  SegmentManager segments;
  FunctionManager functions;

  LoadedScript(ZephApplication* application, FileManager* manager)
      : file(manager),
        system(&dictionary, 12, 512),
        globals(&dictionary, 12, 512),
        languages(application, &dictionary, &file, 12, 8),
        functions(&dictionary, 8) {}

  // Adopts the file when its header and directory are good. failed_section, if not null, receives
  // the tag of the section that could not be read, or "open".
  bool Load(const char* name, File* opened, const char** failed_section = nullptr) {
    const char* stage = "open";
    bool good = file.Open(name, opened) && (stage = "dict", dictionary.Read(&file)) &&
                (stage = "syst", system.Read(&file, MakeTag("syst"))) &&
                (stage = "glbl", globals.Read(&file, MakeTag("glbl"))) &&
                (stage = "locl", languages.Read()) && (stage = "locd", pieces.Read(&file)) &&
                (stage = "segs", segments.Read(&file)) && (stage = "func", functions.Read(&file));
    if (failed_section) *failed_section = good ? "" : stage;
    return good;
  }
};

#endif
