// Calls of functions of extension libraries. Tested in tests/api/ExternalFunctionTest.cpp
// and tests/api/zpProgramTest.cpp.

#include <atomic>
#include <memory>
#include <utility>

#include "api/zeph.h"
#include "base/compiled/Function.h"
#include "base/core/RunLimit.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalParameters.h"
#include "base/host/ZephApplication.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

using Entry = ZephVM_Stack::Stack_Entry;

LogParameter OfString(const String& text) {
  return LogParameter::OfText(text.data ? text.data : "", text.length);
}

// The bytes of an entry whose text is in place, and their number; null for any other entry.
const char* BytesOf(const Entry* entry, int* length) {
  if (entry->deferred) {
    *length = entry->value.pending->length();
    return entry->value.pending->InPlace();
  }
  *length = entry->length;
  return entry->kind == ZephVM_Stack::KindString ? entry->value.text : nullptr;
}

// Whether a variable that the entry is popped into gets the text of a variable and nothing else.
bool IsTextVariable(const Entry* entry) {
  if (entry->kind != ZephVM_Stack::KindVariable) return false;
  const Variable* const variable = entry->value.variable;
  return variable->plain_forms() == Variable::TextForm && variable->plain_text().data;
}

// Pops the top of the stack into the variable of a parameter, which is returned; null for a
// position that the table does not have. A text is copied to where the parameter has kept memory
// for it.
Variable* TakeValue(ZephVM_Stack* stack, ExternalParameters* parameters,
                    ExternalParameters::Parameter* parameter) {
  Entry* const top = stack->End() - 1;
  const bool has_top = stack->Entries() > 0 && parameters->is_usual();
  int length;
  if (const char* const bytes = has_top ? BytesOf(top, &length) : nullptr) {
    Variable* const argument = parameters->Argument(parameter, true);
    argument->Variable::SetValue(bytes, length);
    stack->SetEnd(top);
    ZephVM_Stack::Free(top);
    return argument;
  }
  const bool has_text = has_top && IsTextVariable(top);
  Variable* const argument = parameters->Argument(parameter, has_text);
  // The copy of a variable that is a short text or a number.
  if (has_top && top->kind == ZephVM_Stack::KindVariable &&
      (has_text ? argument->CopyShort(*top->value.variable)
                : argument->CopyNumber(*top->value.variable))) {
    stack->SetEnd(top);
    ZephVM_Stack::Free(top);
    return argument;
  }
  if (argument) stack->PopV(argument);
  return argument;
}

}  // namespace

// A function is bound at its first call in the run. Then its row is compared with what the script
// declares, and later calls take the outcome from the table of parameters.
void ZephVM::CallExternalFunction(Function* function) {
  const int index = function->index();
  std::unique_ptr<ExternalParameters> taken = idle_parameters.Take(function, index);
  if (!taken) [[unlikely]] {
    ExternalCall* const call = BindExternal(function);
    if (!call) return;
    taken = idle_parameters.Make(function, call);
  }
  const auto keep = [this, index](ExternalParameters* used) {
    std::unique_ptr<ExternalParameters> over(used);
    if (family->reuses_frames()) idle_parameters.Keep(std::move(over), index);
  };
  const std::unique_ptr<ExternalParameters, decltype(keep)> parameters(taken.release(), keep);
  if (WantsLog(Log_ExternalFunctionCall)) {
    WriteLog(Log_ExternalFunctionCall, {OfString(function->name())});
  }
  if (!TakeArguments(parameters.get())) return;
  // A library might keep or send what it is given, so it is not given parts.
  if (RunLimit::WasCut()) return;
  ExternalCall* const external = parameters->call();
  external->Call(this, parameters->table());
  // A library may extend the time limit, but not for a script whose values were cut short.
  if (RunLimit::WasCut()) std::atomic_ref<int>(*timedout_flag).store(1, std::memory_order_relaxed);
  stack->PushHeld(external->result());
  if (WantsLog(Log_ExternalFunctionReturnValue)) {
    WriteLog(Log_ExternalFunctionReturnValue,
             {OfString(function->name()), LogParameter::OfVariable(external->result())});
  }
  if (WantsLog(Log_ExternalFunctionReturn)) {
    WriteLog(Log_ExternalFunctionReturn, {OfString(function->name())});
  }
}

