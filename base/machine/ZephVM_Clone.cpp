// Copies a machine, with everything that it reaches, for a background task, so that the two can run
// at the same time. Counts of variables, free names, decoded code and the positions of lists have
// no locks, so nothing that is ever written is shared. Tested in
// tests/base/machine/ZephVM_CloneTest.cpp.

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/ForwardingVariableHash.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/ZephApplication.h"
#include "base/machine/DoContext.h"
#include "base/machine/Feature.h"
#include "base/machine/ZephVM.h"
#include "base/machine/ZephVM_Clone.h"
#include "base/values/Variable.h"

// A copy with every name that the tables have. The call of Entries makes the table reserve the
// names that it otherwise reserves when they are needed.
Dictionary* MachineClone::DictionaryOf(ZephVM& source) {
  source.system_variables->Entries();
  return new Dictionary(*source.dictionary);
}

MachineClone::MachineClone(ZephApplication* application, ZephVM& source, int* heartbeat,
                           int* timedout, int* exit)
    : parent(source.parent ? new ZephVM(application, *source.parent, heartbeat, timedout, exit)
                           : nullptr),
      dictionary(DictionaryOf(source)),
      system_variables(
          new ClonedVariableHash(application, dictionary.get(), *source.system_variables)),
      global_variables(
          new ClonedVariableHash(application, dictionary.get(), *source.global_variables)),
      segments(new SegmentManager(*source.segments)),
      functions(source.functions
                    ? new FunctionManager(application, dictionary.get(), *source.functions)
                    : nullptr),
      external_calls(source.external_calls && !parent
                         ? new ExternalCallManager(application, *source.external_calls)
                         : nullptr),
      languages(source.languages
                    ? new LocalizedLanguages(application, dictionary.get(), *source.languages)
                    : nullptr),
      localized(source.localized ? new LocalizedDictionary(*source.localized) : nullptr) {}

MachineClone::~MachineClone() = default;

VariableHash* MachineClone::Find(const VariableHash* original) const {
  for (const auto& [theirs, ours] : locals) {
    if (theirs == original) return ours;
  }
  return parent ? parent->clone->Find(original) : nullptr;
}

ZephVM::ZephVM(ZephApplication* application, ZephVM& source, int* heartbeat, int* timedout,
               int* exit)
    : clone(new MachineClone(application, source, heartbeat, timedout, exit)),
      error_text(source.error_text),
      current_line(source.current_line),
      source_file(source.source_file),
      script_path(source.script_path),
      script_directory(source.script_directory),
      error_prefix(source.error_prefix),
      first_integer(source.first_integer),
      second_integer(source.second_integer),
      first_double(source.first_double),
      second_double(source.second_double),
      wanted_segment(source.wanted_segment),
      program_counter(source.program_counter),
      loaded_segment(source.loaded_segment),
      instruction_start(source.instruction_start),
      log_gate(application, source.log_gate.level()),
      heartbeat_counter(heartbeat),
      timedout_flag(timedout),
      exit_flag(exit),
      application(application),
      dictionary(clone->dictionary.get()),
      system_variables(clone->system_variables.get()),
      global_variables(clone->global_variables.get()),
      segments(clone->segments.get()),
      functions(clone->functions.get()),
      external_calls(clone->parent ? clone->parent->external_calls : clone->external_calls.get()),
      commerce_libraries(application->commercemanager()),
      database_libraries(application->databasemanager()),
      languages(clone->languages.get()),
      localized(clone->localized.get()),
      null_variable(new NULLVariable),
      parent(clone->parent.get()),
      family(parent ? parent->family : &own_family) {
  if (parent) parent->children++;
  std::copy_n(source.tag_settings, tag_count, tag_settings);
  try {
    segment = segments->Lookup(loaded_segment);
    if (segment) {
      code = segment->code();
      code_length = segment->length();
    }
    if (source.text_parameters) {
      text_parameters =
          std::make_unique<VariableHash>(application, dictionary, *source.text_parameters);
    }
    clone->locals.emplace_back(source.global_variables, global_variables);
    clone->locals.emplace_back(source.system_variables, system_variables);
    CloneFrames(source);
  } catch (const std::bad_alloc&) {
    End();
    throw;
  }
}

