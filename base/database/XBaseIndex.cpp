// Index files with their key expressions. Tested in tests/base/database/XBaseIndexTest.cpp.

#include "base/database/XBaseIndex.h"

#include "base/database/Database.h"
#include "base/machine/ZephVM.h"

namespace {

constexpr size_t kMostExpression = 400;  // bytes that an index file has for the expression

}  // namespace

XBaseIndex::XBaseIndex(ZephVM* vm, Database* database, const char* name, int length)
    : vm(vm),
      application(vm->Application()),
      database(database),
      name_(name, length),
      file(application) {
  vm->AddChild();
}

XBaseIndex::~XBaseIndex() {
  Release_VM();
}

void XBaseIndex::Release_VM() {
  if (vm) vm->RemoveChild();
  vm = nullptr;
  segment = nullptr;
}

bool XBaseIndex::Open(const String& path) {
  if (&path != &path_) path_ = path;
  return Done(
      file.Open(ZephPath_Data, path_.data ? path_.data : "", FileMode_Read | FileMode_Write));
}

// The file would keep only the beginning of a longer expression, and then compute other keys.
bool XBaseIndex::Accepts(const char* path, const unsigned char* expression) {
  if (strlen(reinterpret_cast<const char*>(expression)) <= kMostExpression) return true;
  String text("Error creating '");
  text.cat(path);
  text.cat("': key expression is too long (maximum 400)");
  error_ = std::move(text);
  return false;
}

bool XBaseIndex::Create(const String& path, const unsigned char* expression, long flags) {
  path_ = path;
  return Accepts(path_.data, expression) &&
         Done(file.Create(ZephPath_Data, path_.data, expression, static_cast<unsigned>(flags)));
}

bool XBaseIndex::Create(File* created, const char* path, const unsigned char* expression,
                        long flags) {
  path_.assign(path);
  return Accepts(path_.data, expression) &&
         Done(file.Create(created, path_.data, expression, static_cast<unsigned>(flags)));
}

bool XBaseIndex::Close() {
  return file.Close();
}

Segment* XBaseIndex::GetSegment() {
  if (segment) return segment;
  if (!vm) {
    error_ = "The machine of the key expression has ended";
    return nullptr;
  }
  // Compiling changes only the machine, not the expression in the file's header.
  const char* expression = reinterpret_cast<const char*>(keyexpression());
  segment = vm->Compile_Dynamic_Expression(expression, -1, database->name().data, nullptr, &error_,
                                           nullptr, 0, 0);
  return segment;
}

// The key is set only when all of it is there: without memory for the text, the call ends after it
// has said that a text is to be deleted.
bool XBaseIndex::ComputeKey(XBaseKey* key) {
  Segment* const code = GetSegment();
  if (!code) return false;
  key->Free();
  const Database::Evaluation running(database);
  const char* text;
  int length, size, deletable;
  if (!vm->Execute_Dynamic_Expression(code, nullptr, nullptr, &text, &length, &size, &deletable)) {
    error_ = vm->error();
    return false;
  }
  key->bytes = text;
  key->count = length;
  key->deletable = deletable;
  return true;
}
