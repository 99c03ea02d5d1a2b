// Functions: calls and returns, and runs of the machine that native code nests in the current one.
// Calls of libraries are in ZephVM_External.cpp. Tested in tests/base/machine/FunctionCallTest.cpp,
// FrameReuseTest.cpp and RunFunctionTest.cpp.

#include <memory>

#include "base/compiled/Function.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/core/Output.h"
#include "base/core/RunLimit.h"
#include "base/host/ZephApplication.h"
#include "base/machine/Feature.h"
#include "base/machine/NestedRun.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

int ErrorOutputIn(int caller_flags, int function_flags) {
  int flags = caller_flags;
  if (function_flags & Function_ErrorOutputOn) flags |= ZephVM_Frame::ErrorOutput_Display;
  if (function_flags & Function_ErrorOutputOff) flags &= ~ZephVM_Frame::ErrorOutput_Display;
  return flags;
}

int OutputModeIn(int caller_mode, int function_flags) {
  if (function_flags & Function_InheritOutputMode) return (caller_mode & 3) != 0 ? 2 : 0;
  return (function_flags & Function_OutputMode1) != 0 ? 1 : 0;
}

LogParameter OfString(const String& text) {
  return LogParameter::OfText(text.data ? text.data : "", text.length);
}

}  // namespace

// --- Calls and returns ---------------------------------------------------------------------------

// call  ( args... -- x )  Calls a function by index, its arguments pushed in the order of its
// parameters; every call leaves one value. A bad index is the fatal error "Invalid function call".
void ZephVM::call() {
  Function* function = functions ? functions->Lookup(first_integer) : nullptr;
  if (!function) {
    FatalError("Invalid function call");
  } else if (function->flags() & Function_External) {
    CallExternalFunction(function);
  } else {
    CallFunction(function);
  }
}

void ZephVM::CallFunction(Function* function) {
  if (frame->depth >= MostFrames) {
    FatalError("Stack overflow");
    return;
  }
  std::unique_ptr<ZephVM_FunctionFrame> called(FrameFor(function));
  called->return_segment = wanted_segment;
  called->return_offset = program_counter;
  called->error_output = ErrorOutputIn(frame->error_output, function->flags());
  called->output_mode = OutputModeIn(frame->output_mode, function->flags());
  called->previous = frame;
  SetOutputMode(called->output_mode);
  if (WantsLog(Log_FunctionCall)) WriteLog(Log_FunctionCall, {OfString(function->name())});
  TakeArguments(function, called->variables);
  // The frame is entered after a failure too: the stop flag ends the loop before its code runs.
  wanted_segment = function->segment();
  program_counter = function->offset();
  if (Segment* called_code = segments->Lookup(wanted_segment)) {
    called_code->NoteRepeat(*dictionary, functions);
  }
  EnterFrame(called.release(), 1);
}

// Returns a frame with an empty stack and the function's locals, which the caller owns: one from an
// earlier call, if one is kept.
ZephVM_FunctionFrame* ZephVM::FrameFor(Function* function) {
  const auto index = static_cast<size_t>(function->index());
  if (index < idle_frames.size()) {
    ZephVM_FunctionFrame* idle = idle_frames[index];
    if (idle && idle->function == function) {
      idle_frames[index] = idle->next_idle;
      idle->return_code = 0;
      idle->uses = 0;
      idle->returns_hot = ReturnsNeedNoRecord();
      return idle;
    }
  }
  const auto all = static_cast<size_t>(functions->Functions());
  if (index < all && index >= idle_frames.size()) idle_frames.resize(all);
  auto made = std::make_unique<ZephVM_FunctionFrame>(0, 0, function);
  made->Set_LocalVariable_Hash(new VariableHash(function->variables()), true);
  made->Set_Stack(new ZephVM_Stack(this), true);
  if (index < all && ReturnsNeedNoRecord()) {
    made->simple_parameters = SimpleParameters(function, &made->references);
    made->returns_hot = true;
  }
  made->entry_segment = function->segment();
  made->entry_offset = function->offset();
  made->place = index;
  made->locals = &function->variables();
  made->simple_mode = OutputModeIn(0, function->flags());
  return made.release();
}

