// A guard for one count of a Variable, for the code between taking a count and handing it on.

#ifndef ZEPH_BASE_VARIABLEREF_H
#define ZEPH_BASE_VARIABLEREF_H

#include "base/values/Variable.h"

// Holds one count, or nothing, and releases it on destruction. Like the Variable itself, not shared
// between threads.
class VariableRef {
 public:
  VariableRef() = default;
  // Adopts a count that the caller holds: that of a new Variable, or of a popped entry.
  explicit VariableRef(Variable* adopted) : variable_(adopted) {}
  VariableRef(VariableRef&& other) noexcept : variable_(other.release()) {}
  VariableRef& operator=(VariableRef&& other) noexcept {
    reset(other.release());
    return *this;
  }
  VariableRef(const VariableRef&) = delete;
  VariableRef& operator=(const VariableRef&) = delete;
  ~VariableRef() { reset(); }

  // Takes a count of its own, so that the variable survives the caller's next steps. Null gives an
  // empty guard.
  [[nodiscard]] static VariableRef Share(Variable* variable) {
    if (variable) variable->Hold();
    return VariableRef(variable);
  }

  Variable* get() const { return variable_; }
  Variable* operator->() const { return variable_; }
  Variable& operator*() const { return *variable_; }
  explicit operator bool() const { return variable_ != nullptr; }

  // Passes the count to the caller; the guard is empty afterwards.
  [[nodiscard]] Variable* release() {
    Variable* variable = variable_;
    variable_ = nullptr;
    return variable;
  }
  // Releases the count and adopts another one.
  void reset(Variable* adopted = nullptr) {
    Variable* old = variable_;
    variable_ = adopted;
    if (old) old->Release();
  }

 private:
  Variable* variable_ = nullptr;
};

#endif