// From the base of the run to the current frame, because later frames borrow from older ones.
void ZephVM::CloneFrames(ZephVM& source) {
  std::vector<ZephVM_Frame*> originals;
  for (ZephVM_Frame* f = source.frame; f; f = f->previous) originals.push_back(f);
  const ZephVM_Stack* lent = nullptr;
  for (size_t i = originals.size(); i-- > 0;) {
    ZephVM_Frame* original = originals[i];
    auto copy = CloneFrame(original);
    if (original->stack == lent && frame) {
      copy->Set_Stack(frame->stack, false);
    } else {
      auto entries = std::make_unique<ZephVM_Stack>(this);
      entries->CopyEntries(application, *original->stack);
      copy->Set_Stack(entries.release(), true);
    }
    lent = original->stack;
    copy->error_output = original->error_output;
    copy->output_mode = original->output_mode;
    copy->previous = frame;
    const bool is_function = copy->type() == ZephVM_Frame::Function;
    EnterFrame(copy.release(), is_function);
  }
}

// Copies a frame with its variables. A filter's frame leads back to an import, which stays with the
// source: the copy is a plain frame, at whose end the run ends.
std::unique_ptr<ZephVM_Frame> ZephVM::CloneFrame(ZephVM_Frame* original) {
  std::unique_ptr<ZephVM_Frame> copy;
  if (original->type() == ZephVM_Frame::Function) {
    auto* called = static_cast<ZephVM_FunctionFrame*>(original);
    if (Function* function = functions->Lookup(called->function->index())) {
      copy.reset(FrameFor(function));
    }
  }
  if (!copy) copy = std::make_unique<ZephVM_Frame>(0, 0);
  copy->return_segment = original->return_segment;
  copy->return_offset = original->return_offset;
  VariableHash* known = original->owns_variables ? nullptr : clone->Find(original->variables);
  if (known) {
    copy->Set_LocalVariable_Hash(known, false);
    return copy;
  }
  // A table that is not a function's belongs to a machine that is no parent of this one, and its
  // positions are those of that machine's dictionary. The copy is empty.
  std::unique_ptr<VariableHash> table;
  if (copy->type() == ZephVM_Frame::Function) {
    table = std::make_unique<VariableHash>(application, dictionary, *original->variables);
  } else {
    table = std::make_unique<VariableHash>(dictionary, 8, 64);
  }
  copy->Set_LocalVariable_Hash(table.release(), true);
  clone->locals.emplace_back(original->variables, copy->variables);
  return copy;
}

// Texts are copied, because their entries point into the dictionary, variables and buffers of the
// other machine.
void ZephVM_Stack::CopyEntries(ZephApplication* application, ZephVM_Stack& source) {
  for (Stack_Entry* entry = source.entries; entry < source.top; entry++) {
    source.Settled(entry);
    switch (entry->kind) {
      case KindInteger: PushI(entry->value.integer); break;
      case KindDouble: PushD(entry->value.number); break;
      case KindVariable: PushV(entry->value.variable->Clone(application), 0, 1); break;
      case KindString: {
        const auto bytes = static_cast<size_t>(entry->length);
        auto text = std::make_unique<char[]>(bytes + 1);
        if (bytes > 0) memcpy(text.get(), entry->value.text, bytes);
        PushS(text.release(), entry->length, entry->length + 1, 1);
        break;
      }
      default: {
        int length;
        const char* text = entry->value.buffer->data(&length, nullptr);
        auto buffer = std::make_unique<LinkBuffer>(512, 4096);
        buffer->cat(text, length);
        PushLinkBuffer(buffer.release(), 1);
      }
    }
  }
}

// --- Starting a task -----------------------------------------------------------------------------

// async  ( -- )  Starts the block that follows as a task of its own, with copies of everything that
// the script has, and continues after the block. A task that cannot be started is an error of
// ZpASYNCHRONOUS.
void ZephVM::async() {
  const char* failure = nullptr;
  switch (application->BeginAsynchronousTask(this)) {
    case AsynchronousTask_Continue: return;
    case AsynchronousTask_Failed: failure = "Unable to start asynchronous task"; break;
    // Scripts compare the message, so the misspelling has to stay.
    case AsynchronousTask_NotSupported: failure = "Asynchronoust tasks are not supported"; break;
    case AsynchronousTask_LimitReached:
      failure = "Maximum number of asynchronous tasks exceeded";
      break;
    case AsynchronousTask_InTask:
      failure = "Asynchronous tasks may not start additional asynchronous tasks";
      break;
    default: break;
  }
  if (failure) RuntimeError(Tag_Asynchronous, String(failure, -1));
  program_counter = Jumped(program_counter, first_integer);
}

void ZephVM::ResetAsynchronousState() {
  if (parent) parent->ResetAsynchronousState();
  while (features.Top()) Pop_Feature(nullptr);
}