bool ZephVM::ReturnsNeedNoRecord() const {
  return !log_gate.Wants(Log_OfCalls);
}

int ZephVM::SimpleParameters(Function* function, uint64_t* references) {
  const int others = Function_ErrorOutputOn | Function_ErrorOutputOff | Function_InheritOutputMode |
                     Function_External;
  if (function->flags() & others) return -1;
  const std::vector<FunctionParameter*>& parameters = function->slots();
  if (parameters.size() > 64) return -1;
  for (size_t i = 0; i < parameters.size(); i++) {
    if (parameters[i]->index() != static_cast<int>(i)) return -1;
    if (parameters[i]->byreference()) *references |= uint64_t{1} << i;
  }
  return static_cast<int>(parameters.size());
}

// Adopts a frame that was left, and keeps it for a later call if its variables can be made like new
// ones.
void ZephVM::KeepFrame(ZephVM_FunctionFrame* left) {
  std::unique_ptr<ZephVM_FunctionFrame> held(left);
  if (!family->reuses_frames()) return;
  if (left->place >= idle_frames.size() || !left->owns_variables || !left->owns_stack) return;
  while (left->stack->Entries() > 0) left->stack->Pop();
  if (!left->variables->Renew(*left->locals)) return;
  left->next_idle = idle_frames[left->place];
  idle_frames[left->place] = held.release();
}

// Other code may set the output's mode too, but not while the hot loop runs.
void ZephVM::SetOutputMode(int mode) {
  if (hot_mode == mode) return;
  application->output()->SetFlags(mode);
  hot_mode = in_hot ? mode : NoMode;
}

// The last argument is on top of the caller's stack.
void ZephVM::TakeArguments(Function* function, VariableHash* locals) {
  const std::vector<FunctionParameter*>& parameters = function->slots();
  for (size_t i = parameters.size(); i-- > 0;) {
    const FunctionParameter* p = parameters[i];
    // Keeps the argument alive for the log record if the table refuses it.
    VariableRef held;
    Variable* argument;
    if (p->byreference()) {
      held = PopHeld(&argument);
      if (!argument) return;
      locals->SetVariable_Reference(p->index(), argument);
    } else {
      argument = locals->At(p->index(), 1);
      if (!argument) {
        FatalError("Invalid parameter reference");
        return;
      }
      // There is a record of each parameter, even after a failure.
      stack->PopV(argument);
    }
    if (WantsLog(Log_FunctionParameter)) {
      WriteLog(Log_FunctionParameter, {OfString(function->name()), OfString(p->name()),
                                       LogParameter::OfVariable(argument)});
    }
  }
}

ZephVM_FunctionFrame* ZephVM::ReturningFrame() {
  if (!frame->previous) {
    FatalError("Frame underflow");
    return nullptr;
  }
  if (frame->type() != ZephVM_Frame::Function) {
    FatalError("Return outside of function");
    return nullptr;
  }
  return static_cast<ZephVM_FunctionFrame*>(frame);
}

// Returns to the caller. What is left on the frame's stack is dropped with it.
void ZephVM::LeaveFrame() {
  auto* left = static_cast<ZephVM_FunctionFrame*>(frame);
  frame = left->previous;
  stack = frame->stack;
  KeepFrame(left);
  SetOutputMode(frame->output_mode);
}

// ret  ( x -- )  Returns from a function; x is the value of the call. Outside of a function it is
// the fatal error "Frame underflow", in a filter "Return outside of function".
void ZephVM::ret() {
  ZephVM_FunctionFrame* left = ReturningFrame();
  if (!left) return;
  Cleanup_Function_Features(left);
  wanted_segment = left->return_segment;
  program_counter = left->return_offset;
  left->previous->stack->Push(left->stack, 1);
  if (log_gate.Wants(Log_FunctionReturnValue | Log_FunctionReturn)) LogReturn(left, true);
  LeaveFrame();
}

