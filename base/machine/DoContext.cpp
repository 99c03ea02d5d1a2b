// Loads files for ZpDO and keeps them. Tested in tests/base/machine/DoContextTest.cpp.

#include "base/machine/DoContext.h"

#include <memory>
#include <new>

#include "base/compiled/Dictionary.h"
#include "base/compiled/ForwardingVariableHash.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"

DoContext::DoContext(VariableHash* global, VariableHash* system, ZephApplication* application,
                     ZephVM* parent, ExternalCallManager* external_calls,
                     CommerceLibraryManager* commerce, ExternalDatabaseLibraryManager* databases)
    : parent(parent),
      parent_global_variables(global),
      parent_system_variables(system),
      application(application),
      external_calls(external_calls),
      commerce_libraries(commerce),
      database_libraries(databases) {}

// Deletes the tables and the machine before the dictionary, which has the names that they refer to.
// Variables that the file has left in tables of other machines have names of their own.
DoContext::~DoContext() {
  delete segments;
  delete functions;
  delete global_variables;
  delete system_variables;
  delete child;
  delete dictionary;
  delete languages;
  delete localized;
  delete file;
}

bool DoContext::Open(char* path, int length, int size, File* opened) {
  std::unique_ptr<File> held(opened);
  file_path.assign_nocopy(path, length, size);
  if (!file) file = new TaggedFile(application->filemanager());
  if (!file->Open(file_path.data, opened)) {
    error_text.assign("Unable to open '", -1);
    error_text.cat(file_path.data, file_path.length);
    error_text.cat("': ", -1);
    error_text.cat(file->error().data, file->error().length);
    return false;
  }
  held.release();
  dictionary = new Dictionary;
  if (dictionary->Read(file)) {
    MakeTables();
    if (ReadTables()) {
      child =
          new ZephVM(file_path.data, file_path.length, application, dictionary, system_variables,
                     global_variables, segments, functions, external_calls, commerce_libraries,
                     database_libraries, languages, localized, nullptr, nullptr, nullptr, parent);
    }
  }
  file->Deactivate();
  return child != nullptr;
}

void DoContext::MakeTables() {
  segments = new SegmentManager;
  functions = new FunctionManager(dictionary, 8);
  localized = new LocalizedDictionary;
  languages = new LocalizedLanguages(application, dictionary, file, 12, 8);
  global_variables = new ReferenceVariableHash(dictionary, 12, 512, parent_global_variables);
  system_variables = new ReferenceVariableHash(dictionary, 12, 512, parent_system_variables);
}

bool DoContext::ReadTables() {
  // A file may be without localized texts.
  static_cast<void>(localized->Read(file));
  static_cast<void>(languages->Read());
  return system_variables->Read(file, MakeTag("syst")) &&
         global_variables->Read(file, MakeTag("glbl")) && segments->Read(file) &&
         functions->Read(file);
}

int DoContext::RefCount() const {
  return child->Children();
}
void DoContext::IncRefCount() {
  child->AddChild();
}
void DoContext::DecRefCount() {
  child->RemoveChild();
}

// --- The contexts of a family --------------------------------------------------------------------

// A context in use cannot be deleted. Deleting a machine takes a child from its parent, which may
// free the parent's context for deletion, so the walk is repeated until it finds nothing. It begins
// with the newest, so that one walk finds most: parents were there before their children.
DoContexts::~DoContexts() {
  for (bool found = true; found;) {
    found = false;
    for (DoContext* context = by_use.First(); context;) {
      if (context->RefCount() == 0) {
        found = true;
        DeleteCurrent();
        context = by_use.Current();
      } else {
        context = by_use.Next();
      }
    }
  }
  while (by_use.First()) DeleteCurrent();
}

DoContext* DoContexts::Find(const char* path, int length) {
  DoContext* context = by_path.Find(path, length);
  if (context && context != by_use.First()) {
    // Inserted at the head before it is removed: if the insertion fails, the context is still in
    // the list.
    by_use.Insert(context, ListHead);
    by_use.Last();
    while (by_use.Current() != context) by_use.Previous();
    by_use.Remove(ListCurrent);
  }
  return context;
}

void DoContexts::Insert(DoContext* context) {
  by_use.Insert(context, ListHead);
  try {
    by_path.Insert(context);
  } catch (const std::bad_alloc&) {
    by_use.Remove(ListHead);
    throw;
  }
}

void DoContexts::Evict(int limit) {
  for (DoContext* context = by_use.Last(); context && Entries() > limit;) {
    DoContext* newer = by_use.Previous();
    if (context->RefCount() == 0) {
      by_use.Seek(context);
      DeleteCurrent();
      by_use.Seek(newer);
    }
    context = newer;
  }
}

void DoContexts::DeleteCurrent() {
  const std::unique_ptr<DoContext> context(by_use.Remove(ListCurrent));
  by_path.Remove(context->path().data, context->path().length);
}
