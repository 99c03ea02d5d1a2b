// A compiled file and everything that a request reads from it, in the same order.

#ifndef ZEPH_TESTS_SUPPORT_LOADEDSCRIPT_H
#define ZEPH_TESTS_SUPPORT_LOADEDSCRIPT_H

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"

struct LoadedScript {
  TaggedFile file;
  Dictionary dictionary;
  SystemVariableHash system;
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

  // Adopts the file if its header and directory are valid. failed_section, if not null, receives
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

  // Reads every loaded text, name, byte of code and link, as a machine could. Sets languages of the
  // application. The result only keeps the compiler from omitting the reads.
  size_t UseEverything(ZephApplication* application) {
    return UseTexts() + UseFunctions() + UseCode() + UsePieces() + UseLanguages(application);
  }

 private:
  size_t UseTexts() {
    size_t sum = 0;
    for (int id = -1; id <= dictionary.Entries(); id++) {
      int length = 0;
      const char* text = dictionary.Entry(id, &length);
      for (int i = 0; i < length; i++) sum += static_cast<unsigned char>(text[i]);
      if (!text) text = "";
      sum += functions.Function_Get(text, length) != nullptr;
      sum += static_cast<size_t>(globals.Seek(-1, text, length, nullptr));
      sum += static_cast<size_t>(system.Seek(-1, text, length, nullptr));
    }
    return sum;
  }
  size_t UseFunctions() {
    size_t sum = 0;
    for (int i = 0; i < functions.Functions(); i++) {
      Function* function = functions.Lookup(i);
      VariableHash locals(function->variables());
      for (int v = 0; v < locals.Entries(); v++) sum += locals.Index(v, 1) != nullptr;
      sum += static_cast<size_t>(function->parameters().Entries());
    }
    return sum;
  }
  size_t UseCode() {
    size_t sum = 0;
    for (int i = 0; i < segments.Segments(); i++) {
      Segment* segment = segments.Lookup(i);
      for (int at = 0; at < segment->length() + Segment::Padding; at++) sum += segment->code()[at];
    }
    return sum + static_cast<size_t>(segments.Start()->length());
  }
  size_t UsePieces() {
    size_t sum = 0;
    int index = 0;
    for (int left = pieces.Entries(); left > 0; left--) {
      auto* piece = pieces.Entry(index);
      if (!piece) break;
      index = piece->next;
      sum++;
    }
    return sum;
  }
  size_t UseLanguages(ZephApplication* application) {
    size_t sum = 0;
    for (const char* language : {"de", "en", "", "xx"}) {
      application->SetLanguage(language);
      for (int id = -1; id <= dictionary.Entries(); id++) sum += languages.Get_Entry(id) != nullptr;
    }
    return sum;
  }
};

#endif