// retn  ( -- )  Returns from a function without a value; the call leaves an empty text.
void ZephVM::retn() {
  ZephVM_FunctionFrame* left = ReturningFrame();
  if (!left) return;
  Cleanup_Function_Features(left);
  wanted_segment = left->return_segment;
  program_counter = left->return_offset;
  if (log_gate.Wants(Log_FunctionReturn)) LogReturn(left, false);
  LeaveFrame();
  stack->PushS("", 0, 0, 0);
}

// The value is on the caller's stack by now, and is recorded in the form that it has there.
void ZephVM::LogReturn(ZephVM_FunctionFrame* left, bool with_value) {
  const LogParameter name = OfString(left->function->name());
  ZephVM_Stack::Stack_Entry* value = left->previous->stack->Peek();
  if (with_value && value && !stop_flag && WantsLog(Log_FunctionReturnValue)) {
    LogParameter result = LogParameter::OfInteger(value->value.integer);
    int length;
    switch (value->kind) {
      case ZephVM_Stack::KindInteger: break;
      case ZephVM_Stack::KindDouble: result = LogParameter::OfDouble(value->value.number); break;
      case ZephVM_Stack::KindString:
        result = LogParameter::OfText(value->value.text, value->length);
        break;
      case ZephVM_Stack::KindVariable:
        result = LogParameter::OfVariable(value->value.variable);
        break;
      default: {
        const char* text = value->value.buffer->data(&length, nullptr);
        result = LogParameter::OfText(text, length);
      }
    }
    WriteLog(Log_FunctionReturnValue, {name, result});
  }
  if (WantsLog(Log_FunctionReturn)) WriteLog(Log_FunctionReturn, {name});
}

// A frame with features must not return in the hot loop, because the handlers of returns end its
// features.
long ZephVM::FrameSerial() {
  if (frame->serial == 0) {
    frame->serial = ++frame_serials;
    frame->returns_hot = false;
    frame->return_code = 0;
    frame->uses = 0;
  }
  return frame->serial;
}

// Closes the lowest of the frame's features; that drops those above it, which are deleted at the
// end of the machine.
void ZephVM::Cleanup_Function_Features(ZephVM_Frame* left) {
  Feature* lowest = nullptr;
  for (Feature* feature = features.Top(); feature && feature->frame() == left->serial;
       feature = FeatureStack::Below(feature)) {
    lowest = feature;
  }
  if (lowest) Pop_Feature(lowest);
}

// --- Runs within a run ---------------------------------------------------------------------------

ZephVM::NestedRun::NestedRun(ZephVM* machine)
    : vm(machine),
      outer(machine->frame),
      program_counter(machine->program_counter),
      wanted_segment(machine->wanted_segment),
      in_hot(machine->in_hot) {
  vm->in_hot = false;
  vm->hot_mode = NoMode;
  vm->family->BeginRun();
}

// Also deletes the frames that are left if an error ended the run inside a function.
ZephVM::NestedRun::~NestedRun() {
  LeaveFrames();
  vm->in_hot = in_hot;
  vm->hot_mode = NoMode;
  vm->stack = outer->stack;
  vm->application->output()->SetFlags(outer->output_mode);
  vm->program_counter = program_counter;
  vm->wanted_segment = wanted_segment;
  // If the segment does not exist, the loop reports that before it continues.
  try {
    if (vm->loaded_segment != wanted_segment) vm->LoadSegment();
  } catch (const std::bad_alloc&) {
    vm->segment = nullptr;
    vm->code = nullptr;
    vm->code_length = 0;
  }
  vm->family->EndRun();
}

void ZephVM::NestedRun::LeaveFrames() {
  while (vm->frame != outer) {
    std::unique_ptr<ZephVM_Frame> left(vm->frame);
    vm->frame = left->previous ? left->previous : outer;
    if (left->type() == ZephVM_Frame::Filter) vm->family->EndRun();
  }
}

