// Code that is not in the script's own file: expressions that the script has as text, and other
// compiled files (base/machine/DoContext.h). Tested in tests/base/machine/DynamicExpressionTest.cpp
// and DoContextTest.cpp.

#include <cstring>
#include <memory>

#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/Output.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"
#include "base/machine/DoContext.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/NestedRun.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

namespace {

const int kFormatVersion = 0x1000B;  // of the code that expressions are compiled to

// Hides what is on a stack from a run. An expression may have fewer operands than operators need:
// "1 +" would add the caller's value.
class HiddenEntries {
 public:
  explicit HiddenEntries(ZephVM_Stack* entries) : stack(entries), hidden(entries->HideEntries()) {}
  // REQUIRES: what a failed run has left was dropped before.
  ~HiddenEntries() { stack->ShowEntries(hidden); }
  HiddenEntries(const HiddenEntries&) = delete;
  HiddenEntries& operator=(const HiddenEntries&) = delete;

 private:
  ZephVM_Stack* stack;
  int hidden;
};

// Keeps a context from being evicted.
class ContextInUse {
 public:
  explicit ContextInUse(DoContext* used) : context(used) { context->IncRefCount(); }
  ~ContextInUse() { context->DecRefCount(); }
  ContextInUse(const ContextInUse&) = delete;
  ContextInUse& operator=(const ContextInUse&) = delete;

 private:
  DoContext* context;
};

}  // namespace

// --- Expressions ---------------------------------------------------------------------------------

Segment* ZephVM::Compile_Dynamic_Expression(const char* text, int length, const char* alias,
                                            ZephVM* caller, String* error, const char* sourcefile,
                                            int sourcefilelength, int line) {
  ZephVM* const other = caller ? caller : parent;
  ExpressionCompiler compiler(external_calls, segments, dictionary, functions,
                              other ? other->functions : nullptr, text, length, alias, nullptr, 0,
                              sourcefile, sourcefilelength, line, kFormatVersion);
  const bool compiled = compiler.Run() == 1;
  // The segment exists as long as the machine, and most texts need far less room than it has.
  compiler.segment()->Trim();
  if (compiled) return compiler.segment();
  if (error) *error = compiler.error();
  return nullptr;
}

int ZephVM::Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                       VariableHash* variables) {
  if (!MayNest()) return 0;
  ZephVM_Stack* const used = entries ? entries : stack;
  const int output_mode = frame->output_mode;
  if (!variables) variables = frame->variables;
  expression->NoteRepeat(*dictionary, functions);
  const HiddenEntries hidden(used);
  int result;
  {
    NestedRun nested(this);
    nested.Enter(variables, used);
    frame->output_mode = output_mode;
    nested.Begin(expression);
    result = Go();
  }
  if (result) {
    used->KeepTop();
  } else {
    while (used->Entries() > 0) used->Pop();
  }
  return result;
}

int ZephVM::Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                       VariableHash* variables, int* result) {
  ZephVM_Stack* const used = entries ? entries : stack;
  const int before = used->Entries();
  if (!Execute_Dynamic_Expression(expression, used, variables)) return 0;
  *result = used->Entries() > before && used->PopBool();
  return 1;
}

int ZephVM::Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                       VariableHash* variables, const char** text, int* length,
                                       int* size, int* deletable) {
  ZephVM_Stack* const used = entries ? entries : stack;
  const int before = used->Entries();
  if (!Execute_Dynamic_Expression(expression, used, variables)) return 0;
  if (used->Entries() > before) {
    *text = used->PopS(length, size, deletable);
  } else {
    *text = "";
    *length = *size = *deletable = 0;
  }
  return 1;
}

int ZephVM::Execute_Dynamic_Expression(Segment* expression, ZephVM_Stack* entries,
                                       VariableHash* variables, Variable** result, int* deletable) {
  ZephVM_Stack* const used = entries ? entries : stack;
  const int before = used->Entries();
  if (!Execute_Dynamic_Expression(expression, used, variables)) return 0;
  if (used->Entries() > before) return used->PopV(result, deletable);
  *result = null_variable;
  *deletable = 0;
  return 1;
}

// --- Other files ---------------------------------------------------------------------------------