// Without records, and without the steps that have their outcome from the first call. The order of
// the pops is that of the other way.
Variable* ZephVM::CallBoundFunction(int index, const char* text, int length) {
  std::unique_ptr<ExternalParameters> taken =
      idle_parameters.Take(idle_parameters.Next(index)->function(), index);
  const auto keep = [this, index](ExternalParameters* used) {
    std::unique_ptr<ExternalParameters> over(used);
    if (family->reuses_frames()) idle_parameters.Keep(std::move(over), index);
  };
  const std::unique_ptr<ExternalParameters, decltype(keep)> parameters(taken.release(), keep);
  ExternalParameters::Parameter* const first = parameters->parameters().data();
  ExternalParameters::Parameter* end = first + parameters->parameters().size();
  if (text) {
    Variable* const argument = parameters->Argument(--end, true);
    if (!argument->WriteWord(text, length)) argument->Variable::SetValue(text, length);
  }
  while (end != first) {
    if (!TakeArgument(parameters.get(), --end)) return nullptr;
  }
  // A library might keep or send what it is given, so it is not given parts.
  if (RunLimit::WasCut()) return nullptr;
  ExternalCall* const external = parameters->call();
  external->Run(this, parameters->table());
  if (RunLimit::WasCut()) std::atomic_ref<int>(*timedout_flag).store(1, std::memory_order_relaxed);
  return external->result();
}

// Returns null after a failure.
inline Variable* ZephVM::TakeArgument(ExternalParameters* parameters,
                                      ExternalParameters::Parameter* parameter) {
  Variable* argument;
  if (!parameter->by_reference) {
    argument = TakeValue(stack, parameters, parameter);
    if (!argument) FatalError("Invalid parameter reference");
    return stop_flag ? nullptr : argument;
  }
  Entry* const top = stack->End() - 1;
  if (stack->Entries() > 0 && top->kind == ZephVM_Stack::KindVariable) [[likely]] {
    argument = top->value.variable;
    parameters->Refer(*parameter, argument);
    stack->SetEnd(top);
    ZephVM_Stack::Free(top);
    return argument;
  }
  const VariableRef held = PopHeld(&argument);
  if (argument) parameters->Refer(*parameter, argument);
  return argument;
}

// The last argument is on top of the stack. Returns false after a failure.
bool ZephVM::TakeArguments(ExternalParameters* parameters) {
  std::vector<ExternalParameters::Parameter>& all = parameters->parameters();
  for (size_t i = all.size(); i-- > 0;) {
    ExternalParameters::Parameter& parameter = all[i];
    // Only now, because an argument after this one may have failed before.
    if (parameter.differs) {
      FatalError("Parameter type mismatch in call to external function");
      return false;
    }
    // Keeps the argument alive for the log record if the table refuses it.
    VariableRef held;
    Variable* argument;
    if (parameter.by_reference) {
      Entry* const top = stack->End() - 1;
      if (stack->Entries() > 0 && top->kind == ZephVM_Stack::KindVariable) [[likely]] {
        argument = top->value.variable;
        if (top->Owns()) held.reset(argument);
        stack->SetEnd(top);
      } else {
        held = PopHeld(&argument);
        if (!argument) return false;
      }
      parameters->Refer(parameter, argument);
    } else {
      argument = TakeValue(stack, parameters, &parameter);
      if (!argument) {
        FatalError("Invalid parameter reference");
        return false;
      }
      if (stop_flag) return false;
    }
    if (WantsLog(Log_ExternalFunctionParameter)) {
      WriteLog(Log_ExternalFunctionParameter,
               {OfString(parameters->function()->name()), OfString(parameter.declared->name()),
                LogParameter::OfVariable(argument)});
    }
  }
  return true;
}

// Finds a function and compares the number of its parameters. Null after a failure.
ExternalCall* ZephVM::BindExternal(Function* function) {
  ExternalCall* const external = FindExternal(function);
  if (!external) return nullptr;
  if (external->descriptor()->parametercount == static_cast<int>(function->slots().size())) {
    return external;
  }
  FatalError("Number of parameters mismatch in call to external function");
  return nullptr;
}

// Found by name. So a script may declare a function that no library has, as long as it does not
// call it.
ExternalCall* ZephVM::FindExternal(Function* function) {
  auto* external = static_cast<ExternalCall*>(function->calldata);
  if (external) return external;
  const String& name = function->name();
  if (external_calls) {
    external = external_calls->Lookup_External(name.data ? name.data : "", name.length);
  }
  if (external) {
    function->calldata = external;
    return external;
  }
  String message("Unresolved call to external function '", -1);
  message.cat(name.data, name.length);
  message.cat('\'');
  FatalError(message);
  // The reason may be a library that the host could not load. That is not the visitor's business.
  if (external_calls && external_calls->failures().length > 0 && WantsLog(Log_FatalError)) {
    const String& failures = external_calls->failures();
    WriteLog(Log_FatalError, {LogParameter::OfText(failures.data, failures.length)});
  }
  return nullptr;
}