void ZephVM::NestedRun::Enter(VariableHash* variables, ZephVM_Stack* entries) {
  auto base = std::make_unique<ZephVM_Frame>(wanted_segment, program_counter);
  base->Set_LocalVariable_Hash(variables, false);
  base->Set_Stack(entries ? entries : new ZephVM_Stack(vm), !entries);
  base->around = outer;
  vm->EnterFrame(base.release());
}

void ZephVM::NestedRun::Begin(Segment* start) {
  vm->segment = start;
  vm->code = start->code();
  vm->code_length = start->length();
  vm->wanted_segment = vm->loaded_segment = start->number();
  vm->program_counter = 0;
}

bool ZephVM::MayNest() {
  if (family->IsReadingField()) {
    FatalError("Script code cannot run while a field of a database is read");
    return false;
  }
  if (family->HasRoomForRun()) return true;
  FatalError("Stack overflow");
  return false;
}

int ZephVM::Go_Recursive() {
  if (!MayNest()) return 0;
  NestedRun nested(this);
  nested.Enter(global_variables, nullptr);
  nested.Begin(segments->Start());
  return Go();
}

// The run ends when the function returns. It then continues past the end of the caller's segment,
// in a plain frame, and the end of a segment there is the end of the run.
template <typename Push, typename Take>
int ZephVM::RunNested(Function* function, bool wants_result, Push push, Take take) {
  if (!MayNest()) return 0;
  const int error_output = frame->error_output;
  const int output_mode = frame->output_mode;
  NestedRun nested(this);
  nested.Enter(frame->variables, stack);
  frame->error_output = error_output;
  frame->output_mode = output_mode;
  push();
  program_counter = code_length;
  if (function->flags() & Function_External) {
    // Go makes the limit of a script's own function.
    const RunLimit limit(timedout_flag);
    CallExternalFunction(function);
  } else {
    CallFunction(function);
    if (Set_Segment()) Go();
  }
  if (stop_flag) return 0;
  // After an exit the function has not returned, and its frame is still current.
  if (stack->Entries() > 0 && !frame->previous) {
    take();
  } else if (wants_result) {
    FatalError("Stack underflow");
  }
  return stop_flag ? 0 : 1;
}

int ZephVM::RunFunction(const char* name, int length, VariableList* arguments, Variable* result) {
  Function* function = functions ? functions->Function_Get(name, length) : nullptr;
  if (!function) return 0;
  if (arguments && arguments->Entries() != function->parameters().Entries()) return 0;
  return RunNested(
      function, false,
      [&] {
        if (!arguments) return;
        for (Variable* v = arguments->First(); v; v = arguments->Next()) stack->PushV(v, 1, 1);
      },
      [&] {
        if (result) {
          stack->PopV(result);
        } else {
          stack->Pop();
        }
      });
}

int ZephVM::ValidateFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                               const char* type, int typelength, int* answer) {
  *answer = -1;
  Function* function = functions ? functions->Function_Get("Zeph_ValidateFileUpload", -1) : nullptr;
  if (!function) return 1;
  if (function->parameters().Entries() != 3) return 0;
  return RunNested(
      function, true,
      [&] {
        stack->PushS(field, fieldlength, fieldlength, 0);
        stack->PushS(name, namelength, namelength, 0);
        stack->PushS(type, typelength, typelength, 0);
      },
      [&] { *answer = stack->PopI(); });
}

int ZephVM::ProcessFileUpload(const char* field, int fieldlength, const char* name, int namelength,
                              const char* status, int statuslength, const char* path,
                              int pathlength, const char* type, int typelength, int size) {
  Function* function = functions ? functions->Function_Get("Zeph_ProcessFileUpload", -1) : nullptr;
  if (!function) return 1;
  if (function->parameters().Entries() != 6) return 0;
  return RunNested(
      function, true,
      [&] {
        stack->PushS(field, fieldlength, fieldlength, 0);
        stack->PushS(name, namelength, namelength, 0);
        stack->PushS(status, statuslength, statuslength, 0);
        stack->PushS(path, pathlength, pathlength, 0);
        stack->PushS(type, typelength, typelength, 0);
        stack->PushI(size);
      },
      [&] { stack->Pop(); });
}
