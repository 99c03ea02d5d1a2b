// The instructions on delimited text files: the loop over an import with its filter, and the
// export. Tested in tests/base/machine/ImportTest.cpp.
//
// A filter is code like any other. Before each record that it has to judge, it gets a frame of its
// own. The end of its segment leads to import_filter_resume, which continues with the loop's body,
// with the filter again for the next record, or after the loop.

#include <memory>

#include "base/compiled/Segment.h"
#include "base/core/RunLimit.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/Import.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"

// The operands that both opening instructions pop.
struct ZephVM::ImportOperands {
  explicit ImportOperands(ZephVM_Stack* stack) : fields(stack), delimiter(stack), name(stack) {}

  KeptString fields;
  KeptString delimiter;
  PoppedPath name;
};

// The steps of an import's loop. Holds no state of its own: the loop is a feature of the machine,
// and a filter in progress is a frame.
class ZephVM::ImportLoop {
 public:
  explicit ImportLoop(ZephVM* machine) : vm(machine) {}

  // Opens the import and reads the first record; skips the loop if there is none. A null filter
  // accepts all records.
  void Begin(ImportOperands* operands, Segment* filter);
  // Runs the filter on the record that was read. The loop's body begins at the offset body, and the
  // loop ends at the offset end, both in the current segment.
  void RunFilter(Segment* filter, int body, int end);
  // Leaves the frame of a filter, and continues at that place.
  void LeaveFilter(int to_segment, int to_offset);

 private:
  ZephVM* vm;
};

// --- Filters -------------------------------------------------------------------------------------

// The filter has a stack of its own, because an expression may pop more than it has pushed or leave
// something, and must not touch the caller's entries.
//
// A filter counts as a run within a run although it uses none of the thread's stack: each filter in
// progress has an open file, so a filter whose function imports with the same filter would use up
// the descriptors of the process.
void ZephVM::ImportLoop::RunFilter(Segment* filter, int body, int end) {
  if (!vm->MayNest()) return;
  const int place = vm->wanted_segment;
  auto entered =
      std::make_unique<ZephVM_FilterFrame>(place, body, place, end, &ZephVM::import_filter_resume);
  ZephVM_Frame* const outer = vm->frame;
  entered->Set_LocalVariable_Hash(outer->variables, false);
  entered->Set_Stack(new ZephVM_Stack(vm), true);
  entered->error_output = outer->error_output;
  entered->output_mode = outer->output_mode;
  entered->previous = outer;
  vm->EnterFrame(entered.release());
  vm->family->BeginRun();
  filter->NoteRepeat(*vm->dictionary, vm->functions);
  vm->wanted_segment = filter->number();
  vm->program_counter = 0;
}

void ZephVM::ImportLoop::LeaveFilter(int to_segment, int to_offset) {
  const std::unique_ptr<ZephVM_Frame> left(vm->frame);
  vm->frame = left->previous;
  vm->stack = vm->frame->stack;
  vm->family->EndRun();
  vm->wanted_segment = to_segment;
  vm->program_counter = to_offset;
}

// Called at the end of a filter's segment, in the filter's frame.
void ZephVM::import_filter_resume(int accepted) {
  auto* const judged = static_cast<ZephVM_FilterFrame*>(frame);
  // A function that the filter called may have left the loop.
  auto* const feature = static_cast<Import*>(Lookup_Feature(Feature::Type_Import));
  if (!feature) {
    FatalError("Invalid instruction");
    return;
  }
  if (accepted) {
    feature->CountRecord();
    ImportLoop(this).LeaveFilter(judged->return_segment, judged->return_offset);
    return;
  }
  if (feature->Next() != 0) {
    ImportLoop(this).LeaveFilter(judged->saved_segment, judged->saved_offset);
    Pop_Feature(feature);
    return;
  }
  if (segment) segment->NoteRepeat(*dictionary, functions);
  program_counter = 0;
}

// --- The loop ------------------------------------------------------------------------------------

void ZephVM::ImportLoop::Begin(ImportOperands* operands, Segment* filter) {
  const int distance = vm->first_integer;
  auto feature = std::make_unique<Import>(vm->application, vm);
  KeptString& delimiter = operands->delimiter;
  feature->SetDelimiter(delimiter.data(), delimiter.length(), delimiter.ownership());
  feature->SetFields(operands->fields.data(), operands->fields.length());
  if (vm->stop_flag || RunLimit::WasCut()) return;
  feature->SetFilter(filter);
  PoppedPath& name = operands->name;
  const auto skip = [this, distance] {
    vm->program_counter = vm->Jumped(vm->program_counter, distance);
  };
  if (!feature->Start(name.data(), name.length(), name.size(), name.ownership())) {
    vm->EncodedRuntimeError(Tag_Import, feature->error());
    skip();
    return;
  }
  vm->ClearErrorVariable(Tag_Import);
  if (feature->Next() != 0) {
    skip();
    return;
  }
  vm->Push_Feature(feature.release());
  if (filter) {
    const int body = vm->program_counter;
    RunFilter(filter, body, WrapAdd(body, distance));
  }
}

