// System variables without a stored value: each read gets it from the clock, the application or the
// settings. To a script they are ordinary variables that it cannot write, except the four that are
// the script's own settings, such as its language.

#ifndef ZEPH_BASE_SPECIALVARIABLE_H
#define ZEPH_BASE_SPECIALVARIABLE_H

#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/host/ZephApplication.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"

// Makes the system variables that every script has, for the caller's table: the time of this call,
// which does not change, a few facts, and the special variables. The caller owns the result. The
// application is borrowed.
// REQUIRES: it outlives them.
[[nodiscard]] LateVariables* NewSystemVariables(ZephApplication* application);

// A number or a text that is computed at each read and not cached, so two reads may differ.
class ComputedVariable : public ImmutableVariable {
 public:
  // type is VariableComputedInteger or VariableComputedText.
  ComputedVariable(const char* name, int type);

  String& value() override;
  // 0 for a text, even if it contains a number.
  int value_integer() override;
  double value_double() override;
  double value_compare(int* not_numeric) override;
  int type() override;
  int IsNULL() override;

 protected:
  bool is_text() const { return computed_type == VariableComputedText; }
  // The reads call the one for the type. A null text is an empty one.
  virtual long Number() = 0;
  virtual const char* Text() = 0;

 private:
  int computed_type;
};

// The part of the present local time that a DynamicTimeVariable returns.
enum DynamicTimeVariableType : int {
  dyn_time_t = 0,
  dyn_tm_usec = 1,
  dyn_tm_sec = 2,
  dyn_tm_min = 3,
  dyn_tm_hour = 4,
  dyn_tm_mday = 5,
  dyn_tm_mon = 6,
  dyn_stm_mon = 7,  // text
  dyn_tm_year = 8,
  dyn_tm_wday = 9,
  dyn_stm_wday = 10,  // text
  dyn_tm_yday = 11,
  dyn_tm_isdst = 12,
  dyn_stm_zone = 13,  // text
};

class DynamicTimeVariable : public ComputedVariable {
 public:
  ZEPH_FREE_LIST_OPERATORS(DynamicTimeVariable)

  DynamicTimeVariable(const char* name, DynamicTimeVariableType what);

  Variable* Clone(ZephApplication* application) override;

 protected:
  long Number() override;
  const char* Text() override;

 private:
  DynamicTimeVariableType what;
};

// Seconds until the script's time limit, negative after it; -1 without a limit.
class TimeRemainingVariable : public ComputedVariable {
 public:
  TimeRemainingVariable(const char* name, ZephApplication* application);

  Variable* Clone(ZephApplication* application) override;

 protected:
  long Number() override;
  const char* Text() override;

 private:
  ZephApplication* application;
};

// A variable that stores its value like others, and updates it before each read if necessary.
class RefreshedVariable : public ImmutableVariable {
 public:
  using ImmutableVariable::ImmutableVariable;

  String& value() override;
  int value_integer() override;
  double value_double() override;
  double value_compare(int* not_numeric) override;
  // Code that copies a value calls type() first and then reads the forms directly, so type()
  // refreshes.
  int type() override;
  int primary_type() override;
  int IsTrue() override;
  int IsNULL() override;
  AggregateElementTree* aggregateelements() override;
  AggregateType aggregatetype() override;
  Variable* Element(const AggregateIndex& index, int create) override;
  Variable* Element(List<AggregateIndex>* path, int create) override;
  int Max() override;
  int Min() override;
  int Next(int position) override;
  int Previous(int position) override;
  int ElementsUsed() override;

 protected:
  // Updates the value. Never called for a variable that is a reference or NULL for good.
  virtual void Refresh() = 0;
  void StoreText(const char* text, int length);

 private:
  void RefreshOwn() {
    if (!redirected()) Refresh();
  }
};

// One of the texts that the application keeps for the script, with a count of changes. A read
// copies the text if the count has changed; a write changes the setting.
class ApplicationTextVariable : public RefreshedVariable {
 public:
  int SetValue(const char* text, int length) override;
  // Stores the source's text, up to its first NUL.
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;

 protected:
  ApplicationTextVariable(const char* name, ZephApplication* application);

  void Refresh() override;
  virtual const String& Setting() = 0;
  virtual int Changes() = 0;
  virtual void Change(const String& text) = 0;

  ZephApplication* application;

 private:
  int changes_seen = 0;
};

