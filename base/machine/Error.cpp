// Fatal and runtime errors of the machine, and the records that it writes to the trace log. Tested
// in tests/base/machine/ZephVMTest.cpp and InstructionsErrorsTest.cpp.

#include <cstdio>

#include "base/compiled/Dictionary.h"
#include "base/compiled/VariableHash.h"
#include "base/core/RunLimit.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

namespace {

LogParameter LogText(const String& text) {
  return LogParameter::OfText(text.data, text.length);
}

}  // namespace

String ZephVM::ErrorPrefix(const char* kind, const char* tag) {
  char place[48];
  String text;
  text.cat(error_prefix.data, error_prefix.length);
  text.cat(kind, -1);
  text.cat(script_path.data, script_path.length);
  snprintf(place, sizeof place, " @ [%08x:%08x]: ", static_cast<unsigned>(loaded_segment),
           static_cast<unsigned>(instruction_start));
  text.cat(place, -1);
  int length;
  const char* file = SourceFile(&length);
  if (length > 0) {
    text.cat(file, length);
    text.cat(": ", 2);
  }
  if (current_line != 0) {
    snprintf(place, sizeof place, "Line %d: ", current_line);
    text.cat(place, -1);
  }
  if (tag) {
    text.cat(tag, -1);
    text.cat(": ", 2);
  }
  return text;
}

int ZephVM::FatalError(const String& message) {
  // This comes first, because there may be no memory for the text.
  stop_flag = true;
  // A stack reports to its own machine, so machines that work on that stack are ended too. The test
  // of the flag ends the loop: two files that call each other are guests of one another.
  for (ZephVM* other = guest; other && !other->stop_flag; other = other->guest) {
    other->stop_flag = true;
  }
  error_text = ErrorPrefix("Fatal error in ", nullptr);
  error_text.cat(message.data, message.length);
  error_text.cat('\n');
  Report(RunFailure::Fatal, true, true, error_text.data, error_text.length);
  application->Error(error_text);
  if (WantsLog(Log_FatalError)) WriteLog(Log_FatalError, {LogText(error_text)});
  return 0;
}

// If the work failed because the time limit cut it short, the time-out is reported instead.
void ZephVM::RuntimeError(int tag, const String& message) {
  if (RunLimit::WasCut()) return;
  const bool known = tag >= 0 && tag < tag_count;
  const TagErrorSetting unknown = {tag, nullptr, nullptr, TagError_Display | TagError_Fatal};
  const TagErrorSetting setting = known ? TagError(tag) : unknown;
  error_text = ErrorPrefix("Runtime error in ", setting.name);
  error_text.cat(message.data, message.length);
  error_text.cat('\n');
  // Set in both cases: a handler raises one error, and code nested in it may have survived a
  // failure, which must not end the script.
  stop_flag = (setting.settings & TagError_Fatal) != 0;
  const bool shown = (frame->error_output & ZephVM_Frame::ErrorOutput_Display) &&
                     (setting.settings & TagError_Display);
  Report(RunFailure::Runtime, stop_flag, shown, error_text.data, error_text.length);
  if (shown) application->Error(error_text);
  if (setting.variable) {
    global_variables->SetVariable(setting.variable, -1, message.data, message.length);
  }
  if (WantsLog(Log_RuntimeError)) {
    if (setting.name) {
      WriteLog(Log_RuntimeError, {LogParameter::OfText(setting.name, -1), LogText(message)});
    } else {
      WriteLog(Log_RuntimeError, {LogText(message)});
    }
  }
}

void ZephVM::EncodedRuntimeError(int tag, const String& message) {
  int length, size;
  char* text = ZephApplication::EncodeEntities(message.data ? message.data : "", message.length,
                                               &length, &size);
  RuntimeError(tag, String(text, length, size));
}

// A loop over records clears the variable of one tag at each step, so its position in the table is
// kept. Positions never change. A name that the table does not know may be added to it, but then
// the table has more entries.
void ZephVM::ClearErrorVariable(int tag) {
  if (tag < 0 || tag >= tag_count) return;
  VariableHash* const table = global_variables->RealIdentity();
  ClearedVariable& cleared = cleared_variables[tag % kClearedVariables];
  unsigned entries;
  (void)table->Rows(&entries);
  if (cleared.tag != tag || (cleared.position < 0 && cleared.entries != entries)) {
    const char* const name = original_tag_default_errorsettings[tag].variable;
    if (!name) return;
    cleared = {tag, table->Seek(-1, name, -1, nullptr), entries};
  }
  if (cleared.position < 0) return;
  if (Variable* const variable = table->At(cleared.position, 0)) variable->SetNULL();
}

void ZephVM::Report(RunFailure::Kind kind, bool ends_run, bool shown, const char* text,
                    int length) {
  RunObserver* const observer = application->observer();
  if (!observer) return;
  int file_length;
  const char* file = SourceFile(&file_length);
  observer->Fails(
      {kind, ends_run, shown, text, length, script_path, file, file_length, current_line});
}

LogPlace ZephVM::Place() {
  int length;
  const char* file = SourceFile(&length);
  return {script_path, file, length, current_line};
}

void ZephVM::WriteLog(unsigned type, std::initializer_list<LogParameter> more) {
  log_gate.Write(type, Place(), more);
}
