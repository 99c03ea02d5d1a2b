// The parameters of external functions, and the memory that they keep between calls. Tested in
// tests/base/extensions/ExternalParametersTest.cpp.

#include "base/extensions/ExternalParameters.h"

#include "api/zeph.h"
#include "base/compiled/Function.h"
#include "base/extensions/ExternalCall.h"
#include "base/values/Variable.h"

ExternalParameters::ExternalParameters(Function* function, ExternalCall* call)
    : called(function), library_call(call), variables(function->variables()) {
  const _ZP_EL_Parameter* row = call->descriptor()->parameters;
  slots.reserve(function->slots().size());
  std::vector<bool> used(static_cast<size_t>(variables.Entries()));
  usual = used.size() == function->slots().size();
  for (const FunctionParameter* declared : function->slots()) {
    const auto position = static_cast<size_t>(declared->index());
    usual = usual && position < used.size() && !used[position];
    if (usual) used[position] = true;
    slots.push_back({.declared = declared,
                     .position = declared->index(),
                     .by_reference = declared->byreference(),
                     .differs = declared->flagword() != row->flags});
    row++;
  }
  regular = usual;
  for (const Parameter& parameter : slots) regular = regular && !parameter.differs;
}

// Afterwards the variable is as new.
void ExternalParameters::DropText(Variable* variable) {
  char* text;
  int length, size;
  if (variable->TakeText(&text, &length, &size)) delete[] text;
}

// A text may stay in its variable, because nothing looks at the table before all parameters have
// their next values. It may not if the variable is held elsewhere too, or if the library has
// replaced it. All others are reset now.
bool ExternalParameters::Renew(int room, int* kept) {
  unsigned count;
  const _VH_Entry* const rows = variables.Rows(&count);
  if (!usual || count != slots.size()) return RenewAll(kept);
  int sum = 0;
  for (Parameter& parameter : slots) {
    Variable* const variable = rows[parameter.position].variable;
    parameter.has_text = false;
    if (!variable) continue;
    if (variable->plain_forms() == Variable::TextForm && variable == parameter.variable &&
        variable->plain_count() == 1) {
      const String& text = variable->plain_text();
      if (text.data && text.allocated <= kMostKept && text.allocated <= room - sum) {
        parameter.has_text = true;
        sum += text.allocated;
        continue;
      }
    }
    if (!variable->RenewScalar() && !variable->Renew()) return RenewAll(kept);
  }
  *kept = sum;
  return true;
}

bool ExternalParameters::RenewAll(int* kept) {
  for (Parameter& parameter : slots) parameter.has_text = false;
  *kept = 0;
  return variables.Renew(called->variables());
}

IdleParameters::~IdleParameters() {
  for (ExternalParameters* parameters : idle) {
    while (parameters) {
      const std::unique_ptr<ExternalParameters> last(parameters);
      parameters = last->next;
    }
  }
}

std::unique_ptr<ExternalParameters> IdleParameters::Make(Function* function, ExternalCall* call) {
  const auto index = static_cast<size_t>(function->index());
  if (index >= idle.size()) idle.resize(index + 1);
  return std::make_unique<ExternalParameters>(function, call);
}