DoContext* ZephVM::DoContextFind(const char* name, int length) {
  FileManager* const manager = application->filemanager();
  String named;
  if (length < 0) length = MeasuredLength(name, -1);
  if (length == 0 || (name[0] != manager->pathseparator() && name[0] != '/')) {
    named.cat(script_directory.data, script_directory.length);
  }
  named.cat(name, length);
  int path_length = 0, size = 0;
  std::unique_ptr<char[]> path(manager->NormalizeContainedPath(
      ZephPath_Script, named.data ? named.data : "", &path_length, &size));
  if (!path) {
    EncodedRuntimeError(Tag_Do, manager->error());
    return nullptr;
  }
  DoContexts* const contexts = family->contexts();
  if (DoContext* found = contexts->Find(path.get(), path_length)) return found;
  const int limit = application->config()->value_integer(Config_max_docache);
  if (limit != 0) contexts->Evict(limit);
  std::unique_ptr<File> file(manager->Open(ZephPath_Script, path.get(), FileMode_Read));
  if (!file) {
    EncodedRuntimeError(Tag_Do, manager->error());
    return nullptr;
  }
  auto context =
      std::make_unique<DoContext>(global_variables, system_variables, application, this,
                                  external_calls, commerce_libraries, database_libraries);
  if (!context->Open(path.release(), path_length, size, file.release())) {
    EncodedRuntimeError(Tag_Do, context->error());
    return nullptr;
  }
  contexts->Insert(context.get());
  return context.release();
}

// A failure in the other file ends this one too. The client already has its message.
void ZephVM::AfterChild(ZephVM* child, int result) {
  if (!result) {
    if (child != this && child->error_text.data) error_text = child->error_text;
    stop_flag = true;
    return;
  }
  application->output()->SetFlags(frame->output_mode);
  hot_mode = NoMode;
  traced_line = 0;
}

// op_do_file  ( file -- )  Runs another compiled file from its beginning. Its global variables are
// those of the same names here. A file that cannot be opened is a runtime error.
void ZephVM::op_do_file() {
  const PoppedPath name(stack);
  if (stop_flag) return;
  DoContext* const context = DoContextFind(name.data(), name.length());
  if (!context) return;
  const LogParameter path = LogParameter::OfText(context->path().data, context->path().length);
  if (WantsLog(Log_DoEnter)) WriteLog(Log_DoEnter, {path});
  const ContextInUse use(context);
  AfterChild(context->machine(), context->machine()->Go_Recursive());
  if (!stop_flag && WantsLog(Log_DoExit)) WriteLog(Log_DoExit, {path});
}

// op_do_function  ( file expression -- x )  Calls a function of another compiled file. The
// expression is the text of the call, whose arguments reach the local variables of this call by the
// scope "local". Always leaves one value, the null variable if there is no other.
void ZephVM::op_do_function() {
  bool has_value = false;
  {
    const KeptString call(stack);
    const PoppedPath name(stack);
    DoContext* const context = stop_flag ? nullptr : DoContextFind(name.data(), name.length());
    if (context) has_value = Run_Function(context, call.data(), call.length());
  }
  if (!has_value) stack->PushV(null_variable, 1, 1);
}

// Returns whether the call has left a value.
bool ZephVM::Run_Function(DoContext* context, const char* text, int length) {
  Segment* const call = FunctionCall(context, text, length);
  if (!call) return false;
  ZephVM* const child = context->machine();
  const int before = stack->Entries();
  int result;
  {
    const ContextInUse use(context);
    ZephVM* const outer_guest = guest;
    if (child != this) guest = child;
    result = child->Execute_Dynamic_Expression(call, stack, frame->variables);
    guest = outer_guest;
  }
  AfterChild(child, result);
  if (stack->Entries() == before) return false;
  // The context, which may own the text, may be deleted before the entry is used.
  stack->OwnTop();
  return true;
}

// Returns the code of a call, compiled the first time that its text occurs.
Segment* ZephVM::FunctionCall(DoContext* context, const char* text, int length) {
  if (DoExpression* known = context->expressions().Find(text, length)) return known->segment();
  int file_length;
  const char* const file = SourceFile(&file_length);
  String error;
  Segment* const compiled = context->machine()->Compile_Dynamic_Expression(
      text, length, nullptr, this, &error, source_file == -1 ? nullptr : file, file_length,
      current_line);
  if (!compiled) {
    EncodedRuntimeError(Tag_Do, error);
    return nullptr;
  }
  InsertOwned(context->expressions(), std::make_unique<DoExpression>(text, length, compiled));
  return compiled;
}