// import  ( file delimiter fields -- )  Opens a text file of the data directory and reads its first
// record: the pieces between the delimiters go to the variables of a comma-separated list of names,
// and the record's number to the global recno. Without a record, and after an error of ZpIMPORT,
// the loop is skipped. For the form of a record see import.md.
void ZephVM::import() {
  ImportOperands operands(stack);
  if (!stop_flag) ImportLoop(this).Begin(&operands, nullptr);
}

// importf  ( file delimiter fields filter -- )  As import, but the loop runs, and recno counts,
// only for records for which the filter is true. The filter is an expression that reads the record
// from the variables; one that leaves nothing is false. An empty filter accepts all records; one
// that is not an expression is an error of ZpIMPORT.
void ZephVM::importf() {
  const KeptString text(stack);
  ImportOperands operands(stack);
  if (stop_flag) return;
  if (ExpressionCompiler::Expression_Empty(text.data(), text.length())) {
    ImportLoop(this).Begin(&operands, nullptr);
    return;
  }
  String error;
  Segment* const filter = import_filters.Find(this, text.data(), text.length(), &error);
  if (filter) {
    ImportLoop(this).Begin(&operands, filter);
    return;
  }
  String message("Syntax error in filter: ", -1);
  message.cat(error.data, error.length);
  EncodedRuntimeError(Tag_Import, message);
  program_counter = Jumped(program_counter, first_integer);
}

// import_loop  ( -- )  Reads the next record of the newest import and goes back to the loop's body;
// at the end of the file it closes the import and continues. Without an import it is the fatal
// error "Invalid instruction".
void ZephVM::import_loop() {
  auto* const feature = static_cast<Import*>(Lookup_Feature(Feature::Type_Import));
  if (!feature) {
    FatalError("Invalid instruction");
    return;
  }
  if (feature->Next() != 0) {
    Pop_Feature(feature);
    return;
  }
  const int body = Jumped(program_counter, first_integer);
  if (feature->filter()) {
    ImportLoop(this).RunFilter(feature->filter(), body, program_counter);
  } else {
    program_counter = body;
  }
}

// import_stop  ( -- )  Closes the newest import and leaves its loop. Without an import it is the
// fatal error "Invalid instruction".
void ZephVM::import_stop() {
  Feature* const feature = Lookup_Feature(Feature::Type_Import);
  if (!feature) {
    FatalError("Invalid instruction");
    return;
  }
  Pop_Feature(feature);
  program_counter = Jumped(program_counter, first_integer);
}

// --- The export ----------------------------------------------------------------------------------

// op_export  ( file delimiter fields -- )  Appends a record to a text file of the data directory,
// which is made if there is none: the values of a comma-separated list of variables, with the
// delimiter between. The record is written at once, so those of several exporters do not mix. Sets
// the error variable of ZpEXPORT.
void ZephVM::op_export() {
  const KeptString names(stack);
  const KeptString delimiter(stack);
  const PoppedPath name(stack);
  if (stop_flag) return;
  FileManager* const files = application->filemanager();
  const std::unique_ptr<File> file(
      files->Open(ZephPath_Data, name.data(), FileMode_Write | FileMode_Create | FileMode_Append));
  if (!file) {
    String message("Unable to create file '", -1);
    message.cat(name.data(), name.length());
    message.cat("': ", 3);
    message.cat(files->error().data, files->error().length);
    EncodedRuntimeError(Tag_Export, message);
    return;
  }
  VariableList fields;
  Lookup_VariableList(&fields, names.data(), names.length());
  // A bad name is fatal; no record with a value missing is written.
  if (stop_flag) return;
  ExportRecord record;
  bool is_first = true;
  RunWatch watch(64);
  for (Variable* field = fields.First(); field; field = fields.Next()) {
    if (!is_first) record.AppendPlain(delimiter.data(), delimiter.length());
    is_first = false;
    const String& value = field->value();
    if (value.data) record.AppendField(value.data, value.length);
    if (watch.Over()) break;
  }
  // Rather no record than part of one.
  if (RunLimit::WasCut()) return;
  record.AppendPlain("\n", 1);
  if (record.whole() && file->Write(record.data(), record.length()) == record.length()) {
    ClearErrorVariable(Tag_Export);
    return;
  }
  String message("Unable to write to file '", -1);
  message.cat(name.data(), name.length());
  message.cat("'.", 2);
  EncodedRuntimeError(Tag_Export, message);
}
