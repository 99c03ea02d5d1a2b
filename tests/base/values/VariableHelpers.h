// What the tests of variables share: short ways to make and read them, and classes that show
// what a variable does inside.

#pragma once

#include <string>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace variable_helpers {

// Shows which forms are cached.
class Probe : public Variable {
 public:
  using Variable::double_value;
  using Variable::integer_value;
  using Variable::string_value;
  using Variable::valid_forms;
  using Variable::Variable;
  explicit Probe(const Variable& source) : Variable(source) {}
};

// Reports when it is deleted.
class Witness : public Variable {
 public:
  explicit Witness(int* deletions) : Variable("witness", 7), counter(deletions) {}
  ~Witness() override { ++*counter; }

 private:
  int* counter;
};

// Computed values, like those of special and field variables.
class Computed : public Variable {
 public:
  Computed(int kind, int preferred) : kind_(kind), preferred_(preferred) {}
  int type() override { return redirected() ? Variable::type() : kind_; }
  int preferred_type() override { return preferred_; }
  String& value() override {
    text_.assign("computed", -1);
    return without_buffer ? null_ : text_;
  }
  int value_integer() override { return 42; }
  double value_double() override { return 2.5; }
  using Variable::primary;
  using Variable::valid_forms;
  bool without_buffer = false;

 private:
  int kind_;
  int preferred_;
  String text_;
  String null_;
};

inline VariableRef New() {
  return VariableRef(new Variable());
}
inline VariableRef New(const std::string& text) {
  return VariableRef(new Variable("v", 1, text.data(), static_cast<int>(text.size())));
}

inline std::string Text(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}
inline std::string Value(Variable* variable) {
  return Text(variable->value());
}
inline std::string Value(const VariableRef& variable) {
  return Value(variable.get());
}

inline Variable* At(const VariableRef& variable, int position) {
  return variable->Element(AggregateIndex(position), 1);
}

inline void Set(Variable* variable, const std::string& text) {
  variable->SetValue(text.data(), static_cast<int>(text.size()));
}

}  // namespace variable_helpers