// One of those texts, by the application's functions for it. A copy for a task has the setting of
// the task's application.
template <auto kText, auto kChanges, auto kChange>
class ApplicationSetting : public ApplicationTextVariable {
 public:
  ApplicationSetting(const char* name, ZephApplication* application)
      : ApplicationTextVariable(name, application) {}
  Variable* Clone(ZephApplication* application) override {
    if (redirected()) return Variable::Clone(application);
    return new ApplicationSetting(name().data, application);
  }

 protected:
  const String& Setting() override { return (application->*kText)(); }
  int Changes() override { return (application->*kChanges)(); }
  void Change(const String& text) override { (application->*kChange)(text); }
};

using LanguageVariable =
    ApplicationSetting<&ZephApplication::language, &ZephApplication::languagecount,
                       &ZephApplication::SetLanguage>;
using DefaultLanguageVariable =
    ApplicationSetting<&ZephApplication::defaultlanguage, &ZephApplication::defaultlanguagecount,
                       &ZephApplication::SetDefaultLanguage>;
using DefaultDatabaseVariable =
    ApplicationSetting<&ZephApplication::defaultdatabase, &ZephApplication::defaultdatabasecount,
                       &ZephApplication::SetDefaultDatabase>;
using CharacterSetVariable =
    ApplicationSetting<&ZephApplication::charset, &ZephApplication::charsetcount,
                       &ZephApplication::SetCharacterSet>;

// Whether connections can be encrypted, 1 or 0. The first read finds out, which may load a library;
// the result is kept.
class SSLAvailableVariable : public RefreshedVariable {
 public:
  SSLAvailableVariable(const char* name, ZephApplication* application);
  Variable* Clone(ZephApplication* application) override;

 protected:
  void Refresh() override;

 private:
  ZephApplication* application;
};

// The process name that process listings show.
class ProcessNameVariable : public RefreshedVariable {
 public:
  ProcessNameVariable(const char* name, ZephApplication* application);
  Variable* Clone(ZephApplication* application) override;

 protected:
  void Refresh() override;

 private:
  ZephApplication* application;
};

// --- Settings ------------------------------------------------------------------------------------

// One setting. A read may call the configuration library.
class ConfigurationVariable : public ComputedVariable {
 public:
  // identifier is one of ConfigID.
  ConfigurationVariable(const char* name, ZephApplication* application, int identifier);
  Variable* Clone(ZephApplication* application) override;

 protected:
  long Number() override;
  const char* Text() override;

 private:
  ZephApplication* application;
  int identifier;
};

// The kinds of libraries that the configuration names.
enum _ConfigurationLibrary_Type : int {
  ConfigurationLibrary_Commerce = 0,
  ConfigurationLibrary_Database = 1,
  ConfigurationLibrary_System = 2,
};

// The names of the libraries of one kind, as an array from 1 on, made at the first read.
class ConfigurationLibraryListVariable : public RefreshedVariable {
 public:
  ConfigurationLibraryListVariable(const char* name, ZephApplication* application,
                                   _ConfigurationLibrary_Type kind);
  Variable* Clone(ZephApplication* application) override;

 protected:
  void Refresh() override;

 private:
  ZephApplication* application;
  _ConfigurationLibrary_Type kind;
  bool loaded = false;
};

// A structure with a member for every name: 1 if a library of that name can be loaded, else 0.
// Reading a member loads the library; the result is kept.
class ConfigurationLibraryLookupVariable : public ImmutableVariable {
 public:
  ConfigurationLibraryLookupVariable(const char* name, ZephApplication* application,
                                     _ConfigurationLibrary_Type kind);
  Variable* Clone(ZephApplication* application) override;
  using ImmutableVariable::Element;
  Variable* Element(const AggregateIndex& index, int create) override;

 private:
  bool LibraryIsThere(const char* name, int length);

  ZephApplication* application;
  _ConfigurationLibrary_Type kind;
};

// The structure of all settings, and of the lists of libraries, made at the first read.
class ConfigurationAggregateVariable : public RefreshedVariable {
 public:
  ConfigurationAggregateVariable(const char* name, ZephApplication* application);
  Variable* Clone(ZephApplication* application) override;

 protected:
  void Refresh() override;

 private:
  void AddMember(const char* name, Variable* adopted);

  ZephApplication* application;
  bool loaded = false;
};

#endif
