// The parameters of an external function: the table that a call passes to the library, and what is
// kept of it for later calls. Used by the machine (base/machine/ZephVM_External.cpp).

#ifndef ZEPH_BASE_EXTERNALPARAMETERS_H
#define ZEPH_BASE_EXTERNALPARAMETERS_H

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/core/Sanitizers.h"
#include "base/values/Variable.h"

class ExternalCall;
class Function;
class FunctionParameter;

// The table of one call. A function that calls itself, through the script, has one for each call in
// progress, because a library may read its parameters after the inner call.
//
// A library finds the table as new in each call: names without variables, and then the arguments.
// It cannot observe that the memory of the variables, and of their texts, is that of earlier calls.
class ExternalParameters {
 public:
  // In bytes: memory of a text that is kept for the next call. For a longer text, the copy takes
  // more time than the allocation. With the address sanitizer none is kept, because that must see
  // each use of a parameter's text after the call.
  static constexpr int kMostKept = kAddressSanitizer ? 0 : 4096;

  // A parameter, in the order of declaration.
  struct Parameter {
    const FunctionParameter* declared;
    int position;  // of its variable in the table, as the compiled file has it
    bool by_reference;
    bool differs;  // from what the library declares
    // The variable that the table has made, and whether an earlier call has left its text in it.
    Variable* variable = nullptr;
    bool has_text = false;
  };

  // Both are borrowed and outlive the object. REQUIRES: the library declares as many parameters as
  // the function.
  ExternalParameters(Function* function, ExternalCall* call);
  ExternalParameters(const ExternalParameters&) = delete;
  ExternalParameters& operator=(const ExternalParameters&) = delete;

  Function* function() const { return called; }
  ExternalCall* call() const { return library_call; }
  std::vector<Parameter>& parameters() { return slots; }
  // What the library gets. Valid until Renew.
  VariableHash* table() { return &variables; }

  // Returns the variable of a parameter by value, borrowed; null for a position that the table does
  // not have. With gets_text, it may have a text of an earlier call. REQUIRES: with gets_text, the
  // next store gives it a text that is not null, or the copy of a variable with only such a text.
  Variable* Argument(Parameter* parameter, bool gets_text) {
    if (parameter->has_text) {
      parameter->has_text = false;
      if (!gets_text) DropText(parameter->variable);
    } else if (Variable* const asleep = Asleep(*parameter)) [[likely]] {
      asleep->Wake();
      parameter->variable = asleep;
    } else {
      parameter->variable = variables.VariableHash::Index(parameter->position, 1);
    }
    return parameter->variable;
  }
  // Makes the variable of a parameter a reference to the given one, on which the table takes a
  // count.
  void Refer(const Parameter& parameter, Variable* argument) {
    if (Variable* const asleep = Asleep(parameter)) [[likely]] {
      asleep->Begin(argument);
    } else {
      variables.VariableHash::SetVariable_Reference(parameter.position, argument);
    }
  }
  // Whether each parameter has a variable of its own, and the table no other ones, as in all but
  // damaged files.
  bool is_usual() const { return usual; }
  // The same, and the library declares all parameters as the script does.
  bool is_regular() const { return regular; }

  // Ends a call: drops the arguments and makes the table as new, except for texts that are kept. At
  // most `room` bytes of them are; *kept receives how many. Returns false if the object must be
  // deleted instead, because the library has added names to the table.
  [[nodiscard]] bool Renew(int room, int* kept);

 private:
  friend class IdleParameters;

  // The variable of an earlier call that waits in the parameter's row; null if there is none, or if
  // another parameter has woken it.
  Variable* Asleep(const Parameter& parameter) {
    unsigned count;
    const _VH_Entry* const rows = variables.Rows(&count);
    if (static_cast<unsigned>(parameter.position) >= count) return nullptr;
    Variable* const variable = rows[parameter.position].variable;
    return variable && variable->IsAsleep() ? variable : nullptr;
  }
  static void DropText(Variable* variable);
  bool RenewAll(int* kept);
  // Renew for a table whose only parameter is a text that may be kept, as most functions have.
  // Returns false and does nothing for others.
  bool RenewText(int room, int* kept) {
    if (!regular || slots.size() != 1) return false;
    unsigned count;
    const _VH_Entry* const rows = variables.Rows(&count);
    Parameter& parameter = slots[0];
    Variable* const variable = count == 1 ? rows[0].variable : nullptr;
    if (!variable || variable != parameter.variable || !variable->HoldsText() ||
        variable->plain_count() != 1) {
      return false;
    }
    const String& text = variable->plain_text();
    if (!text.data || text.allocated > kMostKept || text.allocated > room) return false;
    parameter.has_text = true;
    *kept = text.allocated;
    return true;
  }

  Function* called;
  ExternalCall* library_call;
  VariableHash variables;
  std::vector<Parameter> slots;
  bool usual;
  bool regular;
  int kept_bytes = 0;                  // of all texts that are kept
  ExternalParameters* next = nullptr;  // while the object is idle
};

// The tables of a machine that no call uses, by function. Together they keep at most kMostBytes of
// memory for texts, whatever number of functions a script calls.
class IdleParameters {
 public:
  static constexpr int kMostBytes = 1 << 20;

  IdleParameters() = default;
  ~IdleParameters();
  IdleParameters(const IdleParameters&) = delete;
  IdleParameters& operator=(const IdleParameters&) = delete;

  // Returns an idle table of the function, or null. index is the function's.
  std::unique_ptr<ExternalParameters> Take(const Function* function, int index) {
    if (static_cast<unsigned>(index) >= idle.size()) return nullptr;
    ExternalParameters*& first = idle[static_cast<unsigned>(index)];
    if (!first || first->called != function) return nullptr;
    ExternalParameters* const taken = std::exchange(first, first->next);
    bytes -= taken->kept_bytes;
    return std::unique_ptr<ExternalParameters>(taken);
  }
  // Returns the table that Take would return next, which stays idle; null if there is none.
  const ExternalParameters* Next(int index) const {
    return static_cast<unsigned>(index) < idle.size() ? idle[static_cast<unsigned>(index)]
                                                      : nullptr;
  }
  // Returns a new table. The arguments are those of the constructor.
  std::unique_ptr<ExternalParameters> Make(Function* function, ExternalCall* call);
  // Keeps a table of Take or Make whose call is over, or deletes it. Needs no memory. index is the
  // function's.
  void Keep(std::unique_ptr<ExternalParameters> used, int index) {
    const int room = kMostBytes - bytes;
    if (!used->RenewText(room, &used->kept_bytes) && !used->Renew(room, &used->kept_bytes)) return;
    bytes += used->kept_bytes;
    ExternalParameters*& first = idle[static_cast<unsigned>(index)];
    used->next = first;
    first = used.release();
  }

  // The memory that is kept for texts.
  int kept() const { return bytes; }

 private:
  std::vector<ExternalParameters*> idle;
  int bytes = 0;
};

#endif
